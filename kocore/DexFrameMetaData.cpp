// Fixed-ratio area reducers of the analysis library. Every reducer is a plain area average:
// each output sample is the overlap-weighted mean of the source samples it covers, computed in
// integers with rounding to nearest. The inner loops are written over whole rows so that the
// compiler can vectorise them.
#include "DexFrameMetaData.h"

#include <log/log.h>

#include <algorithm>
#include <atomic>
#include <climits>
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
#if defined(__GNUC__)
#include <immintrin.h>
#endif
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
//
// Each kernel walks whole rows with a vector body (SSE2 on x86, NEON on ARM) for blocks of 8 or
// 16 pixels and a portable C body for everything the vector body leaves (and for everything when
// the vector paths are switched off). On x86 CPUs with AVX2 (chosen at run time) the gradients
// and the byte statistics take 16 pixels / 32 bytes per step instead. Nothing here allocates:
// all scratch lives on the stack.
//
// Byte statistics and histograms are exact integer counts. The gradient statistics keep
// q = gx^2 + gy^2 (16 times the squared magnitude, below 2^22) as an exact integer for the sum
// of squares, the minimum and the maximum; a square root per pixel is taken only for the sum of
// magnitudes. That sum runs in eight float lanes: pixel k of every block of 8 of a row in lane
// k, the pixels after a row's last whole block in the lanes they have among the row's last 8
// pixels, rows shorter than 8 in a ninth sum. Rows (or row pieces) are added to a chunk of at
// most kGradChunk pixels, whose lanes are then added up in double precision in a fixed order.
// All bodies (portable, SSE2, AVX2, NEON) add the same roots in the same order, so they give the
// same sums bit for bit; only 32-bit ARM, whose NEON has no square root, rounds its roots
// differently (reciprocal square root estimate with two Newton steps, a few units in the last
// place).

namespace {

// Vector bodies on (default) or off, process-wide.
std::atomic<bool> gStatsSimd{true};

bool statsSimd() {
#if defined(__ARM_NEON) || defined(__SSE2__)
  return gStatsSimd.load(std::memory_order_relaxed);
#else
  return false;
#endif
}

#if defined(__SSE2__) && !defined(__ARM_NEON) && defined(__GNUC__) && \
    (defined(__x86_64__) || defined(__i386__))
#define DEX_STATS_AVX2 1

// Where the CPU has AVX2, the gradients and the byte statistics take 32 bytes per step.
bool cpuHasAvx2() {
  static const bool has = __builtin_cpu_supports("avx2");
  return has;
}
#endif

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

// Exact sums of a set of byte values.
struct ByteSums {
  uint64_t sum = 0;
  uint64_t sumSq = 0;
  int lo = 255;
  int hi = 0;
  long n = 0;

  void fill(KO_dataStats_t* out) const {
    Accum a;
    a.sum = static_cast<double>(sum);
    a.sumSq = static_cast<double>(sumSq);
    a.lo = static_cast<float>(lo);
    a.hi = static_cast<float>(hi);
    a.n = n;
    a.fill(out);
  }
};

// ---- Histogram.

// Histogram of bytes in `bins` equal-width bins (a power of two, 1..256).
//
// Vector path (bins <= 32): each pair of neighbouring bytes is counted once in a bins x bins
// table of 16-bit counters indexed by the bins of both: the vector body makes eight pair indices
// at a time, and half as many counter updates are left to do. The pairs are spread over four
// tables so that runs of equal indices (flat areas) do not wait on each other. The tables are
// folded into the bin counts (row sums count the first bytes of the pairs, column sums the
// second) before a counter could overflow, and at the end.
// Portable path (and more than 32 bins): counts per byte value in four tables.
struct HistCounter {
  static constexpr int kPairEntries = 32 * 32;
  static constexpr long kMaxPendingPairs = 65535;  // 16-bit counters
  static constexpr int kPiece = 16384;             // bytes per step of addBytes (even)

  int bins = 1;
  int shift = 8;    // bin of v: v >> shift
  int binBits = 0;  // log2(bins)
  bool pairs = false;
  long pending = 0;  // pairs counted since the last fold
  uint32_t count[256] = {};  // per bin
  uint16_t pair[4][kPairEntries];
  uint32_t value[4][256];

  // An inactive counter (no histogram wanted) leaves its tables untouched.
  HistCounter(int nBins, bool simd, bool active = true) : bins(nBins), shift(0) {
    while ((256 >> shift) > bins) ++shift;
    binBits = 8 - shift;
#if defined(__ARM_NEON) || defined(__SSE2__)
    pairs = simd && bins <= 32;
#else
    (void)simd;
#endif
    if (!active) return;
    if (pairs) {
      std::fill(&pair[0][0], &pair[0][0] + 4 * kPairEntries, static_cast<uint16_t>(0));
    } else {
      std::fill(&value[0][0], &value[0][0] + 4 * 256, 0u);
    }
  }

  // Makes room for `more` pairs.
  void reserve(long more) {
    if (pending + more > kMaxPendingPairs) foldPairs();
  }

#if defined(__ARM_NEON)
  // The eight pair indices of 16 bytes at p.
  void countPairBlock(const uint8_t* p) {
    // Little-endian: the low byte of each 16-bit lane is the first byte of its pair.
    const uint16x8_t v = vreinterpretq_u16_u8(vld1q_u8(p));
    const int16x8_t right = vdupq_n_s16(static_cast<int16_t>(-shift));
    const uint16x8_t a = vshlq_u16(vandq_u16(v, vdupq_n_u16(0xff)), right);
    const uint16x8_t b = vshlq_u16(vshrq_n_u16(v, 8), right);
    uint16_t ix[8];
    vst1q_u16(ix, vorrq_u16(vshlq_u16(a, vdupq_n_s16(static_cast<int16_t>(binBits))), b));
    for (int k = 0; k < 8; ++k) ++pair[k & 3][ix[k]];
  }
  // The four pair indices of 8 bytes at p.
  void countPairHalfBlock(const uint8_t* p) {
    const uint16x4_t v = vreinterpret_u16_u8(vld1_u8(p));
    const int16x4_t right = vdup_n_s16(static_cast<int16_t>(-shift));
    const uint16x4_t a = vshl_u16(vand_u16(v, vdup_n_u16(0xff)), right);
    const uint16x4_t b = vshl_u16(vshr_n_u16(v, 8), right);
    uint16_t ix[4];
    vst1_u16(ix, vorr_u16(vshl_u16(a, vdup_n_s16(static_cast<int16_t>(binBits))), b));
    for (int k = 0; k < 4; ++k) ++pair[k][ix[k]];
  }
#elif defined(__SSE2__)
  void countPairBlock(const uint8_t* p) {
    const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
    const __m128i right = _mm_cvtsi32_si128(shift);
    const __m128i a = _mm_srl_epi16(_mm_and_si128(v, _mm_set1_epi16(0xff)), right);
    const __m128i b = _mm_srl_epi16(_mm_srli_epi16(v, 8), right);
    const __m128i ix = _mm_or_si128(_mm_sll_epi16(a, _mm_cvtsi32_si128(binBits)), b);
#if defined(__x86_64__)
    const uint64_t q0 = static_cast<uint64_t>(_mm_cvtsi128_si64(ix));
    const uint64_t q1 = static_cast<uint64_t>(_mm_cvtsi128_si64(_mm_unpackhi_epi64(ix, ix)));
    ++pair[0][q0 & 0xffff];
    ++pair[1][(q0 >> 16) & 0xffff];
    ++pair[2][(q0 >> 32) & 0xffff];
    ++pair[3][q0 >> 48];
    ++pair[0][q1 & 0xffff];
    ++pair[1][(q1 >> 16) & 0xffff];
    ++pair[2][(q1 >> 32) & 0xffff];
    ++pair[3][q1 >> 48];
#else
    alignas(16) uint16_t idx[8];
    _mm_store_si128(reinterpret_cast<__m128i*>(idx), ix);
    for (int k = 0; k < 8; ++k) ++pair[k & 3][idx[k]];
#endif
  }
  void countPairHalfBlock(const uint8_t* p) {
    const __m128i v = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(p));
    const __m128i right = _mm_cvtsi32_si128(shift);
    const __m128i a = _mm_srl_epi16(_mm_and_si128(v, _mm_set1_epi16(0xff)), right);
    const __m128i b = _mm_srl_epi16(_mm_srli_epi16(v, 8), right);
    const __m128i ix = _mm_or_si128(_mm_sll_epi16(a, _mm_cvtsi32_si128(binBits)), b);
    alignas(16) uint16_t idx[8];
    _mm_store_si128(reinterpret_cast<__m128i*>(idx), ix);
    for (int k = 0; k < 4; ++k) ++pair[k][idx[k]];
  }
#endif

