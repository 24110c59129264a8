#pragma once
// One replay: a clip through the engine by way of the simulated camera, with faces, shutter
// presses and degradations, and the results of every press measured against ground truth.
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "ReplayTypes.h"

namespace kovane_replay {

struct ReplayOptions {
  std::string clip;
  std::string outDir;
  int width = 0;               // 0x0: the default preview size (see choosePreviewSize)
  int height = 0;
  std::string fit = "crop";    // "crop" or "letterbox"
  double fps = 0.0;            // > 0 overrides the clip's time line
  double untilS = 0.0;         // > 0: replay only the clip's first seconds
  std::string faces = "dlib";  // "dlib", "none" or a CSV file
  std::string cacheDir;        // face detection cache; "" = none
  std::string shutter = "auto";
  std::string degrade;
  uint64_t seed = 1;
  std::string pace = "fast";   // "fast" or "realtime"
  double speed = 8.0;          // fast pacing: times real time
  double warmupS = 1.5;
  double spacingS = 1.0;
  int zslBuffers = 10;
  int jpegQuality = 90;
  bool progress = true;        // progress lines when stderr is a terminal
  int waitMs = 3000;           // after the last frame, how long jobs may take to finish
  bool video = false;          // every press asks for a clip, written to capture-NN/clip.mp4
};

class ReplayRunner {
 public:
  explicit ReplayRunner(const ReplayOptions& options);
  ~ReplayRunner();

  // Runs the replay and writes the outputs. False with a one-line reason in *error.
  bool run(std::string* error);

  const RunInfo& info() const { return mInfo; }
  const std::vector<PressResult>& presses() const { return mPresses; }

  // The preview size a replay uses when none is asked for: the clip's own size when it is
  // at most 1280x720 and big enough for the engine's 640x360 (16:9) or 640x480 (4:3) analysis
  // image, a larger clip scaled down to fit 1280x720, a smaller one scaled up to the smallest
  // size with the clip's aspect that holds the analysis image. Sizes are even.
  static void choosePreviewSize(int clipWidth, int clipHeight, int& width, int& height);
  // Frames within reach of the best shot of a press: ±6 frames and ±430 ms of the shutter.
  static void pressWindow(const std::vector<int64_t>& timesUs, int shutter, int& first, int& last);

 private:
  bool fail(std::string* error, const std::string& text);
  bool prepare(std::string* error);
  bool replay(std::string* error);
  void collect();
  bool writeOutputs(std::string* error);
  // capture-NN of a press (by its place in the plan) and the clip file in it.
  std::string captureDir(size_t press) const;
  std::string clipPath(size_t press) const;
  // Makes the press's folder and opens its clip file for the engine; -1 when it cannot.
  int openClip(size_t press);

  ReplayOptions mOptions;
  RunInfo mInfo;
  std::vector<int64_t> mTimesUs;
  ClipFaces mFaces;
  std::vector<FrameTruth> mTruth;
  std::vector<PressResult> mPresses;
  struct Impl;
  std::unique_ptr<Impl> mImpl;
};

}  // namespace kovane_replay
