#pragma once
// The face records of a whole clip, as a phone's face detector would report them while the
// clip plays at the replay's preview size: dlib finds the faces and landmarks of every frame
// (FaceDetector, on up to kMaxWorkers threads), FaceTracker gives them stable ids and derives
// the blink and smile degrees per tracked face. A preview larger than the clip is not detected
// on: the clip is decoded at its own scale with the preview's framing, and the records are
// scaled up to preview pixels.
//
// Detection takes tens of milliseconds a frame, so the result of a clip is kept in a cache
// folder as a face records file (FaceTrackFile). Its key is the clip's content (SHA-256 of the
// file), the preview size and fit, and kDetectorVersion; the file also states them and is only
// used when they match.
#include <string>
#include <vector>

#include "ClipDecoder.h"
#include "FaceTracker.h"
#include "ReplayTypes.h"

namespace kovane_replay {

// A natural blink: consecutive frames in which one face's blink degree (the larger of its two
// eyes) is at or above ClipFaceAnalysis::kClosedDegree.
struct BlinkEvent {
  int faceId = 0;
  int firstFrame = 0;
  int lastFrame = 0;
  int peakFrame = 0;   // the first frame of the largest degree
  int peakDegree = 0;
};

class ClipFaceAnalysis {
 public:
  // Bump whenever the detection, the landmarks or the degree constants change: cached results
  // of older versions are then ignored.
  static constexpr int kDetectorVersion = 2;
  static constexpr int kClosedDegree = FaceTracker::kClosedDegree;
  static constexpr int kMaxWorkers = 2;

  struct Options {
    int width = 0, height = 0;                    // preview size; 0x0 = the clip's own size
    ClipDecoder::Fit fit = ClipDecoder::FIT_CROP;
    std::string cacheDir;                         // "" = no cache
    bool progress = false;                        // progress line on stderr (frames, frames/s,
                                                  // time left), only when stderr is a terminal
  };

  // Faces of every frame (index = frame index) of the clip at that size: from the cache when
  // there, else detected (and cached when opt.cacheDir is set; a cache that cannot be written
  // is reported on stderr and not an error). *fromCache tells which. False with a one-line
  // reason in *error (missing landmark model, undecodable clip...).
  static bool analyse(const std::string& clipPath, const Options& opt, ClipFaces& out,
                      std::string* error, bool* fromCache = nullptr);

  // Frames first..last (inclusive; last < 0: to the end of the clip) detected and tracked,
  // without the cache. `out` holds last + 1 frames (fewer when the clip is shorter); frames
  // before `first` are empty. Degrees use the baseline of the analysed frames only.
  static bool analyseRange(const std::string& clipPath, const Options& opt, int first, int last,
                           ClipFaces& out, std::string* error);

  // The cache file's name (without folder) for a clip content hash, size and fit.
  static std::string cacheFileName(const std::string& clipSha256, int width, int height,
                                   ClipDecoder::Fit fit);

  // The main face of a frame: the largest (by rectangle area; the first of equals), or null.
  static const FaceRecord* mainFace(const std::vector<FaceRecord>& faces);

  // Natural blinks of the main face: a run ends at a frame whose main face is missing, has
  // another id, or has its eyes open.
  static std::vector<BlinkEvent> findBlinks(const ClipFaces& faces);
  // Natural blinks of the face with that id, whether or not it is the main face.
  static std::vector<BlinkEvent> findBlinks(const ClipFaces& faces, int faceId);

  // SHA-256 of the file's bytes as 64 lowercase hex digits; "" with the reason in *error.
  static std::string sha256File(const std::string& path, std::string* error);
};

}  // namespace kovane_replay
