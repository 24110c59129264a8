// The frame and motion kernels on real pictures, every vector path against the portable one or an
// exact reference; camera motion from gyroscope traces and the clip decision.
#include <gtest/gtest.h>
#include <libyuv.h>
#include <utils/Vector.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <numeric>
#include <string>
#include <utility>
#include <vector>

#include "../framedata/FrameTestSupport.h"
#include "DexCameraMotion.h"
#include "DexFocusExposure.h"
#include "DexFrameMetaData.h"
#include "DexMotionDetection.h"
#include "KoFrameHist.h"
#include "KoFrameHistSnapshot.h"
#include "KoFrameReducer.h"
#include "KocoreTestImages.h"

namespace android {
namespace {

using kocore_test::Plane;

// Area average of one channel (samples `step` bytes apart) reduced by srcW/dstW in both
// directions: every output pixel is the overlap-weighted mean of the source area it covers.
std::vector<uint8_t> areaReference(const uint8_t* src, int stride, int step, int srcW, int srcH,
                                   int dstW, int dstH) {
  std::vector<uint8_t> out(static_cast<size_t>(dstW) * dstH);
  const double fx = static_cast<double>(srcW) / dstW, fy = static_cast<double>(srcH) / dstH;
  auto overlap = [](double a, double b, int i) {
    return std::max(0.0, std::min(b, i + 1.0) - std::max(a, static_cast<double>(i)));
  };
  for (int y = 0; y < dstH; ++y) {
    for (int x = 0; x < dstW; ++x) {
      double sum = 0, wsum = 0;
      for (int sy = static_cast<int>(y * fy); sy < static_cast<int>(std::ceil((y + 1) * fy)); ++sy) {
        for (int sx = static_cast<int>(x * fx); sx < static_cast<int>(std::ceil((x + 1) * fx)); ++sx) {
          const double w = overlap(y * fy, (y + 1) * fy, sy) * overlap(x * fx, (x + 1) * fx, sx);
          sum += w * src[static_cast<long>(sy) * stride + static_cast<long>(sx) * step];
          wsum += w;
        }
      }
      out[static_cast<size_t>(y) * dstW + x] = static_cast<uint8_t>(std::lround(sum / wsum));
    }
  }
  return out;
}

int maxAbsDiff(const uint8_t* a, const std::vector<uint8_t>& b) {
  int m = 0;
  for (size_t i = 0; i < b.size(); ++i) m = std::max(m, std::abs(a[i] - b[i]));
  return m;
}

// The fixed-ratio reducers (3x, 2x, 9:4; padded rows, rows ending in the vector kernels' tails):
// within one level of the area average, U and V not swapped, flag 0 reading U,V pairs; and the
// one-pass reducer equal to them with every set of row kernels.
TEST(Reducers, MatchAreaAverageAndTheOnePassReducerMatchesThemWithEveryKernelSet) {
  struct Case {
    const char* file;
    int fileW, fileH, x0, w, h, pad, dw, dh;
  };
  const Case cases[] = {
      {"cockatoo_f005_1280x720.nv21", 1280, 720, 0, 1280, 720, 0, 640, 360},
      {"solvay_1920x1080.nv21", 1920, 1080, 0, 1920, 1080, 0, 640, 360},
      {"solvay_1920x1080.nv21", 1920, 1080, 240, 1440, 1080, 0, 640, 480},
      {"cockatoo_f100_1280x720.nv21", 1280, 720, 0, 1280, 720, 0, 640, 360},
      {"cockatoo_f101_1280x720.nv21", 1280, 720, 0, 1248, 720, 36, 624, 360},
      {"solvay_1920x1080.nv21", 1920, 1080, 6, 1872, 1080, 24, 624, 360},
      {"solvay_1920x1080.nv21", 1920, 1080, 258, 1404, 1080, 20, 624, 480},
  };
  using R = KoFrameReducer;
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.file) + " " + std::to_string(c.w) + "x" + std::to_string(c.h));
    const kocore_test::Nv21Crop s = kocore_test::nv21Crop(c.file, c.fileW, c.fileH, c.x0, 0, c.w, c.h, c.pad);
    ASSERT_FALSE(s.luma.empty());
    const std::vector<uint8_t> want = kocore_test::separateReduce(s, c.dw, c.dh);
    ASSERT_FALSE(want.empty());
    const int cw = c.dw / 2, ch = c.dh / 2;
    const uint8_t* planeU = want.data() + c.dw * c.dh;
    const uint8_t* planeV = planeU + cw * ch;
    const auto refV = areaReference(s.vu.data(), s.stride, 2, s.w / 2, s.h / 2, cw, ch);
    EXPECT_LE(maxAbsDiff(want.data(), areaReference(s.luma.data(), s.stride, 1, s.w, s.h, c.dw, c.dh)), 1);
    EXPECT_LE(maxAbsDiff(planeU, areaReference(s.vu.data() + 1, s.stride, 2, s.w / 2, s.h / 2, cw, ch)), 1);
    EXPECT_LE(maxAbsDiff(planeV, refV), 1);
    if (c.fileW == 1280) {
      EXPECT_GT(maxAbsDiff(planeU, refV), 2);
    }
    if (c.w * 4 != c.dw * 9) {  // 9:4 reads V,U pairs only
      std::vector<uint8_t> uv = s.vu;
      for (size_t i = 0; i < uv.size(); i += 2) std::swap(uv[i], uv[i + 1]);
      std::vector<uint8_t> a0(static_cast<size_t>(cw) * ch), b0(a0.size());
      auto run = c.w == 2 * c.dw ? &DexFrameMetaData::decimateChroma2x : &DexFrameMetaData::decimateChroma3x;
      ASSERT_EQ(0, run(a0.data(), b0.data(), uv.data(), s.stride, cw, ch, 0));
      EXPECT_TRUE(std::equal(a0.begin(), a0.end(), planeU));
      EXPECT_TRUE(std::equal(b0.begin(), b0.end(), planeV));
    }
    // The one-pass reducer, with the 2x2 reduction of the central band as the small image.
    const int bandTop = (c.dh - 360) / 2;
    std::vector<uint8_t> wantSmall(static_cast<size_t>(c.dw / 2) * 180);
    DexFrameMetaData::downScaleLuma2x(wantSmall.data(), want.data() + bandTop * c.dw, c.dw, c.dw / 2, 180);
    for (R::KernelSet set : {R::KERNELS_FASTEST, R::KERNELS_VECTOR, R::KERNELS_PORTABLE}) {
      R::setKernels(set);
      SCOPED_TRACE(R::rowKernels());
      std::vector<uint8_t> got(want.size(), 0xEE), small(wantSmall.size() + 16, 0xEE);
      ASSERT_EQ(0, R::reduceNv21(s.luma.data(), s.stride, s.vu.data(), s.stride, s.w, s.h,
                                 got.data(), c.dw, c.dh, small.data(), bandTop, 180));
      EXPECT_TRUE(got == want);
      EXPECT_TRUE(std::equal(wantSmall.begin(), wantSmall.end(), small.begin()));
      EXPECT_EQ(0xEE, small[wantSmall.size()]);  // nothing written past the small image
    }
  }
  // The switch: setSimdEnabled maps onto the sets, and a vector set is in use by default.
  R::setSimdEnabled(false);
  EXPECT_EQ(R::KERNELS_PORTABLE, R::kernels());
  EXPECT_STREQ("c", R::rowKernels());
  R::setSimdEnabled(true);
  EXPECT_EQ(R::KERNELS_FASTEST, R::kernels());
