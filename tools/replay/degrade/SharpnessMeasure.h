#pragma once
// The replay's own sharpness of a picture, for its sharpest-frame pick and its ground truth.
//
// The mean Sobel gradient magnitude of the luma over the central three quarters of the
// picture (each way), as a percentage of the standard deviation of the luma over that region.
//
// Dividing by the deviation cancels a gain step: a gain scales every gradient and the
// deviation alike. What the gain clips at 255 loses gradients, but it loses deviation too,
// so the value moves far less than it would divided by the mean luma (on the test pictures a
// 1.8 gain changes it by under 20 %, divided by the mean by up to 33 %), while a blur lowers
// it nearly as much as it lowers the plain gradient: blurring takes little of the deviation.
// The central region keeps letterbox bars and the picture's edges out.
//
// Noise raises it: its gradients count as detail, as they do for any gradient measure.
#include <cstdint>

#include "ReplayTypes.h"

namespace kovane_replay {

class SharpnessMeasure {
 public:
  // A deviation below this is taken as this, so that a nearly flat frame does not read as sharp.
  static constexpr double kMinDeviation = 2.0;

  // 0 for a picture smaller than 8x8 or whose data is too short for its luma.
  static double of(const Nv21Image& image);
  // The same on a bare luma plane.
  static double ofLuma(const uint8_t* luma, int width, int height, int stride);
};

}  // namespace kovane_replay
