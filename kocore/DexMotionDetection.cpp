// Block motion between consecutive analysis views. The global shift is the median of the block
// vectors, which ignores a moving subject covering less than half of the blocks. Each block then
// contributes min(1, |v - global| / FULL_DEVIATION) to the subject-motion score, averaged over the
// matched blocks: 0 when everything follows the camera, 1 when every block moves on its own by
// FULL_DEVIATION pixels or more. Deviations of one pixel or less are matching noise and count 0.
// Before matching, the view is brought to the reference's exposure (its mean and standard
// deviation matched to the reference's), so that an exposure step between the two frames is not
// taken for motion; blocks that the exposure clipped (more than an eighth of their pixels at 0 or
// 255 in either frame) are left out, having lost the detail to match on.
//
// The estimation runs about fifteen times a second beside everything else the preview does, so
// it is written for speed without changing a single result:
//  - no allocation per call: the planes and the block list live in the detector;
//  - only blocks that pass the texture and clipping tests are searched, and nothing is exposure
//    matched when none does;
//  - every search keeps the candidate that a plain raster scan would keep: the coarse search the
//    smallest (SAD, |dx| + |dy|, raster index), the fine search the smallest (SAD, raster index).
//    With that order fixed, candidates can be visited best guess first (no motion, then the
//    previous block's vector), and a candidate's SAD is abandoned as soon as its partial sum
//    can no longer win;
//  - the pixel loops have SSE2 and NEON versions next to the portable ones, and AVX2 versions
//    chosen at run time, whose searches take a whole row of candidates at once (vmpsadbw). All
//    sums are integer, so the paths agree bit for bit; the exposure map is evaluated in 16.16
//    fixed point only when that reproduces its rounded table exactly.
#include "DexMotionDetection.h"

#include <log/log.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdlib>
#include <cstring>

#if defined(__ARM_NEON)
#include <arm_neon.h>
#elif defined(__SSE2__)
#include <emmintrin.h>
#if defined(__GNUC__) && (defined(__x86_64__) || defined(__i386__))
#include <immintrin.h>
#define KO_MOTION_AVX2 1
#endif
#endif

#include "KoFrameHistSnapshot.h"

namespace android {

namespace {

constexpr const char* kTag = "DexMotionDetection";
constexpr int kBlock = DexMotionDetection::BLOCK;
constexpr int kRange = DexMotionDetection::RANGE;
// Mean absolute neighbour difference (grey levels) below which a block is too flat to match:
// the sum of the 2 * 16 * 15 neighbour differences of a block must reach this.
constexpr int kMinTexture = 3;
constexpr int kTextureSum = kMinTexture * 2 * kBlock * (kBlock - 1);
// Pixels of a block at or beyond the ends of the 8-bit range above which it is left out.
constexpr int kMaxClipped = kBlock * kBlock / 8;
// Bytes after the last row of a plane that the vector kernels may read (never use).
constexpr size_t kPad = 64;
// Coarse search: +/- kHalfRange at half resolution, candidates numbered in raster order.
constexpr int kHalfRange = kRange / 2;
constexpr int kCoarseSide = 2 * kHalfRange + 1;
constexpr int kFineSide = 2 * kRange + 1;

std::atomic<int> gKernels{DexMotionDetection::KERNELS_FASTEST};

// ---------------------------------------------------------------------------------------------
// Shared pieces of the kernels.

// The exposure map of the view: the rounded affine map as a table and, when it reproduces the
// table exactly, the same map in 16.16 fixed point: clamp((v * g + o) >> 16, 0, 255).
struct ExposureMap {
  uint8_t lut[256];
  bool fixedPoint = false;
  int32_t g = 0;
  int32_t o = 0;
};

void buildExposureMap(double gain, double offset, ExposureMap* m) {
  for (int v = 0; v < 256; ++v) {
    m->lut[v] = static_cast<uint8_t>(std::min(255L, std::max(0L, std::lround(gain * v + offset))));
  }
  // The table is floor(gain * v + offset + 0.5), clamped. Take g from the gain and find every
  // o that keeps each entry inside its rounding interval; then check the whole table.
  m->fixedPoint = false;
  if (!(gain > 0 && gain <= 4.0)) return;
  const int64_t g = std::llround(gain * 65536.0);
  int64_t lo = -(int64_t{1} << 30), hi = int64_t{1} << 30;
  for (int v = 0; v < 256; ++v) {
    const int64_t l = m->lut[v], base = v * g;
    if (l > 0) lo = std::max(lo, l * 65536 - base);
    if (l < 255) hi = std::min(hi, (l + 1) * 65536 - 1 - base);
  }
  if (lo > hi) return;
  const int64_t o = lo + (hi - lo) / 2;
  for (int v = 0; v < 256; ++v) {
    const int64_t y = (v * g + o) >> 16;
    if (std::min<int64_t>(255, std::max<int64_t>(0, y)) != m->lut[v]) return;
  }
  m->g = static_cast<int32_t>(g);
  m->o = static_cast<int32_t>(o);
  m->fixedPoint = true;
}

// Mean and standard deviation from the sums of the pixels and of their squares, computed as
// DexFrameMetaData::meanAndSpread2D computes them.
void meanAndSpreadOf(uint64_t sum, uint64_t sumSq, int w, int h, double* mean, double* spread) {
  const double n = static_cast<double>(w) * h;
  *mean = n > 0 ? static_cast<double>(sum) / n : 0.0;
  *spread = n > 0 ? std::sqrt(std::max(0.0, static_cast<double>(sumSq) / n - *mean * *mean)) : 0.0;
}

inline uint64_t coarseKey(uint32_t s, int dx, int dy) {
  const uint32_t tie = static_cast<uint32_t>(std::abs(dx) + std::abs(dy)) << 16 |
                       static_cast<uint32_t>((dy + kHalfRange) * kCoarseSide + dx + kHalfRange);
  return static_cast<uint64_t>(s) << 32 | tie;
}

inline uint64_t fineKey(uint32_t s, int dx, int dy) {
  return static_cast<uint64_t>(s) << 32 |
         static_cast<uint32_t>((dy + kRange) * kFineSide + dx + kRange);
}

// The SAD above which a candidate with the given key (low word) loses to `best`; -1 when it
// cannot win at all.
inline int64_t limitFor(uint64_t best, uint64_t key) {
  const int64_t s = static_cast<int64_t>(best >> 32);
  return (key & 0xffffffffu) < (best & 0xffffffffu) ? s : s - 1;
}

// Fine search of a 16x16 block (`ref`) in the view (`cur`, at the block's position, same
// stride): +/-2 around (2 cdx, 2 cdy) inside the search range, the centre first. Returns the
// winner's key.
template <class Kernels>
uint64_t fineSearch(const uint8_t* ref, const uint8_t* cur, int stride, int cdx, int cdy) {
  uint64_t best = UINT64_MAX;
  auto visit = [&](int dx, int dy) {
    const uint64_t key = fineKey(0, dx, dy);
    const int64_t limit = limitFor(best, key);
    if (limit < 0) return;
    const uint32_t s = Kernels::sad16(ref, stride, cur + static_cast<long>(dy) * stride + dx,
                                      stride, static_cast<uint32_t>(limit));
    best = std::min(best, key | static_cast<uint64_t>(s) << 32);
  };
  visit(2 * cdx, 2 * cdy);
  for (int dy = std::max(-kRange, 2 * cdy - 2); dy <= std::min(kRange, 2 * cdy + 2); ++dy) {
    for (int dx = std::max(-kRange, 2 * cdx - 2); dx <= std::min(kRange, 2 * cdx + 2); ++dx) {
      visit(dx, dy);
    }
  }
  return best;
}

// ---------------------------------------------------------------------------------------------
// Portable kernels. The SAD kernels return the exact sum, or a partial sum above `limit` once
// the sum is known to exceed it.

struct PortableKernels {
  static void sums(const uint8_t* img, int w, int h, int stride, uint64_t* sum, uint64_t* sumSq) {
    uint64_t s = 0, q = 0;
    for (int y = 0; y < h; ++y) {
      const uint8_t* r = img + static_cast<long>(y) * stride;
      uint32_t rowSum = 0;
      uint64_t rowSq = 0;
      for (int x = 0; x < w; ++x) {
        rowSum += r[x];
        rowSq += static_cast<uint32_t>(r[x]) * r[x];
      }
      s += rowSum;
      q += rowSq;
    }
    *sum = s;
    *sumSq = q;
  }

