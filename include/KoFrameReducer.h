#pragma once
// One streaming pass over an NV21 camera frame that makes every picture frame creation needs:
// the planar 4:2:0 copy at the analysis size (luma and both chroma channels area-averaged by
// 2, 3 or 9/4) and the small luma image of its analysis band (2x2 average of the reduced luma).
//
// The camera frame is the only large read of the whole ingest, so it is read exactly once: each
// reduced row is made while the source rows it covers are in cache, each chroma row right after
// the luma rows of the same source band, and each small row from two reduced rows that were
// just written. The bytes are those of DexFrameMetaData's reducers (downScaleLuma2x/3x,
// downscaleLuma9to4, decimateChroma2x/3x with NV21 order, downscaleChroma9to4) followed by
// downScaleLuma2x of the band: every output is the overlap-weighted mean of its source area,
// rounded to nearest, in exact integer arithmetic.
//
// The row kernels come in a portable C version and vector versions (SSSE3 and AVX2 on x86, chosen
// at run time from the CPU; NEON on ARM): all give the same bytes. setKernels() picks a set
// process-wide (for tests and benchmarks); setSimdEnabled(false) forces the C rows.
#include <cstdint>

namespace android {

class KoFrameReducer {
 public:
  // Reduces an NV21 frame of srcWidth x srcHeight (luma rows lumaStride bytes apart, V,U chroma
  // pair rows chromaStride bytes apart) to dstWidth x dstHeight, where dst is 2, 3 or 9/4 times
  // smaller in both directions. dst receives the planar picture: luma (row stride dstWidth), then
  // plane A = U, then plane B = V (dstWidth / 2 x dstHeight / 2 each, row stride dstWidth / 2).
  // When `small` is not null it receives the (dstWidth / 2) x smallHeight 2x2 average of the
  // reduced luma rows bandTop .. bandTop + 2 * smallHeight - 1 (row stride dstWidth / 2).
  // Returns 0, or -1 (logged, nothing written) for null pointers, sizes that are not one of the
  // three ratios (dstWidth a multiple of 16, dstHeight of 2), strides smaller than the rows or a
  // band outside the reduced picture.
  static int reduceNv21(const uint8_t* srcLuma, int lumaStride, const uint8_t* srcVU,
                        int chromaStride, int srcWidth, int srcHeight, uint8_t* dst, int dstWidth,
                        int dstHeight, uint8_t* small, int bandTop, int smallHeight);

  // Process-wide choice of the row kernels. Every set gives the same bytes; the default is the
  // fastest. A set the CPU (or the build) lacks falls back to the next slower one.
  enum KernelSet {
    KERNELS_PORTABLE = 0,  // plain C++
    KERNELS_VECTOR = 1,    // 128-bit vectors: SSSE3 on x86, NEON on ARM
    KERNELS_FASTEST = 2,   // AVX2 where the CPU has it, else as KERNELS_VECTOR
  };
  static void setKernels(KernelSet kernels);
  static KernelSet kernels();
  // setSimdEnabled(false) selects KERNELS_PORTABLE, setSimdEnabled(true) KERNELS_FASTEST.
  static void setSimdEnabled(bool enabled);
  // Name of the row kernels in use: "avx2", "ssse3", "neon" or "c".
  static const char* rowKernels();

  // Largest reduced width the pass takes (its row scratch lives on the stack).
  static constexpr int kMaxDstWidth = 1024;
};

}  // namespace android
