#include "SensorEventQueue.h"

#include "SensorManager.h"

namespace android {

namespace {
// Beyond this many unread events the oldest are dropped, as a reader that falls behind on the
// device loses events rather than memory growing without bound.
constexpr size_t kMaxQueuedEvents = 256;
}  // namespace

SensorEventQueue::SensorEventQueue() { SensorManager::getInstance().addQueue(this); }

SensorEventQueue::~SensorEventQueue() {
  // Once removed no injection can reach this queue any more.
  SensorManager::getInstance().removeQueue(this);
}

status_t SensorEventQueue::enableSensor(Sensor const* sensor) const {
  if (sensor == nullptr) return BAD_VALUE;
  std::lock_guard<std::mutex> lock(mLock);
  mEnabledTypes.insert(sensor->getType());
  return NO_ERROR;
}

status_t SensorEventQueue::setEventRate(Sensor const* sensor, nsecs_t ns) const {
  if (sensor == nullptr || ns < 0) return BAD_VALUE;
  // Events arrive when injected; the rate has no effect on the host.
  return NO_ERROR;
}

status_t SensorEventQueue::disableSensor(Sensor const* sensor) const {
  if (sensor == nullptr) return BAD_VALUE;
  std::lock_guard<std::mutex> lock(mLock);
  mEnabledTypes.erase(sensor->getType());
  return NO_ERROR;
}

ssize_t SensorEventQueue::read(ASensorEvent* events, size_t numEvents) {
  if (events == nullptr) return numEvents == 0 ? 0 : BAD_VALUE;
  std::lock_guard<std::mutex> lock(mLock);
  size_t n = 0;
  while (n < numEvents && !mEvents.empty()) {
    events[n++] = mEvents.front();
    mEvents.pop_front();
  }
  return static_cast<ssize_t>(n);
}

void SensorEventQueue::deliver(const ASensorEvent& event) {
  std::lock_guard<std::mutex> lock(mLock);
  if (mEnabledTypes.count(event.type) == 0) return;
  mEvents.push_back(event);
  while (mEvents.size() > kMaxQueuedEvents) mEvents.pop_front();
}

}  // namespace android
