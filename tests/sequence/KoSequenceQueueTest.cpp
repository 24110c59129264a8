// Sequence queue: the countdown that freezes the history, the resolution of the captured frame,
// lookups by job id and process bits, and the ownership of snapshots and ZSL buffers.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <numeric>
#include <thread>
#include <vector>

#include "../framedata/FrameTestSupport.h"
#include "KoFaceIdBasedData.h"
#include "KoFrameHist.h"
#include "KoFrameHistSnapshot.h"
#include "KoMemoryBuffer.h"
#include "KoSequenceQueue.h"

using namespace android;

namespace {

constexpr int kDelay = 6;

// Time stamp of frame id `id`: 33 ms apart, in microseconds.
int64_t frameTs(int64_t id) { return 1000000 + id * 33000; }

void addFrame(KoFrameHist& hist, uint32_t id) {
  sp<KoFrameData> frame = kovane_test::makeFrame(id, frameTs(id));
  hist.addFrameData(frame);
}

// A sequence of `jobId` for frame `frameId`, at that frame's time stamp unless `ts` is given.
void newSeq(KoSequenceQueue& queue, int jobId, int frameId, int64_t ts = -1, const sp<ABuffer>& config = nullptr) {
  queue.newSequence(jobId, ts < 0 ? frameTs(frameId) : ts, frameId, 90, 11, 12, config, true, false,
                    KO_timespec_t{0, 0}, false);
}

std::vector<uint32_t> snapshotIds(const KoFrameHistSnapshot* snap) {
  std::vector<uint32_t> ids;
  for (size_t i = 0; i < snap->mHistory.size(); ++i) ids.push_back(snap->mHistory[i]->mFrameData->mFrameId);
  return ids;
}

std::vector<uint32_t> idRange(uint32_t first, uint32_t last) {
  std::vector<uint32_t> ids(last - first + 1);
  std::iota(ids.begin(), ids.end(), first);
  return ids;
}

std::vector<int> toStd(const Vector<int>& v) { return std::vector<int>(v.begin(), v.end()); }

class CountingFaceIdData : public KoFaceIdBasedData {
 public:
  explicit CountingFaceIdData(int* deleted) : KoFaceIdBasedData(nullptr), mDeleted(deleted) {}
  ~CountingFaceIdData() override { ++*mDeleted; }

 private:
  int* mDeleted;
};

// A live history of frames 1..10 and a queue that freezes `kDelay` frames after the shutter.
class KoSequenceQueueCountdown : public ::testing::Test {
 protected:
  KoSequenceQueueCountdown() : queue(kDelay) {
    for (uint32_t id = 1; id <= 10; ++id) addFrame(hist, id);
  }
  // Adds the next preview frame and runs the queue as the foreground does on a preview frame.
  std::vector<int> previewFrame(uint32_t id) {
    addFrame(hist, id);
    Vector<int> ready;
    queue.maintainQueue(&hist, ready);
    return toStd(ready);
  }
  void requestProcessing(std::initializer_list<int> jobs) {
    for (int job : jobs) queue.setProcessField(job, KO_SEQ_PROCESS_REQUESTED);
  }

