#pragma once
// The small commands of kovane-replay around a replay: reading --size, merging the summaries of
// several replays into one table, asking whether a clip has faces, and the closing print-out.
#include <cstdio>
#include <string>
#include <vector>

#include "ReplayRunner.h"

namespace kovane_replay {

class ReplayCommands {
 public:
  // "WxH" with even positive numbers.
  static bool parseSize(const std::string& text, int& width, int& height);
  // Reads the summary.json of several replays, writes one summary.json into outDir and prints
  // the table when `print`.
  static bool mergeSummaries(const std::vector<std::string>& files, const std::string& outDir, bool print,
                             std::string* error);
  // Whether the face module finds a face on at least a tenth of the clip's frames.
  static bool clipHasFaces(const ReplayOptions& options, bool& found, std::string* error);
  // What a person wants to see after a replay: the table, the ZSL books, where the report is.
  static void printRunSummary(const ReplayRunner& runner, FILE* out);
};

}  // namespace kovane_replay
