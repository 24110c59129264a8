#pragma once
// A simulated camera for engine tests: it owns a pool of ZSL buffers, produces 1920x1080 NV21
// preview frames of a real photograph (shifted a little from frame to frame), and keeps the
// books of every callback the engine makes, so that a test can tell whether each borrowed ZSL
// buffer came back exactly once.
#include <gtest/gtest.h>

#include <cstring>
#include <future>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "KoEngine.h"
#include "KoEngineFg.h"
#include "KoFrameHist.h"
#include "KoSequenceQueue.h"
#include "KoStatsReader.h"
#include "TestData.h"
#include "TestWait.h"

namespace kovane_test {

class SimulatedCamera {
 public:
  static constexpr int kWidth = 1920;
  static constexpr int kHeight = 1080;
  static constexpr int64_t kFrameUs = 33333;
  static constexpr int kZslBuffers = 12;
  static constexpr int kPatch = 600;

  SimulatedCamera() {
    mPicture = readNv21("solvay_1920x1080.nv21", kWidth, kHeight);
    mFrame.resize(mPicture.size());
    mZslPool.resize(kZslBuffers);
    for (int i = 0; i < kZslBuffers; ++i) mFree.insert(&mZslPool[i]);
    mPlanes.numPlanes = 2;
    mPlanes.mp[0] = {kWidth * kHeight, 0, kWidth, kHeight};
    mPlanes.mp[1] = {kWidth * kHeight / 2, 0, kWidth, kHeight / 2};
    mPlanes.frameLen = static_cast<uint32_t>(mPicture.size());
  }

  bool ready() const { return !mPicture.empty(); }

  void attach(android::KoEngine* engine) {
    EXPECT_EQ(engine->registerFrameDoneCallBack(&SimulatedCamera::onFrameDone), 0);
    EXPECT_EQ(engine->registerKoEngineDoneCallBack(&SimulatedCamera::onEngineDone), 0);
    EXPECT_EQ(engine->registerStatisticsCallBack(&SimulatedCamera::onStatistics), 0);
    EXPECT_EQ(engine->registerBestShotDoneCallBack(&SimulatedCamera::onBestShotDone), 0);
    EXPECT_EQ(engine->registerVideoDoneCallBack(&SimulatedCamera::onVideoDone), 0);
  }

  // The preview record of frame `id`: the picture shifted right by id % 4 pixels. With a
  // moving subject, a 600x600 patch from the picture's centre also swings left and right in
  // front of it (12 pixels a frame, up to 120 either way), as a person walking by would.
  android::KO_PreviewFrameData_t preview(uint32_t id) {
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
    android::KO_PreviewFrameData_t p = {};
    p.timeStamp = timestampOf(id);
    p.frameId = id;
    p.streamType = android::KO_STREAM_TYPE_PREVIEW;
    p.width = kWidth;
    p.height = kHeight;
    p.data = mFrame.data();
    p.colorFormat = android::KO_COLOR_FORMAT_NV21;
    p.planes = &mPlanes;
    return p;
  }
  static int64_t timestampOf(uint32_t id) { return 1000000 + static_cast<int64_t>(id) * kFrameUs; }

  // A face record with one face for frame `id`, its eyes closed when `blink`.
  static android::KO_cam_face_detection_data_t face(uint32_t id, bool blink = false) {
    android::KO_cam_face_detection_data_t f = {};
    f.frameId = id;
    f.numFaces = 1;
    auto& face = f.faces[0];
    face.score = 90;
    face.left = 800;
    face.top = 400;
    face.width = face.height = 120;
    face.smileDegree = 40;
    if (blink) face.blinkDetected = 1, face.leftBlink = face.rightBlink = 90;
    return f;
  }

  // Metadata of frame `id`; the raw bytes live in the camera.
  android::KO_MetaFrameData_t meta(uint32_t id) {
    android::KO_MetaFrameData_t m = {};
    m.frameId = id;
    m.data = mMetaBytes;
    m.size = sizeof(mMetaBytes);
    m.camMeta = {static_cast<int32_t>(200 + id), 1, 2, 3.5f, 0.02f};
    return m;
  }

  // Lends a ZSL buffer for frame `id`; false when all are out.
  bool lendZsl(uint32_t id, android::KO_ZslFrameData_t* out) {
    std::lock_guard<std::mutex> lock(mLock);
    if (mFree.empty()) return false;
    uint8_t* b = *mFree.begin();
    mFree.erase(mFree.begin());
    mOut.insert(b);
    out->buffer = b;
    out->frameId = id;
    return true;
  }

