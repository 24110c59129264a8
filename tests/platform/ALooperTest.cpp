// The host message layer: buffers, messages, loopers with their handlers, and the relative
// timed wait. Thread tests wait for conditions with deadlines.
#include <gtest/gtest.h>

#include <pthread.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
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
class Counted : public RefBase {
 public:
  explicit Counted(std::atomic<int>* destroyed) : mDestroyed(destroyed) {}

 protected:
  ~Counted() override { mDestroyed->fetch_add(1); }

 private:
  std::atomic<int>* mDestroyed;
};

int64_t monotonicNs() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return int64_t{ts.tv_sec} * 1000000000 + ts.tv_nsec;
}

pid_t currentTid() { return static_cast<pid_t>(syscall(SYS_gettid)); }

bool threadExists(pid_t tid) {
  struct stat st;
  return stat(("/proc/self/task/" + std::to_string(tid)).c_str(), &st) == 0;
}

struct Received {
  uint32_t what;
  int32_t a, b;
  int64_t atUs;
  std::thread::id thread;
};

// Records what it receives; an optional hook runs inside onMessageReceived.
class RecordingHandler : public AHandler {
 public:
  std::function<void(const sp<AMessage>&)> hook;

  std::vector<Received> received() {
    std::lock_guard<std::mutex> lock(mLock);
    return mReceived;
  }
  size_t count() { return received().size(); }
  pid_t tid() const { return mTid.load(); }

 protected:
  void onMessageReceived(const sp<AMessage>& msg) override {
    mTid = currentTid();
    if (hook) hook(msg);
    Received r{msg->what(), -1, -1, ALooper::GetNowUs(), std::this_thread::get_id()};
    msg->findInt32("a", &r.a);
    msg->findInt32("b", &r.b);
    std::lock_guard<std::mutex> lock(mLock);
    mReceived.push_back(r);
  }

 private:
  std::mutex mLock;
  std::vector<Received> mReceived;
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

TEST(PlatformABufferTest, RangesStayWithinCapacityAndWrappedMemoryStaysTheCallers) {
  sp<ABuffer> buf = new ABuffer(64);
  EXPECT_EQ(buf->size(), 64u);
  EXPECT_EQ(buf->data(), buf->base());
  for (size_t i = 0; i < 64; ++i) buf->base()[i] = static_cast<uint8_t>(i);  // checked by ASan
  buf->setRange(10, 20);
  EXPECT_EQ(buf->offset(), 10u);
  EXPECT_EQ(buf->size(), 20u);
  EXPECT_EQ(buf->capacity(), 64u);
  EXPECT_EQ(buf->data()[0], 10);
  buf->setRange(64, 0);  // empty range at the very end is valid
  EXPECT_EQ(buf->size(), 0u);

  std::vector<uint8_t> storage(32, 7);
  {
    sp<ABuffer> wrapped = new ABuffer(storage.data(), storage.size());
    EXPECT_EQ(wrapped->base(), storage.data());
    EXPECT_EQ(wrapped->capacity(), 32u);
    wrapped->setRange(4, 8);
    wrapped->data()[0] = 42;
  }
  // Still ours after the buffer died (a free of vector memory would trip ASan/the allocator).
  EXPECT_EQ(storage[4], 42);
  storage.assign(64, 1);
}

TEST(PlatformABufferDeathTest, SetRangeOutsideCapacityAborts) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  sp<ABuffer> buf = new ABuffer(16);
  EXPECT_DEATH(buf->setRange(10, 7), "");
  EXPECT_DEATH(buf->setRange(17, 0), "");
}

