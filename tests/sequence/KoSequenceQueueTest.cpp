// Sequence queue: creation values, the countdown that freezes the history, the resolution of
// the captured frame, selection by process bits and job-id lookups.
#include <gtest/gtest.h>

#include <cstring>

#include "KoFaceIdBasedData.h"
#include "KoFrameHistSnapshot.h"
#include "KoSequenceQueue.h"
#include "SequenceTestSupport.h"

using namespace android;
using kovane_test::addFrame;
using kovane_test::frameTs;

namespace {

constexpr int kDelay = 6;

int newSeq(KoSequenceQueue& queue, int jobId, int frameId, int64_t ts,
           const sp<ABuffer>& config = nullptr) {
  KO_timespec_t exif = {1700000000, 250};
  return queue.newSequence(jobId, ts, frameId, 90, 11, 12, config, true, false, exif, false);
}

// Frame ids of a snapshot, oldest first.
std::vector<uint32_t> snapshotIds(KoFrameHistSnapshot* snap) {
  std::vector<uint32_t> ids;
  for (size_t i = 0; i < snap->mHistory.size(); ++i) ids.push_back(snap->mHistory[i]->mFrameData->mFrameId);
  return ids;
}

std::vector<int> toStd(const Vector<int>& v) {
  std::vector<int> out;
  for (size_t i = 0; i < v.size(); ++i) out.push_back(v[i]);
  return out;
}

class CountingFaceIdData : public KoFaceIdBasedData {
 public:
  explicit CountingFaceIdData(int* deleted) : KoFaceIdBasedData(nullptr), mDeleted(deleted) {}
  ~CountingFaceIdData() override { ++*mDeleted; }

 private:
  int* mDeleted;
};

}  // namespace

// ---- Creation and clearing -----------------------------------------------------------------

TEST(KoSequenceQueueCreate, NewSequenceSetsCreationValues) {
  KoSequenceQueue queue(kDelay);
  sp<ABuffer> config = new ABuffer(16);
  KO_timespec_t exif = {1700000000, 250};
  EXPECT_EQ(0, queue.newSequence(42, 123456789, 77, 270, 5, 6, config, true, true, exif, true));
  EXPECT_EQ(1, queue.getNumActiveJobs());

  KoSequenceData* seq = queue.getSequence(42);
  ASSERT_NE(nullptr, seq);
  EXPECT_EQ(0u, seq->mProcessField.load());
  EXPECT_EQ(1, seq->mVideoEnabled);
  EXPECT_EQ(1, seq->mBestShotEnabled);
  EXPECT_EQ(kDelay, seq->mFramesToWait);
  EXPECT_EQ(nullptr, seq->mSnapshot);
  EXPECT_EQ(42, seq->mJobId);
  EXPECT_EQ(270, seq->mOrientation);
  EXPECT_EQ(123456789, seq->mCapturedTsUs);
  EXPECT_EQ(77, seq->mCapturedFrameId);
  EXPECT_EQ(-1, seq->mCapturedFrameIndex);
  EXPECT_EQ(-1, seq->mFirstFrameTsUs);
  EXPECT_EQ(-1, seq->mLastFrameTsUs);
  EXPECT_EQ(-1, seq->mFirstFrameId);
  EXPECT_EQ(-1, seq->mLastFrameId);
  EXPECT_EQ(5, seq->mVideoFd);
  EXPECT_EQ(6, seq->mMetadataFd);
  EXPECT_EQ(1, seq->mHdrMode);
  EXPECT_EQ(config.get(), seq->mConfig.get());
  EXPECT_EQ(1700000000, seq->mExifTs.sec);
  EXPECT_EQ(250, seq->mExifTs.nsec);
  EXPECT_EQ(0, seq->mVideoGenerated);
  EXPECT_EQ(0, seq->mVideoStartFrameId);
  EXPECT_EQ(0, seq->mBestShotInfo[0].frameId);
  EXPECT_EQ(0u, seq->mBestShotInfo[1].algBitField);  // value-initialised at allocation
  EXPECT_TRUE(seq->mCamMotionList.isEmpty());
  EXPECT_TRUE(seq->mLumaStatsList.isEmpty());
  EXPECT_EQ(nullptr, seq->mFaceIdData);
  EXPECT_EQ(2, config->getStrongCount());

  queue.removeSequence(42);
  EXPECT_EQ(0, queue.getNumActiveJobs());
  EXPECT_EQ(1, config->getStrongCount()) << "removal drops the config reference";
}

