// H.264 in fragmented MP4, written through a custom I/O context straight to a descriptor.
// The muxer never seeks (empty moov, one fragment per keyframe, fragment offsets relative to
// their own moof), so the byte stream can go into a pipe.
#include "KoClipWriter.h"

#include <fcntl.h>
#include <log/log.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <mutex>

#include <climits>
#include <sys/stat.h>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/imgutils.h>
}

namespace android {

namespace {

constexpr const char* kTag = "KoClipWriter";
constexpr AVRational kMicros = {1, 1000000};
constexpr int kIoBufferBytes = 64 * 1024;
#ifdef AV_PROFILE_H264_MAIN
constexpr int kProfileMain = AV_PROFILE_H264_MAIN;
#else
constexpr int kProfileMain = FF_PROFILE_H264_MAIN;
#endif
// The I/O write callback takes a const buffer from libavformat 61 on.
#if LIBAVFORMAT_VERSION_MAJOR >= 61
using IoBuffer = const uint8_t*;
#else
using IoBuffer = uint8_t*;
#endif

// Writes `size` bytes, going on after partial writes and interruptions. On a pipe or socket
// (`stream`) it waits for room with poll() and writes at most PIPE_BUF bytes at a time, so that
// no write blocks: a reader that stops reading fails the write with ETIMEDOUT after
// KoClipWriter::kStallTimeoutMs, and a raised `abort` flag fails it with ECANCELED within
// kPollMs. Returns 0 or an errno; `done` counts the bytes that were written either way.
int writeAll(int fd, bool stream, const std::atomic<bool>* abort, const uint8_t* buf, size_t size, size_t& done) {
  constexpr int kPollMs = 100;
  done = 0;
  int stalledMs = 0;
  while (done < size) {
    if (abort != nullptr && abort->load()) return ECANCELED;
    if (stream) {
      pollfd p = {fd, POLLOUT, 0};
      const int r = ::poll(&p, 1, kPollMs);
      if (r < 0 && errno != EINTR) return errno;
      if (r == 0) {
        stalledMs += kPollMs;
        if (stalledMs >= KoClipWriter::kStallTimeoutMs) return ETIMEDOUT;
        continue;
      }
      if (r < 0) continue;
      if (p.revents & POLLNVAL) return EBADF;
      stalledMs = 0;
    }
    const size_t chunk = stream ? std::min<size_t>(size - done, PIPE_BUF) : size - done;
    const ssize_t n = ::write(fd, buf + done, chunk);
    if (n > 0) {
      done += static_cast<size_t>(n);
    } else if (n == 0) {
      return EIO;
    } else if (errno == EAGAIN || errno == EWOULDBLOCK) {
      pollfd p = {fd, POLLOUT, 0};
      if (::poll(&p, 1, kPollMs) < 0 && errno != EINTR) return errno;
    } else if (errno != EINTR) {
      return errno;
    }
  }
  return 0;
}

// writeAll() with SIGPIPE blocked for this thread: a reader that went away must fail the
// write with EPIPE, not kill the process. The SIGPIPE such a write raises stays pending on
// this thread and is consumed before the old mask comes back, unless one was pending before
// (that one is not ours).
int writeAllNoSigpipe(int fd, bool stream, const std::atomic<bool>* abort, const uint8_t* buf, size_t size,
                      size_t& done) {
  sigset_t pipeSet;
  sigset_t oldSet;
  sigset_t pending;
  sigemptyset(&pipeSet);
  sigaddset(&pipeSet, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &pipeSet, &oldSet);
  sigemptyset(&pending);
  const bool pendingBefore = sigpending(&pending) == 0 && sigismember(&pending, SIGPIPE) == 1;
  const int err = writeAll(fd, stream, abort, buf, size, done);
  if (err == EPIPE && !pendingBefore) {
    const timespec zero = {0, 0};
    while (sigtimedwait(&pipeSet, nullptr, &zero) < 0 && errno == EINTR) {
    }
  }
  pthread_sigmask(SIG_SETMASK, &oldSet, nullptr);
  return err;
}

bool supportsYuv420p(const AVCodec* codec) {
  if (codec->pix_fmts == nullptr) return true;  // not stated: let open decide
  for (const AVPixelFormat* f = codec->pix_fmts; *f != AV_PIX_FMT_NONE; ++f) {
    if (*f == AV_PIX_FMT_YUV420P) return true;
  }
  return false;
}

}  // namespace

KoClipWriter::KoClipWriter() {
  // FFmpeg logs to the process's stderr, and the encoder prints its settings and statistics at
  // the information level for every clip. Unless the host has chosen a level of its own, only
  // warnings and errors are let through.
  static std::once_flag quiet;
  std::call_once(quiet, [] {
    if (av_log_get_level() == AV_LOG_INFO) av_log_set_level(AV_LOG_WARNING);
  });
}

KoClipWriter::~KoClipWriter() { release(); }

status_t KoClipWriter::open(int fd, int width, int height, int bitrate) {
  if (mState == State::OPEN) return INVALID_OPERATION;
  if (fd < 0 || width <= 0 || height <= 0 || (width & 1) != 0 || (height & 1) != 0 ||
      width > kMaxSide || height > kMaxSide || bitrate <= 0) {
    __android_log_print(ANDROID_LOG_ERROR, kTag, "%s: bad arguments fd %d size %dx%d rate %d",
                        __func__, fd, width, height, bitrate);
    return BAD_VALUE;
  }
  const int flags = ::fcntl(fd, F_GETFL);
  if (flags < 0 || (flags & O_ACCMODE) == O_RDONLY) {
    __android_log_print(ANDROID_LOG_ERROR, kTag, "%s: descriptor %d is not open for writing",
                        __func__, fd);
    return BAD_VALUE;
  }
  release();
  mFd = fd;
  struct stat st;
  mFdIsStream = ::fstat(fd, &st) == 0 && (S_ISFIFO(st.st_mode) || S_ISSOCK(st.st_mode));
  mWidth = width;
  mHeight = height;
  mError = OK;
  mEncoderName = "";
  mHeaderWritten = false;
  mFrames = 0;
  mMinSpacingUs = 0;
  mBytesWritten = 0;
  mWriteErrno = 0;
  mState = State::OPEN;

  status_t err = openEncoder(bitrate);
  if (err == OK) err = openMuxer();
  if (err == OK) {
    mFrame = av_frame_alloc();
    mPacket = av_packet_alloc();
    if (mFrame == nullptr || mPacket == nullptr) return fail(NO_MEMORY);
    mFrame->format = AV_PIX_FMT_YUV420P;
    mFrame->width = width;
    mFrame->height = height;
    if (av_frame_get_buffer(mFrame, 0) < 0) err = NO_MEMORY;
  }
  return err == OK ? OK : fail(err);
}

status_t KoClipWriter::openEncoder(int bitrate) {
  // libx264 first, then whatever other H.264 encoder this FFmpeg build has that opens.
  const AVCodec* preferred = avcodec_find_encoder_by_name("libx264");
  const AVCodec* codec = preferred;
  void* iter = nullptr;
  while (true) {
    if (codec == nullptr) {
      codec = av_codec_iterate(&iter);
      if (codec == nullptr) break;
      if (codec == preferred || !av_codec_is_encoder(codec) || codec->id != AV_CODEC_ID_H264) {
        codec = nullptr;
        continue;
      }
    }
    if (supportsYuv420p(codec)) {
      AVCodecContext* ctx = avcodec_alloc_context3(codec);
      if (ctx == nullptr) return NO_MEMORY;
      ctx->width = mWidth;
      ctx->height = mHeight;
      ctx->pix_fmt = AV_PIX_FMT_YUV420P;
      // Microsecond stamps pass through untouched; the frame rate only guides rate control.
      ctx->time_base = kMicros;
      ctx->framerate = AVRational{kFrameRateHint, 1};
      ctx->bit_rate = bitrate;
      ctx->gop_size = kFrameRateHint;
      ctx->max_b_frames = 0;
      ctx->thread_count = 1;
      ctx->profile = kProfileMain;
      ctx->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;  // MP4 keeps SPS/PPS in the sample entry
      AVDictionary* opts = nullptr;
      if (codec == preferred) {
        av_dict_set(&opts, "preset", "superfast", 0);
        av_dict_set(&opts, "tune", "zerolatency", 0);
        av_dict_set(&opts, "forced-idr", "1", 0);
        // x264 notes at warning level each time a forced keyframe meets one of its own scene
        // cuts; those notes are noise for a camera's log.
        av_dict_set(&opts, "x264-params", "log=-1", 0);
      }
      const int r = avcodec_open2(ctx, codec, &opts);
      av_dict_free(&opts);
      if (r >= 0) {
        mCodec = ctx;
        mEncoderName = codec->name;
        return OK;
      }
      __android_log_print(ANDROID_LOG_WARN, kTag, "%s: encoder %s does not open (%d)", __func__,
                          codec->name, r);
      avcodec_free_context(&ctx);
    }
    codec = nullptr;
  }
  __android_log_print(ANDROID_LOG_ERROR, kTag, "%s: no usable H.264 encoder", __func__);
  return UNKNOWN_ERROR;
}

status_t KoClipWriter::openMuxer() {
  if (avformat_alloc_output_context2(&mMuxer, nullptr, "mp4", nullptr) < 0 || mMuxer == nullptr) {
    return UNKNOWN_ERROR;
  }
  uint8_t* buffer = static_cast<uint8_t*>(av_malloc(kIoBufferBytes));
  if (buffer == nullptr) return NO_MEMORY;
  auto write = [](void* opaque, IoBuffer buf, int size) -> int {
    return static_cast<KoClipWriter*>(opaque)->writeOut(buf, size);
  };
  mIo = avio_alloc_context(buffer, kIoBufferBytes, 1, this, nullptr, write, nullptr);
  if (mIo == nullptr) {
    av_free(buffer);
    return NO_MEMORY;
  }
  mMuxer->pb = mIo;
  mMuxer->flags |= AVFMT_FLAG_CUSTOM_IO;
  mStream = avformat_new_stream(mMuxer, nullptr);
  if (mStream == nullptr) return NO_MEMORY;
  mStream->time_base = kMicros;
  if (avcodec_parameters_from_context(mStream->codecpar, mCodec) < 0) return NO_MEMORY;
  AVDictionary* opts = nullptr;
  av_dict_set(&opts, "movflags", "frag_keyframe+empty_moov+default_base_moof", 0);
  const int r = avformat_init_output(mMuxer, &opts);
  av_dict_free(&opts);
  if (r < 0) {
    __android_log_print(ANDROID_LOG_ERROR, kTag, "%s: muxer does not start (%d)", __func__, r);
    return UNKNOWN_ERROR;
  }
  return OK;
}

status_t KoClipWriter::writeHeaderIfNeeded() {
  if (mHeaderWritten) return OK;
  if (avformat_write_header(mMuxer, nullptr) < 0 || mWriteErrno != 0) {
    return writeErrorOr(UNKNOWN_ERROR);
  }
  mHeaderWritten = true;
  return OK;
}

status_t KoClipWriter::addFrame(const uint8_t* data, int64_t timestampUs) {
  if (mState == State::FAILED) return mError;
  if (mState != State::OPEN) return INVALID_OPERATION;
  if (data == nullptr || (mFrames > 0 && timestampUs <= mLastUs)) {
    __android_log_print(ANDROID_LOG_ERROR, kTag, "%s: frame %p at %lld us rejected", __func__,
                        static_cast<const void*>(data), static_cast<long long>(timestampUs));
    return BAD_VALUE;
  }
  status_t err = writeHeaderIfNeeded();
  if (err != OK) return fail(err);
  if (av_frame_make_writable(mFrame) < 0) return fail(NO_MEMORY);

  const size_t luma = static_cast<size_t>(mWidth) * static_cast<size_t>(mHeight);
  av_image_copy_plane(mFrame->data[0], mFrame->linesize[0], data, mWidth, mWidth, mHeight);
  av_image_copy_plane(mFrame->data[1], mFrame->linesize[1], data + luma, mWidth / 2, mWidth / 2,
                      mHeight / 2);
  av_image_copy_plane(mFrame->data[2], mFrame->linesize[2], data + luma + luma / 4, mWidth / 2,
                      mWidth / 2, mHeight / 2);

  // A keyframe when the next frame, at the current spacing, would otherwise end up more than
  // a keyframe interval after the last keyframe. Keyframes the encoder places by itself are
  // picked up from its packets.
  bool key = true;
  if (mFrames == 0) {
    mFirstUs = timestampUs;
  } else {
    const int64_t spacing = timestampUs - mLastUs;
    mMinSpacingUs = mMinSpacingUs == 0 ? spacing : std::min(mMinSpacingUs, spacing);
    key = timestampUs + spacing - mLastKeyUs > kKeyframeIntervalUs;
  }
  if (key) mLastKeyUs = timestampUs;
  mLastUs = timestampUs;
  ++mFrames;
  mFrame->pts = timestampUs - mFirstUs;
  mFrame->pict_type = key ? AV_PICTURE_TYPE_I : AV_PICTURE_TYPE_NONE;
  err = encode(mFrame);
  return err == OK ? OK : fail(err);
}

status_t KoClipWriter::encode(AVFrame* frame) {
  if (avcodec_send_frame(mCodec, frame) < 0) return UNKNOWN_ERROR;
  while (true) {
    const int r = avcodec_receive_packet(mCodec, mPacket);
    if (r == AVERROR(EAGAIN) || r == AVERROR_EOF) return OK;
    if (r < 0) return UNKNOWN_ERROR;
    if ((mPacket->flags & AV_PKT_FLAG_KEY) != 0) {
      mLastKeyUs = std::max(mLastKeyUs, mFirstUs + mPacket->pts);
    }
    // Only the last sample's duration comes from here: the muxer times every other sample by
    // the next one's stamp.
    mPacket->duration = mMinSpacingUs > 0 ? mMinSpacingUs : kMicros.den / kFrameRateHint;
    mPacket->stream_index = mStream->index;
    av_packet_rescale_ts(mPacket, kMicros, mStream->time_base);
    const int w = av_write_frame(mMuxer, mPacket);
    av_packet_unref(mPacket);
    if (w < 0 || mWriteErrno != 0) return writeErrorOr(UNKNOWN_ERROR);
  }
}

status_t KoClipWriter::finish() {
  if (mState == State::FAILED) return mError;
  if (mState != State::OPEN) return INVALID_OPERATION;
  status_t err = writeHeaderIfNeeded();
  if (err == OK) err = encode(nullptr);
  if (err == OK && av_write_trailer(mMuxer) < 0) err = writeErrorOr(UNKNOWN_ERROR);
  if (err == OK) {
    avio_flush(mIo);
    if (mWriteErrno != 0 || mIo->error < 0) err = writeErrorOr(UNKNOWN_ERROR);
  }
  if (err != OK) return fail(err);
  release();
  mState = State::FINISHED;
  return OK;
}

int KoClipWriter::writeOut(const uint8_t* buf, int size) {
  if (mWriteErrno != 0) return AVERROR(mWriteErrno);
  size_t done = 0;
  const int err = writeAllNoSigpipe(mFd, mFdIsStream, mAbort, buf, static_cast<size_t>(size), done);
  mBytesWritten += done;
  if (err != 0) {
    __android_log_print(ANDROID_LOG_ERROR, kTag, "%s: write to fd %d failed: %s", __func__, mFd,
                        strerror(err));
    mWriteErrno = err;
    return AVERROR(err);
  }
  return size;
}

status_t KoClipWriter::writeErrorOr(status_t fallback) const {
  return mWriteErrno != 0 ? -mWriteErrno : fallback;
}

status_t KoClipWriter::fail(status_t err) {
  __android_log_print(ANDROID_LOG_ERROR, kTag, "%s: clip abandoned after %lld frames (%d)",
                      __func__, static_cast<long long>(mFrames), err);
  mError = err;
  mState = State::FAILED;
  release();
  return err;
}

void KoClipWriter::release() {
  av_packet_free(&mPacket);
  av_frame_free(&mFrame);
  avcodec_free_context(&mCodec);
  // Freeing the muxer and the I/O context writes nothing: whatever is still buffered is
  // dropped with them.
  avformat_free_context(mMuxer);
  mMuxer = nullptr;
  mStream = nullptr;
  if (mIo != nullptr) {
    av_freep(&mIo->buffer);
    avio_context_free(&mIo);
  }
}

}  // namespace android
