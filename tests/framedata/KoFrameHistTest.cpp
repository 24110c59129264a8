// The rolling history: pieces of a frame merged whichever order they arrive in, the bounds of
// the history and the pending lists, and the ZSL buffers' way back to the camera.
#include <gtest/gtest.h>

#include "FrameTestSupport.h"
#include "KoFrameHist.h"
#include "KoMemoryBuffer.h"

using namespace android;
using kovane_test::makeFrame;
using kovane_test::TestEngineContext;
using kovane_test::zslAddress;

namespace {

sp<KoFaceMetaData> faceRecord(uint32_t frameId, uint32_t faces) {
  sp<KoFaceMetaData> face = new KoFaceMetaData();
  face->mValid = 1;
  face->mFaceData.record.frameId = frameId;
  face->mFaceData.record.numFaces = faces;
  face->mFaceData.record.faces[0].smileDegree = 77;
  return face;
}

sp<KoMemoryBuffer> zsl(TestEngineContext& engine, uintptr_t n) {
  sp<KoMemoryBuffer> buffer;
  EXPECT_TRUE(engine.memory()->addZslBuffer(zslAddress(n), &buffer));
  return buffer;
}

uint32_t statusOf(TestEngineContext& engine, uintptr_t n) {
  uint32_t status = 0xdead;
  engine.memory()->getStatus(zslAddress(n), &status, nullptr);
  return status;
}

}  // namespace

TEST(KoFrameHist, PiecesBeforeAndAfterTheirFrameAreMerged) {
  TestEngineContext engine;
  KoFrameHist hist;
  Ko_CameraMetaData_t cam = {120, 2, 3, 4.5f, 0.033f};
  sp<ABuffer> metaBuf = new ABuffer(16);

  // Frame 10: everything arrives before the frame.
  sp<KoFaceMetaData> face = faceRecord(10, 2);
  hist.addFaceData(10, face);
  hist.addMetaData(10, metaBuf, &cam);
  sp<KoMemoryBuffer> buffer = zsl(engine, 1);
  KO_ZslFrameData_t rec = {zslAddress(1), 10};
  hist.addZslData(buffer, &rec, 10);
  EXPECT_EQ(statusOf(engine, 1), KoMemory::STATUS_PENDING);
  EXPECT_EQ(hist.mFaceItems.size(), 1u);

  sp<KoFrameData> f10 = makeFrame(10, 1000);
  hist.addFrameData(f10);
  EXPECT_TRUE(hist.mFaceItems.isEmpty());
  EXPECT_TRUE(hist.mMetaItems.isEmpty());
  EXPECT_TRUE(hist.mZslItems.isEmpty());
  EXPECT_EQ(f10->processedEvents(), 0xFu);
  EXPECT_EQ(f10->mFaceData.record.numFaces, 2u);
  EXPECT_EQ(f10->mFaceData.record.faces[0].smileDegree, 77);
  EXPECT_EQ(f10->mLuxLevel, 120);
  EXPECT_FLOAT_EQ(f10->mExpTime, 0.033f);
  EXPECT_EQ(f10->mMetaBuffer, metaBuf);
  EXPECT_EQ(f10->mHasZsl, 1);
  EXPECT_EQ(f10->zslBuffer(), buffer->mHandle);
  EXPECT_EQ(hist.mHistory[0]->mZslMemory, buffer);
  EXPECT_EQ(statusOf(engine, 1), KoMemory::STATUS_IN_HISTORY);

  // Frame 11: everything arrives after the frame.
  sp<KoFrameData> f11 = makeFrame(11, 1033);
  hist.addFrameData(f11);
  sp<KoFaceMetaData> face11 = faceRecord(11, 1);
  hist.addFaceData(11, face11);
  hist.addMetaData(11, metaBuf, &cam);
  sp<KoMemoryBuffer> buffer2 = zsl(engine, 2);
  hist.addZslData(buffer2, nullptr, 11);
  EXPECT_EQ(f11->processedEvents(), 0xFu);
  EXPECT_EQ(hist.mHistory[1]->mZslMemory, buffer2);
  EXPECT_EQ(f11->mHasZsl, 1);

  // A face record marked invalid sets the bit but keeps the frame's faces.
  sp<KoFaceMetaData> invalid = new KoFaceMetaData();
  hist.addFaceData(11, invalid);
  EXPECT_EQ(f11->mFaceData.record.numFaces, 1u);

  // A null ZSL piece clears the frame's buffer but still marks the bit.
  sp<KoFrameData> f12 = makeFrame(12, 1066);
  hist.addFrameData(f12);
  sp<KoMemoryBuffer> none;
  hist.addZslData(none, nullptr, 12);
  EXPECT_TRUE(f12->hasEvents(KoFrameData::EVENT_ZSL));
  EXPECT_EQ(f12->mHasZsl, 0);

  buffer.clear();
  buffer2.clear();
  EXPECT_TRUE(engine.returned().empty());  // the history still holds both
}

