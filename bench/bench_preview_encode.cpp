// Cost of feeding the preview encoder's rolling buffer (per kept preview frame on the
// foreground thread) and of reading a frame back for a clip.
#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <thread>
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

// The foreground's cost of a kept frame while clips are being encoded, at the preview's pace
// (a frame every 33 ms): every 45 frames a clip opens 1.5 s back and is ended 1.5 s later, so
// one or two clips are open and the encoding thread works beside the foreground. "worstMs" is
// the slowest single call: encoding must never make the foreground wait.
void BM_AddFrameWhileClipsEncode(benchmark::State& state) {
  const int w = 640, h = 360;
  std::vector<uint8_t> frame = makeFrame(w, h);
  KoPreviewEncode enc(true, true);
  const int devNull = open("/dev/null", O_WRONLY);
  int64_t ts = 1000000000;
  int i = 0;
  // The buffer is full and warm before the measured frames, as after a few seconds of preview.
  for (int k = 0; k < 120; ++k, ts += 33333) enc.addFrame(frame.data(), w, h, ts);
  double worst = 0.0;
  auto next = std::chrono::steady_clock::now();
  for (auto _ : state) {
    // A moving stripe, so that every frame is a new picture for the encoder.
    memset(frame.data() + static_cast<size_t>(i % h) * w, (i * 7) & 255, static_cast<size_t>(w));
    std::this_thread::sleep_until(next);
    next += std::chrono::microseconds(33333);
    const auto t0 = std::chrono::steady_clock::now();
    enc.addFrame(frame.data(), w, h, ts);
    if (i % 45 == 0 && i >= 45) enc.startClip(i, devNull, ts - 1500000);
    if (i % 45 == 0 && i >= 135) enc.endClip(i - 90, ts);
    const double ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
    worst = std::max(worst, ms);
    state.SetIterationTime(ms / 1000.0);
    ts += 33333;
    ++i;
  }
  state.counters["worstMs"] = worst;
  state.counters["openClips"] = static_cast<double>(enc.openClips());
  close(devNull);
}
BENCHMARK(BM_AddFrameWhileClipsEncode)->Iterations(240)->UseManualTime()->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