  // Counts n bytes (n of any parity: an odd last byte is counted alone).
  void addBytes(const uint8_t* r, int n) {
    for (int start = 0; start < n; start += kPiece) {
      const int len = std::min(kPiece, n - start);
      if (pairs) {
        addPairs(r + start, len);
      } else {
        addValues(r + start, len);
      }
    }
  }

  void addPairs(const uint8_t* r, int n) {
    reserve(n / 2);
    int i = 0;
#if defined(__ARM_NEON) || defined(__SSE2__)
    for (; i + 16 <= n; i += 16) countPairBlock(r + i);
#endif
    for (; i + 2 <= n; i += 2) ++pair[0][((r[i] >> shift) << binBits) | (r[i + 1] >> shift)];
    pending += n / 2;
    if (i < n) ++count[r[i] >> shift];
  }

  void addValues(const uint8_t* r, int n) {
    int i = 0;
    for (; i + 4 <= n; i += 4) {
      ++value[0][r[i]];
      ++value[1][r[i + 1]];
      ++value[2][r[i + 2]];
      ++value[3][r[i + 3]];
    }
    for (; i < n; ++i) ++value[0][r[i]];
  }

  // Adds the pair tables to the bin counts; clears them unless this is the last fold.
  void foldPairs(bool last = false) {
    for (int a = 0; a < bins; ++a) {
      const int row = a << binBits;
      uint32_t first = 0;
      int b = 0;
      // Blocks of 8 the compiler turns into vector code.
      for (; b + 8 <= bins; b += 8) {
        uint32_t c[8];
        for (int k = 0; k < 8; ++k) {
          const int j = row + b + k;
          c[k] = static_cast<uint32_t>(pair[0][j]) + pair[1][j] + pair[2][j] + pair[3][j];
          count[b + k] += c[k];
        }
        for (int k = 0; k < 8; ++k) first += c[k];
      }
      for (; b < bins; ++b) {
        const int j = row + b;
        const uint32_t c = static_cast<uint32_t>(pair[0][j]) + pair[1][j] + pair[2][j] + pair[3][j];
        first += c;
        count[b] += c;
      }
      count[a] += first;
    }
    if (!last) std::fill(&pair[0][0], &pair[0][0] + 4 * kPairEntries, static_cast<uint16_t>(0));
    pending = 0;
  }

  void finish(uint32_t* hist) {
    if (pairs) {
      foldPairs(true);
    } else {
      for (int v = 0; v < 256; ++v) {
        count[v >> shift] += value[0][v] + value[1][v] + value[2][v] + value[3][v];
      }
    }
    for (int k = 0; k < bins; ++k) hist[k] = count[k];
  }
};

// ---- Byte statistics (luma, frame difference), optionally with the histogram.

#if defined(__ARM_NEON)

// Lane sums of byte values: sum and sum of squares in 32-bit lanes, running min and max.
struct ByteLanes {
  uint32x4_t sum = vdupq_n_u32(0);
  uint32x4_t sq = vdupq_n_u32(0);
  uint8x16_t lo = vdupq_n_u8(255);
  uint8x16_t hi = vdupq_n_u8(0);

  void add(uint8x16_t v) {
    sum = vpadalq_u16(sum, vpaddlq_u8(v));
    sq = vpadalq_u16(sq, vmull_u8(vget_low_u8(v), vget_low_u8(v)));
    sq = vpadalq_u16(sq, vmull_u8(vget_high_u8(v), vget_high_u8(v)));
    lo = vminq_u8(lo, v);
    hi = vmaxq_u8(hi, v);
  }
  // Moves the sums into s and restarts them.
  void flush(ByteSums& s) {
    uint32_t a[4], b[4];
    vst1q_u32(a, sum);
    vst1q_u32(b, sq);
    for (int k = 0; k < 4; ++k) {
      s.sum += a[k];
      s.sumSq += b[k];
    }
    sum = vdupq_n_u32(0);
    sq = vdupq_n_u32(0);
  }
  void extremes(ByteSums& s) const {
    uint8_t l[16], h[16];
    vst1q_u8(l, lo);
    vst1q_u8(h, hi);
    for (int k = 0; k < 16; ++k) {
      s.lo = std::min(s.lo, static_cast<int>(l[k]));
      s.hi = std::max(s.hi, static_cast<int>(h[k]));
    }
  }
};

inline uint8x16_t load16(const uint8_t* p) { return vld1q_u8(p); }
inline uint8x16_t absDiff16(uint8x16_t a, uint8x16_t b) { return vabdq_u8(a, b); }

#elif defined(__SSE2__)

struct ByteLanes {
  __m128i sum = _mm_setzero_si128();  // two 64-bit lanes
  __m128i sq = _mm_setzero_si128();
  __m128i lo = _mm_set1_epi8(-1);
  __m128i hi = _mm_setzero_si128();

