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

void DexCameraMotion::Samples::push(const Sample& s) {
  if (count < MAX_SAMPLES) {
    ring[(first + count) % MAX_SAMPLES] = s;
    ++count;
  } else {
    ring[first] = s;  // the oldest goes
    first = (first + 1) % MAX_SAMPLES;
  }
}

void DexCameraMotion::push(Samples& q, const KO_sensorSample_t& s) {
  if (s.timeStamp == 0) return;                               // no event yet
  if (q.count > 0 && s.timeStamp <= q.back().ts) return;      // repeated or late
  q.push(Sample{s.timeStamp, s.x, s.y, s.z});
}

int DexCameraMotion::readSensorData(int64_t /*ts*/, uint32_t /*frameId*/,
                                    KO_sensorData_t sensorBlock) {
  std::lock_guard<std::mutex> lock(mLock);
  if (sensorBlock.enabled[0]) push(mAccel, sensorBlock.accel);
  if (sensorBlock.enabled[1]) push(mGyro, sensorBlock.gyro);
  return 0;
}

void DexCameraMotion::select(const Samples& q, int64_t startNs, int64_t endNs, size_t* begin,
                             size_t* end) {
  // Samples are in time order, so the ones inside form one run.
  size_t b = 0;
  while (b < q.count && q.at(b).ts < startNs) ++b;
  size_t e = b;
  while (e < q.count && q.at(e).ts <= endNs) ++e;
  if (e > b || q.count == 0) {
    *begin = b;
    *end = e;
    return;
  }
  // Nothing inside: the newest sample not after the interval, else the newest kept.
  size_t pick = q.count - 1;
  for (size_t i = q.count; i-- > 0;) {
    if (q.at(i).ts <= endNs) {
      pick = i;
      break;
    }
  }
  *begin = pick;
  *end = pick + 1;
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
  std::lock_guard<std::mutex> lock(mLock);
  size_t gyroBegin = 0, gyroEnd = 0, accelBegin = 0, accelEnd = 0;
  select(mGyro, startNs, endNs, &gyroBegin, &gyroEnd);
  select(mAccel, startNs, endNs, &accelBegin, &accelEnd);
  KO_camMotionType_t r{};
  if (accelEnd > accelBegin) {
    double m[3] = {0, 0, 0}, q[3] = {0, 0, 0};
    for (size_t k = accelBegin; k < accelEnd; ++k) {
      const Sample& s = mAccel.at(k);
      const double v[3] = {s.x, s.y, s.z};
      for (int i = 0; i < 3; ++i) {
        m[i] += v[i];
        q[i] += v[i] * v[i];
      }
    }
    const double n = static_cast<double>(accelEnd - accelBegin);
    double var = 0;
    for (int i = 0; i < 3; ++i) var += std::max(0.0, q[i] / n - (m[i] / n) * (m[i] / n));
    r.accelVariance = static_cast<float>(var);
  }
  if (gyroEnd == gyroBegin) {
    r.mode = MODE_UNKNOWN;
    *out = r;
    return 0;
  }
  double sum = 0, peak = 0, vx = 0, vy = 0, vz = 0;
  for (size_t k = gyroBegin; k < gyroEnd; ++k) {
    const Sample& s = mGyro.at(k);
    const double mag = std::sqrt(double(s.x) * s.x + double(s.y) * s.y + double(s.z) * s.z);
    sum += mag;
    peak = std::max(peak, mag);
    vx += s.x;
    vy += s.y;
    vz += s.z;
  }
  const size_t gyroCount = gyroEnd - gyroBegin;
  const double n = static_cast<double>(gyroCount);
  const double mean = sum / n;
  const double meanVec = std::sqrt(vx * vx + vy * vy + vz * vz) / n;  // sustained rotation
  r.numSamples = static_cast<int32_t>(gyroCount);
  r.gyroMean = static_cast<float>(mean);
  r.gyroMax = static_cast<float>(peak);
  if (mean < STEADY_MEAN && peak < STEADY_MAX) {
    r.mode = MODE_STEADY;
  } else if (gyroCount >= 3 && meanVec >= PAN_RATE && meanVec >= PAN_COHERENCE * mean) {
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
