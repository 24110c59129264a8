// Where a capture's clip starts and ends: around the shutter, cut at hard camera pans and where
// the preview stops feeding the clip, cancelled when too short; checked on the clips that the
// preview encoder actually writes for real webcam frames.
#include <gtest/gtest.h>
#include <utils/RefBase.h>

#include <cmath>
#include <string>
#include <vector>

#include "ClipProbe.h"
#include "DexCameraMotion.h"
#include "DexVideoGeneration.h"
#include "KoPreviewEncode.h"
#include "KocoreClipViews.h"
#include "KoSequenceData.h"
#include "StderrCapture.h"
#include "TempFile.h"

namespace android {
namespace {

constexpr int kW = 640, kH = 360;
constexpr int64_t kFrameUs = 33333;
constexpr int64_t kT0 = 5000000;

using kocore_test::ClipReports;

// A preview running at 30 fps with real webcam pictures, a gyroscope that can be made to pan,
// and one capture whose clip is being cut.
class VideoGenerationTest : public ::testing::Test {
 protected:
  void SetUp() override {
    mPictures = kocore_test::planarClip("webcam_face_b_400x300_25fps.mp4", kW, kH, 30).frames;
    ASSERT_EQ(mPictures.size(), 30u);
    mReports = new ClipReports();
    mEnc.reset(new KoPreviewEncode(mReports, ClipReports::cb, true, true));
    ASSERT_GE(mFile.fd, 0);
    mJob.mJobId = 7;
    mJob.mVideoFd = mFile.fd;
    mJob.mFirstFrameTsUs = mJob.mLastFrameTsUs = -1;
  }
  void TearDown() override { mEnc.reset(); }
  static int64_t ts(int i) { return kT0 + i * kFrameUs; }
  // Frames from..to of the preview: the encoder gets the picture, the camera-motion analyser
  // the gyroscope (panning at `panRate` rad/s about one axis for frames inside [panFrom, panTo]).
  void run(int from, int to) {
    for (int i = from; i <= to; ++i) {
      mEnc->addFrame(mPictures[static_cast<size_t>(i) % mPictures.size()].data(), kW, kH, ts(i));
      KO_sensorData_t s{};
      const float rate = (i >= mPanFrom && i <= mPanTo) ? mPanRate : 0.005f * std::sin(static_cast<float>(i));
      s.gyro = {ts(i) * 1000, rate, 0.0f, 0.0f};
      s.enabled[1] = 1;
      mMotion.readSensorData(ts(i), static_cast<uint32_t>(i), s);
    }
  }
  // Asks for the end point after each of frames from..to, as the engine does; returns the
  // frame after which it was set or cancelled (-1 when neither).
  int endAfterEach(int from, int to, bool& set, bool& cancelled) {
    for (int i = from; i <= to; ++i) {
      run(i, i);
      mGen.KoSetVideoEndPoint(&mJob, mEnc.get(), &mMotion, set, cancelled);
      if (set || cancelled) return i;
    }
    return -1;
  }
  void shutterAt(int frame) {
    mJob.mCapturedTsUs = ts(frame);
    mJob.mCapturedFrameId = frame;
    mJob.mFirstFrameId = frame - 6;
    mJob.mLastFrameId = frame + 6;
    mJob.mFirstFrameTsUs = ts(frame - 6);
    mJob.mLastFrameTsUs = ts(frame + 6);
  }
  bool reported(size_t n = 1) { return mReports->reported(n, 20000); }

