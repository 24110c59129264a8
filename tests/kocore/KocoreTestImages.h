#pragma once
// Picture helpers of the analysis-library tests: the analysis views of the real test frames and
// simple degradations of them (Gaussian and linear motion blur, contrast change, translation).
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
  Plane p;
  const std::vector<uint8_t> f = kovane_test::readNv21(name, fw, fh);
  if (f.empty()) return p;
  p.w = fw / factor;
  p.h = fh / factor;
  p.px.resize(static_cast<size_t>(p.w) * p.h);
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

inline Plane half(const Plane& p) {
  Plane o;
  o.w = p.w / 2;
  o.h = p.h / 2;
  o.px.resize(static_cast<size_t>(o.w) * o.h);
  android::DexFrameMetaData::downScaleLuma2x(o.data(), p.data(), p.w, o.w, o.h);
  return o;
}

// An empty plane (and a test failure) when the rectangle does not lie inside `p`, as when its
// picture is missing.
inline Plane crop(const Plane& p, int x0, int y0, int w, int h) {
  Plane o;
  if (x0 < 0 || y0 < 0 || w <= 0 || h <= 0 || x0 + w > p.w || y0 + h > p.h) {
    ADD_FAILURE() << "crop " << w << "x" << h << " at " << x0 << "," << y0 << " outside a "
                  << p.w << "x" << p.h << " picture";
    return o;
  }
  o.w = w;
  o.h = h;
  o.px.resize(static_cast<size_t>(w) * h);
  for (int y = 0; y < h; ++y) {
    std::copy_n(&p.px[static_cast<size_t>(y0 + y) * p.w + x0], w, &o.px[static_cast<size_t>(y) * w]);
  }
  return o;
}

// Separable convolution with a 1-D kernel, borders replicated; horizontal only if !vertical.
inline Plane convolve(const Plane& p, const std::vector<double>& k, bool horizontal,
                      bool vertical) {
  const int r = static_cast<int>(k.size() / 2);
  std::vector<double> tmp(p.px.begin(), p.px.end());
  if (horizontal) {
    for (int y = 0; y < p.h; ++y) {
      for (int x = 0; x < p.w; ++x) {
        double a = 0;
        for (int i = -r; i <= r; ++i) a += k[i + r] * p.at(std::clamp(x + i, 0, p.w - 1), y);
        tmp[static_cast<size_t>(y) * p.w + x] = a;
      }
    }
  }
  Plane o = p;
  for (int y = 0; y < p.h; ++y) {
    for (int x = 0; x < p.w; ++x) {
      double a = tmp[static_cast<size_t>(y) * p.w + x];
      if (vertical) {
        a = 0;
        for (int i = -r; i <= r; ++i) {
          a += k[i + r] * tmp[static_cast<size_t>(std::clamp(y + i, 0, p.h - 1)) * p.w + x];
        }
      }
      o.px[static_cast<size_t>(y) * p.w + x] = static_cast<uint8_t>(std::lround(a));
    }
  }
  return o;
}

inline Plane gaussianBlur(const Plane& p, double sigma) {
  if (sigma <= 0) return p;
  const int r = static_cast<int>(std::ceil(3 * sigma));
  std::vector<double> k(2 * r + 1);
  double t = 0;
  for (int i = -r; i <= r; ++i) t += k[i + r] = std::exp(-i * i / (2 * sigma * sigma));
  for (double& v : k) v /= t;
  return convolve(p, k, true, true);
}

// Linear motion blur of `length` pixels along x (length odd).
inline Plane motionBlur(const Plane& p, int length) {
  return convolve(p, std::vector<double>(length, 1.0 / length), true, false);
}

inline Plane contrast(const Plane& p, double gain, double offset) {
  Plane o = p;
  for (uint8_t& v : o.px) v = static_cast<uint8_t>(std::clamp(std::lround(v * gain + offset), 0L, 255L));
  return o;
}

// Exposure steps (gain, offset) that the exposure-normalised kernels must see through.
struct ExposureStep {
  double gain;
  double offset;
};
constexpr ExposureStep kExposureSteps[] = {{0.8, 0}, {1.25, 0}, {1.0, 20}, {1.0, -25}, {0.8, 12}};

// Calls fn(view, stepped copy) for the analysis view of each of three real frames and each
// exposure step, with a trace naming both.
template <typename Fn>
void forEachExposureStep(Fn fn) {
  for (const char* name : {"cockatoo_f005_1280x720.nv21", "cockatoo_f100_1280x720.nv21",
                           "solvay_1920x1080.nv21"}) {
    const Plane view = analysisView(name);
    for (const ExposureStep& st : kExposureSteps) {
      SCOPED_TRACE(std::string(name) + " gain " + std::to_string(st.gain) + " offset " +
                   std::to_string(st.offset));
      fn(view, contrast(view, st.gain, st.offset));
    }
  }
}

// Additive Gaussian noise of `sigma` grey levels (sensor noise), rounded and clamped.
inline Plane noisy(const Plane& p, double sigma, unsigned seed) {
  std::mt19937 rng(seed);
  std::normal_distribution<double> noise(0.0, sigma);
  Plane o = p;
  for (uint8_t& v : o.px) v = static_cast<uint8_t>(std::clamp(std::lround(v + noise(rng)), 0L, 255L));
  return o;
}

// A grey PGM picture as a plane (the portraits serve as their own analysis view).
inline Plane pgmPlane(const std::string& name) {
  const kovane_test::GreyImage g = kovane_test::readPgm(name);
  Plane p;
  p.w = g.width;
  p.h = g.height;
  p.px = g.pixels;
  return p;
}

}  // namespace kocore_test
