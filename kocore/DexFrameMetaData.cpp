// Fixed-ratio area reducers of the analysis library. Every reducer is a plain area average:
// each output sample is the overlap-weighted mean of the source samples it covers, computed in
// integers with rounding to nearest. The inner loops are written over whole rows so that the
// compiler can vectorise them.
#include "DexFrameMetaData.h"

#include <log/log.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdlib>
#include <memory>
#include <new>
#include <vector>

#if defined(__ARM_NEON)
#include <arm_neon.h>
#elif defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "KoFrameHistSnapshot.h"

namespace android {

namespace {

constexpr const char* kTag = "DexFrameMetaData";

bool badArgs(const char* func, const void* a, const void* b, const void* c, int w, int h,
             int stride, int minStride) {
  if (a == nullptr || b == nullptr || c == nullptr) {
    __android_log_print(ANDROID_LOG_ERROR, kTag, "%s: null pointer argument", func);
    return true;
  }
  if (w <= 0 || h <= 0 || stride <= 0) {
    __android_log_print(ANDROID_LOG_ERROR, kTag, "%s: invalid size %dx%d stride %d", func, w, h,
                        stride);
    return true;
  }
  if (stride < minStride) {
    __android_log_print(ANDROID_LOG_ERROR, kTag, "%s: stride %d too small for width %d (need %d)",
                        func, stride, w, minStride);
    return true;
  }
  return false;
}

// Overlap of output sample k (phase k % 4) with the three source samples it touches, in
// quarters of a source sample: an output sample spans 2.25 source samples.
constexpr int kW94[4][3] = {{4, 4, 1}, {3, 4, 2}, {2, 4, 3}, {1, 4, 4}};
// First source sample touched by the output phase within a group of 9 source samples.
constexpr int kOff94[4] = {0, 2, 4, 6};

// Horizontal 9:4 pass over one source row of samples spaced `step` bytes apart, starting at
// `src`; writes dstWidth weighted sums (weights sum to 9 per output).
inline void rowSum94(const uint8_t* src, int step, int dstWidth, uint16_t* out) {
  for (int x = 0; x < dstWidth; ++x) {
    const int g = x >> 2;
    const int p = x & 3;
    const uint8_t* s = src + (g * 9 + kOff94[p]) * step;
    out[x] = static_cast<uint16_t>(kW94[p][0] * s[0] + kW94[p][1] * s[step] +
                                   kW94[p][2] * s[2 * step]);
  }
}

// Full 9:4 area reduction of a channel whose samples are `step` bytes apart.
void reduce94(uint8_t* dst, const uint8_t* src, int srcStride, int step, int dstWidth,
              int dstHeight, uint16_t* rows /* 3 * dstWidth */) {
  uint16_t* r0 = rows;
  uint16_t* r1 = rows + dstWidth;
  uint16_t* r2 = rows + 2 * dstWidth;
  for (int y = 0; y < dstHeight; ++y) {
    const int g = y >> 2;
    const int p = y & 3;
    const uint8_t* s = src + static_cast<long>(g * 9 + kOff94[p]) * srcStride;
    rowSum94(s, step, dstWidth, r0);
    rowSum94(s + srcStride, step, dstWidth, r1);
    rowSum94(s + 2 * srcStride, step, dstWidth, r2);
    const int w0 = kW94[p][0], w1 = kW94[p][1], w2 = kW94[p][2];
    uint8_t* d = dst + static_cast<long>(y) * dstWidth;
    for (int x = 0; x < dstWidth; ++x) {
      const uint32_t sum = w0 * r0[x] + w1 * r1[x] + w2 * r2[x];  // total weight 81
      d[x] = static_cast<uint8_t>((sum + 40) / 81);
    }
  }
}

}  // namespace

DexFrameMetaData::DexFrameMetaData() = default;
DexFrameMetaData::~DexFrameMetaData() = default;

int DexFrameMetaData::downScaleLuma2x(uint8_t* dst, const uint8_t* src, int srcStride,
                                      int dstWidth, int dstHeight) {
  if (badArgs(__func__, dst, src, src, dstWidth, dstHeight, srcStride, 2 * dstWidth)) return -1;
  for (int y = 0; y < dstHeight; ++y) {
    const uint8_t* s0 = src + static_cast<long>(2 * y) * srcStride;
    const uint8_t* s1 = s0 + srcStride;
    uint8_t* d = dst + static_cast<long>(y) * dstWidth;
    for (int x = 0; x < dstWidth; ++x) {
      d[x] = static_cast<uint8_t>((s0[2 * x] + s0[2 * x + 1] + s1[2 * x] + s1[2 * x + 1] + 2) >> 2);
    }
  }
  return 0;
}

int DexFrameMetaData::downScaleLuma3x(uint8_t* dst, const uint8_t* src, int srcStride,
                                      int dstWidth, int dstHeight) {
  if (badArgs(__func__, dst, src, src, dstWidth, dstHeight, srcStride, 3 * dstWidth)) return -1;
  for (int y = 0; y < dstHeight; ++y) {
    const uint8_t* s0 = src + static_cast<long>(3 * y) * srcStride;
    const uint8_t* s1 = s0 + srcStride;
    const uint8_t* s2 = s1 + srcStride;
    uint8_t* d = dst + static_cast<long>(y) * dstWidth;
    for (int x = 0; x < dstWidth; ++x) {
      const int i = 3 * x;
      const int sum = s0[i] + s0[i + 1] + s0[i + 2] + s1[i] + s1[i + 1] + s1[i + 2] + s2[i] +
                      s2[i + 1] + s2[i + 2];
      d[x] = static_cast<uint8_t>((sum + 4) / 9);
    }
  }
  return 0;
}

int DexFrameMetaData::downscaleLuma9to4(uint8_t* dst, const uint8_t* src, int dstWidth,
                                        int dstHeight, int srcStride) {
  if (badArgs(__func__, dst, src, src, dstWidth, dstHeight, srcStride, (dstWidth * 9 + 3) / 4)) {
    return -1;
  }
  std::vector<uint16_t> rows(3 * static_cast<size_t>(dstWidth));
  reduce94(dst, src, srcStride, 1, dstWidth, dstHeight, rows.data());
  return 0;
}

namespace {

// Box average of both channels of interleaved chroma pairs by an integer factor f (2 or 3).
// `firstIsV` tells whether the first byte of each pair is V (NV21) or U.
template <int f>
void decimatePairs(uint8_t* planeU, uint8_t* planeV, const uint8_t* src, int srcStride,
                   int dstWidth, int dstHeight, bool firstIsV) {
  constexpr int kArea = f * f;
  uint8_t* out0 = firstIsV ? planeV : planeU;
  uint8_t* out1 = firstIsV ? planeU : planeV;
  for (int y = 0; y < dstHeight; ++y) {
    const uint8_t* s = src + static_cast<long>(f * y) * srcStride;
    uint8_t* d0 = out0 + static_cast<long>(y) * dstWidth;
    uint8_t* d1 = out1 + static_cast<long>(y) * dstWidth;
    for (int x = 0; x < dstWidth; ++x) {
      int sum0 = 0;
      int sum1 = 0;
      for (int j = 0; j < f; ++j) {
        const uint8_t* r = s + static_cast<long>(j) * srcStride + 2 * f * x;
        for (int i = 0; i < f; ++i) {
          sum0 += r[2 * i];
          sum1 += r[2 * i + 1];
        }
      }
      d0[x] = static_cast<uint8_t>((sum0 + kArea / 2) / kArea);
      d1[x] = static_cast<uint8_t>((sum1 + kArea / 2) / kArea);
    }
  }
}

}  // namespace

int DexFrameMetaData::decimateChroma2x(uint8_t* planeA, uint8_t* planeB, const uint8_t* src,
                                       int srcStride, int dstWidth, int dstHeight, int flag) {
  if (badArgs(__func__, planeA, planeB, src, dstWidth, dstHeight, srcStride, 4 * dstWidth)) {
    return -1;
  }
  decimatePairs<2>(planeA, planeB, src, srcStride, dstWidth, dstHeight, flag != 0);
  return 0;
}

int DexFrameMetaData::decimateChroma3x(uint8_t* planeA, uint8_t* planeB, const uint8_t* src,
                                       int srcStride, int dstWidth, int dstHeight, int flag) {
  if (badArgs(__func__, planeA, planeB, src, dstWidth, dstHeight, srcStride, 6 * dstWidth)) {
    return -1;
  }
  decimatePairs<3>(planeA, planeB, src, srcStride, dstWidth, dstHeight, flag != 0);
  return 0;
}

int DexFrameMetaData::downscaleChroma9to4(uint8_t* planeA, uint8_t* planeB, const uint8_t* src,
                                          int dstWidth, int dstHeight, int srcStride) {
  if (badArgs(__func__, planeA, planeB, src, dstWidth, dstHeight, srcStride,
              2 * ((dstWidth * 9 + 3) / 4))) {
    return -1;
  }
  std::vector<uint16_t> rows(3 * static_cast<size_t>(dstWidth));
  // Pairs are V,U: the second byte of each pair is U (plane A), the first V (plane B).
  reduce94(planeA, src + 1, srcStride, 2, dstWidth, dstHeight, rows.data());
  reduce94(planeB, src, srcStride, 2, dstWidth, dstHeight, rows.data());
  return 0;
}

// ---------------------------------------------------------------------------------------------
// Per-frame statistics.

namespace {

// Running sums of a set of values; turned into a KO_dataStats_t at the end.
struct Accum {
  double sum = 0;
  double sumSq = 0;
  float lo = 0;
  float hi = 0;
  long n = 0;

