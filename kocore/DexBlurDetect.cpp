// Two-scale blur measure with the sensor noise taken out.
//
// Fine-detail ratio. Along each direction the energy of the second difference (x-1, x, x+1)
// is compared with the energy of the central difference (x-1, x+1): the second difference
// weighs the finest detail of the picture, the central difference all of its edges. A blur
// of 1.5 pixels at the 640x360 analysis view (0.75 pixels at the 320x180 small image) leaves
// little of the former and much of the latter. The smaller of the two directions is taken, so
// that a motion streak in either direction shows.
//
// Noise. White noise of variance s^2 adds exactly 6 s^2 to the second-difference energy and
// 2 s^2 to the central-difference energy; both are subtracted, so that sensor noise does not
// pass as detail. s^2 is estimated from the picture itself: the 3x3 noise operator
// [1 -2 1; -2 4 -2; 1 -2 1] (variance 36 s^2 on white noise) averaged over 16x16 blocks; the
// tenth percentile of the block figures comes from the flattest blocks, where the picture
// contributes least, and is divided by the ratio of that percentile to the mean that pure
// Gaussian noise gives (0.83, measured on synthetic noise).
//
// Two scales. Pictures differ in how much fine detail they have (a group photo much more
// than a portrait), so the fine ratio alone would mistake a blurred detailed picture for a
// sharp plain one. The same ratio on a further 2x reduction tells what the picture holds at
// a coarser scale, which a small blur hardly touches: a sharp picture keeps at its finest
// scale about what the coarser one predicts, a blurred one much less. The score is
// fine * min(1, fine / coarse).
//
// Figures at 320x180 (score before mapping): sharp photographs 0.51-0.57 with or without
// noise of 4 grey levels added at 640x360; the same blurred at 640x360 by a Gaussian of 1.5
// pixels 0.065-0.082, by a 7-pixel motion streak 0.04-0.06, noisy or not; a soft picture that
// is not blurred (a 400x300 webcam picture scaled up to 640x480) 0.126 and more. The score maps
// linearly to the coefficient between kScoreBlurred and kScoreSharp, putting the engine's 0.17
// threshold at a score of about 0.105, between the two.
#include "DexBlurDetect.h"

#include <log/log.h>

#include <algorithm>
#include <vector>

