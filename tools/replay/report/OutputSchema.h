#pragma once
// The shapes of decisions.json and summary.json as OUTPUTS.md documents them, and the checks of
// a document against them. ReportWriter::validateDecisions and validateSummary come here.
#include <string>

#include <nlohmann/json.hpp>

namespace kovane_replay {

class OutputSchema {
 public:
  // Every documented key present with its type, null only where allowed, no other key, and
  // the numbers consistent with each other. False with the first fault, and the path of the
  // value at fault (e.g. "presses[2].engine.frame"), in *error.
  static bool validateDecisions(const nlohmann::json& doc, std::string* error);
  static bool validateSummary(const nlohmann::json& doc, std::string* error);
  // The "run" object both documents share.
  static bool validateRun(const nlohmann::json& run, const std::string& path, std::string* error);
};

}  // namespace kovane_replay