  void add(__m128i v) {
    const __m128i z = _mm_setzero_si128();
    sum = _mm_add_epi64(sum, _mm_sad_epu8(v, z));
    const __m128i l = _mm_unpacklo_epi8(v, z);
    const __m128i h = _mm_unpackhi_epi8(v, z);
    sq = _mm_add_epi32(sq, _mm_add_epi32(_mm_madd_epi16(l, l), _mm_madd_epi16(h, h)));
    lo = _mm_min_epu8(lo, v);
    hi = _mm_max_epu8(hi, v);
  }
  void flush(ByteSums& s) {
    alignas(16) uint64_t a[2];
    alignas(16) uint32_t b[4];
    _mm_store_si128(reinterpret_cast<__m128i*>(a), sum);
    _mm_store_si128(reinterpret_cast<__m128i*>(b), sq);
    s.sum += a[0] + a[1];
    for (int k = 0; k < 4; ++k) s.sumSq += b[k];
    sum = _mm_setzero_si128();
    sq = _mm_setzero_si128();
  }
  void extremes(ByteSums& s) const {
    alignas(16) uint8_t l[16];
    alignas(16) uint8_t h[16];
    _mm_store_si128(reinterpret_cast<__m128i*>(l), lo);
    _mm_store_si128(reinterpret_cast<__m128i*>(h), hi);
    for (int k = 0; k < 16; ++k) {
      s.lo = std::min(s.lo, static_cast<int>(l[k]));
      s.hi = std::max(s.hi, static_cast<int>(h[k]));
    }
  }
};

inline __m128i load16(const uint8_t* p) {
  return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
}
inline __m128i absDiff16(__m128i a, __m128i b) {
  return _mm_or_si128(_mm_subs_epu8(a, b), _mm_subs_epu8(b, a));
}

#endif

// Bytes per chunk of the vector byte statistics: the 32-bit lane sums of squares (at most
// 260100 per lane and block of 16) are moved out after each chunk, long before they could
// overflow.
constexpr int kByteChunk = 4096;

#if defined(__ARM_NEON) || defined(__SSE2__)
// Vector body of byteStats over the whole blocks of 16 of n bytes (Luma, Diff, Hist: which
// results are made; the histogram in pair tables). Returns the bytes covered.
template <bool Luma, bool Diff, bool Hist>
int byteBlocksVector(const uint8_t* cur, const uint8_t* prev, int n, ByteSums* luma,
                     ByteSums* diff, HistCounter* hist) {
  ByteLanes l, d;
  int i = 0;
  while (i + 16 <= n) {
    const int end = std::min(n, i + kByteChunk);
    if (Hist) hist->reserve((end - i) / 2);
    const int first = i;
    for (; i + 16 <= end; i += 16) {
      const auto c = load16(cur + i);
      if (Luma) l.add(c);
      if (Diff) d.add(absDiff16(c, load16(prev + i)));
      if (Hist) hist->countPairBlock(cur + i);
    }
    if (Hist) hist->pending += (i - first) / 2;
    if (Luma) l.flush(*luma);
    if (Diff) d.flush(*diff);
  }
  if (Luma) {
    l.extremes(*luma);
    luma->n += i;
  }
  if (Diff) {
    d.extremes(*diff);
    diff->n += i;
  }
  return i;
}
#endif

#if defined(DEX_STATS_AVX2)
// Sums of 32 byte values into 64-bit (sum) and 32-bit (squares) lanes; extremes per byte lane.
__attribute__((target("avx2"))) inline void addBytesAvx2(__m256i v, __m256i& sum, __m256i& sq,
                                                         __m256i& lo, __m256i& hi) {
  const __m256i z = _mm256_setzero_si256();
  sum = _mm256_add_epi64(sum, _mm256_sad_epu8(v, z));
  const __m256i l = _mm256_unpacklo_epi8(v, z);
  const __m256i h = _mm256_unpackhi_epi8(v, z);
  sq = _mm256_add_epi32(sq, _mm256_add_epi32(_mm256_madd_epi16(l, l), _mm256_madd_epi16(h, h)));
  lo = _mm256_min_epu8(lo, v);
  hi = _mm256_max_epu8(hi, v);
}

__attribute__((target("avx2"))) inline void flushBytesAvx2(__m256i& sum, __m256i& sq,
                                                           ByteSums& s) {
  alignas(32) uint64_t a[4];
  alignas(32) uint32_t b[8];
  _mm256_store_si256(reinterpret_cast<__m256i*>(a), sum);
  _mm256_store_si256(reinterpret_cast<__m256i*>(b), sq);
  for (int k = 0; k < 4; ++k) s.sum += a[k];
  for (int k = 0; k < 8; ++k) s.sumSq += b[k];
  sum = _mm256_setzero_si256();
  sq = _mm256_setzero_si256();
}

__attribute__((target("avx2"))) inline void bytesExtremesAvx2(__m256i lo, __m256i hi,
                                                              ByteSums& s) {
  alignas(32) uint8_t l[32];
  alignas(32) uint8_t h[32];
  _mm256_store_si256(reinterpret_cast<__m256i*>(l), lo);
  _mm256_store_si256(reinterpret_cast<__m256i*>(h), hi);
  for (int k = 0; k < 32; ++k) {
    s.lo = std::min(s.lo, static_cast<int>(l[k]));
    s.hi = std::max(s.hi, static_cast<int>(h[k]));
  }
}

// AVX2 body of the byte statistics (without histogram) over the whole blocks of 32 of n bytes.
template <bool Luma, bool Diff>
__attribute__((target("avx2"))) int byteBlocksAvx2(const uint8_t* cur, const uint8_t* prev, int n,
                                                   ByteSums* luma, ByteSums* diff) {
  const __m256i z = _mm256_setzero_si256(), ones = _mm256_set1_epi8(-1);
  __m256i lsum = z, lsq = z, llo = ones, lhi = z, dsum = z, dsq = z, dlo = ones, dhi = z;
  int i = 0;
  while (i + 32 <= n) {
    const int end = std::min(n, i + kByteChunk);
    for (; i + 32 <= end; i += 32) {
      const __m256i c = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(cur + i));
      if (Luma) addBytesAvx2(c, lsum, lsq, llo, lhi);
      if (Diff) {
        const __m256i p = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(prev + i));
        addBytesAvx2(_mm256_or_si256(_mm256_subs_epu8(c, p), _mm256_subs_epu8(p, c)), dsum, dsq,
                     dlo, dhi);
      }
    }
    if (Luma) flushBytesAvx2(lsum, lsq, *luma);
    if (Diff) flushBytesAvx2(dsum, dsq, *diff);
  }
  if (Luma) {
    bytesExtremesAvx2(llo, lhi, *luma);
    luma->n += i;
  }
  if (Diff) {
    bytesExtremesAvx2(dlo, dhi, *diff);
    diff->n += i;
  }
  return i;
}
#endif

inline void addByte(ByteSums& s, uint32_t v) {
  s.sum += v;
  s.sumSq += v * v;
  s.lo = std::min(s.lo, static_cast<int>(v));
  s.hi = std::max(s.hi, static_cast<int>(v));
}

