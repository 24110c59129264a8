// Snapshots of the history: what they lock, what they release, and that the last reference to a
// ZSL buffer may go on another thread and still hands the buffer back exactly once.
#include <gtest/gtest.h>

#include <cmath>
#include <thread>

#include "FrameTestSupport.h"
#include "KoFrameHist.h"
#include "KoFrameHistSnapshot.h"
#include "KoMemoryBuffer.h"

using namespace android;
using kovane_test::makeFrame;
using kovane_test::TestEngineContext;
using kovane_test::zslAddress;

namespace {

// Checks the lock count and status of the buffers on frames 6, 12, .. 30.
void expectBuffers(TestEngineContext& engine, int32_t locks, uint32_t status) {
  for (uintptr_t id = 6; id <= 30; id += 6) {
    uint32_t st = 0;
    int32_t n = -1;
    ASSERT_TRUE(engine.memory()->getStatus(zslAddress(id), &st, &n)) << id;
    EXPECT_EQ(n, locks) << id;
    EXPECT_EQ(st, status) << id;
  }
}

// A history of `frames` frames (ids 1..frames) of which every sixth has a ZSL buffer.
void fill(TestEngineContext& engine, KoFrameHist& hist, uint32_t frames) {
  for (uint32_t id = 1; id <= frames; ++id) {
    sp<KoFrameData> f = makeFrame(id, id * 33333);
    hist.addFrameData(f);
    if (id % 6 == 0) {
      sp<KoMemoryBuffer> buffer;
      ASSERT_TRUE(engine.memory()->addZslBuffer(zslAddress(id), &buffer));
      hist.addZslData(buffer, nullptr, id);
    }
  }
}

}  // namespace

TEST(KoFrameHistSnapshot, EmptyHistoryAndFramesNeverAddedGiveEmptySnapshots) {
  KoFrameHist hist;
  KoFrameHistSnapshot snap(&hist);
  Vector<sp<KoFrameData>> frames;
  frames.push_back(makeFrame(99, 0));
  snap.getFrameDataQueue(frames);
  EXPECT_EQ(frames.size(), 1u);  // appended nothing, emptied nothing
  EXPECT_EQ(snap.size(), 0u);

  KoFrameHistBase source;
  sp<KoFrameData> outside = makeFrame(5, 0);
  sp<KoMemoryBuffer> none;
  source.mHistory.push_back(new KoFrameHistNode(outside, none));
  EXPECT_EQ(KoFrameHistSnapshot(&source).size(), 0u);
}

TEST(KoFrameHistSnapshot, LocksEachBufferOnceAndUnlocksOnce) {
  TestEngineContext engine;
  KoFrameHist hist;
  fill(engine, hist, 30);  // buffers on frames 6, 12, 18, 24, 30

  auto* snap = new KoFrameHistSnapshot(&hist);
  ASSERT_EQ(snap->size(), 30u);
  expectBuffers(engine, 1, KoMemory::STATUS_IN_HISTORY | KoMemory::STATUS_SNAPSHOT);
  Vector<sp<KoFrameData>> frames;
  snap->getFrameDataQueue(frames);
  ASSERT_EQ(frames.size(), 30u);
  EXPECT_EQ(frames[0]->mFrameId, 1u);
  EXPECT_EQ(frames[29]->mFrameId, 30u);

  // Released buffers are not unlocked again when the snapshot dies.
  snap->releaseZSLBuffers();
  expectBuffers(engine, 0, KoMemory::STATUS_IN_HISTORY);
  delete snap;
  expectBuffers(engine, 0, KoMemory::STATUS_IN_HISTORY);
  EXPECT_TRUE(engine.returned().empty());  // the history still holds them
}