  // Best-shot-done, video-done and engine-done callbacks in the order they came.
  struct Event {
    enum Kind { kBestShotDone, kVideoDone, kEngineDone } kind;
    int jobId;
    uint32_t frameId;  // best shot: the chosen frame
  };

  size_t zslOut() { return locked([&] { return mOut.size(); }); }
  bool isOut(void* buffer) { return locked([&] { return mOut.count(static_cast<uint8_t*>(buffer)) != 0; }); }
  std::vector<std::vector<uint8_t>> statistics() { return locked([&] { return mStatistics; }); }
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
  // Runs `fn` on the camera of `cookie` with its lock held.
  template <typename Fn>
  static void on(void* cookie, Fn fn) {
    SimulatedCamera* cam = static_cast<SimulatedCamera*>(cookie);
    std::lock_guard<std::mutex> lock(cam->mLock);
    fn(*cam);
  }
  static void onFrameDone(void* cookie, void* buffer) {
    on(cookie, [buffer](SimulatedCamera& cam) {
      uint8_t* b = static_cast<uint8_t*>(buffer);
      if (cam.mOut.erase(b) == 0) {
        cam.mDoubleReturns++;
      } else {
        cam.mFree.insert(b);
      }
    });
  }
  static void onEngineDone(void* cookie, int jobId) {
    on(cookie, [jobId](SimulatedCamera& cam) { cam.mEvents.push_back({Event::kEngineDone, jobId, 0}); });
  }
  static void onStatistics(void* cookie, int /*jobId*/, android::KO_statistics_cb_t* stats) {
    on(cookie, [stats](SimulatedCamera& cam) {
      const uint8_t* data = static_cast<const uint8_t*>(stats->data);
      cam.mStatistics.emplace_back(data, data + stats->size);
    });
  }
  static void onVideoDone(void* cookie, int jobId) {
    on(cookie, [jobId](SimulatedCamera& cam) { cam.mEvents.push_back({Event::kVideoDone, jobId, 0}); });
  }
  static void onBestShotDone(void* cookie, int jobId, android::KO_bestShotDone_cb_t* result) {
    on(cookie, [jobId, result](SimulatedCamera& cam) {
      cam.mEvents.push_back({Event::kBestShotDone, jobId, result ? result->frameId : 0});
      cam.checkBestShotRecordLocked(jobId, result);
    });
  }

  // What a camera reads of a best-shot record, while the callback runs: the chosen frame's ZSL
  // buffer (still lent, not yet handed back), the capture's configuration and the frame's
  // metadata as given, its analysis image, and a statistics record of this job.
  void checkBestShotRecordLocked(int jobId, const android::KO_bestShotDone_cb_t* r) {
    auto fault = [&](const std::string& what) {
      mRecordFaults.push_back("job " + std::to_string(jobId) + ": " + what);
    };
    if (r == nullptr) return fault("no record");
    if (r->zslBuffer != nullptr && mOut.count(static_cast<uint8_t*>(r->zslBuffer)) == 0) {
      fault("ZSL buffer not one the engine holds");
    }
    auto differs = [](const void* got, size_t size, const void* want, size_t wantSize) {
      return size != wantSize || got == nullptr || memcmp(got, want, wantSize) != 0;
    };
    static const uint8_t kConfig[16] = {1, 2, 3};
    if (differs(r->configData, r->configSize, kConfig, sizeof(kConfig))) fault("configuration differs");
    if (differs(r->metaData, r->metaSize, mMetaBytes, sizeof(mMetaBytes))) fault("metadata differs");
    if (r->yPlane == nullptr || r->width != 640 || r->height != 360 || r->stride != 640 ||
        r->uPlane != r->yPlane + 640 * 360 || r->vPlane != r->uPlane + 320 * 180 ||
        r->chromaWidth != 320 || r->chromaHeight != 180 || r->chromaStride != 320) {
      fault("analysis image missing or misdescribed");
    }
    android::KoStatsReader reader;
    if (r->exifData == nullptr || !reader.parse(r->exifData, r->exifSize)) {
      fault("statistics record unreadable: " + reader.error());
    } else if (!reader.hasSession() || reader.session().getInt("jobId") != jobId ||
               reader.frames().empty()) {
      fault("statistics record of another job or without frames");
    }
  }