TEST(KoFrameHist, HistoryAndPendingListsAreBounded) {
  TestEngineContext engine;
  KoFrameHist hist;
  sp<KoMemoryBuffer> first = zsl(engine, 0);
  KO_ZslFrameData_t rec = {zslAddress(0), 1};
  hist.addZslData(first, &rec, 1);
  sp<KoFrameData> f1 = makeFrame(1, 0);
  hist.addFrameData(f1);
  first.clear();
  for (uint32_t id = 2; id <= 30; ++id) {
    sp<KoFrameData> f = makeFrame(id, id * 33333);
    hist.addFrameData(f);
  }
  EXPECT_EQ(hist.size(), 30u);
  EXPECT_EQ(statusOf(engine, 0), KoMemory::STATUS_IN_HISTORY);

  // The 31st frame pushes out the oldest node; its buffer is marked out of the history and,
  // with nobody else holding it, goes back to the camera.
  sp<KoFrameData> f31 = makeFrame(31, 31 * 33333);
  hist.addFrameData(f31);
  EXPECT_EQ(hist.size(), 30u);
  EXPECT_EQ(hist.mHistory[0]->mFrameData->mFrameId, 2u);
  EXPECT_EQ(engine.timesReturned(zslAddress(0)), 1u);

  // Pending face items for frames that never come: the 31st pushes out the oldest.
  for (uint32_t id = 100; id < 131; ++id) {
    sp<KoFaceMetaData> face = faceRecord(id, 1);
    hist.addFaceData(id, face);
  }
  ASSERT_EQ(hist.mFaceItems.size(), 30u);
  EXPECT_EQ(hist.mFaceItems[0]->frameId, 101u);

  // The same for ZSL items; a pushed-out buffer nobody else holds goes back to the camera.
  for (uintptr_t n = 1; n <= 7; ++n) {
    sp<KoMemoryBuffer> b = zsl(engine, n);
    hist.addZslData(b, nullptr, static_cast<uint32_t>(200 + n));
  }
  for (uint32_t id = 300; id < 324; ++id) {
    sp<KoMemoryBuffer> none;
    hist.addZslData(none, nullptr, id);
  }
  EXPECT_EQ(hist.mZslItems.size(), 30u);
  EXPECT_EQ(engine.timesReturned(zslAddress(1)), 1u);
  EXPECT_EQ(engine.timesReturned(zslAddress(2)), 0u);
}

TEST(KoFrameHist, FrameArrivalDropsOnlyTheFrontOfStalePendingItems) {
  TestEngineContext engine;
  KoFrameHist hist;
  Ko_CameraMetaData_t cam = {};
  sp<ABuffer> metaBuf = new ABuffer(4);
  hist.addMetaData(95, metaBuf, &cam);
  hist.addMetaData(105, metaBuf, &cam);
  hist.addMetaData(90, metaBuf, &cam);  // behind 105: survives frame 100
  sp<KoFaceMetaData> face = faceRecord(99, 1);
  hist.addFaceData(99, face);

  sp<KoFrameData> f100 = makeFrame(100, 0);
  hist.addFrameData(f100);
  ASSERT_EQ(hist.mMetaItems.size(), 2u);
  EXPECT_EQ(hist.mMetaItems[0]->frameId, 105u);
  EXPECT_EQ(hist.mMetaItems[1]->frameId, 90u);
  EXPECT_TRUE(hist.mFaceItems.isEmpty());
  EXPECT_FALSE(f100->hasEvents(KoFrameData::EVENT_METADATA));
}

TEST(KoFrameHist, DuplicateIdsAndReleases) {
  TestEngineContext engine;
  KoFrameHist hist;
  sp<KoFrameData> older = makeFrame(7, 100);
  sp<KoFrameData> newer = makeFrame(7, 200);
  hist.addFrameData(older);
  hist.addFrameData(newer);

  sp<KoFrameData> found;
  EXPECT_EQ(hist.getItemWithFrameId(7, found), 1);
  EXPECT_EQ(found, older);  // lookups find the older one
  EXPECT_EQ(hist.getItemWithFrameId(8, found), 1);
  EXPECT_EQ(found, nullptr);

  sp<KoMemoryBuffer> buffer = zsl(engine, 1);
  hist.addZslData(buffer, nullptr, 7);  // merges walk newest first
  EXPECT_EQ(newer->mHasZsl, 1);
  EXPECT_EQ(older->mHasZsl, 0);
  buffer.clear();

  // Releasing by id finds the older node, which has no buffer; the newer keeps its own.
  EXPECT_EQ(hist.releaseZslWithFrameId(7), 1);
  EXPECT_TRUE(engine.returned().empty());
  EXPECT_EQ(hist.releaseZslWithFrameId(9), 0);

  hist.removeOldestItem();
  EXPECT_EQ(hist.releaseZslWithFrameId(7), 1);  // now the newer one: its buffer goes back
  EXPECT_EQ(engine.timesReturned(zslAddress(1)), 1u);
  EXPECT_EQ(newer->zslBuffer(), nullptr);  // the frame's handle went with the buffer
  EXPECT_EQ(newer->mHasZsl, 1);            // left as the history set it

  hist.removeOldestItems(5);
  EXPECT_EQ(hist.size(), 0u);
  hist.removeOldestItem();  // empty: nothing happens
}

TEST(KoFrameHist, DestructionReleasesPendingAndHistoryBuffers) {
  TestEngineContext engine;
  {
    KoFrameHist hist;
    sp<KoFrameData> f = makeFrame(1, 0);
    hist.addFrameData(f);
    sp<KoMemoryBuffer> attached = zsl(engine, 1);
    hist.addZslData(attached, nullptr, 1);
    sp<KoMemoryBuffer> pending = zsl(engine, 2);
    hist.addZslData(pending, nullptr, 50);
  }
  EXPECT_EQ(engine.timesReturned(zslAddress(1)), 1u);
  EXPECT_EQ(engine.timesReturned(zslAddress(2)), 1u);
  EXPECT_EQ(engine.memory()->count(), 0u);
}
