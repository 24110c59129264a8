// The one-pass frame reducer. Each ratio has a luma row and a chroma row kernel that make one
// reduced row from the 2 or 3 source rows it covers; a further kernel halves two reduced rows
// into a small row. The pass walks the picture by chroma rows: two luma rows, the small row they
// complete (inside the band), then the chroma row of the same source band.
//
// Arithmetic (all paths): 3:1 sums of 9 samples, (sum + 4) / 9; 2:1 sums of 4, (sum + 2) >> 2;
// 9:4 weights of quarters (4,4,1 / 3,4,2 / 2,4,3 / 1,4,4 in each direction, total 81),
// (sum + 40) / 81. The vector rows divide by 9 as (n * 7282) >> 16, exact for every n up to
// 2299 (9 * 255 + 4 is 2299), and by 81 as (n * 51782) >> 22, exact for every n up to 20695
// (81 * 255 + 40).
#include "KoFrameReducer.h"

#include <log/log.h>

#include <algorithm>
#include <atomic>
#include <cstddef>

#if defined(__ARM_NEON)
#include <arm_neon.h>
#elif defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#define KO_REDUCER_X86 1
#endif

namespace android {

namespace {

constexpr const char* kTag = "KoFrameReducer";
constexpr int kMaxDst = KoFrameReducer::kMaxDstWidth;

// Every row function takes, last, `ahead`: the distance in bytes from its source rows to the
// rows that a later call will reduce, which it asks for (see ask) as it goes; 0 asks for none.
using LumaRow3 = void (*)(const uint8_t*, const uint8_t*, const uint8_t*, uint8_t*, int, ptrdiff_t);
using ChromaRow3 = void (*)(const uint8_t*, const uint8_t*, const uint8_t*, uint8_t*, uint8_t*, int,
                            ptrdiff_t);
using LumaRow2 = void (*)(const uint8_t*, const uint8_t*, uint8_t*, int, ptrdiff_t);
using ChromaRow2 = void (*)(const uint8_t*, const uint8_t*, uint8_t*, uint8_t*, int, ptrdiff_t);
// 9:4 rows: the first of the three source rows, their stride, the vertical phase (0..3).
using LumaRow94 = void (*)(const uint8_t*, ptrdiff_t, int, uint8_t*, int, ptrdiff_t);
using ChromaRow94 = void (*)(const uint8_t*, ptrdiff_t, int, uint8_t*, uint8_t*, int, ptrdiff_t);

struct RowKernels {
  LumaRow3 luma3;
  ChromaRow3 chroma3;  // V,U pairs in; U plane, V plane out
  LumaRow2 luma2;      // also the small-image halving
  ChromaRow2 chroma2;
  LumaRow94 luma94;
  ChromaRow94 chroma94;  // V,U pairs in; U plane, V plane out
  const char* name;
};

// The camera frame is read exactly once, so the rows asked for ahead are asked for non-temporally
// (prefetchnta on x86, a streaming PLD on ARM): they arrive without displacing what the rest of
// the frame's work keeps in the caches. The vector rows ask for the bytes ahead that match each
// block they reduce, so that the requests go out evenly while the frame is reduced rather than
// a row's worth at a time (which left the pass waiting on memory between bursts).

// Asks, for a block of kBytes bytes at r0, r1 and r2 (null for a two-row kernel), for the same
// bytes `ahead` further on: the lines holding the block's first byte and every 64th after it. A
// block of 64 bytes or fewer asks for one line; its last bytes belong to the next block's first
// line, except at the end of the row, which the row's first call asks for (askRowEnds).
//
// The helpers are always inlined: GCC 12 takes a call whose only effect is a prefetch for a call
// without effect and removes it.
#define KO_ASK_INLINE __attribute__((always_inline)) inline
template <int kBytes>
KO_ASK_INLINE void ask(const uint8_t* r0, const uint8_t* r1, const uint8_t* r2, ptrdiff_t ahead) {
  if (ahead == 0) return;
  for (int i = 0; i < kBytes; i += 64) {
    __builtin_prefetch(r0 + ahead + i, 0, 0);
    __builtin_prefetch(r1 + ahead + i, 0, 0);
    if (r2 != nullptr) __builtin_prefetch(r2 + ahead + i, 0, 0);
  }
}

KO_ASK_INLINE void askRowEnds(const uint8_t* r0, const uint8_t* r1, const uint8_t* r2,
                              ptrdiff_t ahead, ptrdiff_t bytes) {
  if (ahead == 0 || bytes <= 0) return;
  __builtin_prefetch(r0 + ahead + bytes - 1, 0, 0);
  __builtin_prefetch(r1 + ahead + bytes - 1, 0, 0);
  if (r2 != nullptr) __builtin_prefetch(r2 + ahead + bytes - 1, 0, 0);
}

// Portable rows ask for their rows ahead whole, up front (their arithmetic, not memory, is what
// they wait on).
KO_ASK_INLINE void askRows(const uint8_t* r0, const uint8_t* r1, const uint8_t* r2, ptrdiff_t ahead,
                           ptrdiff_t bytes) {
  if (ahead == 0) return;
  for (ptrdiff_t i = 0; i < bytes; i += 64) {
    ask<64>(r0 + i, r1 + i, r2 != nullptr ? r2 + i : nullptr, ahead);
  }
  askRowEnds(r0, r1, r2, ahead, bytes);
}

// ---- Portable rows ---------------------------------------------------------------------------

void luma3C(const uint8_t* s0, const uint8_t* s1, const uint8_t* s2, uint8_t* d, int w,
            ptrdiff_t ahead) {
  askRows(s0, s1, s2, ahead, 3 * static_cast<ptrdiff_t>(w));
  for (int x = 0; x < w; ++x) {
    const int i = 3 * x;
    const int sum = s0[i] + s0[i + 1] + s0[i + 2] + s1[i] + s1[i + 1] + s1[i + 2] + s2[i] +
                    s2[i + 1] + s2[i + 2];
    d[x] = static_cast<uint8_t>((sum + 4) / 9);
  }
}

void chroma3C(const uint8_t* s0, const uint8_t* s1, const uint8_t* s2, uint8_t* u, uint8_t* v,
              int w, ptrdiff_t ahead) {
  askRows(s0, s1, s2, ahead, 6 * static_cast<ptrdiff_t>(w));
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

void luma2C(const uint8_t* s0, const uint8_t* s1, uint8_t* d, int w, ptrdiff_t ahead) {
  askRows(s0, s1, nullptr, ahead, 2 * static_cast<ptrdiff_t>(w));
  for (int x = 0; x < w; ++x) {
    d[x] = static_cast<uint8_t>((s0[2 * x] + s0[2 * x + 1] + s1[2 * x] + s1[2 * x + 1] + 2) >> 2);
  }
}

void chroma2C(const uint8_t* s0, const uint8_t* s1, uint8_t* u, uint8_t* v, int w,
              ptrdiff_t ahead) {
  askRows(s0, s1, nullptr, ahead, 4 * static_cast<ptrdiff_t>(w));
  for (int x = 0; x < w; ++x) {
    const int i = 4 * x;
    v[x] = static_cast<uint8_t>((s0[i] + s0[i + 2] + s1[i] + s1[i + 2] + 2) >> 2);
    u[x] = static_cast<uint8_t>((s0[i + 1] + s0[i + 3] + s1[i + 1] + s1[i + 3] + 2) >> 2);
  }
}

// 9:4 rows: the weights are periodic in 9 source samples (4 outputs).
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

void luma94C(const uint8_t* s, ptrdiff_t stride, int p, uint8_t* d, int w, ptrdiff_t ahead) {
  askRows(s, s + stride, s + 2 * stride, ahead, (static_cast<ptrdiff_t>(w) * 9 + 3) / 4);
  row94(s, static_cast<int>(stride), 1, p, d, w);
}

void chroma94C(const uint8_t* s, ptrdiff_t stride, int p, uint8_t* u, uint8_t* v, int w,
               ptrdiff_t ahead) {
  askRows(s, s + stride, s + 2 * stride, ahead, 2 * ((static_cast<ptrdiff_t>(w) * 9 + 3) / 4));
  row94(s + 1, static_cast<int>(stride), 2, p, u, w);  // pairs are V,U: U is the second byte
  row94(s, static_cast<int>(stride), 2, p, v, w);
}

const RowKernels kPortable = {luma3C, chroma3C, luma2C, chroma2C, luma94C, chroma94C, "c"};

// ---- x86 rows --------------------------------------------------------------------------------
#if defined(KO_REDUCER_X86)

// The 3:1 and 9:4 rows work horizontally first, on bytes: a shuffle spreads the three source
// samples of each output over four bytes (the fourth is zero) and pmaddubsw multiplies them by
// their weights and adds neighbours, giving two words per output; the three source rows' words
// are added (with their vertical weights folded into the byte weights) and pmaddwd adds each
// output's two words into one 32-bit sum. One 16-byte lane makes 4 outputs from 12 (3:1 luma),
// 9 (9:4 luma) or 10..12 (chroma) of its bytes. Rows are never read outside their samples: the
// last lane of a block is loaded a few bytes early with its shuffle indices moved up by as much,
// and the AVX2 blocks that load 32 bytes from a few bytes before their first sample run only
// where the row has bytes on both sides of the block.
//
// Bounds: a 3:1 word holds at most 3 * 2 * 255 over the rows and an output 9 * 255; 9:4 byte
// weights are at most 4 * 4, a word holds at most 9 * 8 * 255 (18360) over the rows and an output
// 81 * 255 (20655). All fit signed 16 bits (pmaddubsw saturates there, packssdw packs to it).

#define KO_SSSE3 __attribute__((target("ssse3")))
#define KO_AVX2 __attribute__((target("avx2")))

constexpr int8_t kZ = -1;  // shuffle index that makes a zero byte

// Horizontal weights of the 9:4 outputs of one period (source samples 0..8, outputs 0..3); the
// rows' vertical weights (kW94) multiply them.
alignas(16) constexpr int8_t kH94[16] = {4, 4, 1, 0, 3, 4, 2, 0, 2, 4, 3, 0, 1, 4, 4, 0};
// Chroma: outputs 0, 1 of a period in one lane and 2, 3 in the next, V before U in each.
alignas(16) constexpr int8_t kH94C[2][16] = {{4, 4, 1, 0, 3, 4, 2, 0, 4, 4, 1, 0, 3, 4, 2, 0},
                                              {2, 4, 3, 0, 1, 4, 4, 0, 2, 4, 3, 0, 1, 4, 4, 0}};

// Shuffles: 3:1 luma (4 outputs from bytes 0..11), 3:1 chroma (V0, V1, U0, U1 from bytes 0..11),
// 9:4 luma (a period, bytes 0..8), 9:4 chroma (V, V, U, U from bytes 0..9), each moved up by
// `shift` bytes for a lane loaded that many bytes early.
KO_SSSE3 inline __m128i maskLuma3(int shift) {
  return _mm_add_epi8(_mm_setr_epi8(0, 1, 2, kZ, 3, 4, 5, kZ, 6, 7, 8, kZ, 9, 10, 11, kZ),
                      _mm_setr_epi8(shift, shift, shift, 0, shift, shift, shift, 0, shift, shift,
                                    shift, 0, shift, shift, shift, 0));
}
KO_SSSE3 inline __m128i maskChroma3(int shift) {
  return _mm_add_epi8(_mm_setr_epi8(0, 2, 4, kZ, 6, 8, 10, kZ, 1, 3, 5, kZ, 7, 9, 11, kZ),
                      _mm_setr_epi8(shift, shift, shift, 0, shift, shift, shift, 0, shift, shift,
                                    shift, 0, shift, shift, shift, 0));
}
KO_SSSE3 inline __m128i maskLuma94(int shift) {
  return _mm_add_epi8(_mm_setr_epi8(0, 1, 2, kZ, 2, 3, 4, kZ, 4, 5, 6, kZ, 6, 7, 8, kZ),
                      _mm_setr_epi8(shift, shift, shift, 0, shift, shift, shift, 0, shift, shift,
                                    shift, 0, shift, shift, shift, 0));
}
KO_SSSE3 inline __m128i maskChroma94(int shift) {
  return _mm_add_epi8(_mm_setr_epi8(0, 2, 4, kZ, 4, 6, 8, kZ, 1, 3, 5, kZ, 5, 7, 9, kZ),
                      _mm_setr_epi8(shift, shift, shift, 0, shift, shift, shift, 0, shift, shift,
                                    shift, 0, shift, shift, shift, 0));
}
// Byte weights of one source row: horizontal weights times the row's vertical weight. Products
// stay below 256, so one 16-bit multiply scales both bytes of each word.
KO_SSSE3 inline __m128i scaleWeights(const int8_t* h, int v) {
  return _mm_mullo_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(h)),
                         _mm_set1_epi16(static_cast<int16_t>(v)));
}

// (n + 4) / 9 and (n + 40) / 81 on 16-bit lanes, exact for every n a row can produce.
KO_SSSE3 inline __m128i div9(__m128i n) {
  return _mm_mulhi_epu16(_mm_add_epi16(n, _mm_set1_epi16(4)), _mm_set1_epi16(7282));
}
KO_SSSE3 inline __m128i div81(__m128i n) {
  const __m128i magic = _mm_set1_epi16(-13754);  // 51782 as an unsigned lane
  return _mm_srli_epi16(_mm_mulhi_epu16(_mm_add_epi16(n, _mm_set1_epi16(40)), magic), 6);
}

KO_SSSE3 inline __m128i load16(const uint8_t* p) {
  return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
}

// One lane at byte `off` of the three rows (r, r + stride, r + 2 * stride): four 32-bit sums.
struct Lane3 {
  const uint8_t* r0;
  const uint8_t* r1;
  const uint8_t* r2;
  __m128i w0, w1, w2;  // byte weights per row
};
KO_SSSE3 inline __m128i lane(const Lane3& l, ptrdiff_t off, __m128i mask) {
  const __m128i a = _mm_maddubs_epi16(_mm_shuffle_epi8(load16(l.r0 + off), mask), l.w0);
  const __m128i b = _mm_maddubs_epi16(_mm_shuffle_epi8(load16(l.r1 + off), mask), l.w1);
  const __m128i c = _mm_maddubs_epi16(_mm_shuffle_epi8(load16(l.r2 + off), mask), l.w2);
  return _mm_madd_epi16(_mm_add_epi16(_mm_add_epi16(a, b), c), _mm_set1_epi16(1));
}

// After packing, V0 V1 U0 U1 V2 V3 U2 U3 ... of a chroma block: V0..V7, then U0..U7.
KO_SSSE3 inline __m128i splitChroma() {
  return _mm_setr_epi8(0, 1, 4, 5, 8, 9, 12, 13, 2, 3, 6, 7, 10, 11, 14, 15);
}

KO_SSSE3 void luma3Ssse3(const uint8_t* s0, const uint8_t* s1, const uint8_t* s2, uint8_t* d,
                         int w, ptrdiff_t ahead) {
  const int n = w & ~15;
  askRowEnds(s0, s1, s2, ahead, 3 * static_cast<ptrdiff_t>(n));
  const __m128i ones = _mm_set1_epi8(1);
  const Lane3 l = {s0, s1, s2, ones, ones, ones};
  const __m128i m = maskLuma3(0), mEnd = maskLuma3(4);
  for (int x = 0; x < n; x += 16) {
    const ptrdiff_t o = 3 * x;  // 48 source bytes, lanes at 0, 12, 24 and (early) 32
    ask<48>(s0 + o, s1 + o, s2 + o, ahead);
    const __m128i a = _mm_packs_epi32(lane(l, o, m), lane(l, o + 12, m));
    const __m128i b = _mm_packs_epi32(lane(l, o + 24, m), lane(l, o + 32, mEnd));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(d + x), _mm_packus_epi16(div9(a), div9(b)));
  }
  if (n < w) luma3C(s0 + 3 * n, s1 + 3 * n, s2 + 3 * n, d + n, w - n, ahead);
}

