#pragma once
// One step of camera movement between two frames as the camera-motion kernels record it: the
// coarse translation in x and y and the roll, each quantised to a signed byte, and the motion
// class of the step. Four bytes, kept in per-capture lists that only the analysis library
// fills and reads.
#include <cstdint>

namespace android {

struct dexMotionCamMove_t {
  int8_t dx;      // horizontal movement, quantised
  int8_t dy;      // vertical movement, quantised
  int8_t roll;    // rotation about the optical axis, quantised
  uint8_t mode;   // motion class of the step
};

static_assert(sizeof(dexMotionCamMove_t) == 4, "dexMotionCamMove_t is 4 bytes");

}  // namespace android