TEST(PlatformAMessageTest, ValuesRoundTripReplaceAndMissesLeaveOutputUntouched) {
  sp<AMessage> msg = new AMessage(1);
  msg->setInt32("a", -5);
  msg->setInt64("b", int64_t{1} << 40);
  msg->setObject("null", nullptr);
  int32_t a = 0;
  int64_t b = 0;
  sp<RefBase> obj = new ABuffer(1);
  EXPECT_TRUE(msg->findInt32("a", &a) && msg->findInt64("b", &b) && msg->findObject("null", &obj));
  EXPECT_EQ(a, -5);
  EXPECT_EQ(b, int64_t{1} << 40);
  EXPECT_EQ(obj, nullptr) << "a null object is stored as such";
  // Setting a name again replaces the value, also with another type.
  msg->setInt64("a", 7);
  EXPECT_EQ(msg->countEntries(), 3u);
  EXPECT_TRUE(msg->findInt64("a", &b));
  EXPECT_EQ(b, 7);
  // A miss or a type mismatch leaves the output alone.
  a = 123;
  EXPECT_FALSE(msg->findInt32("a", &a));
  EXPECT_FALSE(msg->findInt32("missing", &a));
  EXPECT_EQ(a, 123);
  sp<ABuffer> marker = new ABuffer(1);
  sp<ABuffer> buf = marker;
  EXPECT_FALSE(msg->findBuffer("null", &buf)) << "an object is not a buffer";
  EXPECT_EQ(buf, marker);
}

TEST(PlatformAMessageTest, HoldsObjectsAndBuffersUntilReplacedClearedOrDestroyed) {
  std::atomic<int> destroyed{0};
  sp<AMessage> msg = new AMessage();
  msg->setObject("x", new Counted(&destroyed));
  EXPECT_EQ(destroyed.load(), 0) << "the message must keep the object alive";
  msg->setObject("x", new Counted(&destroyed));  // replacing releases the first object
  EXPECT_EQ(destroyed.load(), 1);
  msg->setInt32("x", 0);  // so does replacing with a plain value
  EXPECT_EQ(destroyed.load(), 2);

  msg->setObject("y", new Counted(&destroyed));
  sp<ABuffer> buffer = new ABuffer(16);
  msg->setBuffer("b", buffer);
  wp<ABuffer> weakBuffer = buffer;
  buffer.clear();
  EXPECT_NE(weakBuffer.promote(), nullptr);
  sp<AMessage> copy = msg->dup();
  EXPECT_EQ(copy->countEntries(), msg->countEntries());
  msg.clear();
  EXPECT_EQ(destroyed.load(), 2) << "the copy still shares the object";
  copy->clear();
  EXPECT_EQ(copy->countEntries(), 0u);
  EXPECT_EQ(destroyed.load(), 3);
  EXPECT_EQ(weakBuffer.promote(), nullptr);
}

TEST(PlatformPthreadNpTest, TimesOutAfterTheRelativeTimeRejectsMalformedTimesAndWakesOnSignal) {
  pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
  pthread_cond_t cond = PTHREAD_COND_INITIALIZER;  // default attributes: realtime clock
  const struct timespec rel = {0, 30 * 1000 * 1000}, zero = {0, 0}, badNs = {0, 1000000000L}, negative = {-1, 0};
  pthread_mutex_lock(&mutex);
  EXPECT_EQ(pthread_cond_timedwait_relative_np(&cond, &mutex, &zero), ETIMEDOUT);
  EXPECT_EQ(pthread_cond_timedwait_relative_np(&cond, &mutex, &badNs), EINVAL);
  EXPECT_EQ(pthread_cond_timedwait_relative_np(&cond, &mutex, &negative), EINVAL);
  int64_t start = monotonicNs();
  int rc = 0;
  // Spurious wake-ups return 0; a timeout must come eventually and not before the time.
  for (int i = 0; i < 100 && rc == 0; ++i) rc = pthread_cond_timedwait_relative_np(&cond, &mutex, &rel);
  int64_t elapsed = monotonicNs() - start;
  EXPECT_EQ(rc, ETIMEDOUT);
  EXPECT_GE(elapsed, 30 * 1000 * 1000);
  EXPECT_LT(elapsed, int64_t{5} * 1000 * 1000 * 1000);

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
  elapsed = monotonicNs() - start;
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
  std::vector<Received> got = handler->received();
  for (int i = 0; i < kBefore; ++i) EXPECT_EQ(got[i].a, kThreads) << "posted before start";
  std::vector<int> next(kThreads + 1, 0);
  for (const Received& r : got) {
    ASSERT_GE(r.a, 0);
    ASSERT_LE(r.a, kThreads);
    EXPECT_EQ(r.b, next[r.a]) << "poster " << r.a;
    next[r.a] = r.b + 1;
    EXPECT_NE(r.thread, std::this_thread::get_id());
  }
}

