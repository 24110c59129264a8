#pragma once
// Where a replay presses the shutter: the presses of the --shutter text, the presses that carry
// a fault (--degrade) and the presses on natural blinks, merged into one list sorted by frame.
//
// Rules every press keeps:
//  - not before the warm-up (the engine needs a history of frames to choose from);
//  - not in the last kEndMarginS of the clip, and at least kFramesAfterShutter frames before
//    its end (the engine waits that many frames after the shutter before it decides);
//  - at least the spacing away from every other press, and a press with a fault at least
//    kGuardFrames frames away from every other press, so that its faulty frames (at most
//    kRunReach frames either side) stay out of the frames another press may choose from;
//  - a blink press has the main face on every frame within kRunReach of it, since the blink
//    is written into that face's records.
//
// Presses at given times (a list in --shutter, KIND@T in --degrade) must keep these rules or
// the plan fails. Faults at automatic times are then placed in the room left, at random
// from the seed, away from natural blinks when there is room for that. Presses on natural
// blinks and the periodic automatic presses come last and are dropped where they do not fit.
#include <cstdint>
#include <string>
#include <vector>

#include "DegradationSpec.h"

namespace kovane_replay {

// A natural blink as the face module found it, in frame indices.
struct BlinkSpan {
  int firstFrame = 0;
  int lastFrame = 0;
  int peakFrame = 0;  // the most closed frame
};

struct PlannedPress {
  int frame = 0;       // the shutter frame
  std::string kind;    // kind::kClean, kNaturalBlink, or the kind of the fault it carries
  std::string source;  // "auto", "list", "on-blinks" or "degrade"
};

class ShutterPlan {
 public:
  static constexpr double kDefaultWarmupS = 1.5;
  static constexpr double kDefaultSpacingS = 1.0;
  static constexpr double kDefaultAutoPeriodS = 2.0;
  static constexpr double kEndMarginS = 0.5;
  static constexpr int kFramesAfterShutter = 6;
  static constexpr int kRunReach = 5;      // the faulty frames of a press lie within ±5 frames
  static constexpr int kWindowFrames = 6;  // the engine chooses within ±6 frames of the shutter
  static constexpr int kGuardFrames = kRunReach + kWindowFrames + 1;

  struct Inputs {
    std::vector<int64_t> frameTimesUs;  // one per frame, increasing
    // auto (every 2 s), auto:N (every N s), none, on-blinks, or seconds (2.5,7.1); several
    // joined by commas, e.g. "on-blinks,4.5".
    std::string shutter = "auto";
    std::vector<DegradationRequest> degradations;
    std::vector<BlinkSpan> naturalBlinks;
    std::vector<bool> facePresent;  // per frame: the main face is there; empty = never
    double warmupS = kDefaultWarmupS;
    double spacingS = kDefaultSpacingS;
    uint64_t seed = 1;
  };

  // The presses sorted by frame into *out. False with a one-line reason that names the press
  // in *error (and *out empty) when a given time does not fit, the clip is too short, or
  // there is no room for every fault at an automatic time.
  static bool build(const Inputs& inputs, std::vector<PlannedPress>* out, std::string* error);
};

}  // namespace kovane_replay
