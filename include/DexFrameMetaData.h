#pragma once
// Frame kernels of the analysis library: fixed-ratio reducers used by frame creation, and
// (below) the per-frame statistics, shift and histogram kernels.
#include <cstdint>

namespace android {

class KoFrameHistSnapshot;

// Statistics of a set of values (pixels, differences, gradient magnitudes or per-frame means),
// read by word by the engine and the statistics record. Words 1 and 2 both hold the standard
// deviation: the engine reads `stddev`, the capture record prints word 1.
struct KO_dataStats_t {
  float mean;
  float stddevCopy;  // same value as stddev
  float stddev;
  float min;
  float max;
};
static_assert(sizeof(KO_dataStats_t) == 20, "KO_dataStats_t is read by word");

class DexFrameMetaData {
 public:
  // Result of calculateShift. The caller presets searchRange; the kernel fills the rest.
  struct xyShift {
    int32_t dx;           // best shift of B against A: B(x + dx, y + dy) matches A(x, y)
    int32_t dy;
    int32_t searchRange;  // +/- range searched, in analysis pixels (<= 0: 40)
    float a;              // mean absolute luma difference at zero shift (grey levels)
    float b;              // mean absolute luma difference at the best shift
  };
  static_assert(sizeof(xyShift) == 20, "xyShift is read by word");

  DexFrameMetaData();
  ~DexFrameMetaData();

  // ---- Per-frame statistics. All return 0, or -1 (logged, outputs untouched) for null
  // pointers or non-positive sizes. None of them allocates memory.
  //
  // Every kernel has a vector path (SSE2 on x86, NEON on ARM) and a portable C path. Counts,
  // sums, minima and maxima of integer values are exact, so luma, difference and histogram
  // results are the same bit for bit on either path, and so are the gradient minimum and
  // maximum. The gradient mean is a float sum of per-pixel magnitudes (in eight lanes over
  // chunks of at most 1024 pixels, each chunk closed in double precision): it is within a
  // relative 1e-5 of the exactly summed mean. The standard deviation comes from the exact mean
  // square less the squared mean: within a relative 1e-4, or, where the magnitudes hardly vary
  // (spread below 1% of the mean), within 5e-3 of the mean; exactly 0 when all are equal. Both
  // paths add the same values in the same order and agree bit for bit, except on 32-bit ARM,
  // where the vector square roots are rounded differently (within the same tolerances).

  // Vector paths of these kernels on (the default) or off (portable C everywhere), process-wide;
  // for tests and benchmarks.
  static void setSimdEnabled(bool enabled);

  // Mean and standard deviation (population) of a w x h plane with the given row stride, in
  // double precision; both 0 for an empty plane.
  static void meanAndSpread2D(const uint8_t* img, int w, int h, int stride, double* mean,
                              double* spread);
  // Mean, standard deviation, min and max of n bytes.
  static int calcMeanStddev(const uint8_t* img, KO_dataStats_t* stats, int n);
  // Statistics of |cur - prev| over n bytes.
  static int calcMFrameDiff(const uint8_t* cur, const uint8_t* prev, KO_dataStats_t* stats,
                            int n);
  // Luma histogram of a w x h region with `bins` equal-width bins (a power of two, 1..256);
  // bin i counts the values v with v * bins / 256 == i. The counts sum to w * h.
  static int genHistogramPow2(const uint8_t* img, uint32_t* hist, int w, int h, int stride,
                              int bins);
  // 3x3 Sobel of a w x h image (row stride w): gx into scratch1, gy into scratch2 (w * h int16
  // values each, the one-pixel border set to 0), and statistics of the gradient magnitude
  // sqrt(gx^2 + gy^2) / 4 over the interior pixels. flags is reserved (pass 0).
  static int calcSobelFrame(const uint8_t* img, KO_dataStats_t* stats, int w, int h, int flags,
                            int16_t* scratch1, int16_t* scratch2);
  // The same gradient-magnitude statistics over the interior of the w x h region at (x, y)
  // of an image with the given row stride (pixels outside the region are never read).
  static int calcSobel2DRegion(const uint8_t* img, KO_dataStats_t& stats, int x, int y, int w,
                               int h, int stride, int flags);

