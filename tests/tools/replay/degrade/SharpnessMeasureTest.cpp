// The replay's own sharpness on real pictures: blur lowers it, an exposure step barely moves it.
#include <gtest/gtest.h>

#include <cmath>

#include "DegradeTestPictures.h"
#include "Degrader.h"
#include "SharpnessMeasure.h"

using kovane_replay::Degrader;
using kovane_replay::Nv21Image;
using kovane_replay::SharpnessMeasure;
using kovane_replay_test::nv21Picture;
using kovane_replay_test::sharpPictures;

namespace {

double blurred(const Nv21Image& image, bool shake, double amount) {
  Nv21Image copy = image;
  if (shake) {
    Degrader::motionBlur(copy, amount, 0.6);
  } else {
    Degrader::gaussianBlur(copy, amount);
  }
  return SharpnessMeasure::of(copy);
}

// Blur lowers it, more blur more. A darker exposure step only rounds, within 2 %; a brighter
// one clips the brightest areas, which takes gradients and deviation away together, within 20 %
// at the strongest gain drawn. Both stay below what the weakest blur does to the same picture.
TEST(SharpnessMeasure, BlurLowersItMoreBlurMoreAndAnExposureStepLittle) {
  for (const auto& p : sharpPictures()) {
    ASSERT_FALSE(p.image.empty()) << p.name;
    const double w = p.image.width;
    const double sharp = SharpnessMeasure::of(p.image);
    EXPECT_GT(sharp, 0.0) << p.name;
    const double shakeWeak = blurred(p.image, true, w * Degrader::kShakeMinOfWidth);
    const double shakeStrong = blurred(p.image, true, w * Degrader::kShakeMaxOfWidth);
    const double defocusWeak = blurred(p.image, false, w / 640 * Degrader::kDefocusMinAt640);
    const double defocusStrong = blurred(p.image, false, w / 640 * Degrader::kDefocusMaxAt640);
    // The weakest fault already takes a fifth off; the strongest takes off more still.
    EXPECT_LT(shakeWeak, 0.8 * sharp) << p.name;
    EXPECT_LT(shakeStrong, 0.9 * shakeWeak) << p.name;
    EXPECT_LT(defocusWeak, 0.8 * sharp) << p.name;
    EXPECT_LT(defocusStrong, 0.9 * defocusWeak) << p.name;
    for (double gain :
         {Degrader::kDarkGainMin, Degrader::kDarkGainMax, Degrader::kBrightGainMin, Degrader::kBrightGainMax}) {
      Nv21Image copy = p.image;
      Degrader::exposureGain(copy, gain);
      const double change = std::fabs(SharpnessMeasure::of(copy) / sharp - 1.0);
      EXPECT_LT(change, gain < 1.0 ? 0.02 : 0.20) << p.name << " gain " << gain;
      EXPECT_LT(change, 1.0 - shakeWeak / sharp) << p.name << " gain " << gain;
    }
  }
  // The clip's own motion blur reads the same way: its most blurred frame against its sharpest.
  EXPECT_LT(SharpnessMeasure::of(nv21Picture("cockatoo_f160_1280x720.nv21", 1280, 720)),
            0.5 * SharpnessMeasure::of(nv21Picture("cockatoo_f005_1280x720.nv21", 1280, 720)));
}

TEST(SharpnessMeasure, HandlesFlatAndMalformedPictures) {
  Nv21Image image;
  EXPECT_EQ(SharpnessMeasure::of(image), 0.0);
  image.allocate(4, 4);
  EXPECT_EQ(SharpnessMeasure::of(image), 0.0);
  image.allocate(64, 48);
  std::fill(image.data.begin(), image.data.end(), 128);
  EXPECT_EQ(SharpnessMeasure::of(image), 0.0);
  image.data.resize(100);
  EXPECT_EQ(SharpnessMeasure::of(image), 0.0);
  EXPECT_EQ(SharpnessMeasure::ofLuma(nullptr, 64, 48, 64), 0.0);
  // Noise counts as detail for a gradient measure: the sharpest-frame pick can fall for it.
  Nv21Image portrait = kovane_replay_test::greyPicture("hopper_512x600.pgm");
  const double before = SharpnessMeasure::of(portrait);
  Degrader::addNoise(portrait, 8.0, 1);
  EXPECT_GT(SharpnessMeasure::of(portrait), before);
}

}  // namespace