  std::vector<uint8_t> mPicture;
  std::vector<uint8_t> mFrame;
  android::KO_cam_frame_len_offset_t mPlanes = {};
  uint8_t mMetaBytes[64] = {1, 2, 3, 4};
  std::vector<uint8_t> mZslPool;
  std::mutex mLock;
  std::set<uint8_t*> mFree;
  std::set<uint8_t*> mOut;
  int mDoubleReturns = 0;
  std::vector<Event> mEvents;
  std::vector<std::string> mRecordFaults;
  std::vector<std::vector<uint8_t>> mStatistics;
};

// A take-picture request for frame `id` of a SimulatedCamera, asking for a best shot (and a
// clip when `video`), with a small configuration blob.
inline android::KO_TakePicture_t picture(int jobId, uint32_t frameId, bool video, int videoFd = -1) {
  static uint8_t config[16] = {1, 2, 3};
  android::KO_TakePicture_t pic = {};
  pic.jobId = jobId;
  pic.frameId = static_cast<int32_t>(frameId);
  pic.timeStamp = SimulatedCamera::timestampOf(frameId);
  pic.videoFd = videoFd;
  pic.metadataFd = -1;
  pic.config = config;
  pic.configSize = sizeof(config);
  pic.bestShotEnable = true;
  pic.videoEnable = video;
  return pic;
}

// Posts frame `id` with its face record, metadata and (when the camera has one free) a ZSL
// buffer, without waiting for the engine.
inline void post(SimulatedCamera& cam, android::KoEngine* engine, uint32_t id) {
  android::KO_PreviewFrameData_t p = cam.preview(id);
  engine->handlePreviewFrame(&p);
  android::KO_cam_face_detection_data_t face = SimulatedCamera::face(id, cam.blinks.count(id) != 0);
  android::KO_MetaFrameData_t meta = cam.meta(id);
  engine->handleMetadataFrame(&face, &meta);
  android::KO_ZslFrameData_t zsl;
  if (cam.lendZsl(id, &zsl)) engine->handleZslFrame(&zsl);
}

// Runs `fn` with the foreground handler's lock held, so that the test reads the handler's state
// between two messages.
template <typename Fn>
auto withForeground(android::KoEngine* engine, Fn fn) -> decltype(fn(engine->mFg.get())) {
  pthread_mutex_lock(&engine->mFg->mLock);
  auto result = fn(engine->mFg.get());
  pthread_mutex_unlock(&engine->mFg->mLock);
  return result;
}

// The frame with that id in the foreground's history (null when it is not there), read between
// two messages; its events are read under the same lock.
inline android::sp<android::KoFrameData> frameIn(android::KoEngine* engine, uint32_t id, uint32_t* events = nullptr) {
  return withForeground(engine, [id, events](android::KoEngineFg* fg) {
    android::sp<android::KoFrameData> f;
    fg->mFrameHist->getItemWithFrameId(id, f);
    if (events != nullptr) *events = f != nullptr ? f->processedEvents() : 0;
    return f;
  });
}

// Waits until the history holds a frame with that id carrying all of `events`.
inline bool waitForFrame(android::KoEngine* engine, uint32_t id, uint32_t events = 0, int timeoutMs = 20000) {
  return waitUntil(
      [&] {
        uint32_t has = 0;
        return frameIn(engine, id, &has) != nullptr && (has & events) == events;
      },
      timeoutMs);
}

// Posts frame `id` (as post() does) and waits until it is in the history, as a camera at the
// engine's pace would. On a slow (instrumented) build the engine may shed frames at the facade
// during a late episode; the camera then goes on after a while, so callers must expect frames
// that never reached the history.
inline void handOver(SimulatedCamera& cam, android::KoEngine* engine, uint32_t id) {
  post(cam, engine, id);
  waitUntil([&] { return engine->mFg->isLateMode() || frameIn(engine, id) != nullptr; }, 3000);
}

// Sets the analysis bits of job `jobId` and reports one of its stages (0x100 best shot, 0x200
// video, 0x400 preview history) finished, as the background and encoder do.
inline void postStage(android::KoEngine* engine, int jobId, uint32_t analysisBits, int stage) {
  engine->mSequenceQueue->setProcessField(jobId, analysisBits);
  android::sp<android::AMessage> msg =
      new android::AMessage(android::KoEngineFg::kWhatProcessCompleted, engine->mFg->getHandlerId());
  msg->setInt32("jobId", jobId);
  msg->setInt32("processField", stage);
  msg->post();
}

// Deletes the engine on another thread; false when that does not end within the deadline.
inline bool destroyWithin(android::KoEngine* engine, int seconds) {
  auto done = std::async(std::launch::async, [engine] { delete engine; });
  return done.wait_for(std::chrono::seconds(seconds)) == std::future_status::ready;
}

}  // namespace kovane_test
