// Cost of writing one preview clip: 3 s of 640x360 frames at 30 fps (90 frames) encoded as
// H.264 and muxed into fragmented MP4 on /dev/null, encoder set-up included. The frames are
// real camera content prepared before timing: a 640x360 window panning across the 1280x720
// cockatoo frames at full resolution (6 px right and 2 px down a frame), either over one
// frame for the whole clip ("one scene") or switching to the next of six frames every 15
// frames ("cuts").
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <string>
#include <vector>

#include "KoClipWriter.h"
#include "TestData.h"

namespace {

using android::KoClipWriter;

constexpr int kW = 640;
constexpr int kH = 360;
constexpr int kFrames = 90;
constexpr int64_t kFrameUs = 33333;

std::vector<std::vector<uint8_t>> makeClip(bool cuts) {
  const char* names[] = {"cockatoo_f005_1280x720.nv21", "cockatoo_f006_1280x720.nv21",
                         "cockatoo_f100_1280x720.nv21", "cockatoo_f101_1280x720.nv21",
                         "cockatoo_f155_1280x720.nv21", "cockatoo_f160_1280x720.nv21"};
  std::vector<std::vector<uint8_t>> sources;
  for (const char* n : names) sources.push_back(kovane_test::readNv21(n, 2 * kW, 2 * kH));
  std::vector<std::vector<uint8_t>> clip;
  for (int i = 0; i < kFrames; ++i) {
    const std::vector<uint8_t>& src = sources[cuts ? i / 15 : 0];
    if (src.empty()) return {};
    const int j = cuts ? i % 15 : i;
    const int x0 = (6 * j) & ~1, y0 = 2 * j;
    std::vector<uint8_t> f(static_cast<size_t>(kW) * kH * 3 / 2);
    uint8_t* u = f.data() + kW * kH;
    uint8_t* v = u + kW * kH / 4;
    for (int y = 0; y < kH; ++y) {
      for (int x = 0; x < kW; ++x) f[y * kW + x] = src[(y0 + y) * 2 * kW + x0 + x];
    }
    const uint8_t* vu = src.data() + 4 * kW * kH;  // 1280x720 luma, then V,U pairs
    for (int y = 0; y < kH / 2; ++y) {
      for (int x = 0; x < kW / 2; ++x) {
        const int s = (y0 / 2 + y) * 2 * kW + x0 + 2 * x;
        v[y * kW / 2 + x] = vu[s];
        u[y * kW / 2 + x] = vu[s + 1];
      }
    }
    clip.push_back(std::move(f));
  }
  return clip;
}

void BM_WriteClip(benchmark::State& state) {
  const std::vector<std::vector<uint8_t>> clip = makeClip(state.range(0) != 0);
  const int fd = ::open("/dev/null", O_WRONLY);
  if (clip.empty() || fd < 0) {
    state.SkipWithError("test frames or /dev/null missing");
    return;
  }
  KoClipWriter writer;
  size_t bytes = 0;
  for (auto _ : state) {
    bool ok = writer.open(fd, kW, kH) == android::OK;
    for (int i = 0; ok && i < kFrames; ++i) {
      ok = writer.addFrame(clip[i].data(), 5000000 + i * kFrameUs) == android::OK;
    }
    if (!ok || writer.finish() != android::OK) {
      state.SkipWithError("writing the clip failed");
      break;
    }
    bytes = writer.bytesWritten();
  }
  ::close(fd);
  state.SetLabel(state.range(0) != 0 ? "cuts" : "one scene");
  state.counters["clip_bytes"] = static_cast<double>(bytes);
  // CPU seconds per frame.
  state.counters["frame_s"] = benchmark::Counter(
      kFrames, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}
BENCHMARK(BM_WriteClip)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
