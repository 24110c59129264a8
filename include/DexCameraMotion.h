#pragma once
// Camera-motion classification from the gyroscope and accelerometer samples that travel with
// the preview frames. Frame time stamps are microseconds; sensor event time stamps are
// nanoseconds on the same clock: intervals given in microseconds are multiplied by 1000 before
// they are compared with the samples.
#include <cstdint>
#include <mutex>

#include "KoEngineTypes.h"

namespace android {

// Result of getCamMotionType, 32 bytes, read by word (word 3 is printed as "camMotionMode").
struct KO_camMotionType_t {
  int32_t numSamples;   // gyroscope samples the classification used
  float gyroMean;       // mean gyroscope magnitude, rad/s
  float gyroMax;        // largest gyroscope magnitude, rad/s
  int32_t mode;         // one of DexCameraMotion::Mode
  float accelVariance;  // sum of the per-axis accelerometer variances, (m/s^2)^2
  int32_t reserved[3];
};
static_assert(sizeof(KO_camMotionType_t) == 32, "camera-motion record is read by word");

class DexCameraMotion {
 public:
  enum Mode : int32_t {
    MODE_UNKNOWN = 0,  // no gyroscope data
    MODE_STEADY = 1,   // mean below STEADY_MEAN and peak below STEADY_MAX
    MODE_JITTER = 2,   // hand-held: small rotations without a common direction
    MODE_PANNING = 3,  // sustained rotation: the mean rotation vector is at least PAN_RATE and
                       // at least PAN_COHERENCE of the mean magnitude (3 samples or more)
    MODE_SHAKING = 4,  // not panning, mean magnitude at least SHAKE_MEAN or peak SHAKE_MAX
  };
  // Thresholds in rad/s, and the share of the rotation that must keep one direction to pan.
  static constexpr float STEADY_MEAN = 0.03f;
  static constexpr float STEADY_MAX = 0.08f;
  static constexpr float PAN_RATE = 0.10f;
  static constexpr float PAN_COHERENCE = 0.8f;
  static constexpr float SHAKE_MEAN = 0.6f;
  static constexpr float SHAKE_MAX = 1.5f;
  // Samples kept per sensor (about 15 s at the 30 ms event rate).
  static constexpr size_t MAX_SAMPLES = 512;
  // Intervals shorter than this (microseconds) are widened backwards to it, so that the
  // per-frame query (start == end) sees the rotation of the last moments.
  static constexpr int64_t MIN_WINDOW_US = 100000;

  DexCameraMotion();
  ~DexCameraMotion();

  // Adds the frame's gyroscope and accelerometer samples (those flagged enabled, with a non-zero
  // time stamp) to the window. A sample whose time stamp is not newer than the newest kept one
  // of its sensor (repeated by consecutive frames, or late) is ignored. ts and frameId identify
  // the frame and are only logged on error. Returns 0.
  int readSensorData(int64_t ts, uint32_t frameId, KO_sensorData_t sensorBlock);

  // Classifies the samples with time stamps in [tsStart, tsEnd] (microseconds, widened to
  // MIN_WINDOW_US); with none inside, the newest sample at or before tsEnd (or else the newest
  // kept). Returns 0, or -1 (logged) for a null record or tsEnd < tsStart. Without gyroscope
  // samples the record is zero with mode MODE_UNKNOWN.
  int getCamMotionType(int64_t tsStart, int64_t tsEnd, KO_camMotionType_t* out);

 private:
  struct Sample {
    int64_t ts;  // nanoseconds
    float x, y, z;
  };
  // The newest MAX_SAMPLES samples of one sensor, oldest first; a fixed ring, so that keeping
  // samples never allocates.
  struct Samples {
    Sample ring[MAX_SAMPLES];
    size_t first = 0;
    size_t count = 0;
    const Sample& at(size_t i) const { return ring[(first + i) % MAX_SAMPLES]; }
    const Sample& back() const { return at(count - 1); }
    void push(const Sample& s);
  };
  // Samples of q in [startNs, endNs]: indexes [*begin, *end) of q; with none inside, the
  // newest sample not after the interval (else the newest kept) as a range of one.
  static void select(const Samples& q, int64_t startNs, int64_t endNs, size_t* begin, size_t* end);
  static void push(Samples& q, const KO_sensorSample_t& s);

  std::mutex mLock;  // readSensorData runs on the foreground thread, queries on the background
  Samples mGyro;
  Samples mAccel;
};

}  // namespace android
