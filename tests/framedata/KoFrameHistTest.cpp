// The ZSL buffer tracker, the rolling history and its snapshots: pieces of a frame merged
// whichever order they arrive in, and above all that every borrowed ZSL buffer goes back to the
// camera exactly once, whoever drops the last reference.
#include <gtest/gtest.h>

#include <thread>

#include "FrameTestSupport.h"
#include "KoFrameHist.h"
#include "KoFrameHistSnapshot.h"
#include "StderrCapture.h"
#include "fastcv.h"

using namespace android;
using kovane_test::lendZsl;
using kovane_test::makeFrame;
using kovane_test::TestEngineContext;
using kovane_test::zslAddress;

namespace {

// The status word and the lock count of buffer `n`.
std::pair<uint32_t, int32_t> statusOf(TestEngineContext& engine, uintptr_t n) {
  uint32_t status = 0xdead;
  int32_t locks = -1;
  EXPECT_TRUE(engine.memory()->getStatus(zslAddress(n), &status, &locks)) << n;
  return {status, locks};
}

}  // namespace

TEST(KoMemory, UnknownAddressesAndOperationsOnlyLogAndBuffersStillOutGoBackWhenTrackingEnds) {
  TestEngineContext engine, other;
  sp<KoMemoryBuffer> buffer = lendZsl(engine, 1);
  buffer->updateStatus(KOMEMORY_IN_HISTORY);
  buffer->updateStatus(static_cast<KOMEMORY_STATUS_T>(9));  // unknown: changes nothing
  EXPECT_EQ(statusOf(engine, 1).first, static_cast<uint32_t>(KoMemory::STATUS_IN_HISTORY));
  kovane_test::StderrCapture capture;
  engine.memory()->updateStatus(zslAddress(5), KOMEMORY_IN_HISTORY);
  engine.memory()->returnZslBuffer(zslAddress(1));
  engine.memory()->returnZslBuffer(zslAddress(1));  // second return of the same address
  buffer.clear();  // its own return now finds nothing and hands nothing back twice
  const std::string log = capture.finish();
  EXPECT_NE(log.find("updateStatus BUFFER NOT FOUND"), std::string::npos) << log;
  EXPECT_NE(log.find("returnZslBuffer RETURNED BUFFER NOT FOUND"), std::string::npos) << log;
  EXPECT_EQ(engine.timesReturned(zslAddress(1)), 1u);

  KoMemory* memory = new KoMemory(&other);
  sp<KoMemoryBuffer> a, b;
  ASSERT_TRUE(memory->addZslBuffer(zslAddress(1), &a));
  ASSERT_TRUE(memory->addZslBuffer(zslAddress(2), &b));
  a.clear();
  // A handle that outlives its tracker must not reach it; the tracker hands its buffer back.
  b->mMemory = nullptr;
  delete memory;
  b.clear();
  EXPECT_EQ(other.returned(), (std::vector<void*>{zslAddress(1), zslAddress(2)}));
}

