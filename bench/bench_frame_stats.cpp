// Cost of the per-frame statistics on the 320x180 luma copy the engine keeps of every preview
// frame: luma mean/spread, Sobel with its two gradient planes, difference to the previous frame
// and the 32-bin histogram, each alone, all four one after the other, and the fused
// calcSmallFrameStats. Every benchmark runs with the vector paths (simd:1) and with the portable
// C paths (simd:0). The frames are two consecutive frames of a real hand-held clip, reduced
// 1280x720 -> 640x360 -> 320x180 with the library's own reducers, as the engine does.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <vector>

#include "DexFrameMetaData.h"
#include "TestData.h"

using android::DexFrameMetaData;
using android::KO_dataStats_t;

namespace {

constexpr int kW = 320;
constexpr int kH = 180;
constexpr int kN = kW * kH;
constexpr int kBins = 32;

std::vector<uint8_t> smallLuma(const char* file) {
  const std::vector<uint8_t> f = kovane_test::readNv21(file, 1280, 720);
  if (f.empty()) return {};
  std::vector<uint8_t> view(640 * 360), small(kN);
  DexFrameMetaData::downScaleLuma2x(view.data(), f.data(), 1280, 640, 360);
  DexFrameMetaData::downScaleLuma2x(small.data(), view.data(), 640, kW, kH);
  return small;
}

struct Frames {
  std::vector<uint8_t> cur = smallLuma("cockatoo_f006_1280x720.nv21");
  std::vector<uint8_t> prev = smallLuma("cockatoo_f005_1280x720.nv21");
  std::vector<int16_t> gx = std::vector<int16_t>(kN);
  std::vector<int16_t> gy = std::vector<int16_t>(kN);
  uint32_t hist[kBins] = {};
  bool ok() const { return cur.size() == static_cast<size_t>(kN) && prev.size() == cur.size(); }
};

Frames& frames() {
  static Frames f;
  return f;
}

// Pictures found; vector paths as the benchmark's argument says.
bool ready(benchmark::State& state) {
  DexFrameMetaData::setSimdEnabled(state.range(0) != 0);
  if (frames().ok()) return true;
  state.SkipWithError("test pictures not found");
  return false;
}

void setPixels(benchmark::State& state) {
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * kN);
}

void BM_MeanStddev(benchmark::State& state) {
  if (!ready(state)) return;
  Frames& f = frames();
  for (auto _ : state) {
    KO_dataStats_t s{};
    DexFrameMetaData::calcMeanStddev(f.cur.data(), &s, kN);
    benchmark::DoNotOptimize(s);
  }
  setPixels(state);
}

void BM_SobelFrame(benchmark::State& state) {
  if (!ready(state)) return;
  Frames& f = frames();
  for (auto _ : state) {
    KO_dataStats_t s{};
    DexFrameMetaData::calcSobelFrame(f.cur.data(), &s, kW, kH, 0, f.gx.data(), f.gy.data());
    benchmark::DoNotOptimize(s);
    benchmark::ClobberMemory();
  }
  setPixels(state);
}

void BM_MFrameDiff(benchmark::State& state) {
  if (!ready(state)) return;
  Frames& f = frames();
  for (auto _ : state) {
    KO_dataStats_t s{};
    DexFrameMetaData::calcMFrameDiff(f.cur.data(), f.prev.data(), &s, kN);
    benchmark::DoNotOptimize(s);
  }
  setPixels(state);
}

void BM_Histogram32(benchmark::State& state) {
  if (!ready(state)) return;
  Frames& f = frames();
  for (auto _ : state) {
    DexFrameMetaData::genHistogramPow2(f.cur.data(), f.hist, kW, kH, kW, kBins);
    benchmark::ClobberMemory();
  }
  setPixels(state);
}

// The four kernels one after the other, as the per-frame step used to call them.
void BM_AllSeparate(benchmark::State& state) {
  if (!ready(state)) return;
  Frames& f = frames();
  for (auto _ : state) {
    KO_dataStats_t luma{}, sobel{}, diff{};
    DexFrameMetaData::calcMeanStddev(f.cur.data(), &luma, kN);
    DexFrameMetaData::calcSobelFrame(f.cur.data(), &sobel, kW, kH, 0, f.gx.data(), f.gy.data());
    DexFrameMetaData::calcMFrameDiff(f.cur.data(), f.prev.data(), &diff, kN);
    DexFrameMetaData::genHistogramPow2(f.cur.data(), f.hist, kW, kH, kW, kBins);
    benchmark::DoNotOptimize(luma);
    benchmark::DoNotOptimize(sobel);
    benchmark::DoNotOptimize(diff);
    benchmark::ClobberMemory();
  }
  setPixels(state);
}

// The per-frame step in one call.
void BM_Fused(benchmark::State& state) {
  if (!ready(state)) return;
  Frames& f = frames();
  for (auto _ : state) {
    KO_dataStats_t luma{}, sobel{}, diff{};
    DexFrameMetaData::calcSmallFrameStats(f.cur.data(), f.prev.data(), kW, kH, &luma, &sobel,
                                          &diff, f.hist, kBins, f.gx.data(), f.gy.data());
    benchmark::DoNotOptimize(luma);
    benchmark::DoNotOptimize(sobel);
    benchmark::DoNotOptimize(diff);
    benchmark::ClobberMemory();
  }
  setPixels(state);
}

}  // namespace

BENCHMARK(BM_MeanStddev)->ArgName("simd")->Arg(1)->Arg(0);
BENCHMARK(BM_SobelFrame)->ArgName("simd")->Arg(1)->Arg(0);
BENCHMARK(BM_MFrameDiff)->ArgName("simd")->Arg(1)->Arg(0);
BENCHMARK(BM_Histogram32)->ArgName("simd")->Arg(1)->Arg(0);
BENCHMARK(BM_AllSeparate)->ArgName("simd")->Arg(1)->Arg(0);
BENCHMARK(BM_Fused)->ArgName("simd")->Arg(1)->Arg(0);

BENCHMARK_MAIN();
