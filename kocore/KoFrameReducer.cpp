// The one-pass frame reducer. Each ratio has a luma row and a chroma row kernel that make one
// reduced row from the 2 or 3 source rows it covers; a further kernel halves two reduced rows
// into a small row. The pass walks the picture by chroma rows: two luma rows, the small row they
// complete (inside the band), then the chroma row of the same source band.
//
// Arithmetic (all paths): 3:1 sums of 9 samples, (sum + 4) / 9; 2:1 sums of 4, (sum + 2) >> 2;
// 9:4 weights of quarters (4,4,1 / 3,4,2 / 2,4,3 / 1,4,4 in each direction, total 81),
// (sum + 40) / 81. The vector 3:1 rows divide by 9 as (n * 7282) >> 16, exact for every n up
// to 2299 (9 * 255 + 4 is 2299).
#include "KoFrameReducer.h"

#include <log/log.h>

#include <atomic>
#include <cstddef>

#if defined(__ARM_NEON)
#include <arm_neon.h>
#elif defined(__x86_64__) || defined(__i386__)
#include <tmmintrin.h>
#define KO_REDUCER_X86 1
#endif

namespace android {

namespace {

constexpr const char* kTag = "KoFrameReducer";
constexpr int kMaxDst = KoFrameReducer::kMaxDstWidth;

using LumaRow3 = void (*)(const uint8_t*, const uint8_t*, const uint8_t*, uint8_t*, int);
using ChromaRow3 = void (*)(const uint8_t*, const uint8_t*, const uint8_t*, uint8_t*, uint8_t*, int);
using LumaRow2 = void (*)(const uint8_t*, const uint8_t*, uint8_t*, int);
using ChromaRow2 = void (*)(const uint8_t*, const uint8_t*, uint8_t*, uint8_t*, int);

struct RowKernels {
  LumaRow3 luma3;
  ChromaRow3 chroma3;  // V,U pairs in; U plane, V plane out
  LumaRow2 luma2;      // also the small-image halving
  ChromaRow2 chroma2;
  const char* name;
};

// ---- Portable rows ---------------------------------------------------------------------------

void luma3C(const uint8_t* s0, const uint8_t* s1, const uint8_t* s2, uint8_t* d, int w) {
  for (int x = 0; x < w; ++x) {
    const int i = 3 * x;
    const int sum = s0[i] + s0[i + 1] + s0[i + 2] + s1[i] + s1[i + 1] + s1[i + 2] + s2[i] +
                    s2[i + 1] + s2[i + 2];
    d[x] = static_cast<uint8_t>((sum + 4) / 9);
  }
}

void chroma3C(const uint8_t* s0, const uint8_t* s1, const uint8_t* s2, uint8_t* u, uint8_t* v,
              int w) {
  for (int x = 0; x < w; ++x) {
    int sv = 0, su = 0;
    for (int k = 0; k < 3; ++k) {
      const int i = 6 * x + 2 * k;
      sv += s0[i] + s1[i] + s2[i];
      su += s0[i + 1] + s1[i + 1] + s2[i + 1];
    }
    v[x] = static_cast<uint8_t>((sv + 4) / 9);
    u[x] = static_cast<uint8_t>((su + 4) / 9);
  }
}

void luma2C(const uint8_t* s0, const uint8_t* s1, uint8_t* d, int w) {
  for (int x = 0; x < w; ++x) {
    d[x] = static_cast<uint8_t>((s0[2 * x] + s0[2 * x + 1] + s1[2 * x] + s1[2 * x + 1] + 2) >> 2);
  }
}

void chroma2C(const uint8_t* s0, const uint8_t* s1, uint8_t* u, uint8_t* v, int w) {
  for (int x = 0; x < w; ++x) {
    const int i = 4 * x;
    v[x] = static_cast<uint8_t>((s0[i] + s0[i + 2] + s1[i] + s1[i + 2] + 2) >> 2);
    u[x] = static_cast<uint8_t>((s0[i + 1] + s0[i + 3] + s1[i + 1] + s1[i + 3] + 2) >> 2);
  }
}

const RowKernels kPortable = {luma3C, chroma3C, luma2C, chroma2C, "c"};

// 9:4 rows (one kernel for every path: the ratio is rare and its weights are periodic in 9).
// Overlap, in quarters, of output phase p with the three source samples from kOff94[p] on.
constexpr int kW94[4][3] = {{4, 4, 1}, {3, 4, 2}, {2, 4, 3}, {1, 4, 4}};
constexpr int kOff94[4] = {0, 2, 4, 6};

// One reduced row of a channel whose samples are `step` bytes apart, from the three source rows
// at s (rows `stride` bytes apart) with vertical phase p. Vertical weighting first (sums up to
// 9 * 255 fit 16 bits), then the horizontal weights.
void row94(const uint8_t* s, int stride, int step, int p, uint8_t* d, int w) {
  uint16_t col[(kMaxDst * 9 + 3) / 4 + 4];
  const int n = (w * 9 + 3) / 4;
  const int a = kW94[p][0], b = kW94[p][1], c = kW94[p][2];
  const uint8_t* r0 = s;
  const uint8_t* r1 = s + stride;
  const uint8_t* r2 = s + 2 * static_cast<ptrdiff_t>(stride);
  for (int i = 0; i < n; ++i) {
    col[i] = static_cast<uint16_t>(a * r0[i * step] + b * r1[i * step] + c * r2[i * step]);
  }
  for (int x = 0; x < w; x += 4) {
    const uint16_t* g = col + (x >> 2) * 9;
    for (int q = 0; q < 4 && x + q < w; ++q) {
      const uint16_t* t = g + kOff94[q];
      const uint32_t sum = kW94[q][0] * t[0] + kW94[q][1] * t[1] + kW94[q][2] * t[2];
      d[x + q] = static_cast<uint8_t>((sum + 40) / 81);
    }
  }
}

// ---- SSSE3 rows ------------------------------------------------------------------------------
#if defined(KO_REDUCER_X86)

#define KO_SSSE3 __attribute__((target("ssse3")))

// Sums of three consecutive 16-bit column sums, every third one, divided by 9: 16 outputs from
// col[0..47] (col is read up to index 49).
KO_SSSE3 inline __m128i div9Group(const uint16_t* col) {
  const __m128i m0 = _mm_setr_epi8(0, 1, 6, 7, 12, 13, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1);
  const __m128i m1 = _mm_setr_epi8(-1, -1, -1, -1, -1, -1, 2, 3, 8, 9, 14, 15, -1, -1, -1, -1);
  const __m128i m2 = _mm_setr_epi8(-1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, 4, 5, 10, 11);
  const __m128i four = _mm_set1_epi16(4);
  const __m128i magic = _mm_set1_epi16(7282);
  __m128i half[2];
  for (int h = 0; h < 2; ++h) {
    const uint16_t* q = col + 24 * h;
    __m128i t[3];
    for (int k = 0; k < 3; ++k) {
      const uint16_t* r = q + 8 * k;
      t[k] = _mm_add_epi16(
          _mm_add_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(r)),
                        _mm_loadu_si128(reinterpret_cast<const __m128i*>(r + 1))),
          _mm_loadu_si128(reinterpret_cast<const __m128i*>(r + 2)));
    }
    const __m128i sums = _mm_or_si128(_mm_or_si128(_mm_shuffle_epi8(t[0], m0), _mm_shuffle_epi8(t[1], m1)),
                                      _mm_shuffle_epi8(t[2], m2));
    half[h] = _mm_mulhi_epu16(_mm_add_epi16(sums, four), magic);
  }
  return _mm_packus_epi16(half[0], half[1]);
}

