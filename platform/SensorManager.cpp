#include "SensorManager.h"

namespace android {

SensorManager& SensorManager::getInstance() {
  // Never destroyed, so that queues released during process exit can still unregister.
  static SensorManager* instance = new SensorManager();
  return *instance;
}

ssize_t SensorManager::getSensorList(Sensor const* const** list) {
  std::lock_guard<std::mutex> lock(mLock);
  if (mCurrent == nullptr || mCurrent->empty()) {
    if (list != nullptr) *list = nullptr;
    return 0;
  }
  if (list != nullptr) *list = mCurrent->data();
  return static_cast<ssize_t>(mCurrent->size());
}

Sensor const* SensorManager::getDefaultSensor(int type) {
  std::lock_guard<std::mutex> lock(mLock);
  if (mCurrent == nullptr) return nullptr;
  for (Sensor const* sensor : *mCurrent) {
    if (sensor->getType() == type) return sensor;
  }
  return nullptr;
}

sp<SensorEventQueue> SensorManager::createEventQueue() { return new SensorEventQueue(); }

void SensorManager::addQueue(SensorEventQueue* queue) {
  std::lock_guard<std::mutex> lock(mLock);
  mQueues.insert(queue);
}

void SensorManager::removeQueue(SensorEventQueue* queue) {
  std::lock_guard<std::mutex> lock(mLock);
  mQueues.erase(queue);
}

}  // namespace android