KO_SSSE3 void chroma3Ssse3(const uint8_t* s0, const uint8_t* s1, const uint8_t* s2, uint8_t* u,
                           uint8_t* v, int w, ptrdiff_t ahead) {
  const int n = w & ~7;
  askRowEnds(s0, s1, s2, ahead, 6 * static_cast<ptrdiff_t>(n));
  const __m128i ones = _mm_set1_epi8(1);
  const Lane3 l = {s0, s1, s2, ones, ones, ones};
  const __m128i m = maskChroma3(0), mEnd = maskChroma3(4);
  const __m128i split = splitChroma();
  for (int x = 0; x < n; x += 8) {
    const ptrdiff_t o = 6 * x;  // 48 source bytes, 2 V and 2 U outputs per lane
    ask<48>(s0 + o, s1 + o, s2 + o, ahead);
    const __m128i a = _mm_packs_epi32(lane(l, o, m), lane(l, o + 12, m));
    const __m128i b = _mm_packs_epi32(lane(l, o + 24, m), lane(l, o + 32, mEnd));
    const __m128i vu = _mm_shuffle_epi8(_mm_packus_epi16(div9(a), div9(b)), split);
    _mm_storel_epi64(reinterpret_cast<__m128i*>(v + x), vu);
    _mm_storel_epi64(reinterpret_cast<__m128i*>(u + x), _mm_srli_si128(vu, 8));
  }
  if (n < w) chroma3C(s0 + 6 * n, s1 + 6 * n, s2 + 6 * n, u + n, v + n, w - n, ahead);
}

