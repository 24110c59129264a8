// kovane-replay: runs a real clip through the engine the way a camera integration drives it,
// presses the shutter at chosen times (some on frames degraded on purpose), and writes what the
// engine decided against ground truth: decisions.json, summary.json, capture-NN/ pictures and
// records, and a self-contained report.html.
//
//   kovane-replay CLIP --out DIR [options]        one replay
//   kovane-replay CLIP --has-faces [--cache DIR]  prints yes when the face module finds faces
//   kovane-replay --merge S1.json S2.json ... --out DIR
//                                                 one table over several replays' summaries
//
// Exit status: 0 done, 1 the replay failed (a one-line reason on stderr), 2 bad command line.
#include <cstdio>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "ReplayCommands.h"
#include "ReplayRunner.h"

int main(int argc, char** argv) {
  using namespace kovane_replay;
  CLI::App app{"Replays a clip through the best-shot engine and measures its decisions"};
  ReplayOptions opt;
  std::string size;
  std::vector<std::string> merge;
  bool hasFaces = false;
  bool quiet = false;
  app.add_option("clip", opt.clip, "clip to replay (any format FFmpeg reads)");
  app.add_option("--out", opt.outDir, "output folder");
  app.add_option("--size", size, "preview size WxH (default: the clip's own up to 1280x720, "
                                 "raised to what the engine analyses)");
  app.add_option("--fit", opt.fit, "crop or letterbox when the aspect differs")
      ->check(CLI::IsMember({"crop", "letterbox"}));
  app.add_option("--fps", opt.fps, "frame rate for the time line instead of the clip's own")
      ->check(CLI::PositiveNumber);
  app.add_option("--until", opt.untilS, "replay only the clip's first seconds")->check(CLI::PositiveNumber);
  app.add_option("--faces", opt.faces, "dlib (detect, cached), none, or a CSV file of face records");
  app.add_option("--cache", opt.cacheDir, "folder of the face detection cache");
  app.add_option("--shutter", opt.shutter,
                 "presses: auto, auto:N (every N s), on-blinks, none, seconds (2.5,7.1), "
                 "or several joined by commas");
  app.add_option("--degrade", opt.degrade,
                 "faults around presses: KIND[@T] or KIND*N, joined by commas; KIND is blink, "
                 "shake, defocus, exposure or noise");
  app.add_option("--seed", opt.seed, "seed of the degradations and automatic times");
  app.add_option("--pace", opt.pace, "fast (SPEED times real time) or realtime")
      ->check(CLI::IsMember({"fast", "realtime"}));
  app.add_option("--speed", opt.speed, "times real time for --pace fast")->check(CLI::PositiveNumber);
  app.add_option("--warmup", opt.warmupS, "seconds before the first press")->check(CLI::NonNegativeNumber);
  app.add_option("--spacing", opt.spacingS, "least seconds between presses")->check(CLI::PositiveNumber);
  app.add_option("--zsl-buffers", opt.zslBuffers, "the camera's ZSL buffers")->check(CLI::Range(2, 64));
  app.add_flag("--video", opt.video, "every press asks for a clip: capture-NN/clip.mp4, shown in the report");
  app.add_flag("--quiet", quiet, "no progress lines and no table");
  app.add_flag("--has-faces", hasFaces, "print yes or no: does the face module find faces in the clip");
  app.add_option("--merge", merge, "summary.json files of several replays to put in one table");
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    return app.exit(e) == 0 ? 0 : 2;
  }
  opt.progress = !quiet;
  if (!size.empty() && !ReplayCommands::parseSize(size, opt.width, opt.height)) {
    fprintf(stderr, "kovane-replay: --size wants WxH with even numbers, got \"%s\"\n", size.c_str());
    return 2;
  }
  std::string error;
  if (!merge.empty()) {
    if (opt.outDir.empty()) {
      fprintf(stderr, "kovane-replay: --merge needs --out\n");
      return 2;
    }
    if (!ReplayCommands::mergeSummaries(merge, opt.outDir, !quiet, &error)) {
      fprintf(stderr, "kovane-replay: %s\n", error.c_str());
      return 1;
    }
    return 0;
  }
  if (opt.clip.empty()) {
    fprintf(stderr, "kovane-replay: no clip given (see --help)\n");
    return 2;
  }
  if (hasFaces) {
    bool found = false;
    if (!ReplayCommands::clipHasFaces(opt, found, &error)) {
      fprintf(stderr, "kovane-replay: %s\n", error.c_str());
      return 1;
    }
    printf("%s\n", found ? "yes" : "no");
    return 0;
  }
  if (opt.outDir.empty()) {
    fprintf(stderr, "kovane-replay: --out is required\n");
    return 2;
  }
  ReplayRunner runner(opt);
  if (!runner.run(&error)) {
    fprintf(stderr, "kovane-replay: %s\n", error.c_str());
    return 1;
  }
  if (!quiet) ReplayCommands::printRunSummary(runner, stdout);
  return 0;
}
