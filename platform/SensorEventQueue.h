#pragma once
// A queue of sensor events for the sensors enabled on it. read() never blocks.
#include <sys/types.h>

#include <deque>
#include <mutex>
#include <set>

#include <utils/Errors.h>
#include <utils/RefBase.h>
#include <utils/Timers.h>

#include "Sensor.h"

namespace android {

class SensorEventQueue : public RefBase {
 public:
  status_t enableSensor(Sensor const* sensor) const;
  status_t setEventRate(Sensor const* sensor, nsecs_t ns) const;
  status_t disableSensor(Sensor const* sensor) const;
  // Moves up to numEvents queued events into events; returns how many (0 when none).
  ssize_t read(ASensorEvent* events, size_t numEvents);

 protected:
  virtual ~SensorEventQueue();

 private:
  friend class SensorManager;
  friend class HostSensorFeed;
  SensorEventQueue();
  void deliver(const ASensorEvent& event);

  mutable std::mutex mLock;
  mutable std::set<int32_t> mEnabledTypes;
  std::deque<ASensorEvent> mEvents;
};

}  // namespace android