KO_SSSE3 void luma94Ssse3(const uint8_t* s, ptrdiff_t stride, int p, uint8_t* d, int w,
                          ptrdiff_t ahead) {
  const int n = w & ~15;
  askRowEnds(s, s + stride, s + 2 * stride, ahead, static_cast<ptrdiff_t>(n) / 4 * 9);
  const Lane3 l = {s, s + stride, s + 2 * stride, scaleWeights(kH94, kW94[p][0]),
                   scaleWeights(kH94, kW94[p][1]), scaleWeights(kH94, kW94[p][2])};
  const __m128i m = maskLuma94(0), mEnd = maskLuma94(7);
  for (int x = 0; x < n; x += 16) {
    const ptrdiff_t o = x / 4 * 9;  // 4 periods of 9 bytes, the last lane loaded 7 bytes early
    ask<36>(s + o, s + stride + o, s + 2 * stride + o, ahead);
    const __m128i a = _mm_packs_epi32(lane(l, o, m), lane(l, o + 9, m));
    const __m128i b = _mm_packs_epi32(lane(l, o + 18, m), lane(l, o + 20, mEnd));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(d + x), _mm_packus_epi16(div81(a), div81(b)));
  }
  if (n < w) luma94C(s + n / 4 * 9, stride, p, d + n, w - n, ahead);
}

