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
  KoSensorSample* samples[] = {&frame->mAccelSample, &frame->mGyroSample, &frame->mOrientSample,
                               &frame->mMagneticSample};
  for (int i = 0; i < 4; ++i) {
    *samples[i] = {11 * (i + 1), 3.f * i + 1, 3.f * i + 2, 3.f * i + 3};
    frame->mSensorEnabled[i] = i < 2;
  }
  const KO_sensorData_t block = frame->sensorData();
  const KO_sensorSample_t* out[] = {&block.accel, &block.gyro, &block.orient, &block.magnetic};
  for (int i = 0; i < 4; ++i) {
    EXPECT_EQ(out[i]->timeStamp, 11 * (i + 1)) << i;
    EXPECT_FLOAT_EQ(out[i]->x, 3.f * i + 1) << i;
    EXPECT_FLOAT_EQ(out[i]->y, 3.f * i + 2) << i;
    EXPECT_FLOAT_EQ(out[i]->z, 3.f * i + 3) << i;
    EXPECT_EQ(block.enabled[i], i < 2 ? 1 : 0) << i;
  }
}
