#pragma once
// Waiting on a condition variable for at most a relative time, as the device's libc offers it.
#include <pthread.h>
#include <time.h>

extern "C" {

// Waits on `cond` (with `mutex` held) until signalled or until `reltime` has passed, measured
// on the monotonic clock so that changes of the wall clock do not shorten or stretch the wait.
// Works with condition variables made with default attributes. Returns 0 when woken (which,
// as with any condition wait, may be spurious), ETIMEDOUT when the time passed, EINVAL for a
// malformed time. A null `reltime` waits without limit.
int pthread_cond_timedwait_relative_np(pthread_cond_t* cond, pthread_mutex_t* mutex,
                                       const struct timespec* reltime);
}
