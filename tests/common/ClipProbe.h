#pragma once
// Reads back an MP4 clip with FFmpeg for tests: its container and streams, and every decoded
// frame (planar 4:2:0) with its presentation time, so that a test can compare what an encoder
// wrote with what it was fed.
#include <cstdint>
#include <string>
#include <vector>

namespace kovane_test {

struct ProbedClip {
  bool ok = false;
  std::string error;
  std::string format;        // container names as FFmpeg lists them, e.g. "mov,mp4,m4a,3gp,3g2,mj2"
  int streams = 0;
  int videoStreams = 0;
  std::string codec;         // of the first video stream, e.g. "h264"
  int profile = 0;           // FFmpeg's profile number (H.264 main 77, baseline 66)
  int width = 0;
  int height = 0;
  std::vector<int64_t> ptsUs;                // per decoded frame, from the stream's start
  std::vector<int64_t> keyUs;                // stamps of the packets flagged as sync samples
  bool anyB = false;                         // a frame decoded as a B picture
  int64_t trackDurationUs = 0;               // as the track's sample durations add up
  // Per decoded frame: Y plane, then U, then V, rows packed.
  std::vector<std::vector<uint8_t>> frames;
  int64_t durationUs() const;                // last pts plus one frame spacing; 0 without frames
};

// Decodes the whole clip at `path`; bytes before `offset` are skipped (an MP4 embedded in a
// larger file).
ProbedClip probeClip(const std::string& path, int64_t offset = 0);

// PSNR of two w x h planes, in dB (99 for identical planes).
double planePsnr(const uint8_t* a, const uint8_t* b, int w, int h);

}  // namespace kovane_test