  KoFrameHist hist;
  KoSequenceQueue queue;
};

TEST_F(KoSequenceQueueCountdown, FrozenAfterDelayFramesAndReadableAfterTheLiveHistoryDropsThem) {
  newSeq(queue, 1, 10);  // the shutter frame is the newest frame at take-picture time
  requestProcessing({1});
  KoSequenceData* seq = queue.getSequence(1);
  for (uint32_t id = 11; id <= 16; ++id) {
    EXPECT_TRUE(previewFrame(id).empty()) << id;
    EXPECT_EQ(nullptr, seq->mSnapshot) << id;
  }
  EXPECT_EQ(std::vector<int>({1}), previewFrame(17));
  EXPECT_EQ(KO_SEQ_STAGE_MASK, queue.getProcessField(1));
  ASSERT_NE(nullptr, seq->mSnapshot);
  EXPECT_EQ(9, seq->mCapturedFrameIndex);
  EXPECT_EQ(1, seq->mFirstFrameId);
  EXPECT_EQ(17, seq->mLastFrameId);
  EXPECT_EQ(frameTs(17), seq->mLastFrameTsUs);

  // The live history rolls on and drops every frame the snapshot holds; nothing is dispatched
  // twice and the snapshot neither grows nor loses frames.
  for (uint32_t id = 18; id <= 60; ++id) EXPECT_TRUE(previewFrame(id).empty()) << id;
  sp<KoFrameData> frame;
  hist.getItemWithFrameId(10, frame);
  EXPECT_EQ(nullptr, frame.get());
  KoFrameHistSnapshot* snap = seq->mSnapshot;
  EXPECT_EQ(idRange(1, 17), snapshotIds(snap)) << "the shutter frame and the frames after it";
  for (uint32_t i = 0; i < snap->mHistory.size(); ++i) {
    EXPECT_EQ(frameTs(i + 1), snap->mHistory[i]->mFrameData->mTimestamp);
  }
  snap->getItemWithFrameId(10, frame);
  ASSERT_NE(nullptr, frame.get());
  EXPECT_EQ(frameTs(10), frame->mTimestamp);
}

TEST_F(KoSequenceQueueCountdown, FrameIdGapsCountdownAndQueueOrder) {
  newSeq(queue, 8, 5);
  newSeq(queue, 6, 4);
  newSeq(queue, 7, 10);
  newSeq(queue, 9, 1000, frameTs(14));  // id ahead of the history: only the countdown freezes it
  newSeq(queue, 5, 10);                 // processing asked only later
  requestProcessing({8, 6, 7, 9});
  KoSequenceData* first = queue.getSequence(8);

  // More than the delay of frames after their shutters: ready at once, in queue order.
  EXPECT_EQ(std::vector<int>({8, 6}), previewFrame(12));
  KoFrameHistSnapshot* firstSnap = first->mSnapshot;
  EXPECT_TRUE(previewFrame(16).empty()) << "6 frames after job 7's shutter: still waiting";
  EXPECT_EQ(std::vector<int>({7}), previewFrame(17));
  EXPECT_EQ(17, queue.getSequence(7)->mLastFrameId);
  EXPECT_EQ(3, queue.getSequence(7)->mFramesToWait) << "frozen before its countdown ran out";
  EXPECT_EQ(3, first->mFramesToWait) << "a dispatched sequence still counts down";
  EXPECT_EQ(KO_SEQ_HISTORY_TAKEN, queue.getProcessField(5)) << "frozen, but not ready";
  KoFrameHistSnapshot* snap5 = queue.getSequence(5)->mSnapshot;

  for (uint32_t id = 18; id <= 20; ++id) EXPECT_TRUE(previewFrame(id).empty()) << id;
  requestProcessing({5});
  EXPECT_EQ(std::vector<int>({9, 5}), previewFrame(21));
  KoSequenceData* late = queue.getSequence(9);
  EXPECT_EQ(21, late->mLastFrameId);
  EXPECT_EQ(16, late->mCapturedFrameId) << "by time stamp: the first frame not earlier (no 14)";
  EXPECT_EQ(11, late->mCapturedFrameIndex);
  EXPECT_EQ(snap5, queue.getSequence(5)->mSnapshot) << "the history taken before is kept";
  EXPECT_EQ(17, queue.getSequence(5)->mLastFrameId);
  EXPECT_EQ(0, first->mFramesToWait) << "the countdown stops at zero";
  EXPECT_EQ(firstSnap, first->mSnapshot) << "a dispatched sequence is not refrozen";
  EXPECT_EQ(12, first->mLastFrameId);
}

TEST(KoSequenceQueueFreeze, EmptyHistoryLeavesTheSequenceWaitingAndIsRetried) {
  KoSequenceQueue queue(0);
  KoFrameHist hist;
  newSeq(queue, 1, 10);
  queue.setProcessField(1, KO_SEQ_PROCESS_REQUESTED);
  Vector<int> ready;
  queue.maintainQueue(&hist, ready);
  EXPECT_TRUE(ready.isEmpty());
  EXPECT_EQ(nullptr, queue.getSequence(1)->mSnapshot);
  EXPECT_EQ(KO_SEQ_PROCESS_REQUESTED, queue.getProcessField(1));

  addFrame(hist, 10);
  queue.maintainQueue(&hist, ready);
  EXPECT_EQ(std::vector<int>({1}), toStd(ready));
  EXPECT_EQ(0, queue.getSequence(1)->mCapturedFrameIndex);
}

// History of frames 20..27 (or 20 alone); the captured frame is found by id, otherwise by time
// stamp: before the history the second frame, inside the first not earlier, after it the last.
TEST(KoSequenceQueueFreeze, CapturedFrameResolution) {
  struct Case {
    int id;
    int64_t ts;
    uint32_t frames;
    int index, resolvedId;
    int64_t resolvedTs;
  } cases[] = {
      {23, 777, 8, 3, 23, 777},  // by id: keeps its own time stamp
      {500, frameTs(20) - 100000, 8, 1, 21, frameTs(21)},
      {500, frameTs(20) - 100000, 1, 0, 20, frameTs(20)},
      {500, frameTs(20), 8, 0, 20, frameTs(20)},
      {500, frameTs(24) - 1, 8, 4, 24, frameTs(24)},
      {500, frameTs(27) + 5000000, 8, 7, 27, frameTs(27)},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.ts);
    KoSequenceQueue queue(kDelay);
    KoFrameHist hist;
    for (uint32_t i = 0; i < c.frames; ++i) addFrame(hist, 20 + i);
    newSeq(queue, 1, c.id, c.ts);
    queue.insertFrameDataHistory(1, &hist);
    KoSequenceData* seq = queue.getSequence(1);
    EXPECT_EQ(KO_SEQ_HISTORY_TAKEN, queue.getProcessField(1));
    EXPECT_EQ(c.index, seq->mCapturedFrameIndex);
    EXPECT_EQ(c.resolvedId, seq->mCapturedFrameId);
    EXPECT_EQ(c.resolvedTs, seq->mCapturedTsUs);
    EXPECT_EQ(20, seq->mFirstFrameId);
    EXPECT_EQ(static_cast<int>(19 + c.frames), seq->mLastFrameId);
  }
}

