// The engine driven through its public interface by a simulated camera on its own thread:
// frames, their pieces and ZSL buffers flow into the history with their statistics, a capture
// produces its statistics callback and a job, and the job's stages end it.
#include <gtest/gtest.h>

#include <thread>

#include "EngineTestSupport.h"
#include "HostSensorFeed.h"
#include "KoFrameHistSnapshot.h"
#include "KoStatsReader.h"

using namespace android;
using kovane_test::SimulatedCamera;
using kovane_test::postStage;
using kovane_test::waitForFrame;
using kovane_test::waitUntil;
using kovane_test::withForeground;

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
        KO_TakePicture_t pic = kovane_test::picture(kJob, kShutter, false);
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
  const std::vector<SimulatedCamera::Event> events = cam.events();
  ASSERT_FALSE(events.empty());
  EXPECT_EQ(events.back().kind, SimulatedCamera::Event::kEngineDone);
  for (const SimulatedCamera::Event& e : events) EXPECT_EQ(e.jobId, kJob);

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

  delete engine;
  HostSensorFeed::reset();
  cam.expectAllReturned();
}