KO_SSSE3 void chroma94Ssse3(const uint8_t* s, ptrdiff_t stride, int p, uint8_t* u, uint8_t* v,
                            int w, ptrdiff_t ahead) {
  const int n = w & ~7;
  askRowEnds(s, s + stride, s + 2 * stride, ahead, static_cast<ptrdiff_t>(n) / 4 * 18);
  const uint8_t* r1 = s + stride;
  const uint8_t* r2 = s + 2 * stride;
  const Lane3 l0 = {s, r1, r2, scaleWeights(kH94C[0], kW94[p][0]),
                    scaleWeights(kH94C[0], kW94[p][1]), scaleWeights(kH94C[0], kW94[p][2])};
  const Lane3 l1 = {s, r1, r2, scaleWeights(kH94C[1], kW94[p][0]),
                    scaleWeights(kH94C[1], kW94[p][1]), scaleWeights(kH94C[1], kW94[p][2])};
  // A period is 18 bytes: outputs 0, 1 from its bytes 0..9, outputs 2, 3 from bytes 8..17 (a
  // lane loaded at byte 2).
  const __m128i m = maskChroma94(0), mHi = maskChroma94(6);
  const __m128i split = splitChroma();
  for (int x = 0; x < n; x += 8) {
    const ptrdiff_t o = x / 4 * 18;
    ask<36>(s + o, r1 + o, r2 + o, ahead);
    const __m128i a = _mm_packs_epi32(lane(l0, o, m), lane(l1, o + 2, mHi));
    const __m128i b = _mm_packs_epi32(lane(l0, o + 18, m), lane(l1, o + 20, mHi));
    const __m128i vu = _mm_shuffle_epi8(_mm_packus_epi16(div81(a), div81(b)), split);
    _mm_storel_epi64(reinterpret_cast<__m128i*>(v + x), vu);
    _mm_storel_epi64(reinterpret_cast<__m128i*>(u + x), _mm_srli_si128(vu, 8));
  }
  if (n < w) chroma94C(s + n / 4 * 18, stride, p, u + n, v + n, w - n, ahead);
}

KO_SSSE3 void luma2Ssse3(const uint8_t* s0, const uint8_t* s1, uint8_t* d, int w,
                         ptrdiff_t ahead) {
  const int n = w & ~15;
  askRowEnds(s0, s1, nullptr, ahead, 2 * static_cast<ptrdiff_t>(n));
  const __m128i ones = _mm_set1_epi8(1);
  const __m128i two = _mm_set1_epi16(2);
  for (int x = 0; x < n; x += 16) {
    const uint8_t* a = s0 + 2 * x;
    const uint8_t* b = s1 + 2 * x;
    ask<32>(a, b, nullptr, ahead);
    __m128i lo = _mm_add_epi16(_mm_maddubs_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(a)), ones),
                               _mm_maddubs_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(b)), ones));
    __m128i hi =
        _mm_add_epi16(_mm_maddubs_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(a + 16)), ones),
                      _mm_maddubs_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(b + 16)), ones));
    lo = _mm_srli_epi16(_mm_add_epi16(lo, two), 2);
    hi = _mm_srli_epi16(_mm_add_epi16(hi, two), 2);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(d + x), _mm_packus_epi16(lo, hi));
  }
  if (n < w) luma2C(s0 + 2 * n, s1 + 2 * n, d + n, w - n, ahead);
}

KO_SSSE3 void chroma2Ssse3(const uint8_t* s0, const uint8_t* s1, uint8_t* u, uint8_t* v, int w,
                           ptrdiff_t ahead) {
  const int n = w & ~7;
  askRowEnds(s0, s1, nullptr, ahead, 4 * static_cast<ptrdiff_t>(n));
  const __m128i ones = _mm_set1_epi8(1);
  const __m128i two = _mm_set1_epi16(2);
  const __m128i split = _mm_setr_epi8(0, 2, 4, 6, 8, 10, 12, 14, 1, 3, 5, 7, 9, 11, 13, 15);
  for (int x = 0; x < n; x += 8) {
    ask<32>(s0 + 4 * x, s1 + 4 * x, nullptr, ahead);
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
  if (n < w) chroma2C(s0 + 4 * n, s1 + 4 * n, u + n, v + n, w - n, ahead);
}

const RowKernels kSsse3 = {luma3Ssse3, chroma3Ssse3, luma2Ssse3, chroma2Ssse3,
                           luma94Ssse3, chroma94Ssse3, "ssse3"};

// AVX2: the same lanes, two per register. Both 128-bit halves work independently (pshufb and the
// packs stay in their half), so each register's halves take lanes 16 outputs apart (8 for
// chroma) and the packed halves come out in order.

KO_AVX2 inline __m256i load32(const uint8_t* p) {
  return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p));
}

KO_AVX2 inline __m256i lanes(const uint8_t* p, ptrdiff_t off0, ptrdiff_t off1) {
  return _mm256_inserti128_si256(
      _mm256_castsi128_si256(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p + off0))),
      _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + off1)), 1);
}

struct Lane3x2 {
  const uint8_t* r0;
  const uint8_t* r1;
  const uint8_t* r2;
  __m256i w0, w1, w2;
};
KO_AVX2 inline __m256i lane2(const Lane3x2& l, ptrdiff_t off0, ptrdiff_t off1, __m256i mask) {
  const __m256i a = _mm256_maddubs_epi16(_mm256_shuffle_epi8(lanes(l.r0, off0, off1), mask), l.w0);
  const __m256i b = _mm256_maddubs_epi16(_mm256_shuffle_epi8(lanes(l.r1, off0, off1), mask), l.w1);
  const __m256i c = _mm256_maddubs_epi16(_mm256_shuffle_epi8(lanes(l.r2, off0, off1), mask), l.w2);
  return _mm256_madd_epi16(_mm256_add_epi16(_mm256_add_epi16(a, b), c), _mm256_set1_epi16(1));
}
// The same from one 32-byte load at `off`: its halves are 16 bytes apart, so they take two
// neighbouring groups of 12 (or 9) bytes only when the load starts 4 (or 7) bytes before the
// first group; such blocks run inside a row only, away from its first and last bytes.
KO_AVX2 inline __m256i lane2Wide(const Lane3x2& l, ptrdiff_t off, __m256i mask) {
  const __m256i a = _mm256_maddubs_epi16(_mm256_shuffle_epi8(load32(l.r0 + off), mask), l.w0);
  const __m256i b = _mm256_maddubs_epi16(_mm256_shuffle_epi8(load32(l.r1 + off), mask), l.w1);
  const __m256i c = _mm256_maddubs_epi16(_mm256_shuffle_epi8(load32(l.r2 + off), mask), l.w2);
  return _mm256_madd_epi16(_mm256_add_epi16(_mm256_add_epi16(a, b), c), _mm256_set1_epi16(1));
}
// Packed wide blocks hold their 4-byte groups as [0 2 4 6 | 1 3 5 7]: back in order.
KO_AVX2 inline __m256i groupsInOrder(__m256i v) {
  return _mm256_permutevar8x32_epi32(v, _mm256_setr_epi32(0, 4, 1, 5, 2, 6, 3, 7));
}

