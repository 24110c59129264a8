// Counting presses per kind: rescued, harmed and needless replacements of the engine and of the
// sharpest-frame baseline, the case of no engine decision, runs merged, and the terminal table.
#include <gtest/gtest.h>

#include <sstream>

#include "Metrics.h"
#include "ReportSamples.h"

using kovane_replay::KindSummary;
using kovane_replay::Metrics;
using kovane_replay::PressResult;
using kovane_replay_test::barePress;

namespace {

// A row as "kind: presses capturedGood decided | engine good rescued harmed needless | baseline
// good rescued harmed needless", so that a whole table compares in one go.
std::vector<std::string> countsOf(const std::vector<KindSummary>& rows) {
  std::vector<std::string> out;
  for (const KindSummary& r : rows) {
    std::ostringstream s;
    s << r.kind << ": " << r.presses << " " << r.capturedGood << " " << r.decided << " | " << r.engineGood << " "
      << r.engineRescued << " " << r.engineHarmed << " " << r.engineNeedless << " | " << r.baselineGood << " "
      << r.baselineRescued << " " << r.baselineHarmed << " " << r.baselineNeedless;
    out.push_back(s.str());
  }
  return out;
}

}  // namespace

// Each press counts once for the engine's final picture and once for the baseline's pick.
TEST(MetricsOutcome, RescuedHarmedAndNeedlessOfOnePress) {
  const struct {
    const char* what;
    PressResult press;
    bool baseline, good, rescued, harmed, needless;
  } cases[] = {
      {"bad capture moved to a good frame", barePress("blink", false, true, -3, true, 0, false), false, true, true,
       false, false},
      {"good capture replaced by a bad frame", barePress("clean", true, true, 2, false, 0, true), false, false, false,
       true, true},
      {"good capture replaced by a good frame", barePress("clean", true, true, -1, true, 0, true), false, true, false,
       false, true},
      {"good capture kept", barePress("clean", true, true, 0, true, 0, true), false, true, false, false, false},
      {"bad capture kept", barePress("shake", false, true, 0, false, 0, false), false, false, false, false, false},
      // The baseline is judged on its own frame, not the engine's.
      {"baseline spoils a good capture", barePress("clean", true, true, 0, true, 4, false), true, false, false, true,
       true},
      {"baseline rescues a bad capture", barePress("defocus", false, true, 0, false, -2, true), true, true, true,
       false, false},
  };
  for (const auto& c : cases) {
    const Metrics::Outcome o = c.baseline ? Metrics::baselineOutcome(c.press) : Metrics::engineOutcome(c.press);
    EXPECT_EQ(std::vector<bool>({o.good, o.rescued, o.harmed, o.needless}),
              std::vector<bool>({c.good, c.rescued, c.harmed, c.needless}))
        << c.what;
  }
}

TEST(MetricsSummary, CountsPerKindInTableOrderWithTheAllRowLast) {
  const std::vector<KindSummary> rows = Metrics::summarize({
      barePress("noise", false, true, -2, true, -1, true),  // rescued by both
      barePress("clean", true, true, 0, true, 0, true),     // kept
      barePress("zoom", true, true, 0, true, 1, true),      // a kind the tables do not know
      barePress("blink", false, true, 0, false, 2, true),   // engine kept the blink; baseline rescued
      barePress("clean", true, true, 3, false, 0, true),    // engine harmed, needless
      barePress("blink", false, true, -4, true, 0, false),  // engine rescued
      barePress("natural-blink", false, false, 0, false, 0, false),
      barePress("clean", true, true, -1, true, -2, true),  // needless for both
      barePress("", true, true, 0, true, 0, true),         // no kind: clean
  });
  EXPECT_EQ(countsOf(rows), (std::vector<std::string>{
                                "clean: 4 4 4 | 3 0 1 2 | 4 0 0 1",
                                "blink: 2 0 2 | 1 1 0 0 | 1 1 0 0",  // nothing good to spoil
                                "natural-blink: 1 0 0 | 0 0 0 0 | 0 0 0 0",
                                "noise: 1 0 1 | 1 1 0 0 | 1 1 0 0",
                                "zoom: 1 1 1 | 1 0 0 0 | 1 0 0 1",
                                "all: 9 5 8 | 6 2 1 2 | 7 2 0 2",
                            }));
  EXPECT_TRUE(Metrics::engineDecides(rows));
  EXPECT_EQ(Metrics::allRow(rows), &rows.back());

  // Good % over every press, rescued % over the bad captures only.
  const KindSummary &clean = rows[0], &blink = rows[1], &all = rows.back();
  EXPECT_DOUBLE_EQ(*Metrics::engineGoodPct(clean), 75.0);
  EXPECT_DOUBLE_EQ(*Metrics::engineRescuedPct(blink), 50.0);
  EXPECT_DOUBLE_EQ(*Metrics::engineRescuedPct(all), 50.0);  // 2 of 4 bad captures
  EXPECT_DOUBLE_EQ(*Metrics::capturedGoodPct(all), 100.0 * 5 / 9);
  EXPECT_FALSE(Metrics::engineRescuedPct(clean).has_value());  // no bad capture to rescue
  EXPECT_FALSE(Metrics::baselineRescuedPct(clean).has_value());

  // No presses: only an all row of zeros, and no percentages.
  const std::vector<KindSummary> none = Metrics::summarize({});
  EXPECT_EQ(countsOf(none), (std::vector<std::string>{"all: 0 0 0 | 0 0 0 0 | 0 0 0 0"}));
  EXPECT_FALSE(Metrics::engineGoodPct(none[0]).has_value());
  EXPECT_FALSE(Metrics::engineDecides(none));
  ASSERT_NE(Metrics::allRow(none), nullptr);
}