KO_SSSE3 void luma3Ssse3(const uint8_t* s0, const uint8_t* s1, const uint8_t* s2, uint8_t* d,
                         int w) {
  alignas(16) uint16_t col[3 * kMaxDst + 16];
  const int n = w & ~15;
  const __m128i zero = _mm_setzero_si128();
  for (int i = 0; i < 3 * n; i += 16) {
    const __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s0 + i));
    const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s1 + i));
    const __m128i c = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s2 + i));
    const __m128i lo = _mm_add_epi16(_mm_add_epi16(_mm_unpacklo_epi8(a, zero), _mm_unpacklo_epi8(b, zero)),
                                     _mm_unpacklo_epi8(c, zero));
    const __m128i hi = _mm_add_epi16(_mm_add_epi16(_mm_unpackhi_epi8(a, zero), _mm_unpackhi_epi8(b, zero)),
                                     _mm_unpackhi_epi8(c, zero));
    _mm_store_si128(reinterpret_cast<__m128i*>(col + i), lo);
    _mm_store_si128(reinterpret_cast<__m128i*>(col + i + 8), hi);
  }
  _mm_store_si128(reinterpret_cast<__m128i*>(col + 3 * n), zero);  // read, never selected
  for (int x = 0; x < n; x += 16) {
    _mm_storeu_si128(reinterpret_cast<__m128i*>(d + x), div9Group(col + 3 * x));
  }
  if (n < w) luma3C(s0 + 3 * n, s1 + 3 * n, s2 + 3 * n, d + n, w - n);
}

