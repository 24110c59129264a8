// Statistics, Sobel, histogram, shift and histogram-distance kernels.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "DexFrameMetaData.h"
#include "KocoreTestImages.h"

namespace android {
namespace {

using kocore_test::Plane;

TEST(FrameStats, MeanStddevAndDifferenceOfKnownValues) {
  const std::vector<uint8_t> v = {2, 4, 4, 4, 5, 5, 7, 9};  // mean 5, stddev 2
  std::vector<uint8_t> prev(v.size());
  for (size_t i = 0; i < v.size(); ++i) prev[i] = static_cast<uint8_t>(v[i] + (i % 2 ? 3 : -1));
  KO_dataStats_t s{}, d{};
  ASSERT_EQ(0, DexFrameMetaData::calcMeanStddev(v.data(), &s, 8));
  ASSERT_EQ(0, DexFrameMetaData::calcMFrameDiff(v.data(), prev.data(), &d, 8));
  EXPECT_FLOAT_EQ(5.0f, s.mean);
  EXPECT_FLOAT_EQ(2.0f, s.stddev);
  EXPECT_EQ(2.0f, s.min);
  EXPECT_EQ(9.0f, s.max);
  EXPECT_FLOAT_EQ(2.0f, d.mean);  // |diff| alternates 1 and 3
  EXPECT_FLOAT_EQ(1.0f, d.stddev);
}

TEST(FrameStats, HistogramCountsEveryPixelInItsBin) {
  const Plane view = kocore_test::analysisView("cockatoo_f005_1280x720.nv21");
  ASSERT_EQ(640, view.w);
  for (int bins : {1, 32, 256}) {
    std::vector<uint32_t> hist(bins, 12345);
    // A 300x200 region of the view: the stride is honoured.
    ASSERT_EQ(0, DexFrameMetaData::genHistogramPow2(view.data() + 640 * 50 + 100, hist.data(),
                                                    300, 200, 640, bins));
    uint64_t total = 0;
    for (uint32_t c : hist) total += c;
    EXPECT_EQ(300u * 200u, total) << bins;
    std::vector<uint32_t> ref(bins, 0);
    for (int y = 50; y < 250; ++y)
      for (int x = 100; x < 400; ++x) ++ref[view.at(x, y) * bins / 256];
    EXPECT_EQ(ref, hist) << bins;
  }
}

TEST(FrameStats, SobelOrdersSharpAboveBlurredForFrameAndRegion) {
  const Plane view = kocore_test::analysisView("solvay_1920x1080.nv21");
  const Plane small = kocore_test::half(view);
  std::vector<int16_t> s1(320 * 180), s2(320 * 180);
  float previous = 1e9f;
  for (double sigma : {0.0, 0.8, 1.5, 3.0}) {
    const Plane img = kocore_test::gaussianBlur(small, sigma);
    KO_dataStats_t st{};
    ASSERT_EQ(0, DexFrameMetaData::calcSobelFrame(img.data(), &st, 320, 180, 0, s1.data(), s2.data()));
    EXPECT_LT(st.mean, previous) << sigma;
    previous = st.mean;
    EXPECT_LE(st.min, st.mean);
    EXPECT_GE(st.max, st.mean);
  }
  EXPECT_EQ(0, s1[0]) << "the border is zero";
  EXPECT_EQ(0, s2[179 * 320 + 5]);

  const Plane blurred = kocore_test::gaussianBlur(view, 2.0);
  KO_dataStats_t a{}, b{};
  ASSERT_EQ(0, DexFrameMetaData::calcSobel2DRegion(view.data(), a, 240, 136, 160, 88, 640, 0));
  ASSERT_EQ(0, DexFrameMetaData::calcSobel2DRegion(blurred.data(), b, 240, 136, 160, 88, 640, 0));
  EXPECT_GT(a.mean, 1.5f * b.mean);
}

// B is A translated by (sx, sy): both are 640x360 crops of the larger group photo.
TEST(FrameShift, RecoversKnownShiftsAndSeesNoShiftBetweenNoisyCopies) {
  const Plane big = kocore_test::reducedLuma("solvay_1920x1080.nv21", 1920, 1080, 2);  // 960x540
  ASSERT_EQ(960, big.w);
  const Plane a = kocore_test::crop(big, 160, 90, 640, 360), sa = kocore_test::half(a);
  const int shifts[][2] = {{0, 0}, {5, -3}, {-12, 7}, {30, 0}, {0, -30}, {-30, 30}, {23, -17}};
  for (const auto& s : shifts) {
    SCOPED_TRACE(std::to_string(s[0]) + "," + std::to_string(s[1]));
    const Plane b = kocore_test::crop(big, 160 - s[0], 90 - s[1], 640, 360), sb = kocore_test::half(b);
    DexFrameMetaData::xyShift r{};
    r.searchRange = 40;
    ASSERT_EQ(0, DexFrameMetaData::calculateShift(a.data(), b.data(), 640, 360, sa.data(), sb.data(),
                                                  320, 180, &r));
    EXPECT_NEAR(s[0], r.dx, 1);
    EXPECT_NEAR(s[1], r.dy, 1);
    if (s[0] != 0 || s[1] != 0) {
      EXPECT_LT(r.b * 4, r.a);
      EXPECT_LT(r.b, 12.0f);
    } else {
      EXPECT_FLOAT_EQ(0.0f, r.a);
      EXPECT_FLOAT_EQ(0.0f, r.b);
    }
  }

  // Two noisy copies of one frame: no shift, and a close to b.
  const Plane view = kocore_test::analysisView("cockatoo_f005_1280x720.nv21");
  std::mt19937 rng(7);
  std::normal_distribution<double> noise(0.0, 4.0);
  Plane na = view, nb = view;
  for (size_t i = 0; i < view.px.size(); ++i) {
    na.px[i] = static_cast<uint8_t>(std::clamp(std::lround(view.px[i] + noise(rng)), 0L, 255L));
    nb.px[i] = static_cast<uint8_t>(std::clamp(std::lround(view.px[i] + noise(rng)), 0L, 255L));
  }
  const Plane sna = kocore_test::half(na), snb = kocore_test::half(nb);
  DexFrameMetaData::xyShift r{};
  r.searchRange = 40;
  ASSERT_EQ(0, DexFrameMetaData::calculateShift(na.data(), nb.data(), 640, 360, sna.data(),
                                                snb.data(), 320, 180, &r));
  EXPECT_EQ(0, r.dx);
  EXPECT_EQ(0, r.dy);
  EXPECT_GT(r.a, 2.0f);  // the noise itself
  EXPECT_NEAR(r.a, r.b, 0.05f * r.a);
}

// The best-shot checks call a shift detected when b < 30 and a * 0.6 > b, or a < 12 and
// a * 0.8 > b (a, b: differences at zero and at the best shift).
bool shiftRuleFires(const DexFrameMetaData::xyShift& r) {
  return (r.b < 30.0f && r.a * 0.6 > r.b) || (r.a < 12.0f && r.a * 0.8 > r.b);
}

DexFrameMetaData::xyShift shiftOf(const Plane& a, const Plane& b) {
  const Plane sa = kocore_test::half(a), sb = kocore_test::half(b);
  DexFrameMetaData::xyShift r{};
  r.searchRange = 40;
  EXPECT_EQ(0, DexFrameMetaData::calculateShift(a.data(), b.data(), a.w, a.h, sa.data(), sb.data(),
                                                sa.w, sa.h, &r));
  return r;
}

// An exposure step (gain or offset, with the clipping a real sensor adds) between two copies of
// one frame is no shift; a real shift under an exposure step is still found.
TEST(FrameShift, ExposureStepIsNoShiftAndAShiftUnderAnExposureStepIsFound) {
  kocore_test::forEachExposureStep([](const Plane& view, const Plane& stepped) {
    const DexFrameMetaData::xyShift r = shiftOf(view, stepped);
    EXPECT_EQ(0, r.dx);
    EXPECT_EQ(0, r.dy);
    EXPECT_FALSE(shiftRuleFires(r));
    EXPECT_LT(r.a, 5.0f);  // only what clipping destroyed remains
    EXPECT_FLOAT_EQ(r.a, r.b);
  });
  const Plane big = kocore_test::reducedLuma("solvay_1920x1080.nv21", 1920, 1080, 2);  // 960x540
  const Plane a = kocore_test::crop(big, 160, 90, 640, 360);
  for (const kocore_test::ExposureStep& st : kocore_test::kExposureSteps) {
    const Plane b = kocore_test::contrast(kocore_test::crop(big, 160 - 9, 90 + 6, 640, 360), st.gain, st.offset);
    const DexFrameMetaData::xyShift r = shiftOf(a, b);
    EXPECT_EQ(9, r.dx) << st.gain << " " << st.offset;
    EXPECT_EQ(-6, r.dy) << st.gain << " " << st.offset;
    EXPECT_TRUE(shiftRuleFires(r)) << r.a << " " << r.b;
    EXPECT_GT(r.a, 8.0f);  // in grey levels, as without the exposure step
  }
  // Without an exposure step the differences keep their grey-level meaning.
  const DexFrameMetaData::xyShift plain = shiftOf(a, kocore_test::crop(big, 160 - 9, 90 + 6, 640, 360));
  const DexFrameMetaData::xyShift dimmed =
      shiftOf(a, kocore_test::contrast(kocore_test::crop(big, 160 - 9, 90 + 6, 640, 360), 0.8, 0));
  EXPECT_NEAR(plain.a, dimmed.a, 0.1f * plain.a);
}

TEST(HistogramDistance, ZeroForEqualAndGrowingWithShift) {
  const Plane view = kocore_test::analysisView("cockatoo_f100_1280x720.nv21");
  std::vector<uint32_t> h32(32);
  ASSERT_EQ(0, DexFrameMetaData::genHistogramPow2(view.data(), h32.data(), 640, 360, 640, 32));
  std::vector<int> base(h32.begin(), h32.end());
  EXPECT_FLOAT_EQ(0.0f, DexFrameMetaData::calcBhattacharyyaCoeff(base.data(), base.data(), 32));
  // Scaling one histogram changes nothing: the distance compares shapes.
  std::vector<int> doubled(base);
  for (int& c : doubled) c *= 2;
  EXPECT_NEAR(0.0f, DexFrameMetaData::calcBhattacharyyaCoeff(base.data(), doubled.data(), 32), 1e-3);
  // Brighten the picture step by step: the distance grows with the brightness shift.
  float previous = 0.0f;
  for (int offset : {8, 16, 32, 64}) {
    const Plane bright = kocore_test::contrast(view, 1.0, offset);
    ASSERT_EQ(0, DexFrameMetaData::genHistogramPow2(bright.data(), h32.data(), 640, 360, 640, 32));
    std::vector<int> other(h32.begin(), h32.end());
    const float d = DexFrameMetaData::calcBhattacharyyaCoeff(base.data(), other.data(), 32);
    EXPECT_GT(d, previous) << offset;
    EXPECT_LE(d, 1.0f);
    previous = d;
  }
  std::vector<int> low(32, 0), high(32, 0), empty(32, 0);
  low[2] = 100;
  high[30] = 5;
  EXPECT_FLOAT_EQ(1.0f, DexFrameMetaData::calcBhattacharyyaCoeff(low.data(), high.data(), 32));
  EXPECT_FLOAT_EQ(1.0f, DexFrameMetaData::calcBhattacharyyaCoeff(low.data(), empty.data(), 32));
}

TEST(FrameKernelArguments, RejectNullAndBadSizes) {
  std::vector<uint8_t> img(64 * 64, 1);
  std::vector<int16_t> s1(64 * 64), s2(64 * 64);
  std::vector<uint32_t> hist(32, 7);
  KO_dataStats_t st{1, 2, 3, 4, 5};
  const KO_dataStats_t untouched = st;
  using M = DexFrameMetaData;
  EXPECT_EQ(-1, M::calcMeanStddev(nullptr, &st, 10));
  EXPECT_EQ(-1, M::calcMeanStddev(img.data(), nullptr, 10));
  EXPECT_EQ(-1, M::calcMeanStddev(img.data(), &st, 0));
  EXPECT_EQ(-1, M::calcMFrameDiff(img.data(), nullptr, &st, 10));
  EXPECT_EQ(-1, M::calcMFrameDiff(img.data(), img.data(), &st, -3));
  EXPECT_EQ(-1, M::genHistogramPow2(nullptr, hist.data(), 8, 8, 8, 32));
  EXPECT_EQ(-1, M::genHistogramPow2(img.data(), hist.data(), 0, 8, 8, 32));
  EXPECT_EQ(-1, M::genHistogramPow2(img.data(), hist.data(), 8, 8, 4, 32));
  EXPECT_EQ(-1, M::genHistogramPow2(img.data(), hist.data(), 8, 8, 8, 48));  // not a power of 2
  EXPECT_EQ(-1, M::genHistogramPow2(img.data(), hist.data(), 8, 8, 8, 512));
  EXPECT_EQ(-1, M::calcSobelFrame(img.data(), &st, 64, 64, 0, s1.data(), nullptr));
  EXPECT_EQ(-1, M::calcSobelFrame(img.data(), &st, -1, 64, 0, s1.data(), s2.data()));
  EXPECT_EQ(-1, M::calcSobel2DRegion(nullptr, st, 0, 0, 8, 8, 64, 0));
  EXPECT_EQ(-1, M::calcSobel2DRegion(img.data(), st, -1, 0, 8, 8, 64, 0));
  EXPECT_EQ(-1, M::calcSobel2DRegion(img.data(), st, 0, 0, 8, 0, 64, 0));
  for (uint32_t c : hist) EXPECT_EQ(7u, c);
  EXPECT_EQ(0, std::memcmp(&st, &untouched, sizeof st));

  DexFrameMetaData::xyShift r{1, 2, 40, 3.0f, 4.0f};
  EXPECT_EQ(-1, M::calculateShift(img.data(), nullptr, 64, 64, img.data(), img.data(), 32, 32, &r));
  EXPECT_EQ(-1, M::calculateShift(img.data(), img.data(), 64, 64, img.data(), img.data(), 32, 32, nullptr));
  EXPECT_EQ(-1, M::calculateShift(img.data(), img.data(), 0, 64, img.data(), img.data(), 32, 32, &r));
  EXPECT_EQ(-1, M::calculateShift(img.data(), img.data(), 64, 64, img.data(), img.data(), 32, -2, &r));
  EXPECT_EQ(1, r.dx);
  EXPECT_EQ(4.0f, r.b);

  int h[4] = {1, 2, 3, 4};
  EXPECT_FLOAT_EQ(1.0f, M::calcBhattacharyyaCoeff(nullptr, h, 4));
  EXPECT_FLOAT_EQ(1.0f, M::calcBhattacharyyaCoeff(h, h, 0));
  EXPECT_EQ(-1, M::KoCalcMeanStddevMinMeanQueue(nullptr, &st, 5, 0, 0));
  EXPECT_EQ(0, std::memcmp(&st, &untouched, sizeof st));
}

}  // namespace
}  // namespace android
