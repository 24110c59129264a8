#pragma once
// Best-shot scoring of the analysis library: the per-frame score record, its orderings, and the
// scoring of the frames of a history.
//
// Every score is built from what the engine has already measured per frame (luma, Sobel and
// difference statistics and the histogram of the 320x180 copy, the subject-motion scores, the
// camera-motion class and the face records), so a pass costs no image work at all.
//
// feScore (integer 0..100): what is wrong with the picture as a photograph. A frame with nothing
//   wrong scores exactly 100; each fault costs points only beyond a tolerance, in steps of 5, so
//   that ordinary frame-to-frame noise gives equal scores (and the stable sort of the engine
//   then keeps the newest of equals):
//   - sharpness: the root mean square of the Sobel gradient magnitude (from the Sobel mean and
//     standard deviation; it weighs the strong edges that blur flattens most) divided by the
//     luma standard deviation (so that a change of exposure or gain does not read as a change
//     of focus), against the median of the frames up to 7 either side; a deficit of more than
//     8 % costs 2.5 points per further per cent (at most 60). A defocused or motion-blurred frame
//     thus falls 15 points or more below its sharp neighbours.
//   - exposure: the luma mean against the median of the frames around it; beyond a factor of
//     about 1.13 either way each further 1 % costs 1 point (a 0.8x or 1.25x step costs 10, at
//     most 40); more clipped pixels (darkest or brightest histogram bin) than the neighbours by
//     over 2 % of the picture cost 1 point per further per cent (at most 20).
//   - subject motion: the larger of the whole-frame and central subject-motion scores beyond
//     0.35 (of 1) costs 20 points per unit, at most 10 (a talking face moves all the time without
//     spoiling the picture); a frame without its own motion estimate takes that of
//     the nearest frame with one within 2 frames.
//   - camera motion: a shaking camera costs 15 points, a panning one 10.
// facesScore: 0.0 when the frame shows no face (or its faces are unknown). Otherwise the
//   faces' scores combined with weights of face area times centrality (1 at the picture centre,
//   0.5 in a corner) and rounded to an integer, in [50, 69]. A face scores 50, plus 7 per eye
//   that is open (blink degree below 50), 3 per eye half closed (below 80), 0 per closed eye,
//   plus 5 for a broad smile (degree 80 or more; a talking mouth reads up to 60 without a
//   smile, and must not outrank the frames near a capture). So open-eyed frames tie, and a
//   blink lowers the score by 8 to 14 points (19 against a smile): enough to rank the frame
//   lower, never the 25 points the engine takes for different pictures. A frame whose face record has not
//   arrived yet takes the faces score of the nearest frame within 2 that has one (unless face
//   records are missing altogether, when it stays unknown); later passes rescore it.
// bsScore = feScore + facesScore.
// auxScore: on the scale of the raw Sobel mean, because the engine compares it directly with
//   the captured frame's Sobel mean: sobelMean x 0.92 x q, where q is 1 for a frame with nothing
//   wrong, 0.7 for closed eyes on the main face, 0.75 (and the inverse of the brightening, if
//   any) for an exposure fault, and 0.85 each for strong subject motion and a shaking camera.
//   The 0.92 margin lets a neighbour replace a clean capture only when over 8 % sharper.
// auxField: bits of what cost the frame points (AUX_* below), for the statistics.
#include <cstddef>
#include <cstdint>

#include <utils/Vector.h>

namespace android {

struct KoSequenceData;
class KoFrameHistBase;

class KoBestShot {
 public:
  // Scores of one candidate frame, filled by the library and copied by value by the engine.
  struct alignas(8) BSScore {
    int32_t frameId;      // KoFrameData::mFrameId of the scored frame
    int32_t auxField;     // the library's own; carried along unchanged
    float bsScore;        // combined score (feScore + facesScore when faces are interpolated)
    float feScore;        // focus/exposure score
    float auxScore;       // further quality score, the key near the capture
    float facesScore;     // 0.0 = not available
    int64_t timestampUs;  // timestamp of the frame
  };