KO_SSSE3 void chroma3Ssse3(const uint8_t* s0, const uint8_t* s1, const uint8_t* s2, uint8_t* u,
                           uint8_t* v, int w) {
  alignas(16) uint16_t colV[3 * kMaxDst / 2 + 16];
  alignas(16) uint16_t colU[3 * kMaxDst / 2 + 16];
  const int n = w & ~15;
  const __m128i zero = _mm_setzero_si128();
  // Each 16 source bytes (8 pairs) become [V0..V7 | U0..U7].
  const __m128i split = _mm_setr_epi8(0, 2, 4, 6, 8, 10, 12, 14, 1, 3, 5, 7, 9, 11, 13, 15);
  for (int i = 0; i < 6 * n; i += 16) {
    const __m128i a = _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(s0 + i)), split);
    const __m128i b = _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(s1 + i)), split);
    const __m128i c = _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(s2 + i)), split);
    const __m128i sv = _mm_add_epi16(_mm_add_epi16(_mm_unpacklo_epi8(a, zero), _mm_unpacklo_epi8(b, zero)),
                                     _mm_unpacklo_epi8(c, zero));
    const __m128i su = _mm_add_epi16(_mm_add_epi16(_mm_unpackhi_epi8(a, zero), _mm_unpackhi_epi8(b, zero)),
                                     _mm_unpackhi_epi8(c, zero));
    _mm_store_si128(reinterpret_cast<__m128i*>(colV + i / 2), sv);
    _mm_store_si128(reinterpret_cast<__m128i*>(colU + i / 2), su);
  }
  _mm_store_si128(reinterpret_cast<__m128i*>(colV + 3 * n), zero);
  _mm_store_si128(reinterpret_cast<__m128i*>(colU + 3 * n), zero);
  for (int x = 0; x < n; x += 16) {
    _mm_storeu_si128(reinterpret_cast<__m128i*>(v + x), div9Group(colV + 3 * x));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(u + x), div9Group(colU + 3 * x));
  }
  if (n < w) chroma3C(s0 + 6 * n, s1 + 6 * n, s2 + 6 * n, u + n, v + n, w - n);
}

KO_SSSE3 void luma2Ssse3(const uint8_t* s0, const uint8_t* s1, uint8_t* d, int w) {
  const int n = w & ~15;
  const __m128i ones = _mm_set1_epi8(1);
  const __m128i two = _mm_set1_epi16(2);
  for (int x = 0; x < n; x += 16) {
    const uint8_t* a = s0 + 2 * x;
    const uint8_t* b = s1 + 2 * x;
    __m128i lo = _mm_add_epi16(_mm_maddubs_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(a)), ones),
                               _mm_maddubs_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(b)), ones));
    __m128i hi =
        _mm_add_epi16(_mm_maddubs_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(a + 16)), ones),
                      _mm_maddubs_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(b + 16)), ones));
    lo = _mm_srli_epi16(_mm_add_epi16(lo, two), 2);
    hi = _mm_srli_epi16(_mm_add_epi16(hi, two), 2);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(d + x), _mm_packus_epi16(lo, hi));
  }
  if (n < w) luma2C(s0 + 2 * n, s1 + 2 * n, d + n, w - n);
}

