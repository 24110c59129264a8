#pragma once
// Frame kernels of the analysis library: fixed-ratio reducers used by frame creation, and
// (below) the per-frame statistics, shift and histogram kernels.
#include <cstdint>

namespace android {

class DexFrameMetaData {
 public:
  DexFrameMetaData();
  ~DexFrameMetaData();

  // ---- Fixed-ratio area reducers. All return 0, or -1 (logged) for null pointers or
  // non-positive sizes. Luma reducers write a dstWidth x dstHeight plane with row stride
  // dstWidth. Chroma reducers read interleaved pairs (chroma stride in bytes) and write two
  // planes of dstWidth x dstHeight with row stride dstWidth.

  // 2x2 box average: dst(x, y) = mean of src(2x..2x+1, 2y..2y+1), rounded.
  static int downScaleLuma2x(uint8_t* dst, const uint8_t* src, int srcStride, int dstWidth,
                             int dstHeight);
  // 3x3 box average.
  static int downScaleLuma3x(uint8_t* dst, const uint8_t* src, int srcStride, int dstWidth,
                             int dstHeight);
  // 9:4 area average (each output pixel covers 2.25 x 2.25 source pixels, weighted by overlap).
  static int downscaleLuma9to4(uint8_t* dst, const uint8_t* src, int dstWidth, int dstHeight,
                               int srcStride);
  // 2x2 average of each chroma channel. flag 1: source pairs are V,U (NV21) and planeA
  // receives U, planeB V; flag 0: source pairs are U,V with the same output.
  static int decimateChroma2x(uint8_t* planeA, uint8_t* planeB, const uint8_t* src, int srcStride,
                              int dstWidth, int dstHeight, int flag);
  // 3x3 average of each chroma channel; flag as above.
  static int decimateChroma3x(uint8_t* planeA, uint8_t* planeB, const uint8_t* src, int srcStride,
                              int dstWidth, int dstHeight, int flag);
  // 9:4 area average of each channel of V,U pairs: planeA receives U, planeB V.
  static int downscaleChroma9to4(uint8_t* planeA, uint8_t* planeB, const uint8_t* src,
                                 int dstWidth, int dstHeight, int srcStride);
};

}  // namespace android
