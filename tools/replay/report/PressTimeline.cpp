#include "PressTimeline.h"

#include <functional>
#include <map>

namespace kovane_replay {

std::vector<PressTimeline::Frame> PressTimeline::align(const PressResult& press) {
  // The ways of reading which frame a score belongs to, in order of preference: each gives
  // the key of a frame (time stamp or index) and the key of a score.
  struct Reading {
    std::function<int64_t(const FrameTruth&)> frameKey;
    std::function<int64_t(const EngineFrameScores&)> scoreKey;
  };
  const Reading readings[] = {
      {[](const FrameTruth& t) { return t.timestampUs; }, [](const EngineFrameScores& s) { return s.timestampUs; }},
      {[](const FrameTruth& t) { return static_cast<int64_t>(t.frame); },
       [](const EngineFrameScores& s) { return static_cast<int64_t>(s.frameId) - kFrameIdBase; }},
      {[](const FrameTruth& t) { return static_cast<int64_t>(t.frame); },
       [](const EngineFrameScores& s) { return static_cast<int64_t>(s.frameId); }},
  };
  std::map<int64_t, const EngineFrameScores*> best;
  size_t bestPlaced = 0;
  const Reading* chosen = nullptr;
  for (const Reading& r : readings) {
    std::map<int64_t, const EngineFrameScores*> byKey;
    for (const EngineFrameScores& s : press.engineScores) byKey[r.scoreKey(s)] = &s;
    size_t placed = 0;
    for (const FrameTruth& t : press.truth) placed += byKey.count(r.frameKey(t));
    if (placed > bestPlaced) {
      bestPlaced = placed;
      best.swap(byKey);
      chosen = &r;
    }
  }

  std::vector<Frame> frames;
  frames.reserve(press.truth.size());
  for (const FrameTruth& t : press.truth) {
    Frame f;
    f.truth = &t;
    if (chosen) {
      auto it = best.find(chosen->frameKey(t));
      if (it != best.end()) f.engine = it->second;
    }
    f.inWindow = t.frame >= press.windowFirst && t.frame <= press.windowLast;
    frames.push_back(f);
  }
  return frames;
}

const FrameTruth* PressTimeline::truthOf(const PressResult& press, int frame) {
  for (const FrameTruth& t : press.truth) {
    if (t.frame == frame) return &t;
  }
  return nullptr;
}

}  // namespace kovane_replay
