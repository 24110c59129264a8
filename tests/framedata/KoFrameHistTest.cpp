// The frame record, the ZSL buffer tracker, the rolling history and its snapshots: pieces of a
// frame merged whichever order they arrive in, the bounds of the lists, and above all that every
// borrowed ZSL buffer goes back to the camera exactly once, whoever drops the last reference.
#include <gtest/gtest.h>

#include <cmath>
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

sp<KoFaceMetaData> faceRecord(uint32_t frameId, uint32_t faces) {
  sp<KoFaceMetaData> face = new KoFaceMetaData();
  face->mValid = 1;
  face->mFaceData.record.frameId = frameId;
  face->mFaceData.record.numFaces = faces;
  face->mFaceData.record.faces[0].smileDegree = 77;
  return face;
}

// The status word and the lock count of buffer `n`.
std::pair<uint32_t, int32_t> statusOf(TestEngineContext& engine, uintptr_t n) {
  uint32_t status = 0xdead;
  int32_t locks = -1;
  EXPECT_TRUE(engine.memory()->getStatus(zslAddress(n), &status, &locks)) << n;
  return {status, locks};
}

// Hands buffer `memory` (null: a piece without one) to the history for frame `frameId`.
void addZsl(KoFrameHist& hist, sp<KoMemoryBuffer> memory, uint32_t frameId, KO_ZslFrameData_t* rec = nullptr) {
  hist.addZslData(memory, rec, frameId);
}

// Frames 1..frames of which every sixth has a ZSL buffer.
void fill(TestEngineContext& engine, KoFrameHist& hist, uint32_t frames) {
  for (uint32_t id = 1; id <= frames; ++id) {
    sp<KoFrameData> f = makeFrame(id, id * 33333);
    hist.addFrameData(f);
    if (id % 6 == 0) addZsl(hist, lendZsl(engine, id), id);
  }
}

}  // namespace

TEST(KoFrameData, ProcessedBitsNeverBlockOnTheSharedMutexAndTheSensorBlockKeepsItsOrder) {
  sp<KoFrameData> frame = new KoFrameData();  // all pointers null: destroyed without effect
  EXPECT_EQ(frame->processedEvents(), 0u);
  frame->setProcessedEvents(0x2);
  frame->setProcessedEvents(0x8);
  EXPECT_EQ(frame->processedEvents(), 0xAu);
  // A caller holding the mutex gets its bits and keeps the mutex; another thread does not wait.
  pthread_mutex_lock(&KoFrameData::gFrameDataMutex);
  frame->setProcessedEvents(0x10000);
  EXPECT_EQ(frame->processedEvents(), 0x1000Au);
  EXPECT_EQ(pthread_mutex_trylock(&KoFrameData::gFrameDataMutex), EBUSY);
  std::thread([&frame] { frame->setProcessedEvents(0x20000); }).join();
  pthread_mutex_unlock(&KoFrameData::gFrameDataMutex);
  EXPECT_EQ(frame->processedEvents(), 0x3000Au);

  // The sensor block carries the four samples in order.
  KoSensorSample* samples[] = {&frame->mAccelSample, &frame->mGyroSample, &frame->mOrientSample,
                               &frame->mMagneticSample};
  for (int i = 0; i < 4; ++i) {
    *samples[i] = {11 * (i + 1), 3.f * i + 1, 3.f * i + 2, 3.f * i + 3};
    frame->mSensorEnabled[i] = i < 2;
  }
  const KO_sensorData_t block = frame->sensorData();
  const KO_sensorSample_t* out[] = {&block.accel, &block.gyro, &block.orient, &block.magnetic};
  for (int i = 0; i < 4; ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(out[i]->timeStamp, 11 * (i + 1));
    EXPECT_FLOAT_EQ(out[i]->x, 3.f * i + 1);
    EXPECT_FLOAT_EQ(out[i]->y, 3.f * i + 2);
    EXPECT_FLOAT_EQ(out[i]->z, 3.f * i + 3);
    EXPECT_EQ(block.enabled[i], i < 2 ? 1 : 0);
  }
}

TEST(KoMemory, StatusBookkeepingKeepsItsAsymmetries) {
  TestEngineContext engine;
  sp<KoMemoryBuffer> buffer = lendZsl(engine, 1);
  using St = std::pair<uint32_t, int32_t>;
  auto after = [&](std::initializer_list<int> ops) {
    for (int op : ops) buffer->updateStatus(static_cast<KOMEMORY_STATUS_T>(op));
    return statusOf(engine, 1);
  };
  EXPECT_EQ(after({}).first, static_cast<uint32_t>(KoMemory::STATUS_REGISTERED));
  EXPECT_EQ(after({KOMEMORY_IN_HISTORY, KOMEMORY_SNAPSHOT_LOCK, KOMEMORY_SNAPSHOT_LOCK}),
            St(KoMemory::STATUS_IN_HISTORY | KoMemory::STATUS_SNAPSHOT, 2));
  // One unlock clears the snapshot bit although a lock remains.
  EXPECT_EQ(after({KOMEMORY_SNAPSHOT_UNLOCK}), St(KoMemory::STATUS_IN_HISTORY, 1));
  // "In history" replaces the whole word, dropping a snapshot's bit.
  EXPECT_EQ(after({KOMEMORY_SNAPSHOT_LOCK, KOMEMORY_IN_HISTORY}).first, static_cast<uint32_t>(KoMemory::STATUS_IN_HISTORY));
  // Out of the history clears the word; an unknown operation changes nothing.
  EXPECT_EQ(after({KOMEMORY_OUT_OF_HISTORY, 9}), St(0, 2));
}

