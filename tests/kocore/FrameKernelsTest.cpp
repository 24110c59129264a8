// The frame kernels on real pictures: the fixed-ratio reducers against a plain area average and
// the one-pass reducer against them (every set of row kernels); the bilinear upscalers against
// exact interpolation, the chroma interleaving against libyuv; statistics, Sobel, histogram,
// shift and histogram-distance kernels.
#include <gtest/gtest.h>
#include <libyuv.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "DexFrameMetaData.h"
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
  const double fx = static_cast<double>(srcW) / dstW;
  const double fy = static_cast<double>(srcH) / dstH;
  auto weights = [](double a, double b, int i) {
    const double lo = std::max(a, static_cast<double>(i));
    const double hi = std::min(b, static_cast<double>(i + 1));
    return hi > lo ? hi - lo : 0.0;
  };
  for (int y = 0; y < dstH; ++y) {
    const double y0 = y * fy, y1 = (y + 1) * fy;
    for (int x = 0; x < dstW; ++x) {
      const double x0 = x * fx, x1 = (x + 1) * fx;
      double sum = 0, wsum = 0;
      for (int sy = static_cast<int>(y0); sy < static_cast<int>(std::ceil(y1)); ++sy) {
        const double wy = weights(y0, y1, sy);
        for (int sx = static_cast<int>(x0); sx < static_cast<int>(std::ceil(x1)); ++sx) {
          const double w = wy * weights(x0, x1, sx);
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

// The fixed-ratio reducers of real frames (3x, 2x, 9:4; padded rows, and widths whose rows end
// in the narrower tails of the vector kernels): every plane within one level of the area
// average, U and V not swapped (the bird is in colour), for the 2x and 3x chroma reducers flag 0
// (U,V pairs) giving the same planes from the pairs swapped; and the one-pass reducer, with every
// set of row kernels (portable, 128-bit vectors, the widest the CPU has), equal to them.
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
#if defined(__x86_64__) || defined(__ARM_NEON)
  EXPECT_STRNE("c", R::rowKernels());
#if defined(__ARM_NEON)
  const char* vector = "neon";
#else
  const char* vector = "ssse3";
#endif
  R::setKernels(R::KERNELS_VECTOR);
  EXPECT_STREQ(vector, R::rowKernels());
  R::setKernels(R::KERNELS_FASTEST);
#endif
#if defined(__x86_64__)
  __builtin_cpu_init();
  if (__builtin_cpu_supports("avx2")) {
    EXPECT_STREQ("avx2", R::rowKernels());
  }
#endif
}

TEST(Reducers, RejectNullAndBadSizesWithoutWriting) {
  std::vector<uint8_t> src(1920 * 1080 * 3 / 2, 7), dst(640 * 480 * 3 / 2, 0xAB), dst2(32 * 32, 0xAB),
      small(320 * 180, 0xEE);
  const std::vector<uint8_t> dst0 = dst, dst20 = dst2, small0 = small;
  using M = DexFrameMetaData;
  using R = KoFrameReducer;
  uint8_t* d = dst.data();
  const uint8_t* y = src.data();
  const uint8_t* vu = src.data() + 1920 * 1080;
  EXPECT_EQ(-1, M::downScaleLuma2x(nullptr, y, 64, 32, 32));
  EXPECT_EQ(-1, M::downScaleLuma2x(d, nullptr, 64, 32, 32));
  EXPECT_EQ(-1, M::downScaleLuma2x(d, y, 64, 0, 32));
  EXPECT_EQ(-1, M::downScaleLuma2x(d, y, 64, 32, -1));
  EXPECT_EQ(-1, M::downScaleLuma3x(d, y, 0, 16, 16));
  EXPECT_EQ(-1, M::downScaleLuma3x(d, nullptr, 64, 16, 16));
  EXPECT_EQ(-1, M::downscaleLuma9to4(d, y, -4, 16, 64));
  EXPECT_EQ(-1, M::downscaleLuma9to4(nullptr, y, 16, 16, 64));
  EXPECT_EQ(-1, M::decimateChroma2x(d, nullptr, y, 64, 16, 16, 1));
  EXPECT_EQ(-1, M::decimateChroma2x(d, dst2.data(), y, 64, 16, 0, 1));
  EXPECT_EQ(-1, M::decimateChroma3x(d, dst2.data(), nullptr, 64, 8, 8, 0));
  EXPECT_EQ(-1, M::decimateChroma3x(d, dst2.data(), y, -64, 8, 8, 0));
  EXPECT_EQ(-1, M::downscaleChroma9to4(nullptr, dst2.data(), y, 8, 8, 64));
  EXPECT_EQ(-1, M::downscaleChroma9to4(d, dst2.data(), y, 8, 0, 64));
  EXPECT_EQ(-1, R::reduceNv21(nullptr, 1920, vu, 1920, 1920, 1080, d, 640, 360, nullptr, 0, 0));
  EXPECT_EQ(-1, R::reduceNv21(y, 1920, nullptr, 1920, 1920, 1080, d, 640, 360, nullptr, 0, 0));
  EXPECT_EQ(-1, R::reduceNv21(y, 1920, vu, 1920, 1920, 1080, nullptr, 640, 360, nullptr, 0, 0));
  EXPECT_EQ(-1, R::reduceNv21(y, 1920, vu, 1920, 1920, 1080, d, 640, 480, nullptr, 0, 0));  // 3:2.25
  EXPECT_EQ(-1, R::reduceNv21(y, 1920, vu, 1920, 1920, 1080, d, 632, 360, nullptr, 0, 0));  // not /16
  EXPECT_EQ(-1, R::reduceNv21(y, 1919, vu, 1920, 1920, 1080, d, 640, 360, nullptr, 0, 0));
  EXPECT_EQ(-1, R::reduceNv21(y, 1920, vu, 1000, 1920, 1080, d, 640, 360, nullptr, 0, 0));
  EXPECT_EQ(-1, R::reduceNv21(y, 1920, vu, 1920, 1920, 1080, d, 640, 360, small.data(), 1, 180));
  EXPECT_EQ(-1, R::reduceNv21(y, 1920, vu, 1920, 1920, 1080, d, 640, 360, small.data(), 0, 0));
  EXPECT_EQ(-1, R::reduceNv21(y, 1920, vu, 1920, 3 * 2048, 3 * 16, d, 2048, 16, nullptr, 0, 0));
  EXPECT_TRUE(dst == dst0);
  EXPECT_TRUE(dst2 == dst20);
  EXPECT_TRUE(small == small0);
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
    int y0, y1;
    double fy;
    axis(y, s.h, dh, &y0, &y1, &fy);
    for (int x = 0; x < dw; ++x) {
      int x0, x1;
      double fx;
      axis(x, s.w, dw, &x0, &x1, &fx);
      const double top = (1 - fx) * s.at(x0, y0) + fx * s.at(x1, y0);
      const double bottom = (1 - fx) * s.at(x0, y1) + fx * s.at(x1, y1);
      out[static_cast<size_t>(y) * dw + x] = (1 - fy) * top + fy * bottom;
    }
  }
  return out;
}

struct Deviation {
  double max = 0;
  double mean = 0;
};

// Deviation of every `step`-th byte of a dw x dh target (row stride `stride`) from `ref`.
Deviation deviation(const uint8_t* out, int stride, int step, const std::vector<double>& ref,
                    int dw, int dh) {
  Deviation d;
  for (int y = 0; y < dh; ++y) {
    for (int x = 0; x < dw; ++x) {
      const double e = std::abs(out[static_cast<size_t>(y) * stride + x * step] -
                                ref[static_cast<size_t>(y) * dw + x]);
      d.max = std::max(d.max, e);
      d.mean += e;
    }
  }
  d.mean /= static_cast<double>(dw) * dh;
  return d;
}

enum Kernel { k3x, k225x, kGeneric };

// Runs one luma kernel; tight strides unless given.
int scaleLuma(Kernel k, const Plane& s, uint8_t* dst, int dw, int dh, int srcStride = 0,
              const uint8_t* src = nullptr, int dstStride = 0) {
  if (src == nullptr) src = s.data();
  if (srcStride == 0) srcStride = s.w;
  if (dstStride == 0) dstStride = dw;
  using D = DexFrameMetaData;
  return k == k3x     ? D::lumaBiUpScaler3x(src, dst, srcStride, dw, dh, dstStride)
         : k == k225x ? D::lumaBiUpScaler225x(src, dst, s.h, srcStride, dw, dh, dstStride)
                      : D::lumaBiScalerGeneric(src, dst, s.w, s.h, srcStride, dw, dh, dstStride);
}

// Runs one chroma kernel on planes u and v (same size) into V,U pairs.
int scaleChroma(Kernel k, const Plane& u, const Plane& v, uint8_t* dst, int dw, int dh,
                int srcStride = 0, const uint8_t* srcU = nullptr, const uint8_t* srcV = nullptr,
                int dstStride = 0) {
  if (srcU == nullptr) srcU = u.data();
  if (srcV == nullptr) srcV = v.data();
  if (srcStride == 0) srcStride = u.w;
  if (dstStride == 0) dstStride = 2 * dw;
  using D = DexFrameMetaData;
  return k == k3x     ? D::chromaBiUpScaler3x(srcU, srcV, dst, dw, dh, srcStride, dstStride)
         : k == k225x ? D::chromaBiUpScaler225x(srcU, srcV, dst, u.h, dw, dh, srcStride, dstStride)
                      : D::chromaBiScalerGeneric(srcU, srcV, dst, u.w, u.h, dw, dh, srcStride, dstStride);
}

struct Case {
  Kernel kernel;
  int sw, sh, dw, dh;
};

std::string describe(const Case& c) {
  static const char* kNames[] = {"3x", "2.25x", "generic"};
  return std::string(kNames[c.kernel]) + " " + std::to_string(c.sw) + "x" + std::to_string(c.sh) +
         " -> " + std::to_string(c.dw) + "x" + std::to_string(c.dh);
}

// The engine's two ratios at full size, odd and tiny sizes (edge groups, single samples), and
// the generic kernel on non-integer ratios both ways.
const Case kCases[] = {
    {k3x, 640, 360, 1920, 1080},      {k225x, 640, 480, 1440, 1080},    {kGeneric, 640, 360, 1920, 1088},
    {kGeneric, 640, 360, 1920, 1080}, {kGeneric, 640, 480, 1440, 1080}, {kGeneric, 641, 361, 1001, 563},
    {kGeneric, 640, 480, 301, 211},   {kGeneric, 37, 1, 200, 7},        {kGeneric, 1, 1, 5, 3},
    {k3x, 1, 1, 3, 3},                {k3x, 2, 5, 6, 15},               {k225x, 4, 4, 9, 9},
    {k225x, 8, 12, 18, 27},           {k225x, 12, 8, 27, 18},
};

// The fixed-ratio kernels round the exact interpolation (2.25x: to within 0.02 before
// rounding); the generic kernel's 1/256 weights add less than one grey level. The contract
// is +/-2 with a mean of at most 0.5.
double maxDeviationOf(Kernel k) { return k == kGeneric ? 1.5 : (k == k3x ? 0.5 : 0.53); }

// Per case: the kernels against exact interpolation; the same output from rows padded with bytes
// that would show if read into target rows padded with a sentinel that must stay; flat pictures
// (including the extremes) exactly flat.
TEST(BilinearScale, KernelsFollowExactInterpolationKeepToTheirRowsAndKeepFlatPicturesFlat) {
  constexpr int kPad = 13;
  constexpr uint8_t kSentinel = 0xA5;
  const Plane bird = realPlane("cockatoo_f005_1280x720.nv21", 641, 480);
  const Plane group = realPlane("solvay_1920x1080.nv21", 641, 480);
  ASSERT_FALSE(bird.px.empty());
  ASSERT_FALSE(group.px.empty());
  for (const Case& c : kCases) {
    SCOPED_TRACE(describe(c));
    // Luma from the bird; chroma U from the bird and V from the group photo, so that swapped
    // planes show.
    const Plane s = kocore_test::crop(bird, 0, 0, c.sw, c.sh);
    const Plane v = kocore_test::crop(group, 0, 0, c.sw, c.sh);
    const std::vector<double> refY = exactBilinear(s, c.dw, c.dh);
    const std::vector<double> refV = exactBilinear(v, c.dw, c.dh);
    const size_t n = static_cast<size_t>(c.dw) * c.dh;
    std::vector<uint8_t> luma(n), vu(2 * n);
    ASSERT_EQ(DexFrameMetaData::SCALE_OK, scaleLuma(c.kernel, s, luma.data(), c.dw, c.dh));
    ASSERT_EQ(DexFrameMetaData::SCALE_OK, scaleChroma(c.kernel, s, v, vu.data(), c.dw, c.dh));
    for (const auto& [name, d] :
         {std::make_pair("luma", deviation(luma.data(), c.dw, 1, refY, c.dw, c.dh)),
          std::make_pair("V", deviation(vu.data(), 2 * c.dw, 2, refV, c.dw, c.dh)),
          std::make_pair("U", deviation(vu.data() + 1, 2 * c.dw, 2, refY, c.dw, c.dh))}) {
      EXPECT_LE(d.max, maxDeviationOf(c.kernel) + 1e-9) << name;
      EXPECT_LE(d.mean, 0.4) << name;
    }

    const int ss = c.sw + kPad;
    std::vector<uint8_t> paddedU(static_cast<size_t>(ss) * c.sh, 255), paddedV(paddedU.size(), 0);
    for (int y = 0; y < c.sh; ++y) {
      std::copy_n(&s.px[static_cast<size_t>(y) * c.sw], c.sw, &paddedU[static_cast<size_t>(y) * ss]);
      std::copy_n(&v.px[static_cast<size_t>(y) * c.sw], c.sw, &paddedV[static_cast<size_t>(y) * ss]);
    }
    for (int bytes : {1, 2}) {
      const int rowBytes = bytes * c.dw, ds = rowBytes + kPad;
      std::vector<uint8_t> out(static_cast<size_t>(ds) * c.dh, kSentinel);
      ASSERT_EQ(0, bytes == 1 ? scaleLuma(c.kernel, s, out.data(), c.dw, c.dh, ss, paddedU.data(), ds)
                              : scaleChroma(c.kernel, s, v, out.data(), c.dw, c.dh, ss, paddedU.data(),
                                            paddedV.data(), ds));
      const std::vector<uint8_t>& expected = bytes == 1 ? luma : vu;
      for (int y = 0; y < c.dh; ++y) {
        const uint8_t* row = &out[static_cast<size_t>(y) * ds];
        ASSERT_TRUE(std::equal(row, row + rowBytes, &expected[static_cast<size_t>(y) * rowBytes]))
            << "row " << y << " of a " << bytes << "-byte target";
        ASSERT_EQ(kPad, std::count(row + rowBytes, row + ds, kSentinel)) << "row " << y;
      }
    }

    for (int level : {0, 1, 127, 254, 255}) {
      Plane flat = s;
      std::fill(flat.px.begin(), flat.px.end(), static_cast<uint8_t>(level));
      std::fill(luma.begin(), luma.end(), 77);
      std::fill(vu.begin(), vu.end(), 77);
      ASSERT_EQ(0, scaleLuma(c.kernel, flat, luma.data(), c.dw, c.dh));
      ASSERT_EQ(0, scaleChroma(c.kernel, flat, flat, vu.data(), c.dw, c.dh));
      EXPECT_EQ(n, static_cast<size_t>(std::count(luma.begin(), luma.end(), level))) << level;
      EXPECT_EQ(2 * n, static_cast<size_t>(std::count(vu.begin(), vu.end(), level))) << level;
    }
  }
}

TEST(BilinearScale, BadInputIsRefusedWithoutWriting) {
  using D = DexFrameMetaData;
  std::vector<uint8_t> src(640 * 480, 100), dst(1920 * 1088 * 2, 7);
  const uint8_t* s = src.data();
  uint8_t* d = dst.data();
  EXPECT_EQ(D::SCALE_ERR_NULL, D::lumaBiUpScaler3x(nullptr, d, 640, 1920, 1080, 1920));
  EXPECT_EQ(D::SCALE_ERR_NULL, D::lumaBiUpScaler3x(s, nullptr, 640, 1920, 1080, 1920));
  EXPECT_EQ(D::SCALE_ERR_SIZE, D::lumaBiUpScaler3x(s, d, 640, 1921, 1080, 1921));
  EXPECT_EQ(D::SCALE_ERR_SIZE, D::lumaBiUpScaler3x(s, d, 640, 1920, 0, 1920));
  EXPECT_EQ(D::SCALE_ERR_STRIDE, D::lumaBiUpScaler3x(s, d, 639, 1920, 1080, 1920));
  EXPECT_EQ(D::SCALE_ERR_STRIDE, D::lumaBiUpScaler3x(s, d, 640, 1920, 1080, 1919));
  EXPECT_EQ(D::SCALE_ERR_SIZE, D::lumaBiUpScaler225x(s, d, 480, 640, 1441, 1080, 1441));
  EXPECT_EQ(D::SCALE_ERR_SIZE, D::lumaBiUpScaler225x(s, d, 479, 640, 1440, 1078, 1440));
  EXPECT_EQ(D::SCALE_ERR_RATIO, D::lumaBiUpScaler225x(s, d, 480, 640, 1440, 360, 1440));
  EXPECT_EQ(D::SCALE_ERR_RATIO, D::lumaBiUpScaler225x(s, d, 480, 640, 1440, 1088, 1440));
  EXPECT_EQ(D::SCALE_ERR_STRIDE, D::lumaBiUpScaler225x(s, d, 480, -640, 1440, 1080, 1440));
  EXPECT_EQ(D::SCALE_ERR_SIZE, D::lumaBiScalerGeneric(s, d, 0, 480, 640, 1440, 1080, 1440));
  EXPECT_EQ(D::SCALE_ERR_SIZE, D::lumaBiScalerGeneric(s, d, 640, 480, 640, 1440, -2, 1440));
  EXPECT_EQ(D::SCALE_ERR_STRIDE, D::lumaBiScalerGeneric(s, d, 640, 480, 600, 1440, 1080, 1440));
  EXPECT_EQ(D::SCALE_ERR_NULL, D::chromaBiUpScaler3x(s, nullptr, d, 960, 540, 320, 1920));
  // A target stride of one byte per sample cannot hold V,U pairs.
  EXPECT_EQ(D::SCALE_ERR_STRIDE, D::chromaBiUpScaler3x(s, s, d, 960, 540, 320, 960));
  EXPECT_EQ(D::SCALE_ERR_RATIO, D::chromaBiUpScaler225x(s, s, d, 480, 720, 240, 320, 1440));
  EXPECT_EQ(D::SCALE_ERR_STRIDE, D::chromaBiScalerGeneric(s, s, d, 320, 240, 721, 9, 320, 1441));
  EXPECT_EQ(D::SCALE_ERR_NULL, D::chromaBiScalerGeneric(s, s, nullptr, 32, 24, 72, 54, 32, 144));
  EXPECT_EQ(D::SCALE_ERR_SIZE, D::chromaPlanerToSemi(s, s, d, 0, 10, 16, 32));
  EXPECT_EQ(D::SCALE_ERR_STRIDE, D::chromaPlanerToSemi(s, s, d, 16, 10, 16, 31));
  EXPECT_EQ(D::SCALE_ERR_STRIDE, D::chromaPlanerToSemi16Neon(s, s, d, 17, 10, 16, 34));
  EXPECT_EQ(D::SCALE_ERR_NULL, D::chromaPlanerToSemi16Neon(nullptr, s, d, 16, 10, 16, 32));
  EXPECT_EQ(dst.size(), static_cast<size_t>(std::count(dst.begin(), dst.end(), 7)));
}

// Both interleavers (the 16-at-a-time one runs on SIMD registers where built for them) against
// libyuv's MergeUVPlane with V as its first plane, for widths around the 16-sample steps.
TEST(ChromaInterleave, BothVariantsEqualLibyuvMergeUVPlane) {
  const Plane u0 = realPlane("cockatoo_f005_1280x720.nv21", 700, 3);
  const Plane v0 = realPlane("solvay_1920x1080.nv21", 700, 3);
  ASSERT_FALSE(u0.px.empty());
  ASSERT_FALSE(v0.px.empty());
  constexpr int kPad = 5;
  constexpr uint8_t kSentinel = 0x5A;
  std::vector<int> widths;
  for (int w = 1; w <= 49; ++w) widths.push_back(w);
  widths.insert(widths.end(), {640, 695});
  for (int w : widths) {
    for (int h : {1, 3}) {
      SCOPED_TRACE(std::to_string(w) + "x" + std::to_string(h));
      const int ss = 700, ds = 2 * w + kPad;
      std::vector<uint8_t> expected(static_cast<size_t>(ds) * h, kSentinel);
      libyuv::MergeUVPlane(v0.data(), ss, u0.data(), ss, expected.data(), ds, w, h);
      for (int variant = 0; variant < 2; ++variant) {
        std::vector<uint8_t> out(expected.size(), kSentinel);
        const int r = variant == 0 ? DexFrameMetaData::chromaPlanerToSemi(u0.data(), v0.data(),
                                                                          out.data(), w, h, ss, ds)
                                   : DexFrameMetaData::chromaPlanerToSemi16Neon(
                                         u0.data(), v0.data(), out.data(), w, h, ss, ds);
        ASSERT_EQ(DexFrameMetaData::SCALE_OK, r);
        EXPECT_EQ(expected, out) << "variant " << variant;
      }
    }
  }
}

TEST(FrameStats, MeanStddevAndDifferenceOfKnownValues) {
  const uint8_t v[8] = {2, 4, 4, 4, 5, 5, 7, 9}, prev[8] = {1, 7, 3, 7, 4, 8, 6, 12};  // |diff| 1, 3, ...
  KO_dataStats_t s{}, d{};
  ASSERT_EQ(0, DexFrameMetaData::calcMeanStddev(v, &s, 8));
  ASSERT_EQ(0, DexFrameMetaData::calcMFrameDiff(v, prev, &d, 8));
  EXPECT_TRUE(s.mean == 5.0f && s.stddev == 2.0f && s.min == 2.0f && s.max == 9.0f);
  EXPECT_TRUE(d.mean == 2.0f && d.stddev == 1.0f);
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
  auto fused = [&](const uint8_t* cur, KO_dataStats_t* pl, KO_dataStats_t* pd, int w, int h, int bins,
                   int16_t* pgy) {
    return M::calcSmallFrameStats(cur, p, w, h, pl, &s, pd, hist.data(), bins, gx.data(), pgy);
  };
  DexFrameMetaData::xyShift r{1, 2, 40, 3.0f, 4.0f};
  // Bin counts 48 (not a power of 2), 512 and 0 are refused too.
  const int refused[] = {
      M::calcMeanStddev(nullptr, &l, 10), M::calcMeanStddev(p, nullptr, 10), M::calcMeanStddev(p, &l, 0),
      M::calcMFrameDiff(p, nullptr, &l, 10), M::calcMFrameDiff(p, p, &l, -3),
      M::genHistogramPow2(nullptr, hist.data(), 8, 8, 8, 32), M::genHistogramPow2(p, hist.data(), 0, 8, 8, 32),
      M::genHistogramPow2(p, hist.data(), 8, 8, 4, 32), M::genHistogramPow2(p, hist.data(), 8, 8, 8, 48),
      M::genHistogramPow2(p, hist.data(), 8, 8, 8, 512),
      M::calcSobelFrame(p, &l, 64, 64, 0, gx.data(), nullptr), M::calcSobelFrame(p, &l, -1, 64, 0, gx.data(), gy.data()),
      M::calcSobel2DRegion(nullptr, l, 0, 0, 8, 8, 64, 0), M::calcSobel2DRegion(p, l, -1, 0, 8, 8, 64, 0),
      M::calcSobel2DRegion(p, l, 0, 0, 8, 0, 64, 0), M::KoCalcMeanStddevMinMeanQueue(nullptr, &l, 5, 0, 0),
      fused(nullptr, &l, &d, 64, 64, 32, gy.data()), fused(p, nullptr, &d, 64, 64, 32, gy.data()),
      fused(p, &l, nullptr, 64, 64, 32, gy.data()), fused(p, &l, &d, 64, 64, 32, nullptr),
      fused(p, &l, &d, 0, 64, 32, gy.data()), fused(p, &l, &d, 64, -1, 32, gy.data()),
      fused(p, &l, &d, 64, 64, 48, gy.data()), fused(p, &l, &d, 64, 64, 0, gy.data()),
      M::calculateShift(p, nullptr, 64, 64, p, p, 32, 32, &r), M::calculateShift(p, p, 64, 64, p, p, 32, 32, nullptr),
      M::calculateShift(p, p, 0, 64, p, p, 32, 32, &r), M::calculateShift(p, p, 64, 64, p, p, 32, -2, &r)};
  for (size_t i = 0; i < std::size(refused); ++i) EXPECT_EQ(-1, refused[i]) << "call " << i;
  for (const KO_dataStats_t* st : {&l, &s, &d}) EXPECT_EQ(0, std::memcmp(st, &untouched, sizeof untouched));
  EXPECT_EQ(std::vector<uint32_t>(32, 7), hist);
  EXPECT_EQ(std::vector<int16_t>(64 * 64, 1), gx);
  EXPECT_EQ(1, r.dx);
  EXPECT_EQ(4.0f, r.b);
  int h[4] = {1, 2, 3, 4};
  EXPECT_FLOAT_EQ(1.0f, M::calcBhattacharyyaCoeff(nullptr, h, 4));
  EXPECT_FLOAT_EQ(1.0f, M::calcBhattacharyyaCoeff(h, h, 0));

  // A flat image: no spread, no gradient, no difference to itself; every pixel in one bin.
  ASSERT_EQ(0, fused(p, &l, &d, 64, 64, 32, gy.data()));
  EXPECT_TRUE(l.mean == 9.0f && l.stddev == 0.0f && s.max == 0.0f && d.max == 0.0f);
  EXPECT_EQ(64u * 64u, hist[1]);
}

}  // namespace
}  // namespace android
