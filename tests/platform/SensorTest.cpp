// The host sensor feed: injected events reach the queues that enabled their type, until reset.
#include <gtest/gtest.h>

#include "HostSensorFeed.h"
#include "SensorManager.h"

using android::HostSensorFeed;
using android::Sensor;
using android::SensorEventQueue;
using android::sp;

TEST(PlatformSensorTest, InjectedEventsReachOnlyQueuesWithTheTypeEnabled) {
  HostSensorFeed::reset();
  android::SensorManager& sm = android::SensorManager::getInstance();
  HostSensorFeed::setSensors({ASENSOR_TYPE_ACCELEROMETER, ASENSOR_TYPE_GYROSCOPE});
  Sensor const* const* list = nullptr;
  ASSERT_EQ(sm.getSensorList(&list), 2);
  Sensor const* acc = sm.getDefaultSensor(ASENSOR_TYPE_ACCELEROMETER);
  Sensor const* gyro = sm.getDefaultSensor(ASENSOR_TYPE_GYROSCOPE);
  EXPECT_EQ(list[1], gyro);
  EXPECT_NE(acc->getHandle(), gyro->getHandle());
  EXPECT_EQ(sm.getDefaultSensor(ASENSOR_TYPE_MAGNETIC_FIELD), nullptr);
  sp<SensorEventQueue> accQ = sm.createEventQueue(), gyroQ = sm.createEventQueue();
  EXPECT_EQ(accQ->enableSensor(nullptr), android::BAD_VALUE);
  ASSERT_EQ(accQ->enableSensor(acc), android::OK);
  ASSERT_EQ(gyroQ->enableSensor(gyro), android::OK);
  HostSensorFeed::inject(ASENSOR_TYPE_ACCELEROMETER, 100, 1.f, 2.f, 3.f);
  HostSensorFeed::inject(ASENSOR_TYPE_GYROSCOPE, 200, 4.f, 5.f, 6.f);
  HostSensorFeed::inject(ASENSOR_TYPE_ACCELEROMETER, 300, 0.f, 0.f, 0.f);
  ASensorEvent ev[3];
  ASSERT_EQ(accQ->read(ev, 3), 2);
  EXPECT_EQ(ev[0].type, ASENSOR_TYPE_ACCELEROMETER);
  EXPECT_EQ(ev[0].data[2], 3.f);
  EXPECT_EQ(ev[0].sensor, acc->getHandle());
  EXPECT_EQ(ev[1].timestamp, 300);  // in injection order
  ASSERT_EQ(gyroQ->read(ev, 3), 1);
  EXPECT_EQ(ev[0].timestamp, 200);
  // Disabling stops delivery; reset drops queued events and the sensors.
  ASSERT_EQ(accQ->disableSensor(acc), android::OK);
  HostSensorFeed::inject(ASENSOR_TYPE_ACCELEROMETER, 400, 0.f, 0.f, 0.f);
  EXPECT_EQ(accQ->read(ev, 1), 0);
  HostSensorFeed::inject(ASENSOR_TYPE_GYROSCOPE, 500, 0.f, 0.f, 0.f);
  HostSensorFeed::reset();
  EXPECT_EQ(gyroQ->read(ev, 1), 0);
  EXPECT_EQ(sm.getDefaultSensor(ASENSOR_TYPE_ACCELEROMETER), nullptr);
}
