// Counting presses per kind (rescued, harmed and needless replacements of the engine and of the
// sharpest-frame baseline, runs merged), and decisions.json and summary.json: validation turns
// broken documents down, summaries read back for merging, OUTPUTS.md names every key.
#include <gtest/gtest.h>

#include <functional>
#include <set>
#include <sstream>

#include <nlohmann/json.hpp>

#include "Metrics.h"
#include "ReportSamples.h"
#include "ReportWriter.h"

using namespace kovane_replay;
using namespace kovane_replay_test;
using nlohmann::json;

namespace {

// A bare press with its shutter on frame 100, counted under `kind`: the captured picture good or
// not; whether the engine decided; the final and the baseline pictures as offsets from the
// shutter frame and whether each is good.
PressResult barePress(const std::string& kind, bool capturedGood, bool decided, int finalOffset, bool finalGood,
                      int baselineOffset, bool baselineGood) {
  PressResult p;
  p.kind = kind;
  p.shutterFrame = 100;
  p.capturedGood = capturedGood;
  p.engineDecided = decided;
  p.engineFrame = decided ? 100 + finalOffset : -1;
  p.replace = decided && finalOffset != 0;
  p.finalFrame = 100 + finalOffset;
  p.finalGood = finalGood;
  p.baselineFrame = 100 + baselineOffset;
  p.baselineGood = baselineGood;
  return p;
}

std::vector<PressResult> samplePresses() {
  return {timelinePress(0, "clean", 60, true), timelinePress(1, "blink", 120, true),
          timelinePress(2, "shake", 200, false)};
}

// Every key of a document, at any depth.
void collectKeys(const json& j, std::set<std::string>& keys) {
  if (j.is_object()) {
    for (auto it = j.begin(); it != j.end(); ++it) keys.insert(it.key());
  }
  if (j.is_structured()) {
    for (const json& e : j) collectKeys(e, keys);
  }
}

// A change to a valid document and the path the validator must name.
struct Breakage {
  const char* what;
  std::function<void(json&)> change;
  const char* path;
};

void expectRejected(const json& good, const std::vector<Breakage>& breakages,
                    bool (*validate)(const json&, std::string*)) {
  std::string error;
  ASSERT_TRUE(validate(good, &error)) << error;
  for (const Breakage& b : breakages) {
    json doc = good;
    b.change(doc);
    EXPECT_FALSE(validate(doc, &error)) << b.what;
    EXPECT_NE(error.find(b.path), std::string::npos) << b.what << ": " << error;
  }
}

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

// Each press counts once for the engine's final picture and once for the baseline's pick (judged
// on its own frame): good, rescued (bad capture to good), harmed (good to bad), needless (a good
// capture replaced).
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
  // Good % over every press, rescued % over the bad captures only.
  EXPECT_DOUBLE_EQ(*Metrics::engineRescuedPct(rows.back()), 50.0);  // 2 of 4 bad captures
  EXPECT_FALSE(Metrics::engineRescuedPct(rows[0]).has_value());     // clean: no bad capture
  const std::vector<KindSummary> none = Metrics::summarize({});
  EXPECT_EQ(countsOf(none), (std::vector<std::string>{"all: 0 0 0 | 0 0 0 0 | 0 0 0 0"}));
  EXPECT_FALSE(Metrics::engineGoodPct(none[0]).has_value());