TEST(KoSequenceQueueCreate, InitNewSequenceResetsButKeepsSecondSlotAndScores) {
  KoSequenceQueue queue(kDelay);
  newSeq(queue, 1, 10, 1000);
  KoSequenceData* seq = queue.getSequence(1);
  ASSERT_NE(nullptr, seq);

  // Dirty every group the reset covers, plus the two it must leave alone.
  seq->mProcessField.store(0x7);
  seq->mFramesToWait = 0;
  seq->mSceneInfo[4] = 9;
  seq->mVideoGenerated = 1;
  seq->mVideoMotionScore = 55;
  seq->mVideoReserved[3] = 7;
  seq->mBestShotInfo[0].frameId = 3;
  seq->mBestShotInfo[1].frameId = 42;
  seq->mFrameSobelStats.mean = 2.0f;
  seq->mSobelStatsList.push_back(KO_dataStats_t{1, 2, 3, 4, 5});
  seq->mCamMotionList.push_back(dexMotionCamMove_t{1, 2, 3, 4});
  seq->mBestShotScores.push_back(bestShotScores_t{5, 1, 1.0f, 2.0f, 3.0f, 4.0f});
  seq->mResultCookie = 8;
  seq->mVideoSaved = 1;

  sp<ABuffer> config = new ABuffer(8);
  KO_timespec_t exif = {3, 4};
  queue.initNewSequence(seq, 2, 5000, 20, 0, -1, -1, config, false, true, exif, false);

  EXPECT_EQ(0u, seq->mProcessField.load());
  EXPECT_EQ(kDelay, seq->mFramesToWait);
  EXPECT_EQ(2, seq->mJobId);
  EXPECT_EQ(20, seq->mCapturedFrameId);
  EXPECT_EQ(0, seq->mSceneInfo[4]);
  EXPECT_EQ(0, seq->mVideoGenerated);
  EXPECT_EQ(0, seq->mVideoMotionScore);
  EXPECT_EQ(0, seq->mVideoReserved[3]);
  EXPECT_EQ(0, seq->mBestShotInfo[0].frameId);
  EXPECT_EQ(42, seq->mBestShotInfo[1].frameId) << "the second slot is not touched";
  EXPECT_EQ(1u, seq->mBestShotScores.size()) << "the score list is not touched";
  EXPECT_EQ(0.0f, seq->mFrameSobelStats.mean);
  EXPECT_TRUE(seq->mSobelStatsList.isEmpty());
  EXPECT_TRUE(seq->mCamMotionList.isEmpty());
  EXPECT_EQ(0, seq->mResultCookie);
  EXPECT_EQ(0, seq->mVideoSaved);
  EXPECT_EQ(config.get(), seq->mConfig.get());
}

TEST(KoSequenceQueueCreate, FrameDelayIsTruncatedToEightBits) {
  KoSequenceQueue queue(0x105);
  newSeq(queue, 1, 10, 1000);
  EXPECT_EQ(5, queue.getSequence(1)->mFramesToWait);
}

TEST(KoSequenceQueueCreate, RemoveDeletesFaceIdDataThroughVirtualDestructor) {
  int deleted = 0;
  {
    KoSequenceQueue queue(kDelay);
    newSeq(queue, 1, 10, 1000);
    newSeq(queue, 2, 10, 1000);
    queue.getSequence(1)->mFaceIdData = new CountingFaceIdData(&deleted);
    queue.getSequence(2)->mFaceIdData = new CountingFaceIdData(&deleted);
    queue.removeSequence(1);
    EXPECT_EQ(1, deleted);
    EXPECT_EQ(nullptr, queue.getSequence(1));
  }
  EXPECT_EQ(2, deleted) << "the queue's destructor frees what remains";
}