// Statistics of n bytes: of `cur` into luma, of |cur - prev| into diff, and `cur` into hist. Any
// of the three may be null; prev is read only for diff.
void byteStats(const uint8_t* cur, const uint8_t* prev, int n, ByteSums* luma, ByteSums* diff,
               HistCounter* hist, bool simd) {
  // A histogram not kept in pair tables counts all bytes on its own.
  const bool pairs = hist != nullptr && hist->pairs;
  if (hist != nullptr && !pairs) hist->addBytes(cur, n);
  int i = 0;  // bytes done by the vector bodies
#if defined(__ARM_NEON) || defined(__SSE2__)
  if (simd) {
    const int mask = (luma != nullptr ? 1 : 0) | (diff != nullptr ? 2 : 0) | (pairs ? 4 : 0);
#if defined(DEX_STATS_AVX2)
    if (cpuHasAvx2()) {
      if (mask == 1) i = byteBlocksAvx2<true, false>(cur, prev, n, luma, diff);
      if (mask == 2) i = byteBlocksAvx2<false, true>(cur, prev, n, luma, diff);
      if (mask == 3) i = byteBlocksAvx2<true, true>(cur, prev, n, luma, diff);
    }
#endif
    // The 16-byte body takes over where the AVX2 one stopped (or does it all).
    const uint8_t* c = cur + i;
    const uint8_t* p = prev != nullptr ? prev + i : nullptr;
    const int m = n - i;
    switch (mask) {
      case 1: i += byteBlocksVector<true, false, false>(c, p, m, luma, diff, hist); break;
      case 2: i += byteBlocksVector<false, true, false>(c, p, m, luma, diff, hist); break;
      case 3: i += byteBlocksVector<true, true, false>(c, p, m, luma, diff, hist); break;
      case 4: i += byteBlocksVector<false, false, true>(c, p, m, luma, diff, hist); break;
      case 5: i += byteBlocksVector<true, false, true>(c, p, m, luma, diff, hist); break;
      case 6: i += byteBlocksVector<false, true, true>(c, p, m, luma, diff, hist); break;
      case 7: i += byteBlocksVector<true, true, true>(c, p, m, luma, diff, hist); break;
      default: break;
    }
  }
#else
  (void)simd;
#endif
  // Pair tables: the bytes the vector bodies left (i is even).
  if (pairs) hist->addBytes(cur + i, n - i);
  if (luma != nullptr) {
    for (int k = i; k < n; ++k) addByte(*luma, cur[k]);
    luma->n += n - i;
  }
  if (diff != nullptr) {
    for (int k = i; k < n; ++k) addByte(*diff, static_cast<uint32_t>(std::abs(cur[k] - prev[k])));
    diff->n += n - i;
  }
}

// ---- Gradient (3x3 Sobel) statistics.

// Exact and float sums of q = gx^2 + gy^2 over a set of pixels.
struct GradSums {
  uint64_t sumQ = 0;    // sum of q: 16 x the sum of squared magnitudes
  double sumRoot = 0;   // sum of sqrt(q): 4 x the sum of magnitudes
  uint32_t lo = 0xffffffffu;
  uint32_t hi = 0;
  long n = 0;

  void fill(KO_dataStats_t* out) const {
    KO_dataStats_t r{};
    if (n > 0) {
      const double dn = static_cast<double>(n);
      const double mean = 0.25 * sumRoot / dn;
      // The exact mean square less the (float-summed) squared mean; all magnitudes equal (lo ==
      // hi) is known to spread 0, whatever rounding the mean carries.
      const double var = lo == hi ? 0.0
                                  : std::max(0.0, static_cast<double>(sumQ) / 16.0 / dn - mean * mean);
      r.mean = static_cast<float>(mean);
      r.stddev = static_cast<float>(std::sqrt(var));
      r.stddevCopy = r.stddev;
      r.min = std::sqrt(static_cast<float>(lo)) * 0.25f;
      r.max = std::sqrt(static_cast<float>(hi)) * 0.25f;
    }
    *out = r;
  }
};

// Pixels per float-lane chunk (a multiple of 8): each lane adds at most 128 roots before the
// chunk is closed in double precision, and the 32-bit lane sums of q stay below 2^30.
constexpr int kGradChunk = 1024;
// Above every q (q <= 2 * 1020^2), exact as a float.
constexpr uint32_t kAboveAnyQ = 1u << 24;

// The open chunk of a gradient accumulation. Rows add to it until the next would not fit; the
// float lanes and the vector lanes of the exact parts stay open across rows.
struct GradChunk {
  float lane[8] = {};
  float rest = 0.0f;  // pixels of row pieces shorter than one block
  uint32_t vq[8] = {};  // vector lanes of q: sum, min, max (4 or 8 lanes in use)
  uint32_t vlo[8] = {kAboveAnyQ, kAboveAnyQ, kAboveAnyQ, kAboveAnyQ,
                     kAboveAnyQ, kAboveAnyQ, kAboveAnyQ, kAboveAnyQ};
  uint32_t vhi[8] = {};
  uint64_t sumQ = 0;  // portable body
  uint32_t lo = kAboveAnyQ;
  uint32_t hi = 0;
  int pixels = 0;
};

// Vector body of the gradients of pixels start .. n - 1 of a row piece. r0, r1, r2 point at
// the piece's first pixel in the row above, the row itself and the row below; one more pixel on
// either side is read. Whole blocks of 8 from `start` on, then, when pixels are left and the
// piece holds at least 8, the last 8 pixels of the piece as one more block with the lanes of
// the pixels already counted masked out (their roots added as +0, which leaves a lane sum as it
// is). Stores gx, gy when Store (the masked pixels get the values they already have). With
// Hist, the bytes of r2 under each whole block go into the histogram's pair tables too (room
// for them reserved by the caller). Returns the end of what it covered: n, or the end of the
// last whole block when n < 8.
template <bool Store, bool Hist>
int gradBlocksVector(const uint8_t* r0, const uint8_t* r1, const uint8_t* r2, int start, int n,
                     int16_t* gx, int16_t* gy, GradChunk& c, HistCounter* hist);

#if defined(__ARM_NEON)

inline float32x4_t sqrtLanes(float32x4_t v) {
#if defined(__aarch64__)
  return vsqrtq_f32(v);
#else
  // v * 1/sqrt(v) from the estimate refined twice; the estimate of 0 is infinite, so 0 is
  // taken apart.
  float32x4_t e = vrsqrteq_f32(v);
  e = vmulq_f32(e, vrsqrtsq_f32(vmulq_f32(v, e), e));
  e = vmulq_f32(e, vrsqrtsq_f32(vmulq_f32(v, e), e));
  const float32x4_t zero = vdupq_n_f32(0.0f);
  return vbslq_f32(vceqq_f32(v, zero), zero, vmulq_f32(v, e));
#endif
}

struct GradLanesNeon {
  float32x4_t acc0, acc1;
  uint32x4_t sq, lo, hi;
};

