// Statistics, Sobel, histogram, shift and histogram-distance kernels.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <random>
#include <string>
#include <utility>
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

  const Plane blurred = kocore_test::gaussianBlur(view, 2.0);
  KO_dataStats_t a{}, b{};
  ASSERT_EQ(0, DexFrameMetaData::calcSobel2DRegion(view.data(), a, 240, 136, 160, 88, 640, 0));
  ASSERT_EQ(0, DexFrameMetaData::calcSobel2DRegion(blurred.data(), b, 240, 136, 160, 88, 640, 0));
  EXPECT_GT(a.mean, 1.5f * b.mean);
}

// Vector paths on or off for the scope (process-wide switch), back on afterwards.
struct SimdScope {
  explicit SimdScope(bool on) { DexFrameMetaData::setSimdEnabled(on); }
  ~SimdScope() { DexFrameMetaData::setSimdEnabled(true); }
};

bool sameStats(const KO_dataStats_t& a, const KO_dataStats_t& b) {
  return std::memcmp(&a, &b, sizeof a) == 0;
}

// Consecutive frames of the hand-held clip and the group photo, as the engine's 320x180 small
// images (the group photo's previous frame is a copy shifted by 3 pixels).
std::vector<std::pair<Plane, Plane>> smallFramePairs() {
  std::vector<std::pair<Plane, Plane>> pairs;
  for (const auto& names : {std::pair<const char*, const char*>{"cockatoo_f006_1280x720.nv21",
                                                                "cockatoo_f005_1280x720.nv21"},
                            {"cockatoo_f101_1280x720.nv21", "cockatoo_f100_1280x720.nv21"},
                            {"cockatoo_f160_1280x720.nv21", "cockatoo_f155_1280x720.nv21"}}) {
    pairs.emplace_back(kocore_test::half(kocore_test::analysisView(names.first)),
                       kocore_test::half(kocore_test::analysisView(names.second)));
  }
  const Plane group = kocore_test::half(kocore_test::analysisView("solvay_1920x1080.nv21"));
  Plane moved = group;
  if (moved.px.size() > 3) std::rotate(moved.px.begin(), moved.px.begin() + 3, moved.px.end());
  pairs.emplace_back(group, moved);
  return pairs;
}

// The gradient statistics computed directly: magnitudes sqrt(gx^2 + gy^2) / 4 summed in double
// over the interior of a w x h region (row stride `stride`).
KO_dataStats_t referenceSobel(const uint8_t* img, int w, int h, int stride) {
  double sum = 0, sumSq = 0;
  float lo = 1e30f, hi = 0;
  long n = 0;
  for (int y = 1; y + 1 < h; ++y) {
    for (int x = 1; x + 1 < w; ++x) {
      auto p = [&](int dx, int dy) { return static_cast<int>(img[(y + dy) * stride + x + dx]); };
      const int gx = p(1, -1) - p(-1, -1) + 2 * (p(1, 0) - p(-1, 0)) + p(1, 1) - p(-1, 1);
      const int gy = p(-1, 1) - p(-1, -1) + 2 * (p(0, 1) - p(0, -1)) + p(1, 1) - p(1, -1);
      const double m = std::sqrt(static_cast<double>(gx * gx + gy * gy)) / 4;
      sum += m;
      sumSq += m * m;
      const float mf = std::sqrt(static_cast<float>(gx * gx + gy * gy)) * 0.25f;
      lo = std::min(lo, mf);
      hi = std::max(hi, mf);
      ++n;
    }
  }
  KO_dataStats_t r{};
  r.mean = static_cast<float>(sum / n);
  r.stddev = r.stddevCopy = static_cast<float>(std::sqrt(sumSq / n - (sum / n) * (sum / n)));
  r.min = lo;
  r.max = hi;
  return r;
}

