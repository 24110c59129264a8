// Cost of the one-pass frame reducer (NV21 camera frame -> planar analysis copy and the 320x180
// image of its band) per kernel set, at the three camera sizes the engine reduces:
// 1920x1080 (3:1 to 640x360), 1440x1080 (9:4 to 640x480) and 1280x720 (2:1 to 640x360).
//   - hot: the same frame every time, so the frame is in cache;
//   - cold: 120 distinct frames (a real 1920x1080 picture panned by 8 pixels a frame, cropped to
//     the camera size), so that every frame comes from main memory, as a camera's frames do;
//   - floor: reading each of the 120 frames once, the least any pass over them can cost.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstring>
#include <map>
#include <vector>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "KoFrameReducer.h"
#include "BenchCamera.h"
#include "TestData.h"

using android::KoFrameReducer;

namespace {

constexpr int kFrames = 120;
constexpr int kPanStep = 8;  // pixels per frame, even so that chroma pairs stay whole

struct Clip {
  int w = 0;
  int h = 0;
  std::vector<std::vector<uint8_t>> frames;  // NV21, rows w bytes apart
};

const Clip* clipOf(int w, int h) {
  static std::map<int, Clip> clips;
  const int key = w * 10000 + h;
  auto it = clips.find(key);
  if (it != clips.end()) return it->second.frames.empty() ? nullptr : &it->second;
  Clip& clip = clips[key];
  clip.frames = kovane_bench::pannedFrames(w, h, kFrames, kPanStep);
  if (clip.frames.empty()) return nullptr;
  clip.w = w;
  clip.h = h;
  return &clip;
}

// Arguments: camera width and height, kernel set, and 1 for distinct frames (0: one frame).
void BM_ReduceNv21(benchmark::State& state) {
  const int w = static_cast<int>(state.range(0)), h = static_cast<int>(state.range(1));
  const auto set = static_cast<KoFrameReducer::KernelSet>(state.range(2));
  const bool cold = state.range(3) != 0;
  const Clip* clip = clipOf(w, h);
  if (!clip) {
    state.SkipWithError("test pictures missing");
    return;
  }
  const int dw = 640;
  const int dh = w * 3 == h * 4 ? 480 : 360;  // 4:3 cameras keep their shape
  const int bandTop = (dh - 360) / 2;
  std::vector<uint8_t> dst(static_cast<size_t>(dw) * dh * 3 / 2), small(320 * 180);
  KoFrameReducer::setKernels(set);
  state.SetLabel(KoFrameReducer::rowKernels());
  uint32_t k = 0;
  for (auto _ : state) {
    const uint8_t* f = clip->frames[cold ? k++ % kFrames : 0].data();
    const int rc = KoFrameReducer::reduceNv21(f, w, f + w * h, w, w, h, dst.data(), dw, dh,
                                              small.data(), bandTop, 180);
    benchmark::DoNotOptimize(rc);
    benchmark::ClobberMemory();
  }
  KoFrameReducer::setKernels(KoFrameReducer::KERNELS_FASTEST);
}

void reduceArgs(benchmark::internal::Benchmark* b) {
  for (int cold : {0, 1}) {
    for (const auto& size : {std::pair<int, int>{1920, 1080}, {1440, 1080}, {1280, 720}}) {
      for (int set : {KoFrameReducer::KERNELS_PORTABLE, KoFrameReducer::KERNELS_VECTOR,
                      KoFrameReducer::KERNELS_FASTEST}) {
        b->Args({size.first, size.second, set, cold});
      }
    }
  }
  b->ArgNames({"w", "h", "set", "cold"});
}
BENCHMARK(BM_ReduceNv21)->Apply(reduceArgs)->Unit(benchmark::kMicrosecond);

// Reading every byte of the frame once.
uint64_t readOnce(const uint8_t* data, size_t bytes) {
  uint64_t sum = 0;
  size_t i = 0;
#if defined(__SSE2__)
  __m128i acc0 = _mm_setzero_si128(), acc1 = _mm_setzero_si128();
  for (; i + 32 <= bytes; i += 32) {
    acc0 = _mm_add_epi64(acc0, _mm_loadu_si128(reinterpret_cast<const __m128i*>(data + i)));
    acc1 = _mm_add_epi64(acc1, _mm_loadu_si128(reinterpret_cast<const __m128i*>(data + i + 16)));
  }
  uint64_t lanes[2];
  _mm_storeu_si128(reinterpret_cast<__m128i*>(lanes), _mm_add_epi64(acc0, acc1));
  sum = lanes[0] + lanes[1];
#endif
  for (; i + 8 <= bytes; i += 8) {
    uint64_t v;
    memcpy(&v, data + i, 8);
    sum += v;
  }
  for (; i < bytes; ++i) sum += data[i];
  return sum;
}

void BM_MemoryFloor(benchmark::State& state) {
  const int w = static_cast<int>(state.range(0)), h = static_cast<int>(state.range(1));
  const Clip* clip = clipOf(w, h);
  if (!clip) {
    state.SkipWithError("test pictures missing");
    return;
  }
  uint32_t k = 0;
  for (auto _ : state) {
    const std::vector<uint8_t>& f = clip->frames[k++ % kFrames];
    benchmark::DoNotOptimize(readOnce(f.data(), f.size()));
  }
}
BENCHMARK(BM_MemoryFloor)
    ->Args({1920, 1080})
    ->Args({1440, 1080})
    ->Args({1280, 720})
    ->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
