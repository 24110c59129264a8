// Cost of feeding the preview encoder's rolling buffer (per kept preview frame on the
// foreground thread) and of reading a frame back for a clip.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <vector>

#include "KoPreviewEncode.h"
#include "TestData.h"

namespace {

using android::KoPreviewEncode;

// A 640x360 (or 640x480) planar frame whose luma comes from a real frame, chroma flat.
std::vector<uint8_t> makeFrame(int w, int h) {
  std::vector<uint8_t> f(static_cast<size_t>(w) * h * 3 / 2, 128);
  const std::vector<uint8_t> src = kovane_test::readNv21("cockatoo_f005_1280x720.nv21", 1280, 720);
  if (src.empty()) return f;
  for (int y = 0; y < h; ++y) {
    for (int x = 0; x < w; ++x) f[static_cast<size_t>(y) * w + x] = src[static_cast<size_t>(2 * (y % 360)) * 1280 + 2 * x];
  }
  return f;
}

// Warm buffer at 30 fps: every frame reuses a dropped frame's buffer.
void BM_AddFrameWarm(benchmark::State& state) {
  const int w = 640, h = static_cast<int>(state.range(0));
  std::vector<uint8_t> frame = makeFrame(w, h);
  KoPreviewEncode enc(true, true);
  int64_t ts = 1000000000;
  for (int i = 0; i < 200; ++i, ts += 33333) enc.addFrame(frame.data(), w, h, ts);
  for (auto _ : state) {
    enc.addFrame(frame.data(), w, h, ts);
    ts += 33333;
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(frame.size()));
  state.counters["frames"] = static_cast<double>(enc.frameCount());
  state.counters["memMiB"] = static_cast<double>(enc.memoryBytes()) / (1024.0 * 1024.0);
}
BENCHMARK(BM_AddFrameWarm)->Arg(360)->Arg(480);

// Filling from empty after a flush (allocations included).
void BM_FillAfterFlush(benchmark::State& state) {
  const int w = 640, h = 360;
  std::vector<uint8_t> frame = makeFrame(w, h);
  KoPreviewEncode enc(true, true);
  for (auto _ : state) {
    int64_t ts = 1000000000;
    for (int i = 0; i < 120; ++i, ts += 33333) enc.addFrame(frame.data(), w, h, ts);
    enc.flush();
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * 120);
}
BENCHMARK(BM_FillAfterFlush)->Unit(benchmark::kMillisecond);

// Reading the whole buffer back, oldest first, as a clip writer would.
void BM_CopyAllFrames(benchmark::State& state) {
  const int w = 640, h = 360;
  std::vector<uint8_t> frame = makeFrame(w, h);
  KoPreviewEncode enc(true, true);
  int64_t ts = 1000000000;
  for (int i = 0; i < 200; ++i, ts += 33333) enc.addFrame(frame.data(), w, h, ts);
  std::vector<uint8_t> out(frame.size());
  for (auto _ : state) {
    int fw = 0, fh = 0;
    int64_t t = 0;
    for (int64_t from = 0; enc.copyFrame(from, out.data(), out.size(), fw, fh, t) == android::OK;
         from = t + 1) {
      benchmark::DoNotOptimize(out.data());
    }
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) *
                          static_cast<int64_t>(enc.frameCount()));
}
BENCHMARK(BM_CopyAllFrames)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
