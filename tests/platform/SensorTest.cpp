#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "HostSensorFeed.h"
#include "SensorManager.h"

using android::HostSensorFeed;
using android::Sensor;
using android::SensorEventQueue;
using android::SensorManager;
using android::sp;

namespace {

class PlatformSensorTest : public ::testing::Test {
 protected:
  void SetUp() override { HostSensorFeed::reset(); }
  void TearDown() override { HostSensorFeed::reset(); }
  SensorManager& sm = SensorManager::getInstance();
};

std::vector<ASensorEvent> readAll(const sp<SensorEventQueue>& q) {
  std::vector<ASensorEvent> out;
  ASensorEvent buf[7];
  ssize_t n;
  while ((n = q->read(buf, 7)) > 0) out.insert(out.end(), buf, buf + n);
  EXPECT_EQ(n, 0);
  return out;
}

}  // namespace

TEST_F(PlatformSensorTest, InjectedEventsReachOnlyQueuesWithTheTypeEnabled) {
  Sensor const* const* list = nullptr;
  EXPECT_EQ(sm.getSensorList(&list), 0) << "no sensors by default";
  HostSensorFeed::setSensors({ASENSOR_TYPE_ACCELEROMETER, ASENSOR_TYPE_GYROSCOPE});
  ASSERT_EQ(sm.getSensorList(&list), 2);
  Sensor const* acc = sm.getDefaultSensor(ASENSOR_TYPE_ACCELEROMETER);
  Sensor const* gyro = sm.getDefaultSensor(ASENSOR_TYPE_GYROSCOPE);
  EXPECT_EQ(list[0], acc);
  EXPECT_EQ(list[1], gyro);
  EXPECT_NE(acc->getHandle(), gyro->getHandle());
  EXPECT_EQ(sm.getDefaultSensor(ASENSOR_TYPE_MAGNETIC_FIELD), nullptr);
  sp<SensorEventQueue> accQ = sm.createEventQueue();
  sp<SensorEventQueue> gyroQ = sm.createEventQueue();
  sp<SensorEventQueue> bothQ = sm.createEventQueue();
  sp<SensorEventQueue> noneQ = sm.createEventQueue();
  ASensorEvent ev[3];
  EXPECT_EQ(accQ->read(ev, 1), 0) << "nothing injected yet";
  EXPECT_EQ(accQ->enableSensor(nullptr), android::BAD_VALUE);
  ASSERT_EQ(accQ->enableSensor(acc), android::OK);
  ASSERT_EQ(accQ->setEventRate(acc, 10000000), android::OK);
  ASSERT_EQ(gyroQ->enableSensor(gyro), android::OK);
  ASSERT_EQ(bothQ->enableSensor(acc), android::OK);
  ASSERT_EQ(bothQ->enableSensor(gyro), android::OK);

  HostSensorFeed::inject(ASENSOR_TYPE_ACCELEROMETER, 100, 1.f, 2.f, 3.f);
  HostSensorFeed::inject(ASENSOR_TYPE_GYROSCOPE, 200, 4.f, 5.f, 6.f);
  HostSensorFeed::inject(ASENSOR_TYPE_MAGNETIC_FIELD, 300, 0.f, 0.f, 0.f);

  std::vector<ASensorEvent> a = readAll(accQ);
  ASSERT_EQ(a.size(), 1u);
  EXPECT_EQ(a[0].type, ASENSOR_TYPE_ACCELEROMETER);
  EXPECT_EQ(a[0].timestamp, 100);
  EXPECT_EQ(a[0].data[0], 1.f);
  EXPECT_EQ(a[0].data[2], 3.f);
  EXPECT_EQ(a[0].sensor, acc->getHandle());
  std::vector<ASensorEvent> g = readAll(gyroQ);
  ASSERT_EQ(g.size(), 1u);
  EXPECT_EQ(g[0].type, ASENSOR_TYPE_GYROSCOPE);
  EXPECT_EQ(g[0].data[2], 6.f);
  std::vector<ASensorEvent> b = readAll(bothQ);
  ASSERT_EQ(b.size(), 2u);
  EXPECT_EQ(b[0].timestamp, 100);  // in injection order
  EXPECT_EQ(b[1].timestamp, 200);
  EXPECT_TRUE(readAll(noneQ).empty());

  // Disabling stops delivery to that queue only; read takes at most the requested count.
  ASSERT_EQ(bothQ->disableSensor(acc), android::OK);
  for (int i = 0; i < 5; ++i) HostSensorFeed::inject(ASENSOR_TYPE_ACCELEROMETER, 400 + i, 0.f, 0.f, 0.f);
  EXPECT_TRUE(readAll(bothQ).empty());
  ASSERT_EQ(accQ->read(ev, 3), 3);
  EXPECT_EQ(ev[2].timestamp, 402);
  ASSERT_EQ(accQ->read(ev, 3), 2);
  EXPECT_EQ(accQ->read(ev, 0), 0);

  // Reset drops queued events and the sensors.
  HostSensorFeed::inject(ASENSOR_TYPE_ACCELEROMETER, 500, 0.f, 0.f, 0.f);
  HostSensorFeed::reset();
  EXPECT_EQ(accQ->read(ev, 1), 0);
  EXPECT_EQ(sm.getDefaultSensor(ASENSOR_TYPE_ACCELEROMETER), nullptr);
}

TEST_F(PlatformSensorTest, FullQueueDropsTheOldestEvents) {
  HostSensorFeed::setSensors({ASENSOR_TYPE_GYROSCOPE});
  sp<SensorEventQueue> q = sm.createEventQueue();
  q->enableSensor(sm.getDefaultSensor(ASENSOR_TYPE_GYROSCOPE));
  for (int i = 0; i < 300; ++i) HostSensorFeed::inject(ASENSOR_TYPE_GYROSCOPE, i, 0.f, 0.f, 0.f);
  std::vector<ASensorEvent> got = readAll(q);
  ASSERT_EQ(got.size(), 256u);
  EXPECT_EQ(got.front().timestamp, 300 - 256);
  EXPECT_EQ(got.back().timestamp, 299);
}

TEST_F(PlatformSensorTest, InjectionRacesWithQueuesComingAndGoing) {
  HostSensorFeed::setSensors({ASENSOR_TYPE_ACCELEROMETER});
  Sensor const* acc = sm.getDefaultSensor(ASENSOR_TYPE_ACCELEROMETER);
  std::atomic<bool> go{true};
  std::thread injector([&] {
    int64_t t = 0;
    while (go) HostSensorFeed::inject(ASENSOR_TYPE_ACCELEROMETER, t++, 0.f, 0.f, 0.f);
  });
  for (int i = 0; i < 200; ++i) {
    sp<SensorEventQueue> q = sm.createEventQueue();
    q->enableSensor(acc);
    ASensorEvent ev[16];
    ssize_t n = q->read(ev, 16);
    EXPECT_GE(n, 0);
    // Within one queue timestamps only grow.
    for (ssize_t k = 1; k < n; ++k) EXPECT_GT(ev[k].timestamp, ev[k - 1].timestamp);
  }
  go = false;
  injector.join();
}
