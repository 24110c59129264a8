// The engine driven through its public interface by a simulated camera: configuration and
// permissions, frames and their pieces flowing into the history, captures with their callbacks in
// order, the ZSL acceptance rule, late mode, and destruction with any kind of message in flight;
// through all of it every ZSL buffer comes back exactly once.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "EngineTestSupport.h"
#include "HostSensorFeed.h"
#include "KoEngineBg.h"
#include "KoMemory.h"

using namespace android;
using kovane_test::destroyWithin;
using kovane_test::frameIn;
using kovane_test::picture;
using kovane_test::post;
using kovane_test::postStage;
using kovane_test::SimulatedCamera;
using kovane_test::waitForFrame;
using kovane_test::waitUntil;
using kovane_test::withForeground;
using Event = kovane_test::SimulatedCamera::Event;

namespace {

// Feeds frames first..last, each with its metadata (and faces unless noFaces), waiting for each.
void feed(SimulatedCamera& cam, KoEngine* engine, uint32_t first, uint32_t last, bool withFaces = true) {
  for (uint32_t id = first; id <= last; ++id) {
    KO_PreviewFrameData_t p = cam.preview(id);
    ASSERT_EQ(engine->handlePreviewFrame(&p), 0);
    ASSERT_TRUE(waitForFrame(engine, id)) << id;
    KO_cam_face_detection_data_t face = SimulatedCamera::face(withFaces ? id : 0);
    KO_MetaFrameData_t meta = cam.meta(id);
    ASSERT_EQ(engine->handleMetadataFrame(&face, &meta), 0);
    ASSERT_TRUE(waitForFrame(engine, id, KoFrameData::EVENT_METADATA)) << id;
  }
}

}  // namespace

TEST(KoEngine, ConfigurationAndPermissions) {
  HostSensorFeed::reset();
  KO_KoEngineConfig_t noVideo = {true, false, true};
  KoEngine engine(nullptr, &noVideo);
  EXPECT_EQ(engine.mFeatureMask.load(), 0x18u);  // motion scores off with video
  EXPECT_EQ(engine.mSensorMask.load(), 0x3u);
  EXPECT_FALSE(engine.mVideoEnable);
  EXPECT_TRUE(engine.mProcessInFg);
  EXPECT_EQ(engine.mState.load(), 1);

  KO_KoEngineConfig_t noAux = {false, true, false};
  KoEngine other(nullptr, &noAux);
  EXPECT_EQ(other.mFeatureMask.load(), 0x1Du);
  EXPECT_FALSE(other.mBestShotEnable);

  other.setEnableModes(-1, 0);
  EXPECT_FALSE(other.mBestShotEnable);  // unchanged
  EXPECT_FALSE(other.mVideoEnable);
  other.setEnableModes(5, -1);
  EXPECT_TRUE(other.mBestShotEnable);

  KO_getParams_t params = {1, 1};
  other.handleGetParameters(&params);
  EXPECT_EQ(params.param1, 85);
  EXPECT_EQ(params.param2, 85);

  // A null callback is refused with the marker and leaves the slot empty.
  auto refusesNull = [&other](auto reg) { EXPECT_EQ((other.*reg)(nullptr), static_cast<int>(0x80000000)); };
  refusesNull(&KoEngine::registerBestShotDoneCallBack);
  refusesNull(&KoEngine::registerVideoDoneCallBack);
  refusesNull(&KoEngine::registerMetaDataDoneCallBack);
  refusesNull(&KoEngine::registerStatisticsCallBack);
  refusesNull(&KoEngine::registerFrameDoneCallBack);
  refusesNull(&KoEngine::registerKoEngineDoneCallBack);
  EXPECT_EQ(other.mEngineDoneCb.load(), nullptr);
}

// An engine fed by a simulated camera with all its callbacks registered. Tests end with
// release(), which destroys the engine and checks that every ZSL buffer came back exactly once.
class KoEngineWithCamera : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(cam.ready());
    KO_KoEngineConfig_t config = {true, true, true};
    engine = new KoEngine(&cam, &config);
    cam.attach(engine);
  }
  void TearDown() override { delete engine; }
  void release() {
    delete engine;
    engine = nullptr;
    cam.expectAllReturned();
  }

  SimulatedCamera cam;
  KoEngine* engine = nullptr;
};

