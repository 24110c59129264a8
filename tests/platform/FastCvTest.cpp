// The pixel reducers log and refuse arguments they cannot work with. Their area average is
// checked on real frames by the frame creation tests.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "StderrCapture.h"
#include "fastcv.h"

TEST(PlatformFastCvTest, BadArgumentsLogAndLeaveTheTargetAlone) {
  std::vector<uint8_t> src(64 * 64, 100), dst(64 * 64 * 2, 0xEE);
  const struct {
    const char* what;
    const uint8_t* src;
    unsigned int sw, sh, ss;
    uint8_t* dst;
    unsigned int dw, dh, ds;
  } cases[] = {
      {"null source", nullptr, 64, 64, 64, dst.data(), 32, 32, 32},
      {"null target", src.data(), 64, 64, 64, nullptr, 32, 32, 32},
      {"zero source", src.data(), 0, 64, 64, dst.data(), 32, 32, 32},
      {"zero target", src.data(), 64, 64, 64, dst.data(), 32, 0, 32},
      {"wider target", src.data(), 32, 32, 64, dst.data(), 34, 16, 68},
      {"taller target", src.data(), 32, 32, 32, dst.data(), 16, 33, 16},
  };
  for (const auto& c : cases) {
    for (int interleaved = 0; interleaved < 2; ++interleaved) {
      kovane_test::StderrCapture capture;
      if (interleaved) {
        fcvScaleDownMNInterleaveu8(c.src, c.sw / 2, c.sh, c.ss, c.dst, c.dw / 2, c.dh, c.ds);
      } else {
        fcvScaleDownMNu8(c.src, c.sw, c.sh, c.ss, c.dst, c.dw, c.dh, c.ds);
      }
      const std::string log = capture.finish();
      EXPECT_NE(log.find("fastcv"), std::string::npos) << c.what << ": " << log;
      EXPECT_NE(log.find(" E "), std::string::npos) << c.what << " logs at error priority: " << log;
      for (uint8_t b : dst) ASSERT_EQ(b, 0xEE) << c.what;
    }
  }
}