KO_AVX2 inline __m256i both(__m128i lo, __m128i hi) {
  return _mm256_inserti128_si256(_mm256_castsi128_si256(lo), hi, 1);
}
KO_AVX2 inline __m256i div9x2(__m256i n) {
  return _mm256_mulhi_epu16(_mm256_add_epi16(n, _mm256_set1_epi16(4)), _mm256_set1_epi16(7282));
}
KO_AVX2 inline __m256i div81x2(__m256i n) {
  const __m256i magic = _mm256_set1_epi16(-13754);  // 51782
  const __m256i rounded = _mm256_add_epi16(n, _mm256_set1_epi16(40));
  return _mm256_srli_epi16(_mm256_mulhi_epu16(rounded, magic), 6);
}

KO_AVX2 void luma3Avx2(const uint8_t* s0, const uint8_t* s1, const uint8_t* s2, uint8_t* d,
                       int w, ptrdiff_t ahead) {
  const int n = w & ~31;
  askRowEnds(s0, s1, s2, ahead, 3 * static_cast<ptrdiff_t>(n));
  const __m256i ones = _mm256_set1_epi8(1);
  const Lane3x2 l = {s0, s1, s2, ones, ones, ones};
  const __m256i m = both(maskLuma3(0), maskLuma3(0)), mEnd = both(maskLuma3(0), maskLuma3(4));
  const __m256i mWide = both(maskLuma3(4), maskLuma3(0));
  for (int x = 0; x < n; x += 32) {
    const ptrdiff_t o = 3 * x;  // 96 source bytes
    ask<96>(s0 + o, s1 + o, s2 + o, ahead);
    if (x > 0 && x + 32 < w) {
      // Outputs 8j..8j+7 from the 32 bytes at 24j - 4.
      const __m256i a = _mm256_packs_epi32(lane2Wide(l, o - 4, mWide), lane2Wide(l, o + 20, mWide));
      const __m256i b =
          _mm256_packs_epi32(lane2Wide(l, o + 44, mWide), lane2Wide(l, o + 68, mWide));
      _mm256_storeu_si256(reinterpret_cast<__m256i*>(d + x),
                          groupsInOrder(_mm256_packus_epi16(div9x2(a), div9x2(b))));
      continue;
    }
    // Outputs 0..15 low, 16..31 high.
    const __m256i a = _mm256_packs_epi32(lane2(l, o, o + 48, m), lane2(l, o + 12, o + 60, m));
    const __m256i b =
        _mm256_packs_epi32(lane2(l, o + 24, o + 72, m), lane2(l, o + 36, o + 80, mEnd));
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(d + x),
                        _mm256_packus_epi16(div9x2(a), div9x2(b)));
  }
  if (n < w) luma3Ssse3(s0 + 3 * n, s1 + 3 * n, s2 + 3 * n, d + n, w - n, ahead);
}

KO_AVX2 void chroma3Avx2(const uint8_t* s0, const uint8_t* s1, const uint8_t* s2, uint8_t* u,
                         uint8_t* v, int w, ptrdiff_t ahead) {
  const int n = w & ~15;
  askRowEnds(s0, s1, s2, ahead, 6 * static_cast<ptrdiff_t>(n));
  const __m256i ones = _mm256_set1_epi8(1);
  const Lane3x2 l = {s0, s1, s2, ones, ones, ones};
  const __m256i m = both(maskChroma3(0), maskChroma3(0));
  const __m256i mEnd = both(maskChroma3(0), maskChroma3(4));
  const __m256i split = both(splitChroma(), splitChroma());
  const __m256i mWide = both(maskChroma3(4), maskChroma3(0));
  for (int x = 0; x < n; x += 16) {
    const ptrdiff_t o = 6 * x;  // 96 source bytes
    ask<96>(s0 + o, s1 + o, s2 + o, ahead);
    __m256i packed;
    if (x > 0 && x + 16 < w) {
      // Outputs 4j..4j+3 from the 32 bytes at 24j - 4.
      const __m256i a = _mm256_packs_epi32(lane2Wide(l, o - 4, mWide), lane2Wide(l, o + 20, mWide));
      const __m256i b =
          _mm256_packs_epi32(lane2Wide(l, o + 44, mWide), lane2Wide(l, o + 68, mWide));
      packed = groupsInOrder(_mm256_packus_epi16(div9x2(a), div9x2(b)));
    } else {
      // Outputs 0..7 low, 8..15 high.
      const __m256i a = _mm256_packs_epi32(lane2(l, o, o + 48, m), lane2(l, o + 12, o + 60, m));
      const __m256i b =
          _mm256_packs_epi32(lane2(l, o + 24, o + 72, m), lane2(l, o + 36, o + 80, mEnd));
      packed = _mm256_packus_epi16(div9x2(a), div9x2(b));
    }
    // [V0..7 U0..7 | V8..15 U8..15] -> [V0..15 | U0..15]
    const __m256i vu = _mm256_permute4x64_epi64(_mm256_shuffle_epi8(packed, split), 0xD8);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(v + x), _mm256_castsi256_si128(vu));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(u + x), _mm256_extracti128_si256(vu, 1));
  }
  if (n < w) chroma3Ssse3(s0 + 6 * n, s1 + 6 * n, s2 + 6 * n, u + n, v + n, w - n, ahead);
}

