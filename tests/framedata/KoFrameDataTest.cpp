// The frame record itself: empty records, processed-event bits and the ZSL handle.
#include <gtest/gtest.h>

#include <thread>

#include "FrameTestSupport.h"
#include "KoFrameHist.h"
#include "KoMemoryBuffer.h"
#include "fastcv.h"

using namespace android;
using kovane_test::makeFrame;
using kovane_test::TestEngineContext;
using kovane_test::zslAddress;

TEST(KoFrameData, ProcessedBitsAccumulateAndNeverBlockOnTheSharedMutex) {
  sp<KoFrameData> frame = new KoFrameData();  // all pointers null: destroyed without effect
  EXPECT_EQ(frame->processedEvents(), 0u);
  frame->setProcessedEvents(0x2);
  frame->setProcessedEvents(0x8);
  EXPECT_EQ(frame->processedEvents(), 0xAu);

  // A caller holding the mutex gets its bits and keeps the mutex.
  pthread_mutex_lock(&KoFrameData::gFrameDataMutex);
  frame->setProcessedEvents(0x10000);
  EXPECT_EQ(frame->processedEvents(), 0x1000Au);
  EXPECT_EQ(pthread_mutex_trylock(&KoFrameData::gFrameDataMutex), EBUSY);
  // Another thread does not wait for the mutex either.
  std::thread other([&frame] { frame->setProcessedEvents(0x20000); });
  other.join();
  pthread_mutex_unlock(&KoFrameData::gFrameDataMutex);
  EXPECT_EQ(frame->processedEvents(), 0x3000Au);
}

TEST(KoFrameData, ImagesAreFreedAndTheZslBufferOutlivesTheFrame) {
  TestEngineContext engine;
  sp<KoMemoryBuffer> buffer;
  ASSERT_TRUE(engine.memory()->addZslBuffer(zslAddress(1), &buffer));
  {
    KoFrameHist hist;
    sp<KoFrameData> frame = makeFrame(3, 0);
    frame->mSmallImage = new ABuffer(fcvMemAlloc(57600, 16), 57600);
    frame->mHistogram = static_cast<uint32_t*>(malloc(128));
    hist.addFrameData(frame);
    hist.addZslData(buffer, nullptr, 3);
    EXPECT_EQ(frame->zslBuffer(), buffer->mHandle);
  }
  // Frame and history are gone; the buffer is still referenced here, so it stays out.
  EXPECT_TRUE(engine.returned().empty());
  EXPECT_EQ(buffer->mFrameData->mFrameId, 3u);  // the buffer keeps its frame
  buffer.clear();
  EXPECT_EQ(engine.timesReturned(zslAddress(1)), 1u);
}

TEST(KoFrameData, SensorBlockCarriesTheFourSamplesInOrder) {
  sp<KoFrameData> frame = makeFrame(1, 0);
  frame->mAccelSample = {11, 1.f, 2.f, 3.f};
  frame->mGyroSample = {22, 4.f, 5.f, 6.f};
  frame->mOrientSample = {33, 7.f, 8.f, 9.f};
  frame->mMagneticSample = {44, 10.f, 11.f, 12.f};
  frame->mSensorEnabled[0] = 1;
  frame->mSensorEnabled[1] = 1;
  KO_sensorData_t block = frame->sensorData();
  EXPECT_EQ(block.accel.timeStamp, 11);
  EXPECT_EQ(block.gyro.timeStamp, 22);
  EXPECT_FLOAT_EQ(block.gyro.z, 6.f);
  EXPECT_EQ(block.orient.timeStamp, 33);
  EXPECT_FLOAT_EQ(block.magnetic.x, 10.f);
  EXPECT_EQ(block.enabled[0], 1);
  EXPECT_EQ(block.enabled[1], 1);
  EXPECT_EQ(block.enabled[2], 0);
}
