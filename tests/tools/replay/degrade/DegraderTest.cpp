// The faults injected around a press and the replay's own sharpness, on real pictures: runs,
// blink profiles, blurs, exposure, noise and the gyroscope burst that goes with a shake.
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

constexpr double kPi = 3.14159265358979323846;

Nv21Image nv21Picture(const std::string& name, int width, int height) {
  Nv21Image image;
  image.width = width;
  image.height = height;
  image.data = kovane_test::readNv21(name, width, height);
  return image;
}

// A grey picture with neutral chroma.
Nv21Image greyPicture(const std::string& name) {
  const kovane_test::GreyImage grey = kovane_test::readPgm(name);
  Nv21Image image;
  if (grey.width < 2 || grey.height < 2) return image;
  image.allocate(grey.width & ~1, grey.height & ~1);
  for (int y = 0; y < image.height; ++y) {
    std::copy_n(grey.pixels.begin() + static_cast<size_t>(y) * grey.width, image.width,
                image.data.begin() + static_cast<size_t>(y) * image.width);
  }
  std::fill(image.data.begin() + static_cast<size_t>(image.width) * image.height, image.data.end(), 128);
  return image;
}

bool sameFace(const FaceRecord& a, const FaceRecord& b) {
  return a.id == b.id && a.width == b.width && a.leftBlink == b.leftBlink && a.rightBlink == b.rightBlink &&
         a.leftEar == b.leftEar && a.rightEar == b.rightEar;
}

// Sum of squared differences to the neighbour (dx, dy) over one plane.
double gradientEnergy(const uint8_t* p, int w, int h, int step, int dx, int dy) {
  double e = 0.0;
  for (int y = 0; y + dy < h; ++y) {
    for (int x = 0; x + dx < w; ++x) {
      const double d =
          p[(static_cast<size_t>(y) * w + x) * step] - p[(static_cast<size_t>(y + dy) * w + x + dx) * step];
      e += d * d;
    }
  }
  return e;
}

double blurred(const Nv21Image& image, bool shake, double amount) {
  Nv21Image copy = image;
  shake ? Degrader::motionBlur(copy, amount, 0.6) : Degrader::gaussianBlur(copy, amount);
  return SharpnessMeasure::of(copy);
}