KO_SSSE3 void chroma2Ssse3(const uint8_t* s0, const uint8_t* s1, uint8_t* u, uint8_t* v, int w) {
  const int n = w & ~7;
  const __m128i ones = _mm_set1_epi8(1);
  const __m128i two = _mm_set1_epi16(2);
  const __m128i split = _mm_setr_epi8(0, 2, 4, 6, 8, 10, 12, 14, 1, 3, 5, 7, 9, 11, 13, 15);
  for (int x = 0; x < n; x += 8) {
    __m128i sum[2];
    for (int h = 0; h < 2; ++h) {
      const __m128i a = _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(s0 + 4 * x + 16 * h)), split);
      const __m128i b = _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(s1 + 4 * x + 16 * h)), split);
      // [V01 V23 V45 V67 | U01 U23 U45 U67] of both rows.
      sum[h] = _mm_add_epi16(_mm_maddubs_epi16(a, ones), _mm_maddubs_epi16(b, ones));
    }
    const __m128i sv = _mm_srli_epi16(_mm_add_epi16(_mm_unpacklo_epi64(sum[0], sum[1]), two), 2);
    const __m128i su = _mm_srli_epi16(_mm_add_epi16(_mm_unpackhi_epi64(sum[0], sum[1]), two), 2);
    const __m128i packed = _mm_packus_epi16(sv, su);
    _mm_storel_epi64(reinterpret_cast<__m128i*>(v + x), packed);
    _mm_storel_epi64(reinterpret_cast<__m128i*>(u + x), _mm_srli_si128(packed, 8));
  }
  if (n < w) chroma2C(s0 + 4 * n, s1 + 4 * n, u + n, v + n, w - n);
}

const RowKernels kSsse3 = {luma3Ssse3, chroma3Ssse3, luma2Ssse3, chroma2Ssse3, "ssse3"};

bool cpuHasSsse3() {
  __builtin_cpu_init();
  return __builtin_cpu_supports("ssse3") != 0;
}

#endif  // KO_REDUCER_X86

// ---- NEON rows -------------------------------------------------------------------------------
#if defined(__ARM_NEON)

inline uint8x8_t div9Neon(uint16x8_t sum) {
  const uint16x8_t v = vaddq_u16(sum, vdupq_n_u16(4));
  const uint32x4_t lo = vmull_n_u16(vget_low_u16(v), 7282);
  const uint32x4_t hi = vmull_n_u16(vget_high_u16(v), 7282);
  return vmovn_u16(vcombine_u16(vshrn_n_u32(lo, 16), vshrn_n_u32(hi, 16)));
}

void luma3Neon(const uint8_t* s0, const uint8_t* s1, const uint8_t* s2, uint8_t* d, int w) {
  const int n = w & ~15;
  for (int x = 0; x < n; x += 16) {
    const uint8x16x3_t a = vld3q_u8(s0 + 3 * x);
    const uint8x16x3_t b = vld3q_u8(s1 + 3 * x);
    const uint8x16x3_t c = vld3q_u8(s2 + 3 * x);
    uint16x8_t lo = vaddl_u8(vget_low_u8(a.val[0]), vget_low_u8(a.val[1]));
    uint16x8_t hi = vaddl_u8(vget_high_u8(a.val[0]), vget_high_u8(a.val[1]));
    const uint8x16_t rest[7] = {a.val[2], b.val[0], b.val[1], b.val[2], c.val[0], c.val[1], c.val[2]};
    for (const uint8x16_t& r : rest) {
      lo = vaddw_u8(lo, vget_low_u8(r));
      hi = vaddw_u8(hi, vget_high_u8(r));
    }
    vst1q_u8(d + x, vcombine_u8(div9Neon(lo), div9Neon(hi)));
  }
  if (n < w) luma3C(s0 + 3 * n, s1 + 3 * n, s2 + 3 * n, d + n, w - n);
}

