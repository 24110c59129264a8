#pragma once
// One motion-sensor sample as a frame carries it: the event's time stamp and its first three
// values.
#include <cstdint>

namespace android {

struct KoSensorSample {
  int64_t mTimestamp;
  float mX;
  float mY;
  float mZ;
};

}  // namespace android
