#include "HostSensorFeed.h"

#include <cstring>

#include "SensorManager.h"

namespace android {

namespace {
const char* sensorName(int32_t type) {
  switch (type) {
    case ASENSOR_TYPE_ACCELEROMETER: return "Host Accelerometer";
    case ASENSOR_TYPE_MAGNETIC_FIELD: return "Host Magnetic Field";
    case ASENSOR_TYPE_ORIENTATION: return "Host Orientation";
    case ASENSOR_TYPE_GYROSCOPE: return "Host Gyroscope";
    default: return "Host Sensor";
  }
}
}  // namespace

void HostSensorFeed::setSensors(const std::vector<int32_t>& types) {
  SensorManager& sm = SensorManager::getInstance();
  std::lock_guard<std::mutex> lock(sm.mLock);
  auto list = std::make_unique<std::vector<Sensor const*>>();
  for (int32_t type : types) {
    std::unique_ptr<Sensor>& sensor = sm.mAllSensors[type];
    // The handle is the type: one sensor per type on the host.
    if (!sensor) sensor = std::make_unique<Sensor>(type, type, sensorName(type));
    bool seen = false;
    for (Sensor const* s : *list) seen = seen || s->getType() == type;
    if (!seen) list->push_back(sensor.get());
  }
  sm.mCurrent = list.get();
  sm.mLists.push_back(std::move(list));
}

void HostSensorFeed::inject(const ASensorEvent& event) {
  SensorManager& sm = SensorManager::getInstance();
  // Queues are removed under this lock before they die, so every one here is alive.
  std::lock_guard<std::mutex> lock(sm.mLock);
  for (SensorEventQueue* queue : sm.mQueues) queue->deliver(event);
}

void HostSensorFeed::inject(int32_t type, int64_t timestampNs, float x, float y, float z) {
  ASensorEvent event;
  memset(&event, 0, sizeof(event));
  event.version = sizeof(ASensorEvent);
  event.sensor = type;
  event.type = type;
  event.timestamp = timestampNs;
  event.data[0] = x;
  event.data[1] = y;
  event.data[2] = z;
  inject(event);
}

void HostSensorFeed::reset() {
  SensorManager& sm = SensorManager::getInstance();
  std::lock_guard<std::mutex> lock(sm.mLock);
  sm.mCurrent = nullptr;
  for (SensorEventQueue* queue : sm.mQueues) {
    std::lock_guard<std::mutex> queueLock(queue->mLock);
    queue->mEvents.clear();
  }
}

}  // namespace android
