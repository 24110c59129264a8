// Rolling buffer of preview frames for the clip encoder. Each buffered frame lives in its own
// 16-byte aligned buffer; buffers dropped from the front go to a small pool and are handed out
// again for new frames of the same or a smaller size, so that a warm buffer allocates nothing.
#include "KoPreviewEncode.h"

#include <log/log.h>

#include <algorithm>
#include <cstring>

#include "fastcv.h"

namespace android {

namespace {

constexpr const char* kTag = "KoPreviewEncode";
constexpr unsigned int kAlignment = 16;

}  // namespace

KoPreviewEncode::KoPreviewEncode(bool videoEnable, bool auxEnable)
    : mVideoEnable(videoEnable), mAuxEnable(auxEnable) {}

KoPreviewEncode::~KoPreviewEncode() {
  std::lock_guard<std::mutex> lock(mLock);
  releaseAllLocked();
}

void KoPreviewEncode::addFrame(uint8_t* data, int width, int height, int64_t timestampUs) {
  if (data == nullptr || width <= 0 || height <= 0 || (width & 1) != 0 || (height & 1) != 0 ||
      width > kMaxSide || height > kMaxSide) {
    __android_log_print(ANDROID_LOG_ERROR, kTag, "%s: bad frame data %p size %dx%d, ignored",
                        __func__, static_cast<void*>(data), width, height);
    return;
  }
  const size_t luma = static_cast<size_t>(width) * static_cast<size_t>(height);
  const size_t bytes = luma + luma / 2;

  std::lock_guard<std::mutex> lock(mLock);
  if (!mVideoEnable || mRecording) return;

  if (!mFrames.empty()) {
    const int64_t newest = mFrames.back().timestampUs;
    if (timestampUs < newest) {
      if (newest - timestampUs <= kMaxSpanUs) {
        __android_log_print(ANDROID_LOG_WARN, kTag,
                            "%s: frame at %lld us older than newest %lld us, dropped", __func__,
                            static_cast<long long>(timestampUs), static_cast<long long>(newest));
        return;
      }
      __android_log_print(ANDROID_LOG_WARN, kTag,
                          "%s: clock went back from %lld to %lld us, buffer restarted", __func__,
                          static_cast<long long>(newest), static_cast<long long>(timestampUs));
      dropAllFramesLocked();
    }
  }
  while (!mFrames.empty() && timestampUs - mFrames.front().timestampUs > kMaxSpanUs) {
    evictOldestLocked();
  }

  Slot slot;
  if (!acquireSlotLocked(bytes, slot)) return;
  memcpy(slot.data, data, bytes);
  slot.bytes = bytes;
  slot.width = width;
  slot.height = height;
  slot.timestampUs = timestampUs;
  mFrames.push_back(slot);
}

void KoPreviewEncode::startRecording() {
  std::lock_guard<std::mutex> lock(mLock);
  mRecording = true;
  releaseAllLocked();
}

void KoPreviewEncode::stopRecording() {
  std::lock_guard<std::mutex> lock(mLock);
  mRecording = false;
}

void KoPreviewEncode::flush() {
  std::lock_guard<std::mutex> lock(mLock);
  releaseAllLocked();
}

size_t KoPreviewEncode::frameCount() const {
  std::lock_guard<std::mutex> lock(mLock);
  return mFrames.size();
}

int64_t KoPreviewEncode::oldestTimestampUs() const {
  std::lock_guard<std::mutex> lock(mLock);
  return mFrames.empty() ? -1 : mFrames.front().timestampUs;
}

int64_t KoPreviewEncode::newestTimestampUs() const {
  std::lock_guard<std::mutex> lock(mLock);
  return mFrames.empty() ? -1 : mFrames.back().timestampUs;
}

bool KoPreviewEncode::getFrameTimes(Vector<int64_t>& times) const {
  std::lock_guard<std::mutex> lock(mLock);
  times.clear();
  times.setCapacity(mFrames.size());
  for (const Slot& s : mFrames) times.push_back(s.timestampUs);
  return !mFrames.empty();
}

status_t KoPreviewEncode::copyFrame(int64_t fromUs, uint8_t* dst, size_t dstBytes, int& width,
                                    int& height, int64_t& timestampUs) const {
  std::lock_guard<std::mutex> lock(mLock);
  // Stamps never decrease along the buffer.
  auto it = std::lower_bound(mFrames.begin(), mFrames.end(), fromUs,
                             [](const Slot& s, int64_t t) { return s.timestampUs < t; });
  if (it == mFrames.end()) return NAME_NOT_FOUND;
  width = it->width;
  height = it->height;
  timestampUs = it->timestampUs;
  if (dst == nullptr || dstBytes < it->bytes) return BAD_VALUE;
  memcpy(dst, it->data, it->bytes);
  return OK;
}

size_t KoPreviewEncode::memoryBytes() const {
  std::lock_guard<std::mutex> lock(mLock);
  return mAllocatedBytes;
}

bool KoPreviewEncode::isRecording() const {
  std::lock_guard<std::mutex> lock(mLock);
  return mRecording;
}

void KoPreviewEncode::notifyEncodeComplete(int jobId, bool saved) {
  // mComplete is only written during construction, so no lock is needed to read it, and the
  // owner's callback may call back into the encoder.
  if (!mComplete) {
    __android_log_print(ANDROID_LOG_WARN, kTag, "%s: job %d (saved %d) has no owner to report to",
                        __func__, jobId, saved ? 1 : 0);
    return;
  }
  mComplete(jobId, saved);
}

void KoPreviewEncode::dropAllFramesLocked() {
  while (!mFrames.empty()) evictOldestLocked();
}

void KoPreviewEncode::releaseAllLocked() {
  for (Slot& s : mFrames) fcvMemFree(s.data);
  for (Slot& s : mPool) fcvMemFree(s.data);
  mFrames.clear();
  mPool.clear();
  mAllocatedBytes = 0;
}

void KoPreviewEncode::evictOldestLocked() {
  Slot s = mFrames.front();
  mFrames.pop_front();
  recycleLocked(s);
}

void KoPreviewEncode::recycleLocked(Slot& slot) {
  if (mPool.size() < kMaxPooledBuffers) {
    mPool.push_back(slot);
    return;
  }
  fcvMemFree(slot.data);
  mAllocatedBytes -= slot.capacity;
}

bool KoPreviewEncode::acquireSlotLocked(size_t bytes, Slot& out) {
  if (bytes > kMaxMemoryBytes) {
    __android_log_print(ANDROID_LOG_ERROR, kTag, "%s: frame of %zu bytes exceeds the %zu bytes "
                        "bound, ignored", __func__, bytes, kMaxMemoryBytes);
    return false;
  }
  for (;;) {
    // The smallest free buffer that holds the frame.
    auto best = mPool.end();
    for (auto it = mPool.begin(); it != mPool.end(); ++it) {
      if (it->capacity >= bytes && (best == mPool.end() || it->capacity < best->capacity)) best = it;
    }
    if (best != mPool.end()) {
      out = *best;
      mPool.erase(best);
      return true;
    }
    if (mAllocatedBytes + bytes <= kMaxMemoryBytes) {
      void* p = fcvMemAlloc(static_cast<unsigned int>(bytes), kAlignment);
      if (p == nullptr) {
        __android_log_print(ANDROID_LOG_ERROR, kTag, "%s: no memory for a frame of %zu bytes",
                            __func__, bytes);
        return false;
      }
      out = Slot();
      out.data = static_cast<uint8_t*>(p);
      out.capacity = bytes;
      mAllocatedBytes += bytes;
      return true;
    }
    // Over the memory bound: free buffers too small to reuse go first, then the oldest frame.
    if (!mPool.empty()) {
      fcvMemFree(mPool.back().data);
      mAllocatedBytes -= mPool.back().capacity;
      mPool.pop_back();
    } else if (!mFrames.empty()) {
      evictOldestLocked();
    } else {
      return false;  // unreachable: bytes <= kMaxMemoryBytes and nothing is allocated
    }
  }
}

}  // namespace android