KO_AVX2 void luma94Avx2(const uint8_t* s, ptrdiff_t stride, int p, uint8_t* d, int w,
                        ptrdiff_t ahead) {
  const int n = w & ~31;
  askRowEnds(s, s + stride, s + 2 * stride, ahead, static_cast<ptrdiff_t>(n) / 4 * 9);
  const Lane3x2 l = {s, s + stride, s + 2 * stride,
                     both(scaleWeights(kH94, kW94[p][0]), scaleWeights(kH94, kW94[p][0])),
                     both(scaleWeights(kH94, kW94[p][1]), scaleWeights(kH94, kW94[p][1])),
                     both(scaleWeights(kH94, kW94[p][2]), scaleWeights(kH94, kW94[p][2]))};
  const __m256i m = both(maskLuma94(0), maskLuma94(0)), mEnd = both(maskLuma94(0), maskLuma94(7));
  const __m256i mWide = both(maskLuma94(7), maskLuma94(0));
  for (int x = 0; x < n; x += 32) {
    const ptrdiff_t o = x / 4 * 9;  // 8 periods
    ask<72>(s + o, s + stride + o, s + 2 * stride + o, ahead);
    if (x > 0 && x + 32 < w) {
      // Periods 2j, 2j + 1 from the 32 bytes at 18j - 7.
      const __m256i a = _mm256_packs_epi32(lane2Wide(l, o - 7, mWide), lane2Wide(l, o + 11, mWide));
      const __m256i b =
          _mm256_packs_epi32(lane2Wide(l, o + 29, mWide), lane2Wide(l, o + 47, mWide));
      _mm256_storeu_si256(reinterpret_cast<__m256i*>(d + x),
                          groupsInOrder(_mm256_packus_epi16(div81x2(a), div81x2(b))));
      continue;
    }
    // Periods 0..3 low, 4..7 high, the last 7 bytes early.
    const __m256i a = _mm256_packs_epi32(lane2(l, o, o + 36, m), lane2(l, o + 9, o + 45, m));
    const __m256i b =
        _mm256_packs_epi32(lane2(l, o + 18, o + 54, m), lane2(l, o + 27, o + 56, mEnd));
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(d + x),
                        _mm256_packus_epi16(div81x2(a), div81x2(b)));
  }
  if (n < w) luma94Ssse3(s + n / 4 * 9, stride, p, d + n, w - n, ahead);
}

KO_AVX2 void chroma94Avx2(const uint8_t* s, ptrdiff_t stride, int p, uint8_t* u, uint8_t* v,
                          int w, ptrdiff_t ahead) {
  const int n = w & ~15;
  askRowEnds(s, s + stride, s + 2 * stride, ahead, static_cast<ptrdiff_t>(n) / 4 * 18);
  // Low half: outputs 0, 1 of a period; high half: outputs 2, 3 (loaded at byte 2).
  const Lane3x2 l = {s, s + stride, s + 2 * stride,
                     both(scaleWeights(kH94C[0], kW94[p][0]), scaleWeights(kH94C[1], kW94[p][0])),
                     both(scaleWeights(kH94C[0], kW94[p][1]), scaleWeights(kH94C[1], kW94[p][1])),
                     both(scaleWeights(kH94C[0], kW94[p][2]), scaleWeights(kH94C[1], kW94[p][2]))};
  const __m256i m = both(maskChroma94(0), maskChroma94(6));
  const __m256i split = both(splitChroma(), splitChroma());
  for (int x = 0; x < n; x += 16) {
    const ptrdiff_t o = x / 4 * 18;  // 4 periods, one per register
    ask<72>(s + o, s + stride + o, s + 2 * stride + o, ahead);
    const __m256i a = _mm256_packs_epi32(lane2(l, o, o + 2, m), lane2(l, o + 18, o + 20, m));
    const __m256i b = _mm256_packs_epi32(lane2(l, o + 36, o + 38, m), lane2(l, o + 54, o + 56, m));
    // Low: V0 V1 V4 V5 V8 V9 V12 V13 | U0 U1 ...; high: V2 V3 V6 V7 ... | U2 U3 ...
    const __m256i vu = _mm256_shuffle_epi8(_mm256_packus_epi16(div81x2(a), div81x2(b)), split);
    const __m128i lo = _mm256_castsi256_si128(vu), hi = _mm256_extracti128_si256(vu, 1);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(v + x), _mm_unpacklo_epi16(lo, hi));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(u + x), _mm_unpackhi_epi16(lo, hi));
  }
  if (n < w) chroma94Ssse3(s + n / 4 * 18, stride, p, u + n, v + n, w - n, ahead);
}

KO_AVX2 void luma2Avx2(const uint8_t* s0, const uint8_t* s1, uint8_t* d, int w,
                       ptrdiff_t ahead) {
  const int n = w & ~31;
  askRowEnds(s0, s1, nullptr, ahead, 2 * static_cast<ptrdiff_t>(n));
  const __m256i ones = _mm256_set1_epi8(1);
  const __m256i two = _mm256_set1_epi16(2);
  for (int x = 0; x < n; x += 32) {
    const uint8_t* a = s0 + 2 * x;
    const uint8_t* b = s1 + 2 * x;
    ask<64>(a, b, nullptr, ahead);
    __m256i lo = _mm256_add_epi16(_mm256_maddubs_epi16(load32(a), ones),
                                  _mm256_maddubs_epi16(load32(b), ones));
    __m256i hi = _mm256_add_epi16(_mm256_maddubs_epi16(load32(a + 32), ones),
                                  _mm256_maddubs_epi16(load32(b + 32), ones));
    lo = _mm256_srli_epi16(_mm256_add_epi16(lo, two), 2);
    hi = _mm256_srli_epi16(_mm256_add_epi16(hi, two), 2);
    // [0..7 16..23 | 8..15 24..31] -> in order
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(d + x),
                        _mm256_permute4x64_epi64(_mm256_packus_epi16(lo, hi), 0xD8));
  }
  if (n < w) luma2Ssse3(s0 + 2 * n, s1 + 2 * n, d + n, w - n, ahead);
}