// One block of 8 at pixel i; with Masked only the lanes set in keepA (pixels 0-3) and keepB
// (4-7) count.
template <bool Store, bool Masked>
inline void gradBlockNeon(const uint8_t* r0, const uint8_t* r1, const uint8_t* r2, int i,
                          int16_t* gx, int16_t* gy, GradLanesNeon& s, uint32x4_t keepA,
                          uint32x4_t keepB) {
  const uint8x8_t a0 = vld1_u8(r0 + i - 1), b0 = vld1_u8(r0 + i), c0 = vld1_u8(r0 + i + 1);
  const uint8x8_t a1 = vld1_u8(r1 + i - 1), c1 = vld1_u8(r1 + i + 1);
  const uint8x8_t a2 = vld1_u8(r2 + i - 1), b2 = vld1_u8(r2 + i), c2 = vld1_u8(r2 + i + 1);
  // Wrapping 16-bit differences read as signed are the exact differences.
  const int16x8_t h0 = vreinterpretq_s16_u16(vsubl_u8(c0, a0));
  const int16x8_t h1 = vreinterpretq_s16_u16(vsubl_u8(c1, a1));
  const int16x8_t h2 = vreinterpretq_s16_u16(vsubl_u8(c2, a2));
  const int16x8_t v0 = vreinterpretq_s16_u16(vsubl_u8(a2, a0));
  const int16x8_t v1 = vreinterpretq_s16_u16(vsubl_u8(b2, b0));
  const int16x8_t v2 = vreinterpretq_s16_u16(vsubl_u8(c2, c0));
  const int16x8_t gxv = vaddq_s16(vaddq_s16(h0, h2), vshlq_n_s16(h1, 1));
  const int16x8_t gyv = vaddq_s16(vaddq_s16(v0, v2), vshlq_n_s16(v1, 1));
  if (Store) {
    vst1q_s16(gx + i, gxv);
    vst1q_s16(gy + i, gyv);
  }
  int32x4_t qa = vmull_s16(vget_low_s16(gxv), vget_low_s16(gxv));
  qa = vmlal_s16(qa, vget_low_s16(gyv), vget_low_s16(gyv));
  int32x4_t qb = vmull_s16(vget_high_s16(gxv), vget_high_s16(gxv));
  qb = vmlal_s16(qb, vget_high_s16(gyv), vget_high_s16(gyv));
  uint32x4_t ua = vreinterpretq_u32_s32(qa), ub = vreinterpretq_u32_s32(qb);
  uint32x4_t la = ua, lb = ub;
  if (Masked) {
    ua = vandq_u32(ua, keepA);
    ub = vandq_u32(ub, keepB);
    la = vbslq_u32(keepA, ua, vdupq_n_u32(kAboveAnyQ));
    lb = vbslq_u32(keepB, ub, vdupq_n_u32(kAboveAnyQ));
  }
  s.sq = vaddq_u32(s.sq, vaddq_u32(ua, ub));
  s.lo = vminq_u32(s.lo, vminq_u32(la, lb));
  s.hi = vmaxq_u32(s.hi, vmaxq_u32(ua, ub));
  // q < 2^24 converts exactly.
  s.acc0 = vaddq_f32(s.acc0, sqrtLanes(vcvtq_f32_u32(ua)));
  s.acc1 = vaddq_f32(s.acc1, sqrtLanes(vcvtq_f32_u32(ub)));
}

template <bool Store, bool Hist>
int gradBlocksVector(const uint8_t* r0, const uint8_t* r1, const uint8_t* r2, int start, int n,
                     int16_t* gx, int16_t* gy, GradChunk& c, HistCounter* hist) {
  GradLanesNeon s{vld1q_f32(c.lane), vld1q_f32(c.lane + 4), vld1q_u32(c.vq), vld1q_u32(c.vlo),
                  vld1q_u32(c.vhi)};
  const uint32x4_t all = vdupq_n_u32(0xffffffffu);
  int i = start;
  for (; i + 8 <= n; i += 8) {
    gradBlockNeon<Store, false>(r0, r1, r2, i, gx, gy, s, all, all);
    if (Hist) hist->countPairHalfBlock(r2 + i);
  }
  if (Hist) hist->pending += (i - start) / 2;
  if (i < n && n >= 8) {
    const int base = n - 8;
    const uint32_t skip = static_cast<uint32_t>(i - base);  // lanes already counted
    const uint32_t idA[4] = {0, 1, 2, 3}, idB[4] = {4, 5, 6, 7};
    const uint32x4_t keepA = vcgeq_u32(vld1q_u32(idA), vdupq_n_u32(skip));
    const uint32x4_t keepB = vcgeq_u32(vld1q_u32(idB), vdupq_n_u32(skip));
    gradBlockNeon<Store, true>(r0, r1, r2, base, gx, gy, s, keepA, keepB);
    i = n;
  }
  vst1q_f32(c.lane, s.acc0);
  vst1q_f32(c.lane + 4, s.acc1);
  vst1q_u32(c.vq, s.sq);
  vst1q_u32(c.vlo, s.lo);
  vst1q_u32(c.vhi, s.hi);
  return i;
}

#elif defined(__SSE2__)

inline __m128i load8x16(const uint8_t* p) {
  return _mm_unpacklo_epi8(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(p)),
                           _mm_setzero_si128());
}

// Extremes of q kept as floats (exact below 2^24): SSE2 has no 32-bit integer min and max.
struct GradLanesSse {
  __m128 acc0, acc1, lo, hi;
  __m128i sq;
};

template <bool Store, bool Masked>
inline void gradBlockSse(const uint8_t* r0, const uint8_t* r1, const uint8_t* r2, int i,
                         int16_t* gx, int16_t* gy, GradLanesSse& s, __m128i keepA,
                         __m128i keepB) {
  const __m128i a0 = load8x16(r0 + i - 1), b0 = load8x16(r0 + i), c0 = load8x16(r0 + i + 1);
  const __m128i a1 = load8x16(r1 + i - 1), c1 = load8x16(r1 + i + 1);
  const __m128i a2 = load8x16(r2 + i - 1), b2 = load8x16(r2 + i), c2 = load8x16(r2 + i + 1);
  const __m128i h1 = _mm_sub_epi16(c1, a1);
  const __m128i v1 = _mm_sub_epi16(b2, b0);
  const __m128i gxv = _mm_add_epi16(_mm_add_epi16(_mm_sub_epi16(c0, a0), _mm_sub_epi16(c2, a2)),
                                    _mm_add_epi16(h1, h1));
  const __m128i gyv = _mm_add_epi16(_mm_add_epi16(_mm_sub_epi16(a2, a0), _mm_sub_epi16(c2, c0)),
                                    _mm_add_epi16(v1, v1));
  if (Store) {
    _mm_storeu_si128(reinterpret_cast<__m128i*>(gx + i), gxv);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(gy + i), gyv);
  }
  // (gx, gy) pairs multiplied and added pairwise: gx^2 + gy^2 per pixel.
  const __m128i pa = _mm_unpacklo_epi16(gxv, gyv), pb = _mm_unpackhi_epi16(gxv, gyv);
  __m128i qa = _mm_madd_epi16(pa, pa), qb = _mm_madd_epi16(pb, pb);
  if (Masked) {
    qa = _mm_and_si128(qa, keepA);
    qb = _mm_and_si128(qb, keepB);
  }
  s.sq = _mm_add_epi32(s.sq, _mm_add_epi32(qa, qb));
  const __m128 fa = _mm_cvtepi32_ps(qa), fb = _mm_cvtepi32_ps(qb);
  __m128 la = fa, lb = fb;
  if (Masked) {
    const __m128 above = _mm_set1_ps(static_cast<float>(kAboveAnyQ));
    const __m128 ka = _mm_castsi128_ps(keepA), kb = _mm_castsi128_ps(keepB);
    la = _mm_or_ps(_mm_and_ps(ka, fa), _mm_andnot_ps(ka, above));
    lb = _mm_or_ps(_mm_and_ps(kb, fb), _mm_andnot_ps(kb, above));
  }
  s.lo = _mm_min_ps(s.lo, _mm_min_ps(la, lb));
  s.hi = _mm_max_ps(s.hi, _mm_max_ps(fa, fb));
  s.acc0 = _mm_add_ps(s.acc0, _mm_sqrt_ps(fa));
  s.acc1 = _mm_add_ps(s.acc1, _mm_sqrt_ps(fb));
}

