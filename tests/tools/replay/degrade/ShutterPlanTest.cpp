// The --degrade text, and where the shutter is pressed: the --shutter text, warm-up, spacing,
// end margin, natural blinks, faults at given and automatic times, and one-line errors that
// name the bad item or press.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
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

TEST(DegradeText, RejectsBadItemsNamingThem) {
  EXPECT_EQ(degrade("blink@2.5, shake ,defocus*3").size(), 5u);
  const std::pair<const char*, const char*> bad[] = {
      {"wobble", "wobble"}, {"blink,glare@3", "glare"}, {"blink@abc", "abc"}, {"shake@-1", "shake@-1"},
      {"blink*0", "blink*0"}, {"blink*1.5", "1.5"},     {"blink,,shake", "empty"}, {"shake@2*3", "shake@2*3"},
      {"blink@", "blink@"}, {"noise*", "noise*"},       {"shake*5000", "shake*5000"},
  };
  for (const auto& b : bad) {
    std::vector<DegradationRequest> out = {{"blink", 1.0, "left over"}};
    std::string error;
    EXPECT_FALSE(DegradationSpec::parse(b.first, &out, &error)) << b.first;
    EXPECT_THAT(error, HasSubstr(b.second)) << b.first;
    EXPECT_EQ(error.find('\n'), std::string::npos) << error;
    EXPECT_TRUE(out.empty()) << b.first;
  }
  std::string error;
  EXPECT_FALSE(DegradationSpec::parse("blur", nullptr, &error));
  EXPECT_THAT(error, HasSubstr("blink, shake, defocus, exposure, noise"));
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
  const std::pair<const char*, std::vector<int>> good[] = {
      {"auto", {40, 80, 120, 160, 200, 240}}, {"auto:3", {60, 120, 180, 240}}, {"2.5, 7.1", {50, 142}}, {"none", {}}};
  for (const auto& g : good) {
    in.shutter = g.first;
    EXPECT_EQ(frames(plan(in)), g.second) << g.first;
  }
  // On-blinks presses fall on each blink's peak, unless in the warm-up or too close to another.
  in.naturalBlinks = {{10, 14, 12}, {60, 64, 63}, {70, 73, 71}, {150, 155, 152}};
  in.shutter = "on-blinks,9";
  const auto p = plan(in);
  EXPECT_EQ(frames(p), (std::vector<int>{63, 152, 180}));
  EXPECT_TRUE(p[0].kind == "natural-blink" && p[0].source == "on-blinks" && p[2].source == "list");

  const std::pair<const char*, const char*> bad[] = {
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
  auto p = plan(in);
  EXPECT_EQ(p.front().frame, 80);  // 2 s falls in the warm-up
  expectRulesKept(in, p);
  in = clip();
  in.shutter = "auto:0.3";  // every 0.3 s, thinned out to the 1 s spacing
  p = plan(in);
  expectRulesKept(in, p);
  EXPECT_GE(p.size(), 10u);

  // Times that do not fit, clips too short, inputs that make no sense: each named.
  const struct {
    double seconds;
    const char *shutter, *degrade;
    std::vector<const char*> says;
    double spacingS = ShutterPlan::kDefaultSpacingS;
    int repeatedStamp = 0;  // a frame with the time stamp of the one before
  } bad[] = {
      {14, "1.0", "", {"--shutter 1.0", "warm-up"}},
      {14, "3,15.5", "", {"--shutter 15.5", "past the end"}},
      {14, "13.8", "", {"--shutter 13.8", "last 0.5 s"}},
      {14, "3,3.4", "", {"--shutter 3", "--shutter 3.4", "too close"}},
      {14, "3.3", "shake@3", {"shake@3", "too close"}},
      {14, "none", "noise@20", {"noise@20", "past the end"}},
      {1.2, "auto", "", {"shorter than the 1.5 s warm-up"}},
      {1.8, "auto", "", {"too short"}},
      {3.0, "auto:5", "", {"no press"}},
      {14, "auto", "", {"spacing"}, 0.0},
      {14, "auto", "", {"frame 100"}, ShutterPlan::kDefaultSpacingS, 100},
      {0, "auto", "", {"no frames"}},
      {14, "on-blinks", "", {"on-blinks"}},
  };
  for (const auto& b : bad) {
    in = clip(b.seconds);
    in.shutter = b.shutter;
    in.degradations = degrade(b.degrade);
    in.spacingS = b.spacingS;
    if (b.repeatedStamp) in.frameTimesUs[b.repeatedStamp] = in.frameTimesUs[b.repeatedStamp - 1];
    const std::string error = failure(in);
    for (const char* part : b.says) EXPECT_THAT(error, HasSubstr(part)) << b.shutter << " " << b.degrade;
  }
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
  EXPECT_FALSE(f.count(80) || f.count(200));  // auto at 4 s and 10 s: too close to them

  // Faults at automatic times: as many as asked, the same for the same seed, away from natural
  // blinks while there is room.
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

  // No room: the press is named. Six fit when packed from the start, even if chance does not.
  in = clip(8.0);
  in.shutter = "none";
  in.degradations = degrade("shake*7");
  EXPECT_THAT(failure(in), AllOf(HasSubstr("shake*7"), HasSubstr("no room"), HasSubstr("of 7")));
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
  in.facePresent.assign(10, true);
  EXPECT_THAT(failure(in), HasSubstr("face presence"));
}

}  // namespace