TEST_F(PlatformALooperTest, HandlerCanPostFromInsideOnMessageReceived) {
  sp<RecordingHandler> other = new RecordingHandler();
  ALooper::handler_id otherId = looper->registerHandler(other);
  ALooper::handler_id self = id;
  handler->hook = [self, otherId](const sp<AMessage>& msg) {
    int32_t a = 0;
    msg->findInt32("a", &a);
    if (a < 50) makeMsg(1, self, a + 1)->post();  // to itself
    if (a == 50) makeMsg(2, otherId, a)->post();  // and to another handler on the same looper
  };
  ASSERT_EQ(looper->start(), android::OK);
  makeMsg(1, id, 0)->post();
  ASSERT_TRUE(waitUntil([&] { return other->count() == 1; }));
  std::vector<Received> got = handler->received();
  ASSERT_EQ(got.size(), 51u);
  for (int i = 0; i <= 50; ++i) EXPECT_EQ(got[i].a, i);
}

TEST_F(PlatformALooperTest, DelayedMessagesArriveWhenDueAndDoNotBlockImmediateOnes) {
  ASSERT_EQ(looper->start(), android::OK);
  // A far-off message puts the loop to sleep; a new immediate one must wake it.
  makeMsg(2, id)->post(kHourUs);
  makeMsg(3, id)->post();
  ASSERT_TRUE(waitUntil([&] { return handler->count() == 1; }, 2000));
  EXPECT_EQ(handler->received()[0].what, 3u);

  // The due time of each message lies in [before + delay, after + delay] of its post() call;
  // checking against these bounds keeps the test right on a loaded machine.
  const int64_t delays[] = {60000, 30000, 30000, 0, -5};
  const int kCount = 5;
  int64_t dueLo[kCount], dueHi[kCount];
  for (int i = 0; i < kCount; ++i) {
    int64_t d = delays[i] > 0 ? delays[i] : 0;
    dueLo[i] = ALooper::GetNowUs() + d;
    ASSERT_EQ(makeMsg(1, id, i)->post(delays[i]), android::OK);
    dueHi[i] = ALooper::GetNowUs() + d;
  }
  ASSERT_TRUE(waitUntil([&] { return handler->count() == kCount + 1; }));
  std::vector<Received> got = handler->received();
  int pos[kCount];
  for (int k = 0; k < kCount; ++k) {
    const Received& r = got[k + 1];
    ASSERT_GE(r.a, 0);
    ASSERT_LT(r.a, kCount);
    pos[r.a] = k;
    EXPECT_GE(r.atUs, dueLo[r.a]) << "message " << r.a << " delivered early";
  }
  for (int i = 0; i < kCount; ++i) {
    for (int j = 0; j < kCount; ++j) {
      EXPECT_TRUE(dueHi[i] >= dueLo[j] || pos[i] < pos[j]) << i << " is due before " << j;
    }
  }
  // Equal delays keep the posting order, as does "now" versus a negative delay.
  EXPECT_LT(pos[1], pos[2]);
  EXPECT_LT(pos[3], pos[4]);
}

TEST_F(PlatformALooperTest, ObjectsAndBuffersAreReleasedWhetherDeliveredOrDropped) {
  sp<RecordingHandler> gone = new RecordingHandler();
  ALooper::handler_id goneId = looper->registerHandler(gone);
  sp<RecordingHandler> live = new RecordingHandler();
  ALooper::handler_id liveId = looper->registerHandler(live);
  EXPECT_GT(id, 0);
  EXPECT_NE(id, goneId);
  sp<ALooper> other = new ALooper();
  EXPECT_LT(other->registerHandler(handler), 0) << "a handler lives on one looper at a time";

  // Two messages for handlers that go away before the loop runs, one delivered.
  std::atomic<int> destroyed{0};
  postCounted(id, &destroyed);
  postCounted(goneId, &destroyed);
  looper->unregisterHandler(id);
  EXPECT_EQ(handler->id(), 0);
  EXPECT_EQ(makeMsg(1, id)->post(), -ENOENT) << "no looper knows the id any more";
  EXPECT_EQ(makeMsg(1, 0)->post(), -ENOENT);
  wp<RecordingHandler> weakGone = gone;
  gone.clear();
  EXPECT_EQ(weakGone.promote(), nullptr) << "the looper holds handlers weakly";

  std::atomic<bool> sawBoth{false};
  live->hook = [&](const sp<AMessage>& msg) {
    sp<RefBase> obj;
    sp<ABuffer> buf;
    sawBoth = msg->findObject("obj", &obj) && obj != nullptr && msg->findBuffer("buf", &buf) &&
              buf != nullptr && buf->size() == 8 && buf->data()[0] == 0x5A;
  };
  wp<ABuffer> weakBuf;
  {
    sp<AMessage> msg = makeMsg(1, liveId);
    msg->setObject("obj", new Counted(&destroyed));
    sp<ABuffer> buf = new ABuffer(8);
    buf->data()[0] = 0x5A;
    weakBuf = buf;
    msg->setBuffer("buf", buf);
    ASSERT_EQ(msg->post(), android::OK);
  }
  EXPECT_EQ(destroyed.load(), 0) << "held by the queued messages";
  EXPECT_NE(weakBuf.promote(), nullptr);
  ASSERT_EQ(looper->start(), android::OK);
  ASSERT_TRUE(waitUntil([&] { return destroyed.load() == 3 && weakBuf.promote() == nullptr; }));
  EXPECT_TRUE(sawBoth.load());
  EXPECT_EQ(live->count(), 1u);
  EXPECT_EQ(handler->count(), 0u);
}