TEST(KoFrameHist, PiecesBeforeAndAfterTheirFrameAreMerged) {
  TestEngineContext engine;
  KoFrameHist hist;
  Ko_CameraMetaData_t cam = {120, 2, 3, 4.5f, 0.033f};
  sp<ABuffer> metaBuf = new ABuffer(16);
  // Frame 10: everything arrives before the frame; frame 11: everything after it.
  for (uint32_t id : {10, 11}) {
    SCOPED_TRACE(id);
    sp<KoFrameData> frame = makeFrame(id, 1000 + id);
    sp<KoFaceMetaData> face = new KoFaceMetaData();
    face->mValid = 1;
    face->mFaceData.record.numFaces = id - 8;
    sp<KoMemoryBuffer> zsl = lendZsl(engine, id);
    KO_ZslFrameData_t rec = {zslAddress(id), id};
    if (id == 11) hist.addFrameData(frame);
    hist.addFaceData(id, face);
    hist.addMetaData(id, metaBuf, &cam);
    hist.addZslData(zsl, &rec, id);
    if (id == 10) {
      EXPECT_EQ(statusOf(engine, id).first, static_cast<uint32_t>(KoMemory::STATUS_PENDING));
      hist.addFrameData(frame);
    }
    EXPECT_TRUE(hist.mFaceItems.isEmpty() && hist.mMetaItems.isEmpty() && hist.mZslItems.isEmpty());
    EXPECT_EQ(frame->processedEvents(), 0xFu);
    EXPECT_TRUE(frame->hasEvents(KoFrameData::EVENT_ZSL));
    EXPECT_EQ(frame->mFaceData.record.numFaces, id - 8);
    EXPECT_EQ(frame->mLuxLevel, 120);
    EXPECT_EQ(frame->mMetaBuffer, metaBuf);
    EXPECT_EQ(frame->zslBuffer(), zsl->mHandle);
    EXPECT_EQ(statusOf(engine, id).first, static_cast<uint32_t>(KoMemory::STATUS_IN_HISTORY));
  }
  EXPECT_TRUE(engine.returned().empty());  // the history still holds both
  EXPECT_EQ(hist.releaseZslWithFrameId(12), 0) << "no frame 12";
  EXPECT_EQ(hist.releaseZslWithFrameId(11), 1);
}

TEST(KoFrameHistSnapshot, LastReferenceAnywhereReturnsTheBufferOnceAndFreesTheImages) {
  // Whoever holds the buffer last (history, pending list, snapshot, a caller), it goes back once.
  TestEngineContext engine;
  auto* hist = new KoFrameHist();
  for (uint32_t id = 1; id <= 6; ++id) {
    sp<KoFrameData> f = makeFrame(id, id * 33333);
    hist->addFrameData(f);
  }
  sp<KoMemoryBuffer> buffer = lendZsl(engine, 6);
  hist->addZslData(buffer, nullptr, 6);
  buffer.clear();  // the history alone holds it
  auto* snapA = new KoFrameHistSnapshot(hist);
  auto* snapB = new KoFrameHistSnapshot(hist);
  Vector<sp<KoFrameData>> frames;
  snapA->getFrameDataQueue(frames);
  EXPECT_EQ(frames.size(), 6u);
  // Frame 7, after the snapshots, with its images and a buffer the history alone holds; frame 8
  // with a buffer a caller still holds (the frame's images are freed with the frame); and a
  // buffer pending for a frame that never came.
  for (uint32_t id : {7, 8}) {
    sp<KoFrameData> frame = makeFrame(id, 0);
    frame->mSmallImage = new ABuffer(fcvMemAlloc(57600, 16), 57600);
    frame->mHistogram = static_cast<uint32_t*>(malloc(128));
    hist->addFrameData(frame);
  }
  for (uintptr_t n : {7, 100}) {
    buffer = lendZsl(engine, n);
    hist->addZslData(buffer, nullptr, static_cast<uint32_t>(n));
  }
  buffer.clear();
  sp<KoMemoryBuffer> kept = lendZsl(engine, 8);
  hist->addZslData(kept, nullptr, 8);
  delete hist;
  EXPECT_EQ(engine.timesReturned(zslAddress(7)), 1u);
  EXPECT_EQ(engine.timesReturned(zslAddress(100)), 1u);
  EXPECT_EQ(engine.returned().size(), 2u);
  EXPECT_EQ(kept->mFrameData->mFrameId, 8u);  // the buffer keeps its frame
  kept.clear();
  EXPECT_EQ(engine.timesReturned(zslAddress(8)), 1u);
  delete snapA;
  EXPECT_EQ(engine.timesReturned(zslAddress(6)), 0u);
  std::thread([snapB] { delete snapB; }).join();
  EXPECT_EQ(engine.timesReturned(zslAddress(6)), 1u);
  EXPECT_EQ(engine.returned().size(), 4u);
  EXPECT_EQ(engine.memory()->count(), 0u);
}
