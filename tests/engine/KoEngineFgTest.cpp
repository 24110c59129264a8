// The foreground handler's own rules: late-mode hysteresis and the per-frame statistics,
// frame rate, low-fps, missing-face and replace-override derivations.
#include <gtest/gtest.h>

#include <dirent.h>
#include <utils/Timers.h>

#include <fstream>
#include <string>

#include "EngineTestSupport.h"
#include "KoFrameDataCreate.h"
#include "StderrCapture.h"

using namespace android;
using kovane_test::withForeground;

namespace {

sp<AMessage> stamped(int64_t ageUs) {
  sp<AMessage> msg = new AMessage(KoEngineFg::kWhatLate, 0);
  msg->setInt64("system_time", systemTime(SYSTEM_TIME_MONOTONIC) / 1000 - ageUs);
  return msg;
}

// 16 frames with ids from firstId to lastId, spread over spanUs.
KoFrameHist* historyOf(uint32_t firstId, uint32_t lastId, int64_t spanUs) {
  KoFrameHist* hist = new KoFrameHist();
  const uint32_t n = 16;
  for (uint32_t i = 0; i < n; ++i) {
    sp<KoFrameData> f = new KoFrameData();
    f->mFrameId = firstId + (lastId - firstId) * i / (n - 1);
    f->mTimestamp = 5000000 + spanUs * i / (n - 1);
    hist->addFrameData(f);
  }
  return hist;
}

// Threads of this process named as the foreground looper names its thread.
int foregroundThreads() {
  int n = 0;
  DIR* dir = opendir("/proc/self/task");
  if (dir == nullptr) return -1;
  while (const dirent* e = readdir(dir)) {
    if (e->d_name[0] == '.') continue;
    std::ifstream comm(std::string("/proc/self/task/") + e->d_name + "/comm");
    std::string name;
    if (std::getline(comm, name) && name == "KoEngineFg") ++n;
  }
  closedir(dir);
  return n;
}

// An engine without a camera, its foreground handler's rules run between two messages.
class KoEngineFgRules : public ::testing::Test {
 protected:
  template <typename Fn>
  void run(Fn fn) {
    withForeground(&engine, [&](KoEngineFg* fg) {
      fn(fg);
      return 0;
    });
  }
  KO_KoEngineConfig_t config = {true, true, true};
  KoEngine engine{nullptr, &config};
};

}  // namespace

TEST_F(KoEngineFgRules, LateModeHysteresis) {
  run([](KoEngineFg* fg) {
    EXPECT_FALSE(fg->isMessageLate(stamped(400000)));
    EXPECT_FALSE(fg->isLateMode());
    EXPECT_TRUE(fg->isMessageLate(stamped(600000)));  // more than half a second: late
    EXPECT_TRUE(fg->isLateMode());
    EXPECT_TRUE(fg->isMessageLate(stamped(60000)));  // still 60 ms behind: stays late
    sp<AMessage> noStamp = new AMessage(KoEngineFg::kWhatLate, 0);
    EXPECT_TRUE(fg->isMessageLate(noStamp));  // no time stamp: unchanged
    EXPECT_FALSE(fg->isMessageLate(stamped(40000)));  // caught up
    EXPECT_FALSE(fg->isLateMode());
  });
}

TEST_F(KoEngineFgRules, FrameRateAndLowFpsMode) {
  run([](KoEngineFg* fg) {
    KoFrameHist* fast = historyOf(100, 130, 1500000);
    EXPECT_EQ(fg->calculateFps(fast), 20);  // frame ids count, not history items
    EXPECT_FALSE(fg->getLowFpsMode(fast, true, true));
    KoFrameHist* slow = historyOf(100, 130, 3200000);
    EXPECT_EQ(fg->calculateFps(slow), 9);
    EXPECT_TRUE(fg->getLowFpsMode(slow, true, false));
    EXPECT_FALSE(fg->getLowFpsMode(slow, false, true));  // only for camera position 1
    slow->removeOldestItem();  // 15 items: not measurable, the previous mode stays
    EXPECT_EQ(fg->calculateFps(slow), -1);
    EXPECT_TRUE(fg->getLowFpsMode(slow, true, true));
    EXPECT_FALSE(fg->getLowFpsMode(slow, true, false));
    delete fast;
    delete slow;
  });
}

