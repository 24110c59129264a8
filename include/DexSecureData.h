#pragma once
// Data protection of the analysis library: AES-128 in counter mode (NIST SP 800-38A, the whole
// 128-bit counter block incremented big-endian per 16-byte block), so that encryption and
// decryption are the same operation and any length is allowed. The key and the initial counter
// block travel in the caller's parameter record for each call; nothing derived from them is
// kept after a call returns.
#include <cstdint>

namespace android {

class DexSecureData {
 public:
  // Parameter record of a call.
  struct secureParams_t {
    uint32_t reserved;              // 0
    alignas(8) uint8_t params[32];  // 16-byte AES-128 key, then the 16-byte initial counter block
  };
  static_assert(sizeof(secureParams_t) == 40, "secureParams_t layout");

  enum SECURE_RESULT_T {
    SECURE_OK = 0,
    SECURE_ERR_ARGS = -1,    // null pointer or negative length
    SECURE_ERR_CIPHER = -2,  // the cipher could not be set up or run
  };

  // Transforms `length` bytes of `input` into `output` (input == output allowed; other overlaps
  // are not). A length of 0 does nothing and returns SECURE_OK.
  static int encryptData(const secureParams_t* params, const uint8_t* input, uint8_t* output,
                         int length);
  // Same operation as encryptData: counter mode is its own inverse.
  static int decryptData(const secureParams_t* params, const uint8_t* input, uint8_t* output,
                         int length);

  // Wipes a parameter record (key material) in a way the compiler does not drop.
  static void clearParams(secureParams_t* params);
};

}  // namespace android