// Without a best-shot decision the camera keeps its captured picture: the engine's columns
// repeat the captured counts, and the table says why.
TEST(MetricsSummary, WithoutAnEngineDecisionTheFinalIsTheCapturedPicture) {
  const std::vector<KindSummary> rows = Metrics::summarize({
      barePress("clean", true, false, 0, true, -1, true),
      barePress("shake", false, false, 0, false, 2, true),
      barePress("shake", false, false, 0, false, 0, false),
  });
  EXPECT_EQ(countsOf(rows).back(), "all: 3 1 0 | 1 0 0 0 | 2 1 0 1");
  EXPECT_FALSE(Metrics::engineDecides(rows));

  const std::string table = Metrics::formatTable(rows);
  EXPECT_NE(table.find("engine: no decision, final = captured"), std::string::npos) << table;
  EXPECT_NE(table.find("no engine decision"), std::string::npos) << table;
  EXPECT_EQ(Metrics::formatTable(Metrics::summarize({barePress("clean", true, true, 0, true, 0, true)}))
                .find("no engine decision"),
            std::string::npos);
}

TEST(MetricsMerge, AddsTheRowsOfSeveralRunsKindByKind) {
  const std::vector<KindSummary> a = Metrics::summarize({
      barePress("blink", false, true, -2, true, 0, false),
      barePress("clean", true, true, 0, true, 1, true),
  });
  const std::vector<KindSummary> b = Metrics::summarize({
      barePress("exposure", false, false, 0, false, 0, false),
      barePress("blink", false, true, 0, false, -1, true),
      barePress("clean", true, true, 2, false, 0, true),
  });
  EXPECT_EQ(countsOf(Metrics::merge({a, b, Metrics::summarize({})})), (std::vector<std::string>{
                                                                          "clean: 2 2 2 | 1 0 1 1 | 2 0 0 1",
                                                                          "blink: 2 0 2 | 1 1 0 0 | 1 1 0 0",
                                                                          "exposure: 1 0 0 | 0 0 0 0 | 0 0 0 0",
                                                                          "all: 5 2 4 | 2 1 1 1 | 3 1 0 1",
                                                                      }));
  // Merging one run changes nothing.
  EXPECT_EQ(countsOf(Metrics::merge({a})), countsOf(a));
}

TEST(MetricsTable, PercentagesAndColumnsForTheTerminal) {
  EXPECT_EQ(Metrics::formatPercent(100.0), "100%");
  EXPECT_EQ(Metrics::formatPercent(100.0 / 3), "33.3%");
  EXPECT_EQ(Metrics::formatPercent(200.0 / 3), "66.7%");
  EXPECT_EQ(Metrics::formatPercent(0.0), "0%");
  EXPECT_EQ(Metrics::formatPercent(std::nullopt), "\xE2\x80\x93");
  EXPECT_FALSE(Metrics::percent(3, 0).has_value());

  const std::vector<KindSummary> rows = Metrics::summarize({
      barePress("clean", true, true, 0, true, 0, true),
      barePress("natural-blink", false, true, -2, true, 1, false),
      barePress("natural-blink", false, true, 0, false, 0, false),
  });
  std::vector<std::string> lines;
  std::istringstream in(Metrics::formatTable(rows));
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  ASSERT_EQ(lines.size(), 2u + rows.size());
  EXPECT_NE(lines[0].find("engine (final picture)"), std::string::npos);
  EXPECT_NE(lines[0].find("baseline (sharpest frame)"), std::string::npos);
  EXPECT_EQ(lines[1].rfind("kind", 0), 0u);
  EXPECT_EQ(lines[2].rfind("clean ", 0), 0u);
  EXPECT_EQ(lines[3].rfind("natural-blink", 0), 0u);
  EXPECT_EQ(lines[4].rfind("all ", 0), 0u);
  // The clean row cannot rescue anything: its rescued columns show a dash; the blink row
  // rescued one of two.
  EXPECT_NE(lines[2].find("\xE2\x80\x93"), std::string::npos);
  EXPECT_NE(lines[3].find("50%"), std::string::npos);
  // Columns line up: the "presses" counts end where the heading does.
  const size_t end = lines[1].find("presses") + std::string("presses").size();
  for (size_t i = 2; i < lines.size(); ++i) EXPECT_EQ(lines[i][end - 1], i == 4 ? '3' : i == 3 ? '2' : '1') << i;
}
