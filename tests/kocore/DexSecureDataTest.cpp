// AES-128-CTR data protection: the NIST counter-mode vectors at any length, the whole counter
// block wrapping around, in-place use and refused arguments.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "DexSecureData.h"

namespace android {
namespace {

constexpr uint8_t kKey[16] = {0x2b, 0x7e, 0x15, 0x16, 0x28, 0xae, 0xd2, 0xa6,
                              0xab, 0xf7, 0x15, 0x88, 0x09, 0xcf, 0x4f, 0x3c};
constexpr uint8_t kInitCounter[16] = {0xf0, 0xf1, 0xf2, 0xf3, 0xf4, 0xf5, 0xf6, 0xf7,
                                      0xf8, 0xf9, 0xfa, 0xfb, 0xfc, 0xfd, 0xfe, 0xff};
constexpr uint8_t kPlain[64] = {
    0x6b, 0xc1, 0xbe, 0xe2, 0x2e, 0x40, 0x9f, 0x96, 0xe9, 0x3d, 0x7e, 0x11, 0x73, 0x93, 0x17, 0x2a,
    0xae, 0x2d, 0x8a, 0x57, 0x1e, 0x03, 0xac, 0x9c, 0x9e, 0xb7, 0x6f, 0xac, 0x45, 0xaf, 0x8e, 0x51,
    0x30, 0xc8, 0x1c, 0x46, 0xa3, 0x5c, 0xe4, 0x11, 0xe5, 0xfb, 0xc1, 0x19, 0x1a, 0x0a, 0x52, 0xef,
    0xf6, 0x9f, 0x24, 0x45, 0xdf, 0x4f, 0x9b, 0x17, 0xad, 0x2b, 0x41, 0x7b, 0xe6, 0x6c, 0x37, 0x10};
constexpr uint8_t kCipher[64] = {
    0x87, 0x4d, 0x61, 0x91, 0xb6, 0x20, 0xe3, 0x26, 0x1b, 0xef, 0x68, 0x64, 0x99, 0x0d, 0xb6, 0xce,
    0x98, 0x06, 0xf6, 0x6b, 0x79, 0x70, 0xfd, 0xff, 0x86, 0x17, 0x18, 0x7b, 0xb9, 0xff, 0xfd, 0xff,
    0x5a, 0xe4, 0xdf, 0x3e, 0xdb, 0xd5, 0xd3, 0x5e, 0x5b, 0x4f, 0x09, 0x02, 0x0d, 0xb0, 0x3e, 0xab,
    0x1e, 0x03, 0x1d, 0xda, 0x2f, 0xbe, 0x03, 0xd1, 0x79, 0x21, 0x70, 0xa0, 0xf3, 0x00, 0x9c, 0xee};

DexSecureData::secureParams_t params(const uint8_t* key, const uint8_t* counter) {
  DexSecureData::secureParams_t p = {};
  std::memcpy(p.params, key, 16);
  std::memcpy(p.params + 16, counter, 16);
  return p;
}

// Whole blocks both ways, shorter lengths as a prefix of the same key stream with nothing written
// beyond it; and from an all-ones counter the whole 128-bit block wraps to zero (expected bytes
// made once with `openssl enc -aes-128-ctr -iv ff..ff` on bytes 0..39), encrypted in place.
TEST(SecureData, NistCounterModeVectorsAtAnyLengthTheCounterWrapsAroundAndBadArgumentsAreRefused) {
  const DexSecureData::secureParams_t p = params(kKey, kInitCounter);
  uint8_t out[64] = {};
  ASSERT_EQ(DexSecureData::SECURE_OK, DexSecureData::encryptData(&p, kPlain, out, 64));
  EXPECT_EQ(0, std::memcmp(kCipher, out, 64));
  ASSERT_EQ(DexSecureData::SECURE_OK, DexSecureData::decryptData(&p, kCipher, out, 64));
  EXPECT_EQ(0, std::memcmp(kPlain, out, 64));
  for (int len : {1, 17, 37}) {
    std::memset(out, 0xEE, sizeof(out));
    ASSERT_EQ(0, DexSecureData::encryptData(&p, kPlain, out, len));
    EXPECT_EQ(0, std::memcmp(kCipher, out, len)) << len;
    EXPECT_EQ(64 - len, std::count(out + len, out + 64, 0xEE)) << "written beyond " << len;
  }

  constexpr uint8_t kWrapped[40] = {0x8a, 0xf3, 0x84, 0x02, 0x46, 0xf2, 0x80, 0xf3, 0x01, 0x39,
                                    0x76, 0x11, 0x33, 0x73, 0xa4, 0xa3, 0x6d, 0xe6, 0x79, 0x1f,
                                    0x0e, 0xad, 0x8f, 0xa4, 0x26, 0x5b, 0xea, 0x5c, 0xa5, 0x06,
                                    0x4a, 0x70, 0x77, 0x33, 0x5f, 0x63, 0x10, 0x94, 0x98, 0x98};
  uint8_t ones[16], data[40];
  std::memset(ones, 0xff, sizeof(ones));
  for (int i = 0; i < 40; ++i) data[i] = static_cast<uint8_t>(i);
  const DexSecureData::secureParams_t wrap = params(kKey, ones);
  ASSERT_EQ(0, DexSecureData::encryptData(&wrap, data, data, 40));
  EXPECT_EQ(0, std::memcmp(kWrapped, data, 40));

  // Refused arguments leave the output untouched; clearing the parameters zeroes them.
  std::memset(out, 0x33, sizeof(out));
  DexSecureData::secureParams_t q = p;
  EXPECT_EQ(DexSecureData::SECURE_ERR_ARGS, DexSecureData::encryptData(nullptr, kPlain, out, 16));
  EXPECT_EQ(DexSecureData::SECURE_ERR_ARGS, DexSecureData::encryptData(&q, nullptr, out, 16));
  EXPECT_EQ(DexSecureData::SECURE_ERR_ARGS, DexSecureData::decryptData(&q, kPlain, nullptr, 16));
  EXPECT_EQ(DexSecureData::SECURE_ERR_ARGS, DexSecureData::decryptData(&q, kPlain, out, -1));
  EXPECT_EQ(DexSecureData::SECURE_OK, DexSecureData::encryptData(&q, kPlain, out, 0));
  EXPECT_EQ(64, std::count(out, out + 64, 0x33));
  DexSecureData::clearParams(&q);
  const DexSecureData::secureParams_t zero = {};
  EXPECT_EQ(0, std::memcmp(&zero, &q, sizeof(q)));
}

}  // namespace
}  // namespace android
