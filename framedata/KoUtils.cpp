// Kernel choice of the scalers and the parameter record of the data protection calls.
#include "KoUtils.h"

#include <cstring>

#include "DexFrameMetaData.h"
#include "DexSecureData.h"

namespace android {

namespace {

enum class ScaleKernel { k3x, k225x, kGeneric };

// Factors target / source in single precision, compared exactly: only sizes that are exact
// multiples take a specialised kernel.
ScaleKernel chooseKernel(int srcWidth, int srcHeight, int dstWidth, int dstHeight) {
  if (srcWidth <= 0 || srcHeight <= 0) return ScaleKernel::kGeneric;  // it reports the sizes
  const float fx = static_cast<float>(dstWidth) / static_cast<float>(srcWidth);
  const float fy = static_cast<float>(dstHeight) / static_cast<float>(srcHeight);
  if (fx == 3.0f && fy == 3.0f) return ScaleKernel::k3x;
  if (fx == 2.25f && fy == 2.25f) return ScaleKernel::k225x;
  return ScaleKernel::kGeneric;
}

using SecureCall = int (*)(const DexSecureData::secureParams_t*, const uint8_t*, uint8_t*, int);

int protect(SecureCall call, const KO_SecureDataParams_t* params, const uint8_t* input,
            uint8_t* output, int length) {
  if (params == nullptr || input == nullptr || output == nullptr || length <= 0) return 0;
  DexSecureData::secureParams_t p;
  static_assert(sizeof(p.params) == sizeof(*params), "key and counter block");
  p.reserved = 0;
  memcpy(p.params, params, sizeof(p.params));
  call(&p, input, output, length);
  // The copy holds the caller's key.
  DexSecureData::clearParams(&p);
  return 1;
}

}  // namespace

int LumaBiScaler(const uint8_t* src, uint8_t* dst, int srcWidth, int srcHeight, int a, int dstWidth,
                 int dstHeight, int b) {
  switch (chooseKernel(srcWidth, srcHeight, dstWidth, dstHeight)) {
    case ScaleKernel::k3x:
      return DexFrameMetaData::lumaBiUpScaler3x(src, dst, a, dstWidth, dstHeight, b);
    case ScaleKernel::k225x:
      return DexFrameMetaData::lumaBiUpScaler225x(src, dst, srcHeight, a, dstWidth, dstHeight, b);
    case ScaleKernel::kGeneric:
      break;
  }
  return DexFrameMetaData::lumaBiScalerGeneric(src, dst, srcWidth, srcHeight, a, dstWidth,
                                               dstHeight, b);
}

int ChromaBiScaler(const uint8_t* srcU, const uint8_t* srcV, uint8_t* dstVU, int srcWidth,
                   int srcHeight, int dstWidth, int dstHeight, int a, int b) {
  switch (chooseKernel(srcWidth, srcHeight, dstWidth, dstHeight)) {
    case ScaleKernel::k3x:
      return DexFrameMetaData::chromaBiUpScaler3x(srcU, srcV, dstVU, dstWidth, dstHeight, a, b);
    case ScaleKernel::k225x:
      return DexFrameMetaData::chromaBiUpScaler225x(srcU, srcV, dstVU, srcHeight, dstWidth,
                                                    dstHeight, a, b);
    case ScaleKernel::kGeneric:
      break;
  }
  return DexFrameMetaData::chromaBiScalerGeneric(srcU, srcV, dstVU, srcWidth, srcHeight, dstWidth,
                                                 dstHeight, a, b);
}

int ChromaPlanerToSemi(const uint8_t* srcU, const uint8_t* srcV, uint8_t* dstVU, int width,
                       int height, int srcStride, int dstStride) {
  return DexFrameMetaData::chromaPlanerToSemi(srcU, srcV, dstVU, width, height, srcStride,
                                              dstStride);
}

int ChromaPlanerToSemi16Neon(const uint8_t* srcU, const uint8_t* srcV, uint8_t* dstVU, int width,
                             int height, int srcStride, int dstStride) {
  return DexFrameMetaData::chromaPlanerToSemi16Neon(srcU, srcV, dstVU, width, height, srcStride,
                                                    dstStride);
}

int KOEncryptData(const KO_SecureDataParams_t* params, const uint8_t* input, uint8_t* output,
                  int length) {
  return protect(&DexSecureData::encryptData, params, input, output, length);
}

int KODecryptData(const KO_SecureDataParams_t* params, const uint8_t* input, uint8_t* output,
                  int length) {
  return protect(&DexSecureData::decryptData, params, input, output, length);
}

}  // namespace android
