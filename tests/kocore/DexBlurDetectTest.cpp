// Blur measure on real photographs, blurred and noisy copies of them made at the 640x360
// analysis view, measured as the engine does: on the view's 2x reduction (the small image),
// with the view itself for the centre.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "DexBlurDetect.h"
#include "KocoreTestImages.h"

namespace android {
namespace {

using kocore_test::Plane;

struct Measure {
  float coeff = -2.0f;
  float sub = -2.0f;
};

// The engine's call: the 2x reduction of the view, and the view for the centre.
Measure engineMeasure(const Plane& view) {
  Plane small = kocore_test::half(view);
  DexBlurDetect det(small.w, small.h, small.w);
  std::vector<short> s1(static_cast<size_t>(small.w) * small.h), s2(s1.size());
  Measure m;
  EXPECT_EQ(0, det.calcBlurMeasure(small.data(), small.w, small.h, small.w, m.coeff, s1.data(),
                                   s2.data(), const_cast<uint8_t*>(view.data()), view.w, m.sub));
  return m;
}

// Analysis views of sharp real pictures of different content: two sharp frames of the
// hand-held bird clip, the group photograph, two portraits (their own view).
std::vector<std::pair<std::string, Plane>> sharpViews() {
  std::vector<std::pair<std::string, Plane>> out;
  for (const char* name :
       {"cockatoo_f005_1280x720.nv21", "cockatoo_f006_1280x720.nv21", "solvay_1920x1080.nv21"}) {
    out.emplace_back(name, kocore_test::analysisView(name));
  }
  for (const char* name : {"hopper_512x600.pgm", "astronaut_512x512.pgm"}) {
    out.emplace_back(name, kocore_test::pgmPlane(name));
  }
  return out;
}

TEST(BlurMeasure, BlurAtTheAnalysisViewIsFlaggedSharpAndNoisyPicturesAreNot) {
  constexpr float kThreshold = 0.17f;  // the engine cancels a best shot below this
  unsigned seed = 1;
  for (const auto& [name, view] : sharpViews()) {
    SCOPED_TRACE(name);
    ASSERT_GT(view.w, 0);
    const Measure sharp = engineMeasure(view), soft = engineMeasure(kocore_test::gaussianBlur(view, 3.0));
  EXPECT_LT(soft.coeff, 0.17f);
  EXPECT_LT(soft.sub, 0.17f);
    const Measure noisy = engineMeasure(kocore_test::noisy(view, 4.0, seed++));
    // Sharp, with or without sensor noise: far above the threshold.
    EXPECT_GE(sharp.coeff, 0.6f);
    EXPECT_LE(sharp.coeff, 1.0f);
    EXPECT_GE(sharp.sub, 0.6f);
    EXPECT_GE(noisy.coeff, 0.6f);
    EXPECT_GE(noisy.sub, 0.6f);
    // Noise is not detail: it changes the measure by little.
    EXPECT_NEAR(sharp.coeff, noisy.coeff, 0.05f);

    const Plane gauss = kocore_test::gaussianBlur(view, 1.5);
    const Plane streak = kocore_test::motionBlur(view, 7);
    for (const Plane& blurred : {gauss, streak, kocore_test::noisy(gauss, 4.0, seed++),
                                 kocore_test::noisy(streak, 4.0, seed++)}) {
      const Measure m = engineMeasure(blurred);
      EXPECT_GE(m.coeff, 0.0f);
      EXPECT_LT(m.coeff, kThreshold - 0.03f);
      // The centre holds a quarter of the picture and reads a little higher on some; the
      // engine decides on the whole picture.
      EXPECT_LT(m.sub, kThreshold + 0.02f);
    }

    // Falls with growing blur; halving the contrast hardly matters.
    float previous = sharp.coeff + 1e-6f;
    for (double sigma : {0.5, 1.0, 1.5, 2.5}) {
      const float c = engineMeasure(kocore_test::gaussianBlur(view, sigma)).coeff;
      EXPECT_LT(c, previous) << sigma;
      previous = c;
    }
    EXPECT_NEAR(sharp.coeff, engineMeasure(kocore_test::contrast(view, 0.5, 64)).coeff, 0.05f);
  }
}

TEST(BlurMeasure, RealMotionBlurOfTheClipIsFlaggedOrdinaryFramesAreNot) {
  auto coeffOf = [](const char* name) {
    return engineMeasure(kocore_test::analysisView(name)).coeff;
  };
  const float sharp = coeffOf("cockatoo_f005_1280x720.nv21");
  const float whip = coeffOf("cockatoo_f160_1280x720.nv21");  // most motion-blurred frame
  EXPECT_LT(whip, 0.17f);
  EXPECT_GE(whip, 0.0f);
  // Frames of moderate sharpness and the start of the pan stay above the threshold, below
  // the sharp frame.
  for (const char* name : {"cockatoo_f100_1280x720.nv21", "cockatoo_f101_1280x720.nv21",
                           "cockatoo_f155_1280x720.nv21"}) {
    const float c = coeffOf(name);
    EXPECT_GE(c, 0.2f) << name;
    EXPECT_LT(c, sharp) << name;
    EXPECT_GT(c, whip) << name;
  }
}

TEST(BlurMeasure, EngineCallMeasuresWholeAndCentreAndRejectsBadArguments) {
  const Plane view = kocore_test::analysisView("cockatoo_f005_1280x720.nv21");
  Plane small = kocore_test::half(view);
  DexBlurDetect det(320, 180, 320);
  std::vector<short> s1(320 * 180), s2(320 * 180);
  const Measure sharp = engineMeasure(view), soft = engineMeasure(kocore_test::gaussianBlur(view, 3.0));
  EXPECT_LT(soft.coeff, 0.17f);
  EXPECT_LT(soft.sub, 0.17f);
  // The static measure of the small image is the engine call's coeff.
  EXPECT_FLOAT_EQ(sharp.coeff, DexBlurDetect::measure(small.data(), 320, 180, 320, s1.data(), s2.data()));
  // Without a view only coeff is measured.
  float c = -1, sub = 0.25f;
  ASSERT_EQ(0, det.calcBlurMeasure(small.data(), 320, 180, 320, c, s1.data(), s2.data(), nullptr, 640, sub));
  EXPECT_FLOAT_EQ(sharp.coeff, c);
  EXPECT_EQ(0.25f, sub);

  // A textureless picture has no measure, nor has a flat one with sensor noise on it.
  std::fill(small.px.begin(), small.px.end(), 128);
  Plane flatView = view;
  std::fill(flatView.px.begin(), flatView.px.end(), 90);
  c = sub = 0.5f;
  ASSERT_EQ(0, det.calcBlurMeasure(small.data(), 320, 180, 320, c, s1.data(), s2.data(), flatView.data(), 640, sub));
  EXPECT_EQ(-1.0f, c);
  EXPECT_EQ(-1.0f, sub);
  const Plane noisyFlat = kocore_test::half(kocore_test::noisy(flatView, 4.0, 3));
  EXPECT_EQ(-1.0f, DexBlurDetect::measure(noisyFlat.data(), 320, 180, 320, s1.data(), s2.data()));

  uint8_t* img = flatView.data();
  c = sub = -1.0f;
  EXPECT_EQ(-1, det.calcBlurMeasure(nullptr, 320, 180, 320, c, s1.data(), s2.data(), img, 640, sub));
  EXPECT_EQ(-1, det.calcBlurMeasure(img, 320, 180, 320, c, nullptr, s2.data(), img, 640, sub));
  EXPECT_EQ(-1, det.calcBlurMeasure(img, 0, 180, 320, c, s1.data(), s2.data(), img, 640, sub));
  EXPECT_EQ(-1, det.calcBlurMeasure(img, 320, -4, 320, c, s1.data(), s2.data(), img, 640, sub));
  EXPECT_EQ(-1.0f, c);
  EXPECT_EQ(-1.0f, sub);
}

}  // namespace
}  // namespace android