  static void exposure(const ExposureMap& m, const uint8_t* src, int stride, uint8_t* dst, int w,
                       int h) {
    for (int y = 0; y < h; ++y) {
      const uint8_t* s = src + static_cast<long>(y) * stride;
      uint8_t* d = dst + static_cast<long>(y) * w;
      for (int x = 0; x < w; ++x) d[x] = m.lut[s[x]];
    }
  }

  static void halve(uint8_t* dst, int dw, int dh, const uint8_t* src, int stride) {
    for (int y = 0; y < dh; ++y) {
      const uint8_t* s0 = src + static_cast<long>(2 * y) * stride;
      const uint8_t* s1 = s0 + stride;
      uint8_t* d = dst + static_cast<long>(y) * dw;
      for (int x = 0; x < dw; ++x) {
        d[x] = static_cast<uint8_t>((s0[2 * x] + s0[2 * x + 1] + s1[2 * x] + s1[2 * x + 1] + 2) >> 2);
      }
    }
  }

  // Sum of the absolute horizontal and vertical neighbour differences inside a block.
  static int texture(const uint8_t* p, int stride) {
    int sum = 0;
    for (int y = 0; y < kBlock; ++y) {
      const uint8_t* r = p + static_cast<long>(y) * stride;
      for (int x = 1; x < kBlock; ++x) sum += std::abs(r[x] - r[x - 1]);
      if (y > 0) {
        for (int x = 0; x < kBlock; ++x) sum += std::abs(r[x] - r[x - stride]);
      }
    }
    return sum;
  }

  // Pixels of a block at 0 or 255 in the view or in the reference.
  static int clipped(const uint8_t* v, int vStride, const uint8_t* r, int rStride) {
    int n = 0;
    for (int y = 0; y < kBlock; ++y) {
      const uint8_t* a = v + static_cast<long>(y) * vStride;
      const uint8_t* b = r + static_cast<long>(y) * rStride;
      for (int x = 0; x < kBlock; ++x) {
        n += a[x] == 0 || a[x] == 255 || b[x] == 0 || b[x] == 255;
      }
    }
    return n;
  }

  static uint32_t sad(const uint8_t* a, int strideA, const uint8_t* b, int strideB, int size,
                      uint32_t limit) {
    uint32_t s = 0;
    for (int y = 0; y < size; ++y) {
      const uint8_t* ra = a + static_cast<long>(y) * strideA;
      const uint8_t* rb = b + static_cast<long>(y) * strideB;
      for (int x = 0; x < size; ++x) s += static_cast<uint32_t>(std::abs(ra[x] - rb[x]));
      if ((y & 3) == 3 && s > limit) break;
    }
    return s;
  }

  static uint32_t sad16(const uint8_t* a, int strideA, const uint8_t* b, int strideB,
                        uint32_t limit) {
    return sad(a, strideA, b, strideB, kBlock, limit);
  }

  static uint64_t fine(const uint8_t* ref, const uint8_t* cur, int stride, int cdx, int cdy) {
    return fineSearch<PortableKernels>(ref, cur, stride, cdx, cdy);
  }

  // Coarse search of an 8x8 block of the reduced reference over +/-8 in the reduced view.
  // `at` is the block's position in the reduced view (same stride); (pdx, pdy) a predicted
  // vector. Returns the winner's key.
  static uint64_t coarse(const uint8_t* ref, const uint8_t* at, int stride, int pdx, int pdy) {
    uint64_t best = UINT64_MAX;
    auto visit = [&](int dx, int dy) {
      const uint64_t key = coarseKey(0, dx, dy);
      const int64_t limit = limitFor(best, key);
      if (limit < 0) return;
      const uint32_t s = sad(ref, stride, at + static_cast<long>(dy) * stride + dx, stride,
                             kBlock / 2, static_cast<uint32_t>(limit));
      best = std::min(best, key | static_cast<uint64_t>(s) << 32);
    };
    visit(0, 0);
    visit(pdx, pdy);
    for (int dy = -kHalfRange; dy <= kHalfRange; ++dy) {
      for (int dx = -kHalfRange; dx <= kHalfRange; ++dx) visit(dx, dy);
    }
    return best;
  }
};

// ---------------------------------------------------------------------------------------------
// SSE2 kernels (x86), with AVX2 versions of the plane passes and the fine SAD where the CPU has
// AVX2.

#if defined(__SSE2__) && !defined(__ARM_NEON)

inline uint32_t sumLanes(__m128i v) {  // the two 64-bit lanes of a psadbw accumulator
  return static_cast<uint32_t>(_mm_cvtsi128_si32(v)) +
         static_cast<uint32_t>(_mm_cvtsi128_si32(_mm_srli_si128(v, 8)));
}

// 16 exposure-mapped pixels in 16.16 fixed point: v * g splits into v * (g & 0xffff) (a 32-bit
// product as low and high halves) plus (v * (g >> 16)) << 16; the low half of o only matters
// through its carry into the high half.
struct Sse2Exposure {
  __m128i gLo, gHi, oHi, carryAt, flip, zero;
  explicit Sse2Exposure(const ExposureMap& m) {
    gLo = _mm_set1_epi16(static_cast<int16_t>(m.g & 0xffff));
    gHi = _mm_set1_epi16(static_cast<int16_t>(m.g >> 16));
    oHi = _mm_set1_epi16(static_cast<int16_t>(m.o >> 16));  // arithmetic shift: floor
    const int oLo = m.o & 0xffff;
    flip = _mm_set1_epi16(static_cast<int16_t>(0x8000));
    // carry when lo + oLo >= 65536, i.e. lo > 65535 - oLo (unsigned, compared as signed).
    carryAt = _mm_set1_epi16(static_cast<int16_t>((65535 - oLo) ^ 0x8000));
    zero = _mm_setzero_si128();
  }
  __m128i half(__m128i v) const {
    const __m128i lo = _mm_mullo_epi16(v, gLo);
    __m128i hi = _mm_add_epi16(_mm_mulhi_epu16(v, gLo), _mm_mullo_epi16(v, gHi));
    hi = _mm_add_epi16(hi, oHi);
    const __m128i carry = _mm_cmpgt_epi16(_mm_xor_si128(lo, flip), carryAt);
    return _mm_sub_epi16(hi, carry);
  }
  __m128i operator()(__m128i px) const {
    return _mm_packus_epi16(half(_mm_unpacklo_epi8(px, zero)), half(_mm_unpackhi_epi8(px, zero)));
  }
};

struct Sse2Kernels {
  static void sums(const uint8_t* img, int w, int h, int stride, uint64_t* sum, uint64_t* sumSq) {
    const __m128i zero = _mm_setzero_si128();
    __m128i s = zero;  // two 64-bit lanes
    uint64_t q64 = 0, tail = 0, tailSq = 0;
    for (int y = 0; y < h; ++y) {
      const uint8_t* r = img + static_cast<long>(y) * stride;
      __m128i q = zero;  // four 32-bit lanes; a row of up to 16k chunks cannot overflow them
      int x = 0;
      for (; x + 16 <= w && x < (1 << 16); x += 16) {
        const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(r + x));
        s = _mm_add_epi64(s, _mm_sad_epu8(v, zero));
        const __m128i lo = _mm_unpacklo_epi8(v, zero), hi = _mm_unpackhi_epi8(v, zero);
        q = _mm_add_epi32(q, _mm_add_epi32(_mm_madd_epi16(lo, lo), _mm_madd_epi16(hi, hi)));
      }
      alignas(16) uint32_t lanes[4];
      _mm_store_si128(reinterpret_cast<__m128i*>(lanes), q);
      q64 += static_cast<uint64_t>(lanes[0]) + lanes[1] + lanes[2] + lanes[3];
      for (; x < w; ++x) {
        tail += r[x];
        tailSq += static_cast<uint32_t>(r[x]) * r[x];
      }
    }
    alignas(16) uint64_t s64[2];
    _mm_store_si128(reinterpret_cast<__m128i*>(s64), s);
    *sum = s64[0] + s64[1] + tail;
    *sumSq = q64 + tailSq;
  }

