#pragma once
// Best-shot scoring of the analysis library: the per-frame score record and its orderings.
#include <cstddef>
#include <cstdint>

namespace android {

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