namespace android {

namespace {

constexpr const char* kTag = "DexBlurDetect";

// Score to coefficient: linear between these two scores, clamped to [0, 1].
constexpr double kScoreBlurred = -0.009;
constexpr double kScoreSharp = 0.66;
// Below this mean squared neighbour difference (grey levels^2, noise discounted) the picture
// has no texture.
constexpr double kFlatEnergy = 1.0;
// Noise estimate: block size, percentile of the block figures, and the ratio of that
// percentile to the true variance for pure Gaussian noise.
constexpr int kNoiseBlock = 16;
constexpr double kNoisePercentile = 0.1;
constexpr double kNoisePercentileBias = 0.83;
// Variance of the rounding to integers that a 2x reduction adds.
constexpr double kRoundingVariance = 1.0 / 12.0;
// Smallest picture the measure accepts (both sides): the coarse scale needs a few pixels.
constexpr int kMinSide = 8;

// Mean energies of one scale: second and central differences per direction, and the mean
// squared neighbour difference of both directions.
struct Energies {
  double secondH = 0, centralH = 0, secondV = 0, centralV = 0, neighbour = 0;
};

template <typename T>
Energies energiesOf(const T* img, int w, int h, int stride) {
  Energies e;
  double s2h = 0, c1h = 0, s2v = 0, c1v = 0, nb = 0;
  for (int y = 1; y + 1 < h; ++y) {
    const T* up = img + static_cast<long>(y - 1) * stride;
    const T* r = up + stride;
    const T* dn = r + stride;
    int64_t rs2h = 0, rc1h = 0, rs2v = 0, rc1v = 0, rnb = 0;
    for (int x = 1; x + 1 < w; ++x) {
      const int b = r[x];
      const int sh = r[x - 1] - 2 * b + r[x + 1];
      const int ch = r[x + 1] - r[x - 1];
      const int sv = up[x] - 2 * b + dn[x];
      const int cv = dn[x] - up[x];
      const int nh = b - r[x - 1];
      const int nv = b - up[x];
      rs2h += sh * sh;
      rc1h += ch * ch;
      rs2v += sv * sv;
      rc1v += cv * cv;
      rnb += nh * nh + nv * nv;
    }
    s2h += static_cast<double>(rs2h);
    c1h += static_cast<double>(rc1h);
    s2v += static_cast<double>(rs2v);
    c1v += static_cast<double>(rc1v);
    nb += static_cast<double>(rnb);
  }
  const double n = static_cast<double>(w - 2) * (h - 2);
  e.secondH = s2h / n;
  e.centralH = c1h / n;
  e.secondV = s2v / n;
  e.centralV = c1v / n;
  e.neighbour = nb / (2.0 * n);
  return e;
}

// Noise variance of the picture (grey levels^2) from the flattest blocks.
double noiseVariance(const uint8_t* img, int w, int h, int stride) {
  const int b = std::max(1, std::min(kNoiseBlock, std::min(w, h) - 2));
  std::vector<double> blocks;
  blocks.reserve(static_cast<size_t>((w / b) * (h / b)));
  for (int by = 1; by + b < h; by += b) {
    for (int bx = 1; bx + b < w; bx += b) {
      int64_t sum = 0;
      for (int y = by; y < by + b; ++y) {
        const uint8_t* up = img + static_cast<long>(y - 1) * stride;
        const uint8_t* r = up + stride;
        const uint8_t* dn = r + stride;
        for (int x = bx; x < bx + b; ++x) {
          const int l = (up[x - 1] - 2 * up[x] + up[x + 1]) - 2 * (r[x - 1] - 2 * r[x] + r[x + 1]) +
                        (dn[x - 1] - 2 * dn[x] + dn[x + 1]);
          sum += l * l;
        }
      }
      blocks.push_back(static_cast<double>(sum) / (36.0 * b * b));
    }
  }
  if (blocks.empty()) return 0.0;
  const size_t k = static_cast<size_t>(kNoisePercentile * static_cast<double>(blocks.size()));
  std::nth_element(blocks.begin(), blocks.begin() + static_cast<long>(k), blocks.end());
  return blocks[k] / kNoisePercentileBias;
}

// Fine-detail ratio of one scale with noise of variance nv discounted (0 when nothing is left).
double detailRatio(const Energies& e, double nv) {
  auto ratio = [nv](double second, double central) {
    const double c = central - 2.0 * nv;
    if (c <= 0.0) return 0.0;
    return std::max(0.0, second - 6.0 * nv) / c;
  };
  return std::min(ratio(e.secondH, e.centralH), ratio(e.secondV, e.centralV));
}

// 2x2 average of a w x h picture into a (w / 2) x (h / 2) plane of 16-bit values.
void reduce2x(const uint8_t* img, int w, int h, int stride, int16_t* out) {
  const int ow = w / 2, oh = h / 2;
  for (int y = 0; y < oh; ++y) {
    const uint8_t* s0 = img + static_cast<long>(2 * y) * stride;
    const uint8_t* s1 = s0 + stride;
    int16_t* d = out + static_cast<long>(y) * ow;
    for (int x = 0; x < ow; ++x) {
      d[x] = static_cast<int16_t>((s0[2 * x] + s0[2 * x + 1] + s1[2 * x] + s1[2 * x + 1] + 2) >> 2);
    }
  }
}

}  // namespace

DexBlurDetect::DexBlurDetect(int width, int height, int stride)
    : mWidth(width), mHeight(height), mStride(stride) {}

DexBlurDetect::~DexBlurDetect() = default;

float DexBlurDetect::measure(const uint8_t* img, int w, int h, int stride, int16_t* scratch1,
                             int16_t* /*scratch2*/) {
  if (img == nullptr || scratch1 == nullptr || w < kMinSide || h < kMinSide || stride < w) {
    return -1.0f;
  }
  const double nv = noiseVariance(img, w, h, stride);
  const Energies fine = energiesOf(img, w, h, stride);
  if (fine.neighbour - 2.0 * nv < kFlatEnergy) return -1.0f;
  reduce2x(img, w, h, stride, scratch1);
  const Energies coarse = energiesOf(scratch1, w / 2, h / 2, w / 2);
  const double f = detailRatio(fine, nv);
  const double c = detailRatio(coarse, nv / 4.0 + kRoundingVariance);
  const double score = c > f ? f * f / c : f;
  const double coeff = (score - kScoreBlurred) / (kScoreSharp - kScoreBlurred);
  return static_cast<float>(std::min(1.0, std::max(0.0, coeff)));
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
  // The centre is measured at the scale of the small image (a 2x reduction of the view), where
  // the calibration above holds, so that coeff and subCoeff compare.
  const uint8_t* centre = analysisImage +
                          static_cast<long>((analysisHeight - ch) / 2) * analysisWidth +
                          (analysisWidth - cw) / 2;
  const int rw = cw / 2, rh = ch / 2;
  std::vector<uint8_t> reduced(static_cast<size_t>(rw) * rh);
  for (int y = 0; y < rh; ++y) {
    const uint8_t* s0 = centre + static_cast<long>(2 * y) * analysisWidth;
    const uint8_t* s1 = s0 + analysisWidth;
    for (int x = 0; x < rw; ++x) {
      reduced[static_cast<size_t>(y) * rw + x] = static_cast<uint8_t>(
          (s0[2 * x] + s0[2 * x + 1] + s1[2 * x] + s1[2 * x + 1] + 2) >> 2);
    }
  }
  if (static_cast<int64_t>(rw) * rh <= static_cast<int64_t>(width) * height) {
    subCoeff = measure(reduced.data(), rw, rh, rw, scratch1, scratch2);
  } else {
    std::vector<int16_t> s1(reduced.size()), s2(reduced.size());
    subCoeff = measure(reduced.data(), rw, rh, rw, s1.data(), s2.data());
  }
  return 0;
}

}  // namespace android