KO_AVX2 void chroma2Avx2(const uint8_t* s0, const uint8_t* s1, uint8_t* u, uint8_t* v, int w,
                         ptrdiff_t ahead) {
  const int n = w & ~15;
  askRowEnds(s0, s1, nullptr, ahead, 4 * static_cast<ptrdiff_t>(n));
  const __m256i ones = _mm256_set1_epi8(1);
  const __m256i two = _mm256_set1_epi16(2);
  const __m128i split8 = _mm_setr_epi8(0, 2, 4, 6, 8, 10, 12, 14, 1, 3, 5, 7, 9, 11, 13, 15);
  const __m256i split = both(split8, split8);
  const __m256i order = _mm256_setr_epi32(0, 4, 2, 6, 1, 5, 3, 7);
  for (int x = 0; x < n; x += 16) {
    ask<64>(s0 + 4 * x, s1 + 4 * x, nullptr, ahead);
    __m256i sum[2];
    for (int h = 0; h < 2; ++h) {
      const __m256i a = _mm256_shuffle_epi8(load32(s0 + 4 * x + 32 * h), split);
      const __m256i b = _mm256_shuffle_epi8(load32(s1 + 4 * x + 32 * h), split);
      // Per half: [V pair sums | U pair sums] of 4 outputs (h = 0: outputs 0..3 low, 4..7 high).
      const __m256i sum2 =
          _mm256_add_epi16(_mm256_maddubs_epi16(a, ones), _mm256_maddubs_epi16(b, ones));
      sum[h] = _mm256_srli_epi16(_mm256_add_epi16(sum2, two), 2);
    }
    // [V0-3 U0-3 V8-11 U8-11 | V4-7 U4-7 V12-15 U12-15] -> [V0..15 | U0..15]
    const __m256i vu = _mm256_permutevar8x32_epi32(_mm256_packus_epi16(sum[0], sum[1]), order);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(v + x), _mm256_castsi256_si128(vu));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(u + x), _mm256_extracti128_si256(vu, 1));
  }
  if (n < w) chroma2Ssse3(s0 + 4 * n, s1 + 4 * n, u + n, v + n, w - n, ahead);
}

const RowKernels kAvx2 = {luma3Avx2, chroma3Avx2, luma2Avx2, chroma2Avx2,
                          luma94Avx2, chroma94Avx2, "avx2"};

bool cpuHasSsse3() {
  __builtin_cpu_init();
  return __builtin_cpu_supports("ssse3") != 0;
}

