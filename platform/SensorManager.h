#pragma once
// The sensor service's manager: the list of sensors, the default sensor of a type and event
// queues. One instance per process, created on first use.
#include <sys/types.h>

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <vector>

#include <utils/RefBase.h>

#include "Sensor.h"
#include "SensorEventQueue.h"

namespace android {

class SensorManager {
 public:
  static SensorManager& getInstance();

  // Sets *list to the array of sensors and returns their number. The array and the sensors
  // stay valid for the life of the process.
  ssize_t getSensorList(Sensor const* const** list);
  // The default sensor of a type, or null when the device has none.
  Sensor const* getDefaultSensor(int type);
  sp<SensorEventQueue> createEventQueue();

 private:
  friend class SensorEventQueue;
  friend class HostSensorFeed;

  SensorManager() = default;
  void addQueue(SensorEventQueue* queue);
  void removeQueue(SensorEventQueue* queue);

  std::mutex mLock;
  // Every sensor ever declared, one per type, never freed: callers keep the pointers.
  std::map<int32_t, std::unique_ptr<Sensor>> mAllSensors;
  // Sensor lists handed out; earlier ones are kept for callers still holding them.
  std::vector<std::unique_ptr<std::vector<Sensor const*>>> mLists;
  std::vector<Sensor const*>* mCurrent = nullptr;
  // The live event queues, which injected events are delivered to.
  std::set<SensorEventQueue*> mQueues;

  SensorManager(const SensorManager&) = delete;
  SensorManager& operator=(const SensorManager&) = delete;
};

}  // namespace android
