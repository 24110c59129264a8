#include "SharpnessMeasure.h"

#include <algorithm>
#include <cmath>

namespace kovane_replay {

double SharpnessMeasure::of(const Nv21Image& image) {
  if (image.width < 8 || image.height < 8 || image.data.size() < static_cast<size_t>(image.width) * image.height) {
    return 0.0;
  }
  return ofLuma(image.y(), image.width, image.height, image.width);
}

double SharpnessMeasure::ofLuma(const uint8_t* luma, int width, int height, int stride) {
  if (!luma || width < 8 || height < 8 || stride < width) return 0.0;
  const int x0 = std::max(1, width / 8), x1 = std::min(width - 1, width - width / 8);
  const int y0 = std::max(1, height / 8), y1 = std::min(height - 1, height - height / 8);
  double gradSum = 0.0;
  uint64_t lumaSum = 0, lumaSquares = 0;
  for (int y = y0; y < y1; ++y) {
    const uint8_t* up = luma + static_cast<size_t>(y - 1) * stride;
    const uint8_t* mid = up + stride;
    const uint8_t* down = mid + stride;
    double rowGrad = 0.0;
    for (int x = x0; x < x1; ++x) {
      const int gx = (up[x + 1] + 2 * mid[x + 1] + down[x + 1]) - (up[x - 1] + 2 * mid[x - 1] + down[x - 1]);
      const int gy = (down[x - 1] + 2 * down[x] + down[x + 1]) - (up[x - 1] + 2 * up[x] + up[x + 1]);
      // Each Sobel kernel sums 4 weighted differences across 2 pixels: /4 gives the same
      // scale as a plain central difference.
      rowGrad += std::sqrt(static_cast<double>(gx * gx + gy * gy)) / 4.0;
      lumaSum += mid[x];
      lumaSquares += static_cast<uint64_t>(mid[x]) * mid[x];
    }
    gradSum += rowGrad;
  }
  const double count = static_cast<double>(x1 - x0) * (y1 - y0);
  if (count <= 0) return 0.0;
  const double mean = lumaSum / count;
  const double deviation = std::sqrt(std::max(0.0, lumaSquares / count - mean * mean));
  return gradSum / count / std::max(kMinDeviation, deviation) * 100.0;
}

}  // namespace kovane_replay