  static void exposure(const ExposureMap& m, const uint8_t* src, int stride, uint8_t* dst, int w,
                       int h) {
    if (!m.fixedPoint) {
      PortableKernels::exposure(m, src, stride, dst, w, h);
      return;
    }
    const Sse2Exposure map(m);
    for (int y = 0; y < h; ++y) {
      const uint8_t* s = src + static_cast<long>(y) * stride;
      uint8_t* d = dst + static_cast<long>(y) * w;
      int x = 0;
      for (; x + 16 <= w; x += 16) {
        _mm_storeu_si128(reinterpret_cast<__m128i*>(d + x),
                         map(_mm_loadu_si128(reinterpret_cast<const __m128i*>(s + x))));
      }
      for (; x < w; ++x) d[x] = m.lut[s[x]];
    }
  }

  static void halve(uint8_t* dst, int dw, int dh, const uint8_t* src, int stride) {
    const __m128i even = _mm_set1_epi16(0x00ff), two = _mm_set1_epi16(2);
    auto pairs = [&](const uint8_t* p) {
      const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
      return _mm_add_epi16(_mm_and_si128(v, even), _mm_srli_epi16(v, 8));
    };
    for (int y = 0; y < dh; ++y) {
      const uint8_t* s0 = src + static_cast<long>(2 * y) * stride;
      const uint8_t* s1 = s0 + stride;
      uint8_t* d = dst + static_cast<long>(y) * dw;
      int x = 0;
      for (; x + 16 <= dw; x += 16) {
        const __m128i a = _mm_add_epi16(_mm_add_epi16(pairs(s0 + 2 * x), pairs(s1 + 2 * x)), two);
        const __m128i b =
            _mm_add_epi16(_mm_add_epi16(pairs(s0 + 2 * x + 16), pairs(s1 + 2 * x + 16)), two);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(d + x),
                         _mm_packus_epi16(_mm_srli_epi16(a, 2), _mm_srli_epi16(b, 2)));
      }
      for (; x < dw; ++x) {
        d[x] = static_cast<uint8_t>((s0[2 * x] + s0[2 * x + 1] + s1[2 * x] + s1[2 * x + 1] + 2) >> 2);
      }
    }
  }

  static int texture(const uint8_t* p, int stride) {
    // Horizontal differences of pixels 0..14 against 1..15: the 16th byte is masked out of both.
    const __m128i first15 = _mm_srli_si128(_mm_set1_epi8(-1), 1);
    auto row = [&](int y) { return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + static_cast<long>(y) * stride)); };
    auto next = [&](int y) { return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + static_cast<long>(y) * stride + 1)); };
    __m128i prev = row(0);
    __m128i acc = _mm_sad_epu8(_mm_and_si128(prev, first15), _mm_and_si128(next(0), first15));
    for (int y = 1; y < kBlock; ++y) {
      const __m128i cur = row(y);
      acc = _mm_add_epi64(acc, _mm_sad_epu8(_mm_and_si128(cur, first15), _mm_and_si128(next(y), first15)));
      acc = _mm_add_epi64(acc, _mm_sad_epu8(cur, prev));
      prev = cur;
    }
    return static_cast<int>(sumLanes(acc));
  }

  static int clipped(const uint8_t* v, int vStride, const uint8_t* r, int rStride) {
    const __m128i zero = _mm_setzero_si128(), full = _mm_set1_epi8(-1);
    __m128i count = zero;  // per byte: up to 16
    for (int y = 0; y < kBlock; ++y) {
      const __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i*>(v + static_cast<long>(y) * vStride));
      const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(r + static_cast<long>(y) * rStride));
      const __m128i m = _mm_or_si128(_mm_or_si128(_mm_cmpeq_epi8(a, zero), _mm_cmpeq_epi8(a, full)),
                                     _mm_or_si128(_mm_cmpeq_epi8(b, zero), _mm_cmpeq_epi8(b, full)));
      count = _mm_sub_epi8(count, m);
    }
    return static_cast<int>(sumLanes(_mm_sad_epu8(count, zero)));
  }

  static uint32_t sad16(const uint8_t* a, int strideA, const uint8_t* b, int strideB,
                        uint32_t limit) {
    __m128i acc = _mm_setzero_si128();
    for (int y = 0; y < kBlock; y += 4) {
      for (int i = y; i < y + 4; ++i) {
        const __m128i ra = _mm_loadu_si128(reinterpret_cast<const __m128i*>(a + static_cast<long>(i) * strideA));
        const __m128i rb = _mm_loadu_si128(reinterpret_cast<const __m128i*>(b + static_cast<long>(i) * strideB));
        acc = _mm_add_epi64(acc, _mm_sad_epu8(ra, rb));
      }
      const uint32_t s = sumLanes(acc);
      if (s > limit) return s;
    }
    return sumLanes(acc);
  }

  static uint64_t fine(const uint8_t* ref, const uint8_t* cur, int stride, int cdx, int cdy) {
    return fineSearch<Sse2Kernels>(ref, cur, stride, cdx, cdy);
  }

  // The coarse search two candidates at a time: a 16-byte row of the reduced view at dx holds
  // the rows of the candidates dx and dx + 8, matched against the block row repeated twice
  // (dx = -8..0 covers -8..8, candidate 0 twice).
  static uint64_t coarse(const uint8_t* ref, const uint8_t* at, int stride, int pdx, int pdy) {
    constexpr int kRows = kBlock / 2;
    __m128i rows[kRows];
    for (int y = 0; y < kRows; ++y) {
      const __m128i r = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(ref + static_cast<long>(y) * stride));
      rows[y] = _mm_unpacklo_epi64(r, r);
    }
    uint64_t best = UINT64_MAX;
    auto single = [&](int dx, int dy) {
      const uint64_t key = coarseKey(0, dx, dy);
      const int64_t limit = limitFor(best, key);
      if (limit < 0) return;
      const uint8_t* c = at + static_cast<long>(dy) * stride + dx;
      __m128i acc = _mm_setzero_si128();
      for (int y = 0; y < kRows; y += 2) {
        const __m128i ca = _mm_unpacklo_epi64(
            _mm_loadl_epi64(reinterpret_cast<const __m128i*>(c + static_cast<long>(y) * stride)),
            _mm_loadl_epi64(reinterpret_cast<const __m128i*>(c + static_cast<long>(y + 1) * stride)));
        acc = _mm_add_epi64(acc, _mm_sad_epu8(ca, _mm_unpacklo_epi64(rows[y], rows[y + 1])));
      }
      best = std::min(best, key | static_cast<uint64_t>(sumLanes(acc)) << 32);
    };
    single(0, 0);
    single(pdx, pdy);
    for (int dy = -kHalfRange; dy <= kHalfRange; ++dy) {
      const uint8_t* line = at + static_cast<long>(dy) * stride;
      for (int dx = -kHalfRange; dx <= 0; ++dx) {
        // Abandon the pair once both partial sums exceed the best SAD so far.
        // The sums sit in the low dwords of the two 64-bit lanes (the high dwords stay 0).
        const __m128i limit = _mm_set1_epi32(static_cast<int>(std::min<uint64_t>(best >> 32, 0x7fffffff)));
        const uint8_t* c = line + dx;
        __m128i acc = _mm_setzero_si128();
        bool done = true;
        for (int y = 0; y < kRows; y += 2) {
          acc = _mm_add_epi64(acc, _mm_sad_epu8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(c + static_cast<long>(y) * stride)), rows[y]));
          acc = _mm_add_epi64(acc, _mm_sad_epu8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(c + static_cast<long>(y + 1) * stride)), rows[y + 1]));
          if (y + 2 < kRows && (_mm_movemask_epi8(_mm_cmpgt_epi32(acc, limit)) & 0x0f0f) == 0x0f0f) {
            done = false;
            break;
          }
        }
        if (!done) continue;
        const uint32_t s0 = static_cast<uint32_t>(_mm_cvtsi128_si32(acc));
        const uint32_t s1 = static_cast<uint32_t>(_mm_extract_epi16(acc, 4));
        best = std::min(best, coarseKey(s0, dx, dy));
        best = std::min(best, coarseKey(s1, dx + kHalfRange, dy));
      }
    }
    return best;
  }
};

#if defined(KO_MOTION_AVX2)
#define KO_TARGET_AVX2 __attribute__((target("avx2")))

