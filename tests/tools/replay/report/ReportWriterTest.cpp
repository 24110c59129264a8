// decisions.json and summary.json: what they hold, that they pass their own validation, that
// validation turns broken documents down, and that summaries read back for merging.
#include <gtest/gtest.h>

#include <fstream>
#include <functional>
#include <set>
#include <sstream>

#include <nlohmann/json.hpp>

#include "HtmlReport.h"
#include "Metrics.h"
#include "ReportSamples.h"
#include "ReportWriter.h"
#include "TempDir.h"

using kovane_replay::HtmlReport;
using kovane_replay::KindSummary;
using kovane_replay::Metrics;
using kovane_replay::PressResult;
using kovane_replay::ReportWriter;
using kovane_replay::RunInfo;
using kovane_replay_test::TempDir;
using kovane_replay_test::barePress;
using kovane_replay_test::sampleRun;
using kovane_replay_test::timelinePress;
using nlohmann::json;

namespace {

std::vector<PressResult> samplePresses() {
  return {timelinePress(0, "clean", 60, true), timelinePress(1, "blink", 120, true),
          timelinePress(2, "shake", 200, false)};
}

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

// A change to a valid document and the path the validator must name.
struct Breakage {
  const char* what;
  std::function<void(json&)> change;
  const char* path;
};

// Every key of a document, at any depth.
void collectKeys(const json& j, std::set<std::string>& keys) {
  if (j.is_object()) {
    for (auto it = j.begin(); it != j.end(); ++it) {
      keys.insert(it.key());
      collectKeys(it.value(), keys);
    }
  } else if (j.is_array()) {
    for (const json& e : j) collectKeys(e, keys);
  }
}

void expectRejected(const json& good, const std::vector<Breakage>& breakages,
                    bool (*validate)(const json&, std::string*)) {
  for (const Breakage& b : breakages) {
    json doc = good;
    b.change(doc);
    std::string error;
    EXPECT_FALSE(validate(doc, &error)) << b.what;
    EXPECT_NE(error.find(b.path), std::string::npos) << b.what << ": " << error;
  }
}

}  // namespace

TEST(DecisionsJson, HoldsEveryPressWithItsTimelineAndPassesValidation) {
  const std::vector<PressResult> presses = samplePresses();
  const json doc = ReportWriter::decisionsJson(sampleRun(true), presses);
  std::string error;
  ASSERT_TRUE(ReportWriter::validateDecisions(doc, &error)) << error;
  // It also survives being written and parsed again.
  ASSERT_TRUE(ReportWriter::validateDecisions(json::parse(doc.dump()), &error)) << error;

  EXPECT_EQ(doc["run"]["clip"], "/data/clips/desk_face_640x360_30fps.mp4");
  EXPECT_EQ(doc["run"]["seed"], 7);
  ASSERT_EQ(doc["presses"].size(), 3u);

  const json& blink = doc["presses"][1];
  EXPECT_EQ(blink["kind"], "blink");
  EXPECT_EQ(blink["shutter"]["frame"], 120);
  EXPECT_NEAR(blink["shutter"]["time_s"].get<double>(), 120 * 0.033333, 1e-6);
  EXPECT_EQ(blink["window"]["first"], 114);
  EXPECT_EQ(blink["engine"]["decided"], true);
  EXPECT_EQ(blink["engine"]["frame"], 117);
  EXPECT_EQ(blink["engine"]["alg_bit_field"], 0x15);
  EXPECT_DOUBLE_EQ(blink["engine"]["decision_ms"].get<double>(), 41.5);
  EXPECT_EQ(blink["final"]["frame"], 117);
  EXPECT_EQ(blink["final"]["good"], true);
  EXPECT_EQ(blink["captured"]["frame"], 120);
  EXPECT_EQ(blink["captured"]["good"], false);
  EXPECT_EQ(blink["captured"]["labels"]["eyes_open"], false);
  EXPECT_EQ(blink["captured"]["labels"]["degraded"], true);
  EXPECT_EQ(blink["captured"]["labels"]["degradation"], "blink");
  EXPECT_EQ(blink["baseline"]["frame"], 118);
  EXPECT_EQ(blink["baseline"]["labels"]["degraded"], false);
  EXPECT_EQ(blink["files"]["captured_jpg"], "capture-01/captured.jpg");

  // 23 frames around the shutter, each with its truth and the engine's scores of that frame.
  const json& timeline = blink["timeline"];
  ASSERT_EQ(timeline.size(), 23u);
  EXPECT_EQ(timeline[0]["frame"], 106);
  EXPECT_EQ(timeline[0]["in_window"], false);
  EXPECT_EQ(timeline[14]["frame"], 120);
  EXPECT_EQ(timeline[14]["in_window"], true);
  EXPECT_EQ(timeline[14]["truth"]["blink_degree"], 90);
  EXPECT_EQ(timeline[14]["truth"]["good"], false);
  EXPECT_EQ(timeline[14]["engine"]["frame_id"], 1120);
  EXPECT_EQ(timeline[14]["engine"]["zsl"], true);
  EXPECT_DOUBLE_EQ(timeline[14]["engine"]["sob_mean"].get<double>(), 25.0);

  // No decision: no engine frame, no decision time, the final picture is the captured one.
  const json& shake = doc["presses"][2];
  EXPECT_EQ(shake["engine"]["decided"], false);
  EXPECT_TRUE(shake["engine"]["frame"].is_null());
  EXPECT_TRUE(shake["engine"]["decision_ms"].is_null());
  EXPECT_EQ(shake["final"]["frame"], 200);
  EXPECT_EQ(shake["captured"]["labels"]["degradation"], "shake");
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
  EXPECT_EQ(timeline[3]["engine"]["frame_id"].get<int>(), timeline[3]["frame"].get<int>() + 1);
  EXPECT_EQ(timeline[9]["engine"]["frame_id"].get<int>(), timeline[9]["frame"].get<int>() + 1);
  EXPECT_TRUE(timeline[10]["engine"].is_null());
  EXPECT_TRUE(doc["presses"][0]["files"]["record_json"].is_null());

  // A record that numbers frames by their index is read that way.
  for (auto& s : p.engineScores) s.frameId -= 1;
  const json byIndex = ReportWriter::decisionsJson(sampleRun(true), {p});
  EXPECT_EQ(byIndex["presses"][0]["timeline"][0]["engine"]["frame_id"], byIndex["presses"][0]["timeline"][0]["frame"]);
  // Scores that fit no frame are left out.
  for (auto& s : p.engineScores) s.frameId += 500;
  const json none = ReportWriter::decisionsJson(sampleRun(true), {p});
  for (const json& f : none["presses"][0]["timeline"]) EXPECT_TRUE(f["engine"].is_null());
}

