#include <gtest/gtest.h>

#include <pthread.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "ABuffer.h"
#include "AHandler.h"
#include "ALooper.h"
#include "AMessage.h"
#include "PlatformTestUtil.h"
#include "TestWait.h"

using android::ABuffer;
using android::AHandler;
using android::ALooper;
using android::AMessage;
using android::RefBase;
using android::sp;
using android::wp;
using kovane_test::waitUntil;
using platform_test::Counted;

namespace {

pid_t currentTid() { return static_cast<pid_t>(syscall(SYS_gettid)); }

bool threadExists(pid_t tid) {
  struct stat st;
  return stat(("/proc/self/task/" + std::to_string(tid)).c_str(), &st) == 0;
}

struct Received {
  uint32_t what;
  int32_t a;
  int32_t b;
  int64_t atUs;
};

// Records what it receives; optional hooks run inside onMessageReceived.
class RecordingHandler : public AHandler {
 public:
  std::function<void(const sp<AMessage>&)> hook;

  std::vector<Received> received() {
    std::lock_guard<std::mutex> lock(mLock);
    return mReceived;
  }
  size_t count() {
    std::lock_guard<std::mutex> lock(mLock);
    return mReceived.size();
  }
  pid_t tid() { return mTid.load(); }
  std::thread::id threadId() {
    std::lock_guard<std::mutex> lock(mLock);
    return mThreadId;
  }

 protected:
  void onMessageReceived(const sp<AMessage>& msg) override {
    mTid = currentTid();
    if (hook) hook(msg);
    Received r{msg->what(), -1, -1, ALooper::GetNowUs()};
    msg->findInt32("a", &r.a);
    msg->findInt32("b", &r.b);
    std::lock_guard<std::mutex> lock(mLock);
    mThreadId = std::this_thread::get_id();
    mReceived.push_back(r);
  }