// ---- Lookups -------------------------------------------------------------------------------

TEST(KoSequenceQueueLookup, EmptyQueue) {
  KoSequenceQueue queue(kDelay);
  EXPECT_EQ(0, queue.getNumActiveJobs());
  EXPECT_EQ(0u, queue.getProcessField(1));
  EXPECT_EQ(nullptr, queue.getSequence(1));
  EXPECT_EQ(-1, queue.findSnapshotIndex(1));
  queue.setProcessField(1, 0x2);
  queue.clearProcessField(1, 0x2);
  queue.freeSequenceSnapshot(1);
  queue.releaseSequenceZSLBuffers(1);
  queue.removeSequence(1);
  Vector<int> out;
  queue.getSequenceVector(0, out);
  EXPECT_TRUE(out.isEmpty());
  KoFrameHist hist;
  queue.maintainQueue(&hist, out);
  EXPECT_TRUE(out.isEmpty());
}

TEST(KoSequenceQueueLookup, JobIdMinusOneIsNeverFound) {
  KoSequenceQueue queue(kDelay);
  newSeq(queue, -1, 10, 1000);
  EXPECT_EQ(-1, queue.findSnapshotIndex(-1));
  EXPECT_EQ(nullptr, queue.getSequence(-1));
  queue.setProcessField(-1, 0x2);
  EXPECT_EQ(0u, queue.getProcessField(-1));
  Vector<int> out;
  queue.getSequenceVector(0, out);
  EXPECT_EQ(std::vector<int>({-1}), toStd(out)) << "the sequence is still in the queue";
}

TEST(KoSequenceQueueLookup, DuplicateJobIdsActOnTheFirst) {
  KoSequenceQueue queue(kDelay);
  newSeq(queue, 3, 10, 1000);
  newSeq(queue, 7, 11, 1000);
  newSeq(queue, 7, 12, 2000);
  KoSequenceData* first = queue.getSequence(7);
  ASSERT_NE(nullptr, first);
  EXPECT_EQ(11, first->mCapturedFrameId);
  EXPECT_EQ(1, queue.findSnapshotIndex(7));

  queue.setProcessField(7, 0x40 | 0x80);
  queue.clearProcessField(7, 0x80);
  queue.DEBUG_SetOrientation(7, 180);
  EXPECT_EQ(0x40u, first->mProcessField.load());
  EXPECT_EQ(180, first->mOrientation);
  Vector<int> withVideo;
  queue.getSequenceVector(0x40, withVideo);
  EXPECT_EQ(std::vector<int>({7}), toStd(withVideo)) << "only the first got the bit";

  queue.removeSequence(7);
  EXPECT_EQ(2, queue.getNumActiveJobs());
  KoSequenceData* second = queue.getSequence(7);
  ASSERT_NE(nullptr, second);
  EXPECT_EQ(12, second->mCapturedFrameId) << "the first was removed, the second remains";
  EXPECT_EQ(0u, queue.getProcessField(7));
}

TEST(KoSequenceQueueLookup, GetSequenceVectorMasks) {
  KoSequenceQueue queue(kDelay);
  newSeq(queue, 10, 1, 0);
  newSeq(queue, 20, 1, 0);
  newSeq(queue, 30, 1, 0);
  queue.setProcessField(10, 0x40 | 0x2);
  queue.setProcessField(20, 0x2);
  queue.setProcessField(30, 0x40 | 0x80);

  Vector<int> out;
  out.push_back(99);  // not emptied
  queue.getSequenceVector(0, out);
  EXPECT_EQ(std::vector<int>({99, 10, 20, 30}), toStd(out));

  Vector<int> video;
  queue.getSequenceVector(0x40, video);
  EXPECT_EQ(std::vector<int>({10, 30}), toStd(video));

  Vector<int> both;
  queue.getSequenceVector(0x40 | 0x80, both);
  EXPECT_EQ(std::vector<int>({30}), toStd(both)) << "all bits of the mask are required";

  Vector<int> none;
  queue.getSequenceVector(0x100, none);
  EXPECT_TRUE(none.isEmpty());
}

