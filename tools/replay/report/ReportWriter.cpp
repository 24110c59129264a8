#include "ReportWriter.h"

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>

#include "HtmlReport.h"
#include "Metrics.h"
#include "OutputSchema.h"
#include "PressTimeline.h"

namespace kovane_replay {

namespace {

using nlohmann::json;

bool failWith(std::string* error, const std::string& text) {
  if (error) *error = text;
  return false;
}

// JSON cannot hold NaN or infinity; such a value is written as 0.
double finite(double v) { return std::isfinite(v) ? v : 0.0; }
double secondsOf(int64_t us) { return static_cast<double>(us) / 1e6; }
json orNull(const std::string& s) { return s.empty() ? json(nullptr) : json(s); }

std::string joinPath(const std::string& dir, const std::string& path) {
  if (path.empty() || path[0] == '/' || dir.empty()) return path;
  return dir.back() == '/' ? dir + path : dir + "/" + path;
}

json labelsJson(const PressResult& press, int frame) {
  const FrameTruth* t = PressTimeline::truthOf(press, frame);
  if (!t) return nullptr;
  return {{"eyes_open", t->eyesOpen},
          {"degraded", !t->degradation.empty()},
          {"degradation", t->degradation},
          {"natural_blink", t->naturalBlink}};
}

json pictureJson(const PressResult& press, int frame, bool good) {
  return {{"frame", frame}, {"good", good}, {"labels", labelsJson(press, frame)}};
}

json truthJson(const FrameTruth& t) {
  return {{"degradation", t.degradation},   {"strength", finite(t.strength)},
          {"has_face", t.hasFace},          {"eyes_open", t.eyesOpen},
          {"natural_blink", t.naturalBlink}, {"blink_degree", t.blinkDegree},
          {"smile", t.smile},                {"sharpness", finite(t.sharpness)},
          {"good", t.good()}};
}

json engineJson(const EngineFrameScores& s) {
  return {{"frame_id", s.frameId},
          {"time_s", secondsOf(s.timestampUs)},
          {"sob_mean", finite(s.sobelMean)},
          {"motion", finite(s.motion)},
          {"fe_score", finite(s.feScore)},
          {"faces_score", finite(s.facesScore)},
          {"bs_score", finite(s.bsScore)},
          {"zsl", s.zsl},
          {"num_faces", s.numFaces},
          {"blink_degree", s.blinkDegree},
          {"smile", s.smile}};
}

json pressJson(const PressResult& p) {
  json timeline = json::array();
  for (const PressTimeline::Frame& f : PressTimeline::align(p)) {
    timeline.push_back({{"frame", f.truth->frame},
                        {"time_s", secondsOf(f.truth->timestampUs)},
                        {"in_window", f.inWindow},
                        {"truth", truthJson(*f.truth)},
                        {"engine", f.engine ? engineJson(*f.engine) : json(nullptr)}});
  }
  const bool hasFrame = p.engineDecided && p.engineFrame >= 0;
  return {{"index", p.index},
          {"job_id", p.jobId},
          {"kind", p.kind.empty() ? std::string(kind::kClean) : p.kind},
          {"source", p.source},
          {"shutter", {{"frame", p.shutterFrame}, {"time_s", secondsOf(p.shutterTimeUs)}}},
          {"window", {{"first", p.windowFirst}, {"last", p.windowLast}}},
          {"engine",
           {{"decided", p.engineDecided},
            {"frame", hasFrame ? json(p.engineFrame) : json(nullptr)},
            {"replace", p.replace},
            {"alg_bit_field", p.algBitField},
            {"capture_offset_us", p.captureOffsetUs},
            {"done", p.engineDone},
            {"decision_ms", p.decisionMs >= 0 && std::isfinite(p.decisionMs) ? json(p.decisionMs) : json(nullptr)},
            {"statistics_received", p.statisticsReceived}}},
          {"final", pictureJson(p, p.finalFrame, p.finalGood)},
          {"captured", pictureJson(p, p.shutterFrame, p.capturedGood)},
          {"baseline", pictureJson(p, p.baselineFrame, p.baselineGood)},
          {"files",
           {{"captured_jpg", orNull(p.capturedJpeg)},
            {"final_jpg", orNull(p.finalJpeg)},
            {"record_json", orNull(p.recordJson)},
            {"clip_mp4", orNull(p.clipMp4)},
            {"motion_jpg", orNull(p.motionJpg)}}},
          {"timeline", std::move(timeline)}};
}

json pctJson(const std::optional<double>& pct) { return pct ? json(Metrics::roundPct(*pct)) : json(nullptr); }

json rowJson(const KindSummary& r) {
  return {{"kind", r.kind},
          {"presses", r.presses},
          {"captured_good", r.capturedGood},
          {"captured_good_pct", pctJson(Metrics::capturedGoodPct(r))},
          {"decided", r.decided},
          {"engine",
           {{"good", r.engineGood},
            {"good_pct", pctJson(Metrics::engineGoodPct(r))},
            {"rescued", r.engineRescued},
            {"rescued_pct", pctJson(Metrics::engineRescuedPct(r))},
            {"harmed", r.engineHarmed},
            {"needless", r.engineNeedless}}},
          {"baseline",
           {{"good", r.baselineGood},
            {"good_pct", pctJson(Metrics::baselineGoodPct(r))},
            {"rescued", r.baselineRescued},
            {"rescued_pct", pctJson(Metrics::baselineRescuedPct(r))},
            {"harmed", r.baselineHarmed},
            {"needless", r.baselineNeedless}}}};
}

json kindsJson(const std::vector<KindSummary>& rows) {
  json kinds = json::array();
  for (const KindSummary& r : rows) kinds.push_back(rowJson(r));
  return kinds;
}

}  // namespace

ReportWriter::PictureSource ReportWriter::filesUnder(const std::string& dir) {
  return [dir](const std::string& path, std::vector<uint8_t>& bytes, std::string* error) {
    const std::string full = joinPath(dir, path);
    std::ifstream in(full, std::ios::binary);
    if (!in) return failWith(error, "cannot open " + full + ": " + strerror(errno));
    bytes.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    if (in.bad()) return failWith(error, "cannot read " + full);
    if (bytes.empty()) return failWith(error, full + " is empty");
    return true;
  };
}

json ReportWriter::runJson(const RunInfo& i) {
  return {{"clip", i.clip},
          {"clip_sha256", i.clipSha256},
          {"clip_width", i.clipWidth},
          {"clip_height", i.clipHeight},
          {"width", i.width},
          {"height", i.height},
          {"fit", i.fit},
          {"fps", finite(i.fps)},
          {"frames", i.frames},
          {"duration_s", finite(i.durationS)},
          {"faces", i.faces},
          {"shutter", i.shutter},
          {"degrade", i.degrade},
          {"seed", i.seed},
          {"pacing", i.pacing},
          {"late_mode_entered", i.lateModeEntered},
          {"late_frames", i.lateFrames},
          {"zsl_lent", i.zslLent},
          {"zsl_returned", i.zslReturned},
          {"zsl_double_returns", i.zslDoubleReturns},
          {"zsl_not_returned", i.zslNotReturned},
          {"zsl_skipped", i.zslSkipped},
          {"zsl_refused", i.zslRefused},
          {"jobs_finished", i.jobsFinished},
          {"engine_decides", i.engineDecides},
          {"wall_seconds", finite(i.wallSeconds)},
          {"engine_version", i.engineVersion}};
}

json ReportWriter::decisionsJson(const RunInfo& info, const std::vector<PressResult>& presses) {
  json list = json::array();
  for (const PressResult& p : presses) list.push_back(pressJson(p));
  return {{"run", runJson(info)}, {"presses", std::move(list)}};
}

json ReportWriter::summaryJson(const RunInfo& info, const std::vector<KindSummary>& rows) {
  return {{"run", runJson(info)}, {"kinds", kindsJson(rows)}, {"engine_decides", Metrics::engineDecides(rows)}};
}

json ReportWriter::summaryJson(const std::vector<RunInfo>& runs, const std::vector<KindSummary>& rows) {
  json list = json::array();
  for (const RunInfo& r : runs) list.push_back(runJson(r));
  return {{"runs", std::move(list)}, {"kinds", kindsJson(rows)}, {"engine_decides", Metrics::engineDecides(rows)}};
}

std::string ReportWriter::reportHtml(const RunInfo& info, const std::vector<PressResult>& presses,
                                     const std::vector<KindSummary>& rows, const PictureSource& pictures) {
  return HtmlReport::runPage(info, presses, rows, pictures);
}

std::string ReportWriter::mergedHtml(const std::vector<RunInfo>& runs, const std::vector<KindSummary>& rows) {
  return HtmlReport::mergedPage(runs, rows);
}

bool ReportWriter::validateDecisions(const json& doc, std::string* error) {
  return OutputSchema::validateDecisions(doc, error);
}

bool ReportWriter::validateSummary(const json& doc, std::string* error) {
  return OutputSchema::validateSummary(doc, error);
}

bool ReportWriter::readRun(const json& j, RunInfo& i, std::string* error) {
  if (!OutputSchema::validateRun(j, "run", error)) return false;
  i.clip = j["clip"].get<std::string>();
  i.clipSha256 = j["clip_sha256"].get<std::string>();
  i.clipWidth = j["clip_width"].get<int>();
  i.clipHeight = j["clip_height"].get<int>();
  i.width = j["width"].get<int>();
  i.height = j["height"].get<int>();
  i.fit = j["fit"].get<std::string>();
  i.fps = j["fps"].get<double>();
  i.frames = j["frames"].get<int>();
  i.durationS = j["duration_s"].get<double>();
  i.faces = j["faces"].get<std::string>();
  i.shutter = j["shutter"].get<std::string>();
  i.degrade = j["degrade"].get<std::string>();
  i.seed = j["seed"].get<uint64_t>();
  i.pacing = j["pacing"].get<std::string>();
  i.lateModeEntered = j["late_mode_entered"].get<bool>();
  i.lateFrames = j["late_frames"].get<int>();
  i.zslLent = j["zsl_lent"].get<int>();
  i.zslReturned = j["zsl_returned"].get<int>();
  i.zslDoubleReturns = j["zsl_double_returns"].get<int>();
  i.zslNotReturned = j["zsl_not_returned"].get<int>();
  i.zslSkipped = j["zsl_skipped"].get<int>();
  i.zslRefused = j["zsl_refused"].get<int>();
  i.jobsFinished = j["jobs_finished"].get<int>();
  i.engineDecides = j["engine_decides"].get<bool>();
  i.wallSeconds = j["wall_seconds"].get<double>();
  i.engineVersion = j["engine_version"].get<std::string>();
  return true;
}

bool ReportWriter::readSummary(const json& doc, std::vector<RunInfo>& runs, std::vector<KindSummary>& rows,
                               std::string* error) {
  if (!validateSummary(doc, error)) return false;
  runs.clear();
  rows.clear();
  const json runList = doc.contains("run") ? json::array({doc["run"]}) : doc["runs"];
  for (const json& r : runList) {
    RunInfo info;
    if (!readRun(r, info, error)) return false;
    runs.push_back(info);
  }
  for (const json& k : doc["kinds"]) {
    KindSummary s;
    s.kind = k["kind"].get<std::string>();
    s.presses = k["presses"].get<int>();
    s.capturedGood = k["captured_good"].get<int>();
    s.decided = k["decided"].get<int>();
    const json& e = k["engine"];
    s.engineGood = e["good"].get<int>();
    s.engineRescued = e["rescued"].get<int>();
    s.engineHarmed = e["harmed"].get<int>();
    s.engineNeedless = e["needless"].get<int>();
    const json& b = k["baseline"];
    s.baselineGood = b["good"].get<int>();
    s.baselineRescued = b["rescued"].get<int>();
    s.baselineHarmed = b["harmed"].get<int>();
    s.baselineNeedless = b["needless"].get<int>();
    rows.push_back(s);
  }
  return true;
}

bool ReportWriter::readSummaryFile(const std::string& path, std::vector<RunInfo>& runs,
                                   std::vector<KindSummary>& rows, std::string* error) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return failWith(error, "cannot open " + path + ": " + strerror(errno));
  const json doc = json::parse(in, nullptr, false);
  if (doc.is_discarded()) return failWith(error, path + " is not JSON");
  std::string why;
  if (!readSummary(doc, runs, rows, &why)) return failWith(error, path + " is not a replay summary: " + why);
  return true;
}

