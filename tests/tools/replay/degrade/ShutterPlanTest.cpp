// Where the shutter is pressed: the --shutter text, warm-up, spacing, end margin, presses on
// natural blinks, faults at given and automatic times, and the errors that name the press.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <set>

#include "ShutterPlan.h"

using namespace kovane_replay;
using ::testing::AllOf;
using ::testing::HasSubstr;

namespace {

// A clip of `seconds` at `fps`, the main face on every frame.
ShutterPlan::Inputs clip(double seconds = 14.0, double fps = 20.0) {
  ShutterPlan::Inputs in;
  const int n = static_cast<int>(std::lround(seconds * fps));
  for (int i = 0; i < n; ++i) in.frameTimesUs.push_back(static_cast<int64_t>(std::llround(i * 1e6 / fps)));
  in.facePresent.assign(n, true);
  return in;
}

std::vector<DegradationRequest> degrade(const std::string& text) {
  std::vector<DegradationRequest> out;
  std::string error;
  EXPECT_TRUE(DegradationSpec::parse(text, &out, &error)) << error;
  return out;
}

std::vector<PlannedPress> plan(const ShutterPlan::Inputs& in) {
  std::vector<PlannedPress> out;
  std::string error;
  EXPECT_TRUE(ShutterPlan::build(in, &out, &error)) << in.shutter << ": " << error;
  return out;
}

std::string failure(const ShutterPlan::Inputs& in) {
  std::vector<PlannedPress> out = {{1, "clean", "auto"}};
  std::string error;
  EXPECT_FALSE(ShutterPlan::build(in, &out, &error)) << in.shutter;
  EXPECT_TRUE(out.empty());
  EXPECT_EQ(error.find('\n'), std::string::npos) << error;
  return error;
}

std::vector<int> frames(const std::vector<PlannedPress>& presses) {
  std::vector<int> f;
  for (const PlannedPress& p : presses) f.push_back(p.frame);
  return f;
}

// Rules every plan keeps, whatever it holds.
void expectRulesKept(const ShutterPlan::Inputs& in, const std::vector<PlannedPress>& presses) {
  const int n = static_cast<int>(in.frameTimesUs.size());
  const double endS = in.frameTimesUs.back() / 1e6;
  for (size_t i = 0; i < presses.size(); ++i) {
    const int f = presses[i].frame;
    const double t = in.frameTimesUs[f] / 1e6;
    EXPECT_TRUE(t >= in.warmupS - 1e-9 && t <= endS - ShutterPlan::kEndMarginS + 1e-9 &&
                f <= n - 1 - ShutterPlan::kFramesAfterShutter)
        << "press at frame " << f;
    if (i == 0) continue;
    const PlannedPress& q = presses[i - 1];
    const bool fault = q.source == "degrade" || presses[i].source == "degrade";
    EXPECT_TRUE(q.frame < f && t - in.frameTimesUs[q.frame] / 1e6 >= in.spacingS - 1e-9 &&
                (!fault || f - q.frame >= ShutterPlan::kGuardFrames))
        << q.frame << " and " << f;
  }
}

TEST(ShutterPlan, ReadsTheShutterText) {
  ShutterPlan::Inputs in = clip();  // 14 s at 20 fps: the last press may fall at 13.45 s
  in.shutter = "auto";
  auto p = plan(in);
  EXPECT_EQ(frames(p), (std::vector<int>{40, 80, 120, 160, 200, 240}));
  for (const PlannedPress& q : p) EXPECT_TRUE(q.kind == "clean" && q.source == "auto");
  in.shutter = "auto:3";
  EXPECT_EQ(frames(plan(in)), (std::vector<int>{60, 120, 180, 240}));
  in.shutter = "auto:1.5";
  EXPECT_EQ(frames(plan(in)).front(), 30);
  in.shutter = "2.5, 7.1";
  p = plan(in);
  EXPECT_EQ(frames(p), (std::vector<int>{50, 142}));
  EXPECT_TRUE(p[0].source == "list" && p[0].kind == "clean");
  in.shutter = "none";
  EXPECT_TRUE(plan(in).empty());
  in.naturalBlinks = {{99, 103, 101}};
  in.shutter = "on-blinks,9";
  p = plan(in);
  ASSERT_EQ(p.size(), 2u);
  EXPECT_TRUE(p[0].source == "on-blinks" && p[1].source == "list");

  const std::pair<const char*, const char*> bad[] = {
      // text, what the message names
      {"", "empty"}, {"sometimes", "sometimes"}, {"auto:0", "auto:0"},      {"auto:x", "auto:x"}, {"auto:-2", "-2"},
      {"-1", "-1"},  {"none,2", "none"},         {"auto,auto:3", "auto:3"}, {"2,,3", "empty"},    {"2.5s", "2.5s"}};
  for (const auto& b : bad) {
    in.shutter = b.first;
    EXPECT_THAT(failure(in), HasSubstr(b.second)) << b.first;
  }
}

TEST(ShutterPlan, KeepsWarmupSpacingAndEndMargin) {
  ShutterPlan::Inputs in = clip();
  in.warmupS = 3.0;
  in.shutter = "auto";
  auto p = plan(in);
  EXPECT_EQ(p.front().frame, 80);  // 2 s falls in the warm-up
  expectRulesKept(in, p);

  in = clip();
  in.shutter = "auto:0.3";  // every 0.3 s, thinned out to the 1 s spacing
  p = plan(in);
  expectRulesKept(in, p);
  EXPECT_GE(p.size(), 10u);
  EXPECT_EQ(p.front().frame, 30);  // 1.5 s, the end of the warm-up
  EXPECT_LE(p.back().frame, 269);  // 13.45 s

  in.spacingS = 2.5;
  expectRulesKept(in, plan(in));

  // Times that do not fit, each named.
  in = clip();
  in.shutter = "1.0";
  EXPECT_THAT(failure(in), AllOf(HasSubstr("--shutter 1.0"), HasSubstr("warm-up")));
  in.shutter = "3,15.5";
  EXPECT_THAT(failure(in), AllOf(HasSubstr("--shutter 15.5"), HasSubstr("past the end")));
  in.shutter = "13.8";
  EXPECT_THAT(failure(in), AllOf(HasSubstr("--shutter 13.8"), HasSubstr("last 0.5 s")));
  in.shutter = "3,3.4";
  EXPECT_THAT(failure(in), AllOf(HasSubstr("--shutter 3"), HasSubstr("--shutter 3.4"), HasSubstr("too close")));
  in.shutter = "3.3";
  in.degradations = degrade("shake@3");
  EXPECT_THAT(failure(in), AllOf(HasSubstr("shake@3"), HasSubstr("too close")));
  in.shutter = "none";
  in.degradations = degrade("noise@20");
  EXPECT_THAT(failure(in), AllOf(HasSubstr("noise@20"), HasSubstr("past the end")));

  // A clip shorter than the warm-up, or with no room after it.
  in = clip(1.2);
  in.shutter = "auto";
  EXPECT_THAT(failure(in), HasSubstr("shorter than the 1.5 s warm-up"));
  in.shutter = "none";
  EXPECT_TRUE(plan(in).empty());
  in = clip(1.8);
  in.shutter = "auto";
  EXPECT_THAT(failure(in), HasSubstr("too short"));
  in = clip(3.0);
  in.shutter = "auto:5";
  EXPECT_THAT(failure(in), HasSubstr("no press"));
  // Inputs that make no sense.
  in = clip();
  in.spacingS = 0.0;
  EXPECT_THAT(failure(in), HasSubstr("spacing"));
  in = clip();
  in.frameTimesUs[100] = in.frameTimesUs[99];
  EXPECT_THAT(failure(in), HasSubstr("frame 100"));
  in.frameTimesUs.clear();
  in.facePresent.clear();
  EXPECT_THAT(failure(in), HasSubstr("no frames"));
}

TEST(ShutterPlan, PressesOnBlinksAtTheirPeak) {
  ShutterPlan::Inputs in = clip();
  in.shutter = "on-blinks";
  in.naturalBlinks = {{10, 14, 12},  // in the warm-up: dropped
                      {60, 64, 63},
                      {70, 73, 71},  // 0.4 s after the one before: dropped
                      {150, 155, 152},
                      {275, 278, 276}};  // in the last 0.5 s: dropped
  auto p = plan(in);
  EXPECT_EQ(frames(p), (std::vector<int>{63, 152}));
  for (const PlannedPress& q : p) {
    EXPECT_EQ(q.kind, "natural-blink");
    EXPECT_EQ(q.source, "on-blinks");
  }
  // A given time takes precedence over a blink near it.
  in.shutter = "on-blinks,7.8";
  EXPECT_EQ(frames(plan(in)), (std::vector<int>{63, 156}));
  // A periodic or listed press that falls within a blink counts as a natural-blink press.
  in.shutter = "auto,9.1";
  in.naturalBlinks = {{78, 82, 80}, {180, 184, 182}};
  p = plan(in);
  for (const PlannedPress& q : p) {
    EXPECT_EQ(q.kind, q.frame == 80 || q.frame == 182 ? "natural-blink" : "clean") << q.frame;
  }
  in.shutter = "on-blinks";
  in.naturalBlinks.clear();
  EXPECT_THAT(failure(in), HasSubstr("on-blinks"));
}

TEST(ShutterPlan, PlacesFaultsAndDropsAutoPressesNearThem) {
  ShutterPlan::Inputs in = clip();
  in.shutter = "auto,9.5";
  in.degradations = degrade("shake@4.3,blink");
  auto p = plan(in);
  expectRulesKept(in, p);
  const std::vector<int> planned = frames(p);
  const std::set<int> f(planned.begin(), planned.end());
  EXPECT_TRUE(f.count(86) && f.count(190));  // the given times
  EXPECT_FALSE(f.count(80));                 // auto at 4 s: 0.3 s from the shake
  EXPECT_FALSE(f.count(200));                // auto at 10 s: 0.5 s from the list press
  // Every other periodic press is there unless a press of another source is too close.
  for (int t = 2; t <= 12; t += 2) {
    bool near = false;
    for (const PlannedPress& q : p) {
      if (q.source != "auto" && std::abs(q.frame - 20 * t) < 20) near = true;
    }
    EXPECT_EQ(f.count(20 * t) == 1, !near) << t << " s";
  }
  int blinks = 0;
  for (const PlannedPress& q : p) {
    if (q.frame == 86) {
      EXPECT_EQ(q.kind, "shake");
    }
    if (q.kind == "blink") {
      ++blinks;
      EXPECT_EQ(q.source, "degrade");
    }
  }
  EXPECT_EQ(blinks, 1);

  // Faults at automatic times: as many as asked, the same for the same seed, and away from
  // natural blinks while there is room.
  in = clip(30.0);
  in.shutter = "none";
  in.degradations = degrade("shake*3,defocus*2,exposure,noise,blink*2");
  in.naturalBlinks = {{100, 104, 102}, {300, 304, 302}, {450, 455, 452}};
  in.seed = 7;
  p = plan(in);
  ASSERT_EQ(p.size(), 9u);
  expectRulesKept(in, p);
  for (const PlannedPress& q : p) {
    for (const BlinkSpan& b : in.naturalBlinks) {
      EXPECT_TRUE(q.frame < b.firstFrame - ShutterPlan::kWindowFrames ||
                  q.frame > b.lastFrame + ShutterPlan::kWindowFrames)
          << q.frame;
    }
  }
  EXPECT_EQ(frames(plan(in)), frames(p));
  std::set<std::vector<int>> seen;
  for (uint64_t seed = 1; seed <= 6; ++seed) {
    in.seed = seed;
    seen.insert(frames(plan(in)));
  }
  EXPECT_GT(seen.size(), 3u);

  // No room: the press is named.
  in = clip(8.0);
  in.shutter = "none";
  in.degradations = degrade("shake*7");
  EXPECT_THAT(failure(in), AllOf(HasSubstr("shake*7"), HasSubstr("no room"), HasSubstr("of 7")));
  // Six fit when packed from the start (1.5 s .. 7.45 s, 1 s apart), even if chance does not.
  in.degradations = degrade("shake*6");
  for (uint64_t seed = 1; seed <= 5; ++seed) {
    in.seed = seed;
    expectRulesKept(in, plan(in));
  }
}

TEST(ShutterPlan, PutsBlinksOnlyWhereTheFaceIs) {
  ShutterPlan::Inputs in = clip();
  in.shutter = "none";
  std::fill(in.facePresent.begin(), in.facePresent.begin() + 150, false);  // the face comes at 7.5 s
  in.facePresent[200] = false;                                             // and is lost once
  in.degradations = degrade("blink*4");
  for (uint64_t seed = 1; seed <= 5; ++seed) {
    in.seed = seed;
    for (const PlannedPress& q : plan(in)) {
      EXPECT_EQ(q.kind, "blink");
      for (int f = q.frame - ShutterPlan::kRunReach; f <= q.frame + ShutterPlan::kRunReach; ++f) {
        EXPECT_TRUE(in.facePresent[f]) << "press " << q.frame << ", frame " << f;
      }
    }
  }
  in.degradations = degrade("blink@5");
  EXPECT_THAT(failure(in), AllOf(HasSubstr("blink@5"), HasSubstr("face")));
  in.degradations = degrade("shake@5");  // other faults do not need the face
  EXPECT_EQ(plan(in).size(), 1u);
  in.degradations = degrade("blink");
  in.facePresent.clear();  // no face anywhere
  EXPECT_THAT(failure(in), AllOf(HasSubstr("blink"), HasSubstr("face")));
  in.facePresent.assign(10, true);
  EXPECT_THAT(failure(in), HasSubstr("face presence"));
}

}  // namespace