  void fill(KO_dataStats_t* out) const {
    KO_dataStats_t r{};
    if (n > 0) {
      const double mean = sum / static_cast<double>(n);
      const double var = std::max(0.0, sumSq / static_cast<double>(n) - mean * mean);
      r.mean = static_cast<float>(mean);
      r.stddev = static_cast<float>(std::sqrt(var));
      r.stddevCopy = r.stddev;
      r.min = lo;
      r.max = hi;
    }
    *out = r;
  }
};

// Byte-valued sets: histogram-free integer sums are exact and vectorise.
void statsOfBytes(const uint8_t* v, int n, KO_dataStats_t* out) {
  uint64_t sum = 0;
  uint64_t sumSq = 0;
  int lo = 255;
  int hi = 0;
  for (int i = 0; i < n; ++i) {
    const uint32_t x = v[i];
    sum += x;
    sumSq += x * x;
    lo = std::min(lo, static_cast<int>(x));
    hi = std::max(hi, static_cast<int>(x));
  }
  Accum a;
  a.sum = static_cast<double>(sum);
  a.sumSq = static_cast<double>(sumSq);
  a.lo = static_cast<float>(lo);
  a.hi = static_cast<float>(hi);
  a.n = n;
  a.fill(out);
}

inline float sobelMagnitude(int gx, int gy) {
  return std::sqrt(static_cast<float>(gx * gx + gy * gy)) * 0.25f;
}

// Gradient statistics over the interior of a w x h block at `img` (row stride `stride`);
// optionally stores gx, gy (row stride w) into the scratch planes.
void sobelStats(const uint8_t* img, int w, int h, int stride, int16_t* gxOut, int16_t* gyOut,
                KO_dataStats_t* out) {
  Accum a;
  a.lo = 1e30f;
  a.hi = 0;
  std::vector<float> mag(w > 2 ? w - 2 : 0);
  for (int y = 1; y + 1 < h; ++y) {
    const uint8_t* r0 = img + static_cast<long>(y - 1) * stride;
    const uint8_t* r1 = r0 + stride;
    const uint8_t* r2 = r1 + stride;
    double rowSum = 0;
    double rowSq = 0;
    for (int x = 1; x + 1 < w; ++x) {
      const int gx = (r0[x + 1] - r0[x - 1]) + 2 * (r1[x + 1] - r1[x - 1]) + (r2[x + 1] - r2[x - 1]);
      const int gy = (r2[x - 1] - r0[x - 1]) + 2 * (r2[x] - r0[x]) + (r2[x + 1] - r0[x + 1]);
      if (gxOut != nullptr) {
        gxOut[static_cast<long>(y) * w + x] = static_cast<int16_t>(gx);
        gyOut[static_cast<long>(y) * w + x] = static_cast<int16_t>(gy);
      }
      mag[x - 1] = sobelMagnitude(gx, gy);
    }
    for (int i = 0; i < w - 2; ++i) {
      const float m = mag[i];
      rowSum += m;
      rowSq += static_cast<double>(m) * m;
      a.lo = std::min(a.lo, m);
      a.hi = std::max(a.hi, m);
    }
    a.sum += rowSum;
    a.sumSq += rowSq;
    a.n += w - 2;
  }
  if (a.n == 0) a.lo = 0;
  a.fill(out);
}

}  // namespace

int DexFrameMetaData::calcMeanStddev(const uint8_t* img, KO_dataStats_t* stats, int n) {
  if (badArgs(__func__, img, stats, img, n, 1, 1, 1)) return -1;
  statsOfBytes(img, n, stats);
  return 0;
}

int DexFrameMetaData::calcMFrameDiff(const uint8_t* cur, const uint8_t* prev,
                                     KO_dataStats_t* stats, int n) {
  if (badArgs(__func__, cur, prev, stats, n, 1, 1, 1)) return -1;
  std::vector<uint8_t> diff(static_cast<size_t>(n));
  for (int i = 0; i < n; ++i) {
    diff[i] = static_cast<uint8_t>(std::abs(cur[i] - prev[i]));
  }
  statsOfBytes(diff.data(), n, stats);
  return 0;
}

int DexFrameMetaData::genHistogramPow2(const uint8_t* img, uint32_t* hist, int w, int h,
                                       int stride, int bins) {
  if (badArgs(__func__, img, hist, img, w, h, stride, w)) return -1;
  if (bins <= 0 || bins > 256 || (bins & (bins - 1)) != 0) {
    __android_log_print(ANDROID_LOG_ERROR, kTag, "%s: bins %d is not a power of two in 1..256",
                        __func__, bins);
    return -1;
  }
  int shift = 0;
  while ((256 >> shift) > bins) ++shift;
  uint32_t counts[256] = {};
  for (int y = 0; y < h; ++y) {
    const uint8_t* r = img + static_cast<long>(y) * stride;
    for (int x = 0; x < w; ++x) ++counts[r[x]];
  }
  for (int i = 0; i < bins; ++i) hist[i] = 0;
  for (int v = 0; v < 256; ++v) hist[v >> shift] += counts[v];
  return 0;
}

int DexFrameMetaData::calcSobelFrame(const uint8_t* img, KO_dataStats_t* stats, int w, int h,
                                     int /*flags*/, int16_t* scratch1, int16_t* scratch2) {
  if (badArgs(__func__, img, stats, scratch1, w, h, w, w)) return -1;
  if (scratch2 == nullptr) {
    __android_log_print(ANDROID_LOG_ERROR, kTag, "%s: null pointer argument", __func__);
    return -1;
  }
  // Border pixels have no full neighbourhood: their gradients are stored as 0.
  for (int x = 0; x < w; ++x) {
    scratch1[x] = scratch2[x] = 0;
    scratch1[static_cast<long>(h - 1) * w + x] = scratch2[static_cast<long>(h - 1) * w + x] = 0;
  }
  for (int y = 0; y < h; ++y) {
    scratch1[static_cast<long>(y) * w] = scratch2[static_cast<long>(y) * w] = 0;
    scratch1[static_cast<long>(y) * w + w - 1] = scratch2[static_cast<long>(y) * w + w - 1] = 0;
  }
  sobelStats(img, w, h, w, scratch1, scratch2, stats);
  return 0;
}

int DexFrameMetaData::calcSobel2DRegion(const uint8_t* img, KO_dataStats_t& stats, int x, int y,
                                        int w, int h, int stride, int /*flags*/) {
  if (badArgs(__func__, img, img, img, w, h, stride, x + w)) return -1;
  if (x < 0 || y < 0) {
    __android_log_print(ANDROID_LOG_ERROR, kTag, "%s: negative region origin %d,%d", __func__, x,
                        y);
    return -1;
  }
  sobelStats(img + static_cast<long>(y) * stride + x, w, h, stride, nullptr, nullptr, &stats);
  return 0;
}

// ---------------------------------------------------------------------------------------------
// Global shift.

namespace {

void meanAndSpread(const uint8_t* img, int w, int h, int stride, double* mean, double* spread) {
  DexFrameMetaData::meanAndSpread2D(img, w, h, stride, mean, spread);
}

// B brought to A's exposure: B' = (B - mean B) * spread A / spread B + mean A, as floats (row
// stride w). The gain is limited to [1/4, 4] so that a nearly flat picture is not blown up;
// without spread on either side only the means are matched.
std::vector<float> exposureMatched(const uint8_t* a, const uint8_t* b, int w, int h) {
  double meanA = 0, spreadA = 0, meanB = 0, spreadB = 0;
  meanAndSpread(a, w, h, w, &meanA, &spreadA);
  meanAndSpread(b, w, h, w, &meanB, &spreadB);
  double gain = 1.0;
  if (spreadA > 0.5 && spreadB > 0.5) gain = std::min(4.0, std::max(0.25, spreadA / spreadB));
  const float g = static_cast<float>(gain);
  const float o = static_cast<float>(meanA - gain * meanB);
  std::vector<float> out(static_cast<size_t>(w) * h);
  for (size_t i = 0; i < out.size(); ++i) out[i] = g * b[i] + o;
  return out;
}

// Mean absolute difference between A(x, y) and B(x + dx, y + dy) over the window that leaves
// `margin` pixels on every side of A (so B stays inside for |dx|, |dy| <= margin).
double madAt(const uint8_t* a, const float* b, int stride, int w, int h, int margin, int dx,
             int dy) {
  double sum = 0;
  const int x0 = margin, x1 = w - margin;
  for (int y = margin; y < h - margin; ++y) {
    const uint8_t* ra = a + static_cast<long>(y) * stride;
    const float* rb = b + static_cast<long>(y + dy) * stride + dx;
    float rowSum = 0;
    for (int x = x0; x < x1; ++x) rowSum += std::fabs(static_cast<float>(ra[x]) - rb[x]);
    sum += rowSum;
  }
  const long n = static_cast<long>(x1 - x0) * (h - 2 * margin);
  return sum / static_cast<double>(n);
}

// Best shift within [cx - r, cx + r] x [cy - r, cy + r], clamped to +/- limit.
void searchShift(const uint8_t* a, const float* b, int stride, int w, int h, int limit, int cx,
                 int cy, int r, int* bestX, int* bestY, double* bestCost) {
  double best = 1e30;
  int bx = 0, by = 0;
  for (int dy = std::max(-limit, cy - r); dy <= std::min(limit, cy + r); ++dy) {
    for (int dx = std::max(-limit, cx - r); dx <= std::min(limit, cx + r); ++dx) {
      const double c = madAt(a, b, stride, w, h, limit, dx, dy);
      // Prefer the smaller shift on ties so flat regions report no motion.
      if (c < best || (c == best && std::abs(dx) + std::abs(dy) < std::abs(bx) + std::abs(by))) {
        best = c;
        bx = dx;
        by = dy;
      }
    }
  }
  *bestX = bx;
  *bestY = by;
  *bestCost = best;
}

}  // namespace

int DexFrameMetaData::calculateShift(const uint8_t* imageA, const uint8_t* imageB, int w, int h,
                                     const uint8_t* smallA, const uint8_t* smallB, int sw,
                                     int sh, xyShift* shift) {
  if (badArgs(__func__, imageA, imageB, shift, w, h, w, w) ||
      badArgs(__func__, smallA, smallB, shift, sw, sh, sw, sw)) {
    return -1;
  }
  if (sw * 2 > w || sh * 2 > h) {
    __android_log_print(ANDROID_LOG_ERROR, kTag, "%s: small images %dx%d larger than half %dx%d",
                        __func__, sw, sh, w, h);
    return -1;
  }
  int range = shift->searchRange > 0 ? shift->searchRange : 40;
  // Keep at least half of each dimension of the coarsest level inside the compared window.
  range = std::min(range, std::min(w, h) / 4);
  const int qw = sw / 2, qh = sh / 2;
  const int r2 = (range + 3) / 4;
  if (range < 1 || qw - 2 * r2 < 8 || qh - 2 * r2 < 8) {
    __android_log_print(ANDROID_LOG_ERROR, kTag, "%s: images %dx%d too small for a search",
                        __func__, w, h);
    return -1;
  }
  // Quarter-resolution copies of the small images for the exhaustive search.
  std::vector<uint8_t> qa(static_cast<size_t>(qw) * qh), qb(qa.size());
  downScaleLuma2x(qa.data(), smallA, sw, qw, qh);
  downScaleLuma2x(qb.data(), smallB, sw, qw, qh);
  // Every level compares A with B brought to A's mean and gain, so that an exposure step
  // between the two frames reads neither as a shift nor as a difference.
  const std::vector<float> nq = exposureMatched(qa.data(), qb.data(), qw, qh);
  const std::vector<float> ns = exposureMatched(smallA, smallB, sw, sh);
  const std::vector<float> nv = exposureMatched(imageA, imageB, w, h);
  int dx = 0, dy = 0;
  double cost = 0;
  searchShift(qa.data(), nq.data(), qw, qw, qh, r2, 0, 0, r2, &dx, &dy, &cost);
  const int r1 = (range + 1) / 2;
  searchShift(smallA, ns.data(), sw, sw, sh, r1, 2 * dx, 2 * dy, 2, &dx, &dy, &cost);
  searchShift(imageA, nv.data(), w, w, h, range, 2 * dx, 2 * dy, 2, &dx, &dy, &cost);
  shift->dx = dx;
  shift->dy = dy;
  shift->a = static_cast<float>(madAt(imageA, nv.data(), w, w, h, range, 0, 0));
  shift->b = static_cast<float>(cost);
  return 0;
}

// ---------------------------------------------------------------------------------------------
// Histogram similarity.

float DexFrameMetaData::calcBhattacharyyaCoeff(const int* histA, const int* histB, int bins) {
  if (histA == nullptr || histB == nullptr || bins <= 0) {
    __android_log_print(ANDROID_LOG_ERROR, kTag, "%s: invalid histograms (%p, %p, %d bins)",
                        __func__, static_cast<const void*>(histA),
                        static_cast<const void*>(histB), bins);
    return 1.0f;
  }
  double sumA = 0;
  double sumB = 0;
  for (int i = 0; i < bins; ++i) {
    sumA += std::max(0, histA[i]);
    sumB += std::max(0, histB[i]);
  }
  if (sumA <= 0 || sumB <= 0) return 1.0f;
  double bc = 0;
  for (int i = 0; i < bins; ++i) {
    bc += std::sqrt(static_cast<double>(std::max(0, histA[i])) * std::max(0, histB[i]));
  }
  bc /= std::sqrt(sumA * sumB);
  return static_cast<float>(std::sqrt(std::max(0.0, 1.0 - bc)));
}

// ---------------------------------------------------------------------------------------------
// Statistics over a capture snapshot.

// The frame records are read through their headers only (this library does not link against the
// engine that defines them), so the sanitizer's dynamic-type check, which needs their type
// information, is left out here.
void DexFrameMetaData::meanAndSpread2D(const uint8_t* img, int w, int h, int stride, double* mean,
                                       double* spread) {
  uint64_t sum = 0, sumSq = 0;
  for (int y = 0; y < h; ++y) {
    const uint8_t* r = img + static_cast<long>(y) * stride;
    uint32_t rowSum = 0;
    uint64_t rowSq = 0;
    for (int x = 0; x < w; ++x) {
      rowSum += r[x];
      rowSq += static_cast<uint32_t>(r[x]) * r[x];
    }
    sum += rowSum;
    sumSq += rowSq;
  }
  const double n = static_cast<double>(w) * h;
  *mean = n > 0 ? static_cast<double>(sum) / n : 0.0;
  *spread = n > 0 ? std::sqrt(std::max(0.0, static_cast<double>(sumSq) / n - *mean * *mean)) : 0.0;
}

__attribute__((no_sanitize("vptr"))) int DexFrameMetaData::KoCalcMeanStddevMinMeanQueue(KoFrameHistSnapshot* snapshot,
                                                   KO_dataStats_t* stats, int count, int type,
                                                   int /*flags*/) {
  if (snapshot == nullptr || stats == nullptr || count <= 0 || type < 0 || type > 2) {
    __android_log_print(ANDROID_LOG_ERROR, kTag,
                        "%s: invalid arguments (snapshot %p, stats %p, count %d, type %d)",
                        __func__, static_cast<void*>(snapshot), static_cast<void*>(stats),
                        count, type);
    return -1;
  }
  const size_t n = std::min(static_cast<size_t>(count), snapshot->mHistory.size());
  Accum a;
  a.lo = 1e30f;
  a.hi = -1e30f;
  for (size_t i = 0; i < n; ++i) {
    const KoFrameHistNode* node = snapshot->mHistory[i].get();
    const KoFrameData* frame = node != nullptr ? node->mFrameData.get() : nullptr;
    if (frame == nullptr ||
        (frame->mProcessedEvents.load(std::memory_order_acquire) & 0x20000u) == 0) {
      continue;
    }
    const KO_dataStats_t& s =
        type == 0 ? frame->mLumaStats : (type == 1 ? frame->mDiffStats : frame->mSobelStats);
    a.sum += s.mean;
    a.sumSq += static_cast<double>(s.mean) * s.mean;
    a.lo = std::min(a.lo, s.mean);
    a.hi = std::max(a.hi, s.mean);
    ++a.n;
  }
  a.fill(stats);
  return a.n > 0 ? 0 : -1;
}

// =============================================================================================
// Bilinear upscalers and planar-to-semi-planar chroma interleaving.
//
// Every scaler works in two passes. A source row that the target needs is filtered horizontally
// once, into a 16-bit row of the target width that keeps the fraction bits, and a two-slot cache
// holds the two filtered source rows the current target row blends: consecutive target rows
// sharing a source row reuse its filtered copy. Each target row is then the vertical blend of
// its two filtered rows with that row's weights. The horizontal pass is per-pixel work on the
// (fewer) source rows; the vertical blend produces every target pixel and runs over blocks of a
// fixed 16 pixels, which the compiler turns into SIMD code (its high-half products map onto
// pmulhuw on x86 and widening multiplies on NEON).

namespace {

// Target pixels per step of the vectorised row loops.
constexpr int kScaleBlock = 16;

int scalePointerError(const char* func, const void* a, const void* b, const void* c) {
  if (a != nullptr && b != nullptr && c != nullptr) return DexFrameMetaData::SCALE_OK;
  __android_log_print(ANDROID_LOG_ERROR, kTag, "%s: null image pointer", func);
  return DexFrameMetaData::SCALE_ERR_NULL;
}

int scaleSizeError(const char* func, int srcWidth, int srcHeight, int dstWidth, int dstHeight) {
  __android_log_print(ANDROID_LOG_ERROR, kTag, "%s: unusable sizes %dx%d -> %dx%d", func, srcWidth,
                      srcHeight, dstWidth, dstHeight);
  return DexFrameMetaData::SCALE_ERR_SIZE;
}

// Sizes must be positive, the source stride must hold a source row and the target stride
// `bytesPerSample` bytes per target sample.
int scaleGeometryError(const char* func, int srcWidth, int srcHeight, int srcStride, int dstWidth,
                       int dstHeight, int dstStride, int bytesPerSample) {
  if (srcWidth <= 0 || srcHeight <= 0 || dstWidth <= 0 || dstHeight <= 0) {
    return scaleSizeError(func, srcWidth, srcHeight, dstWidth, dstHeight);
  }
  if (srcStride < srcWidth ||
      static_cast<int64_t>(dstStride) < static_cast<int64_t>(dstWidth) * bytesPerSample) {
    __android_log_print(ANDROID_LOG_ERROR, kTag, "%s: strides %d / %d too small for widths %d / %d",
                        func, srcStride, dstStride, srcWidth, dstWidth);
    return DexFrameMetaData::SCALE_ERR_STRIDE;
  }
  return DexFrameMetaData::SCALE_OK;
}

// Where a target row reads: source rows r0 and r1 and their blend weights (their meaning is
// the blend rule's).
struct VerticalTap {
  int r0;
  int r1;
  uint16_t c0;
  uint16_t c1;
};

// Horizontally filtered copies of up to two source rows, one buffer per channel.
struct FilteredRows {
  uint16_t* row[2][2];  // [slot][channel]
  int source[2];        // source row held by each slot, -1 when none
};

// The slot holding filtered source row r. When r is not cached it is filtered into the slot
// that does not hold `keep`, the other row the current target row needs.
template <typename Filter>
int filteredRow(FilteredRows& rows, int r, int keep, const Filter& filter) {
  if (rows.source[0] == r) return 0;
  if (rows.source[1] == r) return 1;
  const int slot = rows.source[0] == keep ? 1 : 0;
  filter(r, rows.row[slot]);
  rows.source[slot] = r;
  return slot;
}

// Blend rule of the 3x kernels: filtered values in thirds of a grey level (<= 765), row weights
// w0 + w1 == 3, so the sum is in ninths; exact rounding (the constant division compiles to a
// 16-bit high-half multiply).
struct ThirdsBlend {
  static inline uint8_t apply(uint16_t a, uint16_t b, uint16_t w0, uint16_t w1) {
    return static_cast<uint8_t>(static_cast<uint16_t>(w0 * a + w1 * b + 4) / 9);
  }
};

// Blend rule with 16-bit multipliers: a * c0 / 65536 + b * c1 / 65536 is the target value with
// `Shift` fraction bits. Each truncated high-half product is low by less than one unit, their
// sum by one on average: the +1 centres it before rounding.
template <int Shift>
struct MulHiBlend {
  static inline uint8_t apply(uint16_t a, uint16_t b, uint16_t c0, uint16_t c1) {
    const uint16_t p = static_cast<uint16_t>((static_cast<uint32_t>(a) * c0) >> 16);
    const uint16_t q = static_cast<uint16_t>((static_cast<uint32_t>(b) * c1) >> 16);
    return static_cast<uint8_t>(static_cast<uint16_t>(p + q + (1 << (Shift - 1)) + 1) >> Shift);
  }
};

template <typename Blend>
void blendLumaRow(const uint16_t* __restrict a, const uint16_t* __restrict b, uint16_t c0,
                  uint16_t c1, uint8_t* __restrict d, int n) {
  int x = 0;
  for (; x + kScaleBlock <= n; x += kScaleBlock) {
    for (int i = 0; i < kScaleBlock; ++i) d[x + i] = Blend::apply(a[x + i], b[x + i], c0, c1);
  }
  for (; x < n; ++x) d[x] = Blend::apply(a[x], b[x], c0, c1);
}

// Writes V,U pairs: channel 0 holds V, channel 1 U.
template <typename Blend>
void blendChromaRow(const uint16_t* __restrict aV, const uint16_t* __restrict bV,
                    const uint16_t* __restrict aU, const uint16_t* __restrict bU, uint16_t c0,
                    uint16_t c1, uint8_t* __restrict d, int n) {
  int x = 0;
  for (; x + kScaleBlock <= n; x += kScaleBlock) {
    for (int i = 0; i < kScaleBlock; ++i) {
      d[2 * (x + i)] = Blend::apply(aV[x + i], bV[x + i], c0, c1);
      d[2 * (x + i) + 1] = Blend::apply(aU[x + i], bU[x + i], c0, c1);
    }
  }
  for (; x < n; ++x) {
    d[2 * x] = Blend::apply(aV[x], bV[x], c0, c1);
    d[2 * x + 1] = Blend::apply(aU[x], bU[x], c0, c1);
  }
}

// Runs the two passes over a target of dstWidth x dstHeight samples with `Channels` channels
// (1: luma; 2: V and U written as pairs). filter(r, rows) fills rows[channel] with source row r
// filtered horizontally; rowTap(y) tells which source rows target row y blends, and how.
template <int Channels, typename Blend, typename Filter, typename RowTap>
int runTwoPass(const char* func, uint8_t* dst, int dstStride, int dstWidth, int dstHeight,
               const Filter& filter, const RowTap& rowTap) {
  const size_t rowLen = static_cast<size_t>(dstWidth);
  std::unique_ptr<uint16_t[]> mem(new (std::nothrow) uint16_t[2 * Channels * rowLen]);
  if (mem == nullptr) {
    __android_log_print(ANDROID_LOG_ERROR, kTag, "%s: no memory for %d-sample rows", func,
                        dstWidth);
    return DexFrameMetaData::SCALE_ERR_NO_MEMORY;
  }
  FilteredRows rows = {};
  for (int slot = 0; slot < 2; ++slot) {
    for (int ch = 0; ch < Channels; ++ch) {
      rows.row[slot][ch] = mem.get() + (slot * Channels + ch) * rowLen;
    }
    rows.source[slot] = -1;
  }
  for (int y = 0; y < dstHeight; ++y) {
    const VerticalTap t = rowTap(y);
    const int s0 = filteredRow(rows, t.r0, t.r1, filter);
    const int s1 = filteredRow(rows, t.r1, t.r0, filter);
    uint8_t* d = dst + static_cast<ptrdiff_t>(y) * dstStride;
    if (Channels == 1) {
      blendLumaRow<Blend>(rows.row[s0][0], rows.row[s1][0], t.c0, t.c1, d, dstWidth);
    } else {
      blendChromaRow<Blend>(rows.row[s0][0], rows.row[s1][0], rows.row[s0][1], rows.row[s1][1],
                            t.c0, t.c1, d, dstWidth);
    }
  }
  return DexFrameMetaData::SCALE_OK;
}

int scaleNoMemory(const char* func) {
  __android_log_print(ANDROID_LOG_ERROR, kTag, "%s: no memory for the scaling tables", func);
  return DexFrameMetaData::SCALE_ERR_NO_MEMORY;
}

// Horizontal pass through per-target-sample taps: filtered sample x is
// w0[x] * s[first[x]] + w1[x] * s[first[x] + 1] (the second clamped to the row's end), in the
// kernel's fixed-point unit. Each source sample and its right neighbour are packed into one
// 16-bit word first, so the per-pixel gather is a single load; the weighting then runs
// vectorised over the target row.
struct RowTaps {
  std::unique_ptr<int32_t[]> first;
  std::unique_ptr<uint16_t[]> w0;
  std::unique_ptr<uint16_t[]> w1;
  std::unique_ptr<uint16_t[]> pairs;  // scratch: the source row as (sample, right neighbour)
  int srcWidth = 0;
  int dstWidth = 0;

