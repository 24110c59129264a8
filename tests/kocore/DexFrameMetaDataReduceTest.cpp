// The fixed-ratio reducers against a plain floating-point area average of real frames.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "DexFrameMetaData.h"
#include "TestData.h"

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

struct Case {
  const char* file;
  int fileW, fileH;  // size of the stored frame
  int cropX;         // the reduced source is a cropW-wide crop starting here
  int srcW, srcH, dstW, dstH;
};

// Reduces luma and chroma of one case and compares every plane with the area average.
void checkReducers(const Case& c) {
  const std::vector<uint8_t> file = kovane_test::readNv21(c.file, c.fileW, c.fileH);
  ASSERT_FALSE(file.empty());
  // Build a contiguous NV21 source of srcW x srcH (the camera hands us stride == width).
  std::vector<uint8_t> src(static_cast<size_t>(c.srcW) * c.srcH * 3 / 2);
  for (int y = 0; y < c.srcH; ++y) {
    std::copy_n(&file[static_cast<size_t>(y) * c.fileW + c.cropX], c.srcW, &src[y * c.srcW]);
  }
  const uint8_t* fileUV = &file[static_cast<size_t>(c.fileW) * c.fileH];
  uint8_t* srcUV = &src[static_cast<size_t>(c.srcW) * c.srcH];
  for (int y = 0; y < c.srcH / 2; ++y) {
    std::copy_n(fileUV + static_cast<size_t>(y) * c.fileW + c.cropX, c.srcW, srcUV + y * c.srcW);
  }

  std::vector<uint8_t> luma(static_cast<size_t>(c.dstW) * c.dstH, 0);
  const int cw = c.dstW / 2, ch = c.dstH / 2;
  std::vector<uint8_t> planeA(static_cast<size_t>(cw) * ch), planeB(planeA.size());
  const int ratio100 = c.srcW * 100 / c.dstW;
  if (ratio100 == 200) {
    ASSERT_EQ(0, DexFrameMetaData::downScaleLuma2x(luma.data(), src.data(), c.srcW, c.dstW, c.dstH));
    ASSERT_EQ(0, DexFrameMetaData::decimateChroma2x(planeA.data(), planeB.data(), srcUV, c.srcW,
                                                    cw, ch, 1));
  } else if (ratio100 == 300) {
    ASSERT_EQ(0, DexFrameMetaData::downScaleLuma3x(luma.data(), src.data(), c.srcW, c.dstW, c.dstH));
    ASSERT_EQ(0, DexFrameMetaData::decimateChroma3x(planeA.data(), planeB.data(), srcUV, c.srcW,
                                                    cw, ch, 1));
  } else {
    ASSERT_EQ(225, ratio100);
    ASSERT_EQ(0, DexFrameMetaData::downscaleLuma9to4(luma.data(), src.data(), c.dstW, c.dstH, c.srcW));
    ASSERT_EQ(0, DexFrameMetaData::downscaleChroma9to4(planeA.data(), planeB.data(), srcUV, cw, ch,
                                                       c.srcW));
  }
  const auto refY = areaReference(src.data(), c.srcW, 1, c.srcW, c.srcH, c.dstW, c.dstH);
  const auto refU = areaReference(srcUV + 1, c.srcW, 2, c.srcW / 2, c.srcH / 2, cw, ch);
  const auto refV = areaReference(srcUV, c.srcW, 2, c.srcW / 2, c.srcH / 2, cw, ch);
  EXPECT_LE(maxAbsDiff(luma.data(), refY), 1);
  EXPECT_LE(maxAbsDiff(planeA.data(), refU), 1);
  EXPECT_LE(maxAbsDiff(planeB.data(), refV), 1);
  if (std::string(c.file).rfind("cockatoo", 0) == 0) {  // colour: U and V differ, a swap shows
    EXPECT_GT(maxAbsDiff(planeA.data(), refV), 2);
  }
  if (ratio100 == 225) return;
  // flag 0 reads U,V pairs: the same planes from the pairs swapped.
  std::vector<uint8_t> uv(srcUV, srcUV + static_cast<size_t>(c.srcW) * c.srcH / 2);
  for (size_t i = 0; i < uv.size(); i += 2) std::swap(uv[i], uv[i + 1]);
  std::vector<uint8_t> a0(planeA.size()), b0(planeB.size());
  auto run = ratio100 == 200 ? &DexFrameMetaData::decimateChroma2x
                            : &DexFrameMetaData::decimateChroma3x;
  ASSERT_EQ(0, run(a0.data(), b0.data(), uv.data(), c.srcW, cw, ch, 0));
  EXPECT_EQ(planeA, a0);
  EXPECT_EQ(planeB, b0);
}

TEST(Reducers, MatchAreaAverageWithinOneLevelOnRealFrames) {
  for (const Case& c : {Case{"cockatoo_f005_1280x720.nv21", 1280, 720, 0, 1280, 720, 640, 360},
                        Case{"solvay_1920x1080.nv21", 1920, 1080, 0, 1920, 1080, 640, 360},
                        Case{"solvay_1920x1080.nv21", 1920, 1080, 240, 1440, 1080, 640, 480}}) {
    SCOPED_TRACE(std::string(c.file) + " from " + std::to_string(c.srcW));
    checkReducers(c);
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
