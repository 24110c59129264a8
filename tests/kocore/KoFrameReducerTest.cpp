// The one-pass reducer against the separate reducers it replaces, on real frames, with every set
// of row kernels (portable, 128-bit vectors, and the widest the CPU has).
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "DexFrameMetaData.h"
#include "KoFrameReducer.h"
#include "KocoreTestImages.h"

namespace android {
namespace {

TEST(KoFrameReducer, OnePassEqualsTheSeparateReducersWithEveryKernelSet) {
  struct Case {
    const char* file;
    int fileW, fileH, x0, w, h, pad, dw, dh;
  };
  const Case cases[] = {
      {"solvay_1920x1080.nv21", 1920, 1080, 0, 1920, 1080, 0, 640, 360},
      {"solvay_1920x1080.nv21", 1920, 1080, 240, 1440, 1080, 0, 640, 480},
      {"cockatoo_f100_1280x720.nv21", 1280, 720, 0, 1280, 720, 0, 640, 360},
      // Padded rows, and widths whose rows end in the narrower tails of the vector kernels.
      {"cockatoo_f101_1280x720.nv21", 1280, 720, 0, 1248, 720, 36, 624, 360},
      {"solvay_1920x1080.nv21", 1920, 1080, 6, 1872, 1080, 24, 624, 360},
      {"solvay_1920x1080.nv21", 1920, 1080, 258, 1404, 1080, 20, 624, 480},
  };
  using R = KoFrameReducer;
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.file) + " " + std::to_string(c.w) + "x" + std::to_string(c.h));
    const kocore_test::Nv21Crop s = kocore_test::nv21Crop(c.file, c.fileW, c.fileH, c.x0, 0, c.w, c.h, c.pad);
    ASSERT_FALSE(s.luma.empty());
    // The separate reducers, and the 2x2 reduction of the central band.
    const int bandTop = (c.dh - 360) / 2;
    const std::vector<uint8_t> want = kocore_test::separateReduce(s, c.dw, c.dh);
    ASSERT_FALSE(want.empty());
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

TEST(KoFrameReducer, RejectsBadArgumentsWithoutWriting) {
  std::vector<uint8_t> src(1920 * 1080 * 3 / 2, 9);
  std::vector<uint8_t> dst(640 * 480 * 3 / 2, 0xEE), small(320 * 180, 0xEE);
  const std::vector<uint8_t> dst0 = dst, small0 = small;
  const uint8_t* y = src.data();
  const uint8_t* vu = src.data() + 1920 * 1080;
  using R = KoFrameReducer;
  EXPECT_EQ(-1, R::reduceNv21(nullptr, 1920, vu, 1920, 1920, 1080, dst.data(), 640, 360, nullptr, 0, 0));
  EXPECT_EQ(-1, R::reduceNv21(y, 1920, nullptr, 1920, 1920, 1080, dst.data(), 640, 360, nullptr, 0, 0));
  EXPECT_EQ(-1, R::reduceNv21(y, 1920, vu, 1920, 1920, 1080, nullptr, 640, 360, nullptr, 0, 0));
  EXPECT_EQ(-1, R::reduceNv21(y, 1920, vu, 1920, 1920, 1080, dst.data(), 640, 480, nullptr, 0, 0));  // 3:2.25
  EXPECT_EQ(-1, R::reduceNv21(y, 1920, vu, 1920, 1920, 1080, dst.data(), 632, 360, nullptr, 0, 0));  // not /16
  EXPECT_EQ(-1, R::reduceNv21(y, 1919, vu, 1920, 1920, 1080, dst.data(), 640, 360, nullptr, 0, 0));
  EXPECT_EQ(-1, R::reduceNv21(y, 1920, vu, 1000, 1920, 1080, dst.data(), 640, 360, nullptr, 0, 0));
  EXPECT_EQ(-1, R::reduceNv21(y, 1920, vu, 1920, 1920, 1080, dst.data(), 640, 360, small.data(), 1, 180));
  EXPECT_EQ(-1, R::reduceNv21(y, 1920, vu, 1920, 1920, 1080, dst.data(), 640, 360, small.data(), 0, 0));
  EXPECT_EQ(-1, R::reduceNv21(y, 1920, vu, 1920, 3 * 2048, 3 * 16, dst.data(), 2048, 16, nullptr, 0, 0));
  EXPECT_TRUE(dst == dst0);
  EXPECT_TRUE(small == small0);
}

}  // namespace
}  // namespace android
