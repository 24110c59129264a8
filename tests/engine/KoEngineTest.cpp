// The engine: configuration, the foreground's late-mode rule, and through its public interface
// with a simulated camera the ZSL acceptance rule, captures with their callbacks in order, a
// capture's clip, and destruction with any kind of message in flight; through all of it every
// ZSL buffer comes back exactly once. And the per-frame ingest allocates nothing once warm.
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <utils/Timers.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "ClipProbe.h"
#include "KoEngine.h"
#include "KoEngineBg.h"
#include "KoEngineFg.h"
#include "KoFrameDataCreate.h"
#include "KoFrameHist.h"
#include "KoPreviewEncode.h"
#include "KoSequenceQueue.h"
#include "KoStatsReader.h"
#include "StderrCapture.h"
#include "TempFile.h"
#include "TestData.h"
#include "TestWait.h"

// The sanitizers bring their own allocators; the hooks are built only without them.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define KOVANE_ALLOC_HOOKS 0
#else
#define KOVANE_ALLOC_HOOKS 1
#endif

static thread_local bool tCounting = false;
static thread_local size_t tAllocations = 0, tFirstSize = 0;

#if KOVANE_ALLOC_HOOKS
static void* noted(size_t bytes, void* p) {
  if (tCounting && tAllocations++ == 0) tFirstSize = bytes;
  return p;
}

extern "C" {
void* __libc_malloc(size_t);
void* __libc_calloc(size_t, size_t);
void* __libc_realloc(void*, size_t);
void* __libc_memalign(size_t, size_t);
void __libc_free(void*);

void* malloc(size_t bytes) { return noted(bytes, __libc_malloc(bytes)); }
void* calloc(size_t n, size_t bytes) { return noted(n * bytes, __libc_calloc(n, bytes)); }
void* realloc(void* p, size_t bytes) { return noted(bytes, __libc_realloc(p, bytes)); }
void* memalign(size_t alignment, size_t bytes) { return noted(bytes, __libc_memalign(alignment, bytes)); }
void* aligned_alloc(size_t alignment, size_t bytes) { return noted(bytes, __libc_memalign(alignment, bytes)); }
int posix_memalign(void** out, size_t alignment, size_t bytes) {
  *out = noted(bytes, __libc_memalign(alignment, bytes));
  return *out == nullptr ? ENOMEM : 0;
}
void free(void* p) { __libc_free(p); }
}
#endif

namespace android {
namespace {

using kovane_test::waitUntil;

// A simulated camera: twelve ZSL buffers to lend, 1920x1080 NV21 preview frames of a real
// photograph, and the books of every callback, so that a test can tell whether each lent buffer
// came back exactly once.
class SimulatedCamera {
 public:
  static constexpr int kWidth = 1920, kHeight = 1080, kPatch = 600;
  static constexpr int64_t kFrameUs = 33333;

  SimulatedCamera()
      : mPicture(kovane_test::readNv21("solvay_1920x1080.nv21", kWidth, kHeight)), mFrame(mPicture.size()), mZslPool(12) {
    for (uint8_t& b : mZslPool) mFree.insert(&b);
    mPlanes.numPlanes = 2;
    mPlanes.mp[0] = {kWidth * kHeight, 0, kWidth, kHeight};
    mPlanes.mp[1] = {kWidth * kHeight / 2, 0, kWidth, kHeight / 2};
    mPlanes.frameLen = static_cast<uint32_t>(mPicture.size());
  }

  bool ready() const { return !mPicture.empty(); }

  void attach(KoEngine* engine) {
    EXPECT_EQ(engine->registerFrameDoneCallBack(&SimulatedCamera::onFrameDone), 0);
    EXPECT_EQ(engine->registerKoEngineDoneCallBack(&onEvent<Event::kEngineDone>), 0);
    EXPECT_EQ(engine->registerStatisticsCallBack([](void*, int, KO_statistics_cb_t*) {}), 0);
    EXPECT_EQ(engine->registerBestShotDoneCallBack(&SimulatedCamera::onBestShotDone), 0);
    EXPECT_EQ(engine->registerVideoDoneCallBack(&onEvent<Event::kVideoDone>), 0);
  }