bool cpuHasAvx2() {
  __builtin_cpu_init();
  return __builtin_cpu_supports("avx2") != 0;
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

void luma3Neon(const uint8_t* s0, const uint8_t* s1, const uint8_t* s2, uint8_t* d, int w,
               ptrdiff_t ahead) {
  const int n = w & ~15;
  askRowEnds(s0, s1, s2, ahead, 3 * static_cast<ptrdiff_t>(n));
  for (int x = 0; x < n; x += 16) {
    ask<48>(s0 + 3 * x, s1 + 3 * x, s2 + 3 * x, ahead);
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
  if (n < w) luma3C(s0 + 3 * n, s1 + 3 * n, s2 + 3 * n, d + n, w - n, ahead);
}

void chroma3Neon(const uint8_t* s0, const uint8_t* s1, const uint8_t* s2, uint8_t* u, uint8_t* v,
                 int w, ptrdiff_t ahead) {
  const int n = w & ~7;
  askRowEnds(s0, s1, s2, ahead, 6 * static_cast<ptrdiff_t>(n));
  const uint16x8_t low = vdupq_n_u16(0xff);
  for (int x = 0; x < n; x += 8) {
    ask<48>(s0 + 6 * x, s1 + 6 * x, s2 + 6 * x, ahead);
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
  if (n < w) chroma3C(s0 + 6 * n, s1 + 6 * n, s2 + 6 * n, u + n, v + n, w - n, ahead);
}

void luma2Neon(const uint8_t* s0, const uint8_t* s1, uint8_t* d, int w, ptrdiff_t ahead) {
  const int n = w & ~15;
  askRowEnds(s0, s1, nullptr, ahead, 2 * static_cast<ptrdiff_t>(n));
  for (int x = 0; x < n; x += 16) {
    ask<32>(s0 + 2 * x, s1 + 2 * x, nullptr, ahead);
    const uint8x16x2_t a = vld2q_u8(s0 + 2 * x);
    const uint8x16x2_t b = vld2q_u8(s1 + 2 * x);
    uint16x8_t lo = vaddl_u8(vget_low_u8(a.val[0]), vget_low_u8(a.val[1]));
    uint16x8_t hi = vaddl_u8(vget_high_u8(a.val[0]), vget_high_u8(a.val[1]));
    lo = vaddq_u16(lo, vaddl_u8(vget_low_u8(b.val[0]), vget_low_u8(b.val[1])));
    hi = vaddq_u16(hi, vaddl_u8(vget_high_u8(b.val[0]), vget_high_u8(b.val[1])));
    vst1q_u8(d + x, vcombine_u8(vrshrn_n_u16(lo, 2), vrshrn_n_u16(hi, 2)));
  }
  if (n < w) luma2C(s0 + 2 * n, s1 + 2 * n, d + n, w - n, ahead);
}

void chroma2Neon(const uint8_t* s0, const uint8_t* s1, uint8_t* u, uint8_t* v, int w,
                 ptrdiff_t ahead) {
  const int n = w & ~7;
  askRowEnds(s0, s1, nullptr, ahead, 4 * static_cast<ptrdiff_t>(n));
  for (int x = 0; x < n; x += 8) {
    ask<32>(s0 + 4 * x, s1 + 4 * x, nullptr, ahead);
    // Two pairs per output: V0 U0 V1 U1 in the four lanes.
    const uint8x8x4_t a = vld4_u8(s0 + 4 * x);
    const uint8x8x4_t b = vld4_u8(s1 + 4 * x);
    const uint16x8_t sv = vaddq_u16(vaddl_u8(a.val[0], a.val[2]), vaddl_u8(b.val[0], b.val[2]));
    const uint16x8_t su = vaddq_u16(vaddl_u8(a.val[1], a.val[3]), vaddl_u8(b.val[1], b.val[3]));
    vst1_u8(v + x, vrshrn_n_u16(sv, 2));
    vst1_u8(u + x, vrshrn_n_u16(su, 2));
  }
  if (n < w) chroma2C(s0 + 4 * n, s1 + 4 * n, u + n, v + n, w - n, ahead);
}

const RowKernels kNeon = {luma3Neon, chroma3Neon, luma2Neon, chroma2Neon, luma94C, chroma94C,
                         "neon"};

#endif  // __ARM_NEON

std::atomic<int> gKernelSet{KoFrameReducer::KERNELS_FASTEST};

const RowKernels& rowKernels() {
  const int set = gKernelSet.load(std::memory_order_relaxed);
  if (set == KoFrameReducer::KERNELS_PORTABLE) return kPortable;
#if defined(__ARM_NEON)
  return kNeon;
#elif defined(KO_REDUCER_X86)
  static const bool hasSsse3 = cpuHasSsse3();
  static const bool hasAvx2 = hasSsse3 && cpuHasAvx2();
  if (set == KoFrameReducer::KERNELS_FASTEST && hasAvx2) return kAvx2;
  return hasSsse3 ? kSsse3 : kPortable;
#else
  return kPortable;
#endif
}

// Source rows [first, end) of reduced row r of a 2:1, 3:1 or 9:4 (ratio 4) reduction.
inline int firstSourceRow(int ratio, int r) {
  return ratio == 4 ? (r >> 2) * 9 + kOff94[r & 3] : ratio * r;
}
inline int endSourceRow(int ratio, int r) {
  return firstSourceRow(ratio, r) + (ratio == 2 ? 2 : 3);
}

// How far ahead, in reduced luma rows, the source rows are asked for (chroma: half as many, its
// rows being half as many). Measured from memory on the EPYC build host, per frame, at 2, 4, 6
// and 8 rows ahead: 1920x1080 (3:1) 107, 99, 100-105, 103 us; 1440x1080 (9:4) 69, 74-86, 71-82,
// 73-77 us; 1280x720 (2:1) 48, 53-56, 54-55, 57 us. Before, when each row asked for the whole
// rows of the row two ahead before reducing, the same frames cost 130, 104 and 57 us; with
// requests into L2 (prefetcht1) 1920x1080 cost 145 us, with none 165 us.
inline int aheadRows(int ratio) { return ratio == 3 ? 4 : 2; }

// Bytes from the source rows of reduced row r to those of row r + k, or 0 past the last row.
inline ptrdiff_t aheadOf(int ratio, int r, int k, int rows, ptrdiff_t stride) {
  if (r + k >= rows) return 0;
  return (firstSourceRow(ratio, r + k) - firstSourceRow(ratio, r)) * stride;
}

// Asks for rows [0, end) of a plane whole: the rows of the first reduced rows, which no earlier
// row asks for.
inline void askFirstRows(const uint8_t* plane, ptrdiff_t stride, int bytes, int end) {
  for (int y = 0; y < end; ++y) {
    const uint8_t* row = plane + y * stride;
    for (int i = 0; i < bytes; i += 64) __builtin_prefetch(row + i, 0, 0);
    __builtin_prefetch(row + bytes - 1, 0, 0);
  }
}

int badArgs(const char* what, int a, int b, int c, int d) {
  __android_log_print(ANDROID_LOG_ERROR, kTag, "reduceNv21: %s (%d, %d, %d, %d)", what, a, b, c, d);
  return -1;
}

}  // namespace

void KoFrameReducer::setKernels(KernelSet kernels) {
  gKernelSet.store(kernels, std::memory_order_relaxed);
}

KoFrameReducer::KernelSet KoFrameReducer::kernels() {
  return static_cast<KernelSet>(gKernelSet.load(std::memory_order_relaxed));
}

void KoFrameReducer::setSimdEnabled(bool enabled) {
  setKernels(enabled ? KERNELS_FASTEST : KERNELS_PORTABLE);
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

  // The source rows are asked for a few reduced rows ahead, as each row is reduced: with the
  // frame in main memory the hardware prefetchers alone leave the pass waiting on its many row
  // streams. In cache the requests cost a few percent.
  const int aheadLuma = aheadRows(ratio), aheadChroma = aheadLuma / 2;
  askFirstRows(srcLuma, ls, srcWidth, endSourceRow(ratio, std::min(aheadLuma, dstHeight) - 1));
  askFirstRows(srcVU, cs, srcWidth, endSourceRow(ratio, std::min(aheadChroma, ch) - 1));
  for (int cy = 0; cy < ch; ++cy) {
    for (int y = 2 * cy; y < 2 * cy + 2; ++y) {
      uint8_t* d = dst + static_cast<ptrdiff_t>(y) * dstWidth;
      const ptrdiff_t ahead = aheadOf(ratio, y, aheadLuma, dstHeight, ls);
      if (ratio == 3) {
        const uint8_t* s = srcLuma + 3 * y * ls;
        k.luma3(s, s + ls, s + 2 * ls, d, dstWidth, ahead);
      } else if (ratio == 2) {
        const uint8_t* s = srcLuma + 2 * y * ls;
        k.luma2(s, s + ls, d, dstWidth, ahead);
      } else {
        k.luma94(srcLuma + ((y >> 2) * 9 + kOff94[y & 3]) * ls, ls, y & 3, d, dstWidth, ahead);
      }
      // A small row as soon as both of its reduced rows exist.
      const int inBand = y - bandTop;
      if (small != nullptr && inBand >= 1 && inBand < 2 * smallHeight && (inBand & 1) != 0) {
        k.luma2(d - dstWidth, d, small + static_cast<ptrdiff_t>(inBand / 2) * cw, cw, 0);
      }
    }
    uint8_t* u = planeA + static_cast<ptrdiff_t>(cy) * cw;
    uint8_t* v = planeB + static_cast<ptrdiff_t>(cy) * cw;
    const ptrdiff_t ahead = aheadOf(ratio, cy, aheadChroma, ch, cs);
    if (ratio == 3) {
      const uint8_t* s = srcVU + 3 * cy * cs;
      k.chroma3(s, s + cs, s + 2 * cs, u, v, cw, ahead);
    } else if (ratio == 2) {
      const uint8_t* s = srcVU + 2 * cy * cs;
      k.chroma2(s, s + cs, u, v, cw, ahead);
    } else {
      const uint8_t* s = srcVU + ((cy >> 2) * 9 + kOff94[cy & 3]) * cs;
      k.chroma94(s, cs, cy & 3, u, v, cw, ahead);
    }
  }
  return 0;
}

}  // namespace android
