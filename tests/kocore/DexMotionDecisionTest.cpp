// Clip decision on frames built from real clips: a talking face, a still person, a still
// photograph under sensor noise, and pans (from the motion sensors and seen in the picture).
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <utils/Vector.h>

#include "DexMotionDetection.h"
#include "KocoreClipViews.h"

namespace android {
namespace {

using kocore_test::Plane;

// Analysis views (the central 640x360 band of a 640x480 preview, as the engine cuts it) of
// frames first..last of a clip.
std::vector<Plane> clipViews(const std::string& name, int first, int last) {
  return kocore_test::clipViews(name, 640, 480, first, last);
}

// Frames 40 ms apart with the foreground's per-frame work done on their views: statistics
// against the previous frame, and motion estimation on every other frame (80 ms apart, as the
// engine's 66 ms spacing gives at 25 frames a second); optionally the first `panningFrames`
// classed as panning by their own camera-motion estimate, the others as steady.
struct Clip : kocore_test::ViewHistory {
  explicit Clip(const std::vector<Plane>& views, int panningFrames = 0)
      : ViewHistory(views, 40000, [&, motion = std::make_shared<DexMotionDetection>(640, 360)](size_t i, KoFrameData& f) {
          if (i % 2 == 0) {
            motion->processMEPerFrame(views[i].data(), nullptr, nullptr, nullptr, nullptr, 640, f.mMotionResult);
            motion->copyNewRefFrame(views[i].data(), 640, 360, 640);
            f.setProcessedEvents(KoFrameData::EVENT_MOTION);
          }
          if (panningFrames > 0) {
            f.mCamMotion[3] = static_cast<uint32_t>(static_cast<int>(i) < panningFrames ? DexCameraMotion::MODE_PANNING
                                                                                          : DexCameraMotion::MODE_STEADY);
            f.setProcessedEvents(KoFrameData::EVENT_CAM_MOTION);
          }
        }) {}

  float decide(int captured, int mode = DexCameraMotion::MODE_STEADY, float gyroMean = 0.01f) {
    Vector<KO_camMotionType_t> cam;
    KO_camMotionType_t t{};
    t.numSamples = 20;
    t.mode = mode;
    t.gyroMean = gyroMean;
    t.gyroMax = 2 * gyroMean;
    cam.push(t);
    DexMotionDetection md(640, 360);
    return md.KoMotionDecision(snapshot, cam, size(), captured);
  }
};

TEST(MotionDecision, TalkingFaceIsKeptStillScenesAreNot) {
  // Clip a 600..629 (talking, with a labelled blink at 640 just after) and clip b 505..534.
  for (const auto& [name, first] : {std::pair<const char*, int>{"webcam_face_a_400x300_25fps.mp4", 600},
                                    std::pair<const char*, int>{"webcam_face_b_400x300_25fps.mp4", 505}}) {
    SCOPED_TRACE(name);
    Clip talking(clipViews(name, first, first + 29));
    ASSERT_EQ(30u, talking.snapshot->size());
    const float d = talking.decide(20);
    EXPECT_GT(d, 0.0f);
    EXPECT_LE(d, 1.0f);
    // The same frames with an empty sensor classification still count.
    Vector<KO_camMotionType_t> none;
    DexMotionDetection md(640, 360);
    EXPECT_FLOAT_EQ(d, md.KoMotionDecision(talking.snapshot, none, 30, 20));
  }

  // The person of clip a sitting still (frames 180..209): block matching finds next to nothing.
  Clip person(clipViews("webcam_face_a_400x300_25fps.mp4", 180, 209));
  EXPECT_EQ(0.0f, person.decide(15));

  // A still photograph under fresh sensor noise in every frame.
  const Plane photo = kocore_test::analysisView("solvay_1920x1080.nv21");
  std::vector<Plane> still;
  for (unsigned i = 0; i < 24; ++i) still.push_back(kocore_test::noisy(photo, 3.0, 100 + i));
  Clip scene(still);
  EXPECT_EQ(0.0f, scene.decide(16));
}

TEST(MotionDecision, APanIsNotKept) {
  Clip talking(clipViews("webcam_face_b_400x300_25fps.mp4", 505, 534));
  ASSERT_GT(talking.decide(20), 0.0f);
  // The sensors report a pan, or a rotation as strong as shaking.
  EXPECT_EQ(0.0f, talking.decide(20, DexCameraMotion::MODE_PANNING));
  EXPECT_EQ(0.0f, talking.decide(20, DexCameraMotion::MODE_JITTER, 0.8f));
  EXPECT_GT(talking.decide(20, DexCameraMotion::MODE_JITTER, 0.2f), 0.0f);
  // The frames' own camera-motion classes say panning around the capture.
  Clip classed(clipViews("webcam_face_b_400x300_25fps.mp4", 505, 534), 30);
  EXPECT_EQ(0.0f, classed.decide(20));

  // A pan seen only in the picture: the camera sweeps over the group photo, 5 pixels a frame.
  const Plane big = kocore_test::reducedLuma("solvay_1920x1080.nv21", 1920, 1080, 2);  // 960x540
  std::vector<Plane> sweep;
  for (int i = 0; i < 24; ++i) {
    sweep.push_back(kocore_test::noisy(kocore_test::crop(big, 40 + 5 * i, 90, 640, 360), 2.0, 7 + i));
  }
  Clip pan(sweep);
  const uint32_t* r = pan.hist.mHistory[10]->mFrameData->mMotionResult;
  float gx;
  std::memcpy(&gx, &r[1], sizeof gx);
  EXPECT_NEAR(-10.0f, gx, 1.0f);  // the view moved 10 pixels between two estimations
  EXPECT_EQ(0.0f, pan.decide(16));
}

TEST(MotionDecision, InvalidArgumentsGiveZero) {
  Clip talking(clipViews("webcam_face_a_400x300_25fps.mp4", 600, 619));
  Vector<KO_camMotionType_t> none;
  DexMotionDetection md(640, 360);
  EXPECT_EQ(0.0f, md.KoMotionDecision(nullptr, none, 20, 5));
  EXPECT_EQ(0.0f, md.KoMotionDecision(talking.snapshot, none, 0, 5));
  EXPECT_EQ(0.0f, md.KoMotionDecision(talking.snapshot, none, 20, 20));
  EXPECT_EQ(0.0f, md.KoMotionDecision(talking.snapshot, none, 20, -1));
}

}  // namespace
}  // namespace android