  // The preview record of frame `id`: the picture shifted right by id % 4 pixels. With a
  // moving subject, a 600x600 patch from the picture's centre also swings left and right in
  // front of it (12 pixels a frame, up to 120 either way), as a person walking by would.
  KO_PreviewFrameData_t preview(uint32_t id) {
    const int shift = static_cast<int>(id % 4);
    for (int y = 0; y < kHeight; ++y) {
      uint8_t* row = &mFrame[static_cast<size_t>(y) * kWidth];
      const uint8_t* src = &mPicture[static_cast<size_t>(y) * kWidth];
      memcpy(row + shift, src, kWidth - shift);
      memcpy(row, src + kWidth - shift, shift);
    }
    if (movingSubject) {
      const int phase = static_cast<int>(id % 40);
      const int offset = 12 * (phase < 20 ? phase - 10 : 30 - phase);
      const int x0 = (kWidth - kPatch) / 2, y0 = (kHeight - kPatch) / 2;
      for (int y = y0; y < y0 + kPatch; ++y) {
        memcpy(&mFrame[static_cast<size_t>(y) * kWidth + x0 + offset], &mPicture[static_cast<size_t>(y) * kWidth + x0],
               kPatch);
      }
    }
    memcpy(&mFrame[kWidth * kHeight], &mPicture[kWidth * kHeight], kWidth * kHeight / 2);
    KO_PreviewFrameData_t p = {};
    p.timeStamp = timestampOf(id), p.frameId = id, p.streamType = KO_STREAM_TYPE_PREVIEW;
    p.width = kWidth, p.height = kHeight, p.data = mFrame.data(), p.planes = &mPlanes;
    p.colorFormat = KO_COLOR_FORMAT_NV21;
    return p;
  }
  static int64_t timestampOf(uint32_t id) { return 1000000 + static_cast<int64_t>(id) * kFrameUs; }

  // A face record with one face for frame `id`, its eyes closed when `blink`.
  static KO_cam_face_detection_data_t face(uint32_t id, bool blink = false) {
    KO_cam_face_detection_data_t f = {};
    f.frameId = id, f.numFaces = 1;
    auto& face = f.faces[0];
    face.score = 90, face.left = 800, face.top = 400, face.width = face.height = 120, face.smileDegree = 40;
    if (blink) face.blinkDetected = 1, face.leftBlink = face.rightBlink = 90;
    return f;
  }

  // Metadata of frame `id`.
  KO_MetaFrameData_t meta(uint32_t id) {
    KO_MetaFrameData_t m = {};
    m.frameId = id, m.data = mMetaBytes, m.size = sizeof(mMetaBytes);
    m.camMeta = {static_cast<int32_t>(200 + id), 1, 2, 3.5f, 0.02f};
    return m;
  }

  // Lends a ZSL buffer for frame `id`; false when all are out.
  bool lendZsl(uint32_t id, KO_ZslFrameData_t* out) {
    std::lock_guard<std::mutex> lock(mLock);
    if (mFree.empty()) return false;
    out->buffer = *mFree.begin(), out->frameId = id;
    mOut.insert(*mFree.begin());
    mFree.erase(mFree.begin());
    return true;
  }

  // Best-shot-done, video-done and engine-done callbacks in the order they came.
  struct Event {
    enum Kind { kBestShotDone, kVideoDone, kEngineDone } kind;
    int jobId;
    uint32_t frameId;  // best shot: the chosen frame
  };

  size_t zslOut() { return locked([&] { return mOut.size(); }); }
  std::vector<Event> events() { return locked([&] { return mEvents; }); }
  // Faults found in the best-shot records received (see checkBestShotRecordLocked).
  std::vector<std::string> recordFaults() { return locked([&] { return mRecordFaults; }); }
  // Jobs of the engine-done callbacks, in order.
  std::vector<int> engineDone() {
    std::vector<int> jobs;
    for (const Event& e : events()) {
      if (e.kind == Event::kEngineDone) jobs.push_back(e.jobId);
    }
    return jobs;
  }
  // Every buffer lent came back, none twice.
  void expectAllReturned() {
    EXPECT_EQ(zslOut(), 0u);
    EXPECT_EQ(locked([&] { return mDoubleReturns; }), 0);
  }

  bool movingSubject = false;
  // Frames whose face record has the eyes closed (set before the frames are posted).
  std::set<uint32_t> blinks;

