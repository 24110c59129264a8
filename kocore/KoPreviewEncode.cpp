// Rolling buffer of preview frames and the clip encoder behind it. Each buffered frame lives in
// its own 16-byte aligned buffer; buffers dropped from the front go to a small pool and are
// handed out again for new frames of the same or a smaller size, so that a warm buffer
// allocates nothing. A buffer that an open clip still holds is not reused: the clip owns it
// from then on and frees it once the frame is encoded.
#include "KoPreviewEncode.h"

#include <log/log.h>

#include <algorithm>
#include <cstring>

#include "KoClipWriter.h"
#include "fastcv.h"
#include "pthread_np.h"

namespace android {

namespace {

constexpr const char* kTag = "KoPreviewEncode";
constexpr unsigned int kAlignment = 16;

}  // namespace

KoPreviewEncode::KoPreviewEncode(bool videoEnable, bool auxEnable)
    : mVideoEnable(videoEnable), mAuxEnable(auxEnable) {}

KoPreviewEncode::~KoPreviewEncode() {
  {
    std::lock_guard<std::mutex> lock(mLock);
    mStopping = true;
  }
  mWork.notify_all();
  if (mThread.joinable()) mThread.join();
  std::lock_guard<std::mutex> lock(mLock);
  mClips.clear();
  releaseAllLocked();
}

bool KoPreviewEncode::checkFrame(const void* data, int width, int height) const {
  if (data == nullptr || width <= 0 || height <= 0 || (width & 1) != 0 || (height & 1) != 0 ||
      width > kMaxSide || height > kMaxSide) {
    __android_log_print(ANDROID_LOG_ERROR, kTag, "addFrame: bad frame data %p size %dx%d, ignored",
                        data, width, height);
    return false;
  }
  return true;
}

void KoPreviewEncode::addFrame(uint8_t* data, int width, int height, int64_t timestampUs) {
  if (!checkFrame(data, width, height)) return;
  const size_t luma = static_cast<size_t>(width) * static_cast<size_t>(height);
  const size_t bytes = luma + luma / 2;
  std::lock_guard<std::mutex> lock(mLock);
  if (!mVideoEnable || mRecording) return;
  if (!admitLocked(timestampUs)) return;
  Slot slot;
  if (!acquireSlotLocked(bytes, slot)) return;
  memcpy(slot.data.get(), data, bytes);
  pushFrameLocked(slot, bytes, width, height, timestampUs);
}

void KoPreviewEncode::addFrame(const sp<ABuffer>& image, int width, int height, int64_t timestampUs) {
  if (!checkFrame(image != nullptr ? image->data() : nullptr, width, height)) return;
  const size_t luma = static_cast<size_t>(width) * static_cast<size_t>(height);
  const size_t bytes = luma + luma / 2;
  if (image->size() < bytes) {
    __android_log_print(ANDROID_LOG_ERROR, kTag, "addFrame: image of %zu bytes holds no %dx%d frame, ignored",
                        image->size(), width, height);
    return;
  }
  std::lock_guard<std::mutex> lock(mLock);
  if (!mVideoEnable || mRecording) return;
  if (!admitLocked(timestampUs) || !reserveLocked(bytes)) return;
  Slot slot;
  slot.shared = image;
  slot.capacity = bytes;
  mAllocatedBytes += bytes;
  pushFrameLocked(slot, bytes, width, height, timestampUs);
}

// The new frame joins the rolling buffer and every clip that is collecting frames.
void KoPreviewEncode::pushFrameLocked(Slot& slot, size_t bytes, int width, int height, int64_t timestampUs) {
  slot.bytes = bytes;
  slot.width = width;
  slot.height = height;
  slot.timestampUs = timestampUs;
  mFrames.push_back(slot);
  bool taken = false;
  for (Clip& c : mClips) {
    if (c.ended || c.cancelled || timestampUs < c.startUs) continue;
    takeFrameLocked(c, slot);
    taken = true;
  }
  if (taken) mWork.notify_one();
}

// Order and time checks of a new frame: false when it is refused; otherwise the frames too old
// for it have gone (all of them when the clock went back).
bool KoPreviewEncode::admitLocked(int64_t timestampUs) {
  if (!mFrames.empty()) {
    const int64_t newest = mFrames.back().timestampUs;
    if (timestampUs < newest) {
      if (newest - timestampUs <= kMaxSpanUs) {
        __android_log_print(ANDROID_LOG_WARN, kTag,
                            "addFrame: frame at %lld us older than newest %lld us, dropped",
                            static_cast<long long>(timestampUs), static_cast<long long>(newest));
        return false;
      }
      __android_log_print(ANDROID_LOG_WARN, kTag,
                          "addFrame: clock went back from %lld to %lld us, buffer restarted",
                          static_cast<long long>(newest), static_cast<long long>(timestampUs));
      dropAllFramesLocked();
    }
  }
  while (!mFrames.empty() && timestampUs - mFrames.front().timestampUs > kMaxSpanUs) {
    evictOldestLocked();
  }
  return true;
}

bool KoPreviewEncode::reserveLocked(size_t bytes) {
  if (bytes > kMaxMemoryBytes) {
    __android_log_print(ANDROID_LOG_ERROR, kTag, "%s: frame of %zu bytes exceeds the %zu bytes "
                        "bound, ignored", __func__, bytes, kMaxMemoryBytes);
    return false;
  }
  while (mAllocatedBytes + bytes > kMaxMemoryBytes) {
    if (!mPool.empty()) {
      mAllocatedBytes -= mPool.back().capacity;
      mPool.pop_back();
    } else if (!mFrames.empty()) {
      evictOldestLocked();
    } else {
      return false;
    }
  }
  return true;
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
  memcpy(dst, it->pixels(), it->bytes);
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

// ---- Clips ----------------------------------------------------------------------------------

status_t KoPreviewEncode::startClip(int jobId, int fd, int64_t startUs) {
  if (fd < 0) return BAD_VALUE;
  std::lock_guard<std::mutex> lock(mLock);
  if (!mVideoEnable || mRecording || mStopping) return INVALID_OPERATION;
  for (const Clip& c : mClips) {
    if (c.jobId == jobId && !c.cancelled) return INVALID_OPERATION;
  }
  mClips.emplace_back();
  Clip& clip = mClips.back();
  clip.jobId = jobId;
  clip.fd = fd;
  clip.bitrate = mClipBitrate;
  clip.startUs = startUs;
  for (const Slot& s : mFrames) {
    if (s.timestampUs >= startUs) takeFrameLocked(clip, s);
  }
  ensureThreadLocked();
  mWork.notify_one();
  return OK;
}

status_t KoPreviewEncode::endClip(int jobId, int64_t endUs) {
  std::lock_guard<std::mutex> lock(mLock);
  for (Clip& c : mClips) {
    if (c.jobId != jobId || c.cancelled) continue;
    if (c.ended) return OK;
    if (endUs < c.startUs) return BAD_VALUE;
    c.ended = true;
    c.endUs = endUs;
    while (!c.pending.empty() && c.pending.back().timestampUs > endUs) c.pending.pop_back();
    mWork.notify_one();
    return OK;
  }
  return NAME_NOT_FOUND;
}

status_t KoPreviewEncode::cancelClip(int jobId) {
  std::lock_guard<std::mutex> lock(mLock);
  for (Clip& c : mClips) {
    if (c.jobId != jobId || c.cancelled) continue;
    c.cancelled = true;
    c.pending.clear();
    mWork.notify_one();
    return OK;
  }
  return NAME_NOT_FOUND;
}

bool KoPreviewEncode::clipSpan(int jobId, int64_t& firstUs, int64_t& newestUs) const {
  std::lock_guard<std::mutex> lock(mLock);
  for (const Clip& c : mClips) {
    if (c.jobId != jobId || c.cancelled) continue;
    firstUs = c.firstUs;
    newestUs = c.newestUs;
    return true;
  }
  firstUs = newestUs = -1;
  return false;
}

size_t KoPreviewEncode::openClips() const {
  std::lock_guard<std::mutex> lock(mLock);
  return mClips.size();
}

void KoPreviewEncode::setClipBitrate(int bitsPerSecond) {
  std::lock_guard<std::mutex> lock(mLock);
  mClipBitrate = bitsPerSecond;
}

void KoPreviewEncode::takeFrameLocked(Clip& clip, const Slot& slot) {
  // The writer needs strictly increasing stamps: a repeated or older stamp is left out.
  if (slot.timestampUs <= clip.newestUs) return;
  if (clip.firstUs < 0) clip.firstUs = slot.timestampUs;
  clip.pending.push_back(slot);
  clip.newestUs = slot.timestampUs;
}

void KoPreviewEncode::ensureThreadLocked() {
  if (mThread.joinable()) return;
  mThread = std::thread([this] { encodeLoop(); });
}

KoPreviewEncode::Clip* KoPreviewEncode::nextClipLocked() {
  for (Clip& c : mClips) {
    if (c.cancelled || !c.pending.empty() || c.ended) return &c;
  }
  return nullptr;
}

void KoPreviewEncode::encodeLoop() {
  pthread_setname_np(pthread_self(), "KoPreviewEnc");
  std::unique_lock<std::mutex> lock(mLock);
  for (;;) {
    Clip* clip = nullptr;
    mWork.wait(lock, [&] { return mStopping || (clip = nextClipLocked()) != nullptr; });
    if (mStopping) break;

    if (clip->cancelled || (clip->ended && clip->pending.empty())) {
      // The clip is complete (or abandoned): finish its file outside the lock, then report.
      const bool cancelled = clip->cancelled;
      const int jobId = clip->jobId;
      std::unique_ptr<KoClipWriter> writer = std::move(clip->writer);
      const bool usable = !clip->failed && clip->framesWritten > 0;
      for (auto it = mClips.begin(); it != mClips.end(); ++it) {
        if (&*it == clip) {
          mClips.erase(it);
          break;
        }
      }
      lock.unlock();
      bool saved = false;
      if (!cancelled && usable && writer) {
        const status_t err = writer->finish();
        saved = err == OK;
        if (!saved) {
          __android_log_print(ANDROID_LOG_ERROR, kTag, "%s: job %d clip not finished (%d)", __func__,
                              jobId, static_cast<int>(err));
        }
      } else if (!cancelled) {
        __android_log_print(ANDROID_LOG_WARN, kTag, "%s: job %d clip has no frames to save", __func__, jobId);
      }
      writer.reset();
      notifyEncodeComplete(jobId, saved);
      lock.lock();
      continue;
    }

    // One frame of this clip.
    Slot frame = clip->pending.front();
    clip->pending.pop_front();
    const bool failed = clip->failed;
    lock.unlock();
    if (!failed) {
      // The encoding thread alone touches the writer and the failure flag, and the clip stays
      // in the list until this thread removes it.
      if (!clip->writer) {
        clip->writer.reset(new KoClipWriter());
        clip->writer->setAbortFlag(&mStopping);
        const int bitrate = clip->bitrate != 0 ? clip->bitrate : KoClipWriter::kDefaultBitrate;
        const status_t err = clip->writer->open(clip->fd, frame.width, frame.height, bitrate);
        if (err != OK) {
          __android_log_print(ANDROID_LOG_ERROR, kTag, "%s: job %d clip encoder not opened (%d)", __func__,
                              clip->jobId, static_cast<int>(err));
          clip->failed = true;
        }
        clip->width = frame.width;
        clip->height = frame.height;
      }
      if (!clip->failed) {
        if (frame.width != clip->width || frame.height != clip->height) {
          __android_log_print(ANDROID_LOG_WARN, kTag, "%s: job %d frame of %dx%d left out of a %dx%d clip",
                              __func__, clip->jobId, frame.width, frame.height, clip->width, clip->height);
        } else {
          const status_t err = clip->writer->addFrame(frame.pixels(), frame.timestampUs);
          if (err == OK) {
            ++clip->framesWritten;
          } else {
            __android_log_print(ANDROID_LOG_ERROR, kTag, "%s: job %d clip write failed (%d)", __func__,
                                clip->jobId, static_cast<int>(err));
            clip->failed = true;
          }
        }
      }
    }
    lock.lock();
    // A frame the buffer has dropped meanwhile (and no other clip holds) gives its buffer back
    // to the pool, so that a clip lagging behind the preview does not make every new frame
    // allocate.
    if (frame.data.use_count() == 1 && mPool.size() < kMaxPooledBuffers &&
        mAllocatedBytes + frame.capacity <= kMaxMemoryBytes && !mStopping) {
      mAllocatedBytes += frame.capacity;
      mPool.push_back(std::move(frame));
    }
  }
}

void KoPreviewEncode::dropAllFramesLocked() {
  while (!mFrames.empty()) evictOldestLocked();
}

void KoPreviewEncode::releaseAllLocked() {
  mFrames.clear();  // buffers still held by clips are freed with their last reference
  mPool.clear();
  mAllocatedBytes = 0;
}

void KoPreviewEncode::evictOldestLocked() {
  Slot s = mFrames.front();
  mFrames.pop_front();
  recycleLocked(s);
}

void KoPreviewEncode::recycleLocked(Slot& slot) {
  if (slot.shared != nullptr) {  // the caller's image: only the reference goes
    mAllocatedBytes -= slot.capacity;
    slot.shared.clear();
    return;
  }
  // A buffer a clip still holds leaves the buffer's accounts; the clip frees it.
  if (slot.data.use_count() == 1 && mPool.size() < kMaxPooledBuffers) {
    mPool.push_back(slot);
    return;
  }
  mAllocatedBytes -= slot.capacity;
  slot.data.reset();
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
      out.data.reset(static_cast<uint8_t*>(p), [](uint8_t* q) { fcvMemFree(q); });
      out.capacity = bytes;
      mAllocatedBytes += bytes;
      return true;
    }
    // Over the memory bound: free buffers too small to reuse go first, then the oldest frame.
    if (!mPool.empty()) {
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
