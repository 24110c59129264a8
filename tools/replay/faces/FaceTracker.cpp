#include "FaceTracker.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <utility>

namespace kovane_replay {

namespace {

// The p-quantile (0..1) of the values, nearest rank below; values is reordered.
float percentile(std::vector<float>& values, double p) {
  const size_t k = static_cast<size_t>(p * static_cast<double>(values.size() - 1));
  std::nth_element(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(k), values.end());
  return values[k];
}

int clampDegree(double d) {
  if (!(d > 0.0)) return 0;  // also NaN
  return static_cast<int>(std::lround(std::min(d, 100.0)));
}

int blinkDegree(float ear, float openEar) {
  const double closedEar = FaceTracker::kClosedFraction * openEar;
  return clampDegree((openEar - ear) / (openEar - closedEar) * 100.0);
}

int smileDegree(float ratio, float neutral) {
  const double widening = ratio / neutral - 1.0;
  return clampDegree((widening - FaceTracker::kSmileDeadZone) /
                     (FaceTracker::kSmileFullWidening - FaceTracker::kSmileDeadZone) * 100.0);
}

bool measured(const FaceRecord& r) {
  return r.leftEar > 0.f || r.rightEar > 0.f || r.mouthRatio > 0.f;
}

}  // namespace

FaceTracker::FaceTracker(int frameCount) {
  if (frameCount > 0) mFaces.resize(static_cast<size_t>(frameCount));
}

double FaceTracker::overlap(const FaceRecord& a, const FaceRecord& b) {
  const double x0 = std::max(a.left, b.left);
  const double y0 = std::max(a.top, b.top);
  const double x1 = std::min(static_cast<double>(a.left) + a.width, static_cast<double>(b.left) + b.width);
  const double y1 = std::min(static_cast<double>(a.top) + a.height, static_cast<double>(b.top) + b.height);
  if (x1 <= x0 || y1 <= y0) return 0.0;
  const double inter = (x1 - x0) * (y1 - y0);
  const double uni = static_cast<double>(a.width) * a.height +
                     static_cast<double>(b.width) * b.height - inter;
  return uni > 0.0 ? inter / uni : 0.0;
}

void FaceTracker::add(int frame, std::vector<FaceRecord> faces) {
  if (frame < 0 || frame <= mLastFrame) return;  // frames come in increasing order
  mLastFrame = frame;
  // Tracks too old to continue.
  mTracks.erase(std::remove_if(mTracks.begin(), mTracks.end(),
                               [&](const Track& t) { return frame - t.lastFrame > kMaxGapFrames + 1; }),
                mTracks.end());
  // Greedy matching, best overlap first.
  struct Pair {
    double iou;
    size_t track, face;
  };
  std::vector<Pair> pairs;
  for (size_t t = 0; t < mTracks.size(); ++t) {
    for (size_t f = 0; f < faces.size(); ++f) {
      const double iou = overlap(mTracks[t].last, faces[f]);
      if (iou >= kMinOverlap) pairs.push_back({iou, t, f});
    }
  }
  std::stable_sort(pairs.begin(), pairs.end(), [](const Pair& a, const Pair& b) { return a.iou > b.iou; });
  std::vector<bool> trackUsed(mTracks.size(), false), faceUsed(faces.size(), false);
  for (const Pair& p : pairs) {
    if (trackUsed[p.track] || faceUsed[p.face]) continue;
    trackUsed[p.track] = faceUsed[p.face] = true;
    faces[p.face].id = mTracks[p.track].id;
    mTracks[p.track].last = faces[p.face];
    mTracks[p.track].lastFrame = frame;
  }
  for (size_t f = 0; f < faces.size(); ++f) {
    if (faceUsed[f]) continue;
    faces[f].id = mNextId++;
    Track t;
    t.id = faces[f].id;
    t.lastFrame = frame;
    t.last = faces[f];
    mTracks.push_back(t);
  }
  if (mFaces.size() <= static_cast<size_t>(frame)) mFaces.resize(static_cast<size_t>(frame) + 1);
  mFaces[static_cast<size_t>(frame)] = std::move(faces);
}

ClipFaces FaceTracker::finish() {
  assignDegrees(mFaces);
  return mFaces;
}

void FaceTracker::assignDegrees(ClipFaces& faces) {
  // Each id's records in frame order.
  std::map<int, std::vector<std::pair<int, FaceRecord*>>> tracks;
  for (size_t frame = 0; frame < faces.size(); ++frame) {
    for (FaceRecord& r : faces[frame]) {
      if (measured(r)) tracks[r.id].push_back({static_cast<int>(frame), &r});
    }
  }
  std::vector<float> window;
  for (auto& entry : tracks) {
    auto& recs = entry.second;
    size_t lo = 0, hi = 0;  // records within the window: [lo, hi)
    for (size_t i = 0; i < recs.size(); ++i) {
      const int frame = recs[i].first;
      while (recs[lo].first < frame - kBaselineHalfWindow) ++lo;
      while (hi < recs.size() && recs[hi].first <= frame + kBaselineHalfWindow) ++hi;
      // Baseline of one measurement over the window; `fallback` when too few frames have it.
      auto baseline = [&](float FaceRecord::*field, double p, float fallback) {
        window.clear();
        for (size_t k = lo; k < hi; ++k) {
          const float v = recs[k].second->*field;
          if (v > 0.f && std::isfinite(v)) window.push_back(v);
        }
        if (window.size() < static_cast<size_t>(kMinBaselineSamples)) return fallback;
        return percentile(window, p);
      };
      FaceRecord& r = *recs[i].second;
      if (r.leftEar > 0.f) {
        r.leftBlink = blinkDegree(r.leftEar, baseline(&FaceRecord::leftEar, kOpenPercentile, kTypicalOpenEar));
      }
      if (r.rightEar > 0.f) {
        r.rightBlink = blinkDegree(r.rightEar, baseline(&FaceRecord::rightEar, kOpenPercentile, kTypicalOpenEar));
      }
      if (r.mouthRatio > 0.f) {
        r.smile = smileDegree(r.mouthRatio,
                              baseline(&FaceRecord::mouthRatio, kNeutralPercentile, kTypicalNeutralMouth));
      }
    }
  }
}

}  // namespace kovane_replay