 private:
  template <typename Fn>
  auto locked(Fn fn) -> decltype(fn()) {
    std::lock_guard<std::mutex> lock(mLock);
    return fn();
  }
  static void onFrameDone(void* cookie, void* buffer) {
    SimulatedCamera& cam = *static_cast<SimulatedCamera*>(cookie);
    std::lock_guard<std::mutex> lock(cam.mLock);
    uint8_t* b = static_cast<uint8_t*>(buffer);
    if (cam.mOut.erase(b) == 0) cam.mDoubleReturns++;
    else cam.mFree.insert(b);
  }
  template <Event::Kind kind>
  static void onEvent(void* cookie, int jobId) {
    SimulatedCamera& cam = *static_cast<SimulatedCamera*>(cookie);
    std::lock_guard<std::mutex> lock(cam.mLock);
    cam.mEvents.push_back({kind, jobId, 0});
  }
  static void onBestShotDone(void* cookie, int jobId, KO_bestShotDone_cb_t* result) {
    SimulatedCamera& cam = *static_cast<SimulatedCamera*>(cookie);
    std::lock_guard<std::mutex> lock(cam.mLock);
    cam.mEvents.push_back({Event::kBestShotDone, jobId, result ? result->frameId : 0});
    cam.checkBestShotRecordLocked(jobId, result);
  }

  // What a camera reads of a best-shot record, while the callback runs: the chosen frame's ZSL
  // buffer (still lent, not yet handed back), the capture's configuration and the frame's
  // metadata as given, its analysis image, and a statistics record of this job.
  void checkBestShotRecordLocked(int jobId, const KO_bestShotDone_cb_t* r) {
    auto differs = [](const void* got, size_t size, const void* want, size_t wantSize) {
      return size != wantSize || got == nullptr || memcmp(got, want, wantSize) != 0;
    };
    static const uint8_t kConfig[16] = {1, 2, 3};
    KoStatsReader stats;
    const char* fault =
        r == nullptr ? "no record"
        : r->zslBuffer != nullptr && mOut.count(static_cast<uint8_t*>(r->zslBuffer)) == 0 ? "ZSL buffer not lent"
        : differs(r->configData, r->configSize, kConfig, sizeof(kConfig))                  ? "configuration differs"
        : differs(r->metaData, r->metaSize, mMetaBytes, sizeof(mMetaBytes))                ? "metadata differs"
        : r->yPlane == nullptr || r->width != 640 || r->height != 360 || r->stride != 640 ||
                r->uPlane != r->yPlane + 640 * 360 || r->vPlane != r->uPlane + 320 * 180 || r->chromaWidth != 320 ||
                r->chromaHeight != 180 || r->chromaStride != 320
            ? "analysis image missing or misdescribed"
        : r->exifData == nullptr || !stats.parse(r->exifData, r->exifSize) ? "statistics record unreadable"
        : !stats.hasSession() || stats.session().getInt("jobId") != jobId || stats.frames().empty()
            ? "statistics record of another job or without frames"
            : nullptr;
    if (fault != nullptr) mRecordFaults.push_back("job " + std::to_string(jobId) + ": " + fault);
  }