TEST_F(KoEngineFgRules, MissingFaceModeAndReplaceOverride) {
  run([](KoEngineFg* fg) {
    KoFrameHist hist;
    EXPECT_FALSE(fg->getMissingFaceDataMode(&hist));
    EXPECT_EQ(fg->getReplaceOverride(&hist), 0u);
    for (uint32_t id = 1; id <= 10; ++id) {
      sp<KoFrameData> f = new KoFrameData();
      f->mFrameId = id;
      f->mTimestamp = id * 33333;
      hist.addFrameData(f);
    }
    EXPECT_TRUE(fg->getMissingFaceDataMode(&hist));
    sp<KoFaceMetaData> face = new KoFaceMetaData();
    hist.addFaceData(3, face);  // 7 ids before the newest: too old to count
    EXPECT_TRUE(fg->getMissingFaceDataMode(&hist));
    hist.addFaceData(4, face);  // 6 ids before: counts
    EXPECT_FALSE(fg->getMissingFaceDataMode(&hist));

    fg->mMissingFaceDataMode = true;
    sp<KoFrameData> newest = hist.mHistory[hist.size() - 1]->mFrameData;
    newest->mZoom = 2;
    newest->mAfRoiType = 2;
    EXPECT_EQ(fg->getReplaceOverride(&hist), 0x7u);
    fg->mMissingFaceDataMode = false;
    newest->mZoom = 0;
    EXPECT_EQ(fg->getReplaceOverride(&hist), 0x4u);
  });
}

TEST_F(KoEngineFgRules, StatisticsOnRealFramesAndMotionCadence) {
  kovane_test::SimulatedCamera cam;
  ASSERT_TRUE(cam.ready());
  run([&](KoEngineFg* fg) {
    KoFrameHist hist;
    std::vector<uint32_t> withMotion;
    for (uint32_t id = 1; id <= 7; ++id) {
      KO_PreviewFrameData_t p = cam.preview(id);
      p.timeStamp = 1000000 + static_cast<int64_t>(id) * 33000;  // exactly 33 ms apart
      sp<KoFrameData> frame;
      engine.mFrameDataCreate->newFrame(&p, frame);
      ASSERT_NE(frame, nullptr);
      hist.addFrameData(frame);
      if (hist.size() < 2) continue;
      sp<KoFrameData> previous = hist.mHistory[hist.size() - 2]->mFrameData;
      fg->processFrameStats(frame, previous);
      fg->processMotionScores(frame, &hist);
      if (frame->hasEvents(KoFrameData::EVENT_MOTION)) withMotion.push_back(id);
      EXPECT_TRUE(frame->hasEvents(KoFrameData::EVENT_STATS));
      // The frames differ by a one-pixel shift of the same picture.
      EXPECT_GT(frame->mDiffStats.mean, 0.5f);
      EXPECT_LT(frame->mDiffStats.mean, 20.f);
      uint32_t total = 0;
      for (uint32_t b = 0; b < frame->mHistogramBins; ++b) total += frame->mHistogram[b];
      EXPECT_EQ(total, 320u * 180u);
    }
    // 66000 is not more than 66000: every third frame.
    EXPECT_EQ(withMotion, (std::vector<uint32_t>{2, 5}));

    // A frame without its small image is not measured.
    sp<KoFrameData> current = hist.mHistory[hist.size() - 1]->mFrameData;
    sp<KoFrameData> broken = new KoFrameData();
    kovane_test::StderrCapture capture;
    fg->processFrameStats(broken, current);
    std::string log = capture.finish();
    EXPECT_NE(log.find("processFrameStats: Processing buffers NULL"), std::string::npos) << log;
    EXPECT_FALSE(broken->hasEvents(KoFrameData::EVENT_STATS));
  });
}

TEST_F(KoEngineFgRules, DroppedWithoutDeinitStillStopsItsLooper) {
  ASSERT_TRUE(kovane_test::waitUntil([] { return foregroundThreads() == 1; }));
  // A second handler on its own looper, released without deinit with a message on its way: its
  // destructor must not wait for a stop message that can no longer reach it, and its thread
  // must end.
  sp<KoEngineFg> fg = new KoEngineFg(&engine);
  fg->init(true);
  ASSERT_TRUE(kovane_test::waitUntil([] { return foregroundThreads() == 2; }));
  sp<AMessage> msg = new AMessage(KoEngineFg::kWhatLate, fg->getHandlerId());
  msg->post();
  fg.clear();
  msg.clear();
  EXPECT_TRUE(kovane_test::waitUntil([] { return foregroundThreads() == 1; }))
      << foregroundThreads() << " foreground threads left";
}
