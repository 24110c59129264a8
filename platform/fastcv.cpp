#define LOG_TAG "fastcv"
#include "fastcv.h"

#include <algorithm>
#include <cstdlib>
#include <vector>

#include <libyuv/planar_functions.h>
#include <libyuv/scale.h>
#include <log/log.h>

namespace {

// A stride of 0 means rows are packed (the row length in bytes).
bool checkScaleArgs(const char* fn, const uint8_t* src, unsigned int srcWidth,
                    unsigned int srcHeight, unsigned int* srcStride, const uint8_t* dst,
                    unsigned int dstWidth, unsigned int dstHeight, unsigned int* dstStride,
                    unsigned int bytesPerPixel) {
  if (src == nullptr || dst == nullptr) {
    ALOGE("%s: null image (src %p, dst %p)", fn, src, dst);
    return false;
  }
  if (srcWidth == 0 || srcHeight == 0 || dstWidth == 0 || dstHeight == 0) {
    ALOGE("%s: empty image (%ux%u to %ux%u)", fn, srcWidth, srcHeight, dstWidth, dstHeight);
    return false;
  }
  if (dstWidth > srcWidth || dstHeight > srcHeight) {
    ALOGE("%s: target %ux%u larger than source %ux%u", fn, dstWidth, dstHeight, srcWidth,
          srcHeight);
    return false;
  }
  // libyuv takes int sizes and strides.
  const unsigned int kMax = 1u << 28;
  if (srcWidth > kMax / bytesPerPixel || srcHeight > kMax || *srcStride > kMax ||
      *dstStride > kMax) {
    ALOGE("%s: image too large", fn);
    return false;
  }
  if (*srcStride == 0) *srcStride = srcWidth * bytesPerPixel;
  if (*dstStride == 0) *dstStride = dstWidth * bytesPerPixel;
  if (*srcStride < srcWidth * bytesPerPixel || *dstStride < dstWidth * bytesPerPixel) {
    ALOGE("%s: stride shorter than a row (src %u for %u, dst %u for %u)", fn, *srcStride,
          srcWidth * bytesPerPixel, *dstStride, dstWidth * bytesPerPixel);
    return false;
  }
  return true;
}

// Area-averaging reducer for any M:N ratio: every target pixel is the mean of the source area
// it covers, partly covered source pixels counting by the covered fraction, rounded to
// nearest. Source pixel i spans [i*dw, (i+1)*dw) and target pixel x spans [x*sw, (x+1)*sw) in
// the same integer units, so the overlaps are exact integers and the weights of one target
// pixel add up to sw (horizontally) and sh (vertically).
struct Taps {
  std::vector<int> first;       // first source index of each target index
  std::vector<int> count;       // number of source samples
  std::vector<uint32_t> weight; // count[x] weights per target index, in order
  std::vector<size_t> start;    // where the weights of each target index begin
};

Taps makeTaps(int srcLen, int dstLen) {
  Taps t;
  t.first.resize(dstLen);
  t.count.resize(dstLen);
  t.start.resize(dstLen);
  for (int x = 0; x < dstLen; ++x) {
    const int64_t lo = static_cast<int64_t>(x) * srcLen;
    const int64_t hi = lo + srcLen;
    const int first = static_cast<int>(lo / dstLen);
    const int last = static_cast<int>((hi - 1) / dstLen);
    t.first[x] = first;
    t.count[x] = last - first + 1;
    t.start[x] = t.weight.size();
    for (int i = first; i <= last; ++i) {
      const int64_t a = std::max<int64_t>(lo, static_cast<int64_t>(i) * dstLen);
      const int64_t b = std::min<int64_t>(hi, static_cast<int64_t>(i + 1) * dstLen);
      t.weight.push_back(static_cast<uint32_t>(b - a));
    }
  }
  return t;
}

// The area average of `channels` interleaved channels. Each target row first sums its source
// rows, weighted, into column sums over the whole row of bytes (a plain loop over contiguous
// bytes that the compiler vectorises), then weighs the column sums of each target pixel: the
// horizontal taps run once per target row instead of once per source row. Every product is an
// exact integer, so the order of the sums does not change a result. Column sums are at most
// 255 * sh; `Col` is 32 bits wide whenever that fits.
// Not instrumented for undefined behaviour: the arithmetic is unsigned and the pointers stay
// inside buffers whose bounds the address sanitizer still checks; the per-byte checks kept the
// loops scalar, which made this routine the largest cost of the sanitized and fuzzing builds.
template <typename Col>
__attribute__((no_sanitize("undefined"))) void areaReduceRows(
    const uint8_t* src, int sw, int sh, size_t srcStride, uint8_t* dst, int dw, int dh,
    size_t dstStride, int channels) {
  const Taps cols = makeTaps(sw, dw);
  const Taps rows = makeTaps(sh, dh);
  const uint64_t denom = static_cast<uint64_t>(sw) * static_cast<uint64_t>(sh);
  const size_t rowBytes = static_cast<size_t>(sw) * channels;
  // Plain pointers into the tap tables: the inner loops run once per sample, and checked
  // container indexing there (the sanitizer builds turn it on) cost more than the sums.
  const int* colFirst = cols.first.data();
  const int* colCount = cols.count.data();
  const size_t* colStart = cols.start.data();
  const uint32_t* colWeight = cols.weight.data();
  std::vector<Col> colSums(rowBytes);
  Col* acc = colSums.data();
  for (int y = 0; y < dh; ++y) {
    for (int k = 0; k < rows.count[y]; ++k) {
      const uint8_t* s = src + static_cast<size_t>(rows.first[y] + k) * srcStride;
      const Col wy = rows.weight[rows.start[y] + k];
      Col* a = acc;
      const uint8_t* const end = s + rowBytes;
      if (k == 0) {
        for (; s != end; ++s, ++a) *a = wy * *s;
      } else {
        for (; s != end; ++s, ++a) *a += wy * *s;
      }
    }
    uint8_t* d = dst + static_cast<size_t>(y) * dstStride;
    for (int x = 0; x < dw; ++x) {
      const uint32_t* const w = colWeight + colStart[x];
      const uint32_t* const wEnd = w + colCount[x];
      for (int ch = 0; ch < channels; ++ch) {
        const Col* c = acc + static_cast<size_t>(colFirst[x]) * channels + ch;
        uint64_t sum = 0;
        for (const uint32_t* t = w; t != wEnd; ++t, c += channels) sum += uint64_t{*t} * *c;
        *d++ = static_cast<uint8_t>((sum + denom / 2) / denom);
      }
    }
  }
}

void areaReduce(const uint8_t* src, int sw, int sh, size_t srcStride, uint8_t* dst, int dw,
                int dh, size_t dstStride, int channels) {
  if (static_cast<uint64_t>(sh) * 255 <= UINT32_MAX) {
    areaReduceRows<uint32_t>(src, sw, sh, srcStride, dst, dw, dh, dstStride, channels);
  } else {
    areaReduceRows<uint64_t>(src, sw, sh, srcStride, dst, dw, dh, dstStride, channels);
  }
}

// libyuv's box filter is an exact rounded area average only for these ratios; for others it
// uses whole-pixel boxes or switches to bilinear filtering.
bool libyuvIsExact(int sw, int sh, int dw, int dh) {
  return (sw == dw && sh == dh) || (sw == 2 * dw && sh == 2 * dh) || (sw == 4 * dw && sh == 4 * dh);
}

}  // namespace

