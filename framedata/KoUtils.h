#pragma once
// Image utilities offered to the camera code next to the engine (the engine does not use them):
// bilinear luma and chroma upscalers, planar-to-semi-planar chroma interleaving and the
// protection of data buffers. None keeps state. The real work is done by the analysis
// library's kernels (DexFrameMetaData, DexSecureData); their results, documented there
// (DexFrameMetaData::SCALE_RESULT_T: 0 on success, negative codes for bad input), are returned
// unchanged.
#include <cstdint>

#include "KoEngineTypes.h"

namespace android {

// Bilinear scaling of an 8-bit plane: src is srcWidth x srcHeight with row stride a, dst is
// dstWidth x dstHeight with row stride b. Pixel centres are aligned (source x = (x + 0.5) *
// srcWidth / dstWidth - 0.5, clamped). Factors of exactly 3.0 both ways take the 3x kernel,
// exactly 2.25 both ways the 2.25x kernel (the inverses of the engine's reductions of 1920- and
// 1440-wide pictures to 640), anything else the generic kernel.
int LumaBiScaler(const uint8_t* src, uint8_t* dst, int srcWidth, int srcHeight, int a, int dstWidth,
                 int dstHeight, int b);

// The U and V planes (srcWidth x srcHeight chroma samples, common row stride a) scaled into one
// interleaved V,U (NV21) plane of dstWidth x dstHeight pairs with row stride b (bytes, at least
// 2 * dstWidth). Same kernel choice and geometry as LumaBiScaler.
int ChromaBiScaler(const uint8_t* srcU, const uint8_t* srcV, uint8_t* dstVU, int srcWidth,
                   int srcHeight, int dstWidth, int dstHeight, int a, int b);

// width x height samples of the U and V planes (row stride srcStride) interleaved into V,U pairs
// (row stride dstStride, at least 2 * width); the second moves 16 pairs per step.
int ChromaPlanerToSemi(const uint8_t* srcU, const uint8_t* srcV, uint8_t* dstVU, int width,
                       int height, int srcStride, int dstStride);
int ChromaPlanerToSemi16Neon(const uint8_t* srcU, const uint8_t* srcV, uint8_t* dstVU, int width,
                             int height, int srcStride, int dstStride);

// Protection of `length` bytes of input into output (the same buffer allowed). params holds the
// 16-byte AES-128 key followed by the 16-byte initial counter block (counter mode, so both calls
// perform the same transformation). Returns 1 when the library was called, 0 (touching nothing)
// for a null pointer or a length <= 0.
int KOEncryptData(const KO_SecureDataParams_t* params, const uint8_t* input, uint8_t* output,
                  int length);
int KODecryptData(const KO_SecureDataParams_t* params, const uint8_t* input, uint8_t* output,
                  int length);

}  // namespace android