void chroma3Neon(const uint8_t* s0, const uint8_t* s1, const uint8_t* s2, uint8_t* u, uint8_t* v,
                 int w) {
  const int n = w & ~7;
  const uint16x8_t low = vdupq_n_u16(0xff);
  for (int x = 0; x < n; x += 8) {
    // Pairs as little-endian 16-bit words: V in the low byte, U in the high byte.
    uint16x8_t sv = vdupq_n_u16(0), su = vdupq_n_u16(0);
    const uint8_t* rows[3] = {s0, s1, s2};
    for (const uint8_t* r : rows) {
      const uint16x8x3_t p = vld3q_u16(reinterpret_cast<const uint16_t*>(r + 6 * x));
      for (int k = 0; k < 3; ++k) {
        sv = vaddq_u16(sv, vandq_u16(p.val[k], low));
        su = vaddq_u16(su, vshrq_n_u16(p.val[k], 8));
      }
    }
    vst1_u8(v + x, div9Neon(sv));
    vst1_u8(u + x, div9Neon(su));
  }
  if (n < w) chroma3C(s0 + 6 * n, s1 + 6 * n, s2 + 6 * n, u + n, v + n, w - n);
}

void luma2Neon(const uint8_t* s0, const uint8_t* s1, uint8_t* d, int w) {
  const int n = w & ~15;
  for (int x = 0; x < n; x += 16) {
    const uint8x16x2_t a = vld2q_u8(s0 + 2 * x);
    const uint8x16x2_t b = vld2q_u8(s1 + 2 * x);
    uint16x8_t lo = vaddl_u8(vget_low_u8(a.val[0]), vget_low_u8(a.val[1]));
    uint16x8_t hi = vaddl_u8(vget_high_u8(a.val[0]), vget_high_u8(a.val[1]));
    lo = vaddq_u16(lo, vaddl_u8(vget_low_u8(b.val[0]), vget_low_u8(b.val[1])));
    hi = vaddq_u16(hi, vaddl_u8(vget_high_u8(b.val[0]), vget_high_u8(b.val[1])));
    vst1q_u8(d + x, vcombine_u8(vrshrn_n_u16(lo, 2), vrshrn_n_u16(hi, 2)));
  }
  if (n < w) luma2C(s0 + 2 * n, s1 + 2 * n, d + n, w - n);
}

void chroma2Neon(const uint8_t* s0, const uint8_t* s1, uint8_t* u, uint8_t* v, int w) {
  const int n = w & ~7;
  for (int x = 0; x < n; x += 8) {
    // Two pairs per output: V0 U0 V1 U1 in the four lanes.
    const uint8x8x4_t a = vld4_u8(s0 + 4 * x);
    const uint8x8x4_t b = vld4_u8(s1 + 4 * x);
    const uint16x8_t sv = vaddq_u16(vaddl_u8(a.val[0], a.val[2]), vaddl_u8(b.val[0], b.val[2]));
    const uint16x8_t su = vaddq_u16(vaddl_u8(a.val[1], a.val[3]), vaddl_u8(b.val[1], b.val[3]));
    vst1_u8(v + x, vrshrn_n_u16(sv, 2));
    vst1_u8(u + x, vrshrn_n_u16(su, 2));
  }
  if (n < w) chroma2C(s0 + 4 * n, s1 + 4 * n, u + n, v + n, w - n);
}

const RowKernels kNeon = {luma3Neon, chroma3Neon, luma2Neon, chroma2Neon, "neon"};

#endif  // __ARM_NEON

std::atomic<bool> gSimdEnabled{true};

const RowKernels& rowKernels() {
  if (!gSimdEnabled.load(std::memory_order_relaxed)) return kPortable;
#if defined(__ARM_NEON)
  return kNeon;
#elif defined(KO_REDUCER_X86)
  static const bool hasSsse3 = cpuHasSsse3();
  return hasSsse3 ? kSsse3 : kPortable;
#else
  return kPortable;
#endif
}

int badArgs(const char* what, int a, int b, int c, int d) {
  __android_log_print(ANDROID_LOG_ERROR, kTag, "reduceNv21: %s (%d, %d, %d, %d)", what, a, b, c, d);
  return -1;
}

}  // namespace

void KoFrameReducer::setSimdEnabled(bool enabled) {
  gSimdEnabled.store(enabled, std::memory_order_relaxed);
}

const char* KoFrameReducer::rowKernels() { return android::rowKernels().name; }

