// Sequence queue: the countdown that freezes the history, the resolution of the captured frame,
// and lookups by job id and process bits.
#include <gtest/gtest.h>

#include <vector>

#include "../framedata/FrameTestSupport.h"
#include "KoFrameHist.h"
#include "KoFrameHistSnapshot.h"
#include "KoSequenceQueue.h"

using namespace android;

namespace {

int64_t frameTs(int64_t id) { return 1000000 + id * 33000; }

void addFrame(KoFrameHist& hist, uint32_t id) {
  sp<KoFrameData> frame = kovane_test::makeFrame(id, frameTs(id));
  hist.addFrameData(frame);
}

// A sequence of `jobId` for frame `frameId`, at that frame's time stamp unless `ts` is given.
void newSeq(KoSequenceQueue& queue, int jobId, int frameId, int64_t ts = -1) {
  queue.newSequence(jobId, ts < 0 ? frameTs(frameId) : ts, frameId, 90, 11, 12, nullptr, true, false,
                    KO_timespec_t{0, 0}, false);
}

// Runs the queue as the foreground does on a preview frame; the jobs that became ready.
std::vector<int> maintain(KoSequenceQueue& queue, KoFrameHist& hist) {
  Vector<int> ready;
  queue.maintainQueue(&hist, ready);
  return std::vector<int>(ready.begin(), ready.end());
}

}  // namespace

TEST(KoSequenceQueueFreeze, FrozenDelayFramesAfterTheShutterAndDispatchedOnce) {
  KoSequenceQueue queue(6);
  KoFrameHist hist;
  for (uint32_t id = 1; id <= 10; ++id) addFrame(hist, id);
  newSeq(queue, 1, 10);
  queue.setProcessField(1, KO_SEQ_PROCESS_REQUESTED);
  for (uint32_t id = 11; id <= 60; ++id) {
    addFrame(hist, id);
    EXPECT_EQ(maintain(queue, hist), id == 17 ? std::vector<int>{1} : std::vector<int>{}) << id;
  }
  KoSequenceData* seq = queue.getSequence(1);
  ASSERT_NE(nullptr, seq->mSnapshot);
  EXPECT_EQ(KO_SEQ_STAGE_MASK, queue.getProcessField(1));
  EXPECT_EQ(9, seq->mCapturedFrameIndex);
  EXPECT_EQ(17, seq->mLastFrameId);
  EXPECT_EQ(17u, seq->mSnapshot->size()) << "the snapshot outlives the live history's frames";
}

TEST(KoSequenceQueueFreeze, EmptyHistoryLeavesTheSequenceWaitingAndIsRetried) {
  KoSequenceQueue queue(0);
  KoFrameHist hist;
  newSeq(queue, 1, 10);
  queue.setProcessField(1, KO_SEQ_PROCESS_REQUESTED);
  EXPECT_TRUE(maintain(queue, hist).empty());
  EXPECT_EQ(nullptr, queue.getSequence(1)->mSnapshot);
  EXPECT_EQ(KO_SEQ_PROCESS_REQUESTED, queue.getProcessField(1));
  addFrame(hist, 10);
  EXPECT_EQ(std::vector<int>({1}), maintain(queue, hist));
}

// History of frames 20..27 (or 20 alone); the captured frame is found by id, otherwise by time
// stamp: before the history the second frame, inside the first not earlier, after it the last.
TEST(KoSequenceQueueFreeze, CapturedFrameResolution) {
  struct Case { int id; int64_t ts; uint32_t frames; int index, resolvedId; int64_t resolvedTs; };
  const Case cases[] = {
      {23, 777, 8, 3, 23, 777},  // by id: keeps its own time stamp
      {500, frameTs(20) - 100000, 8, 1, 21, frameTs(21)},
      {500, frameTs(20) - 100000, 1, 0, 20, frameTs(20)},
      {500, frameTs(24) - 1, 8, 4, 24, frameTs(24)},
      {500, frameTs(27) + 5000000, 8, 7, 27, frameTs(27)},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.ts);
    KoSequenceQueue queue(6);
    KoFrameHist hist;
    for (uint32_t i = 0; i < c.frames; ++i) addFrame(hist, 20 + i);
    newSeq(queue, 1, c.id, c.ts);
    queue.insertFrameDataHistory(1, &hist);
    KoSequenceData* seq = queue.getSequence(1);
    EXPECT_EQ(KO_SEQ_HISTORY_TAKEN, queue.getProcessField(1));
    EXPECT_EQ(c.index, seq->mCapturedFrameIndex);
    EXPECT_EQ(c.resolvedId, seq->mCapturedFrameId);
    EXPECT_EQ(c.resolvedTs, seq->mCapturedTsUs);
  }
}

// Job id -1 is queued but never found by id; of duplicate job ids every action goes to the
// first; a mask lists the sequences that have all its bits (0: every one), appended to the output.
TEST(KoSequenceQueueLookup, JobIdMinusOneDuplicatesAndMasks) {
  KoSequenceQueue queue(6);
  for (int job : {-1, 7, 7, 30}) newSeq(queue, job, 10);
  queue.setProcessField(-1, 0x2);
  EXPECT_EQ(0u, queue.getProcessField(-1));
  queue.setProcessField(7, 0x40 | 0x80 | 0x2);
  queue.clearProcessField(7, 0x80);
  queue.DEBUG_SetOrientation(7, 180);
  EXPECT_EQ(0x42u, queue.getSequence(7)->mProcessField.load());
  EXPECT_EQ(180, queue.getSequence(7)->mOrientation);
  queue.setProcessField(30, 0x40 | 0x80);
  Vector<int> all, video, both;
  all.push_back(99);
  queue.getSequenceVector(0, all);
  queue.getSequenceVector(0x40, video);
  queue.getSequenceVector(0x40 | 0x80, both);
  EXPECT_EQ(std::vector<int>({99, -1, 7, 7, 30}), std::vector<int>(all.begin(), all.end()));
  EXPECT_EQ(std::vector<int>({7, 30}), std::vector<int>(video.begin(), video.end()));
  EXPECT_EQ(std::vector<int>({30}), std::vector<int>(both.begin(), both.end()));
  queue.removeSequence(7);
  EXPECT_EQ(3, queue.getNumActiveJobs());
  EXPECT_EQ(0u, queue.getProcessField(7)) << "the first 7 was removed, the second remains";
}