// Gradient statistics within the documented tolerances of a reference: mean 1e-5 (relative),
// standard deviation 1e-4 (relative; 5e-3 of the mean where the spread is below 1% of the
// mean), extremes exact.
void expectSobelClose(const KO_dataStats_t& ref, const KO_dataStats_t& s) {
  EXPECT_NEAR(ref.mean, s.mean, 1e-5 * ref.mean);
  EXPECT_NEAR(ref.stddev, s.stddev,
              ref.stddev < 0.01f * ref.mean ? 5e-3 * ref.mean : 1e-4 * ref.stddev);
  EXPECT_EQ(s.stddev, s.stddevCopy);
  EXPECT_EQ(ref.min, s.min);
  EXPECT_EQ(ref.max, s.max);
}

// The fused per-frame step gives exactly what the four kernels give one after the other, on
// both paths, and the two paths agree: exactly for the byte statistics, the histogram and the
// gradient planes, within the stated tolerance for the gradient mean and spread.
TEST(FrameStats, FusedStepMatchesSeparateKernelsAndPathsAgreeOnRealFrames) {
  const int w = 320, h = 180, n = w * h;
  struct Outputs {
    KO_dataStats_t luma{}, sobel{}, diff{};
    std::vector<uint32_t> hist = std::vector<uint32_t>(32, 7);
    std::vector<int16_t> gx = std::vector<int16_t>(320 * 180, 99), gy = gx;
  };
  for (const auto& [cur, prev] : smallFramePairs()) {
    ASSERT_EQ(w, cur.w);
    ASSERT_EQ(h, cur.h);
    Outputs path[2];
    for (int simd = 0; simd < 2; ++simd) {
      SCOPED_TRACE(simd ? "vector" : "portable");
      SimdScope scope(simd != 0);
      Outputs& o = path[simd];
      ASSERT_EQ(0, DexFrameMetaData::calcMeanStddev(cur.data(), &o.luma, n));
      ASSERT_EQ(0, DexFrameMetaData::calcSobelFrame(cur.data(), &o.sobel, w, h, 0, o.gx.data(), o.gy.data()));
      ASSERT_EQ(0, DexFrameMetaData::calcMFrameDiff(cur.data(), prev.data(), &o.diff, n));
      ASSERT_EQ(0, DexFrameMetaData::genHistogramPow2(cur.data(), o.hist.data(), w, h, w, 32));

      Outputs f;
      std::fill(f.gx.begin(), f.gx.end(), -5);
      ASSERT_EQ(0, DexFrameMetaData::calcSmallFrameStats(cur.data(), prev.data(), w, h, &f.luma, &f.sobel,
                                                         &f.diff, f.hist.data(), 32, f.gx.data(), f.gy.data()));
      EXPECT_TRUE(sameStats(o.luma, f.luma));
      EXPECT_TRUE(sameStats(o.sobel, f.sobel));
      EXPECT_TRUE(sameStats(o.diff, f.diff));
      EXPECT_EQ(o.hist, f.hist);
      EXPECT_EQ(o.gx, f.gx);
      EXPECT_EQ(o.gy, f.gy);

      // Against values computed directly from the pixels.
      expectSobelClose(referenceSobel(cur.data(), w, h, w), o.sobel);
      EXPECT_EQ(0, o.gx[0]) << "the border is zero";
      EXPECT_EQ(0, o.gy[w * h - 1]);
      EXPECT_EQ((cur.at(6, 4) - cur.at(4, 4)) * 2 + cur.at(6, 3) - cur.at(4, 3) + cur.at(6, 5) - cur.at(4, 5),
                o.gx[4 * w + 5]);
      double diffSum = 0;
      for (int i = 0; i < n; ++i) diffSum += std::abs(cur.px[i] - prev.px[i]);
      EXPECT_NEAR(diffSum / n, o.diff.mean, 1e-4);
      uint64_t count = 0;
      for (uint32_t c : o.hist) count += c;
      EXPECT_EQ(static_cast<uint64_t>(n), count);

      // Without a previous frame the difference is zeroed; without a histogram none is made.
      KO_dataStats_t nl{}, ns{}, nd{1, 2, 3, 4, 5};
      ASSERT_EQ(0, DexFrameMetaData::calcSmallFrameStats(cur.data(), nullptr, w, h, &nl, &ns, &nd, nullptr, 48,
                                                         f.gx.data(), f.gy.data()));
      EXPECT_TRUE(sameStats(KO_dataStats_t{}, nd));
      EXPECT_TRUE(sameStats(o.luma, nl));
      EXPECT_TRUE(sameStats(o.sobel, ns));
    }
    EXPECT_TRUE(sameStats(path[0].luma, path[1].luma));
    EXPECT_TRUE(sameStats(path[0].diff, path[1].diff));
    expectSobelClose(path[0].sobel, path[1].sobel);
    EXPECT_EQ(path[0].hist, path[1].hist);
    EXPECT_EQ(path[0].gx, path[1].gx);
    EXPECT_EQ(path[0].gy, path[1].gy);
  }
}