TEST(KoMemory, UnknownAddressesOnlyLogAndBuffersStillOutGoBackWhenTrackingEnds) {
  TestEngineContext engine;
  sp<KoMemoryBuffer> buffer = lendZsl(engine, 1);
  kovane_test::StderrCapture capture;
  engine.memory()->updateStatus(zslAddress(5), KOMEMORY_IN_HISTORY);
  engine.memory()->returnZslBuffer(zslAddress(1));
  engine.memory()->returnZslBuffer(zslAddress(1));  // second return of the same address
  buffer.clear();  // its own return now finds nothing and hands nothing back twice
  std::string log = capture.finish();
  EXPECT_NE(log.find("updateStatus BUFFER NOT FOUND"), std::string::npos) << log;
  EXPECT_NE(log.find("returnZslBuffer RETURNED BUFFER NOT FOUND"), std::string::npos) << log;
  EXPECT_EQ(engine.timesReturned(zslAddress(1)), 1u);

  TestEngineContext other;
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
  std::vector<sp<KoMemoryBuffer>> buffers;
  // Frame 10: everything arrives before the frame; frame 11: everything after it.
  for (uint32_t id : {10, 11}) {
    const bool piecesFirst = id == 10;
    SCOPED_TRACE(id);
    sp<KoFrameData> frame = makeFrame(id, 1000 + id);
    sp<KoFaceMetaData> face = faceRecord(id, id - 8);
    buffers.push_back(lendZsl(engine, id));
    KO_ZslFrameData_t rec = {zslAddress(id), id};
    if (!piecesFirst) hist.addFrameData(frame);
    hist.addFaceData(id, face);
    hist.addMetaData(id, metaBuf, &cam);
    hist.addZslData(buffers.back(), &rec, id);
    if (piecesFirst) {
      EXPECT_EQ(statusOf(engine, id).first, static_cast<uint32_t>(KoMemory::STATUS_PENDING));
      EXPECT_EQ(hist.mFaceItems.size(), 1u);
      hist.addFrameData(frame);
    }
    EXPECT_TRUE(hist.mFaceItems.isEmpty());
    EXPECT_TRUE(hist.mMetaItems.isEmpty());
    EXPECT_TRUE(hist.mZslItems.isEmpty());
    EXPECT_EQ(frame->processedEvents(), 0xFu);
    EXPECT_EQ(frame->mFaceData.record.numFaces, id - 8);
    EXPECT_EQ(frame->mFaceData.record.faces[0].smileDegree, 77);
    EXPECT_EQ(frame->mLuxLevel, 120);
    EXPECT_FLOAT_EQ(frame->mExpTime, 0.033f);
    EXPECT_EQ(frame->mMetaBuffer, metaBuf);
    EXPECT_EQ(frame->mHasZsl, 1);
    EXPECT_EQ(frame->zslBuffer(), buffers.back()->mHandle);
    EXPECT_EQ(hist.mHistory[id - 10]->mZslMemory, buffers.back());
    EXPECT_EQ(statusOf(engine, id).first, static_cast<uint32_t>(KoMemory::STATUS_IN_HISTORY));
  }
  sp<KoFrameData> f11 = hist.mHistory[1]->mFrameData;

  // A face record marked invalid sets the bit but keeps the frame's faces.
  sp<KoFaceMetaData> invalid = new KoFaceMetaData();
  hist.addFaceData(11, invalid);
  EXPECT_EQ(f11->mFaceData.record.numFaces, 3u);

  // A null ZSL piece clears the frame's buffer but still marks the bit.
  sp<KoFrameData> f12 = makeFrame(12, 1066);
  hist.addFrameData(f12);
  addZsl(hist, nullptr, 12);
  EXPECT_TRUE(f12->hasEvents(KoFrameData::EVENT_ZSL));
  EXPECT_EQ(f12->mHasZsl, 0);

  buffers.clear();
  EXPECT_TRUE(engine.returned().empty());  // the history still holds both
}

