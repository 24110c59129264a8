// The --degrade text (kinds, times and counts), and where the shutter is pressed: the --shutter
// text, warm-up, spacing, end margin, presses on natural blinks, faults at given and automatic
// times, and one-line errors that name the bad item or press.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <set>
#include <sstream>

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

// Each request as "kind@seconds item" (an automatic time is -1).
std::vector<std::string> parsed(const std::string& text) {
  std::vector<DegradationRequest> out;
  std::string error;
  EXPECT_TRUE(DegradationSpec::parse(text, &out, &error)) << text << ": " << error;
  std::vector<std::string> requests;
  for (const DegradationRequest& r : out) {
    std::ostringstream s;
    s << r.kind << "@" << r.atSeconds << " " << r.item;
    requests.push_back(s.str());
    EXPECT_EQ(r.automatic(), r.atSeconds < 0) << s.str();
  }
  return requests;
}

TEST(DegradeText, ReadsKindsTimesAndCounts) {
  EXPECT_TRUE(parsed("").empty());
  EXPECT_TRUE(parsed("  ").empty());
  EXPECT_EQ(parsed("blink@2.5, shake ,defocus*3,Exposure@7,noise@0"),
            (std::vector<std::string>{"blink@2.5 blink@2.5", "shake@-1 shake", "defocus@-1 defocus*3",
                                      "defocus@-1 defocus*3", "defocus@-1 defocus*3", "exposure@7 Exposure@7",
                                      "noise@0 noise@0"}));
  EXPECT_EQ(parsed("noise*1"), (std::vector<std::string>{"noise@-1 noise*1"}));
  EXPECT_EQ(parsed("shake@.5"), (std::vector<std::string>{"shake@0.5 shake@.5"}));
  EXPECT_EQ(parsed("shake@1e1"), (std::vector<std::string>{"shake@10 shake@1e1"}));
}

TEST(DegradeText, RejectsBadItemsNamingThem) {
  const struct {
    const char* text;
    const char* named;
  } bad[] = {
      {"wobble", "wobble"},       {"blink,glare@3", "glare"}, {"blink@", "blink@"},         {"blink@abc", "abc"},
      {"blink@2.5s", "2.5s"},     {"shake@-1", "shake@-1"},   {"blink*0", "blink*0"},       {"blink*-2", "-2"},
      {"blink*1.5", "1.5"},       {"noise*", "noise*"},       {"blink,,shake", "empty"},    {"blink,", "empty"},
      {"shake@2*3", "shake@2*3"}, {"blink@nan", "nan"},       {"shake*5000", "shake*5000"},
  };
  for (const auto& b : bad) {
    std::vector<DegradationRequest> out = {{"blink", 1.0, "left over"}};
    std::string error;
    EXPECT_FALSE(DegradationSpec::parse(b.text, &out, &error)) << b.text;
    EXPECT_THAT(error, HasSubstr(b.named)) << b.text;
    EXPECT_EQ(error.find('\n'), std::string::npos) << error;
    EXPECT_TRUE(out.empty()) << b.text;
  }
  std::string error;
  EXPECT_FALSE(DegradationSpec::parse("blur", nullptr, &error));
  EXPECT_THAT(error, HasSubstr("blink, shake, defocus, exposure, noise"));
  EXPECT_FALSE(DegradationSpec::parse("blur", nullptr, nullptr));
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
  const struct {
    const char *text, *source;
    std::vector<int> frames;
  } good[] = {{"auto", "auto", {40, 80, 120, 160, 200, 240}},
              {"auto:3", "auto", {60, 120, 180, 240}},
              {"2.5, 7.1", "list", {50, 142}},
              {"none", "", {}}};
  for (const auto& g : good) {
    in.shutter = g.text;
    const auto p = plan(in);
    EXPECT_EQ(frames(p), g.frames) << g.text;
    for (const PlannedPress& q : p) EXPECT_TRUE(q.kind == "clean" && q.source == g.source) << g.text;
  }
  in.shutter = "auto:1.5";
  EXPECT_EQ(frames(plan(in)).front(), 30);
  in.naturalBlinks = {{99, 103, 101}};
  in.shutter = "on-blinks,9";
  const auto p = plan(in);
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
  // A clip shorter than the warm-up has no room for a press, but may go without one.
  in = clip(1.2);
  in.shutter = "none";
  EXPECT_TRUE(plan(in).empty());
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
  for (const PlannedPress& q : p) EXPECT_TRUE(q.kind == "natural-blink" && q.source == "on-blinks") << q.frame;
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
