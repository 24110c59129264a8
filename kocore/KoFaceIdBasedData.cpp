#include "KoFaceIdBasedData.h"

#include <algorithm>
#include <vector>

#include "KoFrameData.h"
#include "KoFrameHistSnapshot.h"

namespace android {

namespace {

// One appearance of a face: history index, larger blink degree of its eyes, smile degree.
struct Sighting {
  int32_t index;
  int32_t blink;
  int32_t smile;
};

struct Track {
  int32_t id;
  std::vector<Sighting> sightings;  // increasing index, at most one per frame
};

int32_t medianOf(std::vector<int32_t> v) {
  if (v.empty()) return 0;
  std::sort(v.begin(), v.end());
  const size_t n = v.size();
  return n % 2 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
}

__attribute__((no_sanitize("vptr"))) KoFrameData* frameAt(KoFrameHistSnapshot* hist, size_t i) {
  KoFrameHistNode* node = hist->mHistory[i].get();
  return node != nullptr ? node->mFrameData.get() : nullptr;
}

__attribute__((no_sanitize("vptr"))) bool hasFaceRecord(const KoFrameData* f) {
  return (f->mProcessedEvents.load(std::memory_order_acquire) & KoFrameData::EVENT_FACE) != 0 ||
         f->mFaceData.record.frameId != 0;
}

}  // namespace

KoFaceIdBasedData::KoFaceIdBasedData(KoFrameHistSnapshot* snapshot) : mSnapshot(snapshot) {}

KoFaceIdBasedData::~KoFaceIdBasedData() {}

__attribute__((no_sanitize("vptr"))) int KoFaceIdBasedData::populateFaceIdBasedData() {
  mTracks.clear();
  if (mSnapshot == nullptr) return -1;
  const size_t count = mSnapshot->mHistory.size();

  // Follow every face id through the history.
  std::vector<Track> tracks;
  for (size_t i = 0; i < count; ++i) {
    const KoFrameData* f = frameAt(mSnapshot, i);
    if (f == nullptr || !hasFaceRecord(f)) continue;
    const uint32_t n = f->faceCount();
    for (uint32_t k = 0; k < n; ++k) {
      const KO_cam_face_t& face = f->mFaceData.record.faces[k];
      auto it = std::find_if(tracks.begin(), tracks.end(),
                             [&](const Track& t) { return t.id == face.id; });
      if (it == tracks.end()) {
        tracks.push_back(Track{face.id, {}});
        it = tracks.end() - 1;
      }
      if (!it->sightings.empty() && it->sightings.back().index == static_cast<int32_t>(i)) {
        continue;  // the same id twice in one record: keep the first
      }
      it->sightings.push_back(Sighting{static_cast<int32_t>(i),
                                       std::max<int32_t>(face.leftBlink, face.rightBlink),
                                       face.smileDegree});
    }
  }

  // Predict the blinks of every face and count them per frame.
  std::vector<int32_t> blinking(count, 0);
  for (const Track& t : tracks) {
    const std::vector<Sighting>& s = t.sightings;
    std::vector<int32_t> degrees;
    int64_t smileSum = 0;
    int32_t maxSmile = 0;
    for (const Sighting& x : s) {
      degrees.push_back(x.blink);
      smileSum += x.smile;
      maxSmile = std::max(maxSmile, x.smile);
    }
    const int32_t usual = medianOf(degrees);
    auto candidate = [&](const Sighting& x) {
      return x.blink >= BLINK_MID_DEGREE && x.blink >= usual + BLINK_RISE;
    };
    FaceTrack summary;
    summary.id = t.id;
    summary.frames = static_cast<int32_t>(s.size());
    summary.firstIndex = s.front().index;
    summary.lastIndex = s.back().index;
    summary.usualBlink = usual;
    summary.blinkFrames = 0;
    summary.blinks = 0;
    summary.meanSmile = static_cast<int32_t>(smileSum / static_cast<int64_t>(s.size()));
    summary.maxSmile = maxSmile;

    size_t a = 0;
    while (a < s.size()) {
      if (!candidate(s[a])) {
        ++a;
        continue;
      }
      // The run a..b-1 of candidate sightings with no longer gaps than allowed.
      size_t b = a + 1;
      while (b < s.size() && candidate(s[b]) && s[b].index - s[b - 1].index <= BLINK_MAX_GAP + 1) ++b;
      bool closed = false;
      for (size_t k = a; k < b; ++k) {
        closed = closed || s[k].blink >= BLINK_CLOSED_DEGREE || s[k].blink >= usual + BLINK_RISE_CLOSED;
      }
      const bool shortRun = s[b - 1].index - s[a].index + 1 <= BLINK_MAX_FRAMES;
      // Open eyes of the same face right before or right after the run.
      const bool openBefore = a > 0 && !candidate(s[a - 1]) && s[a].index - s[a - 1].index <= BLINK_MAX_GAP + 1;
      const bool openAfter = b < s.size() && !candidate(s[b]) && s[b].index - s[b - 1].index <= BLINK_MAX_GAP + 1;
      if (closed && shortRun && (openBefore || openAfter)) {
        ++summary.blinks;
        for (size_t k = a; k < b; ++k) {
          ++blinking[static_cast<size_t>(s[k].index)];
          ++summary.blinkFrames;
        }
      }
      a = b;
    }
    mTracks.push_back(summary);
  }

  int framesWithBlink = 0;
  for (size_t i = 0; i < count; ++i) {
    KoFrameData* f = frameAt(mSnapshot, i);
    if (f == nullptr) continue;
    f->mFaceData.numBlinkedPredicted = blinking[i];
    if (blinking[i] > 0) ++framesWithBlink;
  }
  return framesWithBlink;
}

}  // namespace android
