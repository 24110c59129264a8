#pragma once
// Best-shot scoring of the analysis library: the per-frame score record and its orderings.
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

  // Background pass over a whole capture sequence: scores every frame of its snapshot, fills
  // job->mBestShotScores and, when a frame near the capture beats the captured one, the main
  // result job->mBestShotInfo[0]. Returns 0, or -1 for a job without snapshot.
  int findFrame(KoSequenceData* job);

  // The score records of the last pass, oldest frame first (replaces out's contents).
  // Returns the number of records.
  int getBestShotList(Vector<BSScore>& out);

  // Non-zero when the frame at `index` of `hist` shows a face that matters to the picture.
  static int isFaceScene(unsigned int index, KoFrameHistBase* hist);

 private:
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