// AVX2: the plane passes 32 pixels at a time, the SADs two rows (16x16) or four candidates
// (coarse) per instruction. The texture and clipping tests stay SSE2.
struct Avx2Kernels : Sse2Kernels {
  KO_TARGET_AVX2 static __m256i load2(const uint8_t* lo, const uint8_t* hi) {
    return _mm256_inserti128_si256(
        _mm256_castsi128_si256(_mm_loadu_si128(reinterpret_cast<const __m128i*>(lo))),
        _mm_loadu_si128(reinterpret_cast<const __m128i*>(hi)), 1);
  }

  KO_TARGET_AVX2 static uint32_t sumLanes4(__m256i v) {
    const __m128i s = _mm_add_epi64(_mm256_castsi256_si128(v), _mm256_extracti128_si256(v, 1));
    return static_cast<uint32_t>(_mm_cvtsi128_si32(s)) +
           static_cast<uint32_t>(_mm_cvtsi128_si32(_mm_srli_si128(s, 8)));
  }

  KO_TARGET_AVX2 static void sums(const uint8_t* img, int w, int h, int stride, uint64_t* sum,
                                  uint64_t* sumSq) {
    const __m256i zero = _mm256_setzero_si256();
    __m256i s = zero;
    uint64_t q64 = 0, tail = 0, tailSq = 0;
    for (int y = 0; y < h; ++y) {
      const uint8_t* r = img + static_cast<long>(y) * stride;
      __m256i q = zero;  // eight 32-bit lanes; a row of up to 2k chunks cannot overflow them
      int x = 0;
      for (; x + 32 <= w && x < (1 << 16); x += 32) {
        const __m256i v = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(r + x));
        s = _mm256_add_epi64(s, _mm256_sad_epu8(v, zero));
        const __m256i lo = _mm256_unpacklo_epi8(v, zero), hi = _mm256_unpackhi_epi8(v, zero);
        q = _mm256_add_epi32(q, _mm256_add_epi32(_mm256_madd_epi16(lo, lo), _mm256_madd_epi16(hi, hi)));
      }
      alignas(32) uint32_t lanes[8];
      _mm256_store_si256(reinterpret_cast<__m256i*>(lanes), q);
      for (uint32_t l : lanes) q64 += l;
      for (; x < w; ++x) {
        tail += r[x];
        tailSq += static_cast<uint32_t>(r[x]) * r[x];
      }
    }
    alignas(32) uint64_t s64[4];
    _mm256_store_si256(reinterpret_cast<__m256i*>(s64), s);
    *sum = s64[0] + s64[1] + s64[2] + s64[3] + tail;
    *sumSq = q64 + tailSq;
  }

  // As Sse2Exposure, 16 pixels per half.
  KO_TARGET_AVX2 static void exposure(const ExposureMap& m, const uint8_t* src, int stride,
                                      uint8_t* dst, int w, int h) {
    if (!m.fixedPoint) {
      PortableKernels::exposure(m, src, stride, dst, w, h);
      return;
    }
    const __m256i gLo = _mm256_set1_epi16(static_cast<int16_t>(m.g & 0xffff));
    const __m256i gHi = _mm256_set1_epi16(static_cast<int16_t>(m.g >> 16));
    const __m256i oHi = _mm256_set1_epi16(static_cast<int16_t>(m.o >> 16));
    const __m256i flip = _mm256_set1_epi16(static_cast<int16_t>(0x8000));
    const __m256i carryAt = _mm256_set1_epi16(static_cast<int16_t>((65535 - (m.o & 0xffff)) ^ 0x8000));
    const __m256i zero = _mm256_setzero_si256();
    for (int y = 0; y < h; ++y) {
      const uint8_t* s = src + static_cast<long>(y) * stride;
      uint8_t* d = dst + static_cast<long>(y) * w;
      int x = 0;
      for (; x + 32 <= w; x += 32) {
        const __m256i px = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(s + x));
        __m256i half[2];
        for (int i = 0; i < 2; ++i) {
          const __m256i v = i == 0 ? _mm256_unpacklo_epi8(px, zero) : _mm256_unpackhi_epi8(px, zero);
          const __m256i lo = _mm256_mullo_epi16(v, gLo);
          __m256i hi = _mm256_add_epi16(_mm256_mulhi_epu16(v, gLo), _mm256_mullo_epi16(v, gHi));
          hi = _mm256_add_epi16(hi, oHi);
          const __m256i carry = _mm256_cmpgt_epi16(_mm256_xor_si256(lo, flip), carryAt);
          half[i] = _mm256_sub_epi16(hi, carry);
        }
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(d + x), _mm256_packus_epi16(half[0], half[1]));
      }
      for (; x < w; ++x) d[x] = m.lut[s[x]];
    }
  }

  KO_TARGET_AVX2 static void halve(uint8_t* dst, int dw, int dh, const uint8_t* src, int stride) {
    const __m256i even = _mm256_set1_epi16(0x00ff), two = _mm256_set1_epi16(2);
    for (int y = 0; y < dh; ++y) {
      const uint8_t* s0 = src + static_cast<long>(2 * y) * stride;
      const uint8_t* s1 = s0 + stride;
      uint8_t* d = dst + static_cast<long>(y) * dw;
      int x = 0;
      for (; x + 32 <= dw; x += 32) {
        __m256i q[2];
        for (int i = 0; i < 2; ++i) {
          const __m256i a = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(s0 + 2 * x + 32 * i));
          const __m256i b = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(s1 + 2 * x + 32 * i));
          const __m256i p = _mm256_add_epi16(
              _mm256_add_epi16(_mm256_and_si256(a, even), _mm256_srli_epi16(a, 8)),
              _mm256_add_epi16(_mm256_and_si256(b, even), _mm256_srli_epi16(b, 8)));
          q[i] = _mm256_srli_epi16(_mm256_add_epi16(p, two), 2);
        }
        // packus works per 128-bit lane: put the quarters back in order.
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(d + x),
                            _mm256_permute4x64_epi64(_mm256_packus_epi16(q[0], q[1]), 0xd8));
      }
      for (; x < dw; ++x) {
        d[x] = static_cast<uint8_t>((s0[2 * x] + s0[2 * x + 1] + s1[2 * x] + s1[2 * x + 1] + 2) >> 2);
      }
    }
  }

  KO_TARGET_AVX2 static uint32_t sad16(const uint8_t* a, int strideA, const uint8_t* b,
                                       int strideB, uint32_t limit) {
    __m256i acc = _mm256_setzero_si256();
    for (int y = 0; y < kBlock; y += 4) {
      for (int i = y; i < y + 4; i += 2) {
        const uint8_t* ra = a + static_cast<long>(i) * strideA;
        const uint8_t* rb = b + static_cast<long>(i) * strideB;
        acc = _mm256_add_epi64(acc, _mm256_sad_epu8(load2(ra, ra + strideA), load2(rb, rb + strideB)));
      }
      const uint32_t s = sumLanes4(acc);
      if (s > limit) return s;
    }
    return sumLanes4(acc);
  }

  // The fine search a row of candidates (up to 5) at a time with vmpsadbw: the candidate row
  // from x0 in the low half and from x0 + 8 in the high half, matched against the block row's
  // pixel groups 0, 1 (low) and 2, 3 (high); the two halves add up to the SADs of x0..x0+7.
  // A row of candidates is abandoned once all its partial sums exceed the best SAD.
  KO_TARGET_AVX2 static uint64_t fine(const uint8_t* ref, const uint8_t* cur, int stride, int cdx,
                                      int cdy) {
    __m256i rows[kBlock];
    for (int y = 0; y < kBlock; ++y) {
      rows[y] = _mm256_broadcastsi128_si256(
          _mm_loadu_si128(reinterpret_cast<const __m128i*>(ref + static_cast<long>(y) * stride)));
    }
    const int x0 = std::max(-kRange, 2 * cdx - 2), x1 = std::min(kRange, 2 * cdx + 2);
    const int y0 = std::max(-kRange, 2 * cdy - 2), y1 = std::min(kRange, 2 * cdy + 2);
    const int open = (1 << (2 * (x1 - x0 + 1))) - 1;  // movemask bits of the candidates' lanes
    uint64_t best = UINT64_MAX;
    // The row of the coarse vector first, then the others top to bottom.
    for (int k = y0 - 1; k <= y1; ++k) {
      const int dy = k < y0 ? 2 * cdy : k;
      if (k >= y0 && dy == 2 * cdy) continue;
      const uint32_t bestSad = static_cast<uint32_t>(std::min<uint64_t>(best >> 32, 0xffff));
      const __m128i limit = _mm_set1_epi16(static_cast<int16_t>(bestSad));
      const uint8_t* line = cur + static_cast<long>(dy) * stride + x0;
      __m256i acc = _mm256_setzero_si256();
      __m128i total = _mm_setzero_si128();
      bool done = true;
      for (int y = 0; y < kBlock; ++y) {
        const uint8_t* c = line + static_cast<long>(y) * stride;
        const __m256i a = load2(c, c + 8);
        acc = _mm256_add_epi16(acc, _mm256_mpsadbw_epu8(a, rows[y], 0x10));
        acc = _mm256_add_epi16(acc, _mm256_mpsadbw_epu8(a, rows[y], 0x3d));
        if ((y & 3) == 3) {
          // Each half holds at most 32 * 1020 (fits 15 bits); their sum needs 16 bits, unsigned.
          total = _mm_add_epi16(_mm256_castsi256_si128(acc), _mm256_extracti128_si256(acc, 1));
          const __m128i within = _mm_cmpeq_epi16(_mm_subs_epu16(total, limit), _mm_setzero_si128());
          if (y + 1 < kBlock && (_mm_movemask_epi8(within) & open) == 0) {
            done = false;
            break;
          }
        }
      }
      if (!done) continue;
      alignas(16) uint16_t sadOf[8];
      _mm_store_si128(reinterpret_cast<__m128i*>(sadOf), total);
      for (int dx = x0; dx <= x1; ++dx) best = std::min(best, fineKey(sadOf[dx - x0], dx, dy));
    }
    return best;
  }

  // The coarse search a whole row of candidates at a time: vmpsadbw gives the SADs of a 4-pixel
  // group of the block row against 8 consecutive positions, in each 128-bit half; with the
  // candidate row from dx = -8 in the low half and from dx = 0 in the high half, two of them
  // (pixels 0..3 and 4..7) give the row SADs of dx = -8..7. The column dx = 8 is added with
  // psadbw. A row of candidates is abandoned once all its partial sums exceed the best SAD.
  KO_TARGET_AVX2 static uint64_t coarse(const uint8_t* ref, const uint8_t* at, int stride, int pdx,
                                        int pdy) {
    constexpr int kRows = kBlock / 2;
    __m256i rows[kRows];       // block row y in the low 8 bytes of both halves
    __m128i pairs[kRows / 2];  // block rows 2i and 2i + 1
    for (int y = 0; y < kRows; ++y) {
      int64_t r;
      std::memcpy(&r, ref + static_cast<long>(y) * stride, sizeof r);
      rows[y] = _mm256_set1_epi64x(r);
    }
    for (int i = 0; i < kRows / 2; ++i) {
      pairs[i] = _mm_unpacklo_epi64(
          _mm_loadl_epi64(reinterpret_cast<const __m128i*>(ref + static_cast<long>(2 * i) * stride)),
          _mm_loadl_epi64(reinterpret_cast<const __m128i*>(ref + static_cast<long>(2 * i + 1) * stride)));
    }
    uint64_t best = UINT64_MAX;
    auto single = [&](int dx, int dy) {
      const uint64_t key = coarseKey(0, dx, dy);
      if (limitFor(best, key) < 0) return;
      best = std::min(best, key | static_cast<uint64_t>(PortableKernels::sad(
                                      ref, stride, at + static_cast<long>(dy) * stride + dx,
                                      stride, kRows, UINT32_MAX)) << 32);
    };
    single(0, 0);
    single(pdx, pdy);
    for (int dy = -kHalfRange; dy <= kHalfRange; ++dy) {
      const int bestSad = static_cast<int>(std::min<uint64_t>(best >> 32, 0x7fff));
      const __m256i limit = _mm256_set1_epi16(static_cast<int16_t>(bestSad));
      const uint8_t* line = at + static_cast<long>(dy) * stride;
      __m256i acc = _mm256_setzero_si256();  // 16-bit sums of dx = -8..-1 | 0..7
      __m128i acc8 = _mm_setzero_si128();    // dx = 8
      bool done = true;
      for (int y = 0; y < kRows; ++y) {
        const uint8_t* p = line + static_cast<long>(y) * stride;
        const __m256i c = load2(p - kHalfRange, p);
        acc = _mm256_add_epi16(acc, _mm256_mpsadbw_epu8(c, rows[y], 0x00));
        acc = _mm256_add_epi16(acc, _mm256_mpsadbw_epu8(c, rows[y], 0x2d));
        if (y & 1) {
          const __m128i c8 = _mm_unpacklo_epi64(
              _mm_loadl_epi64(reinterpret_cast<const __m128i*>(p - stride + kHalfRange)),
              _mm_loadl_epi64(reinterpret_cast<const __m128i*>(p + kHalfRange)));
          acc8 = _mm_add_epi64(acc8, _mm_sad_epu8(c8, pairs[y / 2]));
          if (y + 1 < kRows && _mm256_movemask_epi8(_mm256_cmpgt_epi16(acc, limit)) == -1 &&
              static_cast<int>(sumLanes(acc8)) > bestSad) {
            done = false;
            break;
          }
        }
      }
      if (!done) continue;
      // Candidates that can still win: at or below the best SAD.
      uint32_t open = ~static_cast<uint32_t>(_mm256_movemask_epi8(_mm256_cmpgt_epi16(acc, limit)));
      if (open != 0) {
        alignas(32) uint16_t sadOf[16];
        _mm256_store_si256(reinterpret_cast<__m256i*>(sadOf), acc);
        for (; open != 0; open &= open - 1) {
          const int bit = __builtin_ctz(open);
          if (bit & 1) continue;
          best = std::min(best, coarseKey(sadOf[bit / 2], bit / 2 - kHalfRange, dy));
        }
      }
      best = std::min(best, coarseKey(sumLanes(acc8), kHalfRange, dy));
    }
    return best;
  }
};

