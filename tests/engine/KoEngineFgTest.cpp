// The foreground handler's own rules: late-mode hysteresis and the per-frame statistics,
// frame rate, low-fps, missing-face and replace-override derivations.
#include <gtest/gtest.h>

#include <utils/Timers.h>

#include "EngineTestSupport.h"
#include "StderrCapture.h"

using namespace android;
using kovane_test::withForeground;

namespace {

sp<AMessage> stamped(int64_t ageUs) {
  sp<AMessage> msg = new AMessage(KoEngineFg::kWhatLate, 0);
  msg->setInt64("system_time", systemTime(SYSTEM_TIME_MONOTONIC) / 1000 - ageUs);
  return msg;
}

}  // namespace

TEST(KoEngineFg, LateModeHysteresis) {
  KO_KoEngineConfig_t config = {true, true, true};
  KoEngine engine(nullptr, &config);
  withForeground(&engine, [](KoEngineFg* fg) {
    EXPECT_FALSE(fg->isMessageLate(stamped(400000)));
    EXPECT_FALSE(fg->isLateMode());
    EXPECT_TRUE(fg->isMessageLate(stamped(600000)));  // more than half a second: late
    EXPECT_TRUE(fg->isLateMode());
    EXPECT_TRUE(fg->isMessageLate(stamped(60000)));  // still 60 ms behind: stays late
    sp<AMessage> noStamp = new AMessage(KoEngineFg::kWhatLate, 0);
    EXPECT_TRUE(fg->isMessageLate(noStamp));  // no time stamp: unchanged
    EXPECT_FALSE(fg->isMessageLate(stamped(40000)));  // caught up
    EXPECT_FALSE(fg->isLateMode());
    return 0;
  });
}