#if defined(__x86_64__)
  __builtin_cpu_init();
  EXPECT_STREQ(__builtin_cpu_supports("avx2") ? "avx2" : "ssse3", R::rowKernels());
  R::setKernels(R::KERNELS_VECTOR);
  EXPECT_STREQ("ssse3", R::rowKernels());
#elif defined(__ARM_NEON)
  EXPECT_STREQ("neon", R::rowKernels());
#endif
  R::setKernels(R::KERNELS_FASTEST);
}

// A w x h crop around the centre of the full-resolution luma of a stored frame.
Plane realPlane(const std::string& name, int w, int h) {
  const bool solvay = name.rfind("solvay", 0) == 0;
  const int fw = solvay ? 1920 : 1280, fh = solvay ? 1080 : 720;
  return kocore_test::nv21Crop(name, fw, fh, (fw - w) / 2, (fh - h) / 2, w, h).lumaPlane();
}

// Exact bilinear interpolation with pixel centres aligned: target (x, y) samples the source at
// ((x + 0.5) * sw / dw - 0.5, (y + 0.5) * sh / dh - 0.5), clamped to the picture.
std::vector<double> exactBilinear(const Plane& s, int dw, int dh) {
  std::vector<double> out(static_cast<size_t>(dw) * dh);
  auto axis = [](int i, int srcN, int dstN, int* i0, int* i1, double* f) {
    const double p = std::clamp((i + 0.5) * srcN / dstN - 0.5, 0.0, srcN - 1.0);
    *i0 = static_cast<int>(std::floor(p));
    *i1 = std::min(*i0 + 1, srcN - 1);
    *f = p - *i0;
  };
  for (int y = 0; y < dh; ++y) {
    int y0, y1, x0, x1;
    double fy, fx;
    axis(y, s.h, dh, &y0, &y1, &fy);
    for (int x = 0; x < dw; ++x) {
      axis(x, s.w, dw, &x0, &x1, &fx);
      const double top = (1 - fx) * s.at(x0, y0) + fx * s.at(x1, y0);
      const double bottom = (1 - fx) * s.at(x0, y1) + fx * s.at(x1, y1);
      out[static_cast<size_t>(y) * dw + x] = (1 - fy) * top + fy * bottom;
    }
  }
  return out;
}

// Largest and mean deviation of every `step`-th byte of `out` from `ref`.
std::pair<double, double> deviation(const uint8_t* out, int step, const std::vector<double>& ref) {
  double worst = 0, sum = 0;
  for (size_t i = 0; i < ref.size(); ++i) {
    const double e = std::abs(out[i * step] - ref[i]);
    worst = std::max(worst, e);
    sum += e;
  }
  return {worst, sum / static_cast<double>(ref.size())};
}

enum Kernel { k3x, k225x, kGeneric };

// Runs one luma kernel, or with `v` one chroma kernel on planes s (U) and v into V,U pairs.
int scale(Kernel k, const Plane& s, const Plane* v, uint8_t* dst, int dw, int dh) {
  using D = DexFrameMetaData;
  if (v == nullptr) {
    return k == k3x     ? D::lumaBiUpScaler3x(s.data(), dst, s.w, dw, dh, dw)
           : k == k225x ? D::lumaBiUpScaler225x(s.data(), dst, s.h, s.w, dw, dh, dw)
                        : D::lumaBiScalerGeneric(s.data(), dst, s.w, s.h, s.w, dw, dh, dw);
  }
  return k == k3x     ? D::chromaBiUpScaler3x(s.data(), v->data(), dst, dw, dh, s.w, 2 * dw)
         : k == k225x ? D::chromaBiUpScaler225x(s.data(), v->data(), dst, s.h, dw, dh, s.w, 2 * dw)
                      : D::chromaBiScalerGeneric(s.data(), v->data(), dst, s.w, s.h, dw, dh, s.w, 2 * dw);
}

