// Blur measure on the real photographs and blurred copies of them.
#include <gtest/gtest.h>

#include <vector>

#include "DexBlurDetect.h"
#include "KocoreTestImages.h"

namespace android {
namespace {

using kocore_test::Plane;

float smallMeasure(const Plane& img) {
  std::vector<int16_t> s1(static_cast<size_t>(img.w) * img.h), s2(s1.size());
  return DexBlurDetect::measure(img.data(), img.w, img.h, img.w, s1.data(), s2.data());
}

// The sharp originals at the size the engine measures (about 320x180; portraits at half size).
std::vector<Plane> sharpOriginals() {
  std::vector<Plane> out;
  out.push_back(kocore_test::half(kocore_test::analysisView("cockatoo_f005_1280x720.nv21")));
  out.push_back(kocore_test::half(kocore_test::analysisView("solvay_1920x1080.nv21")));
  for (const char* name : {"hopper_512x600.pgm", "astronaut_512x512.pgm"}) {
    const kovane_test::GreyImage g = kovane_test::readPgm(name);
    Plane p;
    p.w = g.width;
    p.h = g.height;
    p.px = g.pixels;
    out.push_back(kocore_test::half(p));
  }
  return out;
}

TEST(BlurMeasure, SharpPhotographsAboveBlurredCopies) {
  for (const Plane& img : sharpOriginals()) {
    ASSERT_GT(img.w, 0);
    const float sharp = smallMeasure(img);
    EXPECT_GE(sharp, 0.35f);
    EXPECT_LE(sharp, 1.0f);
    EXPECT_LT(smallMeasure(kocore_test::gaussianBlur(img, 1.5)), 0.17f);
    EXPECT_LT(smallMeasure(kocore_test::motionBlur(img, 7)), 0.17f);
    // Falls with growing blur, and halving the contrast hardly matters.
    float previous = sharp;
    for (double sigma : {0.5, 1.0, 1.5, 2.5}) {
      const float c = smallMeasure(kocore_test::gaussianBlur(img, sigma));
      EXPECT_LE(c, previous) << sigma;
      EXPECT_GE(c, 0.0f);
      previous = c;
    }
    EXPECT_NEAR(sharp, smallMeasure(kocore_test::contrast(img, 0.5, 64)), 0.05f);
  }
}

TEST(BlurMeasure, EngineCallMeasuresWholeAndCentreAndRejectsBadArguments) {
  const Plane view = kocore_test::analysisView("cockatoo_f005_1280x720.nv21");
  const Plane blurredView = kocore_test::gaussianBlur(view, 3.0);
  DexBlurDetect det(320, 180, 320);
  std::vector<short> s1(320 * 180), s2(320 * 180);
  float sharp = -1, sharpSub = -1, soft = -1, softSub = -1;
  Plane small = kocore_test::half(view), smallBlurred = kocore_test::half(blurredView);
  ASSERT_EQ(0, det.calcBlurMeasure(small.data(), 320, 180, 320, sharp, s1.data(), s2.data(),
                                   const_cast<uint8_t*>(view.data()), 640, sharpSub));
  ASSERT_EQ(0, det.calcBlurMeasure(smallBlurred.data(), 320, 180, 320, soft, s1.data(), s2.data(),
                                   const_cast<uint8_t*>(blurredView.data()), 640, softSub));
  EXPECT_GE(sharp, 0.35f);
  EXPECT_GE(sharpSub, 0.35f);
  EXPECT_LT(soft, 0.17f);
  EXPECT_LT(softSub, 0.17f);

  // A textureless picture has no measure.
  std::fill(small.px.begin(), small.px.end(), 128);
  Plane flatView = view;
  std::fill(flatView.px.begin(), flatView.px.end(), 90);
  float c = 0.5f, sub = 0.5f;
  ASSERT_EQ(0, det.calcBlurMeasure(small.data(), 320, 180, 320, c, s1.data(), s2.data(),
                                   flatView.data(), 640, sub));
  EXPECT_EQ(-1.0f, c);
  EXPECT_EQ(-1.0f, sub);

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
