// The bilinear upscalers against exact floating-point interpolation of real pictures, and the
// planar-to-semi-planar chroma interleaving against libyuv.
#include <gtest/gtest.h>
#include <libyuv.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <string>
#include <vector>

#include "DexFrameMetaData.h"
#include "KocoreTestImages.h"

namespace android {
namespace {

using kocore_test::Plane;

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
  switch (k) {
    case k3x:
      return DexFrameMetaData::lumaBiUpScaler3x(src, dst, srcStride, dw, dh, dstStride);
    case k225x:
      return DexFrameMetaData::lumaBiUpScaler225x(src, dst, s.h, srcStride, dw, dh, dstStride);
    default:
      return DexFrameMetaData::lumaBiScalerGeneric(src, dst, s.w, s.h, srcStride, dw, dh,
                                                   dstStride);
  }
}

// Runs one chroma kernel on planes u and v (same size) into V,U pairs.
int scaleChroma(Kernel k, const Plane& u, const Plane& v, uint8_t* dst, int dw, int dh,
                int srcStride = 0, const uint8_t* srcU = nullptr, const uint8_t* srcV = nullptr,
                int dstStride = 0) {
  if (srcU == nullptr) srcU = u.data();
  if (srcV == nullptr) srcV = v.data();
  if (srcStride == 0) srcStride = u.w;
  if (dstStride == 0) dstStride = 2 * dw;
  switch (k) {
    case k3x:
      return DexFrameMetaData::chromaBiUpScaler3x(srcU, srcV, dst, dw, dh, srcStride, dstStride);
    case k225x:
      return DexFrameMetaData::chromaBiUpScaler225x(srcU, srcV, dst, u.h, dw, dh, srcStride,
                                                    dstStride);
    default:
      return DexFrameMetaData::chromaBiScalerGeneric(srcU, srcV, dst, u.w, u.h, dw, dh, srcStride,
                                                     dstStride);
  }
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
    {k3x, 640, 360, 1920, 1080},
    {k225x, 640, 480, 1440, 1080},
    {kGeneric, 640, 360, 1920, 1088},
    {kGeneric, 640, 360, 1920, 1080},
    {kGeneric, 640, 480, 1440, 1080},
    {kGeneric, 641, 361, 1001, 563},
    {kGeneric, 640, 480, 301, 211},
    {kGeneric, 37, 1, 200, 7},
    {kGeneric, 1, 1, 5, 3},
    {k3x, 1, 1, 3, 3},
    {k3x, 2, 5, 6, 15},
    {k225x, 4, 4, 9, 9},
    {k225x, 8, 12, 18, 27},
    {k225x, 12, 8, 27, 18},
};

// The specialised kernels round the exact interpolation (2.25x: to within 0.02 before
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

}  // namespace
}  // namespace android
