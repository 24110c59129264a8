// Captures end to end through the public interface: every capture finishes with its callbacks
// in order and the ZSL buffers come back exactly once, however dense the captures; and the
// engine can be destroyed with any kind of message still in flight.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "EngineTestSupport.h"
#include "KoEngineBg.h"
#include "KoMemory.h"

using namespace android;
using kovane_test::SimulatedCamera;
using kovane_test::picture;
using kovane_test::post;
using kovane_test::destroyWithin;
using kovane_test::waitUntil;
using Event = kovane_test::SimulatedCamera::Event;

TEST(KoEngineCapture, ACaptureEveryHundredMillisecondsForTenSecondsAllFinish) {
  SimulatedCamera cam;
  ASSERT_TRUE(cam.ready());
  KO_KoEngineConfig_t config = {true, true, true};
  KoEngine* engine = new KoEngine(&cam, &config);
  cam.attach(engine);
  ASSERT_EQ(engine->handleStartPreview(1920, 1080, 0, false, true, KO_CAM_POSITION_BACK), 0);

  // 300 frames at 30 fps, a shutter press on every third frame from frame 10 on; half of the
  // captures ask for a clip too. Each frame is handed over once the previous one is in the
  // history, as a camera at the engine's pace would. On a slow (instrumented) build the engine
  // may still fall behind and shed a frame at the facade during a short late episode; the
  // camera then goes on after a while, and the captures must survive that as well.
  auto paced = [&](uint32_t id) { kovane_test::handOver(cam, engine, id); };
  const uint32_t kFrames = 300;
  // Every shutter press falls on a blink; the frames between have the eyes open.
  for (uint32_t id = 9; id <= kFrames; id += 3) cam.blinks.insert(id);
  std::vector<int> jobs;
  size_t mostHeld = 0;
  for (uint32_t id = 1; id <= kFrames; ++id) {
    paced(id);
    if (id >= 10 && id % 3 == 0) {
      const int job = static_cast<int>(id);
      KO_TakePicture_t pic = picture(job, id, id % 2 == 0);
      ASSERT_EQ(engine->handleTakePicture(&pic), 0);
      jobs.push_back(job);
    }
    mostHeld = std::max<size_t>(mostHeld, engine->mMemory->count());
  }
  // The last captures still need frames after their shutter: the preview runs on until every
  // capture has finished.
  for (uint32_t id = kFrames + 1; cam.engineDone().size() < jobs.size() && id <= kFrames + 300; ++id) paced(id);

  ASSERT_TRUE(waitUntil([&] { return cam.engineDone().size() >= jobs.size(); }, 60000))
      << cam.engineDone().size() << " of " << jobs.size() << " captures finished";
  std::vector<int> done = cam.engineDone();
  std::sort(done.begin(), done.end());
  EXPECT_EQ(done, jobs) << "each capture finishes exactly once";
  EXPECT_EQ(engine->mSequenceQueue->getNumActiveJobs(), 0);

  // Each best-shot result precedes its job's end and none comes for an unknown job; the presses
  // on blinks got best shots with the eyes open, and every best-shot record carried what the
  // camera needs to use it.
  std::map<int, bool> ended;
  size_t bestShots = 0;
  for (const Event& e : cam.events()) {
    if (e.kind == Event::kEngineDone) {
      EXPECT_FALSE(ended[e.jobId]) << e.jobId;
      ended[e.jobId] = true;
    } else if (e.kind == Event::kBestShotDone) {
      ++bestShots;
      EXPECT_FALSE(ended[e.jobId]) << "best shot of job " << e.jobId << " after its end";
      EXPECT_TRUE(std::binary_search(jobs.begin(), jobs.end(), e.jobId)) << e.jobId;
      EXPECT_EQ(cam.blinks.count(e.frameId), 0u) << "job " << e.jobId << " chose blinked frame " << e.frameId;
    }
  }
  // (An instrumented build sheds frames in late mode, and a press in late mode ends at once.)
  EXPECT_GT(bestShots, 0u);
  const std::vector<std::string> faults = cam.recordFaults();
  EXPECT_TRUE(faults.empty()) << faults.size() << " faulty records, first: " << faults.front();

  // With every job done the engine holds at most the candidate list's five buffers and that of
  // the newest frame (the next frame's pass decides on it), and it never held more than seven.
  EXPECT_LE(mostHeld, static_cast<size_t>(KoMemory::MAX_BUFFERS));
  EXPECT_TRUE(waitUntil([&] { return cam.zslOut() <= 6u; })) << cam.zslOut();

  ASSERT_TRUE(destroyWithin(engine, 30));
  cam.expectAllReturned();
}