  std::vector<uint8_t> mPicture, mFrame, mZslPool;
  KO_cam_frame_len_offset_t mPlanes = {};
  uint8_t mMetaBytes[64] = {1, 2, 3, 4};
  std::mutex mLock;
  std::set<uint8_t*> mFree, mOut;
  int mDoubleReturns = 0;
  std::vector<Event> mEvents;
  std::vector<std::string> mRecordFaults;
};

using Event = SimulatedCamera::Event;

// A take-picture request for frame `id`, asking for a best shot (and a clip when `video`).
inline KO_TakePicture_t picture(int jobId, uint32_t frameId, bool video, int videoFd = -1) {
  static uint8_t config[16] = {1, 2, 3};
  KO_TakePicture_t pic = {};
  pic.jobId = jobId, pic.frameId = static_cast<int32_t>(frameId), pic.timeStamp = SimulatedCamera::timestampOf(frameId);
  pic.videoFd = videoFd, pic.metadataFd = -1, pic.config = config, pic.configSize = sizeof(config);
  pic.bestShotEnable = true, pic.videoEnable = video;
  return pic;
}

// Posts frame `id` with its face record, metadata and (when one is free) a ZSL buffer.
inline void post(SimulatedCamera& cam, KoEngine* engine, uint32_t id) {
  KO_PreviewFrameData_t p = cam.preview(id);
  engine->handlePreviewFrame(&p);
  KO_cam_face_detection_data_t face = SimulatedCamera::face(id, cam.blinks.count(id) != 0);
  KO_MetaFrameData_t meta = cam.meta(id);
  engine->handleMetadataFrame(&face, &meta);
  KO_ZslFrameData_t zsl;
  if (cam.lendZsl(id, &zsl)) engine->handleZslFrame(&zsl);
}

// Runs `fn` with the foreground handler's lock held: between two of its messages.
template <typename Fn>
auto withForeground(KoEngine* engine, Fn fn) -> decltype(fn(engine->mFg.get())) {
  pthread_mutex_lock(&engine->mFg->mLock);
  auto result = fn(engine->mFg.get());
  pthread_mutex_unlock(&engine->mFg->mLock);
  return result;
}

// The frame with that id in the foreground's history, or null.
inline sp<KoFrameData> frameIn(KoEngine* engine, uint32_t id) {
  return withForeground(engine, [id](KoEngineFg* fg) {
    sp<KoFrameData> f;
    fg->mFrameHist->getItemWithFrameId(id, f);
    return f;
  });
}

// Waits until the history holds that frame with all of `events`.
inline bool waitForFrame(KoEngine* engine, uint32_t id, uint32_t events = 0) {
  auto has = [&] {
    sp<KoFrameData> f = frameIn(engine, id);
    return f != nullptr && f->hasEvents(events);
  };
  return waitUntil(has, 20000);
}

// Posts frame `id` and waits until it is in the history, as a camera at the engine's pace would;
// in a late episode (a slow, instrumented build) the engine may shed it, and the camera goes on.
inline void handOver(SimulatedCamera& cam, KoEngine* engine, uint32_t id) {
  post(cam, engine, id);
  waitUntil([&] { return engine->mFg->isLateMode() || frameIn(engine, id) != nullptr; }, 3000);
}

// Deletes the engine on another thread; false when that does not end within the deadline.
inline bool destroyWithin(KoEngine* engine, int seconds) {
  auto done = std::async(std::launch::async, [engine] { delete engine; });
  return done.wait_for(std::chrono::seconds(seconds)) == std::future_status::ready;
}

sp<AMessage> stamped(int64_t ageUs, ALooper::handler_id target = 0) {
  sp<AMessage> msg = new AMessage(KoEngineFg::kWhatLate, target);
  msg->setInt64("system_time", systemTime(SYSTEM_TIME_MONOTONIC) / 1000 - ageUs);
  return msg;
}

// Threads of this process named as the foreground looper names its thread.
int foregroundThreads() {
  int n = 0;
  DIR* dir = opendir("/proc/self/task");
  while (const dirent* e = dir != nullptr ? readdir(dir) : nullptr) {
    std::ifstream comm(std::string("/proc/self/task/") + e->d_name + "/comm");
    std::string name;
    if (e->d_name[0] != '.' && std::getline(comm, name) && name == "KoEngineFg") ++n;
  }
  if (dir != nullptr) closedir(dir);
  return n;
}

TEST(KoEngine, ConfigurationAndNullCallbacks) {
  KO_KoEngineConfig_t noVideo = {true, false, true}, noAux = {false, true, false};
  KoEngine engine(nullptr, &noVideo), other(nullptr, &noAux);
  EXPECT_EQ(engine.mFeatureMask.load(), 0x18u);  // motion scores off with video
  EXPECT_EQ(other.mFeatureMask.load(), 0x1Du);
  other.setEnableModes(-1, 0);  // -1 leaves a mode as it is
  EXPECT_FALSE(other.mBestShotEnable || other.mVideoEnable);
  other.setEnableModes(5, -1);
  EXPECT_TRUE(other.mBestShotEnable && !other.mVideoEnable);
  // A null callback is refused with the marker.
  EXPECT_EQ(other.registerBestShotDoneCallBack(nullptr) & other.registerVideoDoneCallBack(nullptr) &
                other.registerMetaDataDoneCallBack(nullptr) & other.registerStatisticsCallBack(nullptr) &
                other.registerFrameDoneCallBack(nullptr) & other.registerKoEngineDoneCallBack(nullptr),
            static_cast<int>(0x80000000));
}

// The foreground's rules, run between two messages of an engine without a camera.
TEST(KoEngineFgRules, LateModeHysteresisAndNoStatisticsWithoutImages) {
  KO_KoEngineConfig_t config = {true, true, true};
  KoEngine engine(nullptr, &config);
  withForeground(&engine, [](KoEngineFg* fg) {
    EXPECT_FALSE(fg->isMessageLate(stamped(400000)));
    EXPECT_TRUE(fg->isMessageLate(stamped(600000)));  // more than half a second: late
    EXPECT_TRUE(fg->isLateMode());
    EXPECT_TRUE(fg->isMessageLate(stamped(60000)));  // still 60 ms behind: stays late
    EXPECT_TRUE(fg->isMessageLate(new AMessage(KoEngineFg::kWhatLate, 0)));  // no time stamp: unchanged
    EXPECT_FALSE(fg->isMessageLate(stamped(40000)));  // caught up
    EXPECT_FALSE(fg->isLateMode());
    sp<KoFrameData> broken = new KoFrameData(), previous = new KoFrameData();
    kovane_test::StderrCapture capture;
    fg->processFrameStats(broken, previous);
    const std::string log = capture.finish();
    EXPECT_NE(log.find("processFrameStats: Processing buffers NULL"), std::string::npos) << log;
    EXPECT_FALSE(broken->hasEvents(KoFrameData::EVENT_STATS));
    return 0;
  });
  // The facade's 'late' message goes through the same rule.
  stamped(600000, engine.mFg->getHandlerId())->post();
  EXPECT_TRUE(waitUntil([&] { return engine.mFg->isLateMode(); }));
}

TEST(KoEngineFgRules, DroppedWithoutDeinitStillStopsItsLooper) {
  KO_KoEngineConfig_t config = {true, true, true};
  KoEngine engine(nullptr, &config);
  // A second handler on its own looper, released without deinit with a message on its way: its
  // destructor must not wait for a stop message that can no longer reach it, and its thread
  // must end.
  ASSERT_TRUE(waitUntil([] { return foregroundThreads() == 1; }));
  sp<KoEngineFg> fg = new KoEngineFg(&engine);
  fg->init(true);
  ASSERT_TRUE(waitUntil([] { return foregroundThreads() == 2; }));
  sp<AMessage> msg = new AMessage(KoEngineFg::kWhatLate, fg->getHandlerId());
  msg->post();
  fg.clear();
  msg.clear();
  EXPECT_TRUE(waitUntil([] { return foregroundThreads() == 1; })) << foregroundThreads() << " foreground threads left";
}

// An engine fed by a simulated camera with all its callbacks registered.
class KoEngineWithCamera : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(cam.ready());
    KO_KoEngineConfig_t config = {true, true, true};
    engine = new KoEngine(&cam, &config);
    cam.attach(engine);
  }
  void TearDown() override { delete engine; }

