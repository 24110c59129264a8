#pragma once
// The chart of one press in report.html: an inline SVG of the per-frame scores around the
// shutter frame (sharpness, motion, eyes open, smile, on 0..100) above rows of markers for the
// degraded frames, the frames the engine kept a ZSL buffer of, the shutter frame, the engine's
// pick and the sharpest-frame baseline's pick, with a legend.
//
// Sharpness is the engine's "sob.mean" when its record has the frames, else the replay's own
// measure; either is shown relative to the sharpest frame of the chart (100). Motion is the
// engine's normalised score (0..1) times 100. Eyes open is 100 minus the main face's larger blink
// degree, and smile its smile degree, as the engine read them or else as they were fed.
#include <string>

#include "ReplayTypes.h"

namespace kovane_replay {

class TimelineSvg {
 public:
  // Size of the chart in its own units (it scales to the page's width).
  static constexpr int kWidth = 1000;

  // The <svg> element; a short note (in a <p>) when the press has no per-frame data.
  static std::string of(const PressResult& press);
};

}  // namespace kovane_replay
