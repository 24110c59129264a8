// The simulated camera on frames of a real clip: every ZSL buffer it lends comes back exactly
// once, the shutter gets a statistics record of the frames before it, and the camera keeps its
// own picture of the shutter frame.
#include <gtest/gtest.h>

#include <tuple>

#include "CameraSimulator.h"
#include "ClipDecoder.h"
#include "KoStatsReader.h"
#include "TestData.h"

using kovane_replay::CameraSimulator;
using kovane_replay::ClipDecoder;
using kovane_replay::ClipFrame;
using kovane_replay::FaceRecord;
using kovane_replay::GyroSample;

TEST(CameraSimulator, EveryBufferComesBackOnceAndPressesGetTheirRecords) {
  ClipDecoder decoder;
  ASSERT_TRUE(decoder.open(kovane_test::testDataPath("webcam_face_a_400x300_25fps.mp4"))) << decoder.error();
  ASSERT_TRUE(decoder.setOutput(640, 480, ClipDecoder::FIT_CROP));
  CameraSimulator::Options opt;
  opt.width = 640;
  opt.height = 480;
  opt.zslBuffers = 10;
  opt.frameIntervalS = 0.04;
  CameraSimulator cam(opt);
  std::string error;
  ASSERT_TRUE(cam.start(&error)) << error;

  FaceRecord face;
  face.id = 1;
  face.score = 90;
  face.left = 250;
  face.top = 120;
  face.width = face.height = 160;
  ClipFrame frame;
  for (int i = 0; i < 90 && decoder.next(frame); ++i) {
    const uint32_t id = static_cast<uint32_t>(frame.index + 1);
    std::vector<GyroSample> gyro(1);
    gyro[0].timestampUs = frame.ptsUs;
    gyro[0].x = 0.01f;
    ASSERT_EQ(cam.feedFrame(frame.image, id, frame.ptsUs, {face}, gyro), 0);
    if (frame.index == 40 || frame.index == 41 || frame.index == 70) cam.takePicture(id, frame.ptsUs);
  }
  // The statistics record comes at the press, whatever becomes of the best shot.
  ASSERT_TRUE(cam.waitForStatistics(20000));
  cam.waitForJobs(200);
  cam.stop();

  const auto jobs = cam.jobs();
  ASSERT_EQ(jobs.size(), 3u);
  for (const auto& j : jobs) {
    android::KoStatsReader reader;
    ASSERT_TRUE(reader.parse(j.statisticsRecord.data(), j.statisticsRecord.size())) << reader.error();
    ASSERT_FALSE(reader.frames().empty());
    // Frames are fed without waiting for the engine: on a slow (instrumented) build it may
    // fall behind and shed frames (late mode), so the record ends at the shutter frame or
    // before it.
    EXPECT_LE(static_cast<uint32_t>(reader.frames().back().getInt("frame_id")), j.shutterFrameId);
    EXPECT_TRUE(j.captured.width == 640 && !j.captured.empty());
  }
  // Two presses one frame apart have different captured pictures.
  EXPECT_NE(jobs[0].captured.data, jobs[1].captured.data);

  const auto books = cam.books();
  EXPECT_GT(books.lent, 0);
  EXPECT_EQ(books.returned, books.lent);
  EXPECT_EQ(std::make_tuple(books.notReturned, books.doubleReturns, books.unknownReturns), std::make_tuple(0, 0, 0));
}
