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

const KindSummary& rowOf(const std::vector<KindSummary>& rows, const std::string& kind) {
  for (const KindSummary& r : rows) {
    if (r.kind == kind) return r;
  }
  static const KindSummary none;
  ADD_FAILURE() << "no row " << kind;
  return none;
}

std::vector<std::string> kindsOf(const std::vector<KindSummary>& rows) {
  std::vector<std::string> out;
  for (const KindSummary& r : rows) out.push_back(r.kind);
  return out;
}

std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> out;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) out.push_back(line);
  return out;
}

}  // namespace

// Each press counts once for the engine's final picture and once for the baseline's pick.
TEST(MetricsOutcome, RescuedHarmedAndNeedlessOfOnePress) {
  // Bad capture, the engine moves to a good frame: rescued.
  Metrics::Outcome o = Metrics::engineOutcome(barePress("blink", false, true, -3, true, 0, false));
  EXPECT_TRUE(o.good);
  EXPECT_TRUE(o.rescued);
  EXPECT_FALSE(o.harmed);
  EXPECT_FALSE(o.needless);
  // Good capture replaced by a bad frame: harmed and needless.
  o = Metrics::engineOutcome(barePress("clean", true, true, 2, false, 0, true));
  EXPECT_FALSE(o.good);
  EXPECT_FALSE(o.rescued);
  EXPECT_TRUE(o.harmed);
  EXPECT_TRUE(o.needless);
  // Good capture replaced by another good frame: needless only.
  o = Metrics::engineOutcome(barePress("clean", true, true, -1, true, 0, true));
  EXPECT_TRUE(o.good);
  EXPECT_FALSE(o.harmed);
  EXPECT_TRUE(o.needless);
  // Good capture kept: nothing to count but good.
  o = Metrics::engineOutcome(barePress("clean", true, true, 0, true, 0, true));
  EXPECT_TRUE(o.good);
  EXPECT_FALSE(o.rescued || o.harmed || o.needless);
  // Bad capture kept: neither good nor rescued.
  o = Metrics::engineOutcome(barePress("shake", false, true, 0, false, 0, false));
  EXPECT_FALSE(o.good || o.rescued || o.harmed || o.needless);

  // The baseline is judged on its own frame, not the engine's.
  const PressResult p = barePress("clean", true, true, 0, true, 4, false);
  o = Metrics::baselineOutcome(p);
  EXPECT_FALSE(o.good);
  EXPECT_TRUE(o.harmed);
  EXPECT_TRUE(o.needless);
  o = Metrics::baselineOutcome(barePress("defocus", false, true, 0, false, -2, true));
  EXPECT_TRUE(o.rescued);
  EXPECT_FALSE(o.needless);
}

TEST(MetricsSummary, CountsPerKindInTableOrderWithTheAllRowLast) {
  const std::vector<PressResult> presses = {
      barePress("noise", false, true, -2, true, -1, true),     // rescued by both
      barePress("clean", true, true, 0, true, 0, true),        // kept
      barePress("zoom", true, true, 0, true, 1, true),         // a kind the tables do not know
      barePress("blink", false, true, 0, false, 2, true),      // engine kept the blink; baseline rescued
      barePress("clean", true, true, 3, false, 0, true),       // engine harmed, needless
      barePress("blink", false, true, -4, true, 0, false),     // engine rescued
      barePress("natural-blink", false, false, 0, false, 0, false),
      barePress("clean", true, true, -1, true, -2, true),      // needless for both
      barePress("", true, true, 0, true, 0, true),             // no kind: clean
  };
  const std::vector<KindSummary> rows = Metrics::summarize(presses);
  EXPECT_EQ(kindsOf(rows), (std::vector<std::string>{"clean", "blink", "natural-blink", "noise", "zoom", "all"}));

  const KindSummary& clean = rowOf(rows, "clean");
  EXPECT_EQ(clean.presses, 4);
  EXPECT_EQ(clean.capturedGood, 4);
  EXPECT_EQ(clean.decided, 4);
  EXPECT_EQ(clean.engineGood, 3);
  EXPECT_EQ(clean.engineRescued, 0);
  EXPECT_EQ(clean.engineHarmed, 1);
  EXPECT_EQ(clean.engineNeedless, 2);
  EXPECT_EQ(clean.baselineGood, 4);
  EXPECT_EQ(clean.baselineHarmed, 0);
  EXPECT_EQ(clean.baselineNeedless, 1);

  const KindSummary& blink = rowOf(rows, "blink");
  EXPECT_EQ(blink.presses, 2);
  EXPECT_EQ(blink.capturedGood, 0);
  EXPECT_EQ(blink.engineGood, 1);
  EXPECT_EQ(blink.engineRescued, 1);
  EXPECT_EQ(blink.baselineRescued, 1);
  EXPECT_EQ(blink.engineNeedless + blink.engineHarmed, 0);  // nothing good to spoil

  const KindSummary& all = rowOf(rows, "all");
  EXPECT_EQ(all.presses, 9);
  EXPECT_EQ(all.capturedGood, 5);
  EXPECT_EQ(all.decided, 8);
  EXPECT_EQ(all.engineRescued, 2);
  EXPECT_EQ(all.engineHarmed, 1);
  EXPECT_EQ(all.baselineRescued, 2);
  EXPECT_EQ(all.baselineNeedless, 2);
  EXPECT_TRUE(Metrics::engineDecides(rows));

  // Good % over every press, rescued % over the bad captures only.
  EXPECT_DOUBLE_EQ(*Metrics::engineGoodPct(clean), 75.0);
  EXPECT_DOUBLE_EQ(*Metrics::engineRescuedPct(blink), 50.0);
  EXPECT_DOUBLE_EQ(*Metrics::engineRescuedPct(all), 50.0);  // 2 of 4 bad captures
  EXPECT_DOUBLE_EQ(*Metrics::capturedGoodPct(all), 100.0 * 5 / 9);
  EXPECT_FALSE(Metrics::engineRescuedPct(clean).has_value());  // no bad capture to rescue
  EXPECT_FALSE(Metrics::baselineRescuedPct(clean).has_value());
}