template <bool Store, bool Hist>
int gradBlocksVector(const uint8_t* r0, const uint8_t* r1, const uint8_t* r2, int start, int n,
                     int16_t* gx, int16_t* gy, GradChunk& c, HistCounter* hist) {
  GradLanesSse s{_mm_loadu_ps(c.lane), _mm_loadu_ps(c.lane + 4),
                 _mm_cvtepi32_ps(_mm_loadu_si128(reinterpret_cast<const __m128i*>(c.vlo))),
                 _mm_cvtepi32_ps(_mm_loadu_si128(reinterpret_cast<const __m128i*>(c.vhi))),
                 _mm_loadu_si128(reinterpret_cast<const __m128i*>(c.vq))};
  const __m128i all = _mm_set1_epi32(-1);
  int i = start;
  for (; i + 8 <= n; i += 8) {
    gradBlockSse<Store, false>(r0, r1, r2, i, gx, gy, s, all, all);
    if (Hist) hist->countPairHalfBlock(r2 + i);
  }
  if (Hist) hist->pending += (i - start) / 2;
  if (i < n && n >= 8) {
    const int base = n - 8;
    const __m128i skip = _mm_set1_epi32(i - base - 1);  // lanes below i - base already counted
    const __m128i keepA = _mm_cmpgt_epi32(_mm_setr_epi32(0, 1, 2, 3), skip);
    const __m128i keepB = _mm_cmpgt_epi32(_mm_setr_epi32(4, 5, 6, 7), skip);
    gradBlockSse<Store, true>(r0, r1, r2, base, gx, gy, s, keepA, keepB);
    i = n;
  }
  _mm_storeu_ps(c.lane, s.acc0);
  _mm_storeu_ps(c.lane + 4, s.acc1);
  _mm_storeu_si128(reinterpret_cast<__m128i*>(c.vq), s.sq);
  _mm_storeu_si128(reinterpret_cast<__m128i*>(c.vlo), _mm_cvttps_epi32(s.lo));
  _mm_storeu_si128(reinterpret_cast<__m128i*>(c.vhi), _mm_cvttps_epi32(s.hi));
  return i;
}

#if defined(DEX_STATS_AVX2)

__attribute__((target("avx2"))) inline __m256i load16x16(const uint8_t* p) {
  return _mm256_cvtepu8_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p)));
}

__attribute__((target("avx2"))) inline __m128i load8x16Avx2(const uint8_t* p) {
  return _mm_cvtepu8_epi16(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(p)));
}

// One block of 8 at pixel i into the 8-lane sums (pixel k in lane k); with Masked only the
// lanes set in keep count.
template <bool Store, bool Masked>
__attribute__((target("avx2"))) inline void gradBlockAvx2(const uint8_t* r0, const uint8_t* r1,
                                                          const uint8_t* r2, int i, int16_t* gx,
                                                          int16_t* gy, __m256& acc, __m256i& sq,
                                                          __m256i& lo, __m256i& hi,
                                                          __m256i keep) {
  const __m128i a0 = load8x16Avx2(r0 + i - 1), b0 = load8x16Avx2(r0 + i);
  const __m128i c0 = load8x16Avx2(r0 + i + 1);
  const __m128i a1 = load8x16Avx2(r1 + i - 1), c1 = load8x16Avx2(r1 + i + 1);
  const __m128i a2 = load8x16Avx2(r2 + i - 1), b2 = load8x16Avx2(r2 + i);
  const __m128i c2 = load8x16Avx2(r2 + i + 1);
  const __m128i h1 = _mm_sub_epi16(c1, a1);
  const __m128i v1 = _mm_sub_epi16(b2, b0);
  const __m128i gxv = _mm_add_epi16(_mm_add_epi16(_mm_sub_epi16(c0, a0), _mm_sub_epi16(c2, a2)),
                                    _mm_add_epi16(h1, h1));
  const __m128i gyv = _mm_add_epi16(_mm_add_epi16(_mm_sub_epi16(a2, a0), _mm_sub_epi16(c2, c0)),
                                    _mm_add_epi16(v1, v1));
  if (Store) {
    _mm_storeu_si128(reinterpret_cast<__m128i*>(gx + i), gxv);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(gy + i), gyv);
  }
  const __m128i pa = _mm_unpacklo_epi16(gxv, gyv), pb = _mm_unpackhi_epi16(gxv, gyv);
  __m256i q = _mm256_set_m128i(_mm_madd_epi16(pb, pb), _mm_madd_epi16(pa, pa));
  __m256i qlo = q;
  if (Masked) {
    q = _mm256_and_si256(q, keep);
    qlo = _mm256_blendv_epi8(_mm256_set1_epi32(static_cast<int>(kAboveAnyQ)), q, keep);
  }
  sq = _mm256_add_epi32(sq, q);
  lo = _mm256_min_epu32(lo, qlo);
  hi = _mm256_max_epu32(hi, q);
  acc = _mm256_add_ps(acc, _mm256_sqrt_ps(_mm256_cvtepi32_ps(q)));
}