TEST(KoSequenceQueueLookup, UnknownJobsJobIdMinusOneDuplicatesAndMasks) {
  // An empty queue: every lookup misses and every action is a no-op.
  KoSequenceQueue queue(kDelay);
  EXPECT_EQ(0u, queue.getProcessField(1));
  EXPECT_EQ(nullptr, queue.getSequence(1));
  EXPECT_EQ(-1, queue.findSnapshotIndex(1));
  queue.setProcessField(1, 0x2);
  queue.clearProcessField(1, 0x2);
  queue.freeSequenceSnapshot(1);
  queue.releaseSequenceZSLBuffers(1);
  queue.removeSequence(1);
  Vector<int> out;
  KoFrameHist hist;
  queue.maintainQueue(&hist, out);
  queue.getSequenceVector(0, out);
  EXPECT_TRUE(out.isEmpty());

  // Job id -1 is queued but never found by id.
  newSeq(queue, -1, 10);
  EXPECT_EQ(-1, queue.findSnapshotIndex(-1));
  EXPECT_EQ(nullptr, queue.getSequence(-1));
  queue.setProcessField(-1, 0x2);
  EXPECT_EQ(0u, queue.getProcessField(-1));
  queue.getSequenceVector(0x2, out);
  EXPECT_TRUE(out.isEmpty()) << "the bit was not set";
  queue.getSequenceVector(0, out);
  EXPECT_EQ(std::vector<int>({-1}), toStd(out)) << "the sequence is in the queue";

  // Duplicate job ids: every action goes to the first.
  newSeq(queue, 7, 11);
  newSeq(queue, 7, 12);
  newSeq(queue, 30, 1);
  KoSequenceData* first = queue.getSequence(7);
  ASSERT_NE(nullptr, first);
  EXPECT_EQ(11, first->mCapturedFrameId);
  EXPECT_EQ(1, queue.findSnapshotIndex(7));
  queue.setProcessField(7, 0x40 | 0x80 | 0x2);
  queue.clearProcessField(7, 0x80);
  queue.DEBUG_SetOrientation(7, 180);
  EXPECT_EQ(0x42u, first->mProcessField.load());
  EXPECT_EQ(180, first->mOrientation);
  queue.setProcessField(30, 0x40);
  queue.setProcessField(30, 0x80);

  // Masks: 0 lists every sequence, otherwise all bits of the mask are required; the output
  // is appended to, not emptied.
  out.clear();
  out.push_back(99);
  queue.getSequenceVector(0, out);
  EXPECT_EQ(std::vector<int>({99, -1, 7, 7, 30}), toStd(out));
  Vector<int> video, both;
  queue.getSequenceVector(0x40, video);
  EXPECT_EQ(std::vector<int>({7, 30}), toStd(video)) << "only the first 7 got the bit";
  queue.getSequenceVector(0x40 | 0x80, both);
  EXPECT_EQ(std::vector<int>({30}), toStd(both));

  queue.removeSequence(7);
  EXPECT_EQ(3, queue.getNumActiveJobs());
  KoSequenceData* second = queue.getSequence(7);
  ASSERT_NE(nullptr, second);
  EXPECT_EQ(12, second->mCapturedFrameId) << "the first was removed, the second remains";
  EXPECT_EQ(0u, queue.getProcessField(7));
}

