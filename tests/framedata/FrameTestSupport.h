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

// Stands in for the engine: every feature and the first two sensors on, and a record of every
// buffer handed back.
class TestEngineContext : public android::KoEngineContext {
 public:
  TestEngineContext() : mMemory(this) {}
  uint32_t featureMask() const override { return 0x1F; }
  uint32_t sensorMask() const override { return 0x3; }
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
    const std::vector<void*> all = returned();
    return static_cast<size_t>(std::count(all.begin(), all.end(), buffer));
  }

 private:
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

// A fake camera buffer address, and buffer `n` registered with the tracker as the camera lends it.
inline uint8_t* zslAddress(uintptr_t n) { return reinterpret_cast<uint8_t*>(0x10000 + n * 0x1000); }
inline android::sp<android::KoMemoryBuffer> lendZsl(TestEngineContext& engine, uintptr_t n) {
  android::sp<android::KoMemoryBuffer> buffer;
  EXPECT_TRUE(engine.memory()->addZslBuffer(zslAddress(n), &buffer)) << n;
  return buffer;
}

}  // namespace kovane_test