bool ReportWriter::writeRun(const std::string& outDir, const RunInfo& info, const std::vector<PressResult>& presses,
                            std::string* error) {
  const std::vector<KindSummary> rows = Metrics::summarize(presses);
  return writeJson(joinPath(outDir, kDecisionsFile), decisionsJson(info, presses), error) &&
         writeJson(joinPath(outDir, kSummaryFile), summaryJson(info, rows), error) &&
         writeText(joinPath(outDir, kReportFile), reportHtml(info, presses, rows, filesUnder(outDir)), error);
}

bool ReportWriter::writeMerged(const std::string& outDir, const std::vector<RunInfo>& runs,
                               const std::vector<KindSummary>& rows, std::string* error) {
  return writeJson(joinPath(outDir, kSummaryFile), summaryJson(runs, rows), error) &&
         writeText(joinPath(outDir, kReportFile), mergedHtml(runs, rows), error);
}

bool ReportWriter::writeJson(const std::string& path, const json& doc, std::string* error) {
  return writeText(path, doc.dump(2, ' ', false, json::error_handler_t::replace) + "\n", error);
}

bool ReportWriter::writeText(const std::string& path, const std::string& text, std::string* error) {
  FILE* f = fopen(path.c_str(), "wb");
  if (!f) return failWith(error, "cannot write " + path + ": " + strerror(errno));
  const bool written = fwrite(text.data(), 1, text.size(), f) == text.size();
  const bool closed = fclose(f) == 0;
  if (!written || !closed) return failWith(error, "cannot write " + path + " (disk full?)");
  return true;
}

}  // namespace kovane_replay
