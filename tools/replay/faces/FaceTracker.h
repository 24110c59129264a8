#pragma once
// Turns per-frame face records into tracked faces: gives each face an id that stays the same
// from frame to frame, then derives the blink and smile degrees of every record from its
// measurements (leftEar, rightEar, mouthRatio) against that face's own baseline.
//
// Why a baseline per tracked face: the eye aspect ratio (EAR) of an open eye differs from
// person to person and with head pose, and dlib's landmarks never bring the lids fully
// together, so no fixed EAR separates open from closed. Relative to the same face's usual EAR
// a blink is clear: on the hand-labelled webcam test clips closed eyes measure 0.40..0.67 of
// the baseline and open eyes, including looking down, squinting and talking, 0.73 and above.
#include <vector>

#include "ReplayTypes.h"

namespace kovane_replay {

class FaceTracker {
 public:
  // --- Tracking ---
  // A face continues a track when its rectangle overlaps the track's last rectangle by at
  // least this intersection-over-union. The detector's boxes move in coarse scale steps
  // (5/6 apart), so one face in consecutive frames overlaps by 0.65 or more even across a
  // step; 0.3 still follows a face that moves quickly.
  static constexpr double kMinOverlap = 0.3;
  // A track survives this many frames without a matching face (a missed detection, a hand
  // passing in front) and keeps its id when the face comes back where it was.
  static constexpr int kMaxGapFrames = 12;

  // --- Blink degree ---
  // degree = clamp((openEar - ear) / (openEar - closedEar) * 100, 0, 100), per eye, with
  //   openEar   = the kOpenPercentile of this eye's EAR over the track's frames within
  //               kBaselineHalfWindow frames either side (a high percentile, so that blinks
  //               and looking down, a few per cent of the frames, do not pull it down);
  //   closedEar = kClosedFraction * openEar.
  // With kClosedFraction 0.4 the degree reaches kClosedDegree at EAR = 0.70 of the baseline,
  // halfway between the closed frames (at most 0.67) and the open ones (0.73 and above)
  // measured on the clips; a fully closed eye (about 0.45 of the baseline) reads 90 or more.
  static constexpr int kBaselineHalfWindow = 150;  // 6 s at 25 fps: follows pose changes
  static constexpr double kOpenPercentile = 0.75;
  static constexpr double kClosedFraction = 0.40;
  // Degree at or above which an eye counts as closed.
  static constexpr int kClosedDegree = 50;
  // Below this many measured frames in the window the baseline is not trusted and a typical
  // value is used instead: dlib's open-eye EAR on frontal faces is about 0.28.
  static constexpr int kMinBaselineSamples = 8;
  static constexpr float kTypicalOpenEar = 0.28f;

  // --- Smile degree ---
  // The mouth is wider in a smile. mouthRatio (mouth width / distance between the eyes) is
  // compared with the face's neutral ratio, the kNeutralPercentile of the track's ratios in the
  // same window (a low percentile: most frames are neutral or talking, and talking narrows the
  // mouth rather than widening it). Widening up to kSmileDeadZone (talking varies the width by
  // about 4 %) reads 0; kSmileFullWidening and more reads 100. A face that smiles throughout
  // its window reads as neutral: the measure sees changes, not a smiling resting face.
  static constexpr double kNeutralPercentile = 0.30;
  static constexpr double kSmileDeadZone = 0.05;
  static constexpr double kSmileFullWidening = 0.30;
  static constexpr float kTypicalNeutralMouth = 0.78f;

  // frameCount: the number of frames the result has at least (trailing frames may have no
  // faces); 0 = as many as were added.
  explicit FaceTracker(int frameCount = 0);

  // The faces of one frame; frames come in increasing order, frames never added have no
  // faces. Each record's id is assigned here; its degrees are filled in by finish().
  void add(int frame, std::vector<FaceRecord> faces);

  // All frames with ids and degrees.
  ClipFaces finish();

  // Recomputes the blink and smile degrees of every record from its measurements, per id.
  // Records without measurements (leftEar, rightEar and mouthRatio 0) keep their degrees.
  static void assignDegrees(ClipFaces& faces);

  // Intersection over union of two records' rectangles, 0..1.
  static double overlap(const FaceRecord& a, const FaceRecord& b);

 private:
  struct Track {
    int id = 0;
    int lastFrame = 0;
    FaceRecord last;
  };

  ClipFaces mFaces;
  std::vector<Track> mTracks;
  int mNextId = 1;
  int mLastFrame = -1;
};

}  // namespace kovane_replay