TEST(KoSequenceQueueLookup, ProcessFieldSetAndClear) {
  KoSequenceQueue queue(kDelay);
  newSeq(queue, 5, 1, 0);
  queue.setProcessField(5, KO_SEQ_BESTSHOT_DELIVERED);
  queue.setProcessField(5, KO_SEQ_PREVIEW_HISTORY_DELIVERED);
  EXPECT_EQ(KO_SEQ_SNAPSHOT_DONE, queue.getProcessField(5));
  queue.setProcessField(5, KO_SEQ_FG_ANALYSIS_DONE);
  EXPECT_EQ(0x340500u, queue.getProcessField(5));
  queue.clearProcessField(5, 0x100 | 0x40000);
  EXPECT_EQ(0x300400u, queue.getProcessField(5));
  queue.setProcessField(6, 0x1);  // unknown job: ignored
  EXPECT_EQ(0x300400u, queue.getProcessField(5));
}

// ---- Countdown and freezing ----------------------------------------------------------------

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

  KoFrameHist hist;
  KoSequenceQueue queue;
};

TEST_F(KoSequenceQueueCountdown, FrozenOnceMoreThanDelayFramesFollowTheCapture) {
  // The shutter frame is the newest frame at take-picture time.
  newSeq(queue, 1, 10, frameTs(10));
  queue.setProcessField(1, KO_SEQ_PROCESS_REQUESTED);
  KoSequenceData* seq = queue.getSequence(1);

  for (uint32_t id = 11; id <= 16; ++id) {
    EXPECT_TRUE(previewFrame(id).empty()) << "frame " << id;
    EXPECT_EQ(nullptr, seq->mSnapshot) << "frame " << id;
    EXPECT_EQ(KO_SEQ_PROCESS_REQUESTED, queue.getProcessField(1));
  }
  EXPECT_EQ(std::vector<int>({1}), previewFrame(17));
  EXPECT_EQ(KO_SEQ_HISTORY_TAKEN | KO_SEQ_PROCESS_REQUESTED | KO_SEQ_DISPATCHED, queue.getProcessField(1));
  ASSERT_NE(nullptr, seq->mSnapshot);
  EXPECT_EQ(17, seq->mLastFrameId);
  EXPECT_EQ(1, seq->mFirstFrameId);
  EXPECT_EQ(frameTs(17), seq->mLastFrameTsUs);
  EXPECT_EQ(frameTs(1), seq->mFirstFrameTsUs);
  std::vector<uint32_t> ids = snapshotIds(seq->mSnapshot);
  ASSERT_EQ(17u, ids.size());
  // The shutter frame and the frames after it are all there.
  for (uint32_t id = 10; id <= 17; ++id) EXPECT_EQ(id, ids[id - 1]);
  EXPECT_EQ(9, seq->mCapturedFrameIndex);
  EXPECT_EQ(0, seq->mFramesToWait);

  // Dispatched once only.
  EXPECT_TRUE(previewFrame(18).empty());
  EXPECT_EQ(17u, seq->mSnapshot->mHistory.size()) << "the frozen history does not grow";
}