TEST_F(KoEngineWithCamera, CapturesFollowThePermissionsAndFaceRecordsTheirFrameId) {
  feed(cam, engine, 1, 3);
  feed(cam, engine, 4, 4, /*withFaces=*/false);  // a face record with frame id 0: metadata only
  uint32_t ev3 = 0, ev4 = 0;
  ASSERT_NE(frameIn(engine, 3, &ev3), nullptr);
  ASSERT_NE(frameIn(engine, 4, &ev4), nullptr);
  EXPECT_EQ(ev3 & (KoFrameData::EVENT_FACE | KoFrameData::EVENT_METADATA),
            KoFrameData::EVENT_FACE | KoFrameData::EVENT_METADATA);
  EXPECT_EQ(ev4 & (KoFrameData::EVENT_FACE | KoFrameData::EVENT_METADATA), KoFrameData::EVENT_METADATA);

  // Video needs the engine's permission, the record's wish and a descriptor.
  KO_TakePicture_t noFd = picture(1, 4, true, -1);
  engine->handleTakePicture(&noFd);
  KO_TakePicture_t withFd = picture(2, 4, true, 5);
  engine->handleTakePicture(&withFd);
  engine->setEnableModes(-1, 0);
  KO_TakePicture_t notAllowed = picture(3, 4, true, 5);
  engine->handleTakePicture(&notAllowed);
  KoSequenceQueue* queue = engine->mSequenceQueue;
  ASSERT_TRUE(waitUntil([&] { return queue->getNumActiveJobs() == 3; }));
  EXPECT_FALSE(queue->getSequence(1)->mVideoEnabled);
  EXPECT_TRUE(queue->getSequence(2)->mVideoEnabled);
  EXPECT_FALSE(queue->getSequence(3)->mVideoEnabled);
  EXPECT_TRUE(queue->getSequence(2)->mBestShotEnabled);
  EXPECT_EQ(queue->getProcessField(2) & KO_SEQ_PROCESS_REQUESTED, KO_SEQ_PROCESS_REQUESTED);
  EXPECT_EQ(cam.statistics().size(), 3u);  // one statistics record per capture

  release();  // captures still open: their snapshots and buffers go with the engine
}

TEST_F(KoEngineWithCamera, ZslAcceptanceWithForegroundProcessingOff) {
  engine->mProcessInFg = false;  // the integration that analyses in the background only
  feed(cam, engine, 9, 14);
  for (uint32_t id = 10; id <= 13; ++id) {
    KO_ZslFrameData_t zsl;
    ASSERT_TRUE(cam.lendZsl(id, &zsl));
    engine->handleZslFrame(&zsl);
    // 11 and 12 follow an accepted 10 too closely: handed back at once.
    EXPECT_EQ(cam.zslOut(), id == 10 ? 1u : (id == 13 ? 2u : 1u)) << id;
  }
  ASSERT_TRUE(waitForFrame(engine, 13, KoFrameData::EVENT_ZSL));
  withForeground(engine, [](KoEngineFg* fg) {
    for (uint32_t id = 10; id <= 13; ++id) {
      // Refused frames were still posted (with no buffer), so every id reached the history.
      sp<KoFrameData> f;
      fg->mFrameHist->getItemWithFrameId(id, f);
      EXPECT_NE(f, nullptr) << id;
      if (f == nullptr) continue;
      EXPECT_TRUE(f->hasEvents(KoFrameData::EVENT_ZSL)) << id;
      EXPECT_EQ(f->mHasZsl, id == 10 || id == 13 ? 1 : 0) << id;
    }
    return 0;
  });
  EXPECT_EQ(engine->mLastZslFrameId, 13u);

  // With the foreground's own pass off too, a capture is analysed by the background alone
  // (statistics, focus and exposure, face identities, the best shot) and still finishes once.
  withForeground(engine, [](KoEngineFg* fg) {
    fg->mProcessInFg = false;
    return 0;
  });
  const int kJob = 21;
  KO_TakePicture_t pic = picture(kJob, 16, false);
  for (uint32_t id = 14; id <= 40 && cam.engineDone().empty(); ++id) {
    post(cam, engine, id);
    if (id == 16) {
      ASSERT_EQ(engine->handleTakePicture(&pic), 0);
    }
    ASSERT_TRUE(waitForFrame(engine, id)) << id;
  }
  ASSERT_TRUE(waitUntil([&] { return !cam.engineDone().empty(); }, 20000));
  EXPECT_EQ(cam.engineDone(), std::vector<int>{kJob});
  EXPECT_EQ(engine->mSequenceQueue->getNumActiveJobs(), 0);
  EXPECT_TRUE(cam.recordFaults().empty());
  release();
}

