// Per-frame cost of the engine: what the facade spends on the camera's thread for a 1920x1080
// preview frame (frame record, downscale, copy, post), and what the foreground handler spends
// on one frame (history, preview buffer, statistics, motion and camera motion).
#include <benchmark/benchmark.h>

#include <cstring>
#include <vector>

#include "BenchCamera.h"
#include "KoEngine.h"
#include "KoEngineFg.h"
#include "KoFrameDataCreate.h"

using namespace android;
using kovane_bench::Camera;

namespace {

// The facade on the caller's thread. The foreground runs meanwhile on its own thread; the
// benchmark keeps it from falling behind by pacing with its late flag.
void BM_FacadePreviewFrame1080p(benchmark::State& state) {
  Camera cam;
  if (cam.picture.empty()) {
    state.SkipWithError("test pictures missing");
    return;
  }
  KO_KoEngineConfig_t config = {true, true, true};
  KoEngine engine(nullptr, &config);
  uint32_t id = 1;
  for (auto _ : state) {
    KO_PreviewFrameData_t p = cam.preview(id++);
    benchmark::DoNotOptimize(engine.handlePreviewFrame(&p));
    state.PauseTiming();
    // Let the foreground keep up so that every timed call builds a frame.
    while (engine.mFg->isLateMode()) {
      KO_PreviewFrameData_t skip = cam.preview(id++);
      engine.handlePreviewFrame(&skip);
    }
    state.ResumeTiming();
  }
}
BENCHMARK(BM_FacadePreviewFrame1080p)->Unit(benchmark::kMicrosecond);

// The foreground handler's work on one frame, called under its lock on this thread.
void BM_ForegroundPreviewFrame(benchmark::State& state) {
  Camera cam;
  if (cam.picture.empty()) {
    state.SkipWithError("test pictures missing");
    return;
  }
  KO_KoEngineConfig_t config = {true, true, true};
  KoEngine engine(nullptr, &config);
  KoEngineFg* fg = engine.mFg.get();
  uint32_t id = 1;
  for (auto _ : state) {
    state.PauseTiming();
    KO_PreviewFrameData_t p = cam.preview(id++);
    sp<KoFrameData> frame;
    engine.mFrameDataCreate->newFrame(&p, frame);
    pthread_mutex_lock(&fg->mLock);
    state.ResumeTiming();
    fg->handlePreviewFrame(frame, &p, false);
    state.PauseTiming();
    pthread_mutex_unlock(&fg->mLock);
    state.ResumeTiming();
  }
}
BENCHMARK(BM_ForegroundPreviewFrame)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
