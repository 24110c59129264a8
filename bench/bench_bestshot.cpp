// Cost of the best-shot work on the foreground thread: the running pass over the history that
// every kept preview frame triggers (scores of the newest frames, candidate list), and the
// decision for one capture. Both run on a full history of 30 frames of a real photograph, with
// face records, metadata and ZSL buffers attached as a camera would send them.
#include <benchmark/benchmark.h>

#include <cstring>
#include <vector>

#include "BenchCamera.h"
#include "KoEngine.h"
#include "KoEngineFg.h"
#include "KoFrameDataCreate.h"
#include "KoTopScore.h"

using namespace android;
using kovane_bench::Camera;

namespace {

// The captured frame of the decision benchmark: the person blinks, so that the decision finds
// a better frame and runs its similarity, shift and blur checks.
constexpr uint32_t kBlinkFrame = 24;


// Feeds `frames` frames straight into the foreground handler (on this thread, under its lock),
// each with one face, metadata and a ZSL buffer; the ZSL buffers are handed back by the engine
// as it lets them go (no frame-done callback is registered).
void fill(KoEngine& engine, Camera& cam, uint32_t first, uint32_t frames) {
  // Stand-ins for the camera's ZSL buffers: only their addresses travel.
  static uint8_t zslPool[64];
  KoEngineFg* fg = engine.mFg.get();
  pthread_mutex_lock(&fg->mLock);
  for (uint32_t id = first; id < first + frames; ++id) {
    KO_PreviewFrameData_t p = cam.preview(id);
    sp<KoFrameData> frame;
    engine.mFrameDataCreate->newFrame(&p, frame);
    if (frame == nullptr) continue;
    fg->handlePreviewFrame(frame, &p, false);

    sp<KoFaceMetaData> face = new KoFaceMetaData();
    face->mValid = 1;
    face->mFaceData.record.frameId = id;
    face->mFaceData.record.numFaces = 1;
    KO_cam_face_t& f = face->mFaceData.record.faces[0];
    f.id = 1;
    f.score = 90;
    f.left = 800;
    f.top = 300;
    f.width = 240;
    f.height = 240;
    f.smileDegree = 30;
    if (id == kBlinkFrame) f.leftBlink = f.rightBlink = 100;
    fg->handleMetaFaceFrame(face, id, false);

    Ko_CameraMetaData_t camMeta = {300, 1, 1, 200.0f, 0.033f};
    sp<ABuffer> meta = new ABuffer(64);
    fg->handleMetaFrame(id, meta, &camMeta, false);

    sp<KoMemoryBuffer> zsl;
    if (engine.mMemory->addZslBuffer(zslPool + (id % 64), &zsl)) {
      KO_ZslFrameData_t record = {};
      record.frameId = id;
      record.buffer = zslPool + (id % 64);
      fg->handleZslFrame(zsl, &record, id, false);
    }
  }
  pthread_mutex_unlock(&fg->mLock);
}

// An engine whose foreground history holds 30 frames; the foreground lock is held while it
// lives, so that the benchmark calls the handler's operations as its looper would.
struct FullHistory {
  Camera cam;
  KO_KoEngineConfig_t config = {true, true, true};
  KoEngine engine{nullptr, &config};
  KoEngineFg* fg = engine.mFg.get();
  bool ready = !cam.picture.empty();
  FullHistory() {
    if (!ready) return;
    fill(engine, cam, 1, 30);
    pthread_mutex_lock(&fg->mLock);
  }
  ~FullHistory() {
    if (ready) pthread_mutex_unlock(&fg->mLock);
  }
};

void BM_ProcessBestShotInFG(benchmark::State& state) {
  FullHistory h;
  if (!h.ready) {
    state.SkipWithError("test pictures missing");
    return;
  }
  for (auto _ : state) h.fg->processBestShotInFG();
}
BENCHMARK(BM_ProcessBestShotInFG)->Unit(benchmark::kMicrosecond);

void BM_CaptureDecision(benchmark::State& state) {
  FullHistory h;
  if (!h.ready) {
    state.SkipWithError("test pictures missing");
    return;
  }
  const uint32_t captured = kBlinkFrame;
  int job = 1;
  int64_t decided = 0;
  for (auto _ : state) {
    h.fg->mTopScore->setCapturedFrameId(job, captured, Camera::timestampOf(captured));
    bestShotInfo_t main, replace;
    memset(&main, 0, sizeof(main));
    memset(&replace, 0, sizeof(replace));
    unsigned int override = 0;
    benchmark::DoNotOptimize(h.fg->mTopScore->getBestShot(job++, &main, &replace, false, override));
    decided += main.generated || replace.generated ? 1 : 0;
  }
  state.counters["decided"] = benchmark::Counter(static_cast<double>(decided), benchmark::Counter::kAvgIterations);
}
BENCHMARK(BM_CaptureDecision)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
