// The host message layer: messages, loopers with their handlers, and the relative timed wait.
// Thread tests wait for conditions with deadlines.
#include <gtest/gtest.h>

#include <pthread.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "ABuffer.h"
#include "AHandler.h"
#include "ALooper.h"
#include "AMessage.h"
#include "TestWait.h"
#include "pthread_np.h"

using android::ABuffer;
using android::AHandler;
using android::ALooper;
using android::AMessage;
using android::RefBase;
using android::sp;
using android::wp;
using kovane_test::waitUntil;

namespace {

// Counts its destructions, to see when references held by messages are released.
struct Counted : RefBase {
  explicit Counted(std::atomic<int>* destroyed) : mDestroyed(destroyed) {}
  ~Counted() override { mDestroyed->fetch_add(1); }
  std::atomic<int>* mDestroyed;
};

int64_t monotonicNs() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return int64_t{ts.tv_sec} * 1000000000 + ts.tv_nsec;
}

bool threadExists(pid_t tid) {
  struct stat st;
  return stat(("/proc/self/task/" + std::to_string(tid)).c_str(), &st) == 0;
}

// Records the "a" and "b" values it receives; an optional hook runs inside onMessageReceived.
class RecordingHandler : public AHandler {
 public:
  std::function<void(const sp<AMessage>&)> hook;

  std::vector<std::pair<int32_t, int32_t>> received() {
    std::lock_guard<std::mutex> lock(mLock);
    return mReceived;
  }
  size_t count() { return received().size(); }
  pid_t tid() const { return mTid.load(); }

 protected:
  void onMessageReceived(const sp<AMessage>& msg) override {
    mTid = static_cast<pid_t>(syscall(SYS_gettid));
    if (hook) hook(msg);
    std::pair<int32_t, int32_t> r(-1, -1);
    msg->findInt32("a", &r.first);
    msg->findInt32("b", &r.second);
    std::lock_guard<std::mutex> lock(mLock);
    mReceived.push_back(r);
  }

 private:
  std::mutex mLock;
  std::vector<std::pair<int32_t, int32_t>> mReceived;
  std::atomic<pid_t> mTid{0};
};

// Sets a flag when the thread that called arm() exits (thread_local destructors run before
// the thread can be joined), to see that stop() returned after its thread ended.
struct ThreadExitFlag {
  std::atomic<bool>* flag = nullptr;
  ~ThreadExitFlag() { if (flag) flag->store(true); }
  static void arm(std::atomic<bool>* f) {
    static thread_local ThreadExitFlag onExit;
    onExit.flag = f;
  }
};

sp<AMessage> makeMsg(uint32_t what, ALooper::handler_id target, int32_t a = -1, int32_t b = -1) {
  sp<AMessage> msg = new AMessage(what, target);
  if (a >= 0) msg->setInt32("a", a);
  if (b >= 0) msg->setInt32("b", b);
  return msg;
}

// Posts a message that holds a Counted object, due after `delayUs`.
void postCounted(ALooper::handler_id target, std::atomic<int>* destroyed, int64_t delayUs = 0) {
  sp<AMessage> msg = makeMsg(1, target);
  msg->setObject("o", new Counted(destroyed));
  msg->post(delayUs);
}

constexpr int64_t kHourUs = 3600LL * 1000 * 1000;  // not due before the test ends

class PlatformALooperTest : public ::testing::Test {
 protected:
  void TearDown() override {
    if (looper != nullptr) looper->stop();
  }
  sp<ALooper> looper = new ALooper();
  sp<RecordingHandler> handler = new RecordingHandler();
  ALooper::handler_id id = looper->registerHandler(handler);
};

}  // namespace

