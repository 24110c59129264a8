// Re-blur blur measure. For every pair of neighbouring pixels, horizontally and vertically, the
// squared difference of the picture is compared with the squared difference of a copy blurred
// by a 3-tap box along the same direction. The share of gradient energy that the extra blur
// removes, sum(max(0, d^2 - dBlur^2)) / sum(d^2), is near 0.7 for sharp photographs at 320x180
// and falls towards 0.1 as soon as the picture is blurred by 1.5 pixels; the smaller of the two
// directions is taken so that a motion streak in either direction shows. Squared differences
// keep the one-level steps of 8-bit quantisation in smooth areas from passing as detail.
#include "DexBlurDetect.h"

#include <log/log.h>

#include <algorithm>
#include <vector>

namespace android {

namespace {

constexpr const char* kTag = "DexBlurDetect";

// Ratio to coefficient: linear between these two raw ratios, clamped to [0, 1].
constexpr double kRatioBlurred = 0.20;
constexpr double kRatioSharp = 0.80;
// Below this mean squared neighbour difference (grey levels^2) the picture has no texture.
constexpr double kFlatEnergy = 1.0;

}  // namespace

DexBlurDetect::DexBlurDetect(int width, int height, int stride)
    : mWidth(width), mHeight(height), mStride(stride) {}

DexBlurDetect::~DexBlurDetect() = default;

float DexBlurDetect::measure(const uint8_t* img, int w, int h, int stride, int16_t* bh,
                             int16_t* bv) {
  // 3-tap box sums along each direction, borders replicated.
  for (int y = 0; y < h; ++y) {
    const uint8_t* r = img + static_cast<long>(y) * stride;
    const uint8_t* up = img + static_cast<long>(std::max(y - 1, 0)) * stride;
    const uint8_t* dn = img + static_cast<long>(std::min(y + 1, h - 1)) * stride;
    int16_t* oh = bh + static_cast<long>(y) * w;
    int16_t* ov = bv + static_cast<long>(y) * w;
    for (int x = 0; x < w; ++x) {
      const int xl = x > 0 ? x - 1 : 0;
      const int xr = x + 1 < w ? x + 1 : w - 1;
      oh[x] = static_cast<int16_t>(r[xl] + r[x] + r[xr]);
      ov[x] = static_cast<int16_t>(up[x] + r[x] + dn[x]);
    }
  }
  // Differences of the box sums are 3x those of the blurred picture: compare 9 d^2 with them.
  int64_t fullH = 0, keptH = 0, fullV = 0, keptV = 0;
  for (int y = 1; y < h; ++y) {
    const uint8_t* r = img + static_cast<long>(y) * stride;
    const uint8_t* up = r - stride;
    const int16_t* oh = bh + static_cast<long>(y) * w;
    const int16_t* ov = bv + static_cast<long>(y) * w;
    const int16_t* ovUp = ov - w;
    int64_t rowFullH = 0, rowKeptH = 0, rowFullV = 0, rowKeptV = 0;
    for (int x = 1; x < w; ++x) {
      const int dh = r[x] - r[x - 1];
      const int dbh = oh[x] - oh[x - 1];
      const int eh = 9 * dh * dh;
      rowFullH += eh;
      rowKeptH += std::max(0, eh - dbh * dbh);
      const int dv = r[x] - up[x];
      const int dbv = ov[x] - ovUp[x];
      const int ev = 9 * dv * dv;
      rowFullV += ev;
      rowKeptV += std::max(0, ev - dbv * dbv);
    }
    fullH += rowFullH;
    keptH += rowKeptH;
    fullV += rowFullV;
    keptV += rowKeptV;
  }
  const double pairs = static_cast<double>(w - 1) * (h - 1);
  const double energy = static_cast<double>(fullH + fullV) / (9.0 * 2.0 * pairs);
  if (pairs <= 0 || energy < kFlatEnergy || fullH == 0 || fullV == 0) return -1.0f;
  const double ratio = std::min(static_cast<double>(keptH) / static_cast<double>(fullH),
                                static_cast<double>(keptV) / static_cast<double>(fullV));
  const double c = (ratio - kRatioBlurred) / (kRatioSharp - kRatioBlurred);
  return static_cast<float>(std::min(1.0, std::max(0.0, c)));
}

int DexBlurDetect::calcBlurMeasure(unsigned char* image, int width, int height, int stride,
                                   float& coeff, short* scratch1, short* scratch2,
                                   unsigned char* analysisImage, int analysisWidth,
                                   float& subCoeff) {
  if (image == nullptr || scratch1 == nullptr || scratch2 == nullptr) {
    __android_log_print(ANDROID_LOG_ERROR, kTag, "%s: null pointer argument", __func__);
    return -1;
  }
  if (width < 3 || height < 3 || stride < width) {
    __android_log_print(ANDROID_LOG_ERROR, kTag, "%s: invalid size %dx%d stride %d (expected %dx%d)",
                        __func__, width, height, stride, mWidth, mHeight);
    return -1;
  }
  (void)mStride;
  coeff = measure(image, width, height, stride, scratch1, scratch2);
  if (analysisImage == nullptr) return 0;
  if (analysisWidth < 6) {
    __android_log_print(ANDROID_LOG_ERROR, kTag, "%s: invalid analysis width %d", __func__,
                        analysisWidth);
    return -1;
  }
  const int analysisHeight =
      static_cast<int>(static_cast<int64_t>(analysisWidth) * height / width);
  const int cw = analysisWidth / 2, ch = analysisHeight / 2;
  if (ch < 3) {
    __android_log_print(ANDROID_LOG_ERROR, kTag, "%s: analysis view too small", __func__);
    return -1;
  }
  const uint8_t* centre = analysisImage +
                          static_cast<long>((analysisHeight - ch) / 2) * analysisWidth +
                          (analysisWidth - cw) / 2;
  if (static_cast<int64_t>(cw) * ch <= static_cast<int64_t>(width) * height) {
    subCoeff = measure(centre, cw, ch, analysisWidth, scratch1, scratch2);
  } else {
    std::vector<int16_t> s1(static_cast<size_t>(cw) * ch), s2(s1.size());
    subCoeff = measure(centre, cw, ch, analysisWidth, s1.data(), s2.data());
  }
  return 0;
}

}  // namespace android