  SimulatedCamera cam;
  KoEngine* engine = nullptr;
};

TEST_F(KoEngineWithCamera, ZslAcceptanceWithForegroundProcessingOff) {
  engine->mProcessInFg = false;  // the integration that analyses in the background only
  for (uint32_t id = 9; id <= 14; ++id) {
    KO_PreviewFrameData_t p = cam.preview(id);
    ASSERT_EQ(engine->handlePreviewFrame(&p), 0);
    ASSERT_TRUE(waitForFrame(engine, id)) << id;
  }
  for (uint32_t id = 10; id <= 13; ++id) {
    KO_ZslFrameData_t zsl;
    ASSERT_TRUE(cam.lendZsl(id, &zsl));
    engine->handleZslFrame(&zsl);
    // 11 and 12 follow an accepted 10 too closely: handed back at once.
    EXPECT_EQ(cam.zslOut(), id == 13 ? 2u : 1u) << id;
  }
  // Refused frames were still posted (with no buffer), so every id reached the history.
  for (uint32_t id = 10; id <= 13; ++id) {
    ASSERT_TRUE(waitForFrame(engine, id, KoFrameData::EVENT_ZSL)) << id;
    EXPECT_EQ(frameIn(engine, id)->mHasZsl, id == 10 || id == 13 ? 1 : 0) << id;
  }
  // With the foreground's own pass off too, a capture is analysed by the background alone
  // (statistics, focus and exposure, face identities, the best shot) and still finishes once.
  withForeground(engine, [](KoEngineFg* fg) { return fg->mProcessInFg = false; });
  EXPECT_EQ(engine->mLastZslFrameId, 13u);
  const int kJob = 21;
  KO_TakePicture_t pic = picture(kJob, 16, false);
  for (uint32_t id = 14; id <= 40 && cam.engineDone().empty(); ++id) {
    post(cam, engine, id);
    EXPECT_EQ(id == 16 ? engine->handleTakePicture(&pic) : 0, 0);
    ASSERT_TRUE(waitForFrame(engine, id)) << id;
  }
  ASSERT_TRUE(waitUntil([&] { return !cam.engineDone().empty(); }, 20000));
  EXPECT_EQ(cam.engineDone(), std::vector<int>{kJob});
  EXPECT_EQ(engine->mSequenceQueue->getNumActiveJobs(), 0);
  EXPECT_TRUE(cam.recordFaults().empty()) << cam.recordFaults().front();
  delete std::exchange(engine, nullptr);
  cam.expectAllReturned();
}

