// Cost of the best-shot work on the foreground thread: the running pass over the history that
// every kept preview frame triggers (scores of the newest frames, candidate list), and the
// decision for one capture. Both run on a full history of 30 frames of a real photograph, with
// face records, metadata and ZSL buffers attached as a camera would send them.
#include <benchmark/benchmark.h>

#include <cstring>
#include <vector>

#include "KoEngine.h"
#include "KoEngineFg.h"
#include "KoFrameDataCreate.h"
#include "KoTopScore.h"
#include "TestData.h"

using namespace android;

namespace {

// The captured frame of the decision benchmark: the person blinks, so that the decision finds
// a better frame and runs its similarity, shift and blur checks.
constexpr uint32_t kBlinkFrame = 24;

struct Camera {
  std::vector<uint8_t> picture = kovane_test::readNv21("solvay_1920x1080.nv21", 1920, 1080);
  std::vector<uint8_t> zslPool = std::vector<uint8_t>(64);
  uint8_t metaBytes[64] = {1};
  KO_cam_frame_len_offset_t planes = {};
  Camera() {
    planes.numPlanes = 2;
    planes.mp[0] = {1920 * 1080, 0, 1920, 1080};
    planes.mp[1] = {1920 * 1080 / 2, 0, 1920, 540};
  }
  static int64_t timestampOf(uint32_t id) { return 1000000 + static_cast<int64_t>(id) * 33333; }
  KO_PreviewFrameData_t preview(uint32_t id) {
    KO_PreviewFrameData_t p = {};
    p.timeStamp = timestampOf(id);
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

// Feeds `frames` frames straight into the foreground handler (on this thread, under its lock),
// each with one face, metadata and a ZSL buffer; the ZSL buffers are handed back by the engine
// as it lets them go (no frame-done callback is registered).
void fill(KoEngine& engine, Camera& cam, uint32_t first, uint32_t frames) {
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
    sp<ABuffer> meta = new ABuffer(sizeof(cam.metaBytes));
    fg->handleMetaFrame(id, meta, &camMeta, false);

    sp<KoMemoryBuffer> zsl;
    if (engine.mMemory->addZslBuffer(cam.zslPool.data() + (id % 64), &zsl)) {
      KO_ZslFrameData_t record = {};
      record.frameId = id;
      record.buffer = cam.zslPool.data() + (id % 64);
      fg->handleZslFrame(zsl, &record, id, false);
    }
  }
  pthread_mutex_unlock(&fg->mLock);
}

void BM_ProcessBestShotInFG(benchmark::State& state) {
  Camera cam;
  if (cam.picture.empty()) {
    state.SkipWithError("test pictures missing");
    return;
  }
  KO_KoEngineConfig_t config = {true, true, true};
  KoEngine engine(nullptr, &config);
  fill(engine, cam, 1, 30);
  KoEngineFg* fg = engine.mFg.get();
  pthread_mutex_lock(&fg->mLock);
  for (auto _ : state) fg->processBestShotInFG();
  pthread_mutex_unlock(&fg->mLock);
}
BENCHMARK(BM_ProcessBestShotInFG)->Unit(benchmark::kMicrosecond);

void BM_CaptureDecision(benchmark::State& state) {
  Camera cam;
  if (cam.picture.empty()) {
    state.SkipWithError("test pictures missing");
    return;
  }
  KO_KoEngineConfig_t config = {true, true, true};
  KoEngine engine(nullptr, &config);
  fill(engine, cam, 1, 30);
  KoEngineFg* fg = engine.mFg.get();
  pthread_mutex_lock(&fg->mLock);
  const uint32_t captured = kBlinkFrame;
  int job = 1;
  int64_t decided = 0;
  for (auto _ : state) {
    fg->mTopScore->setCapturedFrameId(job, captured, Camera::timestampOf(captured));
    bestShotInfo_t main, replace;
    memset(&main, 0, sizeof(main));
    memset(&replace, 0, sizeof(replace));
    unsigned int override = 0;
    benchmark::DoNotOptimize(fg->mTopScore->getBestShot(job++, &main, &replace, false, override));
    decided += main.generated || replace.generated ? 1 : 0;
  }
  state.counters["decided"] = benchmark::Counter(static_cast<double>(decided), benchmark::Counter::kAvgIterations);
  pthread_mutex_unlock(&fg->mLock);
}
BENCHMARK(BM_CaptureDecision)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