TEST(PlatformAMessageTest, HoldsObjectsAndBuffersUntilReplacedClearedOrDestroyed) {
  std::atomic<int> destroyed{0};
  sp<AMessage> msg = new AMessage();
  msg->setObject("x", new Counted(&destroyed));
  msg->setObject("x", new Counted(&destroyed));  // replacing releases the first object
  EXPECT_EQ(destroyed.load(), 1);
  msg->setInt32("x", 0);  // so does replacing with a plain value
  EXPECT_EQ(destroyed.load(), 2);
  msg->setObject("y", new Counted(&destroyed));
  std::vector<uint8_t> storage(32, 7);
  sp<ABuffer> buffer = new ABuffer(storage.data(), storage.size());  // wrapped memory stays ours
  buffer->setRange(4, 8);
  EXPECT_EQ(buffer->offset() + buffer->size(), 12u);
  buffer->data()[0] = 42;
  msg->setBuffer("b", buffer);
  wp<ABuffer> weakBuffer = buffer;
  buffer.clear();
  sp<AMessage> copy = msg->dup();
  EXPECT_EQ(copy->countEntries(), msg->countEntries());
  msg.clear();
  EXPECT_EQ(destroyed.load(), 2) << "the copy still shares the object";
  EXPECT_NE(weakBuffer.promote(), nullptr);
  copy->clear();
  EXPECT_EQ(destroyed.load(), 3);
  EXPECT_EQ(weakBuffer.promote(), nullptr);
  EXPECT_EQ(storage[4], 42);  // a free of vector memory would trip ASan or the allocator
}

TEST(PlatformPthreadNpTest, TimesOutAfterTheRelativeTimeRejectsMalformedTimesAndWakesOnSignal) {
  pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
  pthread_cond_t cond = PTHREAD_COND_INITIALIZER;  // default attributes: realtime clock
  const struct timespec rel = {0, 30 * 1000 * 1000}, badNs = {0, 1000000000L}, negative = {-1, 0};
  pthread_mutex_lock(&mutex);
  EXPECT_EQ(pthread_cond_timedwait_relative_np(&cond, &mutex, &badNs), EINVAL);
  EXPECT_EQ(pthread_cond_timedwait_relative_np(&cond, &mutex, &negative), EINVAL);
  int64_t start = monotonicNs();
  int rc = 0;
  // Spurious wake-ups return 0; a timeout must come eventually and not before the time.
  for (int i = 0; i < 100 && rc == 0; ++i) rc = pthread_cond_timedwait_relative_np(&cond, &mutex, &rel);
  EXPECT_EQ(rc, ETIMEDOUT);
  EXPECT_GE(monotonicNs() - start, 30 * 1000 * 1000);

  // A signal wakes the waiter long before its timeout. The signaller gets the mutex only once
  // the waiter has let it go inside the wait.
  bool flag = false;
  std::thread signaller([&] {
    pthread_mutex_lock(&mutex);
    flag = true;
    pthread_cond_signal(&cond);
    pthread_mutex_unlock(&mutex);
  });
  const struct timespec longRel = {20, 0};
  start = monotonicNs();
  rc = 0;
  while (!flag && rc == 0) rc = pthread_cond_timedwait_relative_np(&cond, &mutex, &longRel);
  const bool woken = flag;
  pthread_mutex_unlock(&mutex);
  const int64_t elapsed = monotonicNs() - start;
  signaller.join();
  EXPECT_EQ(rc, 0);
  EXPECT_TRUE(woken);
  EXPECT_LT(elapsed, int64_t{10} * 1000 * 1000 * 1000) << "woken by the signal, not the timeout";
  pthread_cond_destroy(&cond);
  pthread_mutex_destroy(&mutex);
}

TEST_F(PlatformALooperTest, KeepsEachThreadsOrderOnTheLooperThread) {
  // Messages posted before start() come first, then four threads post concurrently.
  const int kBefore = 5, kThreads = 4, kPerThread = 300;
  for (int i = 0; i < kBefore; ++i) ASSERT_EQ(makeMsg(1, id, kThreads, i)->post(), android::OK);
  ASSERT_EQ(looper->start(), android::OK);
  std::vector<std::thread> posters;
  for (int t = 0; t < kThreads; ++t) {
    posters.emplace_back([this, t] {
      for (int i = 0; i < kPerThread; ++i) makeMsg(1, id, t, i)->post();
    });
  }
  for (std::thread& th : posters) th.join();
  ASSERT_TRUE(waitUntil([&] { return handler->count() == kBefore + kThreads * kPerThread; }));
  const auto got = handler->received();
  for (int i = 0; i < kBefore; ++i) EXPECT_EQ(got[i].first, kThreads) << "posted before start";
  std::vector<int> next(kThreads + 1, 0);
  for (const auto& r : got) {
    ASSERT_GE(r.first, 0);
    ASSERT_LE(r.first, kThreads);
    EXPECT_EQ(r.second, next[r.first]) << "poster " << r.first;
    next[r.first] = r.second + 1;
  }
  EXPECT_NE(handler->tid(), static_cast<pid_t>(syscall(SYS_gettid)));
}

