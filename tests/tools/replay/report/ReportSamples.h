#pragma once
// Presses and replays built by hand for the report tests.
#include <string>

#include "../ReplayTestUtil.h"
#include "ReplayTypes.h"

namespace kovane_replay_test {

// Frame interval of the samples' 30 fps time line, microseconds.
constexpr int64_t kFrameUs = 33333;

// A bare press (no per-frame data) with its shutter on frame 100, counted under `kind`: the
// captured picture good or not; whether the engine decided; the final and the baseline pictures
// as offsets from the shutter frame and whether each is good.
kovane_replay::PressResult barePress(const std::string& kind, bool capturedGood, bool decided, int finalOffset,
                                     bool finalGood, int baselineOffset, bool baselineGood);

// A press as a replay records it: frames shutter-14 .. shutter+8 of ground truth and the engine's
// scores of the same frames (same time stamps), the window ±6 frames. A press of a kind other
// than clean has the shutter frame and its two neighbours degraded (closed eyes for a blink),
// so its captured picture is bad. When `decided`, the engine picks shutter-3 (good) and the
// final picture is that frame; else the final is the captured one. The baseline picks
// shutter-2. Its files are capture-II/captured.jpg, final.jpg and record.json.
kovane_replay::PressResult timelinePress(int index, const std::string& kind, int shutterFrame, bool decided);

// A replay of a 10 s clip at 30 fps, 640x360.
kovane_replay::RunInfo sampleRun(bool engineDecides);

// Writes the press's captured and final JPEGs under `dir` (making capture-II): small pictures of
// a light disc moving across a coloured gradient, dark and striped when bad.
bool writePressPictures(const std::string& dir, const kovane_replay::PressResult& press, std::string* error);

}  // namespace kovane_replay_test
