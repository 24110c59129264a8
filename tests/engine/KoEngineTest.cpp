// Facade rules: configuration and permissions, the ZSL acceptance rule, face records, null
// callbacks, and late mode end to end.
#include <gtest/gtest.h>

#include <thread>

#include "EngineTestSupport.h"
#include "HostSensorFeed.h"

using namespace android;
using kovane_test::SimulatedCamera;
using kovane_test::picture;
using kovane_test::post;
using kovane_test::waitForFrame;
using kovane_test::waitUntil;
using kovane_test::withForeground;

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

TEST_F(KoEngineWithCamera, EventsWithoutACallbackAreSkipped) {
  engine->registerStatisticsCallBack(nullptr);
  engine->registerKoEngineDoneCallBack(nullptr);
  feed(cam, engine, 1, 3);
  KO_ZslFrameData_t zsl;
  ASSERT_TRUE(cam.lendZsl(3, &zsl));
  engine->handleZslFrame(&zsl);
  KO_TakePicture_t pic = picture(5, 3, false, -1);
  engine->handleTakePicture(&pic);
  ASSERT_TRUE(waitUntil([&] { return engine->mSequenceQueue->getNumActiveJobs() == 1; }));
  // A job finishing with no engine-done callback registered ends quietly.
  for (int stage : {0x100, 0x200, 0x400}) {
    kovane_test::postStage(engine, 5, KO_SEQ_BESTSHOT_FOUND | KO_SEQ_VIDEO_FINISHED | KO_SEQ_PREVIEW_HISTORY_DONE, stage);
  }
  ASSERT_TRUE(waitUntil([&] { return engine->mSequenceQueue->getNumActiveJobs() == 0; }));
  EXPECT_TRUE(cam.statistics().empty());
  EXPECT_TRUE(cam.engineDone().empty());
  release();
}

TEST_F(KoEngineWithCamera, CapturesFollowThePermissionsAndFaceRecordsTheirFrameId) {
  feed(cam, engine, 1, 3);
  feed(cam, engine, 4, 4, /*withFaces=*/false);  // a face record with frame id 0: metadata only
  uint32_t ev3 = 0, ev4 = 0;
  ASSERT_NE(kovane_test::frameIn(engine, 3, &ev3), nullptr);
  ASSERT_NE(kovane_test::frameIn(engine, 4, &ev4), nullptr);
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
  std::vector<void*> lent;
  for (uint32_t id = 10; id <= 13; ++id) {
    KO_ZslFrameData_t zsl;
    ASSERT_TRUE(cam.lendZsl(id, &zsl));
    lent.push_back(zsl.buffer);
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
  for (uint32_t old = 3; old < id; ++old) EXPECT_EQ(kovane_test::frameIn(engine, old), nullptr) << old;
  // While late the facade sheds the preview frame and posts 'late' instead, which ends late mode.
  const uint32_t shed = id++;
  KO_PreviewFrameData_t p = cam.preview(shed);
  EXPECT_EQ(engine->handlePreviewFrame(&p), 0);
  ASSERT_TRUE(waitUntil([&] { return !engine->mFg->isLateMode(); }));
  EXPECT_EQ(kovane_test::frameIn(engine, shed), nullptr);

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