// AVX2 body, as gradBlocksVector (the same coverage and result): whole pairs of blocks (16
// pixels) per step, then a last whole block and the masked last 8. Each block's eight roots go
// into one 8-lane vector (pixel k in lane k) and are added to the lane sums block after block:
// the same additions, in the same order, as the 4-lane bodies make.
template <bool Store, bool Hist>
__attribute__((target("avx2"))) int gradPairsAvx2(const uint8_t* r0, const uint8_t* r1,
                                                  const uint8_t* r2, int n, int16_t* gx,
                                                  int16_t* gy, GradChunk& c, HistCounter* hist) {
  __m256 acc = _mm256_loadu_ps(c.lane);
  __m256i sq = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(c.vq));
  __m256i lo = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(c.vlo));
  __m256i hi = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(c.vhi));
  int i = 0;
  for (; i + 16 <= n; i += 16) {
    const __m256i a0 = load16x16(r0 + i - 1), b0 = load16x16(r0 + i), c0 = load16x16(r0 + i + 1);
    const __m256i a1 = load16x16(r1 + i - 1), c1 = load16x16(r1 + i + 1);
    const __m256i a2 = load16x16(r2 + i - 1), b2 = load16x16(r2 + i), c2 = load16x16(r2 + i + 1);
    const __m256i h1 = _mm256_sub_epi16(c1, a1);
    const __m256i v1 = _mm256_sub_epi16(b2, b0);
    const __m256i gxv = _mm256_add_epi16(
        _mm256_add_epi16(_mm256_sub_epi16(c0, a0), _mm256_sub_epi16(c2, a2)),
        _mm256_add_epi16(h1, h1));
    const __m256i gyv = _mm256_add_epi16(
        _mm256_add_epi16(_mm256_sub_epi16(a2, a0), _mm256_sub_epi16(c2, c0)),
        _mm256_add_epi16(v1, v1));
    if (Store) {
      _mm256_storeu_si256(reinterpret_cast<__m256i*>(gx + i), gxv);
      _mm256_storeu_si256(reinterpret_cast<__m256i*>(gy + i), gyv);
    }
    // The unpacks work within 128-bit halves: pa holds q of pixels 0-3 and 8-11, pb of 4-7
    // and 12-15; the two blocks are put back together before use.
    const __m256i pa = _mm256_unpacklo_epi16(gxv, gyv), pb = _mm256_unpackhi_epi16(gxv, gyv);
    const __m256i qa = _mm256_madd_epi16(pa, pa), qb = _mm256_madd_epi16(pb, pb);
    const __m256i q0 = _mm256_permute2x128_si256(qa, qb, 0x20);
    const __m256i q1 = _mm256_permute2x128_si256(qa, qb, 0x31);
    sq = _mm256_add_epi32(sq, _mm256_add_epi32(q0, q1));
    lo = _mm256_min_epu32(lo, _mm256_min_epu32(q0, q1));
    hi = _mm256_max_epu32(hi, _mm256_max_epu32(q0, q1));
    acc = _mm256_add_ps(acc, _mm256_sqrt_ps(_mm256_cvtepi32_ps(q0)));
    acc = _mm256_add_ps(acc, _mm256_sqrt_ps(_mm256_cvtepi32_ps(q1)));
    // The histogram's scalar counter updates run alongside the vector work.
    if (Hist) hist->countPairBlock(r2 + i);
  }
  const __m256i all = _mm256_set1_epi32(-1);
  if (i + 8 <= n) {
    gradBlockAvx2<Store, false>(r0, r1, r2, i, gx, gy, acc, sq, lo, hi, all);
    if (Hist) hist->countPairHalfBlock(r2 + i);
    i += 8;
  }
  if (Hist) hist->pending += i / 2;
  if (i < n && n >= 8) {
    const int base = n - 8;
    const __m256i keep = _mm256_cmpgt_epi32(_mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7),
                                            _mm256_set1_epi32(i - base - 1));
    gradBlockAvx2<Store, true>(r0, r1, r2, base, gx, gy, acc, sq, lo, hi, keep);
    i = n;
  }
  _mm256_storeu_ps(c.lane, acc);
  _mm256_storeu_si256(reinterpret_cast<__m256i*>(c.vq), sq);
  _mm256_storeu_si256(reinterpret_cast<__m256i*>(c.vlo), lo);
  _mm256_storeu_si256(reinterpret_cast<__m256i*>(c.vhi), hi);
  return i;
}
#endif

#endif

// Gradient statistics over a set of pixels, row by row.
struct GradAccum {
  GradSums total;
  GradChunk chunk;

  // Interior pixels 1 .. w - 2 of row r1 (r0 above, r2 below); with Store their gx and gy go to
  // gxRow[x] and gyRow[x]. With Hist (vector path, histogram in pair tables) all w bytes of r2
  // are counted into the histogram on the way.
  template <bool Store, bool Hist = false>
  void addRow(const uint8_t* r0, const uint8_t* r1, const uint8_t* r2, int w, int16_t* gxRow,
              int16_t* gyRow, bool simd, HistCounter* hist = nullptr) {
    for (int x = 1; x + 1 < w; x += kGradChunk) {
      const int n = std::min(kGradChunk, w - 1 - x);
      if (chunk.pixels + n > kGradChunk) close();
      if (Hist) hist->reserve(n / 2);
      const int counted = addPiece<Store, Hist>(r0 + x, r1 + x, r2 + x, n,
                                                Store ? gxRow + x : nullptr,
                                                Store ? gyRow + x : nullptr, simd, hist);
      if (Hist) hist->addBytes(r2 + x + counted, n - counted);
    }
    if (Hist) {
      hist->addBytes(r2, 1);
      if (w > 1) hist->addBytes(r2 + w - 1, 1);
    }
  }

  // Returns how many bytes of r2 went into the histogram (Hist), from the piece's start.
  template <bool Store, bool Hist>
  int addPiece(const uint8_t* r0, const uint8_t* r1, const uint8_t* r2, int n, int16_t* gx,
               int16_t* gy, bool simd, HistCounter* hist) {
    GradChunk& c = chunk;
    int i = 0;
#if defined(__ARM_NEON) || defined(__SSE2__)
    if (simd) {
#if defined(DEX_STATS_AVX2)
      if (cpuHasAvx2()) {
        i = gradPairsAvx2<Store, Hist>(r0, r1, r2, n, gx, gy, c, hist);
      } else {
        i = gradBlocksVector<Store, Hist>(r0, r1, r2, 0, n, gx, gy, c, hist);
      }
#else
      i = gradBlocksVector<Store, Hist>(r0, r1, r2, 0, n, gx, gy, c, hist);
#endif
    }
#else
    (void)simd;
    (void)hist;
#endif
    // What the whole blocks covered (the vector bodies count r2 under them only).
    const int counted = Hist ? (i / 8) * 8 : 0;
    for (; i + 8 <= n; i += 8) {
      for (int k = 0; k < 8; ++k) c.lane[k] += pixel<Store>(r0, r1, r2, i + k, gx, gy);
    }
    if (n >= 8) {
      // The pixels after the last whole block take the lanes they have in the piece's last 8.
      for (; i < n; ++i) c.lane[i - (n - 8)] += pixel<Store>(r0, r1, r2, i, gx, gy);
    } else {
      for (; i < n; ++i) c.rest += pixel<Store>(r0, r1, r2, i, gx, gy);
    }
    c.pixels += n;
    return counted;
  }

  // One pixel into the chunk's exact parts; returns its root.
  template <bool Store>
  float pixel(const uint8_t* r0, const uint8_t* r1, const uint8_t* r2, int i, int16_t* gx,
              int16_t* gy) {
    const int x = (r0[i + 1] - r0[i - 1]) + 2 * (r1[i + 1] - r1[i - 1]) + (r2[i + 1] - r2[i - 1]);
    const int y = (r2[i - 1] - r0[i - 1]) + 2 * (r2[i] - r0[i]) + (r2[i + 1] - r0[i + 1]);
    if (Store) {
      gx[i] = static_cast<int16_t>(x);
      gy[i] = static_cast<int16_t>(y);
    }
    const uint32_t q = static_cast<uint32_t>(x * x + y * y);
    chunk.sumQ += q;
    chunk.lo = std::min(chunk.lo, q);
    chunk.hi = std::max(chunk.hi, q);
    return std::sqrt(static_cast<float>(q));
  }