bool cpuHasAvx2() {
  static const bool has = __builtin_cpu_supports("avx2");
  return has;
}
#endif  // AVX2

#endif  // SSE2


// ---------------------------------------------------------------------------------------------
// NEON kernels (ARM).

#if defined(__ARM_NEON)

inline uint32_t sumLanes(uint16x8_t v) {
  const uint64x2_t s = vpaddlq_u32(vpaddlq_u16(v));
  return static_cast<uint32_t>(vgetq_lane_u64(s, 0) + vgetq_lane_u64(s, 1));
}

struct NeonKernels {
  static void sums(const uint8_t* img, int w, int h, int stride, uint64_t* sum, uint64_t* sumSq) {
    uint64x2_t s64 = vdupq_n_u64(0), q64 = vdupq_n_u64(0);
    uint64_t tail = 0, tailSq = 0;
    for (int y = 0; y < h; ++y) {
      const uint8_t* r = img + static_cast<long>(y) * stride;
      uint32x4_t s = vdupq_n_u32(0), q = vdupq_n_u32(0);  // a row of up to 4k chunks fits
      int x = 0;
      for (; x + 16 <= w && x < (1 << 16); x += 16) {
        const uint8x16_t v = vld1q_u8(r + x);
        s = vpadalq_u16(s, vpaddlq_u8(v));
        q = vpadalq_u16(q, vmull_u8(vget_low_u8(v), vget_low_u8(v)));
        q = vpadalq_u16(q, vmull_u8(vget_high_u8(v), vget_high_u8(v)));
      }
      s64 = vpadalq_u32(s64, s);
      q64 = vpadalq_u32(q64, q);
      for (; x < w; ++x) {
        tail += r[x];
        tailSq += static_cast<uint32_t>(r[x]) * r[x];
      }
    }
    *sum = vgetq_lane_u64(s64, 0) + vgetq_lane_u64(s64, 1) + tail;
    *sumSq = vgetq_lane_u64(q64, 0) + vgetq_lane_u64(q64, 1) + tailSq;
  }

