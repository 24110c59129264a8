#pragma once
// Test doubles and builders shared by the frame-data and sequence tests.
#include <gtest/gtest.h>

#include <algorithm>
#include <mutex>
#include <vector>

#include "KoEngineContext.h"
#include "KoFrameData.h"
#include "KoMemory.h"
#include "KoMemoryBuffer.h"

namespace kovane_test {

// Stands in for the engine: configurable masks, and a record of every buffer handed back.
class TestEngineContext : public android::KoEngineContext {
 public:
  explicit TestEngineContext(uint32_t features = 0x1F, uint32_t sensors = 0x3)
      : mFeatures(features), mSensors(sensors), mMemory(this) {}

  uint32_t featureMask() const override { return mFeatures; }
  uint32_t sensorMask() const override { return mSensors; }
  android::KoMemory* memory() const override { return const_cast<android::KoMemory*>(&mMemory); }
  void frameDone(void* buffer) override {
    std::lock_guard<std::mutex> lock(mLock);
    mReturned.push_back(buffer);
  }
  std::vector<void*> returned() {
    std::lock_guard<std::mutex> lock(mLock);
    return mReturned;
  }
  size_t timesReturned(void* buffer) {
    std::lock_guard<std::mutex> lock(mLock);
    return static_cast<size_t>(std::count(mReturned.begin(), mReturned.end(), buffer));
  }

 private:
  uint32_t mFeatures;
  uint32_t mSensors;
  std::mutex mLock;
  std::vector<void*> mReturned;
  android::KoMemory mMemory;  // last: destroyed first, while the record above still exists
};

// A frame as the history sees it, without images.
inline android::sp<android::KoFrameData> makeFrame(uint32_t frameId, int64_t timestampUs) {
  android::sp<android::KoFrameData> frame = new android::KoFrameData();
  frame->mFrameId = frameId;
  frame->mTimestamp = timestampUs;
  return frame;
}

// A fake camera buffer address for ZSL tests.
inline uint8_t* zslAddress(uintptr_t n) { return reinterpret_cast<uint8_t*>(0x10000 + n * 0x1000); }

// Registers buffer `n` with the engine's tracker, as the camera lends it.
inline android::sp<android::KoMemoryBuffer> lendZsl(TestEngineContext& engine, uintptr_t n) {
  android::sp<android::KoMemoryBuffer> buffer;
  EXPECT_TRUE(engine.memory()->addZslBuffer(zslAddress(n), &buffer)) << n;
  return buffer;
}

}  // namespace kovane_test