TEST(DecisionsJson, ValidationTurnsDownBrokenDocuments) {
  const json good = ReportWriter::decisionsJson(sampleRun(true), samplePresses());
  std::string error;
  ASSERT_TRUE(ReportWriter::validateDecisions(good, &error)) << error;
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
  EXPECT_TRUE(doc["engine_decides"].get<bool>());
  ASSERT_EQ(doc["kinds"].size(), 4u);
  const json& blink = doc["kinds"][1];
  EXPECT_EQ(blink["kind"], "blink");
  EXPECT_EQ(blink["presses"], 1);
  EXPECT_EQ(blink["captured_good_pct"], 0.0);
  EXPECT_EQ(blink["engine"]["rescued"], 1);
  EXPECT_EQ(blink["engine"]["rescued_pct"], 100.0);
  EXPECT_TRUE(doc["kinds"][0]["engine"]["rescued_pct"].is_null());  // clean: nothing to rescue
  const json& all = doc["kinds"][3];
  EXPECT_EQ(all["kind"], "all");
  EXPECT_EQ(all["engine"]["good_pct"], 66.7);
  EXPECT_EQ(all["baseline"]["good_pct"], 100.0);

  // Written, read back, merged with another replay.
  TempDir dir;
  ASSERT_FALSE(dir.path().empty());
  ASSERT_TRUE(ReportWriter::writeJson(dir.file("a.json"), doc, &error)) << error;
  const std::vector<KindSummary> other = Metrics::summarize({timelinePress(0, "noise", 90, false)});
  RunInfo otherRun = sampleRun(false);
  otherRun.clip = "second.mp4";
  ASSERT_TRUE(ReportWriter::writeJson(dir.file("b.json"), ReportWriter::summaryJson(otherRun, other), &error));
  std::vector<std::vector<KindSummary>> runsRows;
  std::vector<RunInfo> runs;
  for (const char* name : {"a.json", "b.json"}) {
    std::vector<RunInfo> r;
    std::vector<KindSummary> k;
    ASSERT_TRUE(ReportWriter::readSummaryFile(dir.file(name), r, k, &error)) << error;
    runs.insert(runs.end(), r.begin(), r.end());
    runsRows.push_back(k);
  }
  ASSERT_EQ(runs.size(), 2u);
  EXPECT_EQ(runs[0].degrade, "blink,shake");
  EXPECT_EQ(runs[0].seed, 7u);
  EXPECT_EQ(runs[1].clip, "second.mp4");
  ASSERT_EQ(runsRows[0].size(), rows.size());
  for (size_t i = 0; i < rows.size(); ++i) {
    EXPECT_EQ(runsRows[0][i].kind, rows[i].kind);
    EXPECT_EQ(runsRows[0][i].engineRescued, rows[i].engineRescued);
    EXPECT_EQ(runsRows[0][i].baselineNeedless, rows[i].baselineNeedless);
  }
  const std::vector<KindSummary> merged = Metrics::merge(runsRows);
  const json mergedDoc = ReportWriter::summaryJson(runs, merged);
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
  EXPECT_FALSE(ReportWriter::readSummaryFile(dir.file("missing.json"), runs, backRows, &error));
  EXPECT_NE(error.find("cannot open"), std::string::npos) << error;
  ASSERT_TRUE(ReportWriter::writeText(dir.file("bad.json"), "{ not json", &error));
  EXPECT_FALSE(ReportWriter::readSummaryFile(dir.file("bad.json"), runs, backRows, &error));
  EXPECT_NE(error.find("not JSON"), std::string::npos) << error;
  ASSERT_TRUE(ReportWriter::writeJson(dir.file("dec.json"),
                                      ReportWriter::decisionsJson(sampleRun(true), presses), &error));
  EXPECT_FALSE(ReportWriter::readSummaryFile(dir.file("dec.json"), runs, backRows, &error));
  EXPECT_NE(error.find("not a replay summary"), std::string::npos) << error;
}