TEST(MetricsSummary, NoPressesGiveOnlyAnAllRowOfZeros) {
  const std::vector<KindSummary> rows = Metrics::summarize({});
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_EQ(rows[0].kind, "all");
  EXPECT_EQ(rows[0].presses, 0);
  EXPECT_FALSE(Metrics::engineGoodPct(rows[0]).has_value());
  EXPECT_FALSE(Metrics::engineDecides(rows));
  ASSERT_NE(Metrics::allRow(rows), nullptr);
}

// Without a best-shot decision the camera keeps its captured picture: the engine's columns
// repeat the captured counts, and the table says why.
TEST(MetricsSummary, WithoutAnEngineDecisionTheFinalIsTheCapturedPicture) {
  const std::vector<PressResult> presses = {
      barePress("clean", true, false, 0, true, -1, true),
      barePress("shake", false, false, 0, false, 2, true),
      barePress("shake", false, false, 0, false, 0, false),
  };
  const std::vector<KindSummary> rows = Metrics::summarize(presses);
  const KindSummary& all = rowOf(rows, "all");
  EXPECT_EQ(all.decided, 0);
  EXPECT_EQ(all.engineGood, all.capturedGood);
  EXPECT_EQ(all.engineRescued + all.engineHarmed + all.engineNeedless, 0);
  EXPECT_EQ(all.baselineRescued, 1);
  EXPECT_EQ(all.baselineNeedless, 1);
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
  const std::vector<KindSummary> none = Metrics::summarize({});
  const std::vector<KindSummary> merged = Metrics::merge({a, b, none});
  EXPECT_EQ(kindsOf(merged), (std::vector<std::string>{"clean", "blink", "exposure", "all"}));
  const KindSummary& blink = rowOf(merged, "blink");
  EXPECT_EQ(blink.presses, 2);
  EXPECT_EQ(blink.engineRescued, 1);
  EXPECT_EQ(blink.baselineRescued, 1);
  const KindSummary& clean = rowOf(merged, "clean");
  EXPECT_EQ(clean.engineHarmed, 1);
  EXPECT_EQ(clean.baselineNeedless, 1);
  const KindSummary& all = rowOf(merged, "all");
  EXPECT_EQ(all.presses, 5);
  EXPECT_EQ(all.decided, 4);
  EXPECT_EQ(all.capturedGood, 2);
  EXPECT_EQ(all.engineGood, 2);
  // Merging one run changes nothing.
  const std::vector<KindSummary> same = Metrics::merge({a});
  ASSERT_EQ(same.size(), a.size());
  for (size_t i = 0; i < a.size(); ++i) {
    EXPECT_EQ(same[i].kind, a[i].kind);
    EXPECT_EQ(same[i].engineRescued, a[i].engineRescued);
    EXPECT_EQ(same[i].presses, a[i].presses);
  }
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
  const std::vector<std::string> lines = linesOf(Metrics::formatTable(rows));
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