// The foreground (which also adds sequences and runs the queue) and the background set process
// bits on the same sequences at the same time; none may be lost.
TEST(KoSequenceQueueLookup, ProcessBitsFromTwoThreadsAreNotLost) {
  constexpr int kJobs = 64;
  KoSequenceQueue queue(kDelay);
  KoFrameHist hist;
  addFrame(hist, 1);
  for (int job = 0; job < kJobs; ++job) newSeq(queue, job, 1);

  std::atomic<int> started(0);
  auto setter = [&](uint32_t parity) {
    started.fetch_add(1);
    while (started.load() < 2) {
    }
    for (int round = 0; round < 20; ++round) {
      Vector<int> ids;
      if (parity == 0) {
        newSeq(queue, kJobs + round, 1);  // grows the queue under the other thread's lookups
        queue.maintainQueue(&hist, ids);
      } else {
        queue.getSequenceVector(0, ids);
      }
      for (int job = 0; job < kJobs; ++job) {
        // Each thread owns every second bit.
        queue.setProcessField(job, 1u << (2 * ((round + job) % 16) + parity));
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

// Removal, release and freeing hand each ZSL buffer back once, and destroying the queue frees
// what is still queued, frozen or not.
TEST(KoSequenceQueueZsl, RemoveReleaseFreeAndDestroyHandBuffersBackOnce) {
  kovane_test::TestEngineContext engine;
  // A live history of frames 1..10 in which frames 3, 5 and 8 carry ZSL buffers, and a queue
  // of delay 0 whose sequences freeze on the next maintainQueue.
  auto hist = std::make_unique<KoFrameHist>();
  auto queue = std::make_unique<KoSequenceQueue>(0);
  const uint32_t zslFrames[3] = {3, 5, 8};
  for (uint32_t id = 1; id <= 10; ++id) addFrame(*hist, id);
  for (uint32_t id : zslFrames) {
    sp<KoMemoryBuffer> buffer;
    ASSERT_TRUE(engine.memory()->addZslBuffer(kovane_test::zslAddress(id), &buffer));
    KO_ZslFrameData_t zsl = {kovane_test::zslAddress(id), id};
    hist->addZslData(buffer, &zsl, id);
  }
  auto freezeJob = [&](int jobId) {
    newSeq(*queue, jobId, 9);
    Vector<int> ready;
    queue->maintainQueue(hist.get(), ready);
    ASSERT_NE(nullptr, queue->getSequence(jobId)->mSnapshot);
  };
  // Each buffer is locked by `locks` snapshots (none handed back), or was handed back once.
  auto expectBuffers = [&](int locks) {
    for (uint32_t id : zslFrames) {
      if (locks > 0) {
        int32_t lockCount = -100;
        EXPECT_TRUE(engine.memory()->getStatus(kovane_test::zslAddress(id), nullptr, &lockCount));
        EXPECT_EQ(locks, lockCount) << id;
      }
      EXPECT_EQ(locks > 0 ? 0u : 1u, engine.timesReturned(kovane_test::zslAddress(id))) << id;
    }
  };

  int faceIdDeleted = 0;
  sp<ABuffer> config = new ABuffer(8);
  newSeq(*queue, 1, 9, -1, config);
  queue->getSequence(1)->mFaceIdData = new CountingFaceIdData(&faceIdDeleted);
  freezeJob(2);  // freezes job 1 too
  freezeJob(3);
  newSeq(*queue, 4, 9, -1, config);  // never frozen: no snapshot to free
  queue->getSequence(4)->mFaceIdData = new CountingFaceIdData(&faceIdDeleted);
  // The live history goes first: the snapshots now hold the only references.
  hist.reset();
  expectBuffers(3);

  queue->removeSequence(1);
  EXPECT_EQ(1, faceIdDeleted);
  EXPECT_EQ(2, config->getStrongCount()) << "removal drops the config reference";
  expectBuffers(2);

  queue->releaseSequenceZSLBuffers(2);
  queue->releaseSequenceZSLBuffers(2);
  expectBuffers(1);  // job 3 still holds them
  KoFrameHistSnapshot* snap = queue->getSequence(2)->mSnapshot;
  ASSERT_NE(nullptr, snap);
  EXPECT_EQ(idRange(1, 10), snapshotIds(snap)) << "the frames stay";
  EXPECT_EQ(nullptr, snap->mHistory[4]->mZslMemory.get());

  queue->freeSequenceSnapshot(2);
  queue->freeSequenceSnapshot(2);
  EXPECT_EQ(nullptr, queue->getSequence(2)->mSnapshot);
  EXPECT_EQ(KO_SEQ_HISTORY_TAKEN, queue->getProcessField(2)) << "bits are not cleared";
  queue->removeSequence(2);
  EXPECT_EQ(2, queue->getNumActiveJobs());
  expectBuffers(1);

  queue.reset();
  expectBuffers(0);
  EXPECT_EQ(0u, engine.memory()->count());
  EXPECT_EQ(2, faceIdDeleted);
  EXPECT_EQ(1, config->getStrongCount());
}

}  // namespace
