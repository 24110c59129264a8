#pragma once
// Picture helpers of the analysis-library tests: the analysis views of the real test frames, crops
// and reductions of them, and simple degradations (Gaussian and motion blur, contrast, noise).
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "DexFrameMetaData.h"
#include "TestData.h"

namespace kocore_test {

struct Plane {
  int w = 0;
  int h = 0;
  std::vector<uint8_t> px;  // row stride w
  const uint8_t* data() const { return px.data(); }
  uint8_t* data() { return px.data(); }
  uint8_t at(int x, int y) const { return px[static_cast<size_t>(y) * w + x]; }
};

// Luma of a stored frame reduced by `factor` (2 or 3) with the library's own reducers.
inline Plane reducedLuma(const std::string& name, int fw, int fh, int factor) {
  const std::vector<uint8_t> f = kovane_test::readNv21(name, fw, fh);
  if (f.empty()) return Plane();
  Plane p{fw / factor, fh / factor, std::vector<uint8_t>(static_cast<size_t>(fw / factor) * (fh / factor))};
  if (factor == 2) {
    android::DexFrameMetaData::downScaleLuma2x(p.data(), f.data(), fw, p.w, p.h);
  } else {
    android::DexFrameMetaData::downScaleLuma3x(p.data(), f.data(), fw, p.w, p.h);
  }
  return p;
}

// The 640x360 analysis view of a 1280x720 cockatoo frame or of the 1920x1080 group photo.
inline Plane analysisView(const std::string& name) {
  if (name.rfind("solvay", 0) == 0) return reducedLuma(name, 1920, 1080, 3);
  return reducedLuma(name, 1280, 720, 2);
}

// A w x h crop at (x0, y0) of a stored NV21 frame, luma and V,U rows `stride` = w + pad apart
// (the padding 0x5A); empty when the frame is missing.
struct Nv21Crop {
  std::vector<uint8_t> luma, vu;
  int w = 0, h = 0, stride = 0;
  Plane lumaPlane() const { return Plane{w, h, luma}; }  // only for pad 0
};
inline Nv21Crop nv21Crop(const std::string& file, int fileW, int fileH, int x0, int y0, int w, int h,
                         int pad = 0) {
  Nv21Crop s;
  const std::vector<uint8_t> f = kovane_test::readNv21(file, fileW, fileH);
  if (f.empty()) return s;
  s.w = w, s.h = h, s.stride = w + pad;
  s.luma.assign(static_cast<size_t>(s.stride) * h, 0x5A);
  s.vu.assign(static_cast<size_t>(s.stride) * (h / 2), 0x5A);
  for (int y = 0; y < h; ++y) {
    std::copy_n(&f[static_cast<size_t>(y0 + y) * fileW + x0], w, &s.luma[static_cast<size_t>(y) * s.stride]);
  }
  const uint8_t* vu = &f[static_cast<size_t>(fileW) * fileH];
  for (int y = 0; y < h / 2; ++y) {
    std::copy_n(vu + static_cast<size_t>(y0 / 2 + y) * fileW + x0, w, &s.vu[static_cast<size_t>(y) * s.stride]);
  }
  return s;
}

// The crop reduced to dw x dh by the separate fixed-ratio reducers (3x, 2x or 9:4, by the width
// ratio; the luma reducers get an unpadded copy) as packed planar 4:2:0: luma, the plane of the
// U samples, the plane of the V samples. Empty on a reducer error.
inline std::vector<uint8_t> separateReduce(const Nv21Crop& s, int dw, int dh) {
  using android::DexFrameMetaData;
  std::vector<uint8_t> luma(static_cast<size_t>(s.w) * s.h);
  for (size_t y = 0; y < static_cast<size_t>(s.h); ++y) std::copy_n(&s.luma[y * s.stride], s.w, &luma[y * s.w]);
  std::vector<uint8_t> out(static_cast<size_t>(dw) * dh * 3 / 2);
  uint8_t* u = out.data() + dw * dh;
  uint8_t* v = u + dw / 2 * (dh / 2);
  int err;
  if (s.w == 3 * dw) {
    err = DexFrameMetaData::downScaleLuma3x(out.data(), luma.data(), s.w, dw, dh) |
          DexFrameMetaData::decimateChroma3x(u, v, s.vu.data(), s.stride, dw / 2, dh / 2, 1);
  } else if (s.w == 2 * dw) {
    err = DexFrameMetaData::downScaleLuma2x(out.data(), luma.data(), s.w, dw, dh) |
          DexFrameMetaData::decimateChroma2x(u, v, s.vu.data(), s.stride, dw / 2, dh / 2, 1);
  } else {
    err = DexFrameMetaData::downscaleLuma9to4(out.data(), luma.data(), dw, dh, s.w) |
          DexFrameMetaData::downscaleChroma9to4(u, v, s.vu.data(), dw / 2, dh / 2, s.stride);
  }
  if (err != 0) out.clear();
  return out;
}

inline Plane half(const Plane& p) {
  Plane o{p.w / 2, p.h / 2, std::vector<uint8_t>(static_cast<size_t>(p.w / 2) * (p.h / 2))};
  android::DexFrameMetaData::downScaleLuma2x(o.data(), p.data(), p.w, o.w, o.h);
  return o;
}

// An empty plane (and a test failure) when the rectangle does not lie inside `p`, as when its
// picture is missing.
inline Plane crop(const Plane& p, int x0, int y0, int w, int h) {
  if (x0 < 0 || y0 < 0 || w <= 0 || h <= 0 || x0 + w > p.w || y0 + h > p.h) {
    ADD_FAILURE() << "crop " << w << "x" << h << " at " << x0 << "," << y0 << " outside a "
                  << p.w << "x" << p.h << " picture";
    return Plane();
  }
  Plane o{w, h, std::vector<uint8_t>(static_cast<size_t>(w) * h)};
  for (int y = 0; y < h; ++y) {
    std::copy_n(&p.px[static_cast<size_t>(y0 + y) * p.w + x0], w, &o.px[static_cast<size_t>(y) * w]);
  }
  return o;
}

// Separable convolution with a 1-D kernel, borders replicated: along rows, and along columns
// too if `vertical`; rounded once at the end.
inline Plane convolve(const Plane& p, const std::vector<double>& k, bool vertical) {
  const int r = static_cast<int>(k.size() / 2);
  std::vector<double> a(p.px.begin(), p.px.end()), b(a.size());
  auto pass = [&](int dx, int dy) {
    for (int y = 0; y < p.h; ++y) {
      for (int x = 0; x < p.w; ++x) {
        double s = 0;
        for (int i = -r; i <= r; ++i) {
          s += k[i + r] * a[static_cast<size_t>(std::clamp(y + i * dy, 0, p.h - 1)) * p.w +
                            std::clamp(x + i * dx, 0, p.w - 1)];
        }
        b[static_cast<size_t>(y) * p.w + x] = s;
      }
    }
    a.swap(b);
  };
  pass(1, 0);
  if (vertical) pass(0, 1);
  Plane o = p;
  for (size_t i = 0; i < a.size(); ++i) o.px[i] = static_cast<uint8_t>(std::lround(a[i]));
  return o;
}

inline Plane gaussianBlur(const Plane& p, double sigma) {
  if (sigma <= 0) return p;
  const int r = static_cast<int>(std::ceil(3 * sigma));
  std::vector<double> k(2 * r + 1);
  double t = 0;
  for (int i = -r; i <= r; ++i) t += k[i + r] = std::exp(-i * i / (2 * sigma * sigma));
  for (double& v : k) v /= t;
  return convolve(p, k, true);
}

// Linear motion blur of `length` pixels along x (length odd).
inline Plane motionBlur(const Plane& p, int length) {
  return convolve(p, std::vector<double>(length, 1.0 / length), false);
}

inline Plane contrast(const Plane& p, double gain, double offset) {
  Plane o = p;
  for (uint8_t& v : o.px) v = static_cast<uint8_t>(std::clamp(std::lround(v * gain + offset), 0L, 255L));
  return o;
}

// Additive Gaussian noise of `sigma` grey levels (sensor noise), rounded and clamped.
inline Plane noisy(const Plane& p, double sigma, unsigned seed) {
  std::mt19937 rng(seed);
  std::normal_distribution<double> noise(0.0, sigma);
  Plane o = p;
  for (uint8_t& v : o.px) v = static_cast<uint8_t>(std::clamp(std::lround(v + noise(rng)), 0L, 255L));
  return o;
}

}  // namespace kocore_test