  // Orderings with the shape of the Vector sort comparator: 1 when rhs's key is less than lhs's,
  // otherwise 0 (never negative; a NaN key compares as 0). With the stable insertion sort of
  // Vector this sorts ascending, equal keys keeping their order, the best record last.
  static int compare(const BSScore* lhs, const BSScore* rhs);       // on bsScore
  static int compareFaces(const BSScore* lhs, const BSScore* rhs);  // on facesScore
  static int compareFE(const BSScore* lhs, const BSScore* rhs);     // on feScore

  KoBestShot();
  ~KoBestShot();

  // Foreground pass, run on every kept preview frame. `job` is the foreground's temporary
  // sequence whose snapshot is the live history and whose captured index is the newest frame.
  // Scores the newest frames of the snapshot (rescoring the last few, whose face records may
  // have arrived since the previous pass), writes each frame's mFeScore, mAuxScore,
  // mFacesScore and mBsScore, and keeps their score records for getBestShotList.
  // missingFaceDataMode: face records are not arriving; frames without them are scored as
  // "faces unknown" (0.0) rather than "no face". Returns 0, or -1 for a job without snapshot.
  int findFrameInFG(KoSequenceData* job, bool missingFaceDataMode);

  // Background pass over a whole capture sequence: scores every frame of its snapshot (as the
  // foreground pass does with face records arriving), fills job->mBestShotScores and
  // zeroes the main result job->mBestShotInfo[0]. When a frame within 6 frame ids and 430 ms of
  // the capture that still holds its ZSL buffer beats the captured frame clearly (bsScore higher
  // by 6 or more, feScore and auxScore not lower; of several the highest bsScore, then the
  // nearest), the result names it (generated, frameId, frameIndex, timestampUs, bsScore,
  // referenceFrameId = the captured id) with replace set. Returns 0, or -1 for a job without
  // snapshot.
  int findFrame(KoSequenceData* job);

  // The score records of the last pass (replaces out's contents): newest frame first after the
  // foreground pass, oldest first after the background pass. Returns the number of records.
  int getBestShotList(Vector<BSScore>& out);

  // Non-zero when the frame at `index` of `hist` shows a face that matters to the picture: one
  // at least 4 % of the preview wide. A frame without face record is judged by the nearest
  // frames (up to 3 either side) that have one.
  static int isFaceScene(unsigned int index, KoFrameHistBase* hist);

  // Bits of BSScore::auxField: what cost the frame points.
  enum : int32_t {
    AUX_BLUR = 0x1,           // sharpness below its neighbours
    AUX_EXPOSURE = 0x2,       // exposure or clipping off its neighbours
    AUX_MOTION = 0x4,         // subject motion
    AUX_CAMERA_MOTION = 0x8,  // shaking or panning camera
    AUX_EYES_CLOSED = 0x10,   // closed or half-closed eyes on the main face
    AUX_FACES_BORROWED = 0x20,  // faces score taken from a neighbour (own record not arrived)
  };

 private:
  // Scores the frame at `index` of `hist` against the frames around it, writes the scores into
  // the frame and fills `out`; false (nothing written) when the frame has no statistics yet.
  static bool scoreFrame(KoFrameHistBase* hist, size_t index, bool missingFaceDataMode,
                         BSScore& out);

  Vector<BSScore> mScores;

  KoBestShot(const KoBestShot&) = delete;
  KoBestShot& operator=(const KoBestShot&) = delete;
};

static_assert(sizeof(KoBestShot::BSScore) == 32, "BSScore is 32 bytes");
static_assert(alignof(KoBestShot::BSScore) == 8, "BSScore is 8-byte aligned");
static_assert(offsetof(KoBestShot::BSScore, frameId) == 0, "BSScore layout");
static_assert(offsetof(KoBestShot::BSScore, auxField) == 4, "BSScore layout");
static_assert(offsetof(KoBestShot::BSScore, bsScore) == 8, "BSScore layout");
static_assert(offsetof(KoBestShot::BSScore, feScore) == 12, "BSScore layout");
static_assert(offsetof(KoBestShot::BSScore, auxScore) == 16, "BSScore layout");
static_assert(offsetof(KoBestShot::BSScore, facesScore) == 20, "BSScore layout");
static_assert(offsetof(KoBestShot::BSScore, timestampUs) == 24, "BSScore layout");

}  // namespace android