// Regions of odd sizes and strides, every bin count: both paths against direct counts and the
// directly computed gradient statistics (rows that end inside a vector block, rows shorter than
// one block, a region at the very end of the buffer).
TEST(FrameStats, RegionsOfAnySizeMatchDirectComputationOnBothPaths) {
  const Plane view = kocore_test::analysisView("cockatoo_f100_1280x720.nv21");
  const Plane nextView = kocore_test::analysisView("cockatoo_f101_1280x720.nv21");
  const int regions[][4] = {{0, 0, 640, 360}, {1, 2, 317, 179}, {5, 7, 3, 3},   {600, 300, 40, 60},
                            {9, 9, 17, 2},    {0, 0, 1, 1},     {33, 1, 31, 9}, {638, 0, 2, 360}};
  for (int simd = 0; simd < 2; ++simd) {
    SimdScope scope(simd != 0);
    for (const auto& r : regions) {
      SCOPED_TRACE(std::to_string(simd) + ": " + std::to_string(r[0]) + "," + std::to_string(r[1]) +
                   " " + std::to_string(r[2]) + "x" + std::to_string(r[3]));
      const uint8_t* origin = view.data() + r[1] * view.w + r[0];
      for (int bins : {1, 2, 8, 32, 64, 256}) {
        std::vector<uint32_t> hist(bins, 12345), ref(bins, 0);  // every bin overwritten
        ASSERT_EQ(0, DexFrameMetaData::genHistogramPow2(origin, hist.data(), r[2], r[3], view.w, bins));
        for (int y = 0; y < r[3]; ++y)
          for (int x = 0; x < r[2]; ++x) ++ref[origin[y * view.w + x] * bins / 256];
        EXPECT_EQ(ref, hist) << bins;
      }
      KO_dataStats_t s{};
      ASSERT_EQ(0, DexFrameMetaData::calcSobel2DRegion(view.data(), s, r[0], r[1], r[2], r[3], view.w, 0));
      if (r[2] > 2 && r[3] > 2) {
        expectSobelClose(referenceSobel(origin, r[2], r[3], view.w), s);
      } else {
        EXPECT_TRUE(sameStats(KO_dataStats_t{}, s)) << "no interior pixels";
      }
      // The region copied out as its own image: bytes and frame statistics.
      const Plane crop = kocore_test::crop(view, r[0], r[1], r[2], r[3]);
      const Plane next = kocore_test::crop(nextView, r[0], r[1], r[2], r[3]);
      const int n = r[2] * r[3];
      KO_dataStats_t luma{}, diff{}, sobel{};
      std::vector<int16_t> gx(n), gy(n);
      ASSERT_EQ(0, DexFrameMetaData::calcSmallFrameStats(crop.data(), next.data(), r[2], r[3], &luma,
                                                         &sobel, &diff, nullptr, 0, gx.data(), gy.data()));
      uint64_t sum = 0, sumSq = 0, dsum = 0;
      int lo = 255, hi = 0, dhi = 0;
      for (int i = 0; i < n; ++i) {
        const int v = crop.px[i], d = std::abs(v - next.px[i]);
        sum += v;
        sumSq += v * v;
        lo = std::min(lo, v);
        hi = std::max(hi, v);
        dsum += d;
        dhi = std::max(dhi, d);
      }
      const double mean = static_cast<double>(sum) / n;
      EXPECT_FLOAT_EQ(static_cast<float>(mean), luma.mean);
      EXPECT_NEAR(std::sqrt(std::max(0.0, static_cast<double>(sumSq) / n - mean * mean)), luma.stddev, 1e-3);
      EXPECT_EQ(static_cast<float>(lo), luma.min);
      EXPECT_EQ(static_cast<float>(hi), luma.max);
      EXPECT_FLOAT_EQ(static_cast<float>(static_cast<double>(dsum) / n), diff.mean);
      EXPECT_EQ(static_cast<float>(dhi), diff.max);
      // The same pixels as a region of the view and as an image of their own.
      EXPECT_TRUE(sameStats(s, sobel));
    }
  }
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

// The group photo at 960x540: room to cut 640x360 views translated against each other.
const Plane& bigGroup() {
  static const Plane big = kocore_test::reducedLuma("solvay_1920x1080.nv21", 1920, 1080, 2);
  return big;
}

// B is A translated by (sx, sy): both are 640x360 crops of the larger group photo.
TEST(FrameShift, RecoversKnownShiftsAndSeesNoShiftBetweenNoisyCopies) {
  ASSERT_EQ(960, bigGroup().w);
  const Plane a = kocore_test::crop(bigGroup(), 160, 90, 640, 360);
  const int shifts[][2] = {{0, 0}, {5, -3}, {-12, 7}, {30, 0}, {0, -30}, {-30, 30}, {23, -17}};
  for (const auto& s : shifts) {
    SCOPED_TRACE(std::to_string(s[0]) + "," + std::to_string(s[1]));
    const DexFrameMetaData::xyShift r = shiftOf(a, kocore_test::crop(bigGroup(), 160 - s[0], 90 - s[1], 640, 360));
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
  const DexFrameMetaData::xyShift r = shiftOf(kocore_test::noisy(view, 4.0, 7), kocore_test::noisy(view, 4.0, 8));
  EXPECT_EQ(0, r.dx);
  EXPECT_EQ(0, r.dy);
  EXPECT_GT(r.a, 2.0f);  // the noise itself
  EXPECT_NEAR(r.a, r.b, 0.05f * r.a);
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
  const Plane a = kocore_test::crop(bigGroup(), 160, 90, 640, 360);
  const Plane moved = kocore_test::crop(bigGroup(), 160 - 9, 90 + 6, 640, 360);
  for (const kocore_test::ExposureStep& st : kocore_test::kExposureSteps) {
    const DexFrameMetaData::xyShift r = shiftOf(a, kocore_test::contrast(moved, st.gain, st.offset));
    EXPECT_EQ(9, r.dx) << st.gain << " " << st.offset;
    EXPECT_EQ(-6, r.dy) << st.gain << " " << st.offset;
    EXPECT_TRUE(shiftRuleFires(r)) << r.a << " " << r.b;
    EXPECT_GT(r.a, 8.0f);  // in grey levels, as without the exposure step
  }
  // Without an exposure step the differences keep their grey-level meaning.
  EXPECT_NEAR(shiftOf(a, moved).a, shiftOf(a, kocore_test::contrast(moved, 0.8, 0)).a, 0.1f * shiftOf(a, moved).a);
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

TEST(FrameKernelArguments, RejectNullAndBadSizesWithoutWriting) {
  std::vector<uint8_t> img(64 * 64, 9);
  std::vector<int16_t> gx(64 * 64, 1), gy(64 * 64, 1);
  std::vector<uint32_t> hist(32, 7);
  KO_dataStats_t l{1, 2, 3, 4, 5}, s = l, d = l;
  const KO_dataStats_t untouched = l;
  using M = DexFrameMetaData;
  const uint8_t* p = img.data();
  EXPECT_EQ(-1, M::calcMeanStddev(nullptr, &l, 10));
  EXPECT_EQ(-1, M::calcMeanStddev(p, nullptr, 10));
  EXPECT_EQ(-1, M::calcMeanStddev(p, &l, 0));
  EXPECT_EQ(-1, M::calcMFrameDiff(p, nullptr, &l, 10));
  EXPECT_EQ(-1, M::calcMFrameDiff(p, p, &l, -3));
  EXPECT_EQ(-1, M::genHistogramPow2(nullptr, hist.data(), 8, 8, 8, 32));
  EXPECT_EQ(-1, M::genHistogramPow2(p, hist.data(), 0, 8, 8, 32));
  EXPECT_EQ(-1, M::genHistogramPow2(p, hist.data(), 8, 8, 4, 32));
  EXPECT_EQ(-1, M::genHistogramPow2(p, hist.data(), 8, 8, 8, 48));  // not a power of 2
  EXPECT_EQ(-1, M::genHistogramPow2(p, hist.data(), 8, 8, 8, 512));
  EXPECT_EQ(-1, M::calcSobelFrame(p, &l, 64, 64, 0, gx.data(), nullptr));
  EXPECT_EQ(-1, M::calcSobelFrame(p, &l, -1, 64, 0, gx.data(), gy.data()));
  EXPECT_EQ(-1, M::calcSobel2DRegion(nullptr, l, 0, 0, 8, 8, 64, 0));
  EXPECT_EQ(-1, M::calcSobel2DRegion(p, l, -1, 0, 8, 8, 64, 0));
  EXPECT_EQ(-1, M::calcSobel2DRegion(p, l, 0, 0, 8, 0, 64, 0));
  EXPECT_EQ(-1, M::KoCalcMeanStddevMinMeanQueue(nullptr, &l, 5, 0, 0));
  auto fused = [&](const uint8_t* cur, KO_dataStats_t* pl, KO_dataStats_t* pd, int w, int h, int bins,
                   int16_t* pgy) {
    return M::calcSmallFrameStats(cur, p, w, h, pl, &s, pd, hist.data(), bins, gx.data(), pgy);
  };
  EXPECT_EQ(-1, fused(nullptr, &l, &d, 64, 64, 32, gy.data()));
  EXPECT_EQ(-1, fused(p, nullptr, &d, 64, 64, 32, gy.data()));
  EXPECT_EQ(-1, fused(p, &l, nullptr, 64, 64, 32, gy.data()));
  EXPECT_EQ(-1, fused(p, &l, &d, 64, 64, 32, nullptr));
  EXPECT_EQ(-1, fused(p, &l, &d, 0, 64, 32, gy.data()));
  EXPECT_EQ(-1, fused(p, &l, &d, 64, -1, 32, gy.data()));
  EXPECT_EQ(-1, fused(p, &l, &d, 64, 64, 48, gy.data()));
  EXPECT_EQ(-1, fused(p, &l, &d, 64, 64, 0, gy.data()));
  for (const KO_dataStats_t* st : {&l, &s, &d}) EXPECT_EQ(0, std::memcmp(st, &untouched, sizeof untouched));
  for (uint32_t c : hist) EXPECT_EQ(7u, c);
  for (int16_t v : gx) EXPECT_EQ(1, v);

  DexFrameMetaData::xyShift r{1, 2, 40, 3.0f, 4.0f};
  EXPECT_EQ(-1, M::calculateShift(p, nullptr, 64, 64, p, p, 32, 32, &r));
  EXPECT_EQ(-1, M::calculateShift(p, p, 64, 64, p, p, 32, 32, nullptr));
  EXPECT_EQ(-1, M::calculateShift(p, p, 0, 64, p, p, 32, 32, &r));
  EXPECT_EQ(-1, M::calculateShift(p, p, 64, 64, p, p, 32, -2, &r));
  EXPECT_EQ(1, r.dx);
  EXPECT_EQ(4.0f, r.b);
  int h[4] = {1, 2, 3, 4};
  EXPECT_FLOAT_EQ(1.0f, M::calcBhattacharyyaCoeff(nullptr, h, 4));
  EXPECT_FLOAT_EQ(1.0f, M::calcBhattacharyyaCoeff(h, h, 0));

  // A flat image: no spread, no gradient, no difference to itself; every pixel in one bin.
  ASSERT_EQ(0, fused(p, &l, &d, 64, 64, 32, gy.data()));
  EXPECT_EQ(9.0f, l.mean);
  EXPECT_EQ(0.0f, l.stddev);
  EXPECT_EQ(0.0f, s.max);
  EXPECT_EQ(0.0f, d.max);
  EXPECT_EQ(64u * 64u, hist[1]);
}

}  // namespace
}  // namespace android
