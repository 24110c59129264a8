#pragma once
// The area-average reference of the pixel-routine tests, shared with the frame-data tests.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <vector>

namespace platform_test {

// Area average of one channel: each target pixel is the mean of the source area it covers,
// partly covered pixels weighted by the covered fraction. `step` is the distance between
// samples of the channel (1 for a plane, 2 for one channel of interleaved pairs).
inline std::vector<double> areaReference(const uint8_t* src, int sw, int sh, int stride, int step, int dw, int dh) {
  std::vector<double> out(static_cast<size_t>(dw) * dh);
  for (int y = 0; y < dh; ++y) {
    const double y0 = double(y) * sh / dh, y1 = double(y + 1) * sh / dh;
    for (int x = 0; x < dw; ++x) {
      const double x0 = double(x) * sw / dw, x1 = double(x + 1) * sw / dw;
      double sum = 0, weight = 0;
      for (int j = int(y0); j < int(std::ceil(y1)); ++j) {
        const double wy = std::min(y1, j + 1.0) - std::max(y0, double(j));
        for (int i = int(x0); i < int(std::ceil(x1)); ++i) {
          const double wx = std::min(x1, i + 1.0) - std::max(x0, double(i));
          sum += src[static_cast<size_t>(j) * stride + static_cast<size_t>(i) * step] * wx * wy;
          weight += wx * wy;
        }
      }
      out[static_cast<size_t>(y) * dw + x] = sum / weight;
    }
  }
  return out;
}

// Largest and mean difference between a reduced channel (rows `stride` bytes apart, samples
// `step` apart) and its reference.
struct Diff {
  double maxAbs = 0, meanAbs = 0;
};
inline Diff diffTo(const uint8_t* got, int stride, int step, const std::vector<double>& ref, int dw, int dh) {
  Diff d;
  for (int y = 0; y < dh; ++y) {
    for (int x = 0; x < dw; ++x) {
      const double e = std::fabs(got[static_cast<size_t>(y) * stride + static_cast<size_t>(x) * step] -
                                 ref[static_cast<size_t>(y) * dw + x]);
      d.maxAbs = std::max(d.maxAbs, e);
      d.meanAbs += e;
    }
  }
  d.meanAbs /= static_cast<double>(ref.size());
  return d;
}

}  // namespace platform_test