// The engine's two ratios, odd and tiny sizes, the generic kernel both ways: within rounding of
// exact interpolation (the generic kernel's 1/256 weights add less than a level); flat stays flat.
TEST(BilinearScale, KernelsFollowExactInterpolationAndKeepFlatPicturesFlat) {
  struct Case {
    Kernel kernel;
    int sw, sh, dw, dh;
  };
  const Case cases[] = {
      {k3x, 640, 360, 1920, 1080},      {k225x, 640, 480, 1440, 1080},    {kGeneric, 640, 360, 1920, 1088},
      {kGeneric, 640, 360, 1920, 1080}, {kGeneric, 640, 480, 1440, 1080}, {kGeneric, 641, 361, 1001, 563},
      {kGeneric, 640, 480, 301, 211},   {kGeneric, 37, 1, 200, 7},        {kGeneric, 1, 1, 5, 3},
      {k3x, 1, 1, 3, 3},                {k3x, 2, 5, 6, 15},               {k225x, 4, 4, 9, 9},
      {k225x, 8, 12, 18, 27},           {k225x, 12, 8, 27, 18},
  };
  const Plane bird = realPlane("cockatoo_f005_1280x720.nv21", 641, 480);
  const Plane group = realPlane("solvay_1920x1080.nv21", 641, 480);
  ASSERT_FALSE(bird.px.empty() || group.px.empty());
  for (const Case& c : cases) {
    SCOPED_TRACE(std::to_string(c.kernel) + ": " + std::to_string(c.sw) + "x" + std::to_string(c.sh) + " -> " +
                 std::to_string(c.dw) + "x" + std::to_string(c.dh));
    // Luma and chroma U from the bird, V from the group photo, so that swapped planes show.
    const Plane s = kocore_test::crop(bird, 0, 0, c.sw, c.sh);
    const Plane v = kocore_test::crop(group, 0, 0, c.sw, c.sh);
    const std::vector<double> refY = exactBilinear(s, c.dw, c.dh), refV = exactBilinear(v, c.dw, c.dh);
    const size_t n = static_cast<size_t>(c.dw) * c.dh;
    std::vector<uint8_t> luma(n), vu(2 * n);
    ASSERT_EQ(DexFrameMetaData::SCALE_OK, scale(c.kernel, s, nullptr, luma.data(), c.dw, c.dh));
    ASSERT_EQ(DexFrameMetaData::SCALE_OK, scale(c.kernel, s, &v, vu.data(), c.dw, c.dh));
    const double maxDeviation = c.kernel == kGeneric ? 1.5 : (c.kernel == k3x ? 0.5 : 0.53);
    for (const auto& [name, d] : {std::make_pair("luma", deviation(luma.data(), 1, refY)),
                                  std::make_pair("V", deviation(vu.data(), 2, refV)),
                                  std::make_pair("U", deviation(vu.data() + 1, 2, refY))}) {
      EXPECT_LE(d.first, maxDeviation + 1e-9) << name;
      EXPECT_LE(d.second, 0.4) << name;
    }

    for (int level : {0, 1, 127, 254, 255}) {
      Plane flat = s;
      std::fill(flat.px.begin(), flat.px.end(), static_cast<uint8_t>(level));
      std::fill(luma.begin(), luma.end(), 77);
      std::fill(vu.begin(), vu.end(), 77);
      ASSERT_EQ(0, scale(c.kernel, flat, nullptr, luma.data(), c.dw, c.dh));
      ASSERT_EQ(0, scale(c.kernel, flat, &flat, vu.data(), c.dw, c.dh));
      EXPECT_EQ(n, static_cast<size_t>(std::count(luma.begin(), luma.end(), level))) << level;
      EXPECT_EQ(2 * n, static_cast<size_t>(std::count(vu.begin(), vu.end(), level))) << level;
    }
  }
}

// Both interleavers (one 16 samples at a time) against libyuv's MergeUVPlane, widths around 16.
TEST(ChromaInterleave, BothVariantsEqualLibyuvMergeUVPlane) {
  const Plane u0 = realPlane("cockatoo_f005_1280x720.nv21", 700, 3);
  const Plane v0 = realPlane("solvay_1920x1080.nv21", 700, 3);
  ASSERT_FALSE(u0.px.empty() || v0.px.empty());
  constexpr int kPad = 5;
  constexpr uint8_t kSentinel = 0x5A;
  std::vector<int> widths = {640, 695};
  for (int w = 1; w <= 49; ++w) widths.push_back(w);
  for (int w : widths) {
    for (int h : {1, 3}) {
      SCOPED_TRACE(std::to_string(w) + "x" + std::to_string(h));
      const int ss = 700, ds = 2 * w + kPad;
      std::vector<uint8_t> expected(static_cast<size_t>(ds) * h, kSentinel);
      libyuv::MergeUVPlane(v0.data(), ss, u0.data(), ss, expected.data(), ds, w, h);
      for (int variant = 0; variant < 2; ++variant) {
        std::vector<uint8_t> out(expected.size(), kSentinel);
        const int r = variant == 0
                          ? DexFrameMetaData::chromaPlanerToSemi(u0.data(), v0.data(), out.data(), w, h, ss, ds)
                          : DexFrameMetaData::chromaPlanerToSemi16Neon(u0.data(), v0.data(), out.data(), w, h, ss, ds);
        ASSERT_EQ(DexFrameMetaData::SCALE_OK, r);
        EXPECT_EQ(expected, out) << "variant " << variant;
      }
    }
  }
}

// Vector paths on or off for the scope (process-wide switch), back on afterwards.
struct SimdScope {
  explicit SimdScope(bool on) { DexFrameMetaData::setSimdEnabled(on); }
  ~SimdScope() { DexFrameMetaData::setSimdEnabled(true); }
};

bool sameStats(const KO_dataStats_t& a, const KO_dataStats_t& b) { return std::memcmp(&a, &b, sizeof a) == 0; }

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

// Within the documented tolerances of a reference: mean 1e-5 (relative), standard deviation 1e-4
// (relative; 5e-3 of the mean where the spread is below 1% of the mean), extremes exact.
void expectSobelClose(const KO_dataStats_t& ref, const KO_dataStats_t& s) {
  EXPECT_NEAR(ref.mean, s.mean, 1e-5 * ref.mean);
  EXPECT_NEAR(ref.stddev, s.stddev, ref.stddev < 0.01f * ref.mean ? 5e-3 * ref.mean : 1e-4 * ref.stddev);
  EXPECT_EQ(s.stddev, s.stddevCopy);
  EXPECT_EQ(ref.min, s.min);
  EXPECT_EQ(ref.max, s.max);
}

