#include "OutputSchema.h"

#include <cmath>
#include <cstdint>
#include <initializer_list>
#include <map>
#include <optional>
#include <set>

#include "Metrics.h"

namespace kovane_replay {

namespace {

using nlohmann::json;

enum class Type { Bool, Int, Count, Number, String, Object, Array };

// One documented key of an object.
struct Key {
  const char* name;
  Type type;
  bool nullable;
};

const char* typeName(Type t) {
  switch (t) {
    case Type::Bool: return "a boolean";
    case Type::Int: return "an integer";
    case Type::Count: return "a non-negative integer";
    case Type::Number: return "a finite number";
    case Type::String: return "a string";
    case Type::Object: return "an object";
    case Type::Array: return "an array";
  }
  return "?";
}

const char* typeOf(const json& v) {
  if (v.is_null()) return "null";
  if (v.is_boolean()) return "a boolean";
  if (v.is_number_integer()) return "an integer";
  if (v.is_number()) return "a number";
  if (v.is_string()) return "a string";
  if (v.is_object()) return "an object";
  if (v.is_array()) return "an array";
  return "something else";
}

bool hasType(const json& v, Type t) {
  switch (t) {
    case Type::Bool: return v.is_boolean();
    case Type::Int: return v.is_number_integer();
    case Type::Count: return v.is_number_unsigned() || (v.is_number_integer() && v.get<int64_t>() >= 0);
    case Type::Number: return v.is_number() && std::isfinite(v.get<double>());
    case Type::String: return v.is_string();
    case Type::Object: return v.is_object();
    case Type::Array: return v.is_array();
  }
  return false;
}

bool fault(std::string* error, const std::string& path, const std::string& text) {
  if (error) *error = (path.empty() ? std::string("document") : path) + ": " + text;
  return false;
}

std::string at(const std::string& path, const std::string& key) { return path.empty() ? key : path + "." + key; }
std::string at(const std::string& path, size_t index) { return path + "[" + std::to_string(index) + "]"; }

// `obj` is an object holding exactly `keys`, each of its type or null where allowed.
bool checkObject(const json& obj, const std::string& path, std::initializer_list<Key> keys, std::string* error) {
  if (!obj.is_object()) return fault(error, path, std::string("expected an object, got ") + typeOf(obj));
  std::set<std::string> known;
  for (const Key& k : keys) {
    known.insert(k.name);
    auto it = obj.find(k.name);
    if (it == obj.end()) return fault(error, at(path, k.name), "missing");
    if (it->is_null() && k.nullable) continue;
    if (!hasType(*it, k.type)) {
      return fault(error, at(path, k.name),
                   std::string("expected ") + typeName(k.type) + (k.nullable ? " or null" : "") + ", got " +
                       typeOf(*it));
    }
  }
  for (auto it = obj.begin(); it != obj.end(); ++it) {
    if (!known.count(it.key())) return fault(error, at(path, it.key()), "not a documented key");
  }
  return true;
}

bool checkLabels(const json& labels, const std::string& path, std::string* error) {
  if (labels.is_null()) return true;
  return checkObject(labels, path,
                     {{"eyes_open", Type::Bool, false},
                      {"degraded", Type::Bool, false},
                      {"degradation", Type::String, false},
                      {"natural_blink", Type::Bool, false}},
                     error);
}

bool checkPicture(const json& pic, const std::string& path, bool withLabels, std::string* error) {
  if (withLabels) {
    if (!checkObject(pic, path,
                     {{"frame", Type::Int, false}, {"good", Type::Bool, false}, {"labels", Type::Object, true}},
                     error)) {
      return false;
    }
    return checkLabels(pic["labels"], at(path, "labels"), error);
  }
  return checkObject(pic, path, {{"frame", Type::Int, false}, {"good", Type::Bool, false}}, error);
}

bool checkTimeline(const json& timeline, const std::string& path, std::string* error) {
  int64_t lastFrame = INT64_MIN;
  for (size_t i = 0; i < timeline.size(); ++i) {
    const json& f = timeline[i];
    const std::string p = at(path, i);
    if (!checkObject(f, p,
                     {{"frame", Type::Int, false},
                      {"time_s", Type::Number, false},
                      {"in_window", Type::Bool, false},
                      {"truth", Type::Object, false},
                      {"engine", Type::Object, true}},
                     error)) {
      return false;
    }
    const int64_t frame = f["frame"].get<int64_t>();
    if (frame <= lastFrame) return fault(error, at(p, "frame"), "frames must increase along the timeline");
    lastFrame = frame;
    if (!checkObject(f["truth"], at(p, "truth"),
                     {{"degradation", Type::String, false},
                      {"strength", Type::Number, false},
                      {"has_face", Type::Bool, false},
                      {"eyes_open", Type::Bool, false},
                      {"natural_blink", Type::Bool, false},
                      {"blink_degree", Type::Int, false},
                      {"smile", Type::Int, false},
                      {"sharpness", Type::Number, false},
                      {"good", Type::Bool, false}},
                     error)) {
      return false;
    }
    if (!f["engine"].is_null() &&
        !checkObject(f["engine"], at(p, "engine"),
                     {{"frame_id", Type::Count, false},
                      {"time_s", Type::Number, false},
                      {"sob_mean", Type::Number, false},
                      {"motion", Type::Number, false},
                      {"fe_score", Type::Number, false},
                      {"faces_score", Type::Number, false},
                      {"bs_score", Type::Number, false},
                      {"zsl", Type::Bool, false},
                      {"num_faces", Type::Int, false},
                      {"blink_degree", Type::Int, false},
                      {"smile", Type::Int, false}},
                     error)) {
      return false;
    }
  }
  return true;
}

bool checkPress(const json& p, const std::string& path, std::string* error) {
  if (!checkObject(p, path,
                   {{"index", Type::Count, false},
                    {"job_id", Type::Int, false},
                    {"kind", Type::String, false},
                    {"source", Type::String, false},
                    {"shutter", Type::Object, false},
                    {"window", Type::Object, false},
                    {"engine", Type::Object, false},
                    {"final", Type::Object, false},
                    {"captured", Type::Object, false},
                    {"baseline", Type::Object, false},
                    {"files", Type::Object, false},
                    {"timeline", Type::Array, false}},
                   error)) {
    return false;
  }
  if (p["kind"].get<std::string>().empty()) return fault(error, at(path, "kind"), "empty");
  if (!checkObject(p["shutter"], at(path, "shutter"), {{"frame", Type::Int, false}, {"time_s", Type::Number, false}},
                   error) ||
      !checkObject(p["window"], at(path, "window"), {{"first", Type::Int, false}, {"last", Type::Int, false}},
                   error)) {
    return false;
  }
  const int64_t shutter = p["shutter"]["frame"].get<int64_t>();
  if (p["window"]["first"].get<int64_t>() > shutter || p["window"]["last"].get<int64_t>() < shutter) {
    return fault(error, at(path, "window"), "does not hold the shutter frame");
  }
  const json& engine = p["engine"];
  if (!checkObject(engine, at(path, "engine"),
                   {{"decided", Type::Bool, false},
                    {"frame", Type::Int, true},
                    {"replace", Type::Bool, false},
                    {"alg_bit_field", Type::Count, false},
                    {"capture_offset_us", Type::Int, false},
                    {"done", Type::Bool, false},
                    {"decision_ms", Type::Number, true},
                    {"statistics_received", Type::Bool, false}},
                   error)) {
    return false;
  }
  if (!engine["decided"].get<bool>() && !engine["frame"].is_null()) {
    return fault(error, at(path, "engine.frame"), "must be null when the engine did not decide");
  }
  if (!engine["decision_ms"].is_null() && engine["decision_ms"].get<double>() < 0) {
    return fault(error, at(path, "engine.decision_ms"), "negative");
  }
  if (!checkPicture(p["final"], at(path, "final"), true, error) ||
      !checkPicture(p["captured"], at(path, "captured"), true, error) ||
      !checkPicture(p["baseline"], at(path, "baseline"), true, error)) {
    return false;
  }
  if (p["captured"]["frame"].get<int64_t>() != shutter) {
    return fault(error, at(path, "captured.frame"), "is not the shutter frame");
  }
  if (!checkObject(p["files"], at(path, "files"),
                   {{"captured_jpg", Type::String, true},
                    {"final_jpg", Type::String, true},
                    {"record_json", Type::String, true},
                    {"clip_mp4", Type::String, true},
                    {"motion_jpg", Type::String, true}},
                   error)) {
    return false;
  }
  return checkTimeline(p["timeline"], at(path, "timeline"), error);
}

bool checkSide(const json& side, const std::string& path, int presses, int capturedGood, std::string* error) {
  if (!checkObject(side, path,
                   {{"good", Type::Count, false},
                    {"good_pct", Type::Number, true},
                    {"rescued", Type::Count, false},
                    {"rescued_pct", Type::Number, true},
                    {"harmed", Type::Count, false},
                    {"needless", Type::Count, false}},
                   error)) {
    return false;
  }
  const int good = side["good"].get<int>(), rescued = side["rescued"].get<int>();
  if (good > presses) return fault(error, at(path, "good"), "more than the presses");
  if (rescued > presses - capturedGood) return fault(error, at(path, "rescued"), "more than the bad captures");
  if (side["harmed"].get<int>() > capturedGood) return fault(error, at(path, "harmed"), "more than the good captures");
  if (side["needless"].get<int>() > capturedGood) {
    return fault(error, at(path, "needless"), "more than the good captures");
  }
  struct {
    const char* key;
    std::optional<double> expected;
  } pcts[] = {{"good_pct", Metrics::percent(good, presses)},
              {"rescued_pct", Metrics::percent(rescued, presses - capturedGood)}};
  for (const auto& pct : pcts) {
    const json& v = side[pct.key];
    if (!pct.expected) {
      if (!v.is_null()) return fault(error, at(path, pct.key), "must be null: nothing to count it over");
    } else if (v.is_null() || std::fabs(v.get<double>() - Metrics::roundPct(*pct.expected)) > 0.051) {
      return fault(error, at(path, pct.key), "does not match its counts");
    }
  }
  return true;
}

const char* const kRowCounts[] = {"presses", "captured_good", "decided"};
const char* const kSideCounts[] = {"good", "rescued", "harmed", "needless"};

bool checkRow(const json& row, const std::string& path, std::string* error) {
  if (!checkObject(row, path,
                   {{"kind", Type::String, false},
                    {"presses", Type::Count, false},
                    {"captured_good", Type::Count, false},
                    {"captured_good_pct", Type::Number, true},
                    {"decided", Type::Count, false},
                    {"engine", Type::Object, false},
                    {"baseline", Type::Object, false}},
                   error)) {
    return false;
  }
  const int presses = row["presses"].get<int>(), capturedGood = row["captured_good"].get<int>();
  if (capturedGood > presses) return fault(error, at(path, "captured_good"), "more than the presses");
  if (row["decided"].get<int>() > presses) return fault(error, at(path, "decided"), "more than the presses");
  const std::optional<double> pct = Metrics::percent(capturedGood, presses);
  const json& v = row["captured_good_pct"];
  if (pct ? (v.is_null() || std::fabs(v.get<double>() - Metrics::roundPct(*pct)) > 0.051) : !v.is_null()) {
    return fault(error, at(path, "captured_good_pct"), "does not match its counts");
  }
  return checkSide(row["engine"], at(path, "engine"), presses, capturedGood, error) &&
         checkSide(row["baseline"], at(path, "baseline"), presses, capturedGood, error);
}

}  // namespace

bool OutputSchema::validateRun(const json& run, const std::string& path, std::string* error) {
  return checkObject(run, path,
                     {{"clip", Type::String, false},
                      {"clip_sha256", Type::String, false},
                      {"clip_width", Type::Count, false},
                      {"clip_height", Type::Count, false},
                      {"width", Type::Count, false},
                      {"height", Type::Count, false},
                      {"fit", Type::String, false},
                      {"fps", Type::Number, false},
                      {"frames", Type::Count, false},
                      {"duration_s", Type::Number, false},
                      {"faces", Type::String, false},
                      {"shutter", Type::String, false},
                      {"degrade", Type::String, false},
                      {"seed", Type::Count, false},
                      {"pacing", Type::String, false},
                      {"late_mode_entered", Type::Bool, false},
                      {"late_frames", Type::Count, false},
                      {"zsl_lent", Type::Count, false},
                      {"zsl_returned", Type::Count, false},
                      {"zsl_double_returns", Type::Count, false},
                      {"zsl_not_returned", Type::Count, false},
                      {"zsl_skipped", Type::Count, false},
                      {"zsl_refused", Type::Count, false},
                      {"jobs_finished", Type::Count, false},
                      {"engine_decides", Type::Bool, false},
                      {"wall_seconds", Type::Number, false},
                      {"engine_version", Type::String, false}},
                     error);
}

bool OutputSchema::validateDecisions(const json& doc, std::string* error) {
  if (!checkObject(doc, "", {{"run", Type::Object, false}, {"presses", Type::Array, false}}, error) ||
      !validateRun(doc["run"], "run", error)) {
    return false;
  }
  bool anyDecided = false;
  std::set<int64_t> indices;
  for (size_t i = 0; i < doc["presses"].size(); ++i) {
    const json& p = doc["presses"][i];
    if (!checkPress(p, at("presses", i), error)) return false;
    if (!indices.insert(p["index"].get<int64_t>()).second) {
      return fault(error, at(at("presses", i), "index"), "used by an earlier press");
    }
    anyDecided = anyDecided || p["engine"]["decided"].get<bool>();
  }
  if (doc["run"]["engine_decides"].get<bool>() != anyDecided) {
    return fault(error, "run.engine_decides", "disagrees with the presses' engine.decided");
  }
  return true;
}

bool OutputSchema::validateSummary(const json& doc, std::string* error) {
  if (!doc.is_object()) return fault(error, "", std::string("expected an object, got ") + typeOf(doc));
  const bool single = doc.contains("run");
  if (single == doc.contains("runs")) return fault(error, "", "needs exactly one of \"run\" and \"runs\"");
  if (!checkObject(doc, "",
                   {{single ? "run" : "runs", single ? Type::Object : Type::Array, false},
                    {"kinds", Type::Array, false},
                    {"engine_decides", Type::Bool, false}},
                   error)) {
    return false;
  }
  if (single) {
    if (!validateRun(doc["run"], "run", error)) return false;
  } else {
    if (doc["runs"].empty()) return fault(error, "runs", "empty");
    for (size_t i = 0; i < doc["runs"].size(); ++i) {
      if (!validateRun(doc["runs"][i], at("runs", i), error)) return false;
    }
  }
  const json& kinds = doc["kinds"];
  if (kinds.empty()) return fault(error, "kinds", "empty: there is always an \"all\" row");
  std::set<std::string> seen;
  std::map<std::string, int> sums;  // "presses", "engine.good", ...
  for (size_t i = 0; i < kinds.size(); ++i) {
    const std::string p = at("kinds", i);
    if (!checkRow(kinds[i], p, error)) return false;
    const std::string k = kinds[i]["kind"].get<std::string>();
    if (k.empty()) return fault(error, at(p, "kind"), "empty");
    if (!seen.insert(k).second) return fault(error, at(p, "kind"), "\"" + k + "\" appears twice");
    const bool last = i + 1 == kinds.size();
    if ((k == Metrics::kAll) != last) return fault(error, at(p, "kind"), "the \"all\" row must come last");
    if (last) break;
    for (const char* c : kRowCounts) sums[c] += kinds[i][c].get<int>();
    for (const char* side : {"engine", "baseline"}) {
      for (const char* c : kSideCounts) sums[std::string(side) + "." + c] += kinds[i][side][c].get<int>();
    }
  }
  // The "all" row adds up the kind rows (a replay without presses has only the "all" row).
  const json& all = kinds.back();
  if (kinds.size() > 1) {
    for (const char* c : kRowCounts) {
      if (all[c].get<int>() != sums[c]) {
        return fault(error, at(at("kinds", kinds.size() - 1), c), "is not the sum of the kind rows");
      }
    }
    for (const char* side : {"engine", "baseline"}) {
      for (const char* c : kSideCounts) {
        if (all[side][c].get<int>() != sums[std::string(side) + "." + c]) {
          return fault(error, at(at(at("kinds", kinds.size() - 1), side), c), "is not the sum of the kind rows");
        }
      }
    }
  } else if (all["presses"].get<int>() != 0) {
    return fault(error, "kinds", "presses counted but no row of their kind");
  }
  if (doc["engine_decides"].get<bool>() != (all["decided"].get<int>() > 0)) {
    return fault(error, "engine_decides", "disagrees with the \"all\" row's decided");
  }
  if (single && doc["run"]["engine_decides"].get<bool>() != doc["engine_decides"].get<bool>()) {
    return fault(error, "run.engine_decides", "disagrees with engine_decides");
  }
  return true;
}

}  // namespace kovane_replay
