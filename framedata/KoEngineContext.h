#pragma once
// What the frame factory and the ZSL tracking need of the engine that owns them. KoEngine
// implements it; keeping it narrow lets those parts be built and tested on their own.
#include <cstdint>

namespace android {

class KoMemory;

class KoEngineContext {
 public:
  // Feature bits (0x4 motion scores, 0x8 camera motion, 0x10 motion sensors).
  virtual uint32_t featureMask() const = 0;
  // Sensors to enable: 0x1 accelerometer, 0x2 gyroscope, 0x4 magnetic field, 0x8 orientation.
  virtual uint32_t sensorMask() const = 0;
  // The engine's ZSL buffer tracking.
  virtual KoMemory* memory() const = 0;
  // Hands a ZSL buffer back to the camera through the registered frame-done callback
  // (nothing happens when none is registered).
  virtual void frameDone(void* buffer) = 0;

 protected:
  virtual ~KoEngineContext() {}
};

}  // namespace android