TEST(SummaryJson, ValidationTurnsDownBrokenDocuments) {
  const json good = ReportWriter::summaryJson(sampleRun(true), Metrics::summarize(samplePresses()));
  std::string error;
  ASSERT_TRUE(ReportWriter::validateSummary(good, &error)) << error;
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

TEST(ReportFiles, WritesTheThreeOutputsAndSaysWhyWhenItCannot) {
  TempDir dir;
  ASSERT_FALSE(dir.path().empty());
  const std::vector<PressResult> presses = samplePresses();
  std::string error;
  for (const PressResult& p : presses) ASSERT_TRUE(kovane_replay_test::writePressPictures(dir.path(), p, &error));
  ASSERT_TRUE(ReportWriter::writeRun(dir.path(), sampleRun(true), presses, &error)) << error;
  const json decisions = json::parse(readFile(dir.file("decisions.json")), nullptr, false);
  const json summary = json::parse(readFile(dir.file("summary.json")), nullptr, false);
  EXPECT_TRUE(ReportWriter::validateDecisions(decisions, &error)) << error;
  EXPECT_TRUE(ReportWriter::validateSummary(summary, &error)) << error;
  const std::string html = readFile(dir.file("report.html"));
  EXPECT_EQ(html.rfind("<!DOCTYPE html>", 0), 0u);
  EXPECT_NE(html.find("data:image/jpeg;base64,/9j/"), std::string::npos);

  // Merged outputs.
  std::vector<KindSummary> rows = Metrics::summarize(presses);
  ASSERT_TRUE(ReportWriter::writeMerged(dir.path(), {sampleRun(true), sampleRun(false)}, rows, &error)) << error;
  EXPECT_TRUE(ReportWriter::validateSummary(json::parse(readFile(dir.file("summary.json"))), &error)) << error;
  EXPECT_NE(readFile(dir.file("report.html")).find("2 replays"), std::string::npos);

  EXPECT_FALSE(ReportWriter::writeRun(dir.file("no/such/folder"), sampleRun(true), presses, &error));
  EXPECT_NE(error.find("cannot write"), std::string::npos) << error;
  EXPECT_NE(error.find("no/such/folder"), std::string::npos) << error;
}

TEST(HtmlText, EscapesAndBase64) {
  EXPECT_EQ(HtmlReport::escape("<a href=\"x\">Tom & Jerry's</a>"),
            "&lt;a href=&quot;x&quot;&gt;Tom &amp; Jerry&#39;s&lt;/a&gt;");
  auto b64 = [](const std::string& s) { return HtmlReport::base64(std::vector<uint8_t>(s.begin(), s.end())); };
  EXPECT_EQ(b64(""), "");
  EXPECT_EQ(b64("f"), "Zg==");
  EXPECT_EQ(b64("fo"), "Zm8=");
  EXPECT_EQ(b64("foo"), "Zm9v");
  EXPECT_EQ(b64("foob"), "Zm9vYg==");
  EXPECT_EQ(b64("fooba"), "Zm9vYmE=");
  EXPECT_EQ(b64("foobar"), "Zm9vYmFy");
  EXPECT_EQ(HtmlReport::base64({0xFF, 0xD8, 0xFF, 0xE0}), "/9j/4A==");
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
