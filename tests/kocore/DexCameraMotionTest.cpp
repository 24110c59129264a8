// Camera-motion classes from synthetic gyroscope traces.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>

#include "DexCameraMotion.h"

namespace android {
namespace {

constexpr int64_t kFrameUs = 33333;

// Feeds `frames` frames starting at t0 (microseconds); every frame carries one new gyroscope
// sample gyro(t seconds) and an accelerometer sample, the sensor stamps in nanoseconds.
template <typename F>
void feed(DexCameraMotion& cm, int64_t t0, int frames, F gyro) {
  for (int i = 0; i < frames; ++i) {
    const int64_t tsUs = t0 + i * kFrameUs;
    KO_sensorData_t s{};
    const double t = tsUs / 1e6;
    float g[3];
    gyro(t, g);
    s.gyro = {tsUs * 1000 - 2000000, g[0], g[1], g[2]};
    s.accel = {tsUs * 1000 - 1000000, 0.1f * std::sin(static_cast<float>(i)), 9.81f, 0.0f};
    s.enabled[0] = s.enabled[1] = 1;
    ASSERT_EQ(0, cm.readSensorData(tsUs, static_cast<uint32_t>(i), s));
    ASSERT_EQ(0, cm.readSensorData(tsUs, static_cast<uint32_t>(i), s));  // repeated block
  }
}

KO_camMotionType_t classify(DexCameraMotion& cm, int64_t start, int64_t end) {
  KO_camMotionType_t r;
  std::memset(&r, 0x7f, sizeof r);
  EXPECT_EQ(0, cm.getCamMotionType(start, end, &r));
  return r;
}

TEST(CameraMotion, ClassifiesStillPanAndShake) {
  const int64_t t0 = 5000000;
  DexCameraMotion still, pan, shake, jitter;
  feed(still, t0, 60, [](double t, float* g) {
    g[0] = 0.004f * static_cast<float>(std::sin(31 * t)), g[1] = 0.003f, g[2] = -0.002f;
  });
  feed(pan, t0, 60, [](double t, float* g) {  // slow pan about y, 0.2 rad/s, a little wobble
    g[0] = 0.02f * static_cast<float>(std::sin(20 * t)), g[1] = 0.2f, g[2] = 0.0f;
  });
  feed(shake, t0, 60, [](double t, float* g) {  // 5 Hz shake, 2 rad/s
    g[0] = 2.0f * static_cast<float>(std::sin(2 * M_PI * 5 * t + 0.3));
    g[1] = 1.0f * static_cast<float>(std::cos(2 * M_PI * 5 * t)), g[2] = 0.0f;
  });
  feed(jitter, t0, 60, [](double t, float* g) {  // hand tremor, 0.15 rad/s at 7 Hz
    g[0] = 0.15f * static_cast<float>(std::sin(2 * M_PI * 7 * t));
    g[1] = 0.1f * static_cast<float>(std::cos(2 * M_PI * 7 * t)), g[2] = 0.0f;
  });
  const int64_t end = t0 + 59 * kFrameUs;
  const KO_camMotionType_t s = classify(still, t0, end);
  EXPECT_EQ(DexCameraMotion::MODE_STEADY, s.mode);
  EXPECT_EQ(59, s.numSamples);  // sensor stamps lead the frames by 2 ms: the first is outside
  EXPECT_LT(s.gyroMax, 0.01f);
  EXPECT_GT(s.accelVariance, 0.0f);
  const KO_camMotionType_t p = classify(pan, t0, end);
  EXPECT_EQ(DexCameraMotion::MODE_PANNING, p.mode);
  EXPECT_NEAR(0.2f, p.gyroMean, 0.02f);
  EXPECT_EQ(DexCameraMotion::MODE_SHAKING, classify(shake, t0, end).mode);
  EXPECT_GE(classify(shake, t0, end).gyroMax, 1.5f);
  EXPECT_EQ(DexCameraMotion::MODE_JITTER, classify(jitter, t0, end).mode);
  // The per-frame query (start == end) looks at the last 100 ms.
  const KO_camMotionType_t f = classify(pan, end, end);
  EXPECT_EQ(DexCameraMotion::MODE_PANNING, f.mode);
  EXPECT_GE(f.numSamples, 3);
  EXPECT_LE(f.numSamples, 4);
  // An interval after all samples falls back to the newest one.
  const KO_camMotionType_t late = classify(shake, end + 10000000, end + 10000000);
  EXPECT_EQ(1, late.numSamples);
}

TEST(CameraMotion, NoDataAndBadArguments) {
  DexCameraMotion cm;
  const KO_camMotionType_t r = classify(cm, 0, 1000);
  EXPECT_EQ(DexCameraMotion::MODE_UNKNOWN, r.mode);
  EXPECT_EQ(0, r.numSamples);
  EXPECT_EQ(0.0f, r.gyroMax);
  // Disabled sensors and empty samples are not taken.
  KO_sensorData_t s{};
  s.gyro = {1000000, 1.0f, 0.0f, 0.0f};
  ASSERT_EQ(0, cm.readSensorData(1000, 1, s));
  EXPECT_EQ(DexCameraMotion::MODE_UNKNOWN, classify(cm, 0, 1000).mode);
  EXPECT_EQ(-1, cm.getCamMotionType(0, 1000, nullptr));
  KO_camMotionType_t untouched{};
  untouched.mode = 9;
  EXPECT_EQ(-1, cm.getCamMotionType(2000, 1000, &untouched));
  EXPECT_EQ(9, untouched.mode);
}

}  // namespace
}  // namespace android