  // The per-frame step in one call, on the small w x h luma image of a frame (row stride w for
  // both images): the results of
  //   calcMeanStddev(cur, luma, w * h);
  //   calcSobelFrame(cur, sobel, w, h, 0, gx, gy);
  //   calcMFrameDiff(cur, prev, diff, w * h);
  //   genHistogramPow2(cur, hist, w, h, w, bins);
  // bit for bit, in two passes over the image instead of four: luma and difference from the
  // same loads, then the gradients with the histogram counted alongside. prev may be null: diff
  // is then zeroed. hist may be null: no histogram is made and bins is not looked at. Returns 0, or -1 (logged, nothing
  // written) for a null image, record or gradient plane, non-positive sizes, or bins that are
  // not a power of two in 1..256 while hist is given.
  static int calcSmallFrameStats(const uint8_t* cur, const uint8_t* prev, int w, int h,
                                 KO_dataStats_t* luma, KO_dataStats_t* sobel,
                                 KO_dataStats_t* diff, uint32_t* hist, int bins, int16_t* gx,
                                 int16_t* gy);

  // Global translation of B against A. A and B are w x h views (row stride w); smallA and
  // smallB their 2x reductions (sw x sh, stride sw). The search runs exhaustively on a further
  // 2x reduction of the small images, is refined on the small images and then on the views.
  // Differences are taken over the central window that stays inside both images for every
  // shift in range, after bringing B to A's exposure at each level (B's mean and standard
  // deviation matched to A's, gain limited to 1/4..4): an exposure step between the frames
  // (gain or offset) then reads as neither a shift nor a difference, and a and b stay in
  // A's grey levels. Fills dx, dy, a and b; returns 0, or -1 (logged, shift untouched) for null
  // pointers, bad sizes or images too small for any search.
  static int calculateShift(const uint8_t* imageA, const uint8_t* imageB, int w, int h,
                            const uint8_t* smallA, const uint8_t* smallB, int sw, int sh,
                            xyShift* shift);

  // Bhattacharyya distance sqrt(1 - sum sqrt(pA * pB)) of the two histograms normalised to
  // unit sum (negative counts count as 0): 0.0 for identical shapes, 1.0 for no overlap and
  // whenever a histogram is empty or an argument is invalid (logged).
  static float calcBhattacharyyaCoeff(const int* histA, const int* histB, int bins);

  // Statistics, over the first `count` frames of the snapshot (oldest first), of the per-frame
  // mean selected by type: 0 luma (mLumaStats), 1 frame difference (mDiffStats), 2 Sobel
  // (mSobelStats). Frames without statistics (processed bit 0x20000 clear) are skipped. flags
  // is reserved (pass 0). Returns 0; -1 (logged) for invalid arguments, stats untouched; and
  // -1 with stats zeroed when no frame had statistics.
  static int KoCalcMeanStddevMinMeanQueue(KoFrameHistSnapshot* snapshot, KO_dataStats_t* stats,
                                          int count, int type, int flags);

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