// A shutter press on every third frame, each on a blink: every capture finishes exactly once,
// its best shot comes before its end and has the eyes open, every best-shot record carries what
// the camera needs, and every ZSL buffer comes back once.
TEST_F(KoEngineWithCamera, ACaptureEveryThirdFrameAllFinishWithTheirBestShots) {
  ASSERT_EQ(engine->handleStartPreview(1920, 1080, 0, false, true, KO_CAM_POSITION_BACK), 0);
  const uint32_t kFrames = 150;
  for (uint32_t id = 9; id <= kFrames; id += 3) cam.blinks.insert(id);
  std::vector<int> jobs;
  for (uint32_t id = 1; id <= kFrames; ++id) {
    handOver(cam, engine, id);
    if (id >= 10 && id % 3 == 0) {
      KO_TakePicture_t pic = picture(static_cast<int>(id), id, id % 2 == 0);  // a clip, but no descriptor
      ASSERT_EQ(engine->handleTakePicture(&pic), 0);
      jobs.push_back(static_cast<int>(id));
    }
  }
  // The last captures still need frames after their shutter.
  for (uint32_t id = kFrames + 1; cam.engineDone().size() < jobs.size() && id <= kFrames + 300; ++id) {
    handOver(cam, engine, id);
  }
  ASSERT_TRUE(waitUntil([&] { return cam.engineDone().size() >= jobs.size(); }, 60000));
  std::vector<int> done = cam.engineDone();
  std::sort(done.begin(), done.end());
  EXPECT_EQ(done, jobs) << "each capture finishes exactly once";
  std::set<int> ended;
  size_t bestShots = 0;
  for (const Event& e : cam.events()) {
    EXPECT_NE(e.kind, Event::kVideoDone) << "a clip needs a descriptor";
    if (e.kind == Event::kEngineDone) ended.insert(e.jobId);
    if (e.kind != Event::kBestShotDone) continue;
    ++bestShots;
    EXPECT_EQ(ended.count(e.jobId), 0u) << "best shot of job " << e.jobId << " after its end";
    EXPECT_EQ(cam.blinks.count(e.frameId), 0u) << "job " << e.jobId << " chose blinked frame " << e.frameId;
  }
  EXPECT_GT(bestShots, 0u);  // (an instrumented build may shed frames, and a press in late mode ends at once)
  EXPECT_TRUE(cam.recordFaults().empty()) << cam.recordFaults().front();
  ASSERT_TRUE(destroyWithin(std::exchange(engine, nullptr), 30));
  cam.expectAllReturned();
}

