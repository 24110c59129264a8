// Cost of the upscalers and of chroma interleaving against libyuv at the two ratios the engine's
// downscaling produces: 640x360 -> 1920x1080 (3x) and 640x480 -> 1440x1080 (2.25x). Each ratio
// runs the specialised kernel, the generic kernel at the same sizes, and libyuv's bilinear
// ScalePlane (chroma: ScalePlane on both planes, then MergeUVPlane). Sources are real pictures;
// chroma sizes count chroma samples.
#include <benchmark/benchmark.h>
#include <libyuv.h>

#include <algorithm>
#include <cstdint>
#include <vector>

#include "DexFrameMetaData.h"
#include "TestData.h"

using android::DexFrameMetaData;

namespace {

struct Planes {
  int w = 0;
  int h = 0;
  std::vector<uint8_t> y, u, v;  // row stride w
};

// A w x h crop (from the top left) of the luma and of the two chroma planes of an NV21 file of
// the group photo (its chroma planes, 960x540, hold the crops used here).
Planes load(const char* file, int fileW, int fileH, int w, int h) {
  Planes p;
  const std::vector<uint8_t> f = kovane_test::readNv21(file, fileW, fileH);
  if (f.empty() || w > fileW / 2 || h > fileH / 2) return p;
  p.w = w;
  p.h = h;
  p.y.resize(static_cast<size_t>(w) * h);
  p.u.resize(p.y.size());
  p.v.resize(p.y.size());
  const uint8_t* vu = f.data() + static_cast<size_t>(fileW) * fileH;
  for (int r = 0; r < h; ++r) {
    std::copy_n(&f[static_cast<size_t>(r) * fileW], w, &p.y[static_cast<size_t>(r) * w]);
    const uint8_t* c = vu + static_cast<size_t>(r) * fileW;
    for (int x = 0; x < w; ++x) {
      p.v[static_cast<size_t>(r) * w + x] = c[2 * x];
      p.u[static_cast<size_t>(r) * w + x] = c[2 * x + 1];
    }
  }
  return p;
}

const Planes& source3x() {
  static const Planes p = load("solvay_1920x1080.nv21", 1920, 1080, 640, 360);
  return p;
}
const Planes& source225x() {
  static const Planes p = load("solvay_1920x1080.nv21", 1920, 1080, 640, 480);
  return p;
}

enum Which { kSpecial, kGeneric, kLibyuv };

void lumaScale(benchmark::State& state, const Planes& s, int dw, int dh, Which which) {
  if (s.w == 0) {
    state.SkipWithError("test picture missing");
    return;
  }
  std::vector<uint8_t> dst(static_cast<size_t>(dw) * dh);
  for (auto _ : state) {
    if (which == kSpecial && dw == 3 * s.w) {
      DexFrameMetaData::lumaBiUpScaler3x(s.y.data(), dst.data(), s.w, dw, dh, dw);
    } else if (which == kSpecial) {
      DexFrameMetaData::lumaBiUpScaler225x(s.y.data(), dst.data(), s.h, s.w, dw, dh, dw);
    } else if (which == kGeneric) {
      DexFrameMetaData::lumaBiScalerGeneric(s.y.data(), dst.data(), s.w, s.h, s.w, dw, dh, dw);
    } else {
      libyuv::ScalePlane(s.y.data(), s.w, s.w, s.h, dst.data(), dw, dw, dh,
                         libyuv::kFilterBilinear);
    }
    benchmark::DoNotOptimize(dst.data());
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * dw * dh);
}

void chromaScale(benchmark::State& state, const Planes& s, int dw, int dh, Which which) {
  if (s.w == 0) {
    state.SkipWithError("test picture missing");
    return;
  }
  std::vector<uint8_t> dst(static_cast<size_t>(dw) * dh * 2);
  std::vector<uint8_t> tu(static_cast<size_t>(dw) * dh), tv(tu.size());
  for (auto _ : state) {
    if (which == kSpecial && dw == 3 * s.w) {
      DexFrameMetaData::chromaBiUpScaler3x(s.u.data(), s.v.data(), dst.data(), dw, dh, s.w, 2 * dw);
    } else if (which == kSpecial) {
      DexFrameMetaData::chromaBiUpScaler225x(s.u.data(), s.v.data(), dst.data(), s.h, dw, dh, s.w,
                                             2 * dw);
    } else if (which == kGeneric) {
      DexFrameMetaData::chromaBiScalerGeneric(s.u.data(), s.v.data(), dst.data(), s.w, s.h, dw, dh,
                                              s.w, 2 * dw);
    } else {
      libyuv::ScalePlane(s.u.data(), s.w, s.w, s.h, tu.data(), dw, dw, dh, libyuv::kFilterBilinear);
      libyuv::ScalePlane(s.v.data(), s.w, s.w, s.h, tv.data(), dw, dw, dh, libyuv::kFilterBilinear);
      libyuv::MergeUVPlane(tv.data(), dw, tu.data(), dw, dst.data(), 2 * dw, dw, dh);
    }
    benchmark::DoNotOptimize(dst.data());
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * dw * dh);
}

// Interleaving of the target-size planes (1920x1080 or 1440x1080 samples).
void interleave(benchmark::State& state, int w, int h, int which) {
  const Planes& s = source3x();
  if (s.w == 0) {
    state.SkipWithError("test picture missing");
    return;
  }
  std::vector<uint8_t> u(static_cast<size_t>(w) * h), v(u.size()), dst(2 * u.size());
  DexFrameMetaData::lumaBiScalerGeneric(s.u.data(), u.data(), s.w, s.h, s.w, w, h, w);
  DexFrameMetaData::lumaBiScalerGeneric(s.v.data(), v.data(), s.w, s.h, s.w, w, h, w);
  for (auto _ : state) {
    if (which == 0) {
      DexFrameMetaData::chromaPlanerToSemi(u.data(), v.data(), dst.data(), w, h, w, 2 * w);
    } else if (which == 1) {
      DexFrameMetaData::chromaPlanerToSemi16Neon(u.data(), v.data(), dst.data(), w, h, w, 2 * w);
    } else {
      libyuv::MergeUVPlane(v.data(), w, u.data(), w, dst.data(), 2 * w, w, h);
    }
    benchmark::DoNotOptimize(dst.data());
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * w * h);
}

void BM_Luma3x_Kernel(benchmark::State& s) { lumaScale(s, source3x(), 1920, 1080, kSpecial); }
void BM_Luma3x_Generic(benchmark::State& s) { lumaScale(s, source3x(), 1920, 1080, kGeneric); }
void BM_Luma3x_Libyuv(benchmark::State& s) { lumaScale(s, source3x(), 1920, 1080, kLibyuv); }
void BM_Luma225x_Kernel(benchmark::State& s) { lumaScale(s, source225x(), 1440, 1080, kSpecial); }
void BM_Luma225x_Generic(benchmark::State& s) { lumaScale(s, source225x(), 1440, 1080, kGeneric); }
void BM_Luma225x_Libyuv(benchmark::State& s) { lumaScale(s, source225x(), 1440, 1080, kLibyuv); }
void BM_Chroma3x_Kernel(benchmark::State& s) { chromaScale(s, source3x(), 1920, 1080, kSpecial); }
void BM_Chroma3x_Generic(benchmark::State& s) { chromaScale(s, source3x(), 1920, 1080, kGeneric); }
void BM_Chroma3x_Libyuv(benchmark::State& s) { chromaScale(s, source3x(), 1920, 1080, kLibyuv); }
void BM_Chroma225x_Kernel(benchmark::State& s) {
  chromaScale(s, source225x(), 1440, 1080, kSpecial);
}
void BM_Chroma225x_Generic(benchmark::State& s) {
  chromaScale(s, source225x(), 1440, 1080, kGeneric);
}
void BM_Chroma225x_Libyuv(benchmark::State& s) {
  chromaScale(s, source225x(), 1440, 1080, kLibyuv);
}
void BM_Interleave_PlanerToSemi(benchmark::State& s) {
  interleave(s, static_cast<int>(s.range(0)), 1080, 0);
}
void BM_Interleave_PlanerToSemi16(benchmark::State& s) {
  interleave(s, static_cast<int>(s.range(0)), 1080, 1);
}
void BM_Interleave_LibyuvMergeUV(benchmark::State& s) {
  interleave(s, static_cast<int>(s.range(0)), 1080, 2);
}

}  // namespace

BENCHMARK(BM_Luma3x_Kernel);
BENCHMARK(BM_Luma3x_Generic);
BENCHMARK(BM_Luma3x_Libyuv);
BENCHMARK(BM_Luma225x_Kernel);
BENCHMARK(BM_Luma225x_Generic);
BENCHMARK(BM_Luma225x_Libyuv);
BENCHMARK(BM_Chroma3x_Kernel);
BENCHMARK(BM_Chroma3x_Generic);
BENCHMARK(BM_Chroma3x_Libyuv);
BENCHMARK(BM_Chroma225x_Kernel);
BENCHMARK(BM_Chroma225x_Generic);
BENCHMARK(BM_Chroma225x_Libyuv);
BENCHMARK(BM_Interleave_PlanerToSemi)->Arg(1920)->Arg(1440);
BENCHMARK(BM_Interleave_PlanerToSemi16)->Arg(1920)->Arg(1440);
BENCHMARK(BM_Interleave_LibyuvMergeUV)->Arg(1920)->Arg(1440);

BENCHMARK_MAIN();