  static void exposure(const ExposureMap& m, const uint8_t* src, int stride, uint8_t* dst, int w,
                       int h) {
    if (!m.fixedPoint) {
      PortableKernels::exposure(m, src, stride, dst, w, h);
      return;
    }
    const int32x4_t g = vdupq_n_s32(m.g), o = vdupq_n_s32(m.o);
    auto quad = [&](uint16x4_t v) {
      return vqshrn_n_s32(vmlaq_s32(o, vreinterpretq_s32_u32(vmovl_u16(v)), g), 16);
    };
    auto eight = [&](uint8x8_t v) {
      const uint16x8_t wide = vmovl_u8(v);
      return vqmovun_s16(vcombine_s16(quad(vget_low_u16(wide)), quad(vget_high_u16(wide))));
    };
    for (int y = 0; y < h; ++y) {
      const uint8_t* s = src + static_cast<long>(y) * stride;
      uint8_t* d = dst + static_cast<long>(y) * w;
      int x = 0;
      for (; x + 16 <= w; x += 16) {
        const uint8x16_t v = vld1q_u8(s + x);
        vst1q_u8(d + x, vcombine_u8(eight(vget_low_u8(v)), eight(vget_high_u8(v))));
      }
      for (; x < w; ++x) d[x] = m.lut[s[x]];
    }
  }

  static void halve(uint8_t* dst, int dw, int dh, const uint8_t* src, int stride) {
    for (int y = 0; y < dh; ++y) {
      const uint8_t* s0 = src + static_cast<long>(2 * y) * stride;
      const uint8_t* s1 = s0 + stride;
      uint8_t* d = dst + static_cast<long>(y) * dw;
      int x = 0;
      for (; x + 16 <= dw; x += 16) {
        const uint16x8_t a = vpadalq_u8(vpaddlq_u8(vld1q_u8(s0 + 2 * x)), vld1q_u8(s1 + 2 * x));
        const uint16x8_t b =
            vpadalq_u8(vpaddlq_u8(vld1q_u8(s0 + 2 * x + 16)), vld1q_u8(s1 + 2 * x + 16));
        vst1q_u8(d + x, vcombine_u8(vrshrn_n_u16(a, 2), vrshrn_n_u16(b, 2)));  // (sum + 2) >> 2
      }
      for (; x < dw; ++x) {
        d[x] = static_cast<uint8_t>((s0[2 * x] + s0[2 * x + 1] + s1[2 * x] + s1[2 * x + 1] + 2) >> 2);
      }
    }
  }

  static int texture(const uint8_t* p, int stride) {
    static const uint8_t kFirst15[16] = {255, 255, 255, 255, 255, 255, 255, 255,
                                         255, 255, 255, 255, 255, 255, 255, 0};
    const uint8x16_t first15 = vld1q_u8(kFirst15);
    uint8x16_t prev = vld1q_u8(p);
    uint16x8_t acc = vpaddlq_u8(vandq_u8(vabdq_u8(prev, vld1q_u8(p + 1)), first15));
    for (int y = 1; y < kBlock; ++y) {
      const uint8_t* r = p + static_cast<long>(y) * stride;
      const uint8x16_t cur = vld1q_u8(r);
      acc = vpadalq_u8(acc, vandq_u8(vabdq_u8(cur, vld1q_u8(r + 1)), first15));
      acc = vpadalq_u8(acc, vabdq_u8(cur, prev));
      prev = cur;
    }
    return static_cast<int>(sumLanes(acc));
  }

  static int clipped(const uint8_t* v, int vStride, const uint8_t* r, int rStride) {
    const uint8x16_t zero = vdupq_n_u8(0), full = vdupq_n_u8(255);
    uint8x16_t count = zero;
    for (int y = 0; y < kBlock; ++y) {
      const uint8x16_t a = vld1q_u8(v + static_cast<long>(y) * vStride);
      const uint8x16_t b = vld1q_u8(r + static_cast<long>(y) * rStride);
      const uint8x16_t m = vorrq_u8(vorrq_u8(vceqq_u8(a, zero), vceqq_u8(a, full)),
                                    vorrq_u8(vceqq_u8(b, zero), vceqq_u8(b, full)));
      count = vsubq_u8(count, m);
    }
    return static_cast<int>(sumLanes(vpaddlq_u8(count)));
  }

  static uint32_t sad16(const uint8_t* a, int strideA, const uint8_t* b, int strideB,
                        uint32_t limit) {
    uint16x8_t acc = vdupq_n_u16(0);
    for (int y = 0; y < kBlock; y += 4) {
      for (int i = y; i < y + 4; ++i) {
        const uint8x16_t ra = vld1q_u8(a + static_cast<long>(i) * strideA);
        const uint8x16_t rb = vld1q_u8(b + static_cast<long>(i) * strideB);
        acc = vabal_u8(acc, vget_low_u8(ra), vget_low_u8(rb));
        acc = vabal_u8(acc, vget_high_u8(ra), vget_high_u8(rb));
      }
      const uint32_t s = sumLanes(acc);
      if (s > limit) return s;
    }
    return sumLanes(acc);
  }

  static uint64_t fine(const uint8_t* ref, const uint8_t* cur, int stride, int cdx, int cdy) {
    return fineSearch<NeonKernels>(ref, cur, stride, cdx, cdy);
  }

  // Two candidates at a time, as the SSE2 version: a 16-byte row of the reduced view at dx
  // holds the rows of the candidates dx and dx + 8.
  static uint64_t coarse(const uint8_t* ref, const uint8_t* at, int stride, int pdx, int pdy) {
    constexpr int kRows = kBlock / 2;
    uint8x8_t rows[kRows];
    for (int y = 0; y < kRows; ++y) rows[y] = vld1_u8(ref + static_cast<long>(y) * stride);
    uint64_t best = UINT64_MAX;
    auto single = [&](int dx, int dy) {
      const uint64_t key = coarseKey(0, dx, dy);
      if (limitFor(best, key) < 0) return;
      const uint8_t* c = at + static_cast<long>(dy) * stride + dx;
      uint16x8_t acc = vdupq_n_u16(0);
      for (int y = 0; y < kRows; ++y) acc = vabal_u8(acc, vld1_u8(c + static_cast<long>(y) * stride), rows[y]);
      best = std::min(best, key | static_cast<uint64_t>(sumLanes(acc)) << 32);
    };
    // Both sums of a pair in lanes 0 and 1 (each at most 64 * 255, so 16 bits hold them).
    auto both = [](uint16x8_t a, uint16x8_t b) {
      const uint16x4_t ab = vpadd_u16(vadd_u16(vget_low_u16(a), vget_high_u16(a)),
                                      vadd_u16(vget_low_u16(b), vget_high_u16(b)));
      return vpadd_u16(ab, ab);
    };
    single(0, 0);
    single(pdx, pdy);
    for (int dy = -kHalfRange; dy <= kHalfRange; ++dy) {
      const uint8_t* line = at + static_cast<long>(dy) * stride;
      for (int dx = -kHalfRange; dx <= 0; ++dx) {
        const uint32_t limit = static_cast<uint32_t>(std::min<uint64_t>(best >> 32, 0xffffffffu));
        const uint8_t* c = line + dx;
        uint16x8_t a = vdupq_n_u16(0), b = vdupq_n_u16(0);
        bool done = true;
        for (int y = 0; y < kRows; y += 2) {
          const uint8x16_t c0 = vld1q_u8(c + static_cast<long>(y) * stride);
          const uint8x16_t c1 = vld1q_u8(c + static_cast<long>(y + 1) * stride);
          a = vabal_u8(vabal_u8(a, vget_low_u8(c0), rows[y]), vget_low_u8(c1), rows[y + 1]);
          b = vabal_u8(vabal_u8(b, vget_high_u8(c0), rows[y]), vget_high_u8(c1), rows[y + 1]);
          if (y + 2 < kRows) {
            const uint16x4_t s = both(a, b);
            if (std::min(vget_lane_u16(s, 0), vget_lane_u16(s, 1)) > limit) {
              done = false;
              break;
            }
          }
        }
        if (!done) continue;
        const uint16x4_t s = both(a, b);
        best = std::min(best, coarseKey(vget_lane_u16(s, 0), dx, dy));
        best = std::min(best, coarseKey(vget_lane_u16(s, 1), dx + kHalfRange, dy));
      }
    }
    return best;
  }
};

#endif  // NEON

}  // namespace