int KoFrameReducer::reduceNv21(const uint8_t* srcLuma, int lumaStride, const uint8_t* srcVU,
                               int chromaStride, int srcWidth, int srcHeight, uint8_t* dst,
                               int dstWidth, int dstHeight, uint8_t* small, int bandTop,
                               int smallHeight) {
  if (srcLuma == nullptr || srcVU == nullptr || dst == nullptr) {
    __android_log_print(ANDROID_LOG_ERROR, kTag, "reduceNv21: null image pointer");
    return -1;
  }
  if (dstWidth <= 0 || dstHeight <= 0 || dstWidth % 16 != 0 || dstHeight % 2 != 0 ||
      dstWidth > kMaxDstWidth) {
    return badArgs("reduced size not taken (width a multiple of 16 up to the maximum, even height)",
                   srcWidth, srcHeight, dstWidth, dstHeight);
  }
  int ratio = 0;  // 2, 3, or 4 for 9:4
  if (srcWidth == 2 * dstWidth && srcHeight == 2 * dstHeight) {
    ratio = 2;
  } else if (srcWidth == 3 * dstWidth && srcHeight == 3 * dstHeight) {
    ratio = 3;
  } else if (srcWidth * 4 == dstWidth * 9 && srcHeight * 4 == dstHeight * 9) {
    ratio = 4;
  } else {
    return badArgs("sizes are not 2:1, 3:1 or 9:4", srcWidth, srcHeight, dstWidth, dstHeight);
  }
  if (lumaStride < srcWidth || chromaStride < srcWidth) {
    return badArgs("stride smaller than the row", lumaStride, chromaStride, srcWidth, srcHeight);
  }
  if (small != nullptr &&
      (bandTop < 0 || smallHeight <= 0 || bandTop + 2 * smallHeight > dstHeight)) {
    return badArgs("band outside the reduced picture", bandTop, smallHeight, dstWidth, dstHeight);
  }

  const RowKernels& k = android::rowKernels();
  const int cw = dstWidth / 2;
  const int ch = dstHeight / 2;
  uint8_t* planeA = dst + static_cast<size_t>(dstWidth) * dstHeight;
  uint8_t* planeB = planeA + static_cast<size_t>(cw) * ch;
  const ptrdiff_t ls = lumaStride;
  const ptrdiff_t cs = chromaStride;

  for (int cy = 0; cy < ch; ++cy) {
    for (int y = 2 * cy; y < 2 * cy + 2; ++y) {
      uint8_t* d = dst + static_cast<ptrdiff_t>(y) * dstWidth;
      if (ratio == 3) {
        const uint8_t* s = srcLuma + 3 * y * ls;
        k.luma3(s, s + ls, s + 2 * ls, d, dstWidth);
      } else if (ratio == 2) {
        const uint8_t* s = srcLuma + 2 * y * ls;
        k.luma2(s, s + ls, d, dstWidth);
      } else {
        row94(srcLuma + ((y >> 2) * 9 + kOff94[y & 3]) * ls, lumaStride, 1, y & 3, d, dstWidth);
      }
      // A small row as soon as both of its reduced rows exist.
      const int inBand = y - bandTop;
      if (small != nullptr && inBand >= 1 && inBand < 2 * smallHeight && (inBand & 1) != 0) {
        k.luma2(d - dstWidth, d, small + static_cast<ptrdiff_t>(inBand / 2) * cw, cw);
      }
    }
    uint8_t* u = planeA + static_cast<ptrdiff_t>(cy) * cw;
    uint8_t* v = planeB + static_cast<ptrdiff_t>(cy) * cw;
    if (ratio == 3) {
      const uint8_t* s = srcVU + 3 * cy * cs;
      k.chroma3(s, s + cs, s + 2 * cs, u, v, cw);
    } else if (ratio == 2) {
      const uint8_t* s = srcVU + 2 * cy * cs;
      k.chroma2(s, s + cs, u, v, cw);
    } else {
      const uint8_t* s = srcVU + ((cy >> 2) * 9 + kOff94[cy & 3]) * cs;
      row94(s + 1, chromaStride, 2, cy & 3, u, cw);  // pairs are V,U: U is the second byte
      row94(s, chromaStride, 2, cy & 3, v, cw);
    }
  }
  return 0;
}

}  // namespace android
