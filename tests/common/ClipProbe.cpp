#include "ClipProbe.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/imgutils.h>
}

#include <cmath>
#include <cstdio>
#include <cstring>
#include <memory>

namespace kovane_test {

namespace {

// The file from `offset` on, as FFmpeg's input.
struct OffsetFile {
  FILE* f = nullptr;
  int64_t offset = 0;
  static int read(void* opaque, uint8_t* buf, int size) {
    auto* o = static_cast<OffsetFile*>(opaque);
    const size_t n = fread(buf, 1, static_cast<size_t>(size), o->f);
    return n == 0 ? AVERROR_EOF : static_cast<int>(n);
  }
  static int64_t seek(void* opaque, int64_t pos, int whence) {
    auto* o = static_cast<OffsetFile*>(opaque);
    if (whence == AVSEEK_SIZE) {
      const long here = ftell(o->f);
      fseek(o->f, 0, SEEK_END);
      const int64_t size = ftell(o->f) - o->offset;
      fseek(o->f, here, SEEK_SET);
      return size;
    }
    whence &= ~AVSEEK_FORCE;
    if (whence == SEEK_SET) pos += o->offset;
    if (fseek(o->f, static_cast<long>(pos), whence) != 0) return -1;
    return ftell(o->f) - o->offset;
  }
};

}  // namespace

int64_t ProbedClip::durationUs() const {
  if (ptsUs.empty()) return 0;
  const int64_t spacing = ptsUs.size() > 1 ? ptsUs[1] - ptsUs[0] : 0;
  return ptsUs.back() - ptsUs.front() + spacing;
}

ProbedClip probeClip(const std::string& path, int64_t offset) {
  ProbedClip out;
  OffsetFile file;
  file.f = fopen(path.c_str(), "rb");
  file.offset = offset;
  if (!file.f || fseek(file.f, static_cast<long>(offset), SEEK_SET) != 0) {
    if (file.f) fclose(file.f);
    out.error = "cannot open " + path;
    return out;
  }
  const int kIoSize = 1 << 16;
  uint8_t* ioBuf = static_cast<uint8_t*>(av_malloc(kIoSize));
  AVIOContext* io = avio_alloc_context(ioBuf, kIoSize, 0, &file, &OffsetFile::read, nullptr, &OffsetFile::seek);
  AVFormatContext* fmt = avformat_alloc_context();
  fmt->pb = io;
  AVCodecContext* dec = nullptr;
  AVPacket* pkt = av_packet_alloc();
  AVFrame* frame = av_frame_alloc();
  int videoIndex = -1;
  AVRational tb = {1, 1000000};
  int64_t firstPts = AV_NOPTS_VALUE;

  auto receive = [&]() {
    while (avcodec_receive_frame(dec, frame) == 0) {
      const int64_t pts = frame->best_effort_timestamp;
      if (firstPts == AV_NOPTS_VALUE) firstPts = pts;
      out.ptsUs.push_back(av_rescale_q(pts - firstPts, tb, AVRational{1, 1000000}));
      out.anyB |= frame->pict_type == AV_PICTURE_TYPE_B;
      const size_t luma = static_cast<size_t>(out.width) * out.height;
      std::vector<uint8_t> f(luma * 3 / 2);
      for (int p = 0; p < 3 && frame->width == out.width && frame->height == out.height; ++p) {
        const int w = p == 0 ? out.width : out.width / 2, h = p == 0 ? out.height : out.height / 2;
        uint8_t* dst = f.data() + (p == 0 ? 0 : luma + (p - 1) * luma / 4);
        for (int r = 0; r < h; ++r) {
          memcpy(dst + static_cast<size_t>(r) * w, frame->data[p] + static_cast<ptrdiff_t>(r) * frame->linesize[p],
                 static_cast<size_t>(w));
        }
      }
      out.frames.push_back(std::move(f));
      av_frame_unref(frame);
    }
  };

  if (avformat_open_input(&fmt, nullptr, nullptr, nullptr) < 0) {
    fmt = nullptr;  // freed by the failed open
    out.error = "not a readable container";
  } else if (avformat_find_stream_info(fmt, nullptr) < 0) {
    out.error = "no stream information";
  } else {
    out.format = fmt->iformat->name;
    out.streams = static_cast<int>(fmt->nb_streams);
    for (unsigned i = 0; i < fmt->nb_streams; ++i) {
      if (fmt->streams[i]->codecpar->codec_type != AVMEDIA_TYPE_VIDEO) continue;
      ++out.videoStreams;
      if (videoIndex < 0) videoIndex = static_cast<int>(i);
    }
    if (videoIndex < 0) {
      out.error = "no video stream";
    } else {
      AVStream* st = fmt->streams[videoIndex];
      tb = st->time_base;
      const AVCodec* codec = avcodec_find_decoder(st->codecpar->codec_id);
      out.codec = avcodec_get_name(st->codecpar->codec_id);
      out.profile = st->codecpar->profile;
      out.width = st->codecpar->width;
      out.height = st->codecpar->height;
      dec = codec ? avcodec_alloc_context3(codec) : nullptr;
      if (!dec || avcodec_parameters_to_context(dec, st->codecpar) < 0 || avcodec_open2(dec, codec, nullptr) < 0) {
        out.error = "no decoder";
      } else {
        while (av_read_frame(fmt, pkt) >= 0) {
          if (pkt->stream_index == videoIndex) {
            if (pkt->flags & AV_PKT_FLAG_KEY) out.keyUs.push_back(av_rescale_q(pkt->pts, tb, AVRational{1, 1000000}));
            if (avcodec_send_packet(dec, pkt) == 0) receive();
          }
          av_packet_unref(pkt);
        }
        avcodec_send_packet(dec, nullptr);
        receive();
        out.trackDurationUs = av_rescale_q(st->duration, tb, AVRational{1, 1000000});
        out.ok = true;
      }
    }
  }
  av_frame_free(&frame);
  av_packet_free(&pkt);
  avcodec_free_context(&dec);
  avformat_close_input(&fmt);
  if (io) av_freep(&io->buffer);
  avio_context_free(&io);
  fclose(file.f);
  return out;
}

double planePsnr(const uint8_t* a, const uint8_t* b, int w, int h) {
  double se = 0.0;
  const size_t n = static_cast<size_t>(w) * h;
  for (size_t i = 0; i < n; ++i) {
    const double d = static_cast<double>(a[i]) - b[i];
    se += d * d;
  }
  if (se == 0.0) return 99.0;
  return 10.0 * std::log10(255.0 * 255.0 / (se / static_cast<double>(n)));
}

}  // namespace kovane_test