// ---------------------------------------------------------------------------------------------
// The detector.

namespace {

// Calls fn with the kernel set chosen by setKernels (as an empty tag object).
#if defined(__ARM_NEON)
using VectorKernels = NeonKernels;
#elif defined(__SSE2__)
using VectorKernels = Sse2Kernels;
#endif

template <class Fn>
void withKernels(Fn&& fn) {
  const int choice = gKernels.load(std::memory_order_relaxed);
#if defined(KO_MOTION_AVX2)
  if (choice == DexMotionDetection::KERNELS_FASTEST && cpuHasAvx2()) return fn(Avx2Kernels{});
#endif
#if defined(__ARM_NEON) || defined(__SSE2__)
  if (choice != DexMotionDetection::KERNELS_PORTABLE) return fn(VectorKernels{});
#endif
  (void)choice;
  fn(PortableKernels{});
}

// Median of values that are whole numbers in [-RANGE, RANGE], from their counts (the same value
// as sorting them: the middle one, or the mean of the two middle ones).
float medianOfCounts(const int* counts, int n) {
  auto at = [&](int k) {  // the k-th smallest
    int seen = 0;
    for (int i = 0; i < kFineSide; ++i) {
      seen += counts[i];
      if (seen > k) return static_cast<float>(i - kRange);
    }
    return static_cast<float>(kRange);
  };
  return n % 2 ? at(n / 2) : 0.5f * (at(n / 2 - 1) + at(n / 2));
}

// |(dx, dy)| of whole-pixel vectors within the search range.
struct VectorLengths {
  float len[kFineSide][kFineSide];
  VectorLengths() {
    for (int dy = -kRange; dy <= kRange; ++dy) {
      for (int dx = -kRange; dx <= kRange; ++dx) {
        len[dy + kRange][dx + kRange] = std::hypot(static_cast<float>(dx), static_cast<float>(dy));
      }
    }
  }
  float operator()(float dx, float dy) const {
    return len[static_cast<int>(dy) + kRange][static_cast<int>(dx) + kRange];
  }
};

const VectorLengths& vectorLengths() {
  static const VectorLengths lengths;
  return lengths;
}

}  // namespace

DexMotionDetection::DexMotionDetection(int width, int height)
    : mMaxWidth(width), mMaxHeight(height) {
  const size_t w = width > 0 ? static_cast<size_t>(width) : 0;
  const size_t h = height > 0 ? static_cast<size_t>(height) : 0;
  mRef.resize(w * h + kPad);
  mMatched.resize(w * h + kPad);
  mRefHalf.resize((w / 2) * (h / 2) + kPad);
  mHalf.resize(mRefHalf.size());
  const size_t grid = 2 * kRange + kBlock;
  const size_t cols = w >= grid ? (w - grid) / kBlock + 1 : 0;
  const size_t rows = h >= grid ? (h - grid) / kBlock + 1 : 0;
  mBlocks.reserve(cols * rows);
}

DexMotionDetection::~DexMotionDetection() = default;

void DexMotionDetection::setKernels(KernelSet kernels) {
  gKernels.store(kernels, std::memory_order_relaxed);
}

DexMotionDetection::KernelSet DexMotionDetection::kernels() {
  return static_cast<KernelSet>(gKernels.load(std::memory_order_relaxed));
}

void DexMotionDetection::setSimdEnabled(bool enabled) {
  setKernels(enabled ? KERNELS_FASTEST : KERNELS_PORTABLE);
}

int DexMotionDetection::copyNewRefFrame(const uint8_t* view, int w, int h, int stride) {
  if (view == nullptr) {
    __android_log_print(ANDROID_LOG_ERROR, kTag, "%s: null view", __func__);
    return -1;
  }
  if (w <= 0 || h <= 0 || stride < w || w > mMaxWidth || h > mMaxHeight) {
    __android_log_print(ANDROID_LOG_ERROR, kTag, "%s: invalid size %dx%d stride %d (max %dx%d)",
                        __func__, w, h, stride, mMaxWidth, mMaxHeight);
    return -1;
  }
  withKernels([&](auto kernels) { storeReference<decltype(kernels)>(view, w, h, stride); });
  return 0;
}

template <class Kernels>
void DexMotionDetection::storeReference(const uint8_t* view, int w, int h, int stride) {
  uint8_t* ref = mRef.data();
  if (stride == w) {
    std::memcpy(ref, view, static_cast<size_t>(w) * h);
  } else {
    for (int y = 0; y < h; ++y) {
      std::memcpy(ref + static_cast<size_t>(y) * w, view + static_cast<long>(y) * stride,
                  static_cast<size_t>(w));
    }
  }
  mRefWidth = w;
  mRefHeight = h;
  uint64_t sum = 0, sumSq = 0;
  Kernels::sums(ref, w, h, w, &sum, &sumSq);
  meanAndSpreadOf(sum, sumSq, w, h, &mRefMean, &mRefSpread);
  Kernels::halve(mRefHalf.data(), w / 2, h / 2, ref, w);
}

int DexMotionDetection::processMEPerFrame(const uint8_t* view, const void* /*unused1*/,
                                          const void* /*unused2*/, const void* /*unused3*/,
                                          void* /*scratch*/, int stride, void* result) {
  if (view == nullptr || result == nullptr) {
    __android_log_print(ANDROID_LOG_ERROR, kTag, "%s: null pointer argument", __func__);
    return -1;
  }
  motionResult_t out{};
  if (mRefWidth == 0 || mRefHeight == 0) {
    *static_cast<motionResult_t*>(result) = out;  // no reference yet
    return 0;
  }
  if (stride < mRefWidth) {
    __android_log_print(ANDROID_LOG_ERROR, kTag, "%s: stride %d below reference width %d",
                        __func__, stride, mRefWidth);
    return -1;
  }
  withKernels([&](auto kernels) { estimate<decltype(kernels)>(view, stride, &out); });
  *static_cast<motionResult_t*>(result) = out;
  return 0;
}

