// AES-128-CTR through OpenSSL's EVP interface. The cipher context holds the expanded key and
// the current key-stream block; it lives only for one call and is freed (which clears it)
// before returning, on every path.
#include "DexSecureData.h"

#include <log/log.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>

namespace android {

namespace {

constexpr const char* kTag = "DexSecureData";
constexpr int kKeyBytes = 16;

int transform(const char* func, const DexSecureData::secureParams_t* params, const uint8_t* input,
              uint8_t* output, int length) {
  if (params == nullptr || input == nullptr || output == nullptr || length < 0) {
    __android_log_print(ANDROID_LOG_ERROR, kTag, "%s: invalid arguments (length %d)", func, length);
    return DexSecureData::SECURE_ERR_ARGS;
  }
  if (length == 0) return DexSecureData::SECURE_OK;
  EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
  if (ctx == nullptr) {
    __android_log_print(ANDROID_LOG_ERROR, kTag, "%s: no cipher context", func);
    return DexSecureData::SECURE_ERR_CIPHER;
  }
  int written = 0;
  int finalBytes = 0;
  // CTR adds no padding: the final call writes nothing, this only gives it a valid address.
  uint8_t finalBlock[16];
  const bool ok = EVP_EncryptInit_ex(ctx, EVP_aes_128_ctr(), nullptr, params->params,
                                     params->params + kKeyBytes) == 1 &&
                  EVP_EncryptUpdate(ctx, output, &written, input, length) == 1 &&
                  written == length && EVP_EncryptFinal_ex(ctx, finalBlock, &finalBytes) == 1 &&
                  finalBytes == 0;
  EVP_CIPHER_CTX_free(ctx);
  OPENSSL_cleanse(finalBlock, sizeof(finalBlock));
  if (!ok) {
    __android_log_print(ANDROID_LOG_ERROR, kTag, "%s: cipher failed on %d bytes", func, length);
    return DexSecureData::SECURE_ERR_CIPHER;
  }
  return DexSecureData::SECURE_OK;
}

}  // namespace

int DexSecureData::encryptData(const secureParams_t* params, const uint8_t* input, uint8_t* output,
                               int length) {
  return transform(__func__, params, input, output, length);
}

int DexSecureData::decryptData(const secureParams_t* params, const uint8_t* input, uint8_t* output,
                               int length) {
  return transform(__func__, params, input, output, length);
}

void DexSecureData::clearParams(secureParams_t* params) {
  if (params != nullptr) OPENSSL_cleanse(params, sizeof(*params));
}

}  // namespace android
