#pragma once
// Preview encoder front: keeps the recent preview frames (shared or copied) so that a short clip around
// a capture can be cut from them later, and reports the outcome of a clip's encoding back to
// its owner.
//
// Frames are planar 4:2:0 images (luma width x height, then the U and the V plane of
// width/2 x height/2, all rows packed), as the foreground hands them over for every kept
// preview frame (typically 640x360 or 640x480).
//
// Rolling buffer bounds, oldest frame dropped first:
//  - time: the newest frame's stamp minus the oldest frame's stamp never exceeds kMaxSpanUs
//    (4 seconds);
//  - memory: all image memory the encoder holds, buffered frames (shared or copied) and free
//    buffers kept for reuse together, never exceeds kMaxMemoryBytes (24 MiB). At 640x360
//    (345600 bytes a frame) that is 72 frames, 2.4 s at 30 fps; at 640x480, 54 frames (1.8 s).
//    A clip starts at most 1.5 s before its shutter press, decided a few frames after it.
// Shared frames: addFrame(sp<ABuffer>) keeps a reference to the caller's image instead of a copy
// (the engine's frame records hand over their analysis copies this way, which are never written
// again while shared); the copying addFrame serves callers whose memory is reused at once.
// Frame buffers are reused: once the buffer is warm, adding a frame of the same size allocates
// nothing. At most kMaxPooledBuffers free buffers are kept; flush() and startRecording() give
// all memory back.
//
// Time stamps: a frame whose stamp equals the newest buffered stamp is kept after it (a camera
// can repeat a stamp; order is that of arrival). A frame stamped earlier than the newest is
// dropped with a warning, unless it is earlier by more than kMaxSpanUs: then the clock has
// been restarted, the buffered frames are dropped and the frame starts a new buffer.
//
// Recording: while the host records its own video (between startRecording() and
// stopRecording()) no preview frames are kept; startRecording() drops what is buffered.
// An encoder built with videoEnable false keeps no frames at all: clips are not allowed.
//
// Clips: startClip() opens a clip for a job from a start stamp; from then on the clip takes its
// own reference to every buffered frame from the start on and to every frame added later, until
// endClip() gives the end stamp. The encoder's own thread encodes the referenced frames as they
// come (H.264 in fragmented MP4, KoClipWriter) into the job's descriptor, which is never closed
// here, and reports the outcome through the completion callback once: saved when every frame up
// to the end was written and the file finished, not saved on any failure, on cancelClip(), or
// for a clip without a single frame. Frames the buffer drops meanwhile (time or memory bound,
// flush, recording) stay alive for the clips that hold them; frames the camera never delivered
// (shed while the engine was late) are missing from the clip, whose time stamps then show the
// gap. While the host records, frames are not kept, so a clip open across a recording simply
// has a gap or ends at the last frame before it. A clip's frames are released as soon as they
// are encoded, so a clip holds little beyond the frames of its first second.
// Several clips may be open at once; each has its own writer and descriptor and the encoding
// thread serves them in turn, one frame at a time.
//
// All operations are thread-safe (one internal mutex): the camera's thread starts and stops
// recording and flushes while the foreground thread adds frames and opens and ends clips. The
// completion callback runs on the encoding thread without the mutex held. Deleting the encoder
// stops its thread at once: open clips are abandoned (their descriptors keep what was written)
// and are not reported.
#include <utils/Errors.h>
#include <utils/RefBase.h>
#include <utils/StrongPointer.h>
#include <utils/Vector.h>

#include "ABuffer.h"

#include <cstddef>
#include <cstdint>
#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace android {

class KoClipWriter;

class KoPreviewEncode {
 public:
  static constexpr int64_t kMaxSpanUs = 4000000;
  static constexpr size_t kMaxMemoryBytes = 24u * 1024u * 1024u;
  static constexpr size_t kMaxPooledBuffers = 4;
  // Largest accepted side of a frame.
  static constexpr int kMaxSide = 4096;

  // Completion of a clip's encoding: job id and whether the clip was saved.
  using CompleteFn = std::function<void(int jobId, bool saved)>;

  // Binds `owner` and its static completion callback; the encoder holds the owner strongly
  // until it is deleted and passes it back as the callback's first argument. A null owner or
  // callback binds nothing.
  template <typename Owner>
  KoPreviewEncode(const sp<Owner>& owner, void (*completeCb)(sp<Owner>&, int jobId, bool saved),
                  bool videoEnable, bool auxEnable)
      : KoPreviewEncode(videoEnable, auxEnable) {
    if (owner != nullptr && completeCb != nullptr) {
      mComplete = [owner, completeCb](int jobId, bool saved) {
        sp<Owner> o = owner;
        completeCb(o, jobId, saved);
      };
    }
  }

  // An encoder without owner: completions are logged and go nowhere.
  KoPreviewEncode(bool videoEnable, bool auxEnable);
  ~KoPreviewEncode();

  KoPreviewEncode(const KoPreviewEncode&) = delete;
  KoPreviewEncode& operator=(const KoPreviewEncode&) = delete;

  // Copies one planar 4:2:0 frame into the rolling buffer. Null data, non-positive, odd or
  // oversized dimensions are logged at error priority and ignored.
  void addFrame(uint8_t* data, int width, int height, int64_t timestampUs);
  // The same without a copy: keeps a reference to `image`, whose data() holds the frame
  // (width * height * 3 / 2 bytes; a smaller or null image is logged and ignored). The owner
  // must not write into the image while it is shared.
  void addFrame(const sp<ABuffer>& image, int width, int height, int64_t timestampUs);

