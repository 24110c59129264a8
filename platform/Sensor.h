#pragma once
// Sensor description and sensor event, as the device's sensor service has them.
#include <cstdint>

enum {
  ASENSOR_TYPE_ACCELEROMETER = 1,
  ASENSOR_TYPE_MAGNETIC_FIELD = 2,
  ASENSOR_TYPE_ORIENTATION = 3,
  ASENSOR_TYPE_GYROSCOPE = 4,
};

struct ASensorEvent {
  int32_t version;  // sizeof(ASensorEvent)
  int32_t sensor;   // handle of the sensor that produced it
  int32_t type;     // ASENSOR_TYPE_...
  int32_t reserved0;
  int64_t timestamp;  // nanoseconds
  float data[16];     // the first three values are x, y, z
  uint32_t flags;
  int32_t reserved1[3];
};

namespace android {

class Sensor {
 public:
  Sensor(int32_t type, int32_t handle, const char* name) : mType(type), mHandle(handle), mName(name) {}
  int32_t getType() const { return mType; }
  int32_t getHandle() const { return mHandle; }
  const char* getName() const { return mName; }

 private:
  int32_t mType;
  int32_t mHandle;
  const char* mName;
};

}  // namespace android