TEST_F(PlatformALooperTest, DelayedMessagesArriveWhenDueAfterImmediateOnes) {
  std::atomic<int64_t> deliveredUs{0};
  handler->hook = [&](const sp<AMessage>& msg) {
    if (msg->contains("b")) deliveredUs = ALooper::GetNowUs();
  };
  ASSERT_EQ(looper->start(), android::OK);
  const int64_t before = ALooper::GetNowUs();
  makeMsg(1, id, 2, 2)->post(30000);
  makeMsg(1, id, 1)->post();
  ASSERT_TRUE(waitUntil([&] { return handler->count() == 2; }));
  EXPECT_EQ(handler->received(), (std::vector<std::pair<int32_t, int32_t>>{{1, -1}, {2, 2}}));
  EXPECT_GE(deliveredUs.load(), before + 30000) << "delivered early";
}

TEST_F(PlatformALooperTest, StopReleasesQueuedMessagesAndEndsTheThread) {
  sp<ALooper> other = new ALooper();
  EXPECT_LT(other->registerHandler(handler), 0) << "a handler lives on one looper at a time";
  std::atomic<int> destroyed{0};
  postCounted(id, &destroyed);
  EXPECT_EQ(looper->stop(), android::OK) << "stop without start";
  EXPECT_EQ(destroyed.load(), 1) << "queued before start, dropped by stop";
  std::atomic<bool> exited{false};
  handler->hook = [&exited](const sp<AMessage>&) { ThreadExitFlag::arm(&exited); };
  ASSERT_EQ(looper->start(), android::OK);
  EXPECT_NE(looper->start(), android::OK) << "already running";
  makeMsg(1, id)->post();
  ASSERT_TRUE(waitUntil([&] { return handler->count() == 1; }));
  const pid_t tid = handler->tid();
  for (int i = 0; i < 10; ++i) postCounted(id, &destroyed, kHourUs);
  EXPECT_EQ(looper->stop(), android::OK);
  EXPECT_EQ(destroyed.load(), 11) << "queued messages are released by stop()";
  EXPECT_TRUE(exited.load()) << "stop() returns after the thread ended";
  EXPECT_TRUE(waitUntil([&] { return !threadExists(tid); }));
  EXPECT_EQ(looper->stop(), android::OK) << "stop is idempotent";
  ASSERT_EQ(looper->start(), android::OK) << "a stopped looper starts again";
}

TEST_F(PlatformALooperTest, EndsCleanlyWhenStoppedOrReleasedOnItsOwnThread) {
  // stop() from inside a handler must not wait for its own thread; later messages are dropped.
  std::atomic<int> destroyed{0};
  sp<ALooper> l = looper;
  handler->hook = [l](const sp<AMessage>& msg) {
    if (msg->what() == 99) l->stop();
  };
  makeMsg(99, id)->post();
  for (int i = 0; i < 10; ++i) postCounted(id, &destroyed);
  ASSERT_EQ(looper->start(), android::OK);
  ASSERT_TRUE(waitUntil([&] { return destroyed.load() == 10; }));
  EXPECT_EQ(looper->stop(), android::OK);
  ASSERT_EQ(handler->count(), 1u);
  handler->hook = nullptr;
  l.clear();

  // The handler holds the last reference and drops it while handling a message.
  ASSERT_EQ(looper->start(), android::OK);
  auto holder = std::make_shared<sp<ALooper>>(looper);
  wp<ALooper> weak = looper;
  looper.clear();
  handler->hook = [holder](const sp<AMessage>&) { holder->clear(); };
  makeMsg(1, id)->post();
  ASSERT_TRUE(waitUntil([&] { return handler->count() == 2; }));
  const pid_t tid = handler->tid();
  EXPECT_EQ(weak.promote(), nullptr);
  EXPECT_TRUE(waitUntil([&] { return !threadExists(tid); }));
  handler->hook = nullptr;
}
