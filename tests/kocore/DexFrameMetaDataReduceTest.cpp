// The fixed-ratio reducers against a plain floating-point area average of real frames.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "DexFrameMetaData.h"
#include "KocoreTestImages.h"

namespace android {
namespace {

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

// The fixed-ratio reducers of real frames: every plane within one level of the area average,
// U and V not swapped (the bird is in colour), and, for the 2x and 3x chroma reducers, flag 0
// (U,V pairs) giving the same planes from the pairs swapped.
TEST(Reducers, MatchAreaAverageWithinOneLevelOnRealFrames) {
  struct Case {
    const char* file;
    int fileW, fileH, x0, srcW, dstW, dstH;
  };
  for (const Case& c : {Case{"cockatoo_f005_1280x720.nv21", 1280, 720, 0, 1280, 640, 360},
                        Case{"solvay_1920x1080.nv21", 1920, 1080, 0, 1920, 640, 360},
                        Case{"solvay_1920x1080.nv21", 1920, 1080, 240, 1440, 640, 480}}) {
    SCOPED_TRACE(std::string(c.file) + " from " + std::to_string(c.srcW));
    const kocore_test::Nv21Crop s = kocore_test::nv21Crop(c.file, c.fileW, c.fileH, c.x0, 0, c.srcW, c.fileH);
    ASSERT_FALSE(s.luma.empty());
    const std::vector<uint8_t> out = kocore_test::separateReduce(s, c.dstW, c.dstH);
    ASSERT_FALSE(out.empty());
    const int cw = c.dstW / 2, ch = c.dstH / 2;
    const uint8_t* planeU = out.data() + c.dstW * c.dstH;
    const uint8_t* planeV = planeU + cw * ch;
    const auto refY = areaReference(s.luma.data(), s.w, 1, s.w, s.h, c.dstW, c.dstH);
    const auto refU = areaReference(s.vu.data() + 1, s.w, 2, s.w / 2, s.h / 2, cw, ch);
    const auto refV = areaReference(s.vu.data(), s.w, 2, s.w / 2, s.h / 2, cw, ch);
    EXPECT_LE(maxAbsDiff(out.data(), refY), 1);
    EXPECT_LE(maxAbsDiff(planeU, refU), 1);
    EXPECT_LE(maxAbsDiff(planeV, refV), 1);
    if (c.fileW == 1280) {
      EXPECT_GT(maxAbsDiff(planeU, refV), 2);
    }
    if (c.srcW * 4 == c.dstW * 9) continue;  // 9:4 reads V,U pairs only
    std::vector<uint8_t> uv = s.vu;
    for (size_t i = 0; i < uv.size(); i += 2) std::swap(uv[i], uv[i + 1]);
    std::vector<uint8_t> a0(static_cast<size_t>(cw) * ch), b0(a0.size());
    auto run = c.srcW == 2 * c.dstW ? &DexFrameMetaData::decimateChroma2x : &DexFrameMetaData::decimateChroma3x;
    ASSERT_EQ(0, run(a0.data(), b0.data(), uv.data(), s.w, cw, ch, 0));
    EXPECT_TRUE(std::equal(a0.begin(), a0.end(), planeU));
    EXPECT_TRUE(std::equal(b0.begin(), b0.end(), planeV));
  }
}

TEST(ReducerArguments, RejectNullAndBadSizesWithoutWriting) {
  std::vector<uint8_t> src(64 * 64, 7), dst(32 * 32, 0xAB), dst2(32 * 32, 0xAB);
  const std::vector<uint8_t> untouched(dst);
  using M = DexFrameMetaData;
  EXPECT_EQ(-1, M::downScaleLuma2x(nullptr, src.data(), 64, 32, 32));
  EXPECT_EQ(-1, M::downScaleLuma2x(dst.data(), nullptr, 64, 32, 32));
  EXPECT_EQ(-1, M::downScaleLuma2x(dst.data(), src.data(), 64, 0, 32));
  EXPECT_EQ(-1, M::downScaleLuma2x(dst.data(), src.data(), 64, 32, -1));
  EXPECT_EQ(-1, M::downScaleLuma3x(dst.data(), src.data(), 0, 16, 16));
  EXPECT_EQ(-1, M::downScaleLuma3x(dst.data(), nullptr, 64, 16, 16));
  EXPECT_EQ(-1, M::downscaleLuma9to4(dst.data(), src.data(), -4, 16, 64));
  EXPECT_EQ(-1, M::downscaleLuma9to4(nullptr, src.data(), 16, 16, 64));
  EXPECT_EQ(-1, M::decimateChroma2x(dst.data(), nullptr, src.data(), 64, 16, 16, 1));
  EXPECT_EQ(-1, M::decimateChroma2x(dst.data(), dst2.data(), src.data(), 64, 16, 0, 1));
  EXPECT_EQ(-1, M::decimateChroma3x(dst.data(), dst2.data(), nullptr, 64, 8, 8, 0));
  EXPECT_EQ(-1, M::decimateChroma3x(dst.data(), dst2.data(), src.data(), -64, 8, 8, 0));
  EXPECT_EQ(-1, M::downscaleChroma9to4(nullptr, dst2.data(), src.data(), 8, 8, 64));
  EXPECT_EQ(-1, M::downscaleChroma9to4(dst.data(), dst2.data(), src.data(), 8, 0, 64));
  EXPECT_EQ(untouched, dst);
  EXPECT_EQ(untouched, dst2);
}

}  // namespace
}  // namespace android
