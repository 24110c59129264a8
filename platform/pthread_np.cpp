#include "pthread_np.h"

#include <cerrno>

extern "C" int pthread_cond_timedwait_relative_np(pthread_cond_t* cond, pthread_mutex_t* mutex,
                                                  const struct timespec* reltime) {
  if (reltime == nullptr) return pthread_cond_wait(cond, mutex);
  if (reltime->tv_sec < 0 || reltime->tv_nsec < 0 || reltime->tv_nsec >= 1000000000L) {
    return EINVAL;
  }
  struct timespec deadline;
  clock_gettime(CLOCK_MONOTONIC, &deadline);
  deadline.tv_sec += reltime->tv_sec;
  deadline.tv_nsec += reltime->tv_nsec;
  if (deadline.tv_nsec >= 1000000000L) {
    deadline.tv_nsec -= 1000000000L;
    deadline.tv_sec += 1;
  }
  // pthread_cond_clockwait takes the clock per call, so the deadline is monotonic whatever
  // clock the condition variable was initialised with.
  return pthread_cond_clockwait(cond, mutex, CLOCK_MONOTONIC, &deadline);
}