 private:
  std::mutex mLock;
  std::vector<Received> mReceived;
  std::atomic<pid_t> mTid{0};
  std::thread::id mThreadId;
};

// Sets a flag when the thread that called arm() exits (thread_local destructors run before
// the thread can be joined), to see that stop() returned after its thread ended.
struct ThreadExitFlag {
  std::atomic<bool>* flag = nullptr;
  ~ThreadExitFlag() {
    if (flag) flag->store(true);
  }
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

class PlatformALooperTest : public ::testing::Test {
 protected:
  void SetUp() override {
    looper = new ALooper();
    looper->setName("test_looper");
    handler = new RecordingHandler();
  }
  void TearDown() override {
    if (looper != nullptr) looper->stop();
  }
  sp<ALooper> looper;
  sp<RecordingHandler> handler;
};

}  // namespace

TEST_F(PlatformALooperTest, HandlerIdsAreNonzeroUniqueAndResetOnUnregister) {
  EXPECT_EQ(handler->id(), 0);
  sp<ALooper> other = new ALooper();
  sp<RecordingHandler> second = new RecordingHandler();
  ALooper::handler_id id1 = looper->registerHandler(handler);
  ALooper::handler_id id2 = other->registerHandler(second);
  EXPECT_GT(id1, 0);
  EXPECT_GT(id2, 0);
  EXPECT_NE(id1, id2);
  EXPECT_EQ(handler->id(), id1);
  EXPECT_EQ(handler->looper(), looper);
  EXPECT_EQ(second->looper(), other);

  EXPECT_LT(other->registerHandler(handler), 0) << "a handler lives on one looper at a time";
  EXPECT_EQ(handler->id(), id1);

  looper->unregisterHandler(id1);
  EXPECT_EQ(handler->id(), 0);
  EXPECT_EQ(handler->looper(), nullptr);
  ALooper::handler_id id3 = other->registerHandler(handler);
  EXPECT_GT(id3, 0);
  EXPECT_NE(id3, id1);
  EXPECT_NE(id3, id2);
}

TEST_F(PlatformALooperTest, DeliversInPostingOrderOnTheLooperThread) {
  ALooper::handler_id id = looper->registerHandler(handler);
  ASSERT_EQ(looper->start(), android::OK);
  const int kCount = 200;
  for (int i = 0; i < kCount; ++i) ASSERT_EQ(makeMsg(1, id, i)->post(), android::OK);
  ASSERT_TRUE(waitUntil([&] { return handler->count() == kCount; }));
  std::vector<Received> got = handler->received();
  for (int i = 0; i < kCount; ++i) EXPECT_EQ(got[i].a, i);
  EXPECT_NE(handler->threadId(), std::this_thread::get_id());
}

TEST_F(PlatformALooperTest, MessagesPostedBeforeStartAreDeliveredAfterIt) {
  ALooper::handler_id id = looper->registerHandler(handler);
  for (int i = 0; i < 5; ++i) ASSERT_EQ(makeMsg(1, id, i)->post(), android::OK);
  ASSERT_EQ(looper->start(), android::OK);
  ASSERT_TRUE(waitUntil([&] { return handler->count() == 5; }));
  EXPECT_EQ(handler->received()[4].a, 4);
}

TEST_F(PlatformALooperTest, KeepsEachThreadsOrderWhenPostingFromSeveralThreads) {
  ALooper::handler_id id = looper->registerHandler(handler);
  ASSERT_EQ(looper->start(), android::OK);
  const int kThreads = 4, kPerThread = 300;
  std::vector<std::thread> posters;
  for (int t = 0; t < kThreads; ++t) {
    posters.emplace_back([id, t] {
      for (int i = 0; i < kPerThread; ++i) makeMsg(1, id, t, i)->post();
    });
  }
  for (std::thread& th : posters) th.join();
  ASSERT_TRUE(waitUntil([&] { return handler->count() == kThreads * kPerThread; }));
  std::vector<int> next(kThreads, 0);
  for (const Received& r : handler->received()) {
    ASSERT_GE(r.a, 0);
    ASSERT_LT(r.a, kThreads);
    EXPECT_EQ(r.b, next[r.a]) << "thread " << r.a;
    next[r.a] = r.b + 1;
  }
}

TEST_F(PlatformALooperTest, HandlerCanPostFromInsideOnMessageReceived) {
  ALooper::handler_id id = looper->registerHandler(handler);
  sp<RecordingHandler> other = new RecordingHandler();
  ALooper::handler_id otherId = looper->registerHandler(other);
  handler->hook = [id, otherId](const sp<AMessage>& msg) {
    int32_t a = 0;
    msg->findInt32("a", &a);
    if (a < 50) makeMsg(1, id, a + 1)->post();  // to itself
    if (a == 50) makeMsg(2, otherId, a)->post(); // and to another handler on the same looper
  };
  ASSERT_EQ(looper->start(), android::OK);
  makeMsg(1, id, 0)->post();
  ASSERT_TRUE(waitUntil([&] { return other->count() == 1; }));
  std::vector<Received> got = handler->received();
  ASSERT_EQ(got.size(), 51u);
  for (int i = 0; i <= 50; ++i) EXPECT_EQ(got[i].a, i);
}

TEST_F(PlatformALooperTest, DelayedMessagesArriveWhenDueInDueTimeOrder) {
  ALooper::handler_id id = looper->registerHandler(handler);
  ASSERT_EQ(looper->start(), android::OK);
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
  ASSERT_TRUE(waitUntil([&] { return handler->count() == kCount; }));
  std::vector<Received> got = handler->received();
  int pos[kCount];
  for (int k = 0; k < kCount; ++k) {
    ASSERT_GE(got[k].a, 0);
    ASSERT_LT(got[k].a, kCount);
    pos[got[k].a] = k;
    EXPECT_GE(got[k].atUs, dueLo[got[k].a]) << "message " << got[k].a << " delivered early";
  }
  for (int i = 0; i < kCount; ++i) {
    for (int j = 0; j < kCount; ++j) {
      if (dueHi[i] < dueLo[j]) {
        EXPECT_LT(pos[i], pos[j]) << i << " is due before " << j;
      }
    }
  }
  // Equal delays keep the posting order, as does "now" versus a negative delay.
  EXPECT_LT(pos[1], pos[2]);
  EXPECT_LT(pos[3], pos[4]);
}

TEST_F(PlatformALooperTest, ImmediateMessageOvertakesAPendingDelayedOne) {
  ALooper::handler_id id = looper->registerHandler(handler);
  ASSERT_EQ(looper->start(), android::OK);
  makeMsg(1, id, 0)->post(10 * 1000 * 1000);  // the loop now sleeps until this is due
  makeMsg(1, id, 1)->post();
  ASSERT_TRUE(waitUntil([&] { return handler->count() == 1; }, 2000))
      << "a new message must wake the loop";
  EXPECT_EQ(handler->received()[0].a, 1);
}

TEST_F(PlatformALooperTest, GetNowUsIsMonotonicMicroseconds) {
  int64_t a = ALooper::GetNowUs();
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  int64_t ref = int64_t{ts.tv_sec} * 1000000 + ts.tv_nsec / 1000;
  int64_t b = ALooper::GetNowUs();
  EXPECT_LE(a, ref);
  EXPECT_LE(ref, b);
  EXPECT_GT(a, 0);
}

TEST_F(PlatformALooperTest, MessageForUnregisteredHandlerIsDropped) {
  ALooper::handler_id id = looper->registerHandler(handler);
  sp<RecordingHandler> fence = new RecordingHandler();
  ALooper::handler_id fenceId = looper->registerHandler(fence);
  std::atomic<int> destroyed{0};
  sp<AMessage> msg = makeMsg(1, id, 1);
  msg->setObject("o", new Counted(&destroyed));
  ASSERT_EQ(msg->post(), android::OK);
  msg.clear();
  looper->unregisterHandler(id);
  EXPECT_EQ(makeMsg(1, id, 2)->post(), -ENOENT) << "no looper knows the id any more";
  ASSERT_EQ(looper->start(), android::OK);
  makeMsg(1, fenceId)->post();
  ASSERT_TRUE(waitUntil([&] { return fence->count() == 1; }));
  EXPECT_EQ(handler->count(), 0u);
  EXPECT_TRUE(waitUntil([&] { return destroyed.load() == 1; })) << "the dropped message is released";
}

TEST_F(PlatformALooperTest, MessageForDestroyedHandlerIsDropped) {
  std::atomic<int> destroyed{0};
  ALooper::handler_id id = looper->registerHandler(handler);
  wp<RecordingHandler> weak = handler;
  handler.clear();  // the looper holds handlers weakly
  EXPECT_EQ(weak.promote(), nullptr);
  sp<AMessage> msg = makeMsg(1, id);
  msg->setObject("o", new Counted(&destroyed));
  msg->post();
  msg.clear();
  ASSERT_EQ(looper->start(), android::OK);
  EXPECT_TRUE(waitUntil([&] { return destroyed.load() == 1; }));
}

TEST_F(PlatformALooperTest, ObjectsAndBuffersAreReleasedAfterDelivery) {
  ALooper::handler_id id = looper->registerHandler(handler);
  std::atomic<int> destroyed{0};
  std::atomic<bool> sawBoth{false};
  handler->hook = [&](const sp<AMessage>& msg) {
    sp<RefBase> obj;
    sp<ABuffer> buf;
    sawBoth = msg->findObject("obj", &obj) && obj != nullptr && msg->findBuffer("buf", &buf) &&
              buf != nullptr && buf->size() == 8 && buf->data()[0] == 0x5A;
  };
  wp<ABuffer> weakBuf;
  {
    sp<AMessage> msg = makeMsg(1, id);
    msg->setObject("obj", new Counted(&destroyed));
    sp<ABuffer> buf = new ABuffer(8);
    buf->data()[0] = 0x5A;
    weakBuf = buf;
    msg->setBuffer("buf", buf);
    ASSERT_EQ(msg->post(), android::OK);
  }
  EXPECT_EQ(destroyed.load(), 0) << "held by the queued message";
  EXPECT_NE(weakBuf.promote(), nullptr);
  ASSERT_EQ(looper->start(), android::OK);
  ASSERT_TRUE(waitUntil([&] { return destroyed.load() == 1 && weakBuf.promote() == nullptr; }));
  EXPECT_TRUE(sawBoth.load());
}

TEST_F(PlatformALooperTest, StopDropsQueuedMessagesAndEndsTheThread) {
  ALooper::handler_id id = looper->registerHandler(handler);
  std::atomic<bool> exited{false};
  handler->hook = [&exited](const sp<AMessage>&) { ThreadExitFlag::arm(&exited); };
  ASSERT_EQ(looper->start(), android::OK);
  makeMsg(1, id)->post();
  ASSERT_TRUE(waitUntil([&] { return handler->count() == 1; }));
  pid_t tid = handler->tid();
  ASSERT_TRUE(threadExists(tid));

  std::atomic<int> destroyed{0};
  for (int i = 0; i < 10; ++i) {
    sp<AMessage> msg = makeMsg(1, id, i);
    msg->setObject("o", new Counted(&destroyed));
    msg->post(3600LL * 1000 * 1000);  // not due before the test ends
  }
  EXPECT_EQ(looper->stop(), android::OK);
  EXPECT_EQ(destroyed.load(), 10) << "queued messages are released by stop()";
  EXPECT_TRUE(exited.load()) << "stop() returns after the thread ended";
  EXPECT_TRUE(waitUntil([&] { return !threadExists(tid); }));
  EXPECT_EQ(handler->count(), 1u);
  EXPECT_EQ(looper->stop(), android::OK) << "stop is idempotent";
}

TEST_F(PlatformALooperTest, StopFromInsideAHandlerEndsAfterThatMessage) {
  ALooper::handler_id id = looper->registerHandler(handler);
  std::atomic<int> destroyed{0};
  sp<ALooper> l = looper;
  handler->hook = [l](const sp<AMessage>& msg) {
    if (msg->what() == 99) l->stop();  // must not wait for its own thread
  };
  makeMsg(99, id)->post();
  for (int i = 0; i < 10; ++i) {
    sp<AMessage> msg = makeMsg(1, id, i);
    msg->setObject("o", new Counted(&destroyed));
    msg->post();
  }
  ASSERT_EQ(looper->start(), android::OK);
  ASSERT_TRUE(waitUntil([&] { return destroyed.load() == 10; }))
      << "the messages behind the stopping one are dropped";
  pid_t tid = handler->tid();
  EXPECT_EQ(looper->stop(), android::OK);
  EXPECT_TRUE(waitUntil([&] { return !threadExists(tid); }));
  ASSERT_EQ(handler->count(), 1u);
  EXPECT_EQ(handler->received()[0].what, 99u);
  handler->hook = nullptr;
}

TEST_F(PlatformALooperTest, StopWithoutStartAndRestart) {
  ALooper::handler_id id = looper->registerHandler(handler);
  std::atomic<int> destroyed{0};
  sp<AMessage> msg = makeMsg(1, id);
  msg->setObject("o", new Counted(&destroyed));
  msg->post();
  msg.clear();
  EXPECT_EQ(looper->stop(), android::OK);
  EXPECT_EQ(destroyed.load(), 1) << "queued before start, dropped by stop";
  EXPECT_EQ(looper->stop(), android::OK);

  ASSERT_EQ(looper->start(), android::OK);
  EXPECT_NE(looper->start(), android::OK) << "already running";
  makeMsg(1, id, 5)->post();
  ASSERT_TRUE(waitUntil([&] { return handler->count() == 1; }));
  looper->stop();
  ASSERT_EQ(looper->start(), android::OK) << "a stopped looper can start again";
  makeMsg(1, id, 6)->post();
  ASSERT_TRUE(waitUntil([&] { return handler->count() == 2; }));
  EXPECT_EQ(handler->received()[1].a, 6);
}

TEST_F(PlatformALooperTest, DestructorStopsTheThread) {
  ALooper::handler_id id = looper->registerHandler(handler);
  std::atomic<bool> exited{false};
  handler->hook = [&exited](const sp<AMessage>&) { ThreadExitFlag::arm(&exited); };
  ASSERT_EQ(looper->start(), android::OK);
  std::atomic<int> destroyed{0};
  makeMsg(1, id)->post();
  ASSERT_TRUE(waitUntil([&] { return handler->count() == 1; }));
  pid_t tid = handler->tid();
  sp<AMessage> msg = makeMsg(1, id);
  msg->setObject("o", new Counted(&destroyed));
  msg->post(3600LL * 1000 * 1000);
  msg.clear();
  looper.clear();
  EXPECT_TRUE(exited.load());
  EXPECT_TRUE(waitUntil([&] { return !threadExists(tid); }));
  EXPECT_EQ(destroyed.load(), 1);
  EXPECT_EQ(handler->id(), 0) << "the handler is free to be registered elsewhere";
  EXPECT_EQ(makeMsg(1, id)->post(), -ENOENT);
}

TEST_F(PlatformALooperTest, LooperReleasedOnItsOwnThreadEndsCleanly) {
  ALooper::handler_id id = looper->registerHandler(handler);
  ASSERT_EQ(looper->start(), android::OK);
  // The handler holds the last reference and drops it while handling a message.
  auto holder = std::make_shared<sp<ALooper>>(looper);
  wp<ALooper> weak = looper;
  looper.clear();
  handler->hook = [holder](const sp<AMessage>&) { holder->clear(); };
  makeMsg(1, id)->post();
  ASSERT_TRUE(waitUntil([&] { return handler->count() == 1; }));
  pid_t tid = handler->tid();
  EXPECT_EQ(weak.promote(), nullptr);
  EXPECT_TRUE(waitUntil([&] { return !threadExists(tid); }));
  handler->hook = nullptr;
}

TEST_F(PlatformALooperTest, ThreadIsNamedAfterTheLooper) {
  looper->setName("a_rather_long_looper_name");
  EXPECT_STREQ(looper->getName(), "a_rather_long_looper_name");
  ALooper::handler_id id = looper->registerHandler(handler);
  std::mutex m;
  std::string name;
  handler->hook = [&](const sp<AMessage>&) {
    char buf[32] = {};
    pthread_getname_np(pthread_self(), buf, sizeof(buf));
    std::lock_guard<std::mutex> lock(m);
    name = buf;
  };
  ASSERT_EQ(looper->start(), android::OK);
  makeMsg(1, id)->post();
  ASSERT_TRUE(waitUntil([&] { return handler->count() == 1; }));
  std::lock_guard<std::mutex> lock(m);
  EXPECT_EQ(name, "a_rather_long_l");  // the kernel keeps 15 characters
}

TEST_F(PlatformALooperTest, PriorityIsAppliedAsNiceValueOrIgnored) {
  ALooper::handler_id id = looper->registerHandler(handler);
  std::atomic<int> nice{-100};
  handler->hook = [&](const sp<AMessage>&) {
    errno = 0;
    nice = getpriority(PRIO_PROCESS, static_cast<id_t>(currentTid()));
  };
  // Lowering the priority is always allowed.
  ASSERT_EQ(looper->start(false, false, 10), android::OK);
  makeMsg(1, id)->post();
  ASSERT_TRUE(waitUntil([&] { return handler->count() == 1; }));
  EXPECT_EQ(nice.load(), std::max(10, getpriority(PRIO_PROCESS, 0)));
  looper->stop();

  // Raising it usually is not; the looper must work all the same.
  ASSERT_EQ(looper->start(false, false, -19), android::OK);
  makeMsg(1, id)->post();
  ASSERT_TRUE(waitUntil([&] { return handler->count() == 2; }));
}

TEST_F(PlatformALooperTest, RunOnCallingThreadRunsUntilStop) {
  ALooper::handler_id id = looper->registerHandler(handler);
  sp<ALooper> l = looper;
  handler->hook = [l, id](const sp<AMessage>& msg) {
    int32_t a = -1;
    if (msg->findInt32("a", &a) && a == 1) makeMsg(2, id)->post(10000);
    if (msg->what() == 2) l->stop();
  };
  makeMsg(1, id, 0)->post();
  makeMsg(1, id, 1)->post(20000);
  std::thread::id runner;
  std::atomic<bool> returned{false};
  std::thread th([&] {
    runner = std::this_thread::get_id();
    l->start(true);
    returned = true;
  });
  ASSERT_TRUE(waitUntil([&] { return returned.load(); }));
  th.join();
  EXPECT_EQ(handler->count(), 3u);
  EXPECT_EQ(handler->threadId(), runner);
  handler->hook = nullptr;
}

TEST_F(PlatformALooperTest, StopFromAnotherThreadEndsALoopOnItsCallingThread) {
  ALooper::handler_id id = looper->registerHandler(handler);
  sp<ALooper> l = looper;
  std::atomic<bool> returned{false};
  std::thread th([&] {
    l->start(true);
    returned = true;
  });
  makeMsg(1, id)->post();
  ASSERT_TRUE(waitUntil([&] { return handler->count() == 1; }));
  looper->stop();
  EXPECT_TRUE(waitUntil([&] { return returned.load(); })) << "start(true) returns after stop()";
  th.join();
  makeMsg(1, id)->post();
  EXPECT_EQ(handler->count(), 1u);
}

TEST_F(PlatformALooperTest, ConcurrentPostersWhileStopping) {
  ALooper::handler_id id = looper->registerHandler(handler);
  ASSERT_EQ(looper->start(), android::OK);
  std::atomic<int> destroyed{0};
  std::atomic<int> created{0};
  std::atomic<bool> go{true};
  std::vector<std::thread> posters;
  for (int t = 0; t < 3; ++t) {
    posters.emplace_back([&] {
      while (go) {
        sp<AMessage> msg = makeMsg(1, id);
        msg->setObject("o", new Counted(&destroyed));
        created++;
        msg->post();
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
