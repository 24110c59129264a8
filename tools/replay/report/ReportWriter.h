#pragma once
// The outputs of a replay: decisions.json (every press with its per-frame ground truth and the
// engine's scores), summary.json (the counts per kind of press) and report.html (one
// self-contained page with the pictures inline). OUTPUTS.md beside this file documents every
// key of both JSON files; validateDecisions and validateSummary check a document against it.
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "ReplayTypes.h"

namespace kovane_replay {

class ReportWriter {
 public:
  // File names in the output folder.
  static constexpr const char* kDecisionsFile = "decisions.json";
  static constexpr const char* kSummaryFile = "summary.json";
  static constexpr const char* kReportFile = "report.html";

  // Gives the bytes of a picture named by its path relative to the output folder (as
  // PressResult holds it); false with the reason in *error.
  using PictureSource =
      std::function<bool(const std::string& path, std::vector<uint8_t>& bytes, std::string* error)>;
  // Reads pictures from files under `dir` (absolute paths are read as they are).
  static PictureSource filesUnder(const std::string& dir);

  // The documents.
  static nlohmann::json runJson(const RunInfo& info);
  static nlohmann::json decisionsJson(const RunInfo& info, const std::vector<PressResult>& presses);
  // Of one replay ("run") or of several merged ("runs"); `rows` as Metrics gives them.
  static nlohmann::json summaryJson(const RunInfo& info, const std::vector<KindSummary>& rows);
  static nlohmann::json summaryJson(const std::vector<RunInfo>& runs, const std::vector<KindSummary>& rows);
  // The page of one replay. A picture the source cannot give is named in the page instead.
  static std::string reportHtml(const RunInfo& info, const std::vector<PressResult>& presses,
                                const std::vector<KindSummary>& rows, const PictureSource& pictures);
  // The page of several replays merged: their headers and the table.
  static std::string mergedHtml(const std::vector<RunInfo>& runs, const std::vector<KindSummary>& rows);

  // Whether a document has the documented shape: every key present with its type, null only
  // where allowed, no other keys, counts that add up. False with the first fault (and where it
  // is) in *error.
  static bool validateDecisions(const nlohmann::json& doc, std::string* error);
  static bool validateSummary(const nlohmann::json& doc, std::string* error);

  // Reads back what summaryJson wrote (after validating it): the replays it covers and its rows.
  static bool readSummary(const nlohmann::json& doc, std::vector<RunInfo>& runs, std::vector<KindSummary>& rows,
                          std::string* error);
  static bool readSummaryFile(const std::string& path, std::vector<RunInfo>& runs, std::vector<KindSummary>& rows,
                              std::string* error);
  static bool readRun(const nlohmann::json& run, RunInfo& info, std::string* error);

  // Writes decisions.json, summary.json and report.html of one replay into `outDir` (which
  // exists; the pictures are read from the files the presses name under it).
  static bool writeRun(const std::string& outDir, const RunInfo& info, const std::vector<PressResult>& presses,
                       std::string* error);
  // Writes summary.json and report.html of several replays merged into `outDir`.
  static bool writeMerged(const std::string& outDir, const std::vector<RunInfo>& runs,
                          const std::vector<KindSummary>& rows, std::string* error);
  // A document as indented text (bad UTF-8 in strings replaced, never thrown on).
  static bool writeJson(const std::string& path, const nlohmann::json& doc, std::string* error);
  static bool writeText(const std::string& path, const std::string& text, std::string* error);
};

}  // namespace kovane_replay
