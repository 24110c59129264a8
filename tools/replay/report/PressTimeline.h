#pragma once
// The frames shown around one press: its per-frame ground truth lined up with the engine's
// scores of the same frames.
//
// The engine's scores are put to the frame whose time stamp they carry. The replay's camera
// hands the engine its frames on a clock of its own, though, so when no score carries the time
// stamp of a frame shown they are put by frame id instead: the camera gives the clip's frame i
// the id i + kFrameIdBase (the engine takes id 0 for no frame). Ids equal to the frame index are
// accepted too, should a record number frames that way; whichever reading places more scores
// wins, time stamps first, then the camera's ids.
#include <vector>

#include "ReplayTypes.h"

namespace kovane_replay {

class PressTimeline {
 public:
  // Frame id the replay's camera gives the clip's first frame.
  static constexpr int kFrameIdBase = 1;

  struct Frame {
    const FrameTruth* truth = nullptr;            // never null
    const EngineFrameScores* engine = nullptr;    // null when the engine's record lacks the frame
    bool inWindow = false;                        // may become the press's best shot
  };

  // One entry per FrameTruth of the press, in its order; pointers into `press`.
  static std::vector<Frame> align(const PressResult& press);
  // The ground truth of one frame of the press, or null when it is not among those shown.
  static const FrameTruth* truthOf(const PressResult& press, int frame);
};

}  // namespace kovane_replay