// A capture's clip: the clip the engine writes to the caller's descriptor holds the preview
// frames it was fed around the shutter, and video-done comes once, before engine-done.
TEST(KoEngineVideo, ClipHoldsTheFedFramesAroundTheShutterAndVideoDoneComesOnceBeforeTheEnd) {
  SimulatedCamera cam;
  ASSERT_TRUE(cam.ready());
  cam.movingSubject = true;  // a scene worth a clip
  KO_KoEngineConfig_t config = {true, true, true};
  std::unique_ptr<KoEngine> engine(new KoEngine(&cam, &config));
  cam.attach(engine.get());
  engine->handleStartPreview(1920, 1080, 0, false, true, KO_CAM_POSITION_BACK);
  std::map<int64_t, std::vector<uint8_t>> fed;  // every 640x360 frame the clip encoder got, by stamp
  int64_t clipStart = -1;                       // the clip's first frame, seen while it was open
  auto frame = [&](uint32_t id) {
    handOver(cam, engine.get(), id);  // frames shed on a slow build are missing from the clip
    std::vector<uint8_t> copy(640 * 360 * 3 / 2);
    int w = 0, h = 0;
    int64_t ts = 0, first = -1, newest = -1;
    const int64_t want = SimulatedCamera::timestampOf(id);
    if (engine->mPreviewEncode->copyFrame(want, copy.data(), copy.size(), w, h, ts) == OK && ts == want) {
      fed[ts] = std::move(copy);
    }
    if (engine->mPreviewEncode->clipSpan(1, first, newest) && first >= 0) clipStart = first;
  };
  kovane_test::TempFile file;
  const uint32_t kShutter = 60;
  uint32_t id = 0;
  while (id < kShutter) frame(++id);
  KO_TakePicture_t pic = picture(1, kShutter, true, file.fd);
  ASSERT_EQ(engine->handleTakePicture(&pic), 0);
  while (id < kShutter + 150 && cam.engineDone().empty()) frame(++id);
  ASSERT_TRUE(waitUntil([&] { return !cam.engineDone().empty(); }, 20000));
  std::vector<Event::Kind> kinds;
  for (const Event& e : cam.events()) {
    if (e.kind != Event::kBestShotDone) kinds.push_back(e.kind);
  }
  EXPECT_EQ(kinds, (std::vector<Event::Kind>{Event::kVideoDone, Event::kEngineDone}));

  const kovane_test::ProbedClip clip = kovane_test::probeClip(file.path);
  ASSERT_TRUE(clip.ok) << clip.error;
  EXPECT_EQ(clip.codec, "h264");
  ASSERT_TRUE(clip.width == 640 && clip.height == 360) << clip.width << "x" << clip.height;
  EXPECT_GE(clip.durationUs(), 1000000);
  EXPECT_LE(clip.durationUs(), 3500000);
  ASSERT_GE(clipStart, 0);
  // Each frame is the frame fed at its time (a frame the engine shed is missing); the shutter
  // frame is among them.
  const int64_t shutterTs = SimulatedCamera::timestampOf(kShutter);
  bool shutterSeen = false;
  size_t compared = 0;
  for (size_t k = 0; k < clip.ptsUs.size(); ++k) {
    const int64_t ts = clipStart + clip.ptsUs[k];
    shutterSeen |= ts == shutterTs;
    auto it = fed.find(ts);
    if (it == fed.end()) continue;  // shed while the camera went on
    EXPECT_GE(kovane_test::planePsnr(clip.frames[k].data(), it->second.data(), 640, 360), 35.0) << k;
    ++compared;
  }
  EXPECT_GE(compared, clip.ptsUs.size() / 2);
  // (On a slow instrumented build the shutter frame itself may have been shed.)
  if (fed.count(shutterTs) != 0) {
    EXPECT_TRUE(shutterSeen);
  }
  EXPECT_NE(fcntl(file.fd, F_GETFD), -1) << "the caller's descriptor stays open";
}