  std::vector<std::vector<uint8_t>> mPictures;
  sp<ClipReports> mReports;
  std::unique_ptr<KoPreviewEncode> mEnc;
  DexCameraMotion mMotion;
  DexVideoGeneration mGen;
  KoSequenceData mJob{};
  kovane_test::TempFile mFile;
  int mPanFrom = -1, mPanTo = -1;
  float mPanRate = 0.0f;
};

TEST_F(VideoGenerationTest, SteadyCameraGivesAClipFromOneAndAHalfSecondsBeforeToAfterTheShutter) {
  run(0, 100);
  shutterAt(94);
  run(101, 106);  // the capture's frames after the shutter, then the motion decision
  mGen.KoSetVideoStartPoint(&mJob, mEnc.get(), &mMotion);
  EXPECT_FALSE(mJob.mVideoCancelled);
  EXPECT_EQ(mJob.mVideoStartFrameId, 94 - 45);
  bool set = false, cancelled = false;
  EXPECT_EQ(endAfterEach(107, 200, set, cancelled), 140) << "known once a frame past 1.5 s after the shutter came";
  EXPECT_TRUE(set);
  EXPECT_FALSE(cancelled);
  EXPECT_EQ(mJob.mVideoStopFrameId, 94 + 45);
  ASSERT_TRUE(reported());
  EXPECT_EQ(mReports->calls()[0], std::make_pair(7, true));
  const kovane_test::ProbedClip clip = kovane_test::probeClip(mFile.path);
  ASSERT_TRUE(clip.ok) << clip.error;
  ASSERT_EQ(clip.ptsUs.size(), 91u);  // frames 49..139
  EXPECT_EQ(clip.ptsUs[45], ts(94) - ts(49)) << "the shutter frame is in the middle";
}

TEST_F(VideoGenerationTest, HardPansCutTheClipAndAClipTooShortIsCancelled) {
  {
    SCOPED_TRACE("pan before the shutter: the clip starts after it");
    mPanFrom = 60, mPanTo = 70, mPanRate = 0.8f;
    run(0, 106);
    shutterAt(94);
    mGen.KoSetVideoStartPoint(&mJob, mEnc.get(), &mMotion);
    int64_t first = 0, newest = 0;
    ASSERT_TRUE(mEnc->clipSpan(7, first, newest));
    EXPECT_GE(first, ts(70));
    EXPECT_LE(first, ts(74));
    // A slow pan (below the hard rate) after the shutter does not cut it.
    mPanFrom = 110, mPanTo = 120, mPanRate = 0.15f;
    bool set = false, cancelled = false;
    EXPECT_EQ(endAfterEach(107, 200, set, cancelled), 140);
    EXPECT_TRUE(set);
    ASSERT_TRUE(reported());
    EXPECT_TRUE(mReports->calls()[0].second);
  }
  {
    SCOPED_TRACE("pan soon after a shutter with little preview before it: cancelled");
    kovane_test::StderrCapture quiet;
    mJob.mJobId = 8;
    mPanFrom = 215, mPanTo = 240, mPanRate = 1.0f;
    mEnc->flush();  // the preview restarts: nothing older than frame 200 is buffered
    run(200, 210);
    shutterAt(208);
    mGen.KoSetVideoStartPoint(&mJob, mEnc.get(), &mMotion);
    EXPECT_FALSE(mJob.mVideoCancelled);
    bool set = false, cancelled = false;
    EXPECT_GE(endAfterEach(211, 240, set, cancelled), 215);
    EXPECT_FALSE(set);
    EXPECT_TRUE(cancelled);
    ASSERT_TRUE(reported(2));
    EXPECT_EQ(mReports->calls()[1], std::make_pair(8, false));
  }
}

TEST_F(VideoGenerationTest, ClipEndsWhereThePreviewStopsFeedingItOrIsCancelledWhenItCannotOpen) {
  run(0, 100);
  shutterAt(94);
  mGen.KoSetVideoStartPoint(&mJob, mEnc.get(), &mMotion);
  bool set = false, cancelled = false;
  EXPECT_EQ(endAfterEach(101, 120, set, cancelled), -1);
  mEnc->startRecording();  // the host records: no more preview frames for the clip
  mGen.KoSetVideoEndPoint(&mJob, mEnc.get(), &mMotion, set, cancelled);
  EXPECT_TRUE(set) << "ends at the last frame it got";
  ASSERT_TRUE(reported());
  EXPECT_TRUE(mReports->calls()[0].second);
  EXPECT_EQ(kovane_test::probeClip(mFile.path).ptsUs.size(), 120u - 49u + 1u);

  // While recording no clip can open: cancelled at once, reported not saved.
  kovane_test::StderrCapture quiet;
  KoSequenceData other{};
  other.mJobId = 9;
  other.mVideoFd = mFile.fd;
  other.mCapturedTsUs = ts(120);
  mGen.KoSetVideoStartPoint(&other, mEnc.get(), &mMotion);
  EXPECT_TRUE(other.mVideoCancelled);
  ASSERT_TRUE(reported(2));
  EXPECT_EQ(mReports->calls()[1], std::make_pair(9, false));
  mEnc->stopRecording();

  // A preview that stalls without recording (frames no longer reach the encoder) ends the clip
  // after a while.
  KoSequenceData stalled{};
  stalled.mJobId = 10;
  stalled.mVideoFd = mFile.fd;
  run(121, 160);
  stalled.mCapturedTsUs = ts(155);
  mGen.KoSetVideoStartPoint(&stalled, mEnc.get(), &mMotion);
  set = cancelled = false;
  for (int n = 0; n < DexVideoGeneration::kStallFrames + 1 && !set; ++n) {
    mGen.KoSetVideoEndPoint(&stalled, mEnc.get(), &mMotion, set, cancelled);
  }
  EXPECT_TRUE(set);
}

}  // namespace
}  // namespace android