TEST_F(KoSequenceQueueCountdown, FrozenWhenTheCountdownRunsOut) {
  // A capture frame id ahead of the history never counts as "frames after the capture":
  // only the countdown of six preview frames freezes the history.
  newSeq(queue, 2, 1000, frameTs(14));
  queue.setProcessField(2, KO_SEQ_PROCESS_REQUESTED);
  KoSequenceData* seq = queue.getSequence(2);
  for (uint32_t id = 11; id <= 16; ++id) {
    EXPECT_TRUE(previewFrame(id).empty()) << "frame " << id;
    EXPECT_EQ(static_cast<int>(kDelay - (id - 10)), seq->mFramesToWait);
  }
  EXPECT_EQ(std::vector<int>({2}), previewFrame(17));
  EXPECT_EQ(17, seq->mLastFrameId);
  // Resolved by time stamp: frame 14 has exactly the capture time stamp.
  EXPECT_EQ(14, seq->mCapturedFrameId);
  EXPECT_EQ(13, seq->mCapturedFrameIndex);
}

TEST_F(KoSequenceQueueCountdown, GapsInFrameIdsFreezeBeforeTheCountdownEnds) {
  newSeq(queue, 3, 10, frameTs(10));
  queue.setProcessField(3, KO_SEQ_PROCESS_REQUESTED);
  KoSequenceData* seq = queue.getSequence(3);
  EXPECT_TRUE(previewFrame(13).empty());   // 3 after the capture
  EXPECT_TRUE(previewFrame(16).empty());   // 6 after: still waiting
  EXPECT_EQ(std::vector<int>({3}), previewFrame(17));  // 7 after
  EXPECT_EQ(17, seq->mLastFrameId);
  EXPECT_EQ(3, seq->mFramesToWait) << "the countdown had not run out";
}

TEST_F(KoSequenceQueueCountdown, DispatchedSequenceCountdownStillGoesDown) {
  newSeq(queue, 4, 10, frameTs(10));
  queue.setProcessField(4, KO_SEQ_PROCESS_REQUESTED);
  KoSequenceData* seq = queue.getSequence(4);
  // A jump of twenty frame ids: ready on the first frame with the countdown still at six.
  EXPECT_EQ(std::vector<int>({4}), previewFrame(30));
  EXPECT_EQ(kDelay - 1, seq->mFramesToWait);
  KoFrameHistSnapshot* snap = seq->mSnapshot;
  for (int expected = kDelay - 2; expected >= 0; --expected) {
    EXPECT_TRUE(previewFrame(static_cast<uint32_t>(31 + (kDelay - 2 - expected))).empty());
    EXPECT_EQ(expected, seq->mFramesToWait);
  }
  EXPECT_TRUE(previewFrame(40).empty());
  EXPECT_EQ(0, seq->mFramesToWait) << "stops at zero";
  EXPECT_EQ(snap, seq->mSnapshot) << "a dispatched sequence is not refrozen";
}

TEST_F(KoSequenceQueueCountdown, NotReadyUntilProcessingIsAsked) {
  newSeq(queue, 5, 10, frameTs(10));
  KoSequenceData* seq = queue.getSequence(5);
  EXPECT_TRUE(previewFrame(20).empty());
  ASSERT_NE(nullptr, seq->mSnapshot);
  EXPECT_EQ(KO_SEQ_HISTORY_TAKEN, queue.getProcessField(5));
  KoFrameHistSnapshot* snap = seq->mSnapshot;

  queue.setProcessField(5, KO_SEQ_PROCESS_REQUESTED);
  EXPECT_EQ(std::vector<int>({5}), previewFrame(21));
  EXPECT_EQ(snap, seq->mSnapshot) << "the history taken before is kept";
  EXPECT_EQ(20, seq->mLastFrameId);
}

TEST_F(KoSequenceQueueCountdown, SeveralSequencesReadyInQueueOrder) {
  newSeq(queue, 8, 5, frameTs(5));
  newSeq(queue, 6, 4, frameTs(4));
  newSeq(queue, 7, 10, frameTs(10));
  queue.setProcessField(8, KO_SEQ_PROCESS_REQUESTED);
  queue.setProcessField(6, KO_SEQ_PROCESS_REQUESTED);
  queue.setProcessField(7, KO_SEQ_PROCESS_REQUESTED);
  EXPECT_EQ(std::vector<int>({8, 6}), previewFrame(12));  // 7 and 8 frames after their shutters
  EXPECT_EQ(std::vector<int>({7}), previewFrame(17));
}