  // Runs merge kind by kind.
  const std::vector<KindSummary> a = Metrics::summarize({barePress("blink", false, true, -2, true, 0, false)});
  const std::vector<KindSummary> b = Metrics::summarize({
      barePress("exposure", false, false, 0, false, 0, false),
      barePress("blink", false, true, 0, false, -1, true),
      barePress("clean", true, true, 2, false, 0, true),
  });
  EXPECT_EQ(countsOf(Metrics::merge({a, b, none})), (std::vector<std::string>{
                                                        "clean: 1 1 1 | 0 0 1 1 | 1 0 0 0",
                                                        "blink: 2 0 2 | 1 1 0 0 | 1 1 0 0",
                                                        "exposure: 1 0 0 | 0 0 0 0 | 0 0 0 0",
                                                        "all: 4 1 3 | 1 1 1 1 | 2 1 0 0",
                                                    }));
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

TEST(DecisionsJson, ValidationTurnsDownBrokenDocuments) {
  const json good = ReportWriter::decisionsJson(sampleRun(true), samplePresses());
  std::string error;
  EXPECT_FALSE(ReportWriter::validateDecisions(json::array(), &error));
  EXPECT_FALSE(ReportWriter::validateDecisions(json(), nullptr));
  expectRejected(
      good,
      {
          {"run missing", [](json& d) { d.erase("run"); }, "run: missing"},
          {"key missing", [](json& d) { d["presses"][0]["engine"].erase("replace"); }, "presses[0].engine.replace"},
          {"wrong type", [](json& d) { d["presses"][1]["shutter"]["frame"] = "120"; }, "presses[1].shutter.frame"},
          {"null not allowed", [](json& d) { d["presses"][0]["final"]["good"] = nullptr; }, "presses[0].final.good"},
          {"unknown key", [](json& d) { d["presses"][2]["extra"] = 1; }, "presses[2].extra"},
          {"frame without decision", [](json& d) { d["presses"][2]["engine"]["frame"] = 198; },
           "presses[2].engine.frame"},
          {"window misses the shutter", [](json& d) { d["presses"][0]["window"]["last"] = 50; }, "presses[0].window"},
          {"negative count", [](json& d) { d["run"]["zsl_lent"] = -1; }, "run.zsl_lent"},
          {"labels of the wrong shape", [](json& d) { d["presses"][1]["captured"]["labels"] = json::object(); },
           "presses[1].captured.labels.eyes_open"},
          {"timeline out of order", [](json& d) { d["presses"][0]["timeline"][3]["frame"] = 1; },
           "presses[0].timeline[3].frame"},
          {"engine frame of the wrong shape",
           [](json& d) { d["presses"][0]["timeline"][5]["engine"]["zsl"] = 1; }, "timeline[5].engine.zsl"},
          {"captured is not the shutter frame", [](json& d) { d["presses"][0]["captured"]["frame"] = 61; },
           "presses[0].captured.frame"},
          {"decision flag of the run", [](json& d) { d["run"]["engine_decides"] = false; }, "run.engine_decides"},
          {"index twice", [](json& d) { d["presses"][2]["index"] = 0; }, "presses[2].index"},
          {"not a finite number", [](json& d) { d["run"]["fps"] = std::nan(""); }, "run.fps"},
      },
      &ReportWriter::validateDecisions);
}

TEST(SummaryJson, OneReplayAndSeveralMergedPassValidationAndReadBack) {
  const std::vector<PressResult> presses = samplePresses();
  const json doc = ReportWriter::summaryJson(sampleRun(true), Metrics::summarize(presses));
  std::string error;
  ASSERT_TRUE(ReportWriter::validateSummary(doc, &error)) << error;
  ASSERT_EQ(doc["kinds"].size(), 4u);
  const json& blink = doc["kinds"][1];
  EXPECT_TRUE(blink["kind"] == "blink" && blink["presses"] == 1 && blink["captured_good_pct"] == 0.0 &&
              blink["engine"]["rescued"] == 1 && blink["engine"]["rescued_pct"] == 100.0)
      << blink.dump();
  EXPECT_EQ(doc["kinds"][3]["engine"]["good_pct"], 66.7);

  // Written, read back (the rows write the same document again), merged with another replay.
  kovane_replay_test::TempDir dir;
  ASSERT_TRUE(ReportWriter::writeJson(dir.file("a.json"), doc, &error)) << error;
  RunInfo otherRun = sampleRun(false);
  otherRun.clip = "second.mp4";
  ASSERT_TRUE(ReportWriter::writeJson(
      dir.file("b.json"),
      ReportWriter::summaryJson(otherRun, Metrics::summarize({timelinePress(0, "noise", 90, false)})), &error));
  std::vector<std::vector<KindSummary>> runsRows(2);
  std::vector<RunInfo> runs, r;
  for (int i = 0; i < 2; ++i) {
    ASSERT_TRUE(ReportWriter::readSummaryFile(dir.file(i ? "b.json" : "a.json"), r, runsRows[i], &error)) << error;
    runs.insert(runs.end(), r.begin(), r.end());
  }
  ASSERT_EQ(runs.size(), 2u);
  EXPECT_EQ(ReportWriter::summaryJson(runs[0], runsRows[0]), doc);
  const json mergedDoc = ReportWriter::summaryJson(runs, Metrics::merge(runsRows));
  ASSERT_TRUE(ReportWriter::validateSummary(mergedDoc, &error)) << error;
  EXPECT_EQ(mergedDoc["kinds"].back()["presses"], 4);
  std::vector<KindSummary> backRows;
  ASSERT_TRUE(ReportWriter::readSummary(mergedDoc, r, backRows, &error)) << error;
  EXPECT_TRUE(r.size() == 2u && r[1].clip == "second.mp4" && backRows.back().presses == 4);

  // Files that are not summaries say so.
  ASSERT_TRUE(ReportWriter::writeText(dir.file("bad.json"), "{ not json", &error));
  ASSERT_TRUE(ReportWriter::writeJson(dir.file("dec.json"), ReportWriter::decisionsJson(sampleRun(true), presses),
                                      &error));
  for (const auto& bad : std::vector<std::pair<const char*, const char*>>{
           {"missing.json", "cannot open"}, {"bad.json", "not JSON"}, {"dec.json", "not a replay summary"}}) {
    EXPECT_FALSE(ReportWriter::readSummaryFile(dir.file(bad.first), runs, backRows, &error));
    EXPECT_NE(error.find(bad.second), std::string::npos) << error;
  }
}

TEST(SummaryJson, ValidationTurnsDownBrokenDocuments) {
  const json good = ReportWriter::summaryJson(sampleRun(true), Metrics::summarize(samplePresses()));
  expectRejected(
      good,
      {
          {"both run and runs", [](json& d) { d["runs"] = json::array({d["run"]}); }, "exactly one"},
          {"no run at all", [](json& d) { d.erase("run"); }, "exactly one"},
          {"count of the wrong type", [](json& d) { d["kinds"][0]["presses"] = 1.5; }, "kinds[0].presses"},
          {"percentage off its counts", [](json& d) { d["kinds"][1]["engine"]["good_pct"] = 50.0; },
           "kinds[1].engine.good_pct"},
          {"percentage where there is nothing to count",
           [](json& d) { d["kinds"][0]["engine"]["rescued_pct"] = 0.0; }, "kinds[0].engine.rescued_pct"},
          {"more rescued than bad captures", [](json& d) { d["kinds"][0]["baseline"]["rescued"] = 1; },
           "kinds[0].baseline.rescued"},
          {"all row not the sum", [](json& d) { d["kinds"][3]["engine"]["needless"] = 3; },
           "kinds[3].engine.needless"},
          {"all row not last", [](json& d) { std::swap(d["kinds"][0], d["kinds"][3]); }, "kinds[0].kind"},
          {"kind twice", [](json& d) { d["kinds"][1]["kind"] = "clean"; }, "kinds[1].kind"},
          {"decision flag", [](json& d) { d["engine_decides"] = false; }, "engine_decides"},
          {"unknown key", [](json& d) { d["kinds"][2]["engine"]["spare"] = 0; }, "kinds[2].engine.spare"},
          {"no rows", [](json& d) { d["kinds"] = json::array(); }, "kinds"},
      },
      &ReportWriter::validateSummary);
}

// OUTPUTS.md, beside the sources, names every key the writer puts in either document.
TEST(OutputsDocument, NamesEveryKeyTheWriterWrites) {
  std::string source = __FILE__;
  const std::string tail = "tests/tools/replay/report/ReportWriterTest.cpp";
  ASSERT_GE(source.size(), tail.size());
  ASSERT_EQ(source.compare(source.size() - tail.size(), tail.size(), tail), 0) << source;
  const std::string doc = readFile(source.substr(0, source.size() - tail.size()) + "tools/replay/report/OUTPUTS.md");
  ASSERT_FALSE(doc.empty());
  std::set<std::string> keys;
  const std::vector<PressResult> presses = samplePresses();
  collectKeys(ReportWriter::decisionsJson(sampleRun(true), presses), keys);
  collectKeys(ReportWriter::summaryJson(sampleRun(true), Metrics::summarize(presses)), keys);
  collectKeys(ReportWriter::summaryJson(std::vector<RunInfo>{sampleRun(true)}, Metrics::summarize(presses)), keys);
  EXPECT_GT(keys.size(), 60u);
  for (const std::string& key : keys) EXPECT_NE(doc.find("`" + key + "`"), std::string::npos) << key;
}
