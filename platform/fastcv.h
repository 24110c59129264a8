#pragma once
// The few FastCV calls the engine uses: aligned image memory and the general M:N area
// reducers of a plane and of an interleaved two-channel plane.
#include <cstdint>

extern "C" {

// Memory aligned to `alignment` bytes (a power of two, at least 16 is used); freed with
// fcvMemFree. Returns null on failure or for 0 bytes.
void* fcvMemAlloc(unsigned int bytes, unsigned int alignment);
void fcvMemFree(void* ptr);

// Area-averaging reduction of an 8-bit plane from srcWidth x srcHeight (row stride srcStride)
// to dstWidth x dstHeight (row stride dstStride). The target must not be larger than the source.
void fcvScaleDownMNu8(const uint8_t* src, unsigned int srcWidth, unsigned int srcHeight,
                      unsigned int srcStride, uint8_t* dst, unsigned int dstWidth,
                      unsigned int dstHeight, unsigned int dstStride);

// The same for a plane of interleaved two-byte pairs: srcWidth and dstWidth count pairs,
// strides count bytes. Each channel is reduced on its own and the pairs stay interleaved.
void fcvScaleDownMNInterleaveu8(const uint8_t* src, unsigned int srcWidth, unsigned int srcHeight,
                                unsigned int srcStride, uint8_t* dst, unsigned int dstWidth,
                                unsigned int dstHeight, unsigned int dstStride);
}
