// Counting presses per kind (rescued, harmed and needless replacements of the engine and of the
// sharpest-frame baseline, no engine decision, runs merged, the terminal table), and
// decisions.json and summary.json: what they hold, that they pass their own validation, that
// validation turns broken documents down, and that summaries read back for merging.
#include <gtest/gtest.h>

#include <functional>
#include <optional>
#include <set>
#include <sstream>

#include <nlohmann/json.hpp>

#include "HtmlReport.h"
#include "Metrics.h"
#include "ReportSamples.h"
#include "ReportWriter.h"

using namespace kovane_replay;
using namespace kovane_replay_test;
using nlohmann::json;

namespace {

std::vector<PressResult> samplePresses() {
  return {timelinePress(0, "clean", 60, true), timelinePress(1, "blink", 120, true),
          timelinePress(2, "shake", 200, false)};
}

// The first place where `doc` differs from `want` on the keys `want` has ("" when none): the
// expected parts of a document written as JSON.
std::string mismatch(const json& doc, const std::string& want, const std::string& at = "") {
  const json w = json::parse(want);
  if (!w.is_object()) return doc == w ? "" : at + ": " + doc.dump() + " is not " + w.dump();
  for (auto it = w.begin(); it != w.end(); ++it) {
    if (!doc.is_object() || !doc.contains(it.key())) return at + "." + it.key() + ": missing";
    const std::string m = mismatch(doc[it.key()], it.value().dump(), at + "." + it.key());
    if (!m.empty()) return m;
  }
  return "";
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

// Each press counts once for the engine's final picture and once for the baseline's pick; the
// outcome reads "good rescued harmed needless" as 1/0.
TEST(MetricsOutcome, RescuedHarmedAndNeedlessOfOnePress) {
  const struct {
    const char* what;
    kovane_replay::PressResult press;
    bool baseline;
    const char* outcome;
  } cases[] = {
      {"bad capture moved to a good frame", barePress("blink", false, true, -3, true, 0, false), false, "1100"},
      {"good capture replaced by a bad frame", barePress("clean", true, true, 2, false, 0, true), false, "0011"},
      {"good capture replaced by a good frame", barePress("clean", true, true, -1, true, 0, true), false, "1001"},
      {"good capture kept", barePress("clean", true, true, 0, true, 0, true), false, "1000"},
      {"bad capture kept", barePress("shake", false, true, 0, false, 0, false), false, "0000"},
      // The baseline is judged on its own frame, not the engine's.
      {"baseline spoils a good capture", barePress("clean", true, true, 0, true, 4, false), true, "0011"},
      {"baseline rescues a bad capture", barePress("defocus", false, true, 0, false, -2, true), true, "1100"},
  };
  for (const auto& c : cases) {
    const Metrics::Outcome o = c.baseline ? Metrics::baselineOutcome(c.press) : Metrics::engineOutcome(c.press);
    EXPECT_EQ(std::string({"01"[o.good], "01"[o.rescued], "01"[o.harmed], "01"[o.needless]}), c.outcome) << c.what;
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

  // Runs merge kind by kind; merging one run changes nothing.
  const std::vector<KindSummary> a = Metrics::summarize({
      barePress("blink", false, true, -2, true, 0, false),
      barePress("clean", true, true, 0, true, 1, true),
  });
  const std::vector<KindSummary> b = Metrics::summarize({
      barePress("exposure", false, false, 0, false, 0, false),
      barePress("blink", false, true, 0, false, -1, true),
      barePress("clean", true, true, 2, false, 0, true),
  });
  EXPECT_EQ(countsOf(Metrics::merge({a, b, none})), (std::vector<std::string>{
                                                        "clean: 2 2 2 | 1 0 1 1 | 2 0 0 1",
                                                        "blink: 2 0 2 | 1 1 0 0 | 1 1 0 0",
                                                        "exposure: 1 0 0 | 0 0 0 0 | 0 0 0 0",
                                                        "all: 5 2 4 | 2 1 1 1 | 3 1 0 1",
                                                    }));
  EXPECT_EQ(countsOf(Metrics::merge({a})), countsOf(a));
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

TEST(MetricsTable, PercentagesAndColumnsForTheTerminal) {
  for (const auto& c : std::vector<std::pair<std::optional<double>, std::string>>{
           {100.0, "100%"}, {100.0 / 3, "33.3%"}, {200.0 / 3, "66.7%"}, {0.0, "0%"}, {std::nullopt, "\xE2\x80\x93"}}) {
    EXPECT_EQ(Metrics::formatPercent(c.first), c.second);
  }
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
  const std::pair<int, const char*> starts[] = {{1, "kind"}, {2, "clean "}, {3, "natural-blink"}, {4, "all "}};
  for (const auto& s : starts) EXPECT_EQ(lines[s.first].rfind(s.second, 0), 0u) << lines[s.first];
  // The clean row cannot rescue anything: its rescued columns show a dash; the blink row
  // rescued one of two.
  EXPECT_NE(lines[2].find("\xE2\x80\x93"), std::string::npos);
  EXPECT_NE(lines[3].find("50%"), std::string::npos);
  // Columns line up: the "presses" counts end where the heading does.
  const size_t end = lines[1].find("presses") + std::string("presses").size();
  for (size_t i = 2; i < lines.size(); ++i) EXPECT_EQ(lines[i][end - 1], "  123"[i]) << i;
}

TEST(DecisionsJson, HoldsEveryPressWithItsTimelineAndPassesValidation) {
  const json doc = ReportWriter::decisionsJson(sampleRun(true), samplePresses());
  std::string error;
  // Valid, also after being written and parsed again.
  ASSERT_TRUE(ReportWriter::validateDecisions(doc, &error) &&
              ReportWriter::validateDecisions(json::parse(doc.dump()), &error))
      << error;
  EXPECT_EQ(mismatch(doc["run"], R"({"clip": "/data/clips/desk_face_640x360_30fps.mp4", "seed": 7})"), "");
  ASSERT_EQ(doc["presses"].size(), 3u);

  const json& blink = doc["presses"][1];
  EXPECT_EQ(mismatch(blink, R"({"kind": "blink", "shutter": {"frame": 120}, "window": {"first": 114},
      "engine": {"decided": true, "frame": 117, "alg_bit_field": 21, "decision_ms": 41.5},
      "final": {"frame": 117, "good": true},
      "captured": {"frame": 120, "good": false,
                   "labels": {"eyes_open": false, "degraded": true, "degradation": "blink"}},
      "baseline": {"frame": 118, "labels": {"degraded": false}},
      "files": {"captured_jpg": "capture-01/captured.jpg"}})"),
            "");
  EXPECT_NEAR(blink["shutter"]["time_s"].get<double>(), 120 * 0.033333, 1e-6);

  // 23 frames around the shutter, each with its truth and the engine's scores of that frame.
  const json& timeline = blink["timeline"];
  ASSERT_EQ(timeline.size(), 23u);
  EXPECT_EQ(mismatch(timeline[0], R"({"frame": 106, "in_window": false})"), "");
  EXPECT_EQ(mismatch(timeline[14], R"({"frame": 120, "in_window": true, "truth": {"blink_degree": 90, "good": false},
      "engine": {"frame_id": 1120, "zsl": true, "sob_mean": 25.0}})"),
            "");

  // No decision: no engine frame, no decision time, the final picture is the captured one.
  EXPECT_EQ(mismatch(doc["presses"][2], R"({"engine": {"decided": false, "frame": null, "decision_ms": null},
      "final": {"frame": 200}, "captured": {"labels": {"degradation": "shake"}}})"),
            "");
}

// The replay's camera feeds the engine on a clock of its own and numbers frames from 1: the
// scores are then placed by frame id.
TEST(DecisionsJson, PlacesEngineScoresByFrameIdWhenTheirClockDiffersAndNullWhereMissing) {
  PressResult p = timelinePress(0, "clean", 60, true);
  for (auto& s : p.engineScores) {
    s.frameId = static_cast<uint32_t>(s.timestampUs / kovane_replay_test::kFrameUs + 1);
    s.timestampUs += 5000000;
  }
  p.engineScores.resize(10);  // the record stops early
  p.recordJson.clear();
  const json doc = ReportWriter::decisionsJson(sampleRun(true), {p});
  std::string error;
  ASSERT_TRUE(ReportWriter::validateDecisions(doc, &error)) << error;
  const json& timeline = doc["presses"][0]["timeline"];
  for (int i : {3, 9}) EXPECT_EQ(timeline[i]["engine"]["frame_id"].get<int>(), timeline[i]["frame"].get<int>() + 1);
  EXPECT_TRUE(timeline[10]["engine"].is_null());
  EXPECT_TRUE(doc["presses"][0]["files"]["record_json"].is_null());

  // A record that numbers frames by their index is read that way.
  for (auto& s : p.engineScores) s.frameId -= 1;
  const json byIndex = ReportWriter::decisionsJson(sampleRun(true), {p})["presses"][0]["timeline"][0];
  EXPECT_EQ(byIndex["engine"]["frame_id"], byIndex["frame"]);
  // Scores that fit no frame are left out.
  for (auto& s : p.engineScores) s.frameId += 500;
  const json unplaced = ReportWriter::decisionsJson(sampleRun(true), {p});
  for (const json& f : unplaced["presses"][0]["timeline"]) EXPECT_TRUE(f["engine"].is_null());
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
  const std::vector<KindSummary> rows = Metrics::summarize(presses);
  const json doc = ReportWriter::summaryJson(sampleRun(true), rows);
  std::string error;
  ASSERT_TRUE(ReportWriter::validateSummary(doc, &error)) << error;
  ASSERT_EQ(doc["kinds"].size(), 4u);
  EXPECT_EQ(mismatch(doc, R"({"engine_decides": true})"), "");
  EXPECT_EQ(mismatch(doc["kinds"][1], R"({"kind": "blink", "presses": 1, "captured_good_pct": 0.0,
                                          "engine": {"rescued": 1, "rescued_pct": 100.0}})"),
            "");
  EXPECT_TRUE(doc["kinds"][0]["engine"]["rescued_pct"].is_null());  // clean: nothing to rescue
  EXPECT_EQ(mismatch(doc["kinds"][3], R"({"kind": "all", "engine": {"good_pct": 66.7},
                                          "baseline": {"good_pct": 100.0}})"),
            "");

  // Written, read back, merged with another replay.
  kovane_replay_test::TempDir dir;
  ASSERT_FALSE(dir.path().empty());
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
  EXPECT_TRUE(runs[0].degrade == "blink,shake" && runs[0].seed == 7u && runs[1].clip == "second.mp4");
  // The rows read back write the same document again.
  EXPECT_EQ(ReportWriter::summaryJson(runs[0], runsRows[0]), doc);
  const json mergedDoc = ReportWriter::summaryJson(runs, Metrics::merge(runsRows));
  ASSERT_TRUE(ReportWriter::validateSummary(mergedDoc, &error)) << error;
  EXPECT_EQ(mergedDoc["runs"].size(), 2u);
  EXPECT_FALSE(mergedDoc.contains("run"));
  EXPECT_EQ(mergedDoc["kinds"].back()["presses"], 4);
  std::vector<RunInfo> backRuns;
  std::vector<KindSummary> backRows;
  ASSERT_TRUE(ReportWriter::readSummary(mergedDoc, backRuns, backRows, &error)) << error;
  EXPECT_EQ(backRuns.size(), 2u);
  EXPECT_EQ(backRows.back().presses, 4);

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

TEST(HtmlText, EscapesAndBase64) {
  EXPECT_EQ(HtmlReport::escape("<a href=\"x\">Tom & Jerry's</a>"),
            "&lt;a href=&quot;x&quot;&gt;Tom &amp; Jerry&#39;s&lt;/a&gt;");
  for (const auto& c : std::vector<std::pair<std::string, std::string>>{
           {"", ""}, {"f", "Zg=="}, {"fo", "Zm8="}, {"foo", "Zm9v"}, {"foob", "Zm9vYg=="}, {"fooba", "Zm9vYmE="},
           {"foobar", "Zm9vYmFy"}, {"\xFF\xD8\xFF\xE0", "/9j/4A=="}}) {
    EXPECT_EQ(HtmlReport::base64(std::vector<uint8_t>(c.first.begin(), c.first.end())), c.second) << c.first;
  }
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
