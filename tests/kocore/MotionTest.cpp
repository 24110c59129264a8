// Motion: camera-motion classes from synthetic gyroscope traces, block motion on a real picture
// (camera translation, a region moving on its own), and the clip decision on frames built from
// real clips (a talking face, a still person, a still photograph under sensor noise, pans).
#include <gtest/gtest.h>
#include <utils/Vector.h>

#include <cmath>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "DexCameraMotion.h"
#include "DexMotionDetection.h"
#include "KocoreClips.h"

namespace android {
namespace {

using kocore_test::Plane;
constexpr int64_t kFrameUs = 33333;

// Feeds `frames` frames starting at t0 (microseconds); every frame carries one new gyroscope
// sample gyro(t seconds) and an accelerometer sample, the sensor stamps in nanoseconds.
template <typename F>
void feed(DexCameraMotion& cm, int64_t t0, int frames, F gyro) {
  for (int i = 0; i < frames; ++i) {
    const int64_t tsUs = t0 + i * kFrameUs;
    KO_sensorData_t s{};
    const double t = tsUs / 1e6;
    float g[3];
    gyro(t, g);
    s.gyro = {tsUs * 1000 - 2000000, g[0], g[1], g[2]};
    s.accel = {tsUs * 1000 - 1000000, 0.1f * std::sin(static_cast<float>(i)), 9.81f, 0.0f};
    s.enabled[0] = s.enabled[1] = 1;
    ASSERT_EQ(0, cm.readSensorData(tsUs, static_cast<uint32_t>(i), s));
    ASSERT_EQ(0, cm.readSensorData(tsUs, static_cast<uint32_t>(i), s));  // repeated block
  }
}

KO_camMotionType_t classify(DexCameraMotion& cm, int64_t start, int64_t end) {
  KO_camMotionType_t r;
  std::memset(&r, 0x7f, sizeof r);
  EXPECT_EQ(0, cm.getCamMotionType(start, end, &r));
  return r;
}

TEST(CameraMotion, ClassifiesStillPanAndShake) {
  const int64_t t0 = 5000000;
  DexCameraMotion still, pan, shake, jitter;
  feed(still, t0, 60, [](double t, float* g) {
    g[0] = 0.004f * static_cast<float>(std::sin(31 * t)), g[1] = 0.003f, g[2] = -0.002f;
  });
  feed(pan, t0, 60, [](double t, float* g) {  // slow pan about y, 0.2 rad/s, a little wobble
    g[0] = 0.02f * static_cast<float>(std::sin(20 * t)), g[1] = 0.2f, g[2] = 0.0f;
  });
  feed(shake, t0, 60, [](double t, float* g) {  // 5 Hz shake, 2 rad/s
    g[0] = 2.0f * static_cast<float>(std::sin(2 * M_PI * 5 * t + 0.3));
    g[1] = 1.0f * static_cast<float>(std::cos(2 * M_PI * 5 * t)), g[2] = 0.0f;
  });
  feed(jitter, t0, 60, [](double t, float* g) {  // hand tremor, 0.15 rad/s at 7 Hz
    g[0] = 0.15f * static_cast<float>(std::sin(2 * M_PI * 7 * t));
    g[1] = 0.1f * static_cast<float>(std::cos(2 * M_PI * 7 * t)), g[2] = 0.0f;
  });
  const int64_t end = t0 + 59 * kFrameUs;
  const KO_camMotionType_t s = classify(still, t0, end);
  EXPECT_EQ(DexCameraMotion::MODE_STEADY, s.mode);
  EXPECT_EQ(59, s.numSamples);  // sensor stamps lead the frames by 2 ms: the first is outside
  EXPECT_LT(s.gyroMax, 0.01f);
  EXPECT_GT(s.accelVariance, 0.0f);
  const KO_camMotionType_t p = classify(pan, t0, end);
  EXPECT_EQ(DexCameraMotion::MODE_PANNING, p.mode);
  EXPECT_NEAR(0.2f, p.gyroMean, 0.02f);
  EXPECT_EQ(DexCameraMotion::MODE_SHAKING, classify(shake, t0, end).mode);
  EXPECT_GE(classify(shake, t0, end).gyroMax, 1.5f);
  EXPECT_EQ(DexCameraMotion::MODE_JITTER, classify(jitter, t0, end).mode);
  // The per-frame query (start == end) looks at the last 100 ms.
  const KO_camMotionType_t f = classify(pan, end, end);
  EXPECT_EQ(DexCameraMotion::MODE_PANNING, f.mode);
  EXPECT_GE(f.numSamples, 3);
  EXPECT_LE(f.numSamples, 4);
  // An interval after all samples falls back to the newest one.
  const KO_camMotionType_t late = classify(shake, end + 10000000, end + 10000000);
  EXPECT_EQ(1, late.numSamples);
}

TEST(CameraMotion, NoDataAndBadArguments) {
  DexCameraMotion cm;
  const KO_camMotionType_t r = classify(cm, 0, 1000);
  EXPECT_EQ(DexCameraMotion::MODE_UNKNOWN, r.mode);
  EXPECT_EQ(0, r.numSamples);
  EXPECT_EQ(0.0f, r.gyroMax);
  // Disabled sensors and empty samples are not taken.
  KO_sensorData_t s{};
  s.gyro = {1000000, 1.0f, 0.0f, 0.0f};
  ASSERT_EQ(0, cm.readSensorData(1000, 1, s));
  EXPECT_EQ(DexCameraMotion::MODE_UNKNOWN, classify(cm, 0, 1000).mode);
  EXPECT_EQ(-1, cm.getCamMotionType(0, 1000, nullptr));
  KO_camMotionType_t untouched{};
  untouched.mode = 9;
  EXPECT_EQ(-1, cm.getCamMotionType(2000, 1000, &untouched));
  EXPECT_EQ(9, untouched.mode);
}

using Result = DexMotionDetection::motionResult_t;

// The group photo at 960x540 gives room to translate a 640x360 view.
const Plane& bigFrame() {
  static const Plane big = kocore_test::reducedLuma("solvay_1920x1080.nv21", 1920, 1080, 2);
  return big;
}

// Current view: the reference translated by (sx, sy); optionally a 120x90 patch around
// (px, py) of the current view additionally moved by (mx, my).
Plane currentView(int sx, int sy, int px = -1, int py = -1, int mx = 0, int my = 0) {
  Plane cur = kocore_test::crop(bigFrame(), 160 - sx, 90 - sy, 640, 360);
  if (px >= 0 && !cur.px.empty()) {
    for (int y = py - 45; y < py + 45; ++y)
      for (int x = px - 60; x < px + 60; ++x)
        cur.px[static_cast<size_t>(y) * 640 + x] =
            bigFrame().at(160 - sx + x - mx, 90 - sy + y - my);
  }
  return cur;
}

// One estimation of `cur` against `ref`, optionally with the caller's scratch buffer; run():
// against the untranslated view, with one.
Result runAgainst(const Plane& ref, const Plane& cur, bool scratch = false) {
  DexMotionDetection md(640, 360);
  EXPECT_EQ(0, md.copyNewRefFrame(ref.data(), 640, 360, 640));
  Result r{};
  std::vector<int16_t> buffer(scratch ? 320 * 180 : 0);
  EXPECT_EQ(0, md.processMEPerFrame(cur.data(), nullptr, nullptr, nullptr, scratch ? buffer.data() : nullptr, 640, &r));
  return r;
}
Result run(const Plane& cur) { return runAgainst(currentView(0, 0), cur, true); }

TEST(BlockMotion, TranslationIsFoundAndAMovingRegionRaisesTheSubjectScore) {
  ASSERT_EQ(960, bigFrame().w);
  const Result still = run(currentView(5, -3));
  EXPECT_GT(still.numBlocks, 300);
  EXPECT_NEAR(5.0f, still.globalDx, 0.5f);
  EXPECT_NEAR(-3.0f, still.globalDy, 0.5f);
  EXPECT_NEAR(std::hypot(5.0, 3.0), still.vecMagMean, 0.5);
  EXPECT_LT(still.frmMotionScoreNorm, 0.03f);
  EXPECT_LT(still.ctrFrmMotionScoreNorm, 0.03f);
  EXPECT_LT(still.matchDiff, 2.0f);
  EXPECT_EQ(0, still.numOpposing);

  const Result side = run(currentView(5, -3, 100, 80, -10, 8));    // top-left region
  const Result centre = run(currentView(5, -3, 320, 180, -10, 8)); // central region
  EXPECT_NEAR(5.0f, side.globalDx, 0.5f);
  EXPECT_NEAR(-3.0f, centre.globalDy, 0.5f);
  EXPECT_GT(side.frmMotionScoreNorm, still.frmMotionScoreNorm + 0.02f);
  EXPECT_GT(centre.frmMotionScoreNorm, still.frmMotionScoreNorm + 0.02f);
  EXPECT_LT(side.ctrFrmMotionScoreNorm, 0.05f);
  EXPECT_GT(centre.ctrFrmMotionScoreNorm, 0.2f);
  EXPECT_GT(centre.ctrFrmMotionScoreNorm, centre.frmMotionScoreNorm);
  EXPECT_GT(side.numOpposing + centre.numOpposing, 0);  // (-10, 8) opposes (5, -3)
}

// An exposure step (gain or offset, clipped as a sensor clips) between the reference and the
// view is no motion; translation and a moving region under an exposure step are still seen.
TEST(BlockMotion, ExposureStepIsNoMotionButMotionUnderItIsSeen) {
  ASSERT_EQ(960, bigFrame().w);
  kocore_test::forEachExposureStep([](const Plane& view, const Plane& stepped) {
    const Result r = runAgainst(view, stepped);
    EXPECT_GT(r.numBlocks, 50);
    EXPECT_EQ(0.0f, r.globalDx);
    EXPECT_EQ(0.0f, r.globalDy);
    EXPECT_LT(r.frmMotionScoreNorm, 0.05f);
    EXPECT_LT(r.ctrFrmMotionScoreNorm, 0.1f);
  });
  const Plane ref = kocore_test::crop(bigFrame(), 160, 90, 640, 360);
  const Plane still = currentView(5, -3), moving = currentView(5, -3, 320, 180, -10, 8);
  for (const kocore_test::ExposureStep& st : kocore_test::kExposureSteps) {
    SCOPED_TRACE(std::to_string(st.gain) + " " + std::to_string(st.offset));
    const Result s = runAgainst(ref, kocore_test::contrast(still, st.gain, st.offset));
    const Result m = runAgainst(ref, kocore_test::contrast(moving, st.gain, st.offset));
    EXPECT_NEAR(5.0f, s.globalDx, 0.5f);
    EXPECT_NEAR(-3.0f, s.globalDy, 0.5f);
    EXPECT_LT(s.frmMotionScoreNorm, 0.03f);
    EXPECT_GT(m.ctrFrmMotionScoreNorm, 0.2f);
    EXPECT_GT(m.frmMotionScoreNorm, s.frmMotionScoreNorm + 0.02f);
  }
  // Two consecutive real frames of the hand-held clip (the bird moves): the subject score
  // hardly depends on a 0.8x exposure step between them.
  const Plane f5 = kocore_test::analysisView("cockatoo_f005_1280x720.nv21");
  const Plane f6 = kocore_test::analysisView("cockatoo_f006_1280x720.nv21");
  const Result plain = runAgainst(f5, f6), dimmed = runAgainst(f5, kocore_test::contrast(f6, 0.8, 0));
  EXPECT_GT(plain.frmMotionScoreNorm, 0.1f);
  EXPECT_NEAR(plain.frmMotionScoreNorm, dimmed.frmMotionScoreNorm, 0.05f);
}

// The kernel sets (portable, 128-bit vectors, the widest the CPU has) give the same result to
// the bit on real pictures: consecutive frames of the hand-held clip, a translated view with a
// region moving on its own, exposure steps, and views with a row stride above their width. Each
// case runs as the engine runs it: estimate against the stored reference, then store the view.
TEST(BlockMotion, AllKernelSetsGiveIdenticalResults) {
  ASSERT_EQ(960, bigFrame().w);
  struct KernelsRestorer {
    ~KernelsRestorer() { DexMotionDetection::setKernels(DexMotionDetection::KERNELS_FASTEST); }
  } restore;
  const Plane f5 = kocore_test::analysisView("cockatoo_f005_1280x720.nv21");
  const Plane f6 = kocore_test::analysisView("cockatoo_f006_1280x720.nv21");
  const Plane f100 = kocore_test::analysisView("cockatoo_f100_1280x720.nv21");
  const Plane f101 = kocore_test::analysisView("cockatoo_f101_1280x720.nv21");
  const Plane f155 = kocore_test::analysisView("cockatoo_f155_1280x720.nv21");
  const Plane f160 = kocore_test::analysisView("cockatoo_f160_1280x720.nv21");
  const Plane ref = kocore_test::crop(bigFrame(), 160, 90, 640, 360);
  // A sequence of views, each estimated against the one before.
  const std::vector<Plane> views = {
      f5, f6, kocore_test::contrast(f6, 0.8, 0), f5, f100, f101,
      kocore_test::contrast(f101, 1.25, 0), kocore_test::contrast(f100, 1.0, -25), f155, f160,
      ref, currentView(5, -3), currentView(5, -3, 320, 180, -10, 8),
      kocore_test::contrast(currentView(-7, 4, 100, 80, 9, -6), 0.8, 12), ref};
  // The same views cut to 600x330 and kept with a row stride of 640.
  auto cut = [](const Plane& p) {
    Plane o = p;
    for (int y = 0; y < 330; ++y) std::fill_n(&o.px[static_cast<size_t>(y) * 640 + 600], 40, 0xee);
    return o;
  };
  using Results = std::vector<Result>;
  auto runAll = [&](DexMotionDetection::KernelSet set) {
    DexMotionDetection::setKernels(set);
    Results out;
    for (int w : {640, 600}) {
      DexMotionDetection md(640, 360);
      for (const Plane& v : views) {
        const Plane view = w == 640 ? v : cut(v);
        Result r;
        std::memset(&r, 0x5a, sizeof r);
        EXPECT_EQ(0, md.processMEPerFrame(view.data(), nullptr, nullptr, nullptr, nullptr, 640, &r));
        EXPECT_EQ(0, md.copyNewRefFrame(view.data(), w, w == 640 ? 360 : 330, 640));
        out.push_back(r);
      }
    }
    return out;
  };
  const Results portable = runAll(DexMotionDetection::KERNELS_PORTABLE);
  const Results vector = runAll(DexMotionDetection::KERNELS_VECTOR);
  const Results fastest = runAll(DexMotionDetection::KERNELS_FASTEST);
  ASSERT_EQ(portable.size(), 2 * views.size());
  ASSERT_EQ(vector.size(), portable.size());
  ASSERT_EQ(fastest.size(), portable.size());
  int matched = 0;
  for (size_t i = 0; i < portable.size(); ++i) {
    SCOPED_TRACE("view " + std::to_string(i % views.size()) + (i < views.size() ? "" : " (cut)"));
    EXPECT_EQ(0, std::memcmp(&portable[i], &vector[i], sizeof(Result)));
    EXPECT_EQ(0, std::memcmp(&portable[i], &fastest[i], sizeof(Result)));
    if (i % views.size() != 0) {
      EXPECT_GT(portable[i].numBlocks, 0);
    }
    if (portable[i].numBlocks > 50) ++matched;
  }
  // Not a comparison of empty results: every estimation but the first of each run matched
  // blocks, nearly all of them many (the blurred frame 160 as reference leaves few textured).
  EXPECT_GE(matched, static_cast<int>(portable.size()) - 4);
  EXPECT_EQ(0, portable[0].numBlocks);
  EXPECT_NEAR(5.0f, portable[11].globalDx, 0.5f);  // ref -> currentView(5, -3)
  EXPECT_NEAR(-3.0f, portable[11].globalDy, 0.5f);
}

TEST(BlockMotion, NoReferenceAndBadArguments) {
  ASSERT_EQ(960, bigFrame().w);
  DexMotionDetection md(640, 360);
  const Plane cur = currentView(0, 0);
  Result r;
  std::memset(&r, 0x5a, sizeof r);
  EXPECT_EQ(0, md.processMEPerFrame(cur.data(), nullptr, nullptr, nullptr, nullptr, 640, &r));
  EXPECT_EQ(0, r.numBlocks);
  EXPECT_EQ(0.0f, r.frmMotionScoreNorm);
  EXPECT_EQ(0.0f, r.globalDx);

  EXPECT_EQ(-1, md.copyNewRefFrame(nullptr, 640, 360, 640));
  EXPECT_EQ(-1, md.copyNewRefFrame(cur.data(), 0, 360, 640));
  EXPECT_EQ(-1, md.copyNewRefFrame(cur.data(), 640, -1, 640));
  EXPECT_EQ(-1, md.copyNewRefFrame(cur.data(), 641, 360, 641));  // larger than configured
  ASSERT_EQ(0, md.copyNewRefFrame(cur.data(), 640, 360, 640));
  std::memset(&r, 0x5a, sizeof r);
  const Result before = r;
  EXPECT_EQ(-1, md.processMEPerFrame(nullptr, nullptr, nullptr, nullptr, nullptr, 640, &r));
  EXPECT_EQ(-1, md.processMEPerFrame(cur.data(), nullptr, nullptr, nullptr, nullptr, 320, &r));
  EXPECT_EQ(-1, md.processMEPerFrame(cur.data(), nullptr, nullptr, nullptr, nullptr, 640, nullptr));
  EXPECT_EQ(0, std::memcmp(&before, &r, sizeof r));
}

// Analysis views (the central 640x360 band of a 640x480 preview, as the engine cuts it).
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
  std::vector<Plane> sweep;
  for (int i = 0; i < 24; ++i) {
    sweep.push_back(kocore_test::noisy(kocore_test::crop(bigFrame(), 40 + 5 * i, 90, 640, 360), 2.0, 7 + i));
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