  // Adds the open chunk to the total: the lanes in a fixed order, in double precision.
  void close() {
    GradChunk& c = chunk;
    if (c.pixels == 0) return;
    double sum = 0.0;
    for (int k = 0; k < 8; ++k) sum += c.lane[k];
    total.sumRoot += sum + c.rest;
    total.sumQ += c.sumQ;
    total.lo = std::min(total.lo, c.lo);
    total.hi = std::max(total.hi, c.hi);
    for (int k = 0; k < 8; ++k) {
      total.sumQ += c.vq[k];
      total.lo = std::min(total.lo, c.vlo[k]);
      total.hi = std::max(total.hi, c.vhi[k]);
    }
    total.n += c.pixels;
    c = GradChunk{};
  }

  void fill(KO_dataStats_t* out) {
    close();
    total.fill(out);
  }
};

// Zeroes the one-pixel border of the two w x h gradient planes (row stride w).
void clearGradBorder(int16_t* gx, int16_t* gy, int w, int h) {
  for (int x = 0; x < w; ++x) {
    gx[x] = gy[x] = 0;
    gx[static_cast<long>(h - 1) * w + x] = gy[static_cast<long>(h - 1) * w + x] = 0;
  }
  for (int y = 0; y < h; ++y) {
    gx[static_cast<long>(y) * w] = gy[static_cast<long>(y) * w] = 0;
    gx[static_cast<long>(y) * w + w - 1] = gy[static_cast<long>(y) * w + w - 1] = 0;
  }
}

bool badBins(const char* func, int bins) {
  if (bins <= 0 || bins > 256 || (bins & (bins - 1)) != 0) {
    __android_log_print(ANDROID_LOG_ERROR, kTag, "%s: bins %d is not a power of two in 1..256",
                        func, bins);
    return true;
  }
  return false;
}

}  // namespace

void DexFrameMetaData::setSimdEnabled(bool enabled) {
  gStatsSimd.store(enabled, std::memory_order_relaxed);
}

int DexFrameMetaData::calcMeanStddev(const uint8_t* img, KO_dataStats_t* stats, int n) {
  if (badArgs(__func__, img, stats, img, n, 1, 1, 1)) return -1;
  ByteSums s;
  byteStats(img, nullptr, n, &s, nullptr, nullptr, statsSimd());
  s.fill(stats);
  return 0;
}

int DexFrameMetaData::calcMFrameDiff(const uint8_t* cur, const uint8_t* prev,
                                     KO_dataStats_t* stats, int n) {
  if (badArgs(__func__, cur, prev, stats, n, 1, 1, 1)) return -1;
  ByteSums s;
  byteStats(cur, prev, n, nullptr, &s, nullptr, statsSimd());
  s.fill(stats);
  return 0;
}

int DexFrameMetaData::genHistogramPow2(const uint8_t* img, uint32_t* hist, int w, int h,
                                       int stride, int bins) {
  if (badArgs(__func__, img, hist, img, w, h, stride, w)) return -1;
  if (badBins(__func__, bins)) return -1;
  const bool simd = statsSimd();
  HistCounter counter(bins, simd);
  if (stride == w && static_cast<long>(w) * h <= INT_MAX) {
    // Contiguous rows are one run of bytes (the counts do not depend on where rows end).
    byteStats(img, nullptr, w * h, nullptr, nullptr, &counter, simd);
  } else {
    for (int y = 0; y < h; ++y) {
      byteStats(img + static_cast<long>(y) * stride, nullptr, w, nullptr, nullptr, &counter,
                simd);
    }
  }
  counter.finish(hist);
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
  clearGradBorder(scratch1, scratch2, w, h);
  const bool simd = statsSimd();
  GradAccum g;
  for (int y = 1; y + 1 < h; ++y) {
    const long offset = static_cast<long>(y) * w;
    const uint8_t* r1 = img + offset;
    g.addRow<true>(r1 - w, r1, r1 + w, w, scratch1 + offset, scratch2 + offset, simd);
  }
  g.fill(stats);
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
  const bool simd = statsSimd();
  const uint8_t* origin = img + static_cast<long>(y) * stride + x;
  GradAccum g;
  for (int r = 1; r + 1 < h; ++r) {
    const uint8_t* r1 = origin + static_cast<long>(r) * stride;
    g.addRow<false>(r1 - stride, r1, r1 + stride, w, nullptr, nullptr, simd);
  }
  g.fill(&stats);
  return 0;
}

int DexFrameMetaData::calcSmallFrameStats(const uint8_t* cur, const uint8_t* prev, int w, int h,
                                          KO_dataStats_t* luma, KO_dataStats_t* sobel,
                                          KO_dataStats_t* diff, uint32_t* hist, int bins,
                                          int16_t* gx, int16_t* gy) {
  if (badArgs(__func__, cur, luma, sobel, w, h, w, w) ||
      badArgs(__func__, diff, gx, gy, w, h, w, w)) {
    return -1;
  }
  if (static_cast<long>(w) * h > INT_MAX) {
    __android_log_print(ANDROID_LOG_ERROR, kTag, "%s: image %dx%d too large", __func__, w, h);
    return -1;
  }
  if (hist != nullptr && badBins(__func__, bins)) return -1;
  const bool simd = statsSimd();
  HistCounter counter(hist != nullptr ? bins : 1, simd, hist != nullptr);
  // With pair tables, the histogram's counter updates (scalar work) ride along with the
  // gradients (vector work) so that the two overlap: rows 0 and 1 are counted first, and each
  // gradient row counts the row below it.
  const bool ride = hist != nullptr && counter.pairs && h >= 3;
  // Pass 1, over the image as one run of bytes: luma and difference (and the histogram when it
  // does not ride) from the same loads.
  ByteSums lumaSums, diffSums;
  byteStats(cur, prev, w * h, &lumaSums, prev != nullptr ? &diffSums : nullptr,
            hist != nullptr && !ride ? &counter : nullptr, simd);
  // Pass 2: gradients, row by row.
  clearGradBorder(gx, gy, w, h);
  GradAccum g;
  if (ride) counter.addBytes(cur, 2 * w);
  for (int y = 1; y + 1 < h; ++y) {
    const long offset = static_cast<long>(y) * w;
    const uint8_t* r1 = cur + offset;
    if (ride) {
      g.addRow<true, true>(r1 - w, r1, r1 + w, w, gx + offset, gy + offset, simd, &counter);
    } else {
      g.addRow<true>(r1 - w, r1, r1 + w, w, gx + offset, gy + offset, simd);
    }
  }
  lumaSums.fill(luma);
  g.fill(sobel);
  if (prev != nullptr) {
    diffSums.fill(diff);
  } else {
    *diff = KO_dataStats_t{};
  }
  if (hist != nullptr) counter.finish(hist);
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
