#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "PlatformTestUtil.h"
#include "StderrCapture.h"
#include "TestData.h"
#include "fastcv.h"

namespace {

constexpr int kW = 1280;
constexpr int kH = 720;
using platform_test::areaReference;

double maxDiff(const uint8_t* got, int stride, int step, const std::vector<double>& ref, int dw, int dh) {
  return platform_test::diffTo(got, stride, step, ref, dw, dh).maxAbs;
}

}  // namespace

TEST(PlatformFastCvMemTest, AlignedAllocation) {
  for (unsigned int align : {0u, 1u, 8u, 16u, 64u, 4096u}) {
    void* p = fcvMemAlloc(1000, align);
    ASSERT_NE(p, nullptr) << align;
    uintptr_t need = align < 16 ? 16 : align;
    EXPECT_EQ(reinterpret_cast<uintptr_t>(p) % need, 0u) << align;
    memset(p, 0x11, 1000);
    fcvMemFree(p);
  }
  EXPECT_EQ(fcvMemAlloc(0, 16), nullptr);
  fcvMemFree(nullptr);
}

TEST(PlatformFastCvTest, ReducesARealPictureLikeAnAreaAverage) {
  const std::vector<uint8_t> frame = kovane_test::readNv21("cockatoo_f005_1280x720.nv21", kW, kH);
  ASSERT_EQ(frame.size(), static_cast<size_t>(kW) * kH * 3 / 2);
  const uint8_t* vu = frame.data() + static_cast<size_t>(kW) * kH;  // 640x360 V,U pairs
  const int cw = kW / 2, ch = kH / 2;
  // Exact halvings (the libyuv path) and uneven ratios (the general path).
  const std::pair<int, int> sizes[] = {{640, 360}, {500, 300},  {320, 180}, {1000, 600},
                                       {426, 240}, {1280, 720}, {64, 36},   {1280, 360}};
  for (const auto& size : sizes) {
    const int dw = size.first, dh = size.second;
    SCOPED_TRACE(std::to_string(dw) + "x" + std::to_string(dh));
    std::vector<uint8_t> luma(static_cast<size_t>(dw) * dh, 0);
    fcvScaleDownMNu8(frame.data(), kW, kH, kW, luma.data(), dw, dh, dw);
    EXPECT_LE(maxDiff(luma.data(), dw, 1, areaReference(frame.data(), kW, kH, kW, 1, dw, dh), dw, dh),
              1.0);

    // Chroma pairs, into rows with padding that must stay untouched.
    const int pw = dw / 2, ph = dh / 2, dstride = pw * 2 + 6;
    std::vector<uint8_t> pairs(static_cast<size_t>(dstride) * ph, 0xEE);
    fcvScaleDownMNInterleaveu8(vu, cw, ch, kW, pairs.data(), pw, ph, dstride);
    std::vector<double> refV = areaReference(vu, cw, ch, kW, 2, pw, ph);
    std::vector<double> refU = areaReference(vu + 1, cw, ch, kW, 2, pw, ph);
    EXPECT_LE(maxDiff(pairs.data(), dstride, 2, refV, pw, ph), 1.0) << "first channel";
    EXPECT_LE(maxDiff(pairs.data() + 1, dstride, 2, refU, pw, ph), 1.0) << "second channel";
    EXPECT_GT(maxDiff(pairs.data(), dstride, 2, refU, pw, ph), 2.0) << "channels differ: a swap shows";
    for (int y = 0; y < ph; ++y)
      for (int x = pw * 2; x < dstride; ++x) ASSERT_EQ(pairs[y * dstride + x], 0xEE);
  }
}

TEST(PlatformFastCvTest, SourceStrideIsHonouredAndTargetPaddingLeftAlone) {
  // A 37x23 source inside white-padded rows of 48 bytes, reduced into rows of 20 bytes.
  const int sw = 37, sh = 23, sstride = 48, dw = 15, dh = 9, dstride = 20;
  std::vector<uint8_t> src(static_cast<size_t>(sstride) * sh, 255);
  for (int y = 0; y < sh; ++y)
    for (int x = 0; x < sw; ++x) src[y * sstride + x] = static_cast<uint8_t>((x * 7 + y * 13) % 200);
  std::vector<uint8_t> dst(static_cast<size_t>(dstride) * dh, 0xEE);
  fcvScaleDownMNu8(src.data(), sw, sh, sstride, dst.data(), dw, dh, dstride);
  std::vector<double> ref = areaReference(src.data(), sw, sh, sstride, 1, dw, dh);
  EXPECT_LE(maxDiff(dst.data(), dstride, 1, ref, dw, dh), 1.0);
  for (int y = 0; y < dh; ++y)
    for (int x = dw; x < dstride; ++x) EXPECT_EQ(dst[y * dstride + x], 0xEE);
}

TEST(PlatformFastCvTest, BadArgumentsLogAndLeaveTheTargetAlone) {
  std::vector<uint8_t> src(64 * 64, 100);
  std::vector<uint8_t> dst(64 * 64 * 2, 0xEE);
  struct Case {
    const char* what;
    const uint8_t* src;
    unsigned int sw, sh, ss;
    uint8_t* dst;
    unsigned int dw, dh, ds;
  };
  const Case cases[] = {
      {"null source", nullptr, 64, 64, 64, dst.data(), 32, 32, 32},
      {"null target", src.data(), 64, 64, 64, nullptr, 32, 32, 32},
      {"zero source", src.data(), 0, 64, 64, dst.data(), 32, 32, 32},
      {"zero target", src.data(), 64, 64, 64, dst.data(), 32, 0, 32},
      {"wider target", src.data(), 32, 32, 64, dst.data(), 34, 16, 68},
      {"taller target", src.data(), 32, 32, 32, dst.data(), 16, 33, 16},
  };
  for (const Case& c : cases) {
    for (int interleaved = 0; interleaved < 2; ++interleaved) {
      kovane_test::StderrCapture capture;
      if (interleaved) {
        fcvScaleDownMNInterleaveu8(c.src, c.sw / 2, c.sh, c.ss, c.dst, c.dw / 2, c.dh, c.ds);
      } else {
        fcvScaleDownMNu8(c.src, c.sw, c.sh, c.ss, c.dst, c.dw, c.dh, c.ds);
      }
      std::string log = capture.finish();
      EXPECT_NE(log.find("fastcv"), std::string::npos) << c.what << ": " << log;
      EXPECT_NE(log.find(" E "), std::string::npos) << c.what << " logs at error priority: " << log;
      for (uint8_t b : dst) ASSERT_EQ(b, 0xEE) << c.what;
    }
  }
}
