// The faults injected around a press and the replay's own sharpness, on real pictures: runs,
// blink profiles, blurs and exposure.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <set>

#include "DegradationSpec.h"
#include "Degrader.h"
#include "SharpnessMeasure.h"
#include "TestData.h"

using namespace kovane_replay;

namespace {

Nv21Image nv21Picture(const std::string& name, int width, int height) {
  Nv21Image image;
  image.width = width;
  image.height = height;
  image.data = kovane_test::readNv21(name, width, height);
  return image;
}

bool sameFace(const FaceRecord& a, const FaceRecord& b) {
  return a.id == b.id && a.width == b.width && a.leftBlink == b.leftBlink && a.rightBlink == b.rightBlink &&
         a.leftEar == b.leftEar && a.rightEar == b.rightEar;
}

TEST(Degrader, PlansShortRunsHoldingTheShutterFrame) {
  const std::map<std::string, std::pair<double, double>> peakRange = {
      {"shake", {7.68, 16.0}}, {"defocus", {1.5, 3.0}}, {"noise", {6.0, 10.0}}};
  std::set<int> lengths;
  int dark = 0, bright = 0;
  for (uint64_t seed = 1; seed <= 100; ++seed) {
    const Degrader d(seed);
    for (const std::string& kind : DegradationSpec::kinds()) {
      const DegradationEvent e = d.plan(kind, 100, 300, 640);
      ASSERT_TRUE(e.valid() && e.covers(100)) << kind;
      ASSERT_EQ(static_cast<int>(e.values.size()), e.length());
      lengths.insert(e.length());
      // At most 6 frames, so frames within ±6 outside the run stay clean.
      EXPECT_TRUE(e.firstFrame >= 95 && e.lastFrame <= 105 && e.length() >= 2 && e.length() <= 6);
      const double peak = e.valueAt(100);
      if (peakRange.count(kind)) {
        const auto range = peakRange.at(kind);
        for (double v : e.values) EXPECT_TRUE(v >= range.first - 1e-9 && v <= peak + 1e-9) << kind << " " << v;
      } else if (kind == "exposure") {
        EXPECT_TRUE((peak >= 0.5 && peak <= 0.6) || (peak >= 1.6 && peak <= 1.8)) << peak;
        ++(peak < 1.0 ? dark : bright);
      }
      EXPECT_EQ(d.plan(kind, 100, 300, 640).values, e.values) << "the same seed, the same fault";
    }
  }
  EXPECT_EQ(lengths, (std::set<int>{2, 3, 4, 5, 6}));
  EXPECT_TRUE(dark > 10 && bright > 10);

  // The run stays in the clip; bad requests plan nothing.
  const Degrader d(5);
  EXPECT_EQ(d.plan("defocus", 0, 300, 640).firstFrame, 0);
  EXPECT_EQ(d.plan("defocus", 299, 300, 640).lastFrame, 299);
  for (const DegradationEvent& bad : {d.plan("glare", 100, 300, 640), d.plan("shake", -1, 300, 640),
                                      d.plan("shake", 300, 300, 640), d.plan("shake", 10, 300, 0)}) {
    EXPECT_FALSE(bad.valid() || bad.covers(bad.shutterFrame));
  }
}

TEST(Degrader, BlinkClosesOnlyTheMainFacesEyesAndLeavesThePixels) {
  FaceRecord small, main;
  small.id = 2;
  small.width = small.height = 60;
  main.id = 1;
  main.width = main.height = 180;
  main.rightBlink = 4;
  main.leftEar = main.rightEar = 0.3f;
  const std::vector<FaceRecord> faces = {small, main};  // the main face need not come first
  Nv21Image picture;
  picture.allocate(64, 48);
  for (uint64_t seed = 1; seed <= 50; ++seed) {
    const Degrader d(seed);
    const DegradationEvent e = d.plan("blink", 50, 100, 640);
    ASSERT_TRUE(e.valid());
    std::vector<int> degrees;
    for (int f = e.firstFrame - 1; f <= e.lastFrame + 1; ++f) {
      std::vector<FaceRecord> fed = faces;
      d.applyFaces(e, f, fed);
      Nv21Image image = picture;
      EXPECT_EQ(d.applyImage(e, f, image), 0.0);
      EXPECT_TRUE(image.data == picture.data) << "a blink leaves the pixels alone";
      EXPECT_TRUE(sameFace(fed[0], small)) << "only the main face changes";
      if (!e.covers(f)) {
        EXPECT_TRUE(sameFace(fed[1], main)) << "frame " << f << " is outside the run";
        continue;
      }
      const FaceRecord& m = fed[1];
      const int less = std::min(m.leftBlink, m.rightBlink);
      degrees.push_back(m.blinkDegree());
      EXPECT_LE(m.blinkDegree() - less, 4) << "both eyes blink";
      if (f == 50) {
        EXPECT_TRUE(m.blinkDegree() == 100 && less >= 90 && m.leftEar < 0.3f * 0.3f) << "closed at the shutter";
      } else if (f == e.firstFrame || f == e.lastFrame) {
        EXPECT_TRUE(less >= 30 && m.blinkDegree() <= 60) << "half closed at the ends: " << less;
      } else {
        EXPECT_GE(less, 90);
      }
    }
    // Rises to closed at the shutter frame, then falls back.
    const int s = 50 - e.firstFrame;
    EXPECT_TRUE(std::is_sorted(degrees.begin(), degrees.begin() + s + 1));
    EXPECT_TRUE(std::is_sorted(degrees.rbegin(), degrees.rbegin() + (e.length() - s)));
  }
}

// On a sharp frame of the hand-held clip, every frame of a shake or defocus run loses at least
// 15 % of the sharpness, and the clip's own most blurred frame reads as such; an exposure step changes it
// far less (a brighter one clips the brightest areas, and fades their colour).
TEST(Degrader, BlurLowersTheSharpnessOfARealFrameAndExposureBarely) {
  const Nv21Image bird = nv21Picture("cockatoo_f005_1280x720.nv21", 1280, 720);
  ASSERT_FALSE(bird.empty());
  const double sharp = SharpnessMeasure::of(bird);
  EXPECT_LT(SharpnessMeasure::of(nv21Picture("cockatoo_f160_1280x720.nv21", 1280, 720)), 0.5 * sharp);
  const Degrader d(11);
  for (const char* kind : {"shake", "defocus"}) {
    const DegradationEvent e = d.plan(kind, 20, 40, bird.width);
    for (int f : {e.firstFrame, e.lastFrame}) {
      Nv21Image image = bird;
      EXPECT_EQ(d.applyImage(e, f, image), e.valueAt(f));
      EXPECT_LT(SharpnessMeasure::of(image), 0.85 * sharp) << kind << " frame " << f;
    }
  }
  for (double gain : {Degrader::kDarkGainMin, Degrader::kBrightGainMax}) {
    Nv21Image copy = bird;
    Degrader::exposureGain(copy, gain);
    EXPECT_LT(std::fabs(SharpnessMeasure::of(copy) / sharp - 1.0), gain < 1.0 ? 0.02 : 0.20) << gain;
  }
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
}

}  // namespace