TEST(KoFrameHistSnapshot, OutlivesTheHistoryAndReturnsBuffersOnAnotherThread) {
  TestEngineContext engine;
  KoFrameHistSnapshot* snap = nullptr;
  {
    KoFrameHist hist;
    fill(engine, hist, 12);
    snap = new KoFrameHistSnapshot(&hist);
    hist.removeOldestItems(12);  // the live history drops everything
  }
  EXPECT_TRUE(engine.returned().empty());
  sp<KoFrameData> frame;
  snap->getItemWithFrameId(6, frame);
  ASSERT_NE(frame, nullptr);
  EXPECT_EQ(frame->mTimestamp, 6 * 33333);
  EXPECT_NE(frame->zslBuffer(), nullptr);
  frame.clear();

  // The capture lets go of its buffers on the background thread.
  std::thread background([snap] { snap->releaseZSLBuffers(); });
  background.join();
  EXPECT_EQ(engine.timesReturned(zslAddress(6)), 1u);
  EXPECT_EQ(engine.timesReturned(zslAddress(12)), 1u);
  snap->getItemWithFrameId(6, frame);
  ASSERT_NE(frame, nullptr);
  EXPECT_EQ(frame->zslBuffer(), nullptr);
  frame.clear();

  std::thread destroyer([snap] { delete snap; });
  destroyer.join();
  EXPECT_EQ(engine.returned().size(), 2u);
  EXPECT_EQ(engine.memory()->count(), 0u);
}

TEST(KoFrameHistSnapshot, LastReferenceAnywhereReturnsTheBufferOnce) {
  // Whoever holds the buffer last (history, pending list, snapshot), it goes back once.
  TestEngineContext engine;
  auto* hist = new KoFrameHist();
  fill(engine, *hist, 6);  // buffer on frame 6
  sp<KoMemoryBuffer> pending;
  ASSERT_TRUE(engine.memory()->addZslBuffer(zslAddress(100), &pending));
  hist->addZslData(pending, nullptr, 100);
  pending.clear();
  auto* snapA = new KoFrameHistSnapshot(hist);
  auto* snapB = new KoFrameHistSnapshot(hist);
  delete hist;  // pending item freed: buffer 100 goes back; buffer 6 stays with the snapshots
  EXPECT_EQ(engine.timesReturned(zslAddress(100)), 1u);
  EXPECT_EQ(engine.timesReturned(zslAddress(6)), 0u);
  delete snapA;
  EXPECT_EQ(engine.timesReturned(zslAddress(6)), 0u);
  std::thread([snapB] { delete snapB; }).join();
  EXPECT_EQ(engine.timesReturned(zslAddress(6)), 1u);
  EXPECT_EQ(engine.returned().size(), 2u);
}

TEST(KoFrameHistSnapshot, TemporalStatisticsOverItsFramesSkipFramesWithout) {
  KoFrameHist hist;
  const float lumaMeans[] = {100.f, 110.f, 0.f, 120.f};
  for (uint32_t i = 0; i < 4; ++i) {
    sp<KoFrameData> f = makeFrame(i + 1, i * 33333);
    f->mLumaStats.mean = lumaMeans[i];
    f->mDiffStats.mean = 2.f * static_cast<float>(i);
    f->mSobelStats.mean = 7.f;
    if (i != 2) f->setProcessedEvents(KoFrameData::EVENT_STATS);  // frame 3 has none
    hist.addFrameData(f);
  }
  KoFrameHistSnapshot snap(&hist);
  KO_dataStats_t luma = {}, diff = {}, sobel = {};
  EXPECT_EQ(DexFrameMetaData::KoCalcMeanStddevMinMeanQueue(&snap, &luma, 4, 0, 0), 0);
  EXPECT_EQ(DexFrameMetaData::KoCalcMeanStddevMinMeanQueue(&snap, &diff, 4, 1, 0), 0);
  EXPECT_EQ(DexFrameMetaData::KoCalcMeanStddevMinMeanQueue(&snap, &sobel, 4, 2, 0), 0);
  EXPECT_FLOAT_EQ(luma.mean, 110.f);
  EXPECT_NEAR(luma.stddev, std::sqrt(200.f / 3.f), 1e-3);
  EXPECT_FLOAT_EQ(luma.stddevCopy, luma.stddev);
  EXPECT_FLOAT_EQ(luma.min, 100.f);
  EXPECT_FLOAT_EQ(luma.max, 120.f);
  EXPECT_FLOAT_EQ(diff.mean, (0.f + 2.f + 6.f) / 3.f);
  EXPECT_FLOAT_EQ(sobel.stddev, 0.f);

  KoFrameHist empty;
  KoFrameHistSnapshot none(&empty);
  EXPECT_EQ(DexFrameMetaData::KoCalcMeanStddevMinMeanQueue(&none, &luma, 1, 0, 0), -1);
}