  // =============================================================================================
  // Bilinear upscalers and planar-to-semi-planar chroma interleaving.
  //
  // Geometry of every scaler: pixel centres are aligned, so target pixel (x, y) samples the
  // source at x' = (x + 0.5) * srcWidth / dstWidth - 0.5 and y' likewise, each clamped to the
  // picture (edge pixels repeat), and takes the bilinear interpolation of the four neighbours.
  // Every kernel is within +/-2 grey levels per pixel (mean absolute error <= 0.5) of that
  // interpolation computed exactly:
  //   - The 3x and 2.25x kernels use the exact periodic weights of their ratio (thirds,
  //     eighteenths) in integers: no per-pixel division, whole-row loops the compiler turns into
  //     SIMD code. The 3x kernel rounds the exact interpolation to nearest; the 2.25x kernel is
  //     within 0.02 of it before rounding. Both agree with the generic kernel within +/-1.
  //   - The generic kernel takes any sizes (also downscaling, where bilinear sampling aliases);
  //     its weights are quantised to 1/256, which keeps it within about 1 of the exact value
  //     before rounding (1.5 after).
  // Luma kernels write dstWidth bytes per target row; chroma kernels read two planes (U, V)
  // with a common stride and write dstWidth interleaved V,U pairs (NV21 order, 2 * dstWidth
  // bytes) per target row. Chroma sizes count chroma samples. Bytes between the end of a
  // target row and the next row (stride padding) are never written, nor is anything on error.
  //
  // Results of all kernels of this section:
  enum SCALE_RESULT_T {
    SCALE_OK = 0,
    SCALE_ERR_NULL = -1,        // an image pointer is null
    SCALE_ERR_SIZE = -2,        // a size <= 0, or one the kernel cannot take (3x: target sizes
                                // not multiples of 3; 2.25x: target width not a multiple of 9
                                // or source height not a multiple of 4)
    SCALE_ERR_STRIDE = -3,      // a row stride smaller than the row it holds
    SCALE_ERR_RATIO = -4,       // 2.25x: target height is not 2.25 x source height (a target
                                // smaller than the source included)
    SCALE_ERR_NO_MEMORY = -12,  // scratch rows could not be allocated
  };

  // Luma 3x: source (dstWidth / 3) x (dstHeight / 3) with row stride srcStride, target
  // dstWidth x dstHeight with row stride dstStride.
  static int lumaBiUpScaler3x(const uint8_t* src, uint8_t* dst, int srcStride, int dstWidth,
                              int dstHeight, int dstStride);
  // Luma 2.25x: source (dstWidth * 4 / 9) x srcHeight, target dstWidth x dstHeight with
  // dstHeight == srcHeight * 9 / 4.
  static int lumaBiUpScaler225x(const uint8_t* src, uint8_t* dst, int srcHeight, int srcStride,
                                int dstWidth, int dstHeight, int dstStride);
  // Luma, any sizes.
  static int lumaBiScalerGeneric(const uint8_t* src, uint8_t* dst, int srcWidth, int srcHeight,
                                 int srcStride, int dstWidth, int dstHeight, int dstStride);

  // Chroma 3x: planes of (dstWidth / 3) x (dstHeight / 3) into dstWidth x dstHeight pairs.
  static int chromaBiUpScaler3x(const uint8_t* srcU, const uint8_t* srcV, uint8_t* dstVU,
                                int dstWidth, int dstHeight, int srcStride, int dstStride);
  // Chroma 2.25x: planes of (dstWidth * 4 / 9) x srcHeight, dstHeight == srcHeight * 9 / 4.
  static int chromaBiUpScaler225x(const uint8_t* srcU, const uint8_t* srcV, uint8_t* dstVU,
                                  int srcHeight, int dstWidth, int dstHeight, int srcStride,
                                  int dstStride);
  // Chroma, any sizes.
  static int chromaBiScalerGeneric(const uint8_t* srcU, const uint8_t* srcV, uint8_t* dstVU,
                                   int srcWidth, int srcHeight, int dstWidth, int dstHeight,
                                   int srcStride, int dstStride);

  // Interleaves width x height samples of the U and V planes (common stride srcStride) into
  // V,U pairs (NV21 order; dstStride >= 2 * width). The 16 variant moves 16 pairs per step with
  // SIMD stores (SSE2 or NEON where built for them) and finishes any width. Both give the same
  // bytes. SCALE_ERR_NULL, SCALE_ERR_SIZE or SCALE_ERR_STRIDE on bad input.
  static int chromaPlanerToSemi(const uint8_t* srcU, const uint8_t* srcV, uint8_t* dstVU,
                                int width, int height, int srcStride, int dstStride);
  static int chromaPlanerToSemi16Neon(const uint8_t* srcU, const uint8_t* srcV, uint8_t* dstVU,
                                      int width, int height, int srcStride, int dstStride);
  // =============================================================================================
};

}  // namespace android
