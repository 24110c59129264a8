#pragma once
// The sensor service's manager: the list of sensors, the default sensor of a type and event
// queues. One instance per process, created on first use.
#include <sys/types.h>

#include <utils/RefBase.h>

#include "Sensor.h"
#include "SensorEventQueue.h"

namespace android {

class SensorManager {
 public:
  static SensorManager& getInstance();

  // Sets *list to the array of sensors and returns their number.
  ssize_t getSensorList(Sensor const* const** list);
  // The default sensor of a type, or null when the device has none.
  Sensor const* getDefaultSensor(int type);
  sp<SensorEventQueue> createEventQueue();

 private:
  SensorManager() = default;
  SensorManager(const SensorManager&) = delete;
  SensorManager& operator=(const SensorManager&) = delete;
};

}  // namespace android
