// The one-pass reducer against the separate reducers it replaces, on real frames, with every set
// of row kernels (portable, 128-bit vectors, and the widest the CPU has).
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "DexFrameMetaData.h"
#include "KoFrameReducer.h"
#include "TestData.h"

namespace android {
namespace {

struct Source {
  std::vector<uint8_t> luma;  // rows `stride` apart
  std::vector<uint8_t> vu;
  int w = 0, h = 0, stride = 0;
};

// A w x h crop at (x0, 0) of a stored NV21 frame, with `pad` extra bytes per row.
Source crop(const char* file, int fileW, int fileH, int x0, int w, int h, int pad) {
  Source s;
  const std::vector<uint8_t> f = kovane_test::readNv21(file, fileW, fileH);
  if (f.empty()) return s;
  s.w = w;
  s.h = h;
  s.stride = w + pad;
  s.luma.assign(static_cast<size_t>(s.stride) * h, 0x5A);
  s.vu.assign(static_cast<size_t>(s.stride) * h / 2, 0x5A);
  for (int y = 0; y < h; ++y) memcpy(&s.luma[y * s.stride], &f[y * fileW + x0], w);
  for (int y = 0; y < h / 2; ++y) {
    memcpy(&s.vu[y * s.stride], &f[fileW * fileH + y * fileW + x0], w);
  }
  return s;
}

// The reductions made one after the other by the separate reducers (which read luma rows w
// apart, so they get an unpadded copy) and the 2x2 reduction of the band.
std::vector<uint8_t> separate(const Source& s, int dw, int dh, int bandTop, std::vector<uint8_t>* small) {
  std::vector<uint8_t> luma(static_cast<size_t>(s.w) * s.h);
  for (int y = 0; y < s.h; ++y) memcpy(&luma[y * s.w], &s.luma[y * s.stride], s.w);
  std::vector<uint8_t> out(static_cast<size_t>(dw) * dh * 3 / 2);
  uint8_t* a = out.data() + dw * dh;
  uint8_t* b = a + dw / 2 * (dh / 2);
  if (s.w == 3 * dw) {
    DexFrameMetaData::downScaleLuma3x(out.data(), luma.data(), s.w, dw, dh);
    DexFrameMetaData::decimateChroma3x(a, b, s.vu.data(), s.stride, dw / 2, dh / 2, 1);
  } else if (s.w == 2 * dw) {
    DexFrameMetaData::downScaleLuma2x(out.data(), luma.data(), s.w, dw, dh);
    DexFrameMetaData::decimateChroma2x(a, b, s.vu.data(), s.stride, dw / 2, dh / 2, 1);
  } else {
    DexFrameMetaData::downscaleLuma9to4(out.data(), luma.data(), dw, dh, s.w);
    DexFrameMetaData::downscaleChroma9to4(a, b, s.vu.data(), dw / 2, dh / 2, s.stride);
  }
  small->assign(static_cast<size_t>(dw / 2) * 180, 0);
  DexFrameMetaData::downScaleLuma2x(small->data(), out.data() + bandTop * dw, dw, dw / 2, 180);
  return out;
}

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
    const Source s = crop(c.file, c.fileW, c.fileH, c.x0, c.w, c.h, c.pad);
    ASSERT_FALSE(s.luma.empty());
    const int bandTop = (c.dh - 360) / 2;
    std::vector<uint8_t> wantSmall;
    const std::vector<uint8_t> want = separate(s, c.dw, c.dh, bandTop, &wantSmall);
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
