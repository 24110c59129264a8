#include "DexCameraMotion.h"

#include <log/log.h>

#include <algorithm>
#include <cmath>

namespace android {

namespace {
constexpr const char* kTag = "DexCameraMotion";
}  // namespace

DexCameraMotion::DexCameraMotion() = default;
DexCameraMotion::~DexCameraMotion() = default;

void DexCameraMotion::push(std::deque<Sample>& q, const KO_sensorSample_t& s) {
  if (s.timeStamp == 0) return;                           // no event yet
  if (!q.empty() && s.timeStamp <= q.back().ts) return;   // repeated or late
  q.push_back({s.timeStamp, s.x, s.y, s.z});
  while (q.size() > MAX_SAMPLES) q.pop_front();
}

int DexCameraMotion::readSensorData(int64_t /*ts*/, uint32_t /*frameId*/,
                                    KO_sensorData_t sensorBlock) {
  std::lock_guard<std::mutex> lock(mLock);
  if (sensorBlock.enabled[0]) push(mAccel, sensorBlock.accel);
  if (sensorBlock.enabled[1]) push(mGyro, sensorBlock.gyro);
  return 0;
}

void DexCameraMotion::select(const std::deque<Sample>& q, int64_t startNs, int64_t endNs,
                             std::deque<Sample>& out) {
  for (const Sample& s : q) {
    if (s.ts >= startNs && s.ts <= endNs) out.push_back(s);
  }
  if (!out.empty() || q.empty()) return;
  // Nothing inside: the newest sample not after the interval, else the newest kept.
  for (auto it = q.rbegin(); it != q.rend(); ++it) {
    if (it->ts <= endNs) {
      out.push_back(*it);
      return;
    }
  }
  out.push_back(q.back());
}

int DexCameraMotion::getCamMotionType(int64_t tsStart, int64_t tsEnd, KO_camMotionType_t* out) {
  if (out == nullptr || tsEnd < tsStart) {
    __android_log_print(ANDROID_LOG_ERROR, kTag, "%s: invalid arguments (out %p, %lld..%lld)",
                        __func__, static_cast<void*>(out), static_cast<long long>(tsStart),
                        static_cast<long long>(tsEnd));
    return -1;
  }
  if (tsEnd - tsStart < MIN_WINDOW_US) tsStart = tsEnd - MIN_WINDOW_US;
  const int64_t startNs = tsStart * 1000, endNs = tsEnd * 1000;
  std::deque<Sample> gyro, accel;
  {
    std::lock_guard<std::mutex> lock(mLock);
    select(mGyro, startNs, endNs, gyro);
    select(mAccel, startNs, endNs, accel);
  }
  KO_camMotionType_t r{};
  if (!accel.empty()) {
    double m[3] = {0, 0, 0}, q[3] = {0, 0, 0};
    for (const Sample& s : accel) {
      const double v[3] = {s.x, s.y, s.z};
      for (int i = 0; i < 3; ++i) {
        m[i] += v[i];
        q[i] += v[i] * v[i];
      }
    }
    const double n = static_cast<double>(accel.size());
    double var = 0;
    for (int i = 0; i < 3; ++i) var += std::max(0.0, q[i] / n - (m[i] / n) * (m[i] / n));
    r.accelVariance = static_cast<float>(var);
  }
  if (gyro.empty()) {
    r.mode = MODE_UNKNOWN;
    *out = r;
    return 0;
  }
  double sum = 0, peak = 0, vx = 0, vy = 0, vz = 0;
  for (const Sample& s : gyro) {
    const double mag = std::sqrt(double(s.x) * s.x + double(s.y) * s.y + double(s.z) * s.z);
    sum += mag;
    peak = std::max(peak, mag);
    vx += s.x;
    vy += s.y;
    vz += s.z;
  }
  const double n = static_cast<double>(gyro.size());
  const double mean = sum / n;
  const double meanVec = std::sqrt(vx * vx + vy * vy + vz * vz) / n;  // sustained rotation
  r.numSamples = static_cast<int32_t>(gyro.size());
  r.gyroMean = static_cast<float>(mean);
  r.gyroMax = static_cast<float>(peak);
  if (mean < STEADY_MEAN && peak < STEADY_MAX) {
    r.mode = MODE_STEADY;
  } else if (gyro.size() >= 3 && meanVec >= PAN_RATE && meanVec >= PAN_COHERENCE * mean) {
    r.mode = MODE_PANNING;
  } else if (mean >= SHAKE_MEAN || peak >= SHAKE_MAX) {
    r.mode = MODE_SHAKING;
  } else {
    r.mode = MODE_JITTER;
  }
  *out = r;
  return 0;
}

}  // namespace android