TEST(Degrader, PlansShortRunsHoldingTheShutterFrame) {
  const std::map<std::string, std::pair<double, double>> peakRange = {
      {"shake", {7.68, 16.0}}, {"defocus", {1.5, 3.0}}, {"noise", {6.0, 10.0}}};
  std::set<int> lengths, offsets;
  int dark = 0, bright = 0;
  for (uint64_t seed = 1; seed <= 150; ++seed) {
    const Degrader d(seed);
    for (const std::string& kind : DegradationSpec::kinds()) {
      const DegradationEvent e = d.plan(kind, 100, 300, 640);
      ASSERT_TRUE(e.valid() && e.covers(100)) << kind;
      ASSERT_EQ(static_cast<int>(e.values.size()), e.length());
      lengths.insert(e.length());
      offsets.insert(100 - e.firstFrame);
      // At most 6 frames, so frames within ±6 outside the run stay clean.
      EXPECT_TRUE(e.firstFrame >= 95 && e.lastFrame <= 105 && e.length() >= 2 && e.length() <= 6);
      const double peak = e.valueAt(100);
      if (peakRange.count(kind)) {
        const auto range = peakRange.at(kind);
        EXPECT_TRUE(peak >= range.first && peak <= range.second) << kind << " " << peak;
        for (double v : e.values) EXPECT_TRUE(v >= range.first - 1e-9 && v <= peak + 1e-9) << kind << " " << v;
      } else if (kind == "exposure") {
        for (double v : e.values) EXPECT_EQ(v, peak);
        EXPECT_TRUE((peak >= 0.5 && peak <= 0.6) || (peak >= 1.6 && peak <= 1.8)) << peak;
        ++(peak < 1.0 ? dark : bright);
      }
      EXPECT_EQ(d.plan(kind, 100, 300, 640).values, e.values) << "the same seed, the same fault";
    }
  }
  EXPECT_EQ(lengths, (std::set<int>{2, 3, 4, 5, 6}));
  EXPECT_GE(offsets.size(), 5u) << "the shutter frame is not always in the middle";
  EXPECT_TRUE(dark > 20 && bright > 20);

  // Lengths scale with the picture; the run stays in the clip; bad requests plan nothing.
  const Degrader d(5);
  const double wide = d.plan("shake", 100, 300, 1280).valueAt(100);
  EXPECT_TRUE(wide >= 15.36 && wide <= 32.0) << wide;
  EXPECT_EQ(d.plan("defocus", 0, 300, 640).firstFrame, 0);
  EXPECT_EQ(d.plan("defocus", 299, 300, 640).lastFrame, 299);
  EXPECT_NE(Degrader(6).plan("shake", 100, 300, 640).values, d.plan("shake", 100, 300, 640).values);
  for (const DegradationEvent& bad : {d.plan("glare", 100, 300, 640), d.plan("shake", -1, 300, 640),
                                      d.plan("shake", 300, 300, 640), d.plan("shake", 10, 300, 0)}) {
    EXPECT_FALSE(bad.valid() || bad.covers(bad.shutterFrame));
  }
  // Pictures that are not whole NV21 pictures are left alone.
  for (const char* kind : {"shake", "defocus", "exposure", "noise"}) {
    const DegradationEvent e = d.plan(kind, 10, 20, 64);
    Nv21Image odd, empty, tiny;
    odd.allocate(64, 48);
    odd.width = 63;
    EXPECT_EQ(d.applyImage(e, 10, odd) + d.applyImage(e, 10, empty), 0.0) << kind;
    EXPECT_TRUE(std::all_of(odd.data.begin(), odd.data.end(), [](uint8_t v) { return v == 0; }));
    tiny.allocate(2, 2);
    d.applyImage(e, 10, tiny);
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
  const Nv21Image picture = greyPicture("hopper_512x600.pgm");
  ASSERT_FALSE(picture.empty());

  for (uint64_t seed = 1; seed <= 100; ++seed) {
    const Degrader d(seed);
    const DegradationEvent e = d.plan("blink", 50, 100, 640);
    ASSERT_TRUE(e.valid());
    std::vector<int> degrees;
    for (int f = e.firstFrame - 3; f <= e.lastFrame + 3; ++f) {
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
      FrameTruth truth;
      e.markTruth(f, truth);
      EXPECT_TRUE(truth.degradation == "blink" && truth.strength == m.blinkDegree()) << "the truth is what was fed";
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
  // Frames without faces, and other kinds, leave the records alone.
  const Degrader d(1);
  std::vector<FaceRecord> none, fed = faces;
  d.applyFaces(d.plan("blink", 50, 100, 640), 50, none);
  d.applyFaces(d.plan("shake", 50, 100, 640), 50, fed);
  EXPECT_TRUE(none.empty() && sameFace(fed[1], main));
}

// On a sharp frame of the hand-held clip, a group photograph with fine detail and a portrait,
// blur lowers the sharpness, more blur more: the weakest fault already takes a fifth off. A
// darker exposure step only rounds, within 2 %; a brighter one clips the brightest areas, which
// takes gradients and deviation away together, within 20 % at the strongest gain drawn. Both
// stay below what the weakest blur does. Every frame of a shake or defocus run is blurred.
TEST(Degrader, ShakeAndDefocusBlurTheRunAlongTheirDirection) {
  const std::pair<const char*, Nv21Image> pictures[] = {
      {"cockatoo f005", nv21Picture("cockatoo_f005_1280x720.nv21", 1280, 720)},
      {"solvay", nv21Picture("solvay_1920x1080.nv21", 1920, 1080)},
      {"hopper", greyPicture("hopper_512x600.pgm")}};
  for (const auto& [name, picture] : pictures) {
    ASSERT_FALSE(picture.empty()) << name;
    const double w = picture.width;
    const double sharp = SharpnessMeasure::of(picture);
    EXPECT_GT(sharp, 0.0) << name;
    const double shakeWeak = blurred(picture, true, w * Degrader::kShakeMinOfWidth);
    const double defocusWeak = blurred(picture, false, w / 640 * Degrader::kDefocusMinAt640);
    EXPECT_LT(shakeWeak, 0.8 * sharp) << name;
    EXPECT_LT(blurred(picture, true, w * Degrader::kShakeMaxOfWidth), 0.9 * shakeWeak) << name;
    EXPECT_LT(defocusWeak, 0.8 * sharp) << name;
    EXPECT_LT(blurred(picture, false, w / 640 * Degrader::kDefocusMaxAt640), 0.9 * defocusWeak) << name;
    for (double gain :
         {Degrader::kDarkGainMin, Degrader::kDarkGainMax, Degrader::kBrightGainMin, Degrader::kBrightGainMax}) {
      Nv21Image copy = picture;
      Degrader::exposureGain(copy, gain);
      const double change = std::fabs(SharpnessMeasure::of(copy) / sharp - 1.0);
      EXPECT_LT(change, gain < 1.0 ? 0.02 : 0.20) << name << " gain " << gain;
      EXPECT_LT(change, 1.0 - shakeWeak / sharp) << name << " gain " << gain;
    }
    const Degrader d(11);
    for (const char* kind : {"shake", "defocus"}) {
      const DegradationEvent e = d.plan(kind, 20, 40, picture.width);
      for (int f : {e.firstFrame, 20, e.lastFrame}) {
        Nv21Image image = picture;
        EXPECT_EQ(d.applyImage(e, f, image), e.valueAt(f));
        EXPECT_LT(SharpnessMeasure::of(image), 0.85 * sharp) << name << " " << kind << " frame " << f;
      }
      Nv21Image outside = picture;
      EXPECT_EQ(d.applyImage(e, e.lastFrame + 1, outside), 0.0);
      EXPECT_TRUE(outside.data == picture.data);
    }
  }
  // The clip's own motion blur reads the same way: its most blurred frame against its sharpest.
  EXPECT_LT(SharpnessMeasure::of(nv21Picture("cockatoo_f160_1280x720.nv21", 1280, 720)),
            0.5 * SharpnessMeasure::of(pictures[0].second));
  // The chroma is blurred as well, at its half size.
  const Nv21Image& bird = pictures[0].second;
  for (bool shake : {true, false}) {
    Nv21Image image = bird;
    shake ? Degrader::motionBlur(image, 20, 0.3) : Degrader::gaussianBlur(image, 4);
    for (int c = 0; c < 2; ++c) {
      EXPECT_LT(gradientEnergy(image.vu() + c, 640, 360, 2, 1, 1),
                0.8 * gradientEnergy(bird.vu() + c, 640, 360, 2, 1, 1));
    }
  }
  // A shake smears along its direction: across it the detail stays.
  const Nv21Image& portrait = pictures[2].second;
  const int w = portrait.width, h = portrait.height;
  for (int vertical = 0; vertical < 2; ++vertical) {
    Nv21Image image = portrait;
    Degrader::motionBlur(image, 12, vertical ? kPi / 2 : 0.0);
    const double along = gradientEnergy(image.y(), w, h, 1, !vertical, vertical) /
                         gradientEnergy(portrait.y(), w, h, 1, !vertical, vertical);
    const double across = gradientEnergy(image.y(), w, h, 1, vertical, !vertical) /
                          gradientEnergy(portrait.y(), w, h, 1, vertical, !vertical);
    EXPECT_LT(along, 0.5 * across) << (vertical ? "vertical" : "horizontal");
  }
}

TEST(Degrader, ExposureAndNoiseChangeTheLumaAsRecorded) {
  const Nv21Image bird = nv21Picture("cockatoo_f005_1280x720.nv21", 1280, 720);
  ASSERT_FALSE(bird.empty());
  const size_t n = static_cast<size_t>(bird.width) * bird.height;
  for (double gain : {0.55, 1.7}) {
    Nv21Image image = bird;
    Degrader::exposureGain(image, gain);
    for (size_t i = 0; i < image.data.size(); i += 7) {
      if (i < n) {
        ASSERT_NEAR(image.data[i], std::min(255.0, bird.data[i] * gain), 0.51) << "luma scaled, clipped";
      } else if (gain < 1.0) {
        ASSERT_NEAR(image.data[i] - 128.0, (bird.data[i] - 128.0) * gain, 0.51) << "darker: colour scales too";
      } else {
        ASSERT_LE(std::abs(image.data[i] - 128), std::abs(bird.data[i] - 128)) << "brighter: colour fades";
      }
    }
  }

  // Noise: the same seed gives the same pixels; another seed or frame, others.
  const DegradationEvent e = Degrader(3).plan("noise", 50, 100, 1280);
  Nv21Image once = bird, twice = bird, otherSeed = bird, otherFrame = bird;
  const double sigma = Degrader(3).applyImage(e, 50, once);
  EXPECT_EQ(Degrader(3).applyImage(e, 50, twice), sigma);
  EXPECT_TRUE(once.data == twice.data);
  Degrader(4).applyImage(Degrader(4).plan("noise", 50, 100, 1280), 50, otherSeed);
  EXPECT_FALSE(otherSeed.data == once.data);
  Degrader(3).applyImage(e, e.firstFrame == 50 ? e.lastFrame : e.firstFrame, otherFrame);
  EXPECT_FALSE(otherFrame.data == once.data);
  // Its deviation is the one recorded (away from the clipping ends); the chroma is untouched.
  double sum = 0.0, squares = 0.0;
  int count = 0;
  for (size_t i = 0; i < n; ++i) {
    if (bird.data[i] < 40 || bird.data[i] > 215) continue;
    const double d = static_cast<double>(once.data[i]) - bird.data[i];
    sum += d;
    squares += d * d;
    ++count;
  }
  ASSERT_GT(count, 1000);
  EXPECT_NEAR(sum / count, 0.0, 0.1);
  EXPECT_NEAR(std::sqrt(squares / count), sigma, 0.05 * sigma);
  EXPECT_TRUE(std::equal(once.data.begin() + n, once.data.end(), bird.data.begin() + n));
}

TEST(Degrader, GyroBurstMatchesTheBlurAndTheHandIsQuietOtherwise) {
  const int64_t interval = 50000;  // 20 fps; the exposure is taken as the frame interval
  EXPECT_NEAR(Degrader::gyroRateForBlur(16.0, 640, interval), 0.5, 1e-12);
  double quietPeak = 0.0, quietSquares = 0.0;
  int quietCount = 0;
  for (uint64_t seed = 1; seed <= 20; ++seed) {
    const Degrader d(seed);
    const DegradationEvent e = d.plan("shake", 100, 300, 640);
    for (int f = 90; f <= 110; ++f) {
      const int64_t ts = f * interval;
      const std::vector<GyroSample> g = d.gyro(e, f, ts, interval);
      ASSERT_EQ(g.size(), 10u);
      for (size_t k = 0; k < g.size(); ++k) EXPECT_EQ(g[k].timestampUs, ts + 5000 * static_cast<int64_t>(k));
      if (!e.covers(f)) {
        const std::vector<GyroSample> quiet = d.gyroQuiet(ts, interval);
        for (size_t k = 0; k < g.size(); ++k) {
          EXPECT_TRUE(g[k].x == quiet[k].x && g[k].y == quiet[k].y && g[k].z == quiet[k].z);
          const double r = std::sqrt(g[k].x * g[k].x + g[k].y * g[k].y + g[k].z * g[k].z);
          quietPeak = std::max(quietPeak, r);
          quietSquares += r * r;
          ++quietCount;
        }
        continue;
      }
      // Over the exposure the rate smears the picture by the blur's length along its
      // direction (rate about y moves it along x, about x along y).
      double mx = 0.0, my = 0.0;
      for (const GyroSample& s : g) {
        mx += s.x / g.size();
        my += s.y / g.size();
      }
      const double smear = std::hypot(mx, my) * Degrader::focalPx(640) * (interval / 1e6);
      EXPECT_NEAR(smear, e.valueAt(f), 0.1 * e.valueAt(f)) << "seed " << seed << " frame " << f;
      const double dir = std::fmod(std::atan2(mx, my) + kPi, kPi);
      const double off = std::fabs(dir - e.angleRad);
      EXPECT_LT(std::min(off, kPi - off), 0.1) << "seed " << seed << " frame " << f;
    }
  }
  ASSERT_GT(quietCount, 100);
  EXPECT_LT(quietPeak, 0.05);  // rad/s: a steady hand
  EXPECT_LT(std::sqrt(quietSquares / quietCount), 0.02);
  EXPECT_GT(Degrader::gyroRateForBlur(640 * Degrader::kShakeMinOfWidth, 640, interval), 10 * quietPeak);
  const Degrader d(2);
  const auto a = d.gyroQuiet(1234567, 33333), b = d.gyroQuiet(1234567, 33333);
  ASSERT_EQ(a.size(), 7u);
  EXPECT_EQ(a[3].x, b[3].x);
  EXPECT_TRUE(d.gyroQuiet(0, 0).empty());
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
  Nv21Image portrait = greyPicture("hopper_512x600.pgm");
  const double before = SharpnessMeasure::of(portrait);
  Degrader::addNoise(portrait, 8.0, 1);
  EXPECT_GT(SharpnessMeasure::of(portrait), before);
}

}  // namespace
