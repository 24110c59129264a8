// AES-128-CTR data protection: the NIST SP 800-38A vectors, counter wrap-around as the OpenSSL
// command line computes it, arbitrary lengths, in-place use and refused arguments.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <vector>

#include "DexSecureData.h"

namespace android {
namespace {

// SP 800-38A, F.5.1 (CTR-AES128.Encrypt) and F.5.2 (CTR-AES128.Decrypt).
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

// Whole blocks, and any shorter length as the prefix of the same key stream (37 bytes are the
// first 37 of the 64-byte result), writing nothing beyond it.
TEST(SecureData, NistCounterModeVectorsAtAnyLength) {
  const DexSecureData::secureParams_t p = params(kKey, kInitCounter);
  uint8_t out[64] = {};
  ASSERT_EQ(DexSecureData::SECURE_OK, DexSecureData::encryptData(&p, kPlain, out, 64));
  EXPECT_EQ(0, std::memcmp(kCipher, out, 64));
  ASSERT_EQ(DexSecureData::SECURE_OK, DexSecureData::decryptData(&p, kCipher, out, 64));
  EXPECT_EQ(0, std::memcmp(kPlain, out, 64));
  for (int len : {1, 16, 17, 37}) {
    std::memset(out, 0xEE, sizeof(out));
    ASSERT_EQ(0, DexSecureData::encryptData(&p, kPlain, out, len));
    EXPECT_EQ(0, std::memcmp(kCipher, out, len)) << len;
    EXPECT_EQ(64 - len, std::count(out + len, out + 64, 0xEE)) << "written beyond " << len;
  }
}

// The whole 128-bit counter block is incremented: from all ones it wraps to zero. Expected
// bytes made once with the OpenSSL command line:
//   python3 -c "import sys; sys.stdout.buffer.write(bytes(range(40)))" > pt.bin
//   openssl enc -aes-128-ctr -K 2b7e151628aed2a6abf7158809cf4f3c
//     -iv ffffffffffffffffffffffffffffffff -in pt.bin | xxd -i    (one command line)
TEST(SecureData, CounterWrapsAroundLikeOpenSslCommandLine) {
  constexpr uint8_t kExpected[40] = {0x8a, 0xf3, 0x84, 0x02, 0x46, 0xf2, 0x80, 0xf3, 0x01, 0x39,
                                     0x76, 0x11, 0x33, 0x73, 0xa4, 0xa3, 0x6d, 0xe6, 0x79, 0x1f,
                                     0x0e, 0xad, 0x8f, 0xa4, 0x26, 0x5b, 0xea, 0x5c, 0xa5, 0x06,
                                     0x4a, 0x70, 0x77, 0x33, 0x5f, 0x63, 0x10, 0x94, 0x98, 0x98};
  uint8_t ones[16];
  std::memset(ones, 0xff, sizeof(ones));
  const DexSecureData::secureParams_t p = params(kKey, ones);
  uint8_t data[40];
  for (int i = 0; i < 40; ++i) data[i] = static_cast<uint8_t>(i);
  ASSERT_EQ(0, DexSecureData::encryptData(&p, data, data, 40));
  EXPECT_EQ(0, std::memcmp(kExpected, data, 40));
}

TEST(SecureData, MegabyteRoundTripInPlace) {
  std::vector<uint8_t> original(1 << 20);
  std::mt19937 rng(7);
  for (uint8_t& b : original) b = static_cast<uint8_t>(rng());
  uint8_t counter[16];
  for (int i = 0; i < 16; ++i) counter[i] = static_cast<uint8_t>(0xf8 + i);  // carries over bytes
  const DexSecureData::secureParams_t p = params(kKey, counter);
  std::vector<uint8_t> data = original;
  const int n = static_cast<int>(data.size());
  ASSERT_EQ(0, DexSecureData::encryptData(&p, data.data(), data.data(), n));
  // The key stream never repeats a block: hardly any byte survives encryption.
  size_t same = 0;
  for (size_t i = 0; i < data.size(); ++i) same += data[i] == original[i];
  EXPECT_LT(same, data.size() / 128);
  // The same transformation out of place gives the same bytes.
  std::vector<uint8_t> copy(original.size());
  ASSERT_EQ(0, DexSecureData::encryptData(&p, original.data(), copy.data(), n));
  EXPECT_EQ(data, copy);
  ASSERT_EQ(0, DexSecureData::decryptData(&p, data.data(), data.data(), n));
  EXPECT_EQ(original, data);
}

TEST(SecureData, RefusedArgumentsLeaveOutputUntouched) {
  DexSecureData::secureParams_t p = params(kKey, kInitCounter);
  uint8_t out[16];
  std::memset(out, 0x33, sizeof(out));
  EXPECT_EQ(DexSecureData::SECURE_ERR_ARGS, DexSecureData::encryptData(nullptr, kPlain, out, 16));
  EXPECT_EQ(DexSecureData::SECURE_ERR_ARGS, DexSecureData::encryptData(&p, nullptr, out, 16));
  EXPECT_EQ(DexSecureData::SECURE_ERR_ARGS, DexSecureData::decryptData(&p, kPlain, nullptr, 16));
  EXPECT_EQ(DexSecureData::SECURE_ERR_ARGS, DexSecureData::decryptData(&p, kPlain, out, -1));
  EXPECT_EQ(DexSecureData::SECURE_OK, DexSecureData::encryptData(&p, kPlain, out, 0));
  EXPECT_EQ(16, std::count(out, out + 16, 0x33));

  DexSecureData::clearParams(&p);
  const DexSecureData::secureParams_t zero = {};
  EXPECT_EQ(0, std::memcmp(&zero, &p, sizeof(p)));
}

}  // namespace
}  // namespace android
