#pragma once
// One fault injected around one shutter press: the run of frames it covers and what it did to
// each of them. The replay's ground truth is read from it.
#include <cstdint>
#include <string>
#include <vector>

#include "ReplayTypes.h"

namespace kovane_replay {

struct DegradationEvent {
  std::string kind;  // kind::kBlink, kShake, kDefocus, kExposure or kNoise
  int shutterFrame = -1;
  int firstFrame = 0;  // the run of faulty frames, both ends included; it holds the
  int lastFrame = -1;  // shutter frame; empty (lastFrame < firstFrame) when unplanned
  int frameWidth = 0;  // picture width the values are for
  // Per frame of the run, firstFrame first, the value written to FrameTruth::strength:
  // blur length px (shake), Gaussian sigma px (defocus), luma gain (exposure), noise sigma in
  // grey levels (noise), the main face's larger blink degree (blink).
  std::vector<double> values;
  double angleRad = 0.0;     // shake: blur direction in the picture, 0 along +x, pi/2 along +y (down)
  double gyroPhase = 0.0;    // shake: phase of the rate's wobble within a frame
  int eyeDifference = 0;     // blink: the less closed eye is this much less closed (0..4)
  bool leftEyeLess = false;  // blink: which eye that is
  uint64_t noiseSeed = 0;    // noise: the stream of this event

  bool valid() const { return lastFrame >= firstFrame && !values.empty(); }
  int length() const { return valid() ? lastFrame - firstFrame + 1 : 0; }
  bool covers(int frame) const { return valid() && frame >= firstFrame && frame <= lastFrame; }
  // 0 for frames outside the run.
  double valueAt(int frame) const { return covers(frame) ? values[frame - firstFrame] : 0.0; }
  // Records the fault in the truth of a frame of the run; frames outside it are left alone.
  void markTruth(int frame, FrameTruth& truth) const {
    if (!covers(frame)) return;
    truth.degradation = kind;
    truth.strength = valueAt(frame);
  }
};

}  // namespace kovane_replay
