#pragma once
// Shared pieces of the sequence queue tests: a test engine context that records the ZSL
// buffers handed back to the camera, and helpers that build history frames without images.
#include <pthread.h>

#include <cstdint>
#include <map>

#include "KoEngineContext.h"
#include "KoEngineTypes.h"
#include "KoFrameData.h"
#include "KoFrameHist.h"
#include "KoMemory.h"
#include "KoMemoryBuffer.h"

namespace kovane_test {

// Counts every buffer handed back through frameDone; callable from any thread.
class SequenceTestContext : public android::KoEngineContext {
 public:
  SequenceTestContext() { pthread_mutex_init(&mLock, nullptr); }
  ~SequenceTestContext() override { pthread_mutex_destroy(&mLock); }

  uint32_t featureMask() const override { return 0; }
  uint32_t sensorMask() const override { return 0; }
  android::KoMemory* memory() const override { return mMemory; }
  void frameDone(void* buffer) override {
    pthread_mutex_lock(&mLock);
    mReturned[buffer]++;
    pthread_mutex_unlock(&mLock);
  }

  void setMemory(android::KoMemory* memory) { mMemory = memory; }
  // How often the buffer was handed back.
  int returnedCount(void* buffer) {
    pthread_mutex_lock(&mLock);
    auto it = mReturned.find(buffer);
    int n = it == mReturned.end() ? 0 : it->second;
    pthread_mutex_unlock(&mLock);
    return n;
  }
  // Number of hand-backs of all buffers together.
  int totalReturned() {
    pthread_mutex_lock(&mLock);
    int n = 0;
    for (const auto& entry : mReturned) n += entry.second;
    pthread_mutex_unlock(&mLock);
    return n;
  }

 private:
  pthread_mutex_t mLock;
  android::KoMemory* mMemory = nullptr;
  std::map<void*, int> mReturned;
};

// Time stamp of frame id `id` in the tests: 33 ms apart, in microseconds.
inline int64_t frameTs(uint32_t id) { return 1000000 + static_cast<int64_t>(id) * 33000; }

// Adds a frame without images to the history.
inline android::sp<android::KoFrameData> addFrame(android::KoFrameHist& hist, uint32_t id,
                                                   int64_t ts) {
  android::sp<android::KoFrameData> frame = new android::KoFrameData();
  frame->mFrameId = id;
  frame->mTimestamp = ts;
  hist.addFrameData(frame);
  return frame;
}

inline android::sp<android::KoFrameData> addFrame(android::KoFrameHist& hist, uint32_t id) {
  return addFrame(hist, id, frameTs(id));
}

// Registers the camera buffer `address` and attaches it to frame `id` of the history; the
// history (and whatever snapshots it) then holds the only references.
inline bool attachZsl(android::KoMemory& memory, android::KoFrameHist& hist, uint8_t* address,
                      uint32_t id) {
  android::sp<android::KoMemoryBuffer> buffer;
  if (!memory.addZslBuffer(address, &buffer)) return false;
  android::KO_ZslFrameData_t zsl = {address, id};
  hist.addZslData(buffer, &zsl, id);
  return true;
}

}  // namespace kovane_test