extern "C" {

void* fcvMemAlloc(unsigned int bytes, unsigned int alignment) {
  if (bytes == 0) return nullptr;
  size_t align = alignment < 16 ? 16 : alignment;
  if ((align & (align - 1)) != 0) {
    ALOGE("fcvMemAlloc: alignment %u is not a power of two", alignment);
    return nullptr;
  }
  void* p = nullptr;
  if (posix_memalign(&p, align, bytes) != 0) return nullptr;
  return p;
}

void fcvMemFree(void* ptr) { free(ptr); }

void fcvScaleDownMNu8(const uint8_t* src, unsigned int srcWidth, unsigned int srcHeight,
                      unsigned int srcStride, uint8_t* dst, unsigned int dstWidth,
                      unsigned int dstHeight, unsigned int dstStride) {
  if (!checkScaleArgs("fcvScaleDownMNu8", src, srcWidth, srcHeight, &srcStride, dst, dstWidth,
                      dstHeight, &dstStride, 1)) {
    return;
  }
  const int sw = static_cast<int>(srcWidth), sh = static_cast<int>(srcHeight);
  const int dw = static_cast<int>(dstWidth), dh = static_cast<int>(dstHeight);
  if (libyuvIsExact(sw, sh, dw, dh)) {
    libyuv::ScalePlane(src, static_cast<int>(srcStride), sw, sh, dst, static_cast<int>(dstStride),
                       dw, dh, libyuv::kFilterBox);
  } else {
    areaReduce(src, sw, sh, srcStride, dst, dw, dh, dstStride, 1);
  }
}

void fcvScaleDownMNInterleaveu8(const uint8_t* src, unsigned int srcWidth, unsigned int srcHeight,
                                unsigned int srcStride, uint8_t* dst, unsigned int dstWidth,
                                unsigned int dstHeight, unsigned int dstStride) {
  if (!checkScaleArgs("fcvScaleDownMNInterleaveu8", src, srcWidth, srcHeight, &srcStride, dst,
                      dstWidth, dstHeight, &dstStride, 2)) {
    return;
  }
  const int sw = static_cast<int>(srcWidth), sh = static_cast<int>(srcHeight);
  const int dw = static_cast<int>(dstWidth), dh = static_cast<int>(dstHeight);
  if (!libyuvIsExact(sw, sh, dw, dh)) {
    areaReduce(src, sw, sh, srcStride, dst, dw, dh, dstStride, 2);
    return;
  }
  // Each channel is reduced as a plane of its own, then the pairs are put back together.
  const size_t srcPlane = static_cast<size_t>(sw) * sh;
  const size_t dstPlane = static_cast<size_t>(dw) * dh;
  std::vector<uint8_t> work(2 * srcPlane + 2 * dstPlane);
  uint8_t* srcA = work.data();
  uint8_t* srcB = srcA + srcPlane;
  uint8_t* dstA = srcB + srcPlane;
  uint8_t* dstB = dstA + dstPlane;
  libyuv::SplitUVPlane(src, static_cast<int>(srcStride), srcA, sw, srcB, sw, sw, sh);
  libyuv::ScalePlane(srcA, sw, sw, sh, dstA, dw, dw, dh, libyuv::kFilterBox);
  libyuv::ScalePlane(srcB, sw, sw, sh, dstB, dw, dw, dh, libyuv::kFilterBox);
  libyuv::MergeUVPlane(dstA, dw, dstB, dw, dst, static_cast<int>(dstStride), dw, dh);
}

}  // extern "C"