namespace {

// Runs `post` while the foreground is held, and holds it 600 ms longer: everything posted is
// then more than half a second old when the foreground sees it, however fast this machine is.
template <typename Post>
void whileStalled(KoEngine* engine, Post post) {
  std::atomic<bool> holding{false};
  std::atomic<bool> posted{false};
  std::thread slow([&] {
    withForeground(engine, [&](KoEngineFg*) {
      holding = true;
      while (!posted) std::this_thread::sleep_for(std::chrono::milliseconds(1));
      std::this_thread::sleep_for(std::chrono::milliseconds(600));
      return 0;
    });
  });
  ASSERT_TRUE(waitUntil([&] { return holding.load(); }));
  post();
  posted = true;
  slow.join();
}

// Makes the foreground fall behind with a backlog of frames, their pieces and ZSL buffers. The
// newest message of the backlog is old too, so late mode comes on and stays on until a fresh
// message arrives.
void fallBehind(SimulatedCamera& cam, KoEngine* engine, uint32_t& id) {
  whileStalled(engine, [&] {
    for (int i = 0; i < 5; ++i, ++id) post(cam, engine, id);
  });
  ASSERT_TRUE(waitUntil([&] { return engine->mFg->isLateMode(); }, 20000));
}

}  // namespace

TEST_F(KoEngineWithCamera, LateModeShedsLoadAndEndsWithoutLosingABuffer) {
  feed(cam, engine, 1, 2);
  uint32_t id = 3;

  fallBehind(cam, engine, id);
  // Late frames of the backlog were dropped by the foreground: no capture needed them.
  for (uint32_t old = 3; old < id; ++old) EXPECT_EQ(frameIn(engine, old), nullptr) << old;
  // While late the facade sheds the preview frame and posts 'late' instead, which ends late mode.
  const uint32_t shed = id++;
  KO_PreviewFrameData_t p = cam.preview(shed);
  EXPECT_EQ(engine->handlePreviewFrame(&p), 0);
  ASSERT_TRUE(waitUntil([&] { return !engine->mFg->isLateMode(); }));
  EXPECT_EQ(frameIn(engine, shed), nullptr);

  // Again, now a ZSL buffer: handed straight back.
  fallBehind(cam, engine, id);
  KO_ZslFrameData_t zsl;
  ASSERT_TRUE(cam.lendZsl(id, &zsl));
  engine->handleZslFrame(&zsl);
  EXPECT_FALSE(cam.isOut(zsl.buffer));
  ASSERT_TRUE(waitUntil([&] { return !engine->mFg->isLateMode(); }));

  // Once caught up, frames are kept again.
  feed(cam, engine, id + 1, id + 3);

  // A capture that reaches the foreground late is answered with the engine-done callback only.
  whileStalled(engine, [&] {
    KO_TakePicture_t pic = picture(77, id + 3, false, -1);
    engine->handleTakePicture(&pic);
  });
  ASSERT_TRUE(waitUntil([&] { return !cam.engineDone().empty(); }));
  EXPECT_EQ(cam.engineDone(), std::vector<int>{77});
  EXPECT_EQ(engine->mSequenceQueue->getNumActiveJobs(), 0);
  EXPECT_EQ(cam.statistics().size(), 1u);  // the statistics record still comes

  release();
}