TEST(KoEngineCapture, DestroyedWithEachKindOfMessageInFlight) {
  // Each of the 15 message kinds the two handlers take, queued in numbers behind a few frames
  // and a capture, then the engine is destroyed at once.
  const int kJob = 5;
  for (int kind = 0; kind < 15; ++kind) {
    SCOPED_TRACE(kind);
    SimulatedCamera cam;
    ASSERT_TRUE(cam.ready());
    KO_KoEngineConfig_t config = {true, true, true};
    KoEngine* engine = new KoEngine(&cam, &config);
    cam.attach(engine);
    engine->handleStartPreview(1920, 1080, 0, false, true, KO_CAM_POSITION_BACK);
    for (uint32_t id = 1; id <= 12; ++id) {
      post(cam, engine, id);
      KO_TakePicture_t pic = picture(kJob, id, true);
      if (id == kJob) engine->handleTakePicture(&pic);
    }
    auto message = [engine](uint32_t what, bool background = false) {
      sp<AMessage> msg = new AMessage(what, background ? engine->mBg->getHandlerId() : engine->mFg->getHandlerId());
      msg->setInt32("jobId", kJob);
      return msg;
    };
    for (int n = 0; n < 20; ++n) {
      const uint32_t id = 13 + static_cast<uint32_t>(n);
      KO_cam_face_detection_data_t face = SimulatedCamera::face(id);
      KO_MetaFrameData_t meta = cam.meta(id);
      KO_PreviewFrameData_t preview = cam.preview(id);
      KO_TakePicture_t pic = picture(100 + n, 12, n % 2 == 0);
      KO_ZslFrameData_t zsl;
      sp<AMessage> msg;
      switch (kind) {
        case 0: engine->handlePreviewFrame(&preview); break;
        case 1: engine->handleMetadataFrame(&face, &meta); break;
        case 2: engine->handleMetadataFrame(nullptr, &meta); break;
        case 3: if (cam.lendZsl(id, &zsl)) engine->handleZslFrame(&zsl); break;
        case 4: engine->handleTakePicture(&pic); break;
        case 5: engine->handleStartPreview(1920, 1080, 0, false, true, KO_CAM_POSITION_BACK); break;
        case 6: engine->handleStartRecording(); break;
        case 7: engine->handleStopRecording(); break;
        case 8: engine->handleZslChannelCb(); break;
        case 9: engine->postLateMessage(); break;
        case 10: (msg = message(KoEngineFg::kWhatProcessCompleted))->setInt32("processField", 0x100 << (n % 3)); break;
        case 11: msg = message(KoEngineFg::kWhatSetStartVideo); break;
        case 12: (msg = message(KoEngineFg::kWhatVideoEncoded))->setInt32("videoSaved", n % 2); break;
        case 13: msg = message(KoEngineFg::kWhatEncodeData); break;
        default:
          // The foreground asks for a job's analysis once and removes the job when the answers
          // are in, so a second request for a live job is not something the engine ever sees:
          // these name jobs it does not hold.
          msg = message(KoEngineFg::kWhatEncodeData, /*background=*/true);
          msg->setInt32("jobId", 1000 + n);
          msg->setInt32("preview_hist", 0);
          msg->setInt32("process_fg", n % 2);
          msg->setInt32("cam_position", 0);
      }
      if (msg != nullptr) msg->post();
    }
    ASSERT_TRUE(destroyWithin(engine, 30));
    cam.expectAllReturned();
  }
}

// One frame through the ingest as the facade and the foreground do it: frame creation, then the
// history insertion, camera motion, statistics and block motion.
void ingest(KoEngine& engine, KO_PreviewFrameData_t* preview) {
  sp<KoFrameData> frame;
  engine.mFrameDataCreate->newFrame(preview, frame);
  ASSERT_NE(frame, nullptr);
  KoEngineFg* fg = engine.mFg.get();
  pthread_mutex_lock(&fg->mLock);
  KoFrameHist* hist = fg->mFrameHist;
  hist->addFrameData(frame);
  if (const size_t count = hist->size(); count > 1) {
    sp<KoFrameData> current = hist->mHistory[count - 1]->mFrameData, previous = hist->mHistory[count - 2]->mFrameData;
    fg->processCamMotion(current);
    fg->processFrameStats(current, previous);
    fg->processMotionScores(current, hist);
  }
  pthread_mutex_unlock(&fg->mLock);
}

// Once warm the ingest allocates nothing: the hooks above count every allocation of this thread.
TEST(IngestAllocations, NoneInAThousandFramesOnceWarm) {
  if (!KOVANE_ALLOC_HOOKS) GTEST_SKIP() << "allocator hooks are not built with sanitizers";
  SimulatedCamera cam;
  ASSERT_TRUE(cam.ready());
  KO_KoEngineConfig_t config = {true, true, true};
  KoEngine engine(nullptr, &config);
  tAllocations = 0;
  for (uint32_t id = 1; id <= 1200; ++id) {
    tCounting = id > 200;  // warm after 200 frames; the hooks see this thread's allocations only
    KO_PreviewFrameData_t p = cam.preview(id);
    ingest(engine, &p);
  }
  tCounting = false;
  EXPECT_EQ(0u, tAllocations) << "first size: " << tFirstSize;
  // The hooks do count: a plain allocation on this thread is seen.
  const size_t before = tAllocations;
  tCounting = true;
  void* volatile sink = malloc(100);
  tCounting = false;
  free(sink);
  EXPECT_EQ(before + 1, tAllocations);
}

}  // namespace
}  // namespace android