  // The host starts recording: buffered frames are dropped and none is kept until
  // stopRecording().
  void startRecording();
  void stopRecording();
  // Drops every buffered frame and gives the image memory back.
  void flush();

  // Read access for cutting a clip.
  size_t frameCount() const;
  // Stamps of the oldest and of the newest buffered frame; -1 when the buffer is empty.
  int64_t oldestTimestampUs() const;
  int64_t newestTimestampUs() const;
  // Stamps of all buffered frames, oldest first (replaces the vector's contents); false when
  // the buffer is empty.
  bool getFrameTimes(Vector<int64_t>& times) const;
  // Copies the oldest buffered frame stamped at or after `fromUs` into `dst` (width*height*3/2
  // bytes, same layout as added) and reports its size and stamp. Returns OK; NAME_NOT_FOUND
  // when there is no such frame; BAD_VALUE for a null `dst` or one smaller than the frame (the
  // size and stamp are still reported, so the caller can grow its buffer and ask again).
  // To walk a range, ask again from the reported stamp + 1.
  status_t copyFrame(int64_t fromUs, uint8_t* dst, size_t dstBytes, int& width, int& height,
                     int64_t& timestampUs) const;
  // Image memory held by the buffer: buffered frames plus free buffers kept for reuse (frames
  // that only open clips still hold are not counted).
  size_t memoryBytes() const;

  bool isRecording() const;
  bool videoEnabled() const { return mVideoEnable; }
  // The auxiliary flag of the configuration, kept for the clip writer; it does not change
  // how frames are buffered.
  bool auxEnabled() const { return mAuxEnable; }

  // ---- Clips ----
  // Opens a clip for `jobId` written to `fd`, from the first frame stamped at or after
  // `startUs`. OK; BAD_VALUE for a negative descriptor; INVALID_OPERATION when clips are not
  // allowed (video disabled), while the host records, or when the job already has an open clip.
  status_t startClip(int jobId, int fd, int64_t startUs);
  // Ends the job's clip with the last frame stamped at or before `endUs`; frames after it are
  // let go. OK; NAME_NOT_FOUND for a job without an open clip; BAD_VALUE for an end before the
  // clip's start. A clip ended once keeps its first end.
  status_t endClip(int jobId, int64_t endUs);
  // Abandons the job's clip; it is reported not saved. OK or NAME_NOT_FOUND.
  status_t cancelClip(int jobId);
  // Stamps of the first and of the newest frame the job's clip has taken so far (-1 and -1
  // while it has none). False when the job has no open clip.
  bool clipSpan(int jobId, int64_t& firstUs, int64_t& newestUs) const;
  // Clips opened and not yet reported.
  size_t openClips() const;
  // Bit rate of the clips opened from now on, in bits per second; 0 restores the writer's
  // default. A rate the writer refuses makes those clips fail (reported not saved).
  void setClipBitrate(int bitsPerSecond);

  // Reports the end of a clip's encoding to the bound owner (called on the encoding thread;
  // never with the internal mutex held). Without a bound owner it only logs.
  void notifyEncodeComplete(int jobId, bool saved);

 private:
  struct Slot {
    std::shared_ptr<uint8_t> data;  // a copy, shared with the clips that hold the frame
    sp<ABuffer> shared;             // or the caller's image itself
    const uint8_t* pixels() const { return shared != nullptr ? shared->data() : data.get(); }
    size_t capacity = 0;
    size_t bytes = 0;
    int width = 0;
    int height = 0;
    int64_t timestampUs = 0;
  };
  struct Clip {
    int jobId = 0;
    int fd = -1;
    int bitrate = 0;
    int64_t startUs = 0;
    int64_t endUs = INT64_MAX;
    int64_t firstUs = -1;          // first frame taken
    int64_t newestUs = -1;         // newest frame taken
    bool ended = false;
    bool cancelled = false;
    std::deque<Slot> pending;      // taken, not yet encoded
    // Encoding thread only:
    std::unique_ptr<KoClipWriter> writer;
    bool failed = false;
    int framesWritten = 0;
    int width = 0;  // of the first frame; frames of another size are left out
    int height = 0;
  };

  void encodeLoop();
  // Picks the next clip with work, in opening order; null when none. With mLock held.
  Clip* nextClipLocked();
  void ensureThreadLocked();
  void takeFrameLocked(Clip& clip, const Slot& slot);

  // All with mLock held.
  void dropAllFramesLocked();
  void releaseAllLocked();
  void evictOldestLocked();
  bool acquireSlotLocked(size_t bytes, Slot& out);
  // Makes room for `bytes` more bytes under the memory bound (free buffers, then the oldest
  // frames go); false when the frame alone exceeds the bound.
  bool reserveLocked(size_t bytes);
  bool admitLocked(int64_t timestampUs);
  bool checkFrame(const void* data, int width, int height) const;
  void pushFrameLocked(Slot& slot, size_t bytes, int width, int height, int64_t timestampUs);
  void recycleLocked(Slot& slot);

  const bool mVideoEnable;
  const bool mAuxEnable;
  CompleteFn mComplete;  // set at construction only

  mutable std::mutex mLock;
  bool mRecording = false;
  std::deque<Slot> mFrames;  // oldest first
  std::vector<Slot> mPool;   // free buffers, held by nobody else
  size_t mAllocatedBytes = 0;

  std::list<Clip> mClips;    // opening order; removed by the encoding thread only
  int mClipBitrate = 0;
  std::atomic<bool> mStopping{false};  // also raised to the writers: stop waiting on a reader
  std::condition_variable mWork;
  std::thread mThread;
};

}  // namespace android