TEST(KoSequenceQueueFreeze, EmptyHistoryIsRetriedOnTheNextFrame) {
  KoSequenceQueue queue(0);
  KoFrameHist hist;
  newSeq(queue, 1, 10, frameTs(10));
  queue.setProcessField(1, KO_SEQ_PROCESS_REQUESTED);
  Vector<int> ready;
  queue.maintainQueue(&hist, ready);
  EXPECT_TRUE(ready.isEmpty());
  EXPECT_EQ(nullptr, queue.getSequence(1)->mSnapshot);
  EXPECT_EQ(KO_SEQ_PROCESS_REQUESTED, queue.getProcessField(1));
  EXPECT_EQ(-1, queue.getSequence(1)->mFirstFrameId);

  addFrame(hist, 10);
  queue.maintainQueue(&hist, ready);
  EXPECT_EQ(std::vector<int>({1}), toStd(ready));
  EXPECT_EQ(0, queue.getSequence(1)->mCapturedFrameIndex);
}

TEST(KoSequenceQueueFreeze, FramesDroppedFromTheLiveHistoryStayReadable) {
  KoSequenceQueue queue(kDelay);
  KoFrameHist hist;
  for (uint32_t id = 1; id <= 10; ++id) addFrame(hist, id);
  newSeq(queue, 1, 10, frameTs(10));
  queue.setProcessField(1, KO_SEQ_PROCESS_REQUESTED);
  Vector<int> ready;
  for (uint32_t id = 11; id <= 17; ++id) {
    addFrame(hist, id);
    queue.maintainQueue(&hist, ready);
  }
  ASSERT_EQ(std::vector<int>({1}), toStd(ready));
  KoFrameHistSnapshot* snap = queue.getSequence(1)->mSnapshot;
  ASSERT_NE(nullptr, snap);

  // The live history rolls on and drops every frame the snapshot holds.
  for (uint32_t id = 18; id <= 60; ++id) {
    addFrame(hist, id);
    queue.maintainQueue(&hist, ready);
  }
  sp<KoFrameData> gone;
  hist.getItemWithFrameId(10, gone);
  EXPECT_EQ(nullptr, gone.get());
  EXPECT_EQ(31u, hist.mHistory[0]->mFrameData->mFrameId);

  std::vector<uint32_t> ids = snapshotIds(snap);
  ASSERT_EQ(17u, ids.size());
  for (uint32_t i = 0; i < 17; ++i) {
    EXPECT_EQ(i + 1, ids[i]);
    EXPECT_EQ(frameTs(i + 1), snap->mHistory[i]->mFrameData->mTimestamp);
  }
  sp<KoFrameData> captured;
  snap->getItemWithFrameId(10, captured);
  ASSERT_NE(nullptr, captured.get());
  EXPECT_EQ(frameTs(10), captured->mTimestamp);
}

TEST(KoSequenceQueueFreeze, FreeSequenceSnapshot) {
  KoSequenceQueue queue(0);
  KoFrameHist hist;
  addFrame(hist, 1);
  newSeq(queue, 1, 1, frameTs(1));
  Vector<int> ready;
  queue.maintainQueue(&hist, ready);
  ASSERT_NE(nullptr, queue.getSequence(1)->mSnapshot);
  queue.freeSequenceSnapshot(1);
  EXPECT_EQ(nullptr, queue.getSequence(1)->mSnapshot);
  queue.freeSequenceSnapshot(1);  // none left: nothing happens
  queue.releaseSequenceZSLBuffers(1);
  EXPECT_EQ(KO_SEQ_HISTORY_TAKEN, queue.getProcessField(1)) << "bits are not cleared";
}

// ---- Captured-frame resolution -------------------------------------------------------------

