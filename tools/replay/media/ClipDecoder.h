#pragma once
// Reads a clip with FFmpeg and hands out its frames one at a time as NV21 pictures at a chosen
// preview size, with the clip's own presentation times.
//
// Size: the picture is scaled to the preview size keeping its aspect. With FIT_CROP the scaled
// picture covers the preview and the overhang is cut off evenly on both sides; with
// FIT_LETTERBOX it fits inside and the rest is black (luma 16, neutral chroma).
#include <cstdint>
#include <memory>
#include <string>

#include "ReplayTypes.h"

namespace kovane_replay {

class ClipDecoder {
 public:
  enum Fit { FIT_CROP, FIT_LETTERBOX };

  struct Info {
    int width = 0;           // the clip's own picture size
    int height = 0;
    double fps = 0.0;        // average frame rate as the container states it
    int64_t durationUs = 0;  // 0 when unknown
    int frameCountHint = 0;  // from the container; 0 when unknown
  };

  ClipDecoder();
  ~ClipDecoder();
  ClipDecoder(const ClipDecoder&) = delete;
  ClipDecoder& operator=(const ClipDecoder&) = delete;

  // Opens the clip and reads its stream information. False with a one-line reason in error().
  bool open(const std::string& path);
  const Info& info() const { return mInfo; }

  // Output size and fit for the frames that follow; even sizes of at least 16x16. 0x0 keeps
  // the clip's own size (rounded down to even). Call after open and before the first frame.
  bool setOutput(int width, int height, Fit fit);
  // With fps > 0, presentation times are index / fps instead of the clip's own.
  void overrideFps(double fps) { mFpsOverride = fps; }

  // The next frame in presentation order. False at the end of the clip or on an error (then
  // error() is not empty).
  bool next(ClipFrame& out);

  const std::string& error() const { return mError; }
  int outputWidth() const { return mOutWidth; }
  int outputHeight() const { return mOutHeight; }

 private:
  struct State;
  bool fail(const std::string& text);
  bool convert(ClipFrame& out);

  std::unique_ptr<State> mState;
  Info mInfo;
  std::string mError;
  int mOutWidth = 0;
  int mOutHeight = 0;
  Fit mFit = FIT_CROP;
  double mFpsOverride = 0.0;
  int mNextIndex = 0;
  int64_t mFirstPts = INT64_MIN;
};

}  // namespace kovane_replay
