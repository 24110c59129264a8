#include "ClipDecoder.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/imgutils.h>
#include <libswscale/swscale.h>
}

#include <algorithm>
#include <cmath>
#include <cstring>

namespace kovane_replay {

struct ClipDecoder::State {
  AVFormatContext* format = nullptr;
  AVCodecContext* codec = nullptr;
  AVPacket* packet = nullptr;
  AVFrame* frame = nullptr;
  SwsContext* sws = nullptr;
  int stream = -1;
  AVRational timeBase{1, 1};
  bool draining = false;
  bool finished = false;
  // Geometry of the scaled picture inside the output (letterbox) or of the output inside the
  // scaled picture (crop).
  int scaledW = 0, scaledH = 0;
  Nv21Image scaled;  // crop: the whole scaled picture before cutting

  ~State() {
    sws_freeContext(sws);
    av_frame_free(&frame);
    av_packet_free(&packet);
    avcodec_free_context(&codec);
    avformat_close_input(&format);
  }
};

namespace {

std::string avError(int code) {
  char text[AV_ERROR_MAX_STRING_SIZE] = {0};
  av_strerror(code, text, sizeof(text));
  return text;
}

}  // namespace

ClipDecoder::ClipDecoder() = default;
ClipDecoder::~ClipDecoder() = default;

bool ClipDecoder::fail(const std::string& text) {
  mError = text;
  return false;
}

bool ClipDecoder::open(const std::string& path) {
  mState.reset(new State());
  mError.clear();
  mNextIndex = 0;
  mFirstPts = INT64_MIN;
  av_log_set_level(AV_LOG_ERROR);
  State& s = *mState;
  int rc = avformat_open_input(&s.format, path.c_str(), nullptr, nullptr);
  if (rc < 0) return fail("cannot open " + path + ": " + avError(rc));
  rc = avformat_find_stream_info(s.format, nullptr);
  if (rc < 0) return fail("cannot read the streams of " + path + ": " + avError(rc));
  const AVCodec* decoder = nullptr;
  s.stream = av_find_best_stream(s.format, AVMEDIA_TYPE_VIDEO, -1, -1, &decoder, 0);
  if (s.stream < 0 || decoder == nullptr) return fail(path + " has no decodable video stream");
  AVStream* st = s.format->streams[s.stream];
  s.codec = avcodec_alloc_context3(decoder);
  if (!s.codec) return fail("out of memory");
  rc = avcodec_parameters_to_context(s.codec, st->codecpar);
  if (rc >= 0) rc = avcodec_open2(s.codec, decoder, nullptr);
  if (rc < 0) return fail("cannot open the decoder of " + path + ": " + avError(rc));
  s.packet = av_packet_alloc();
  s.frame = av_frame_alloc();
  if (!s.packet || !s.frame) return fail("out of memory");
  s.timeBase = st->time_base;

  mInfo = Info();
  mInfo.width = s.codec->width;
  mInfo.height = s.codec->height;
  AVRational rate = st->avg_frame_rate.num > 0 ? st->avg_frame_rate : st->r_frame_rate;
  mInfo.fps = rate.num > 0 && rate.den > 0 ? av_q2d(rate) : 0.0;
  if (st->duration > 0) {
    mInfo.durationUs = av_rescale_q(st->duration, st->time_base, AVRational{1, 1000000});
  } else if (s.format->duration > 0) {
    mInfo.durationUs = s.format->duration;
  }
  mInfo.frameCountHint = st->nb_frames > 0 ? static_cast<int>(st->nb_frames) : 0;
  if (mInfo.width <= 0 || mInfo.height <= 0) return fail(path + ": video stream has no picture size");
  return setOutput(0, 0, FIT_CROP);
}

bool ClipDecoder::setOutput(int width, int height, Fit fit) {
  if (!mState) return fail("no clip open");
  if (width == 0 && height == 0) {
    width = mInfo.width & ~1;
    height = mInfo.height & ~1;
  }
  if (width < 16 || height < 16 || (width & 1) || (height & 1) || width > 8192 || height > 8192) {
    return fail("output size " + std::to_string(width) + "x" + std::to_string(height) +
                " must be even and between 16x16 and 8192x8192");
  }
  mOutWidth = width;
  mOutHeight = height;
  mFit = fit;
  // Scale factor: cover the output (crop) or fit inside it (letterbox).
  const double sx = static_cast<double>(width) / mInfo.width;
  const double sy = static_cast<double>(height) / mInfo.height;
  const double scale = fit == FIT_CROP ? std::max(sx, sy) : std::min(sx, sy);
  int w = static_cast<int>(std::lround(mInfo.width * scale)) & ~1;
  int h = static_cast<int>(std::lround(mInfo.height * scale)) & ~1;
  if (fit == FIT_CROP) {
    w = std::max(w, width);
    h = std::max(h, height);
  } else {
    w = std::max(2, std::min(w, width));
    h = std::max(2, std::min(h, height));
  }
  State& s = *mState;
  s.scaledW = w;
  s.scaledH = h;
  s.scaled.allocate(w, h);
  sws_freeContext(s.sws);
  s.sws = nullptr;
  return true;
}

bool ClipDecoder::convert(ClipFrame& out) {
  State& s = *mState;
  AVFrame* f = s.frame;
  s.sws = sws_getCachedContext(s.sws, f->width, f->height, static_cast<AVPixelFormat>(f->format),
                               s.scaledW, s.scaledH, AV_PIX_FMT_NV21, SWS_BICUBIC, nullptr, nullptr,
                               nullptr);
  if (!s.sws) return fail("cannot convert the clip's pixel format to NV21");
  uint8_t* dst[4] = {s.scaled.y(), s.scaled.vu(), nullptr, nullptr};
  int dstStride[4] = {s.scaledW, s.scaledW, 0, 0};
  sws_scale(s.sws, f->data, f->linesize, 0, f->height, dst, dstStride);

  out.image.allocate(mOutWidth, mOutHeight);
  Nv21Image& o = out.image;
  if (mFit == FIT_CROP) {
    const int x0 = ((s.scaledW - mOutWidth) / 2) & ~1;
    const int y0 = ((s.scaledH - mOutHeight) / 2) & ~1;
    for (int y = 0; y < mOutHeight; ++y) {
      memcpy(o.y() + static_cast<size_t>(y) * mOutWidth,
             s.scaled.y() + static_cast<size_t>(y + y0) * s.scaledW + x0, mOutWidth);
    }
    for (int y = 0; y < mOutHeight / 2; ++y) {
      memcpy(o.vu() + static_cast<size_t>(y) * mOutWidth,
             s.scaled.vu() + static_cast<size_t>(y + y0 / 2) * s.scaledW + x0, mOutWidth);
    }
  } else {
    memset(o.y(), 16, static_cast<size_t>(mOutWidth) * mOutHeight);
    memset(o.vu(), 128, static_cast<size_t>(mOutWidth) * mOutHeight / 2);
    const int x0 = ((mOutWidth - s.scaledW) / 2) & ~1;
    const int y0 = ((mOutHeight - s.scaledH) / 2) & ~1;
    for (int y = 0; y < s.scaledH; ++y) {
      memcpy(o.y() + static_cast<size_t>(y + y0) * mOutWidth + x0,
             s.scaled.y() + static_cast<size_t>(y) * s.scaledW, s.scaledW);
    }
    for (int y = 0; y < s.scaledH / 2; ++y) {
      memcpy(o.vu() + static_cast<size_t>(y + y0 / 2) * mOutWidth + x0,
             s.scaled.vu() + static_cast<size_t>(y) * s.scaledW, s.scaledW);
    }
  }

  out.index = mNextIndex++;
  if (mFpsOverride > 0.0) {
    out.ptsUs = static_cast<int64_t>(std::llround(out.index * 1e6 / mFpsOverride));
  } else {
    int64_t pts = f->best_effort_timestamp;
    if (pts == AV_NOPTS_VALUE) {
      const double fps = mInfo.fps > 0 ? mInfo.fps : 25.0;
      out.ptsUs = static_cast<int64_t>(std::llround(out.index * 1e6 / fps));
    } else {
      const int64_t us = av_rescale_q(pts, s.timeBase, AVRational{1, 1000000});
      if (mFirstPts == INT64_MIN) mFirstPts = us;
      out.ptsUs = us - mFirstPts;
    }
  }
  return true;
}

bool ClipDecoder::next(ClipFrame& out) {
  if (!mState || !mState->codec) return fail("no clip open");
  State& s = *mState;
  while (!s.finished) {
    int rc = avcodec_receive_frame(s.codec, s.frame);
    if (rc == 0) {
      const bool ok = convert(out);
      av_frame_unref(s.frame);
      return ok;
    }
    if (rc == AVERROR_EOF) {
      s.finished = true;
      break;
    }
    if (rc != AVERROR(EAGAIN)) return fail("decoding failed: " + avError(rc));
    if (s.draining) {
      s.finished = true;
      break;
    }
    rc = av_read_frame(s.format, s.packet);
    if (rc == AVERROR_EOF) {
      s.draining = true;
      avcodec_send_packet(s.codec, nullptr);
      continue;
    }
    if (rc < 0) return fail("reading the clip failed: " + avError(rc));
    if (s.packet->stream_index == s.stream) {
      rc = avcodec_send_packet(s.codec, s.packet);
      av_packet_unref(s.packet);
      if (rc < 0 && rc != AVERROR(EAGAIN)) return fail("decoding failed: " + avError(rc));
    } else {
      av_packet_unref(s.packet);
    }
  }
  return false;
}

}  // namespace kovane_replay
