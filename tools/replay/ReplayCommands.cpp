#include "ReplayCommands.h"

#include <cstdlib>
#include <filesystem>

#include "ClipDecoder.h"
#include "ClipFaceAnalysis.h"
#include "Metrics.h"
#include "ReportWriter.h"

namespace kovane_replay {

bool ReplayCommands::parseSize(const std::string& text, int& width, int& height) {
  const size_t x = text.find_first_of("xX");
  if (x == std::string::npos || x == 0 || x + 1 >= text.size()) return false;
  char* end = nullptr;
  const long w = strtol(text.c_str(), &end, 10);
  if (end != text.c_str() + x) return false;
  const long h = strtol(text.c_str() + x + 1, &end, 10);
  if (*end != '\0') return false;
  if (w < 16 || h < 16 || w > 8192 || h > 8192 || (w & 1) || (h & 1)) return false;
  width = static_cast<int>(w);
  height = static_cast<int>(h);
  return true;
}

bool ReplayCommands::mergeSummaries(const std::vector<std::string>& files, const std::string& outDir, bool print,
                                    std::string* error) {
  std::vector<RunInfo> runs;
  std::vector<std::vector<KindSummary>> tables;
  for (const std::string& file : files) {
    std::vector<RunInfo> fileRuns;
    std::vector<KindSummary> rows;
    if (!ReportWriter::readSummaryFile(file, fileRuns, rows, error)) return false;
    runs.insert(runs.end(), fileRuns.begin(), fileRuns.end());
    tables.push_back(rows);
  }
  const std::vector<KindSummary> merged = Metrics::merge(tables);
  std::error_code ec;
  std::filesystem::create_directories(outDir, ec);
  if (ec) {
    if (error) *error = "cannot make " + outDir + ": " + ec.message();
    return false;
  }
  if (!ReportWriter::writeMerged(outDir, runs, merged, error)) return false;
  if (print) {
    printf("%d replays, %d presses\n\n", static_cast<int>(runs.size()),
           Metrics::allRow(merged) ? Metrics::allRow(merged)->presses : 0);
    fputs(Metrics::formatTable(merged).c_str(), stdout);
    printf("\nsummary: %s/%s\n", outDir.c_str(), ReportWriter::kSummaryFile);
  }
  return true;
}

bool ReplayCommands::clipHasFaces(const ReplayOptions& options, bool& found, std::string* error) {
  ClipDecoder decoder;
  if (!decoder.open(options.clip)) {
    if (error) *error = decoder.error();
    return false;
  }
  ClipFaceAnalysis::Options fo;
  fo.width = options.width;
  fo.height = options.height;
  if (fo.width == 0 || fo.height == 0) {
    ReplayRunner::choosePreviewSize(decoder.info().width, decoder.info().height, fo.width, fo.height);
  }
  fo.fit = options.fit == "letterbox" ? ClipDecoder::FIT_LETTERBOX : ClipDecoder::FIT_CROP;
  fo.cacheDir = options.cacheDir;
  fo.progress = options.progress;
  ClipFaces faces;
  if (!ClipFaceAnalysis::analyse(options.clip, fo, faces, error)) return false;
  size_t withFace = 0;
  for (const auto& f : faces) withFace += f.empty() ? 0 : 1;
  found = !faces.empty() && withFace * 10 >= faces.size();
  return true;
}

void ReplayCommands::printRunSummary(const ReplayRunner& runner, FILE* out) {
  const RunInfo& info = runner.info();
  fprintf(out, "%s: %d frames at %dx%d (%s), %s, faces: %s\n", info.clip.c_str(), info.frames, info.width,
          info.height, info.fit.c_str(), info.pacing.c_str(), info.faces.c_str());
  fprintf(out, "%d presses, %d finished by the engine; ZSL buffers lent %d, returned %d, not returned %d, "
          "returned twice %d\n\n",
          static_cast<int>(runner.presses().size()), info.jobsFinished, info.zslLent, info.zslReturned,
          info.zslNotReturned, info.zslDoubleReturns);
  fputs(Metrics::formatTable(Metrics::summarize(runner.presses())).c_str(), out);
}

}  // namespace kovane_replay
