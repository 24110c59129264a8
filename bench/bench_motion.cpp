// Cost of block motion on the 640x360 analysis view, as the engine runs it: estimate the motion of
// the new view against the stored reference, then store the new view as the next reference.
// Views are 2x reductions of consecutive real 1280x720 frames of the hand-held cockatoo clip
// (the bird moves, the camera shakes a little). "Run" alternates the two frames of a pair so
// that every iteration matches a real frame against its neighbour; "Estimate" and "StoreReference"
// time the two calls on their own. The last argument selects the kernels: 2 the fastest the CPU
// has (AVX2 here), 1 the 128-bit ones (SSE2), 0 the portable ones.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <string>
#include <vector>

#include "DexFrameMetaData.h"
#include "DexMotionDetection.h"
#include "TestData.h"

using android::DexFrameMetaData;
using android::DexMotionDetection;

namespace {

constexpr int kW = 640;
constexpr int kH = 360;

std::vector<uint8_t> view(const char* name) {
  const std::vector<uint8_t> f = kovane_test::readNv21(name, 1280, 720);
  if (f.empty()) return {};
  std::vector<uint8_t> v(static_cast<size_t>(kW) * kH);
  DexFrameMetaData::downScaleLuma2x(v.data(), f.data(), 1280, kW, kH);
  return v;
}

struct Pair {
  std::vector<uint8_t> a, b;
};

// Consecutive frames: 5 -> 6 and 100 -> 101 of the clip, and 155 -> 160 (a larger step).
const Pair& pair(int i) {
  static const Pair pairs[] = {
      {view("cockatoo_f005_1280x720.nv21"), view("cockatoo_f006_1280x720.nv21")},
      {view("cockatoo_f100_1280x720.nv21"), view("cockatoo_f101_1280x720.nv21")},
      {view("cockatoo_f155_1280x720.nv21"), view("cockatoo_f160_1280x720.nv21")},
  };
  return pairs[i];
}

bool ready(benchmark::State& state, const Pair& p) {
  if (p.a.empty() || p.b.empty()) {
    state.SkipWithError("test picture missing");
    return false;
  }
  DexMotionDetection::setKernels(static_cast<DexMotionDetection::KernelSet>(state.range(1)));
  return true;
}

void BM_MotionRun(benchmark::State& state) {
  const Pair& p = pair(static_cast<int>(state.range(0)));
  if (!ready(state, p)) return;
  DexMotionDetection md(kW, kH);
  md.copyNewRefFrame(p.a.data(), kW, kH, kW);
  DexMotionDetection::motionResult_t r{};
  bool flip = false;
  for (auto _ : state) {
    const uint8_t* cur = flip ? p.a.data() : p.b.data();
    md.processMEPerFrame(cur, nullptr, nullptr, nullptr, nullptr, kW, &r);
    md.copyNewRefFrame(cur, kW, kH, kW);
    benchmark::DoNotOptimize(r);
    flip = !flip;
  }
  DexMotionDetection::setKernels(DexMotionDetection::KERNELS_FASTEST);
  state.counters["blocks"] = r.numBlocks;
}

void BM_MotionEstimate(benchmark::State& state) {
  const Pair& p = pair(static_cast<int>(state.range(0)));
  if (!ready(state, p)) return;
  DexMotionDetection md(kW, kH);
  md.copyNewRefFrame(p.a.data(), kW, kH, kW);
  DexMotionDetection::motionResult_t r{};
  for (auto _ : state) {
    md.processMEPerFrame(p.b.data(), nullptr, nullptr, nullptr, nullptr, kW, &r);
    benchmark::DoNotOptimize(r);
  }
  DexMotionDetection::setKernels(DexMotionDetection::KERNELS_FASTEST);
  state.counters["blocks"] = r.numBlocks;
}

void BM_MotionStoreReference(benchmark::State& state) {
  const Pair& p = pair(static_cast<int>(state.range(0)));
  if (!ready(state, p)) return;
  DexMotionDetection md(kW, kH);
  for (auto _ : state) {
    md.copyNewRefFrame(p.a.data(), kW, kH, kW);
    benchmark::ClobberMemory();
  }
  DexMotionDetection::setKernels(DexMotionDetection::KERNELS_FASTEST);
}

void pairsAndPaths(benchmark::internal::Benchmark* b) {
  b->ArgNames({"pair", "kernels"});
  for (int kernels : {2, 1, 0}) {
    for (int i = 0; i < 3; ++i) b->Args({i, kernels});
  }
}

}  // namespace

BENCHMARK(BM_MotionRun)->Apply(pairsAndPaths)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_MotionEstimate)->Apply(pairsAndPaths)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_MotionStoreReference)
    ->ArgNames({"pair", "kernels"})
    ->Args({0, 2})
    ->Args({0, 1})
    ->Args({0, 0})
    ->Unit(benchmark::kMicrosecond);

BENCHMARK_MAIN();
