#include <gtest/gtest.h>

#include <pthread.h>
#include <time.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <thread>

#include "pthread_np.h"

namespace {

int64_t monotonicNs() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return int64_t{ts.tv_sec} * 1000000000 + ts.tv_nsec;
}

struct Waitable {
  pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
  pthread_cond_t cond = PTHREAD_COND_INITIALIZER;  // default attributes: realtime clock
  bool flag = false;
  ~Waitable() {
    pthread_cond_destroy(&cond);
    pthread_mutex_destroy(&mutex);
  }
};

}  // namespace

TEST(PlatformPthreadNpTest, TimesOutAfterTheRelativeTimeRejectsMalformedTimesAndWakesOnSignal) {
  Waitable w;
  const struct timespec rel = {0, 30 * 1000 * 1000};  // 30 ms
  const struct timespec zero = {0, 0}, badNs = {0, 1000000000L}, negative = {-1, 0};
  pthread_mutex_lock(&w.mutex);
  EXPECT_EQ(pthread_cond_timedwait_relative_np(&w.cond, &w.mutex, &zero), ETIMEDOUT);
  EXPECT_EQ(pthread_cond_timedwait_relative_np(&w.cond, &w.mutex, &badNs), EINVAL);
  EXPECT_EQ(pthread_cond_timedwait_relative_np(&w.cond, &w.mutex, &negative), EINVAL);
  int64_t start = monotonicNs();
  int rc = 0;
  // Spurious wake-ups return 0; a timeout must come eventually and not before the time.
  for (int i = 0; i < 100 && rc == 0; ++i) rc = pthread_cond_timedwait_relative_np(&w.cond, &w.mutex, &rel);
  int64_t elapsed = monotonicNs() - start;
  pthread_mutex_unlock(&w.mutex);
  EXPECT_EQ(rc, ETIMEDOUT);
  EXPECT_GE(elapsed, 30 * 1000 * 1000);
  EXPECT_LT(elapsed, int64_t{5} * 1000 * 1000 * 1000);

  // A signal wakes the waiter long before its timeout.
  std::thread signaller([&w] {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));  // let the waiter block first
    pthread_mutex_lock(&w.mutex);
    w.flag = true;
    pthread_cond_signal(&w.cond);
    pthread_mutex_unlock(&w.mutex);
  });
  const struct timespec longRel = {20, 0};
  start = monotonicNs();
  pthread_mutex_lock(&w.mutex);
  rc = 0;
  while (!w.flag && rc == 0) rc = pthread_cond_timedwait_relative_np(&w.cond, &w.mutex, &longRel);
  bool flag = w.flag;
  pthread_mutex_unlock(&w.mutex);
  elapsed = monotonicNs() - start;
  signaller.join();
  EXPECT_EQ(rc, 0);
  EXPECT_TRUE(flag);
  EXPECT_LT(elapsed, int64_t{10} * 1000 * 1000 * 1000) << "woken by the signal, not the timeout";
}