TEST(KoEngineFlow, FramesCaptureAndStagesThroughThePublicInterface) {
  SimulatedCamera cam;
  ASSERT_TRUE(cam.ready());
  HostSensorFeed::reset();
  HostSensorFeed::setSensors({ASENSOR_TYPE_ACCELEROMETER, ASENSOR_TYPE_GYROSCOPE});
  KO_KoEngineConfig_t config = {true, true, true};
  KoEngine* engine = new KoEngine(&cam, &config);
  cam.attach(engine);
  EXPECT_EQ(engine->handleStartPreview(1920, 1080, 0, true, true, KO_CAM_POSITION_BACK), 0);

  const int kJob = 7;
  const uint32_t kShutter = 20;
  const uint32_t kLast = 30;
  std::thread camera([&] {
    for (uint32_t id = 1; id <= kLast; ++id) {
      const int64_t ns = SimulatedCamera::timestampOf(id) * 1000;
      HostSensorFeed::inject(ASENSOR_TYPE_GYROSCOPE, ns, 0.01f, 0.0f, 0.005f);
      HostSensorFeed::inject(ASENSOR_TYPE_ACCELEROMETER, ns, 0.0f, 9.8f, 0.1f);
      KO_cam_face_detection_data_t face = SimulatedCamera::face(id);
      KO_MetaFrameData_t meta = cam.meta(id);
      KO_ZslFrameData_t zsl;
      const bool piecesFirst = id % 2 == 1;  // odd frames: pieces before the frame
      const bool withZsl = id % 3 == 0 && cam.lendZsl(id, &zsl);
      if (piecesFirst) {
        EXPECT_EQ(engine->handleMetadataFrame(&face, &meta), 0);
        if (withZsl) engine->handleZslFrame(&zsl);
      }
      KO_PreviewFrameData_t preview = cam.preview(id);
      EXPECT_EQ(engine->handlePreviewFrame(&preview), 0);
      if (!piecesFirst) {
        // Pieces that follow their frame are sent once it is in the history; sent at once they
        // could queue behind its analysis long enough to count as late on a slow machine.
        ASSERT_TRUE(waitForFrame(engine, id)) << id;
        EXPECT_EQ(engine->handleMetadataFrame(&face, &meta), 0);
        if (withZsl) engine->handleZslFrame(&zsl);
      }
      if (id == kShutter) {
        KO_TakePicture_t pic = picture(kJob, kShutter, false);
        pic.exifTs = {1700000000, 5};
        EXPECT_EQ(engine->handleTakePicture(&pic), 0);
      }
      // The camera keeps pace with the engine, so nothing is shed for lateness.
      ASSERT_TRUE(waitForFrame(engine, id, KoFrameData::EVENT_FACE | KoFrameData::EVENT_METADATA)) << id;
    }
  });
  camera.join();

  // Every frame in the history: pieces merged, statistics, motion scores on every other frame
  // (33333 us apart), camera motion with sensors on.
  withForeground(engine, [&](KoEngineFg* fg) {
    KoFrameHist* hist = fg->mFrameHist;
    EXPECT_EQ(hist->size(), 30u);
    for (size_t i = 0; i < hist->size(); ++i) {
      sp<KoFrameData> f = hist->mHistory[i]->mFrameData;
      const uint32_t id = f->mFrameId;
      SCOPED_TRACE(id);
      const uint32_t ev = f->processedEvents();
      EXPECT_TRUE(ev & KoFrameData::EVENT_FACE);
      EXPECT_TRUE(ev & KoFrameData::EVENT_METADATA);
      EXPECT_EQ(f->mLuxLevel, static_cast<int32_t>(200 + id));
      EXPECT_EQ(f->mFaceData.record.numFaces, 1u);
      if (id == 1) continue;  // the first frame had no predecessor
      EXPECT_TRUE(ev & KoFrameData::EVENT_STATS);
      EXPECT_EQ((ev & KoFrameData::EVENT_MOTION) != 0, id % 2 == 0);
      EXPECT_TRUE(ev & KoFrameData::EVENT_CAM_MOTION);
      EXPECT_GT(f->mLumaStats.mean, 30.f);
      EXPECT_GT(f->mSobelStats.mean, 1.f);
      EXPECT_EQ(f->mStatsWidth, 320u);
      EXPECT_EQ(f->mStatsParams[3], 96u);
      EXPECT_EQ(f->mSensorEnabled[1], 1);
      EXPECT_EQ(f->mGyroSample.mTimestamp, SimulatedCamera::timestampOf(id) * 1000);
    }
    return 0;
  });

  // The statistics callback came at the shutter with an EXIF history block.
  std::vector<std::vector<uint8_t>> stats = cam.statistics();
  ASSERT_EQ(stats.size(), 1u);
  ASSERT_GT(stats[0].size(), 4u + 12u);
  EXPECT_EQ(std::vector<uint8_t>(stats[0].begin(), stats[0].begin() + 4), (std::vector<uint8_t>{3, 0, 0, 0}));
  EXPECT_EQ(memcmp(&stats[0][8], "dhss", 4), 0);
  KoStatsReader reader;
  ASSERT_TRUE(reader.parse(stats[0].data(), stats[0].size())) << reader.error();
  EXPECT_TRUE(reader.hadExifPrefix());
  ASSERT_TRUE(reader.hasSession());
  EXPECT_EQ(reader.session().getInt("jobId"), kJob);
  EXPECT_EQ(reader.session().getInt("bestShot.enabled"), 1);
  EXPECT_FALSE(reader.hasSequence());  // the record at the shutter has no job yet
  ASSERT_EQ(reader.frames().size(), static_cast<size_t>(kShutter));  // the frames before the shutter
  const KoStatsReader::Row& shutterRow = reader.frames().back();
  EXPECT_EQ(shutterRow.getInt("frame_id"), kShutter);
  EXPECT_EQ(shutterRow.getInt("lux_level"), 200 + kShutter);
  EXPECT_EQ(reader.faceGroups().size(), reader.frames().size());

  // The job collected the frames after the shutter, was decided and finished by itself: the
  // best-shot results (if any) come before its end, and the end comes once.
  KoSequenceQueue* queue = engine->mSequenceQueue;
  ASSERT_TRUE(waitUntil([&] { return !cam.engineDone().empty(); }, 20000));
  EXPECT_EQ(cam.engineDone(), std::vector<int>{kJob});
  EXPECT_EQ(queue->getNumActiveJobs(), 0);
  const std::vector<Event> events = cam.events();
  ASSERT_FALSE(events.empty());
  EXPECT_EQ(events.back().kind, Event::kEngineDone);
  for (const Event& e : events) EXPECT_EQ(e.jobId, kJob);

  // Stages reported by anyone finish in any order; a job ends with the third, and a best-shot
  // report for a job whose search has not run does nothing.
  const int kManual = 8;
  const KO_timespec_t ts = {0, 0};
  queue->newSequence(kManual, 0, 1, 0, -1, -1, sp<ABuffer>(), true, false, ts, false);
  postStage(engine, kManual, KO_SEQ_VIDEO_FINISHED, 0x200);
  postStage(engine, kManual, KO_SEQ_PREVIEW_HISTORY_DONE, 0x400);
  ASSERT_TRUE(waitUntil([&] { return (queue->getProcessField(kManual) & 0x600) == 0x600; }));
  EXPECT_EQ(cam.engineDone().size(), 1u);
  postStage(engine, kManual, 0, 0x100);
  postStage(engine, kManual, KO_SEQ_BESTSHOT_FOUND, 0x100);
  ASSERT_TRUE(waitUntil([&] { return cam.engineDone().size() == 2u; }));
  EXPECT_EQ(cam.engineDone().back(), kManual);
  EXPECT_EQ(queue->getNumActiveJobs(), 0);

  // Events without a callback are skipped: a capture with no statistics callback registered,
  // finishing with no engine-done callback registered, ends quietly.
  engine->registerStatisticsCallBack(nullptr);
  engine->registerKoEngineDoneCallBack(nullptr);
  KO_TakePicture_t quiet = picture(9, kLast, false);
  EXPECT_EQ(engine->handleTakePicture(&quiet), 0);
  ASSERT_TRUE(waitUntil([&] { return queue->getNumActiveJobs() == 1; }));
  for (int stage : {0x100, 0x200, 0x400}) {
    postStage(engine, 9, KO_SEQ_BESTSHOT_FOUND | KO_SEQ_VIDEO_FINISHED | KO_SEQ_PREVIEW_HISTORY_DONE, stage);
  }
  ASSERT_TRUE(waitUntil([&] { return queue->getNumActiveJobs() == 0; }));
  EXPECT_EQ(cam.statistics().size(), 1u);
  EXPECT_EQ(cam.engineDone().size(), 2u);

  delete engine;
  HostSensorFeed::reset();
  cam.expectAllReturned();
}

TEST_F(KoEngineWithCamera, ACaptureEveryHundredMillisecondsForTenSecondsAllFinish) {
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

  ASSERT_TRUE(destroyWithin(std::exchange(engine, nullptr), 30));
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
