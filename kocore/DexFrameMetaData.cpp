// Fixed-ratio area reducers of the analysis library. Every reducer is a plain area average:
// each output sample is the overlap-weighted mean of the source samples it covers, computed in
// integers with rounding to nearest. The inner loops are written over whole rows so that the
// compiler can vectorise them.
#include "DexFrameMetaData.h"

#include <log/log.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <vector>

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

}  // namespace android