TEST_F(PlatformALooperTest, StopReleasesQueuedMessagesAndEndsTheThread) {
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
  pid_t tid = handler->tid();
  ASSERT_TRUE(threadExists(tid));
  for (int i = 0; i < 10; ++i) postCounted(id, &destroyed, kHourUs);
  EXPECT_EQ(looper->stop(), android::OK);
  EXPECT_EQ(destroyed.load(), 11) << "queued messages are released by stop()";
  EXPECT_TRUE(exited.load()) << "stop() returns after the thread ended";
  EXPECT_TRUE(waitUntil([&] { return !threadExists(tid); }));
  EXPECT_EQ(handler->count(), 1u);
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
  pid_t tid = handler->tid();
  EXPECT_EQ(looper->stop(), android::OK);
  EXPECT_TRUE(waitUntil([&] { return !threadExists(tid); }));
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
  tid = handler->tid();
  EXPECT_EQ(weak.promote(), nullptr);
  EXPECT_TRUE(waitUntil([&] { return !threadExists(tid); }));
  handler->hook = nullptr;
}

TEST_F(PlatformALooperTest, ThreadTakesTheNameAndPriority) {
  looper->setName("a_rather_long_looper_name");
  std::string name;  // read once count() saw the message, which the handler's lock orders
  std::atomic<int> nice{-100};
  handler->hook = [&](const sp<AMessage>&) {
    char buf[32] = {};
    pthread_getname_np(pthread_self(), buf, sizeof(buf));
    nice = getpriority(PRIO_PROCESS, static_cast<id_t>(currentTid()));
    name = buf;
  };
  // Lowering the priority is always allowed.
  ASSERT_EQ(looper->start(false, false, 10), android::OK);
  makeMsg(1, id)->post();
  ASSERT_TRUE(waitUntil([&] { return handler->count() == 1; }));
  EXPECT_EQ(nice.load(), std::max(10, getpriority(PRIO_PROCESS, 0)));
  EXPECT_EQ(name, "a_rather_long_l");  // the kernel keeps 15 characters
  looper->stop();
  // Raising it usually is not; the looper must work all the same.
  ASSERT_EQ(looper->start(false, false, -19), android::OK);
  makeMsg(1, id)->post();
  ASSERT_TRUE(waitUntil([&] { return handler->count() == 2; }));
}

TEST_F(PlatformALooperTest, ConcurrentPostersWhileStopping) {
  ASSERT_EQ(looper->start(), android::OK);
  std::atomic<int> destroyed{0}, created{0};
  std::atomic<bool> go{true};
  std::vector<std::thread> posters;
  for (int t = 0; t < 3; ++t) {
    posters.emplace_back([&] {
      while (go) {
        created++;
        postCounted(id, &destroyed);
      }
    });
  }
  ASSERT_TRUE(waitUntil([&] { return handler->count() > 100; }));
  looper->stop();
  go = false;
  for (std::thread& th : posters) th.join();
  looper.clear();  // releases what was posted after stop
  EXPECT_EQ(destroyed.load(), created.load());
}