// On consecutive small images of the hand-held clip (and the group photo against a copy shifted by
// 3 pixels) the fused step equals the four kernels, on both paths, and the paths agree.
TEST(FrameStats, FusedStepMatchesSeparateKernelsAndPathsAgreeOnRealFrames) {
  const int w = 320, h = 180, n = w * h;
  std::vector<std::pair<Plane, Plane>> pairs;
  auto small = [](const std::string& f) {
    return kocore_test::half(kocore_test::analysisView("cockatoo_f" + f + "_1280x720.nv21"));
  };
  for (const auto& [cur, prev] : {std::pair<const char*, const char*>{"006", "005"}, {"101", "100"}, {"160", "155"}}) {
    pairs.emplace_back(small(cur), small(prev));
  }
  const Plane group = kocore_test::half(kocore_test::analysisView("solvay_1920x1080.nv21"));
  Plane moved = group;
  if (moved.px.size() > 3) std::rotate(moved.px.begin(), moved.px.begin() + 3, moved.px.end());
  pairs.emplace_back(group, moved);
  struct Outputs {
    KO_dataStats_t luma{}, sobel{}, diff{};
    std::vector<uint32_t> hist = std::vector<uint32_t>(32, 7);
    std::vector<int16_t> gx = std::vector<int16_t>(320 * 180, 99), gy = gx;
  };
  for (const auto& [cur, prev] : pairs) {
    ASSERT_TRUE(cur.w == w && cur.h == h);
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
      ASSERT_EQ(0, DexFrameMetaData::calcSmallFrameStats(cur.data(), prev.data(), w, h, &f.luma, &f.sobel, &f.diff,
                                                         f.hist.data(), 32, f.gx.data(), f.gy.data()));
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

// Regions of odd sizes (rows ending inside a vector block or shorter than one, a region at the end
// of the buffer), every bin count: both paths against direct computation.
TEST(FrameStats, RegionsOfAnySizeMatchDirectComputationOnBothPaths) {
  const Plane view = kocore_test::analysisView("cockatoo_f100_1280x720.nv21");
  const Plane nextView = kocore_test::analysisView("cockatoo_f101_1280x720.nv21");
  const int regions[][4] = {{0, 0, 640, 360}, {1, 2, 317, 179}, {5, 7, 3, 3},   {600, 300, 40, 60},
                            {9, 9, 17, 2},    {0, 0, 1, 1},     {33, 1, 31, 9}, {638, 0, 2, 360}};
  for (int simd = 0; simd < 2; ++simd) {
    SimdScope scope(simd != 0);
    for (const auto& r : regions) {
      SCOPED_TRACE(std::to_string(simd) + ": " + std::to_string(r[0]) + "," + std::to_string(r[1]) + " " +
                   std::to_string(r[2]) + "x" + std::to_string(r[3]));
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
      // The region copied out as its own image: the fused step against direct sums and the
      // difference kernel, and the same gradient statistics as the region.
      const Plane crop = kocore_test::crop(view, r[0], r[1], r[2], r[3]);
      const Plane next = kocore_test::crop(nextView, r[0], r[1], r[2], r[3]);
      const int n = r[2] * r[3];
      KO_dataStats_t luma{}, diff{}, sobel{}, diff1{};
      std::vector<int16_t> gx(n), gy(n);
      ASSERT_EQ(0, DexFrameMetaData::calcSmallFrameStats(crop.data(), next.data(), r[2], r[3], &luma, &sobel, &diff,
                                                         nullptr, 0, gx.data(), gy.data()));
      const auto [lo, hi] = std::minmax_element(crop.px.begin(), crop.px.end());
      EXPECT_FLOAT_EQ(static_cast<float>(std::accumulate(crop.px.begin(), crop.px.end(), 0.0) / n), luma.mean);
      EXPECT_EQ(*lo, luma.min);
      EXPECT_EQ(*hi, luma.max);
      ASSERT_EQ(0, DexFrameMetaData::calcMFrameDiff(crop.data(), next.data(), &diff1, n));
      EXPECT_TRUE(sameStats(diff1, diff));
      EXPECT_TRUE(sameStats(s, sobel)) << "the same pixels as a region and as an image of their own";
    }
  }
}

DexFrameMetaData::xyShift shiftOf(const Plane& a, const Plane& b) {
  const Plane sa = kocore_test::half(a), sb = kocore_test::half(b);
  DexFrameMetaData::xyShift r{};
  r.searchRange = 40;
  EXPECT_EQ(0, DexFrameMetaData::calculateShift(a.data(), b.data(), a.w, a.h, sa.data(), sb.data(), sa.w, sa.h, &r));
  return r;
}

// B is A translated by (sx, sy): both are 640x360 crops of the group photo at 960x540.
TEST(FrameShift, RecoversKnownShiftsAndSeesNoShiftBetweenNoisyCopies) {
  const Plane big = kocore_test::reducedLuma("solvay_1920x1080.nv21", 1920, 1080, 2);
  ASSERT_EQ(960, big.w);
  const Plane a = kocore_test::crop(big, 160, 90, 640, 360);
  const int shifts[][2] = {{0, 0}, {5, -3}, {-12, 7}, {30, 0}, {0, -30}, {-30, 30}, {23, -17}};
  for (const auto& s : shifts) {
    SCOPED_TRACE(std::to_string(s[0]) + "," + std::to_string(s[1]));
    const DexFrameMetaData::xyShift r = shiftOf(a, kocore_test::crop(big, 160 - s[0], 90 - s[1], 640, 360));
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
  // Two noisy copies of one frame: no shift, and a (the noise itself) close to b.
  const Plane view = kocore_test::analysisView("cockatoo_f005_1280x720.nv21");
  const DexFrameMetaData::xyShift r = shiftOf(kocore_test::noisy(view, 4.0, 7), kocore_test::noisy(view, 4.0, 8));
  EXPECT_EQ(0, r.dx);
  EXPECT_EQ(0, r.dy);
  EXPECT_GT(r.a, 2.0f);
  EXPECT_NEAR(r.a, r.b, 0.05f * r.a);
}

// The one-pass reducer of a 1920x1080 frame with the given arguments; the defaults are valid.
int reduce(const uint8_t* y, const uint8_t* vu, uint8_t* out, int yStride = 1920, int vuStride = 1920, int dw = 640,
           int dh = 360, uint8_t* small = nullptr, int top = 0, int rows = 0, int w = 1920, int h = 1080) {
  return KoFrameReducer::reduceNv21(y, yStride, vu, vuStride, w, h, out, dw, dh, small, top, rows);
}

// Every kernel refuses null pointers and impossible sizes, strides and ratios without writing.
TEST(FrameKernelArguments, RefusedWithoutWriting) {
  using M = DexFrameMetaData;
  std::vector<uint8_t> src(1920 * 1080 * 3 / 2, 7), dst(1920 * 1088 * 2, 0xAB), dst2(32 * 32, 0xAB),
      small(320 * 180, 0xEE), img(64 * 64, 9);
  const std::vector<uint8_t> dst0 = dst, dst20 = dst2, small0 = small;
  std::vector<int16_t> gx(64 * 64, 1), gy(64 * 64, 1);
  std::vector<uint32_t> hist(32, 7);
  KO_dataStats_t l{1, 2, 3, 4, 5}, s = l, d = l;
  const KO_dataStats_t untouched = l;
  DexFrameMetaData::xyShift r{1, 2, 40, 3.0f, 4.0f};
  uint8_t* o = dst.data();
  uint8_t* o2 = dst2.data();
  uint8_t* sm = small.data();
  const uint8_t* y = src.data();
  const uint8_t* vu = src.data() + 1920 * 1080;
  const uint8_t* p = img.data();
  DexMotionDetection md(640, 360);
  DexMotionDetection::motionResult_t mr;
  std::memset(&mr, 0x5a, sizeof mr);
  const DexMotionDetection::motionResult_t mr0 = mr;
  KoFrameHist fiveFrames;
  for (uint32_t i = 0; i < 5; ++i) {
    sp<KoFrameData> f = kovane_test::makeFrame(500 + i, 9000000 + 50000 * i);
    fiveFrames.addFrameData(f);
  }
  KoFrameHistSnapshot snapshot(&fiveFrames);
  DexFocusExposure fe(35);
  int index = 2, id = 502, outside = 5;
  auto fused = [&](const uint8_t* cur, KO_dataStats_t* pl, KO_dataStats_t* pd, int w, int h, int bins, int16_t* pgy) {
    return M::calcSmallFrameStats(cur, p, w, h, pl, &s, pd, hist.data(), bins, gx.data(), pgy);
  };
  const int eNull = M::SCALE_ERR_NULL, eSize = M::SCALE_ERR_SIZE, eStride = M::SCALE_ERR_STRIDE,
            eRatio = M::SCALE_ERR_RATIO;
  const std::pair<int, int> calls[] = {  // {expected, result}
      // Fixed-ratio and one-pass reducers (3:2.25, not a multiple of 16, strides, small image rows
      // outside the band or missing, a width beyond the row buffers).
      {-1, M::downScaleLuma2x(nullptr, y, 64, 32, 32)}, {-1, M::downScaleLuma2x(o, nullptr, 64, 32, 32)},
      {-1, M::downScaleLuma2x(o, y, 64, 0, 32)}, {-1, M::downScaleLuma2x(o, y, 64, 32, -1)},
      {-1, M::downScaleLuma3x(o, y, 0, 16, 16)}, {-1, M::downScaleLuma3x(o, nullptr, 64, 16, 16)},
      {-1, M::downscaleLuma9to4(o, y, -4, 16, 64)}, {-1, M::downscaleLuma9to4(nullptr, y, 16, 16, 64)},
      {-1, M::decimateChroma2x(o, nullptr, y, 64, 16, 16, 1)}, {-1, M::decimateChroma2x(o, o2, y, 64, 16, 0, 1)},
      {-1, M::decimateChroma3x(o, o2, nullptr, 64, 8, 8, 0)}, {-1, M::decimateChroma3x(o, o2, y, -64, 8, 8, 0)},
      {-1, M::downscaleChroma9to4(nullptr, o2, y, 8, 8, 64)}, {-1, M::downscaleChroma9to4(o, o2, y, 8, 0, 64)},
      {-1, reduce(nullptr, vu, o)}, {-1, reduce(y, nullptr, o)}, {-1, reduce(y, vu, nullptr)},
      {-1, reduce(y, vu, o, 1920, 1920, 640, 480)}, {-1, reduce(y, vu, o, 1920, 1920, 632, 360)},
      {-1, reduce(y, vu, o, 1919)}, {-1, reduce(y, vu, o, 1920, 1000)},
      {-1, reduce(y, vu, o, 1920, 1920, 640, 360, sm, 1, 180)}, {-1, reduce(y, vu, o, 1920, 1920, 640, 360, sm)},
      {-1, reduce(y, vu, o, 1920, 1920, 2048, 16, nullptr, 0, 0, 6144, 48)},
      // Bilinear scalers and interleavers (a target stride of one byte per sample cannot hold V,U pairs).
      {eNull, M::lumaBiUpScaler3x(nullptr, o, 640, 1920, 1080, 1920)},
      {eNull, M::lumaBiUpScaler3x(y, nullptr, 640, 1920, 1080, 1920)},
      {eSize, M::lumaBiUpScaler3x(y, o, 640, 1921, 1080, 1921)},
      {eSize, M::lumaBiUpScaler3x(y, o, 640, 1920, 0, 1920)},
      {eStride, M::lumaBiUpScaler3x(y, o, 639, 1920, 1080, 1920)},
      {eStride, M::lumaBiUpScaler3x(y, o, 640, 1920, 1080, 1919)},
      {eSize, M::lumaBiUpScaler225x(y, o, 480, 640, 1441, 1080, 1441)},
      {eSize, M::lumaBiUpScaler225x(y, o, 479, 640, 1440, 1078, 1440)},
      {eRatio, M::lumaBiUpScaler225x(y, o, 480, 640, 1440, 360, 1440)},
      {eRatio, M::lumaBiUpScaler225x(y, o, 480, 640, 1440, 1088, 1440)},
      {eStride, M::lumaBiUpScaler225x(y, o, 480, -640, 1440, 1080, 1440)},
      {eSize, M::lumaBiScalerGeneric(y, o, 0, 480, 640, 1440, 1080, 1440)},
      {eSize, M::lumaBiScalerGeneric(y, o, 640, 480, 640, 1440, -2, 1440)},
      {eStride, M::lumaBiScalerGeneric(y, o, 640, 480, 600, 1440, 1080, 1440)},
      {eNull, M::chromaBiUpScaler3x(y, nullptr, o, 960, 540, 320, 1920)},
      {eStride, M::chromaBiUpScaler3x(y, y, o, 960, 540, 320, 960)},
      {eRatio, M::chromaBiUpScaler225x(y, y, o, 480, 720, 240, 320, 1440)},
      {eStride, M::chromaBiScalerGeneric(y, y, o, 320, 240, 721, 9, 320, 1441)},
      {eNull, M::chromaBiScalerGeneric(y, y, nullptr, 32, 24, 72, 54, 32, 144)},
      {eSize, M::chromaPlanerToSemi(y, y, o, 0, 10, 16, 32)},
      {eStride, M::chromaPlanerToSemi(y, y, o, 16, 10, 16, 31)},
      {eStride, M::chromaPlanerToSemi16Neon(y, y, o, 17, 10, 16, 34)},
      {eNull, M::chromaPlanerToSemi16Neon(nullptr, y, o, 16, 10, 16, 32)},
      // Statistics, histograms (bin counts 48, 512), Sobel, the fused step and the shift.
      {-1, M::calcMeanStddev(nullptr, &l, 10)}, {-1, M::calcMeanStddev(p, nullptr, 10)},
      {-1, M::calcMeanStddev(p, &l, 0)}, {-1, M::calcMFrameDiff(p, nullptr, &l, 10)},
      {-1, M::calcMFrameDiff(p, p, &l, -3)}, {-1, M::genHistogramPow2(nullptr, hist.data(), 8, 8, 8, 32)},
      {-1, M::genHistogramPow2(p, hist.data(), 0, 8, 8, 32)}, {-1, M::genHistogramPow2(p, hist.data(), 8, 8, 4, 32)},
      {-1, M::genHistogramPow2(p, hist.data(), 8, 8, 8, 48)}, {-1, M::genHistogramPow2(p, hist.data(), 8, 8, 8, 512)},
      {-1, M::calcSobelFrame(p, &l, 64, 64, 0, gx.data(), nullptr)},
      {-1, M::calcSobelFrame(p, &l, -1, 64, 0, gx.data(), gy.data())},
      {-1, M::calcSobel2DRegion(nullptr, l, 0, 0, 8, 8, 64, 0)}, {-1, M::calcSobel2DRegion(p, l, -1, 0, 8, 8, 64, 0)},
      {-1, M::calcSobel2DRegion(p, l, 0, 0, 8, 0, 64, 0)},
      {-1, M::KoCalcMeanStddevMinMeanQueue(nullptr, &l, 5, 0, 0)},
      {-1, fused(nullptr, &l, &d, 64, 64, 32, gy.data())}, {-1, fused(p, nullptr, &d, 64, 64, 32, gy.data())},
      {-1, fused(p, &l, nullptr, 64, 64, 32, gy.data())}, {-1, fused(p, &l, &d, 64, 64, 32, nullptr)},
      {-1, fused(p, &l, &d, 0, 64, 32, gy.data())}, {-1, fused(p, &l, &d, 64, -1, 32, gy.data())},
      {-1, fused(p, &l, &d, 64, 64, 48, gy.data())}, {-1, fused(p, &l, &d, 64, 64, 0, gy.data())},
      {-1, M::calculateShift(p, nullptr, 64, 64, p, p, 32, 32, &r)},
      {-1, M::calculateShift(p, p, 64, 64, p, p, 32, 32, nullptr)},
      {-1, M::calculateShift(p, p, 0, 64, p, p, 32, 32, &r)}, {-1, M::calculateShift(p, p, 64, 64, p, p, 32, -2, &r)},
      // Block motion (a reference larger than configured; with one stored, a stride below the width).
      {-1, md.copyNewRefFrame(nullptr, 640, 360, 640)}, {-1, md.copyNewRefFrame(y, 0, 360, 640)},
      {-1, md.copyNewRefFrame(y, 640, -1, 640)}, {-1, md.copyNewRefFrame(y, 641, 360, 641)},
      {0, md.copyNewRefFrame(y, 640, 360, 640)},
      {-1, md.processMEPerFrame(nullptr, nullptr, nullptr, nullptr, nullptr, 640, &mr)},
      {-1, md.processMEPerFrame(y, nullptr, nullptr, nullptr, nullptr, 320, &mr)},
      {-1, md.processMEPerFrame(y, nullptr, nullptr, nullptr, nullptr, 640, nullptr)},
      // The focus/exposure choice (a captured index outside the five frames).
      {-1, fe.findBestFocusExpKO(nullptr, 5, &index, &id, 0, l, l, l)},
      {-1, fe.findBestFocusExpKO(&snapshot, 5, nullptr, &id, 0, l, l, l)},
      {-1, fe.findBestFocusExpKO(&snapshot, 0, &index, &id, 0, l, l, l)},
      {-1, fe.findBestFocusExpKO(&snapshot, 5, &outside, &id, 0, l, l, l)}};
  for (size_t i = 0; i < std::size(calls); ++i) EXPECT_EQ(calls[i].first, calls[i].second) << "call " << i;
  EXPECT_TRUE(dst == dst0);
  EXPECT_TRUE(dst2 == dst20);
  EXPECT_TRUE(small == small0);
  for (const KO_dataStats_t* st : {&l, &s, &d}) EXPECT_EQ(0, std::memcmp(st, &untouched, sizeof untouched));
  EXPECT_EQ(std::vector<uint32_t>(32, 7), hist);
  EXPECT_EQ(std::vector<int16_t>(64 * 64, 1), gx);
  EXPECT_EQ(1, r.dx);
  EXPECT_EQ(4.0f, r.b);
  EXPECT_EQ(0, std::memcmp(&mr0, &mr, sizeof mr));
  EXPECT_TRUE(index == 2 && outside == 5 && id == 502);
  int h[4] = {1, 2, 3, 4};
  EXPECT_FLOAT_EQ(1.0f, M::calcBhattacharyyaCoeff(nullptr, h, 4));
  EXPECT_FLOAT_EQ(1.0f, M::calcBhattacharyyaCoeff(h, h, 0));

  // A flat image: no spread, no gradient, no difference to itself; every pixel in one bin.
  ASSERT_EQ(0, fused(p, &l, &d, 64, 64, 32, gy.data()));
  EXPECT_TRUE(l.mean == 9.0f && l.stddev == 0.0f && s.max == 0.0f && d.max == 0.0f);
  EXPECT_EQ(64u * 64u, hist[1]);
}

constexpr int64_t kFrameUs = 33333;

// Feeds `frames` frames starting at t0 (microseconds); every frame carries one new gyroscope
// sample gyro(t seconds) and an accelerometer sample, the sensor stamps in nanoseconds.
template <typename F>
void feed(DexCameraMotion& cm, int64_t t0, int frames, F gyro) {
  for (int i = 0; i < frames; ++i) {
    const int64_t tsUs = t0 + i * kFrameUs;
    KO_sensorData_t s{};
    float g[3];
    gyro(tsUs / 1e6, g);
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

TEST(CameraMotion, ClassifiesStillPanAndShakeAndRefusesBadArguments) {
  const int64_t t0 = 5000000, end = t0 + 59 * kFrameUs;
  DexCameraMotion still, pan, shake;
  feed(still, t0, 60, [](double t, float* g) { g[0] = static_cast<float>(0.004 * std::sin(31 * t)), g[1] = g[2] = 0; });
  feed(pan, t0, 60, [](double t, float* g) {  // slow pan about y, 0.2 rad/s, a little wobble
    g[0] = 0.02f * static_cast<float>(std::sin(20 * t)), g[1] = 0.2f, g[2] = 0.0f;
  });
  feed(shake, t0, 60, [](double t, float* g) {  // 5 Hz shake, 2 rad/s
    g[0] = 2.0f * static_cast<float>(std::sin(10 * M_PI * t + 0.3));
    g[1] = static_cast<float>(std::cos(10 * M_PI * t)), g[2] = 0.0f;
  });
  const KO_camMotionType_t s = classify(still, t0, end), p = classify(pan, t0, end), k = classify(shake, t0, end);
  EXPECT_EQ(DexCameraMotion::MODE_STEADY, s.mode);
  EXPECT_EQ(59, s.numSamples);  // sensor stamps lead the frames by 2 ms: the first is outside
  EXPECT_LT(s.gyroMax, 0.01f);
  EXPECT_GT(s.accelVariance, 0.0f);
  EXPECT_EQ(DexCameraMotion::MODE_PANNING, p.mode);
  EXPECT_NEAR(0.2f, p.gyroMean, 0.02f);
  EXPECT_EQ(DexCameraMotion::MODE_SHAKING, k.mode);
  EXPECT_GE(k.gyroMax, 1.5f);
  // The per-frame query (start == end) looks at the last 100 ms; after all samples, at the newest.
  const KO_camMotionType_t f = classify(pan, end, end);
  EXPECT_TRUE(f.mode == DexCameraMotion::MODE_PANNING && f.numSamples >= 3 && f.numSamples <= 4) << f.numSamples;
  EXPECT_EQ(1, classify(shake, end + 10000000, end + 10000000).numSamples);

  // No data: unknown; disabled sensors and empty samples are not taken; bad arguments refused.
  DexCameraMotion cm;
  KO_sensorData_t off{};
  off.gyro = {1000000, 1.0f, 0.0f, 0.0f};
  ASSERT_EQ(0, cm.readSensorData(1000, 1, off));
  const KO_camMotionType_t none = classify(cm, 0, 1000);
  EXPECT_EQ(DexCameraMotion::MODE_UNKNOWN, none.mode);
  EXPECT_EQ(0, none.numSamples);
  EXPECT_EQ(0.0f, none.gyroMax);
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
        cur.px[static_cast<size_t>(y) * 640 + x] = bigFrame().at(160 - sx + x - mx, 90 - sy + y - my);
  }
  return cur;
}

// Every kernel set gives the same result to the bit, estimating each view against the one before
// as the engine does: hand-held frames, exposure steps, a translation, a region moving on its own,
// and the same views with a row stride above their width.
TEST(BlockMotion, AllKernelSetsGiveIdenticalResults) {
  struct KernelsRestorer {
    ~KernelsRestorer() { DexMotionDetection::setKernels(DexMotionDetection::KERNELS_FASTEST); }
  } restore;
  auto view = [](const char* f) { return kocore_test::analysisView(std::string("cockatoo_f") + f + "_1280x720.nv21"); };
  const Plane f5 = view("005"), f6 = view("006"), f100 = view("100"), f101 = view("101");
  const Plane ref = kocore_test::crop(bigFrame(), 160, 90, 640, 360);
  // A sequence of views, each estimated against the one before.
  const std::vector<Plane> views = {
      f5, f6, kocore_test::contrast(f6, 0.8, 0), f5, f100, f101,
      kocore_test::contrast(f101, 1.25, 0), kocore_test::contrast(f100, 1.0, -25), view("155"), view("160"),
      ref, currentView(5, -3), currentView(5, -3, 320, 180, -10, 8),
      kocore_test::contrast(currentView(-7, 4, 100, 80, 9, -6), 0.8, 12), ref};
  for (const Plane& v : views) ASSERT_EQ(640u * 360u, v.px.size()) << "a missing picture";
  // The same views cut to 600x330 and kept with a row stride of 640.
  auto cut = [](const Plane& p) {
    Plane o = p;
    for (int y = 0; y < 330; ++y) std::fill_n(&o.px[static_cast<size_t>(y) * 640 + 600], 40, 0xee);
    return o;
  };
  auto runAll = [&](DexMotionDetection::KernelSet set) {
    DexMotionDetection::setKernels(set);
    std::vector<Result> out;
    for (int w : {640, 600}) {
      DexMotionDetection md(640, 360);
      for (const Plane& v : views) {
        const Plane p = w == 640 ? v : cut(v);
        Result r;
        std::memset(&r, 0x5a, sizeof r);
        EXPECT_EQ(0, md.processMEPerFrame(p.data(), nullptr, nullptr, nullptr, nullptr, 640, &r));
        EXPECT_EQ(0, md.copyNewRefFrame(p.data(), w, w == 640 ? 360 : 330, 640));
        out.push_back(r);
      }
    }
    return out;
  };
  const std::vector<Result> portable = runAll(DexMotionDetection::KERNELS_PORTABLE);
  const std::vector<Result> vector = runAll(DexMotionDetection::KERNELS_VECTOR);
  const std::vector<Result> fastest = runAll(DexMotionDetection::KERNELS_FASTEST);
  ASSERT_EQ(portable.size(), 2 * views.size());
  ASSERT_TRUE(vector.size() == portable.size() && fastest.size() == portable.size());
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
  EXPECT_EQ(0, portable[0].numBlocks);  // no reference yet
  EXPECT_EQ(0.0f, portable[0].frmMotionScoreNorm);
  EXPECT_EQ(0.0f, portable[0].globalDx);
  // The camera translation is found and is no subject motion; a central region moving on its
  // own raises the subject score, most in the centre.
  const Result& still = portable[11];  // ref -> currentView(5, -3)
  const Result& moving = portable[12];
  EXPECT_NEAR(5.0f, still.globalDx, 0.5f);
  EXPECT_NEAR(-3.0f, still.globalDy, 0.5f);
  EXPECT_NEAR(std::hypot(5.0, 3.0), still.vecMagMean, 0.5);
  EXPECT_LT(still.frmMotionScoreNorm, 0.03f);
  EXPECT_LT(still.ctrFrmMotionScoreNorm, 0.03f);
  EXPECT_GT(moving.frmMotionScoreNorm, still.frmMotionScoreNorm + 0.02f);
  EXPECT_GT(moving.ctrFrmMotionScoreNorm, 0.2f);
  EXPECT_GT(moving.ctrFrmMotionScoreNorm, moving.frmMotionScoreNorm);
}

// Subject motion around the capture is kept (more scores higher) unless the sensors, the frames' own
// classes or a large common shift in the picture say the camera pans.
// Both estimators normalise for exposure: a gain or offset step between two copies of a real
// frame is neither a shift nor motion, and a shift or a moving region under a step is still found.
TEST(ExposureSteps, AreNoShiftAndNoMotionAndWhatMovesUnderThemIsStillFound) {
  const struct { double gain, offset; } steps[] = {{0.8, 0}, {1.25, 0}, {1.0, 20}, {1.0, -25}, {0.8, 12}};
  auto motion = [](const Plane& ref, const Plane& cur) {
    DexMotionDetection md(640, 360);
    EXPECT_EQ(0, md.copyNewRefFrame(ref.data(), 640, 360, 640));
    Result r{};
    EXPECT_EQ(0, md.processMEPerFrame(cur.data(), nullptr, nullptr, nullptr, nullptr, 640, &r));
    return r;
  };
  const Plane ref = kocore_test::crop(bigFrame(), 160, 90, 640, 360);
  const Plane still = currentView(5, -3), moving = currentView(5, -3, 320, 180, -10, 8);
  for (const char* name : {"cockatoo_f005_1280x720.nv21", "cockatoo_f100_1280x720.nv21", "solvay_1920x1080.nv21"}) {
    const Plane view = kocore_test::analysisView(name);
    ASSERT_EQ(640u * 360u, view.px.size()) << "a missing picture";
    for (const auto& st : steps) {
      SCOPED_TRACE(std::string(name) + " gain " + std::to_string(st.gain) + " offset " + std::to_string(st.offset));
      const Plane stepped = kocore_test::contrast(view, st.gain, st.offset);
      const DexFrameMetaData::xyShift sh = shiftOf(view, stepped);
      EXPECT_EQ(0, sh.dx);
      EXPECT_EQ(0, sh.dy);
      EXPECT_LT(sh.a, 5.0f);  // only what clipping destroyed remains
      const Result r = motion(view, stepped);
      EXPECT_GT(r.numBlocks, 50);
      EXPECT_EQ(0.0f, r.globalDx);
      EXPECT_EQ(0.0f, r.globalDy);
      EXPECT_LT(r.frmMotionScoreNorm, 0.05f);
      if (name[0] != 's') continue;
      const Result s = motion(ref, kocore_test::contrast(still, st.gain, st.offset));
      const Result m = motion(ref, kocore_test::contrast(moving, st.gain, st.offset));
      EXPECT_NEAR(5.0f, s.globalDx, 0.5f);
      EXPECT_NEAR(-3.0f, s.globalDy, 0.5f);
      EXPECT_LT(s.frmMotionScoreNorm, 0.03f);
      EXPECT_GT(m.ctrFrmMotionScoreNorm, 0.2f);
    }
  }
  // A step whose matching table has no fixed-point form (the vector paths fall back to the table).
  const Result r = motion(ref, kocore_test::contrast(ref, 1.63, 0));
  EXPECT_GT(r.numBlocks, 50);
  EXPECT_EQ(0.0f, r.globalDx);
  EXPECT_EQ(0.0f, r.globalDy);
  EXPECT_LT(r.frmMotionScoreNorm, 0.05f);
}

TEST(MotionDecision, SubjectMotionIsKeptAPanIsNot) {
  auto decide = [](float subject, float shift = 0, int mode = DexCameraMotion::MODE_STEADY, float gyroMean = 0.01f,
                   bool classedPanning = false) {
    KoFrameHist hist;
    for (uint32_t i = 0; i < 12; ++i) {
      sp<KoFrameData> f = kovane_test::makeFrame(500 + i, 9000000 + 40000 * i);
      DexMotionDetection::motionResult_t r{};
      r.numBlocks = 300;
      r.globalDx = shift;
      r.frmMotionScoreNorm = subject;
      std::memcpy(f->mMotionResult, &r, sizeof r);
      f->setProcessedEvents(KoFrameData::EVENT_MOTION);
      if (classedPanning) {
        f->mCamMotion[3] = DexCameraMotion::MODE_PANNING;
        f->setProcessedEvents(KoFrameData::EVENT_CAM_MOTION);
      }
      hist.addFrameData(f);
    }
    KoFrameHistSnapshot snapshot(&hist);
    Vector<KO_camMotionType_t> cam;
    KO_camMotionType_t t{};
    t.numSamples = 20, t.mode = mode, t.gyroMean = gyroMean, t.gyroMax = 2 * gyroMean;
    cam.push(t);
    DexMotionDetection md(640, 360);
    EXPECT_EQ(0.0f, md.KoMotionDecision(&snapshot, cam, 12, 12)) << "capture outside the snapshot";
    return md.KoMotionDecision(&snapshot, cam, 12, 6);
  };
  const float kept = decide(0.12f);
  EXPECT_GT(kept, 0.0f);
  EXPECT_LT(kept, decide(0.24f));
  EXPECT_LE(decide(0.9f), 1.0f);
  EXPECT_EQ(0.0f, decide(0.01f)) << "next to no subject motion";
  EXPECT_EQ(0.0f, decide(0.12f, 0, DexCameraMotion::MODE_PANNING));
  EXPECT_EQ(0.0f, decide(0.12f, 0, DexCameraMotion::MODE_JITTER, 0.8f));
  EXPECT_EQ(kept, decide(0.12f, 0, DexCameraMotion::MODE_JITTER, 0.2f));
  EXPECT_EQ(0.0f, decide(0.12f, 0, DexCameraMotion::MODE_STEADY, 0.01f, true));
  EXPECT_EQ(0.0f, decide(0.12f, 10.0f));
  EXPECT_EQ(kept, decide(0.12f, 3.0f)) << "a little camera shake is no pan";
  // Frames with statistics but no motion estimates: the frame difference decides.
  auto byDifference = [](float diffMean) {
    KoFrameHist hist;
    for (uint32_t i = 0; i < 12; ++i) {
      sp<KoFrameData> f = kovane_test::makeFrame(700 + i, 9000000 + 40000 * i);
      f->mDiffStats.mean = diffMean;
      f->setProcessedEvents(KoFrameData::EVENT_STATS);
      hist.addFrameData(f);
    }
    KoFrameHistSnapshot snapshot(&hist);
    Vector<KO_camMotionType_t> cam;
    return DexMotionDetection(640, 360).KoMotionDecision(&snapshot, cam, 12, 6);
  };
  EXPECT_EQ(0.0f, byDifference(0.01f));
  EXPECT_GT(byDifference(20.0f), 0.0f);
}

}  // namespace
}  // namespace android
