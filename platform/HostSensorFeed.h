#pragma once
// Host-only control of the sensor service: which sensors the "device" has and which events
// arrive. Tests and tools use it; the engine never does. With no sensors set the host has
// none; with nothing injected every queue reads 0 events.
#include <cstdint>
#include <vector>

#include "Sensor.h"

namespace android {

class HostSensorFeed {
 public:
  // Declares the sensors present (ASENSOR_TYPE_... values); replaces the previous set.
  static void setSensors(const std::vector<int32_t>& types);
  // Delivers an event to every live queue on which a sensor of event.type is enabled.
  static void inject(const ASensorEvent& event);
  // Convenience: an event of a type with a time stamp (ns) and three values.
  static void inject(int32_t type, int64_t timestampNs, float x, float y, float z);
  // Removes all sensors and drops queued events.
  static void reset();
};

}  // namespace android
