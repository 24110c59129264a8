// Sequence queue: ownership of snapshots and ZSL buffers, and the process field shared by the
// foreground and background threads.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

#include "KoFrameHistSnapshot.h"
#include "KoSequenceQueue.h"
#include "SequenceTestSupport.h"
#include "TestWait.h"

using namespace android;
using kovane_test::addFrame;
using kovane_test::attachZsl;
using kovane_test::frameTs;
using kovane_test::SequenceTestContext;

namespace {

int newSeq(KoSequenceQueue& queue, int jobId, int frameId) {
  KO_timespec_t exif = {0, 0};
  return queue.newSequence(jobId, frameTs(static_cast<uint32_t>(frameId)), frameId, 0, -1, -1,
                           nullptr, true, false, exif, false);
}

// A live history of frames 1..10 in which frames 3, 5 and 8 carry ZSL buffers, and a queue of
// delay 0 whose sequences freeze on the next maintainQueue.
class KoSequenceQueueZsl : public ::testing::Test {
 protected:
  KoSequenceQueueZsl() : memory(&ctx) {
    ctx.setMemory(&memory);
    hist.reset(new KoFrameHist());
    queue.reset(new KoSequenceQueue(0));
    for (uint32_t id = 1; id <= 10; ++id) addFrame(*hist, id);
    for (int i = 0; i < 3; ++i) EXPECT_TRUE(attachZsl(memory, *hist, buffers[i], kZslFrames[i]));
  }

  ~KoSequenceQueueZsl() override {
    queue.reset();
    hist.reset();
  }

  void freezeJob(int jobId) {
    newSeq(*queue, jobId, 9);
    Vector<int> ready;
    queue->maintainQueue(hist.get(), ready);
    ASSERT_NE(nullptr, queue->getSequence(jobId)->mSnapshot);
  }

  int lockCount(int i) {
    uint32_t status = 0;
    int32_t locks = -100;
    EXPECT_TRUE(memory.getStatus(buffers[i], &status, &locks));
    return locks;
  }

