#pragma once
// Clip writer: encodes a sequence of planar 4:2:0 frames as H.264 and writes them as a
// fragmented MP4 byte stream to a file descriptor the camera app handed over (a file or a
// pipe). The output is written strictly in order and never seeked, so a pipe works as well as
// a file; the descriptor is never closed by the writer.
//
// Encoding: libx264 when present (preset superfast), otherwise any other H.264 encoder that
// opens; main profile, no B-frames and no lookahead (each frame leaves the encoder as soon
// as it is fed), one encoder thread, a keyframe at least every second of clip time, average
// bit rate as given (a frame that comes later than the spacing before it promised can
// stretch a keyframe interval by that delay). Each keyframe starts a new MP4 fragment.
//
// Time: stamps are kept in microseconds all the way through (encoder and track time base
// 1/1000000). The first frame is at 0; later frames keep their real spacing, so frames the
// camera dropped show as a longer duration of the frame before them. The last frame lasts as
// long as the shortest frame spacing of the clip (the camera's frame period), 1/30 s for a
// clip of one frame.
//
// Errors (android status_t):
//  - BAD_VALUE: bad arguments (negative, closed or read-only descriptor, odd or out-of-range
//    size, non-positive bit rate, null data, a stamp not after the previous one). A rejected
//    frame leaves the clip as it was.
//  - INVALID_OPERATION: open() while a clip is open, addFrame()/finish() without an open clip.
//  - NO_MEMORY: an allocation failed.
//  - UNKNOWN_ERROR: no usable H.264 encoder, or the encoder or muxer failed.
//  - -errno (e.g. -EPIPE, -ENOSPC, -EBADF, -EIO): writing to the descriptor failed.
// Any failure other than BAD_VALUE ends the clip: the encoder and muxer are freed at once,
// nothing more is written, and addFrame()/finish() return the same error until the next
// open(). A writer can start a new clip after finish() or a failure.
//
// Pipes and sockets are written without ever blocking in write(): a reader that stops reading
// for kStallTimeoutMs fails the clip with -ETIMEDOUT, and a raised abort flag (setAbortFlag)
// fails it with -ECANCELED within a tenth of a second, so a writer is never stuck on a reader.
//
// Broken pipes: the write that finds the reader gone raises no SIGPIPE in the process; it
// fails the clip with -EPIPE. The signal is blocked for the calling thread around the write
// and a SIGPIPE raised by it is consumed; no process-wide handler is installed.
//
// Not thread-safe: one thread drives a writer.
#include <utils/Errors.h>

#include <atomic>
#include <cstddef>
#include <cstdint>

struct AVCodecContext;
struct AVFormatContext;
struct AVFrame;
struct AVIOContext;
struct AVPacket;
struct AVStream;

namespace android {

class KoClipWriter {
 public:
  // 2 Mbit/s: a 3 s 640x360 clip is about 0.6 MB. Measured luma PSNR of every frame: above
  // 50 dB on webcam footage, above 42 dB on a detailed hand-held camera clip, leaving room for
  // noisy low-light previews.
  static constexpr int kDefaultBitrate = 2000000;
  // Largest accepted side of a frame.
  static constexpr int kMaxSide = 4096;
  // Longest stretch of clip time without a keyframe.
  static constexpr int64_t kKeyframeIntervalUs = 1000000;
  // Frame rate hint for the encoder's rate control (stamps carry the real timing).
  static constexpr int kFrameRateHint = 30;
  // Longest wait for a pipe's reader to make room.
  static constexpr int kStallTimeoutMs = 5000;

  KoClipWriter();
  // An unfinished clip is abandoned: encoder and muxer freed, nothing more written.
  ~KoClipWriter();

  KoClipWriter(const KoClipWriter&) = delete;
  KoClipWriter& operator=(const KoClipWriter&) = delete;

  // Starts a clip of width x height planar 4:2:0 frames (Y plane, then U, then V, rows packed)
  // written to `fd` as fragmented MP4. Even sizes only. Sets up the encoder and muxer; the
  // file header goes out with the first frame.
  status_t open(int fd, int width, int height, int bitrate = kDefaultBitrate);
  // Encodes one frame stamped `timestampUs` (camera clock, microseconds, strictly increasing).
  status_t addFrame(const uint8_t* data, int64_t timestampUs);
  // Drains the encoder and writes the end of the file; OK only when every byte reached `fd`.
  // A clip without frames is written as a valid empty file.
  status_t finish();
  // Bytes of the current (or last) clip that reached the descriptor.
  size_t bytesWritten() const { return mBytesWritten; }
  // A flag another thread may raise to make the writer give up waiting on its descriptor; it
  // must outlive the writer. Null (the default): none.
  void setAbortFlag(const std::atomic<bool>* flag) { mAbort = flag; }
  // Name of the encoder in use (empty before open()).
  const char* encoderName() const { return mEncoderName; }

 private:
  enum class State { IDLE, OPEN, FINISHED, FAILED };

  status_t openEncoder(int bitrate);
  status_t openMuxer();
  status_t writeHeaderIfNeeded();
  // Feeds `frame` (null drains) and writes every packet the encoder gives back.
  status_t encode(AVFrame* frame);
  // Records a failure that ends the clip, frees everything, returns `err`.
  status_t fail(status_t err);
  // The write error if one happened, else `fallback`.
  status_t writeErrorOr(status_t fallback) const;
  void release();

  // Writes a chunk of the muxer's output to the descriptor; an AVERROR on failure.
  int writeOut(const uint8_t* buf, int size);

  State mState = State::IDLE;
  status_t mError = OK;
  int mFd = -1;
  bool mFdIsStream = false;                 // a pipe or socket: written without blocking
  const std::atomic<bool>* mAbort = nullptr;
  int mWidth = 0;
  int mHeight = 0;
  const char* mEncoderName = "";
  bool mHeaderWritten = false;
  int64_t mFirstUs = 0;
  int64_t mLastUs = 0;
  int64_t mLastKeyUs = 0;
  int64_t mMinSpacingUs = 0;  // shortest frame spacing so far; 0 before the second frame
  int64_t mFrames = 0;
  size_t mBytesWritten = 0;
  int mWriteErrno = 0;

  AVCodecContext* mCodec = nullptr;
  AVFormatContext* mMuxer = nullptr;
  AVIOContext* mIo = nullptr;
  AVStream* mStream = nullptr;  // owned by mMuxer
  AVFrame* mFrame = nullptr;
  AVPacket* mPacket = nullptr;
};

}  // namespace android