TEST(KoFrameHist, HistoryAndPendingListsAreBounded) {
  TestEngineContext engine;
  KoFrameHist hist;
  KO_ZslFrameData_t rec = {zslAddress(0), 1};
  addZsl(hist, lendZsl(engine, 0), 1, &rec);
  for (uint32_t id = 1; id <= 30; ++id) {
    sp<KoFrameData> f = makeFrame(id, id * 33333);
    hist.addFrameData(f);
  }
  EXPECT_EQ(hist.size(), 30u);
  EXPECT_EQ(statusOf(engine, 0).first, static_cast<uint32_t>(KoMemory::STATUS_IN_HISTORY));

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
  for (uintptr_t n = 1; n <= 7; ++n) addZsl(hist, lendZsl(engine, n), static_cast<uint32_t>(200 + n));
  for (uint32_t id = 300; id < 324; ++id) addZsl(hist, nullptr, id);
  EXPECT_EQ(hist.mZslItems.size(), 30u);
  EXPECT_EQ(engine.timesReturned(zslAddress(1)), 1u);
  EXPECT_EQ(engine.timesReturned(zslAddress(2)), 0u);
}

TEST(KoFrameHist, FrameArrivalDropsOnlyTheFrontOfStalePendingItems) {
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

  addZsl(hist, lendZsl(engine, 1), 7);  // merges walk newest first
  EXPECT_EQ(newer->mHasZsl, 1);
  EXPECT_EQ(older->mHasZsl, 0);

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

TEST(KoFrameHistSnapshot, LocksEachBufferOnceOutlivesTheHistoryAndReturnsBuffersOnAnotherThread) {
  TestEngineContext engine;
  auto expectBuffers = [&](int32_t locks, uint32_t status) {
    for (uintptr_t id : {6, 12}) EXPECT_EQ(statusOf(engine, id), std::make_pair(status, locks)) << id;
  };
  KoFrameHist hist;
  fill(engine, hist, 12);  // buffers on frames 6 and 12
  // A snapshot released while the history still holds its buffers: each is unlocked once, and
  // not again when the snapshot dies.
  auto* early = new KoFrameHistSnapshot(&hist);
  expectBuffers(1, KoMemory::STATUS_IN_HISTORY | KoMemory::STATUS_SNAPSHOT);
  early->releaseZSLBuffers();
  expectBuffers(0, KoMemory::STATUS_IN_HISTORY);
  delete early;
  expectBuffers(0, KoMemory::STATUS_IN_HISTORY);

  auto* snap = new KoFrameHistSnapshot(&hist);
  Vector<sp<KoFrameData>> frames;
  snap->getFrameDataQueue(frames);
  ASSERT_EQ(frames.size(), 12u);
  EXPECT_EQ(frames[0]->mFrameId, 1u);
  EXPECT_EQ(frames[11]->mFrameId, 12u);
  hist.removeOldestItems(12);  // the live history drops everything
  EXPECT_TRUE(engine.returned().empty());
  sp<KoFrameData> frame;
  snap->getItemWithFrameId(6, frame);
  ASSERT_NE(frame, nullptr);
  EXPECT_EQ(frame->mTimestamp, 6 * 33333);
  EXPECT_NE(frame->zslBuffer(), nullptr);

  // The capture lets go of its buffers on the background thread.
  std::thread([snap] { snap->releaseZSLBuffers(); }).join();
  EXPECT_EQ(engine.timesReturned(zslAddress(6)), 1u);
  EXPECT_EQ(engine.timesReturned(zslAddress(12)), 1u);
  EXPECT_EQ(frame->zslBuffer(), nullptr);
  frame.clear();
  std::thread([snap] { delete snap; }).join();
  EXPECT_EQ(engine.returned().size(), 2u);
  EXPECT_EQ(engine.memory()->count(), 0u);
}

TEST(KoFrameHistSnapshot, LastReferenceAnywhereReturnsTheBufferOnceAndFreesTheImages) {
  // Whoever holds the buffer last (history, pending list, snapshot, a caller), it goes back once.
  TestEngineContext engine;
  auto* hist = new KoFrameHist();
  fill(engine, *hist, 6);  // buffer on frame 6
  auto* snapA = new KoFrameHistSnapshot(hist);
  auto* snapB = new KoFrameHistSnapshot(hist);
  // Frame 7, after the snapshots, with its images and a buffer the history alone holds; frame 8
  // with a buffer a caller still holds (the frame's images are freed with the frame); and a
  // buffer pending for a frame that never came.
  for (uint32_t id : {7, 8}) {
    sp<KoFrameData> frame = makeFrame(id, 0);
    frame->mSmallImage = new ABuffer(fcvMemAlloc(57600, 16), 57600);
    frame->mHistogram = static_cast<uint32_t*>(malloc(128));
    hist->addFrameData(frame);
  }
  addZsl(*hist, lendZsl(engine, 7), 7);
  sp<KoMemoryBuffer> kept = lendZsl(engine, 8);
  hist->addZslData(kept, nullptr, 8);
  EXPECT_EQ(hist->mHistory[7]->mFrameData->zslBuffer(), kept->mHandle);
  addZsl(*hist, lendZsl(engine, 100), 100);
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