template <class Kernels>
void DexMotionDetection::estimate(const uint8_t* view, int stride, motionResult_t* result) {
  const int w = mRefWidth, h = mRefHeight;
  const uint8_t* ref = mRef.data();
  // Blocks worth matching: textured in the reference, not clipped in either frame (a block that
  // the exposure clipped has lost the detail to match on).
  mBlocks.clear();
  for (int by = RANGE; by + BLOCK + RANGE <= h; by += BLOCK) {
    for (int bx = RANGE; bx + BLOCK + RANGE <= w; bx += BLOCK) {
      const uint8_t* r = ref + static_cast<size_t>(by) * w + bx;
      if (Kernels::texture(r, w) < kTextureSum) continue;
      if (Kernels::clipped(view + static_cast<long>(by) * stride + bx, stride, r, w) > kMaxClipped) {
        continue;
      }
      mBlocks.push_back({0.0f, 0.0f, bx + BLOCK / 2.0f, by + BLOCK / 2.0f, bx, by, 0});
    }
  }
  motionResult_t& out = *result;
  if (mBlocks.empty()) return;  // nothing to match: all zero

  // The view at the reference's exposure: mean and spread matched (gain limited to 1/4..4).
  uint64_t sum = 0, sumSq = 0;
  Kernels::sums(view, w, h, stride, &sum, &sumSq);
  double mean = 0, spread = 0;
  meanAndSpreadOf(sum, sumSq, w, h, &mean, &spread);
  double gain = 1.0;
  if (mRefSpread > 0.5 && spread > 0.5) gain = std::min(4.0, std::max(0.25, mRefSpread / spread));
  const double offset = mRefMean - gain * mean;
  ExposureMap map;
  buildExposureMap(gain, offset, &map);
  uint8_t* cur = mMatched.data();
  Kernels::exposure(map, view, stride, cur, w, h);
  // 2x reduction of the view for the coarse search.
  const int hw = w / 2, hh = h / 2;
  Kernels::halve(mHalf.data(), hw, hh, cur, w);

  int pdx = 0, pdy = 0;  // the previous block's coarse vector: the first guess for the next
  for (Block& b : mBlocks) {
    const uint8_t* r = ref + static_cast<size_t>(b.y) * w + b.x;
    // Coarse: full search at half resolution.
    const size_t at = static_cast<size_t>(b.y / 2) * hw + b.x / 2;
    const uint64_t coarse = Kernels::coarse(mRefHalf.data() + at, mHalf.data() + at, hw, pdx, pdy);
    const int index = static_cast<int>(coarse & 0xffff);
    const int cdx = index % kCoarseSide - kHalfRange, cdy = index / kCoarseSide - kHalfRange;
    pdx = cdx;
    pdy = cdy;
    // Fine: +/-2 around the coarse vector at full resolution, inside the search range.
    const uint64_t best = Kernels::fine(r, cur + static_cast<size_t>(b.y) * w + b.x, w, cdx, cdy);
    const int fine = static_cast<int>(best & 0xffffffffu);
    b.dx = static_cast<float>(fine % kFineSide - kRange);
    b.dy = static_cast<float>(fine / kFineSide - kRange);
    b.sad = static_cast<uint32_t>(best >> 32);
  }

  out.numBlocks = static_cast<int32_t>(mBlocks.size());
  int xs[kFineSide] = {}, ys[kFineSide] = {};
  for (const Block& b : mBlocks) {
    ++xs[static_cast<int>(b.dx) + kRange];
    ++ys[static_cast<int>(b.dy) + kRange];
  }
  const double n = static_cast<double>(mBlocks.size());
  out.globalDx = medianOfCounts(xs, out.numBlocks);
  out.globalDy = medianOfCounts(ys, out.numBlocks);
  // Blocks of repetitive or weak texture may find a slightly better match elsewhere: a block
  // that matches the global shift nearly as well as its own vector follows the camera.
  const int gx = static_cast<int>(std::lround(out.globalDx));
  const int gy = static_cast<int>(std::lround(out.globalDy));
  const VectorLengths& length = vectorLengths();
  double diffSum = 0, magSum = 0, magSq = 0;
  for (Block& b : mBlocks) {
    if ((b.dx != gx || b.dy != gy) && std::abs(gx) <= RANGE && std::abs(gy) <= RANGE) {
      const uint32_t accept = b.sad + b.sad / 8 + BLOCK * BLOCK / 2;
      const uint32_t g = Kernels::sad16(ref + static_cast<size_t>(b.y) * w + b.x, w,
                                        cur + static_cast<long>(b.y + gy) * w + b.x + gx, w, accept);
      if (g <= accept) {
        b.dx = static_cast<float>(gx);
        b.dy = static_cast<float>(gy);
        b.sad = g;
      }
    }
    diffSum += static_cast<double>(b.sad) / (BLOCK * BLOCK);
    const double m = length(b.dx, b.dy);
    magSum += m;
    magSq += m * m;
  }
  out.vecMagMean = static_cast<float>(magSum / n);
  out.vecMagStddev = static_cast<float>(
      std::sqrt(std::max(0.0, magSq / n - (magSum / n) * (magSum / n))));
  out.matchDiff = static_cast<float>(diffSum / n);
  // Deviation from the global shift of each vector (the global shift may be a half pixel),
  // computed once per distinct vector.
  float deviation[kFineSide][kFineSide];
  bool known[kFineSide][kFineSide] = {};
  double score = 0, ctrScore = 0;
  int ctrCount = 0;
  for (const Block& b : mBlocks) {
    const int ix = static_cast<int>(b.dx) + kRange, iy = static_cast<int>(b.dy) + kRange;
    if (!known[iy][ix]) {
      deviation[iy][ix] = std::hypot(b.dx - out.globalDx, b.dy - out.globalDy);
      known[iy][ix] = true;
    }
    const double dev = deviation[iy][ix];
    const double s = dev <= 1.0 ? 0.0 : std::min(1.0, dev / FULL_DEVIATION);
    score += s;
    if (b.cx >= w / 3.0 && b.cx < 2.0 * w / 3.0 && b.cy >= h / 3.0 && b.cy < 2.0 * h / 3.0) {
      ctrScore += s;
      ++ctrCount;
    }
    const double dot = b.dx * out.globalDx + b.dy * out.globalDy;
    if (dot < 0 && length(b.dx, b.dy) > 1.0) ++out.numOpposing;
  }
  out.frmMotionScoreNorm = static_cast<float>(score / n);
  out.ctrFrmMotionScoreNorm = ctrCount > 0 ? static_cast<float>(ctrScore / ctrCount) : 0.0f;
}

// ---------------------------------------------------------------------------------------------
// Whether a capture is worth a clip.

namespace {

constexpr uint32_t kMotionDone = 0x10000;
constexpr uint32_t kStatsDone = 0x20000;
// Frames looked at on each side of the captured index.
constexpr int kDecisionReach = 10;
// Mean subject motion below which the scene counts as still, and at which the decision is 1.
constexpr double kMinSubjectMotion = 0.06;
constexpr double kFullSubjectMotion = 0.3;
// Median global shift (analysis pixels between two estimations) that is a hard pan.
constexpr double kPanShift = 8.0;
// Without motion results: frame difference (grey levels) below which the scene is still and
// at which the decision is 1.
constexpr double kMinDiff = 3.0;
constexpr double kFullDiff = 10.0;

float wordAsFloat(const uint32_t* words, int i) {
  float v;
  std::memcpy(&v, &words[i], sizeof v);
  return v;
}

}  // namespace

__attribute__((no_sanitize("vptr"))) float DexMotionDetection::KoMotionDecision(
    KoFrameHistSnapshot* snapshot, Vector<KO_camMotionType_t>& camMotion, int count,
    int capturedIndex) {
  if (snapshot == nullptr || count <= 0) return 0.0f;
  const int n = static_cast<int>(std::min(static_cast<size_t>(count), snapshot->mHistory.size()));
  if (capturedIndex < 0 || capturedIndex >= n) return 0.0f;
  // A hard pan over the snapshot's span, as the motion sensors tell.
  for (size_t i = 0; i < camMotion.size(); ++i) {
    const KO_camMotionType_t& m = camMotion[i];
    if (m.mode == DexCameraMotion::MODE_PANNING || m.gyroMean >= DexCameraMotion::SHAKE_MEAN) {
      return 0.0f;
    }
  }
  std::vector<float> subject, globalShift, diffs;
  int panning = 0, classified = 0;
  const int lo = std::max(0, capturedIndex - kDecisionReach);
  const int hi = std::min(n - 1, capturedIndex + kDecisionReach);
  for (int i = lo; i <= hi; ++i) {
    const KoFrameHistNode* node = snapshot->mHistory[static_cast<size_t>(i)].get();
    const KoFrameData* f = node != nullptr ? node->mFrameData.get() : nullptr;
    if (f == nullptr) continue;
    const uint32_t events = f->mProcessedEvents.load(std::memory_order_acquire);
    if (events & kMotionDone) {
      const int32_t blocks = static_cast<int32_t>(f->mMotionResult[0]);
      if (blocks > 0) {
        subject.push_back(std::max(wordAsFloat(f->mMotionResult, 8), wordAsFloat(f->mMotionResult, 9)));
        globalShift.push_back(std::hypot(wordAsFloat(f->mMotionResult, 1), wordAsFloat(f->mMotionResult, 2)));
      }
    }
    if (events & kStatsDone) diffs.push_back(f->mDiffStats.mean);
    if (events & 0x40000u) {
      ++classified;
      if (static_cast<int32_t>(f->mCamMotion[3]) == DexCameraMotion::MODE_PANNING) ++panning;
    }
  }
  // Most frames of the stretch classified as panning by their own sensor window.
  if (classified > 0 && 2 * panning > classified) return 0.0f;
  auto median = [](std::vector<float> v) {
    std::nth_element(v.begin(), v.begin() + static_cast<long>(v.size() / 2), v.end());
    return static_cast<double>(v[v.size() / 2]);
  };
  double d = 0.0;
  if (!subject.empty()) {
    // A pan seen in the picture: most estimations found a large common shift.
    if (median(globalShift) >= kPanShift) return 0.0f;
    double mean = 0;
    for (float s : subject) mean += s;
    mean /= static_cast<double>(subject.size());
    if (mean < kMinSubjectMotion) return 0.0f;
    d = mean / kFullSubjectMotion;
  } else if (!diffs.empty()) {
    const double diff = median(diffs);
    if (diff < kMinDiff) return 0.0f;
    d = diff / kFullDiff;
  }
  return static_cast<float>(std::min(1.0, d));
}

}  // namespace android