class KoSequenceQueueCaptured : public ::testing::Test {
 protected:
  KoSequenceQueueCaptured() : queue(0) {}

  // History of frames 20..(20 + count - 1); freezes a sequence captured at (id, ts).
  KoSequenceData* freeze(int capturedId, int64_t capturedTs, uint32_t count = 8) {
    for (uint32_t i = 0; i < count; ++i) addFrame(hist, 20 + i);
    newSeq(queue, 1, capturedId, capturedTs);
    Vector<int> ready;
    queue.maintainQueue(&hist, ready);
    KoSequenceData* seq = queue.getSequence(1);
    EXPECT_TRUE(queue.getProcessField(1) & KO_SEQ_HISTORY_TAKEN);
    return seq;
  }

  KoFrameHist hist;
  KoSequenceQueue queue;
};

TEST_F(KoSequenceQueueCaptured, ById) {
  KoSequenceData* seq = freeze(23, 777);
  EXPECT_EQ(3, seq->mCapturedFrameIndex);
  EXPECT_EQ(23, seq->mCapturedFrameId);
  EXPECT_EQ(777, seq->mCapturedTsUs) << "found by id: the capture keeps its own time stamp";
  EXPECT_EQ(20, seq->mFirstFrameId);
  EXPECT_EQ(27, seq->mLastFrameId);
}

TEST_F(KoSequenceQueueCaptured, ByTimeStampBeforeHistoryTakesTheSecondFrame) {
  KoSequenceData* seq = freeze(500, frameTs(20) - 100000);
  EXPECT_EQ(1, seq->mCapturedFrameIndex);
  EXPECT_EQ(21, seq->mCapturedFrameId);
  EXPECT_EQ(frameTs(21), seq->mCapturedTsUs);
}

TEST_F(KoSequenceQueueCaptured, ByTimeStampBeforeASingleFrameTakesIt) {
  KoSequenceData* seq = freeze(500, frameTs(20) - 100000, 1);
  EXPECT_EQ(0, seq->mCapturedFrameIndex);
  EXPECT_EQ(20, seq->mCapturedFrameId);
  EXPECT_EQ(frameTs(20), seq->mCapturedTsUs);
}

TEST_F(KoSequenceQueueCaptured, ByTimeStampInsideTakesFirstNotEarlier) {
  KoSequenceData* seq = freeze(500, frameTs(24) - 1);
  EXPECT_EQ(4, seq->mCapturedFrameIndex);
  EXPECT_EQ(24, seq->mCapturedFrameId);
  EXPECT_EQ(frameTs(24), seq->mCapturedTsUs);
}

TEST_F(KoSequenceQueueCaptured, ByTimeStampEqualToTheFirstFrame) {
  KoSequenceData* seq = freeze(500, frameTs(20));
  EXPECT_EQ(0, seq->mCapturedFrameIndex) << "not earlier than the first: no index-1 rule";
  EXPECT_EQ(20, seq->mCapturedFrameId);
}

TEST_F(KoSequenceQueueCaptured, ByTimeStampAfterHistoryTakesTheLastFrame) {
  KoSequenceData* seq = freeze(500, frameTs(27) + 5000000);
  EXPECT_EQ(7, seq->mCapturedFrameIndex);
  EXPECT_EQ(27, seq->mCapturedFrameId);
  EXPECT_EQ(frameTs(27), seq->mCapturedTsUs);
}

TEST_F(KoSequenceQueueCaptured, InsertFrameDataHistoryByJobId) {
  for (uint32_t i = 0; i < 4; ++i) addFrame(hist, 20 + i);
  newSeq(queue, 9, 22, 1);
  queue.insertFrameDataHistory(9, &hist);
  KoSequenceData* seq = queue.getSequence(9);
  ASSERT_NE(nullptr, seq->mSnapshot);
  EXPECT_EQ(2, seq->mCapturedFrameIndex);
  EXPECT_EQ(KO_SEQ_HISTORY_TAKEN, queue.getProcessField(9));
}
