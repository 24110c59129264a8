// Per-frame cost of the engine: what the facade spends on the camera's thread for a 1920x1080
// preview frame (frame record, downscale, copy, post), and what the foreground handler spends
// on one frame (history, preview buffer, statistics, motion and camera motion).
#include <benchmark/benchmark.h>

#include <cstring>
#include <vector>

#include "KoEngine.h"
#include "KoEngineFg.h"
#include "KoFrameDataCreate.h"
#include "TestData.h"

using namespace android;

namespace {

struct Camera {
  std::vector<uint8_t> picture = kovane_test::readNv21("solvay_1920x1080.nv21", 1920, 1080);
  KO_cam_frame_len_offset_t planes = {};
  Camera() {
    planes.numPlanes = 2;
    planes.mp[0] = {1920 * 1080, 0, 1920, 1080};
    planes.mp[1] = {1920 * 1080 / 2, 0, 1920, 540};
  }
  KO_PreviewFrameData_t preview(uint32_t id) {
    KO_PreviewFrameData_t p = {};
    p.timeStamp = 1000000 + static_cast<int64_t>(id) * 33333;
    p.frameId = id;
    p.streamType = KO_STREAM_TYPE_PREVIEW;
    p.width = 1920;
    p.height = 1080;
    p.data = picture.data();
    p.colorFormat = KO_COLOR_FORMAT_NV21;
    p.planes = &planes;
    return p;
  }
};

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
