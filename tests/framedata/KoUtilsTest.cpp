// The image utilities offered to the camera code: which kernel each scaling takes, that the
// strides reach the kernels, and the data protection wrappers.
#include <gtest/gtest.h>
#include <libyuv.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "DexFrameMetaData.h"
#include "KoUtils.h"
#include "TestData.h"

namespace android {
namespace {

using D = DexFrameMetaData;

// A w x h crop around the centre of a stored 1280x720 frame's luma, with row stride `stride`.
std::vector<uint8_t> lumaCrop(const char* name, int w, int h, int stride) {
  const std::vector<uint8_t> f = kovane_test::readNv21(name, 1280, 720);
  if (f.empty()) return {};
  std::vector<uint8_t> out(static_cast<size_t>(stride) * h, 0xFF);
  const uint8_t* origin = &f[static_cast<size_t>((720 - h) / 2) * 1280 + (1280 - w) / 2];
  for (int y = 0; y < h; ++y) {
    std::copy_n(origin + static_cast<size_t>(y) * 1280, w, &out[static_cast<size_t>(y) * stride]);
  }
  return out;
}

// Each wrapper call must give exactly the output of the kernel its factors select; the
// specialised kernels differ from the generic one in some pixels (by at most 1), so the choice
// shows. Strides are padded, so that strides passed in the wrong places would fail.
TEST(KoUtilsScaler, FactorsSelectTheKernel) {
  enum { kGeneric, k225x, k3x };
  struct Sizes {
    int sw, sh, dw, dh, kernel;
  };
  const Sizes cases[] = {{640, 360, 1920, 1080, k3x},      {640, 480, 1440, 1080, k225x},
                         {640, 360, 1920, 1088, kGeneric}, {640, 360, 1920, 720, kGeneric},
                         {640, 480, 1440, 1089, kGeneric}, {320, 240, 960, 720, k3x}};
  for (const Sizes& c : cases) {
    SCOPED_TRACE(testing::Message() << c.sw << "x" << c.sh << " -> " << c.dw << "x" << c.dh);
    const int ss = c.sw + 8;
    const std::vector<uint8_t> u = lumaCrop("cockatoo_f005_1280x720.nv21", c.sw, c.sh, ss);
    const std::vector<uint8_t> v = lumaCrop("cockatoo_f160_1280x720.nv21", c.sw, c.sh, ss);
    ASSERT_FALSE(u.empty() || v.empty());
    for (int bytes : {1, 2}) {
      SCOPED_TRACE(bytes == 1 ? "luma" : "chroma");
      const int ds = bytes * c.dw + 6;
      std::vector<uint8_t> utils(static_cast<size_t>(ds) * c.dh), special(utils), generic(utils);
      const uint8_t *pu = u.data(), *pv = v.data();
      uint8_t *g = generic.data(), *sp = special.data();
      int specialResult = 0;
      if (bytes == 1) {
        ASSERT_EQ(0, LumaBiScaler(pu, utils.data(), c.sw, c.sh, ss, c.dw, c.dh, ds));
        ASSERT_EQ(0, D::lumaBiScalerGeneric(pu, g, c.sw, c.sh, ss, c.dw, c.dh, ds));
        if (c.kernel == k3x) specialResult = D::lumaBiUpScaler3x(pu, sp, ss, c.dw, c.dh, ds);
        if (c.kernel == k225x) specialResult = D::lumaBiUpScaler225x(pu, sp, c.sh, ss, c.dw, c.dh, ds);
      } else {
        ASSERT_EQ(0, ChromaBiScaler(pu, pv, utils.data(), c.sw, c.sh, c.dw, c.dh, ss, ds));
        ASSERT_EQ(0, D::chromaBiScalerGeneric(pu, pv, g, c.sw, c.sh, c.dw, c.dh, ss, ds));
        if (c.kernel == k3x) specialResult = D::chromaBiUpScaler3x(pu, pv, sp, c.dw, c.dh, ss, ds);
        if (c.kernel == k225x) specialResult = D::chromaBiUpScaler225x(pu, pv, sp, c.sh, c.dw, c.dh, ss, ds);
      }
      ASSERT_EQ(0, specialResult);
      if (c.kernel == kGeneric) {
        EXPECT_EQ(generic, utils);
        continue;
      }
      EXPECT_EQ(special, utils);
      int differing = 0, maxDiff = 0;
      for (size_t i = 0; i < utils.size(); ++i) {
        differing += special[i] != generic[i];
        maxDiff = std::max(maxDiff, std::abs(special[i] - generic[i]));
      }
      EXPECT_GT(differing, 0) << "the specialised kernel is not distinguishable";
      EXPECT_LE(maxDiff, 1);
    }
  }
}

TEST(KoUtilsScaler, InterleavingAndErrorsPassThrough) {
  const std::vector<uint8_t> u = lumaCrop("cockatoo_f100_1280x720.nv21", 325, 9, 330);
  const std::vector<uint8_t> v = lumaCrop("cockatoo_f101_1280x720.nv21", 325, 9, 330);
  ASSERT_FALSE(u.empty() || v.empty());
  std::vector<uint8_t> expected(660 * 9, 1), plain(expected), by16(expected);
  libyuv::MergeUVPlane(v.data(), 330, u.data(), 330, expected.data(), 660, 325, 9);
  ASSERT_EQ(0, ChromaPlanerToSemi(u.data(), v.data(), plain.data(), 325, 9, 330, 660));
  ASSERT_EQ(0, ChromaPlanerToSemi16Neon(u.data(), v.data(), by16.data(), 325, 9, 330, 660));
  EXPECT_EQ(expected, plain);
  EXPECT_EQ(expected, by16);

  std::vector<uint8_t> out(1440 * 1080 * 2, 9);
  EXPECT_EQ(D::SCALE_ERR_STRIDE, LumaBiScaler(u.data(), out.data(), 640, 360, 640, 1920, 1080, 1900));
  EXPECT_EQ(D::SCALE_ERR_SIZE, LumaBiScaler(u.data(), out.data(), 0, 360, 640, 1920, 1080, 1920));
  EXPECT_EQ(D::SCALE_ERR_STRIDE,
            ChromaBiScaler(u.data(), v.data(), out.data(), 640, 480, 1440, 1080, 640, 1440));
  EXPECT_EQ(D::SCALE_ERR_NULL, ChromaPlanerToSemi16Neon(u.data(), nullptr, out.data(), 9, 1, 9, 18));
  EXPECT_EQ(out.size(), static_cast<size_t>(std::count(out.begin(), out.end(), 9)));
}

// SP 800-38A F.5.1: key and initial counter block, first two plaintext and ciphertext blocks.
constexpr uint8_t kParams[32] = {0x2b, 0x7e, 0x15, 0x16, 0x28, 0xae, 0xd2, 0xa6, 0xab, 0xf7, 0x15,
                                 0x88, 0x09, 0xcf, 0x4f, 0x3c, 0xf0, 0xf1, 0xf2, 0xf3, 0xf4, 0xf5,
                                 0xf6, 0xf7, 0xf8, 0xf9, 0xfa, 0xfb, 0xfc, 0xfd, 0xfe, 0xff};
constexpr uint8_t kPlain[32] = {0x6b, 0xc1, 0xbe, 0xe2, 0x2e, 0x40, 0x9f, 0x96, 0xe9, 0x3d, 0x7e,
                                0x11, 0x73, 0x93, 0x17, 0x2a, 0xae, 0x2d, 0x8a, 0x57, 0x1e, 0x03,
                                0xac, 0x9c, 0x9e, 0xb7, 0x6f, 0xac, 0x45, 0xaf, 0x8e, 0x51};
constexpr uint8_t kCipher[32] = {0x87, 0x4d, 0x61, 0x91, 0xb6, 0x20, 0xe3, 0x26, 0x1b, 0xef, 0x68,
                                 0x64, 0x99, 0x0d, 0xb6, 0xce, 0x98, 0x06, 0xf6, 0x6b, 0x79, 0x70,
                                 0xfd, 0xff, 0x86, 0x17, 0x18, 0x7b, 0xb9, 0xff, 0xfd, 0xff};

TEST(KoUtilsProtection, KeyAndCounterReachTheCipherAndNullOrEmptyCallsTouchNothing) {
  KO_SecureDataParams_t p;
  std::memcpy(&p, kParams, sizeof(p));
  uint8_t data[32];
  std::memcpy(data, kPlain, sizeof(data));
  EXPECT_EQ(1, KOEncryptData(&p, data, data, 32));
  EXPECT_EQ(0, std::memcmp(kCipher, data, 32));
  EXPECT_EQ(0, std::memcmp(kParams, &p, sizeof(p))) << "the caller's record must not change";
  uint8_t out[32] = {};
  EXPECT_EQ(1, KODecryptData(&p, data, out, 32));
  EXPECT_EQ(0, std::memcmp(kPlain, out, 32));

  std::memset(out, 0x44, sizeof(out));
  for (auto* call : {&KOEncryptData, &KODecryptData}) {
    EXPECT_EQ(0, call(nullptr, kPlain, out, 32));
    EXPECT_EQ(0, call(&p, nullptr, out, 32));
    EXPECT_EQ(0, call(&p, kPlain, nullptr, 32));
    EXPECT_EQ(0, call(&p, kPlain, out, 0));
    EXPECT_EQ(0, call(&p, kPlain, out, -5));
  }
  EXPECT_EQ(32, std::count(out, out + 32, 0x44));
}

}  // namespace
}  // namespace android