  // False when memory ran out.
  bool allocate(int srcW, int dstW) {
    srcWidth = srcW;
    dstWidth = dstW;
    first.reset(new (std::nothrow) int32_t[dstW]);
    w0.reset(new (std::nothrow) uint16_t[dstW]);
    w1.reset(new (std::nothrow) uint16_t[dstW]);
    pairs.reset(new (std::nothrow) uint16_t[srcW]);
    return first && w0 && w1 && pairs;
  }

  void set(int x, int firstSample, int weight0, int weight1) {
    first[x] = std::min(firstSample, srcWidth - 1);
    w0[x] = static_cast<uint16_t>(weight0);
    w1[x] = static_cast<uint16_t>(weight1);
  }

  void filter(const uint8_t* __restrict s, uint16_t* __restrict h) const {
    uint16_t* __restrict pr = pairs.get();
    const int last = srcWidth - 1;
    int k = 0;
    for (; k + kScaleBlock <= last; k += kScaleBlock) {
      for (int i = 0; i < kScaleBlock; ++i) {
        pr[k + i] = static_cast<uint16_t>(s[k + i] | (s[k + i + 1] << 8));
      }
    }
    for (; k < last; ++k) pr[k] = static_cast<uint16_t>(s[k] | (s[k + 1] << 8));
    pr[last] = static_cast<uint16_t>(s[last] * 257);
    const int32_t* __restrict fi = first.get();
    int x = 0;
    for (; x + 4 <= dstWidth; x += 4) {
      const uint16_t p0 = pr[fi[x]], p1 = pr[fi[x + 1]], p2 = pr[fi[x + 2]], p3 = pr[fi[x + 3]];
      h[x] = p0;
      h[x + 1] = p1;
      h[x + 2] = p2;
      h[x + 3] = p3;
    }
    for (; x < dstWidth; ++x) h[x] = pr[fi[x]];
    const uint16_t* __restrict a = w0.get();
    const uint16_t* __restrict b = w1.get();
    x = 0;
    for (; x + kScaleBlock <= dstWidth; x += kScaleBlock) {
      for (int i = 0; i < kScaleBlock; ++i) {
        const uint16_t p = h[x + i];
        h[x + i] = static_cast<uint16_t>((p & 0xff) * a[x + i] + (p >> 8) * b[x + i]);
      }
    }
    for (; x < dstWidth; ++x) {
      const uint16_t p = h[x];
      h[x] = static_cast<uint16_t>((p & 0xff) * a[x] + (p >> 8) * b[x]);
    }
  }
};

// ---- 3x. Target sample 3k sits at source k - 1/3, 3k + 1 at k and 3k + 2 at k + 1/3 (edges
// clamped). Filtered values are in thirds of a grey level (<= 765).
bool taps3x(RowTaps& taps, int srcWidth, int dstWidth) {
  if (!taps.allocate(srcWidth, dstWidth)) return false;
  for (int x = 0; x < dstWidth; ++x) {
    const int k = x / 3;
    switch (x - 3 * k) {
      case 0:
        if (k == 0) {
          taps.set(x, 0, 3, 0);
        } else {
          taps.set(x, k - 1, 1, 2);
        }
        break;
      case 1:
        taps.set(x, k, 3, 0);
        break;
      default:
        taps.set(x, k, 2, 1);
        break;
    }
  }
  return true;
}

// Target row y of a 3x kernel over a source of `rows` rows: ThirdsBlend weights.
VerticalTap tap3x(int y, int rows) {
  const int k = y / 3;
  switch (y - 3 * k) {
    case 0:
      return {std::max(k - 1, 0), k, 1, 2};
    case 1:
      return {k, k, 3, 0};
    default:
      return {k, std::min(k + 1, rows - 1), 2, 1};
  }
}

// ---- 2.25x. Target sample 9g + j sits at source 4g + (8j - 5) / 18: on the pair starting at
// 4g + kFirst225[j] with kFrac225[j] / 18 on the second sample (edges clamped).
constexpr int kFirst225[9] = {-1, 0, 0, 1, 1, 1, 2, 2, 3};
constexpr int kFrac225[9] = {13, 3, 11, 1, 9, 17, 7, 15, 5};

// Filtered values are in 1/144 of a grey level (8 x eighteenths, <= 36720).
bool taps225(RowTaps& taps, int srcWidth, int dstWidth) {
  if (!taps.allocate(srcWidth, dstWidth)) return false;
  for (int x = 0; x < dstWidth; ++x) {
    const int g = x / 9;
    const int j = x - 9 * g;
    const int firstSample = 4 * g + kFirst225[j];
    if (firstSample < 0) {
      taps.set(x, 0, 144, 0);
    } else {
      taps.set(x, firstSample, 8 * (18 - kFrac225[j]), 8 * kFrac225[j]);
    }
  }
  return true;
}

// A row weight of w / 18 becomes the multiplier w / 18 * 2^16 * 2^7 / 144 for values in
// 1/144, so that the two high-half products sum to the target value with 7 fraction bits
// (MulHiBlend<7>). With the multipliers rounded and the products truncated the sum stays within
// 0.02 grey levels of the exact interpolation.
constexpr uint16_t mul225(int w) { return static_cast<uint16_t>((w * 8388608 + 1296) / 2592); }

VerticalTap tap225(int y, int rows) {
  const int g = y / 9;
  const int j = y - 9 * g;
  const int firstRow = 4 * g + kFirst225[j];
  return {std::clamp(firstRow, 0, rows - 1), std::clamp(firstRow + 1, 0, rows - 1),
          mul225(18 - kFrac225[j]), mul225(kFrac225[j])};
}

// ---- Any ratio. Sample i of dstN target samples over srcN source samples sits at
// ((2i + 1) * srcN - dstN) / (2 * dstN), computed exactly in integers and clamped to the source:
// on the pair starting at `first` with frac / 256 (0..255) on the second sample.
struct GenericTap {
  int first;
  uint16_t frac;
};

GenericTap genericTap(int i, int srcN, int dstN) {
  const int64_t den = 2 * static_cast<int64_t>(dstN);
  const int64_t num = (2 * static_cast<int64_t>(i) + 1) * srcN - dstN;
  int64_t first = 0;
  int64_t frac = 0;
  if (num > 0) {
    first = num / den;
    frac = ((num % den) * 256 + den / 2) / den;
    if (frac == 256) {
      ++first;
      frac = 0;
    }
  }
  if (first >= srcN - 1) {
    first = srcN - 1;
    frac = 0;
  }
  return {static_cast<int>(first), static_cast<uint16_t>(frac)};
}

// Filtered values are in 1/256 of a grey level (<= 65280).
bool tapsGeneric(RowTaps& taps, int srcWidth, int dstWidth) {
  if (!taps.allocate(srcWidth, dstWidth)) return false;
  for (int x = 0; x < dstWidth; ++x) {
    const GenericTap t = genericTap(x, srcWidth, dstWidth);
    taps.set(x, t.first, 256 - t.frac, t.frac);
  }
  return true;
}

std::unique_ptr<GenericTap[]> genericRowTaps(int srcHeight, int dstHeight) {
  std::unique_ptr<GenericTap[]> rows(new (std::nothrow) GenericTap[dstHeight]);
  if (rows != nullptr) {
    for (int y = 0; y < dstHeight; ++y) rows[y] = genericTap(y, srcHeight, dstHeight);
  }
  return rows;
}

// Row weights as MulHiBlend<8> multipliers over values in 1/256: (256 - f) * 256 and f * 256;
// a row taken whole (f == 0) multiplies by 65535, which with the rule's +1 is exact.
VerticalTap genericVerticalTap(const GenericTap& t, int rows) {
  const uint16_t f = t.frac;
  return {t.first, std::min(t.first + 1, rows - 1),
          static_cast<uint16_t>(f == 0 ? 65535 : (256 - f) << 8), static_cast<uint16_t>(f << 8)};
}

inline const uint8_t* rowOf(const uint8_t* plane, int r, int stride) {
  return plane + static_cast<ptrdiff_t>(r) * stride;
}

// 16 V,U pairs from 16 samples of each plane.
inline void interleave16(const uint8_t* v, const uint8_t* u, uint8_t* d) {
#if defined(__ARM_NEON)
  uint8x16x2_t vu;
  vu.val[0] = vld1q_u8(v);
  vu.val[1] = vld1q_u8(u);
  vst2q_u8(d, vu);
#elif defined(__SSE2__)
  const __m128i vv = _mm_loadu_si128(reinterpret_cast<const __m128i*>(v));
  const __m128i uu = _mm_loadu_si128(reinterpret_cast<const __m128i*>(u));
  _mm_storeu_si128(reinterpret_cast<__m128i*>(d), _mm_unpacklo_epi8(vv, uu));
  _mm_storeu_si128(reinterpret_cast<__m128i*>(d + 16), _mm_unpackhi_epi8(vv, uu));
#else
  for (int i = 0; i < 16; ++i) {
    d[2 * i] = v[i];
    d[2 * i + 1] = u[i];
  }
#endif
}

// n V,U pairs from n samples of each plane, in plain C (blocks the compiler vectorises).
void interleaveRow(const uint8_t* __restrict v, const uint8_t* __restrict u, uint8_t* __restrict d,
                   int n) {
  int x = 0;
  for (; x + kScaleBlock <= n; x += kScaleBlock) {
    for (int i = 0; i < kScaleBlock; ++i) {
      d[2 * (x + i)] = v[x + i];
      d[2 * (x + i) + 1] = u[x + i];
    }
  }
  for (; x < n; ++x) {
    d[2 * x] = v[x];
    d[2 * x + 1] = u[x];
  }
}

int interleaveArgsError(const char* func, const uint8_t* srcU, const uint8_t* srcV,
                        const uint8_t* dstVU, int width, int height, int srcStride, int dstStride) {
  if (int r = scalePointerError(func, srcU, srcV, dstVU)) return r;
  return scaleGeometryError(func, width, height, srcStride, width, height, dstStride, 2);
}

// Sizes of a 2.25x kernel: the target width a multiple of 9, the source height of 4, and the
// target height 2.25 times the source height.
int ratio225Error(const char* func, int srcHeight, int dstWidth, int dstHeight) {
  if (srcHeight <= 0 || dstWidth <= 0 || dstHeight <= 0 || dstWidth % 9 != 0 ||
      srcHeight % 4 != 0) {
    return scaleSizeError(func, dstWidth / 9 * 4, srcHeight, dstWidth, dstHeight);
  }
  if (static_cast<int64_t>(dstHeight) * 4 != static_cast<int64_t>(srcHeight) * 9) {
    __android_log_print(ANDROID_LOG_ERROR, kTag, "%s: %d rows are not 2.25 x %d", func, dstHeight,
                        srcHeight);
    return DexFrameMetaData::SCALE_ERR_RATIO;
  }
  return DexFrameMetaData::SCALE_OK;
}

}  // namespace

int DexFrameMetaData::lumaBiUpScaler3x(const uint8_t* src, uint8_t* dst, int srcStride,
                                       int dstWidth, int dstHeight, int dstStride) {
  if (int r = scalePointerError(__func__, src, src, dst)) return r;
  if (dstWidth <= 0 || dstHeight <= 0 || dstWidth % 3 != 0 || dstHeight % 3 != 0) {
    return scaleSizeError(__func__, dstWidth / 3, dstHeight / 3, dstWidth, dstHeight);
  }
  const int srcWidth = dstWidth / 3, srcHeight = dstHeight / 3;
  if (int r = scaleGeometryError(__func__, srcWidth, srcHeight, srcStride, dstWidth, dstHeight,
                                 dstStride, 1)) {
    return r;
  }
  RowTaps taps;
  if (!taps3x(taps, srcWidth, dstWidth)) return scaleNoMemory(__func__);
  return runTwoPass<1, ThirdsBlend>(
      __func__, dst, dstStride, dstWidth, dstHeight,
      [&](int r, uint16_t* const* h) { taps.filter(rowOf(src, r, srcStride), h[0]); },
      [&](int y) { return tap3x(y, srcHeight); });
}

int DexFrameMetaData::lumaBiUpScaler225x(const uint8_t* src, uint8_t* dst, int srcHeight,
                                         int srcStride, int dstWidth, int dstHeight,
                                         int dstStride) {
  if (int r = scalePointerError(__func__, src, src, dst)) return r;
  if (int r = ratio225Error(__func__, srcHeight, dstWidth, dstHeight)) return r;
  const int srcWidth = dstWidth / 9 * 4;
  if (int r = scaleGeometryError(__func__, srcWidth, srcHeight, srcStride, dstWidth, dstHeight,
                                 dstStride, 1)) {
    return r;
  }
  RowTaps taps;
  if (!taps225(taps, srcWidth, dstWidth)) return scaleNoMemory(__func__);
  return runTwoPass<1, MulHiBlend<7>>(
      __func__, dst, dstStride, dstWidth, dstHeight,
      [&](int r, uint16_t* const* h) { taps.filter(rowOf(src, r, srcStride), h[0]); },
      [&](int y) { return tap225(y, srcHeight); });
}

int DexFrameMetaData::lumaBiScalerGeneric(const uint8_t* src, uint8_t* dst, int srcWidth,
                                          int srcHeight, int srcStride, int dstWidth, int dstHeight,
                                          int dstStride) {
  if (int r = scalePointerError(__func__, src, src, dst)) return r;
  if (int r = scaleGeometryError(__func__, srcWidth, srcHeight, srcStride, dstWidth, dstHeight,
                                 dstStride, 1)) {
    return r;
  }
  RowTaps taps;
  const std::unique_ptr<GenericTap[]> rows = genericRowTaps(srcHeight, dstHeight);
  if (rows == nullptr || !tapsGeneric(taps, srcWidth, dstWidth)) return scaleNoMemory(__func__);
  return runTwoPass<1, MulHiBlend<8>>(
      __func__, dst, dstStride, dstWidth, dstHeight,
      [&](int r, uint16_t* const* h) { taps.filter(rowOf(src, r, srcStride), h[0]); },
      [&](int y) { return genericVerticalTap(rows[y], srcHeight); });
}

int DexFrameMetaData::chromaBiUpScaler3x(const uint8_t* srcU, const uint8_t* srcV, uint8_t* dstVU,
                                         int dstWidth, int dstHeight, int srcStride,
                                         int dstStride) {
  if (int r = scalePointerError(__func__, srcU, srcV, dstVU)) return r;
  if (dstWidth <= 0 || dstHeight <= 0 || dstWidth % 3 != 0 || dstHeight % 3 != 0) {
    return scaleSizeError(__func__, dstWidth / 3, dstHeight / 3, dstWidth, dstHeight);
  }
  const int srcWidth = dstWidth / 3, srcHeight = dstHeight / 3;
  if (int r = scaleGeometryError(__func__, srcWidth, srcHeight, srcStride, dstWidth, dstHeight,
                                 dstStride, 2)) {
    return r;
  }
  RowTaps taps;
  if (!taps3x(taps, srcWidth, dstWidth)) return scaleNoMemory(__func__);
  return runTwoPass<2, ThirdsBlend>(
      __func__, dstVU, dstStride, dstWidth, dstHeight,
      [&](int r, uint16_t* const* h) {
        taps.filter(rowOf(srcV, r, srcStride), h[0]);
        taps.filter(rowOf(srcU, r, srcStride), h[1]);
      },
      [&](int y) { return tap3x(y, srcHeight); });
}

int DexFrameMetaData::chromaBiUpScaler225x(const uint8_t* srcU, const uint8_t* srcV, uint8_t* dstVU,
                                           int srcHeight, int dstWidth, int dstHeight,
                                           int srcStride, int dstStride) {
  if (int r = scalePointerError(__func__, srcU, srcV, dstVU)) return r;
  if (int r = ratio225Error(__func__, srcHeight, dstWidth, dstHeight)) return r;
  const int srcWidth = dstWidth / 9 * 4;
  if (int r = scaleGeometryError(__func__, srcWidth, srcHeight, srcStride, dstWidth, dstHeight,
                                 dstStride, 2)) {
    return r;
  }
  RowTaps taps;
  if (!taps225(taps, srcWidth, dstWidth)) return scaleNoMemory(__func__);
  return runTwoPass<2, MulHiBlend<7>>(
      __func__, dstVU, dstStride, dstWidth, dstHeight,
      [&](int r, uint16_t* const* h) {
        taps.filter(rowOf(srcV, r, srcStride), h[0]);
        taps.filter(rowOf(srcU, r, srcStride), h[1]);
      },
      [&](int y) { return tap225(y, srcHeight); });
}

int DexFrameMetaData::chromaBiScalerGeneric(const uint8_t* srcU, const uint8_t* srcV,
                                            uint8_t* dstVU, int srcWidth, int srcHeight,
                                            int dstWidth, int dstHeight, int srcStride,
                                            int dstStride) {
  if (int r = scalePointerError(__func__, srcU, srcV, dstVU)) return r;
  if (int r = scaleGeometryError(__func__, srcWidth, srcHeight, srcStride, dstWidth, dstHeight,
                                 dstStride, 2)) {
    return r;
  }
  RowTaps taps;
  const std::unique_ptr<GenericTap[]> rows = genericRowTaps(srcHeight, dstHeight);
  if (rows == nullptr || !tapsGeneric(taps, srcWidth, dstWidth)) return scaleNoMemory(__func__);
  return runTwoPass<2, MulHiBlend<8>>(
      __func__, dstVU, dstStride, dstWidth, dstHeight,
      [&](int r, uint16_t* const* h) {
        taps.filter(rowOf(srcV, r, srcStride), h[0]);
        taps.filter(rowOf(srcU, r, srcStride), h[1]);
      },
      [&](int y) { return genericVerticalTap(rows[y], srcHeight); });
}

int DexFrameMetaData::chromaPlanerToSemi(const uint8_t* srcU, const uint8_t* srcV, uint8_t* dstVU,
                                         int width, int height, int srcStride, int dstStride) {
  if (int r =
          interleaveArgsError(__func__, srcU, srcV, dstVU, width, height, srcStride, dstStride)) {
    return r;
  }
  for (int y = 0; y < height; ++y) {
    interleaveRow(rowOf(srcV, y, srcStride), rowOf(srcU, y, srcStride),
                  dstVU + static_cast<ptrdiff_t>(y) * dstStride, width);
  }
  return SCALE_OK;
}

int DexFrameMetaData::chromaPlanerToSemi16Neon(const uint8_t* srcU, const uint8_t* srcV,
                                               uint8_t* dstVU, int width, int height, int srcStride,
                                               int dstStride) {
  if (int r =
          interleaveArgsError(__func__, srcU, srcV, dstVU, width, height, srcStride, dstStride)) {
    return r;
  }
  for (int y = 0; y < height; ++y) {
    const uint8_t* u = rowOf(srcU, y, srcStride);
    const uint8_t* v = rowOf(srcV, y, srcStride);
    uint8_t* d = dstVU + static_cast<ptrdiff_t>(y) * dstStride;
    int x = 0;
    for (; x + 16 <= width; x += 16) interleave16(v + x, u + x, d + 2 * x);
    if (x == width) continue;
    if (width >= 16) {
      // The tail: one more step over the last 16 samples, rewriting the few pairs already done
      // with the same bytes.
      x = width - 16;
      interleave16(v + x, u + x, d + 2 * x);
    } else {
      for (; x < width; ++x) {
        d[2 * x] = v[x];
        d[2 * x + 1] = u[x];
      }
    }
  }
  return SCALE_OK;
}
// =============================================================================================

}  // namespace android