TEST(KoEngineCapture, DestroyedWithEachKindOfMessageInFlight) {
  // Every message kind either handler takes, queued in numbers behind a few frames and a
  // capture, then the engine is destroyed at once.
  const std::vector<std::string> kinds = {"pref", "facf", "meta", "zslf", "tkpc", "stpr", "stre", "spre",
                                          "zslc", "late", "bgcm", "ssvd", "vide", "encd-fg", "encd-bg"};
  for (const std::string& kind : kinds) {
    SCOPED_TRACE(kind);
    SimulatedCamera cam;
    ASSERT_TRUE(cam.ready());
    KO_KoEngineConfig_t config = {true, true, true};
    KoEngine* engine = new KoEngine(&cam, &config);
    cam.attach(engine);
    engine->handleStartPreview(1920, 1080, 0, false, true, KO_CAM_POSITION_BACK);
    const int kJob = 5;
    for (uint32_t id = 1; id <= 12; ++id) {
      post(cam, engine, id);
      if (id == kJob) {
        KO_TakePicture_t pic = picture(kJob, id, true);
        engine->handleTakePicture(&pic);
      }
    }
    const ALooper::handler_id fg = engine->mFg->getHandlerId();
    const ALooper::handler_id bg = engine->mBg->getHandlerId();
    for (int n = 0; n < 20; ++n) {
      const uint32_t id = 13 + static_cast<uint32_t>(n);
      KO_cam_face_detection_data_t face = SimulatedCamera::face(id);
      KO_MetaFrameData_t meta = cam.meta(id);
      KO_ZslFrameData_t zsl;
      if (kind == "pref") {
        KO_PreviewFrameData_t p = cam.preview(id);
        engine->handlePreviewFrame(&p);
      } else if (kind == "facf" || kind == "meta") {
        engine->handleMetadataFrame(kind == "facf" ? &face : nullptr, &meta);
      } else if (kind == "zslf") {
        if (cam.lendZsl(id, &zsl)) engine->handleZslFrame(&zsl);
      } else if (kind == "tkpc") {
        KO_TakePicture_t pic = picture(100 + n, 12, n % 2 == 0);
        engine->handleTakePicture(&pic);
      } else if (kind == "stpr") {
        engine->handleStartPreview(1920, 1080, 0, false, true, KO_CAM_POSITION_BACK);
      } else if (kind == "stre") {
        engine->handleStartRecording();
      } else if (kind == "spre") {
        engine->handleStopRecording();
      } else if (kind == "zslc") {
        engine->handleZslChannelCb();
      } else if (kind == "late") {
        engine->postLateMessage();
      } else {
        sp<AMessage> msg;
        if (kind == "bgcm") {
          msg = new AMessage(KoEngineFg::kWhatProcessCompleted, fg);
          msg->setInt32("processField", 0x100 << (n % 3));
        } else if (kind == "ssvd") {
          msg = new AMessage(KoEngineFg::kWhatSetStartVideo, fg);
        } else if (kind == "vide") {
          msg = new AMessage(KoEngineFg::kWhatVideoEncoded, fg);
          msg->setInt32("videoSaved", n % 2);
        } else if (kind == "encd-fg") {
          msg = new AMessage(KoEngineFg::kWhatEncodeData, fg);
        } else {
          msg = new AMessage(KoEngineFg::kWhatEncodeData, bg);
          msg->setInt32("preview_hist", 0);
          msg->setInt32("process_fg", n % 2);
          msg->setInt32("cam_position", 0);
        }
        msg->setInt32("jobId", kJob);
        msg->post();
      }
    }
    ASSERT_TRUE(destroyWithin(engine, 30));
    cam.expectAllReturned();
  }
}