  static constexpr uint32_t kZslFrames[3] = {3, 5, 8};
  uint8_t storage[3][16] = {};
  uint8_t* buffers[3] = {storage[0], storage[1], storage[2]};
  SequenceTestContext ctx;
  KoMemory memory;
  std::unique_ptr<KoFrameHist> hist;
  std::unique_ptr<KoSequenceQueue> queue;
};

constexpr uint32_t KoSequenceQueueZsl::kZslFrames[3];

TEST_F(KoSequenceQueueZsl, SnapshotLocksTheBuffersOnce) {
  freezeJob(1);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(1, lockCount(i));
  freezeJob(2);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(2, lockCount(i));
  EXPECT_EQ(0, ctx.totalReturned());
}

TEST_F(KoSequenceQueueZsl, DestroyingTheQueueReleasesSnapshotsAndHandsBuffersBackOnce) {
  freezeJob(1);
  freezeJob(2);
  newSeq(*queue, 3, 9);  // never frozen: nothing to free
  // The live history goes first: the snapshots now hold the only references.
  hist.reset();
  EXPECT_EQ(0, ctx.totalReturned());
  EXPECT_EQ(3u, memory.count());

  queue.reset();
  for (int i = 0; i < 3; ++i) EXPECT_EQ(1, ctx.returnedCount(buffers[i])) << "buffer " << i;
  EXPECT_EQ(3, ctx.totalReturned());
  EXPECT_EQ(0u, memory.count());
}

TEST_F(KoSequenceQueueZsl, DestroyingTheQueueUnlocksBuffersTheHistoryStillHolds) {
  freezeJob(1);
  queue.reset();
  EXPECT_EQ(0, ctx.totalReturned()) << "the live history still holds them";
  for (int i = 0; i < 3; ++i) EXPECT_EQ(0, lockCount(i));
  hist.reset();
  EXPECT_EQ(3, ctx.totalReturned());
  for (int i = 0; i < 3; ++i) EXPECT_EQ(1, ctx.returnedCount(buffers[i]));
}

TEST_F(KoSequenceQueueZsl, ReleaseSequenceZslBuffersKeepsTheFrames) {
  freezeJob(1);
  hist.reset();
  queue->releaseSequenceZSLBuffers(1);
  EXPECT_EQ(3, ctx.totalReturned());
  KoFrameHistSnapshot* snap = queue->getSequence(1)->mSnapshot;
  ASSERT_NE(nullptr, snap);
  ASSERT_EQ(10u, snap->mHistory.size());
  EXPECT_EQ(5u, snap->mHistory[4]->mFrameData->mFrameId);
  EXPECT_EQ(nullptr, snap->mHistory[4]->mZslMemory.get());

  queue->freeSequenceSnapshot(1);
  queue->removeSequence(1);
  queue.reset();
  EXPECT_EQ(3, ctx.totalReturned()) << "no buffer is handed back twice";
}

TEST_F(KoSequenceQueueZsl, RemoveSequenceFreesItsSnapshot) {
  freezeJob(1);
  freezeJob(2);
  hist.reset();
  queue->removeSequence(1);
  EXPECT_EQ(0, ctx.totalReturned()) << "job 2 still holds the buffers";
  for (int i = 0; i < 3; ++i) EXPECT_EQ(1, lockCount(i));
  queue->removeSequence(2);
  EXPECT_EQ(3, ctx.totalReturned());
  EXPECT_EQ(0, queue->getNumActiveJobs());
}

// ---- Threads -------------------------------------------------------------------------------

// The foreground and background threads set process bits on the same sequences at the same
// time; the queue's lock must not lose any of them.
TEST(KoSequenceQueueThreads, ProcessBitsFromTwoThreadsAreNotLost) {
  constexpr int kJobs = 64;
  constexpr int kRounds = 20;
  KoSequenceQueue queue(6);
  for (int job = 0; job < kJobs; ++job) newSeq(queue, job, 1);

  std::atomic<int> started(0);
  auto setter = [&](uint32_t parity) {
    started.fetch_add(1);
    while (started.load() < 2) {
    }
    for (int round = 0; round < kRounds; ++round) {
      for (int job = 0; job < kJobs; ++job) {
        // Each thread owns every second bit; a round sets one more of them on every job.
        uint32_t bit = 1u << (2 * ((round + job) % 16) + parity);
        queue.setProcessField(job, bit);
        // Reads without the queue's lock are well-defined too.
        (void)queue.getSequence(job)->mProcessField.load(std::memory_order_relaxed);
      }
    }
    for (int job = 0; job < kJobs; ++job) {
      for (uint32_t b = parity; b < 32; b += 2) queue.setProcessField(job, 1u << b);
    }
  };
  std::thread fg(setter, 0u);
  std::thread bg(setter, 1u);
  fg.join();
  bg.join();
  for (int job = 0; job < kJobs; ++job) EXPECT_EQ(0xFFFFFFFFu, queue.getProcessField(job)) << job;
}

// The background marks analysis steps while the foreground runs the queue on preview frames,
// adds sequences and polls getNumActiveJobs without the lock.
TEST(KoSequenceQueueThreads, BackgroundBitsWhileForegroundMaintains) {
  KoSequenceQueue queue(2);
  KoFrameHist hist;
  for (uint32_t id = 1; id <= 5; ++id) addFrame(hist, id);

  std::atomic<bool> stop(false);
  std::atomic<int> marked(0);
  std::thread bg([&] {
    // Analyse every dispatched job once, as the background handler does.
    std::vector<bool> done(64, false);
    while (!stop.load()) {
      Vector<int> dispatched;
      queue.getSequenceVector(KO_SEQ_DISPATCHED, dispatched);
      for (size_t i = 0; i < dispatched.size(); ++i) {
        int job = dispatched[i];
        if (done[job]) continue;
        done[job] = true;
        KoSequenceData* seq = queue.getSequence(job);
        // Read the frozen history as the analysis does; the record was handed over by 0x4.
        if (seq->mSnapshot) (void)seq->mSnapshot->mHistory.size();
        queue.setProcessField(job, KO_SEQ_FRAME_STATS_DONE);
        queue.setProcessField(job, KO_SEQ_BESTSHOT_FOUND);
        queue.setProcessField(job, KO_SEQ_MOTION_DONE);
        marked.fetch_add(1);
      }
    }
  });
  std::atomic<int> maxSeen(0);
  std::thread poller([&] {
    while (!stop.load()) {
      int n = queue.getNumActiveJobs();
      if (n > maxSeen.load()) maxSeen.store(n);
    }
  });

  constexpr int kJobs = 20;
  uint32_t id = 6;
  for (int job = 0; job < kJobs; ++job) {
    newSeq(queue, job, static_cast<int>(id - 1));
    queue.setProcessField(job, KO_SEQ_PROCESS_REQUESTED);
    for (int f = 0; f < 4; ++f) {
      addFrame(hist, id++);
      Vector<int> ready;
      queue.maintainQueue(&hist, ready);
      for (size_t i = 0; i < ready.size(); ++i) queue.setProcessField(ready[i], KO_SEQ_VIDEO_START_SET);
    }
  }
  EXPECT_TRUE(kovane_test::waitUntil([&] { return marked.load() == kJobs; }));
  EXPECT_TRUE(kovane_test::waitUntil([&] { return maxSeen.load() == kJobs; }));
  stop.store(true);
  bg.join();
  poller.join();

  for (int job = 0; job < kJobs; ++job) {
    EXPECT_EQ(KO_SEQ_HISTORY_TAKEN | KO_SEQ_PROCESS_REQUESTED | KO_SEQ_DISPATCHED |
                  KO_SEQ_VIDEO_START_SET | KO_SEQ_FRAME_STATS_DONE | KO_SEQ_BESTSHOT_FOUND |
                  KO_SEQ_MOTION_DONE,
              queue.getProcessField(job))
        << job;
  }
  for (int job = 0; job < kJobs; ++job) queue.removeSequence(job);
  EXPECT_EQ(0, queue.getNumActiveJobs());
}

}  // namespace
