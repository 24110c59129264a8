#pragma once
// Focus/exposure choice of the analysis library: picks, among the frames of a capture, the one
// with the best focus and exposure. The engine owns one from construction to destruction; the
// search itself comes with the background analysis of captures.
#include <cstdint>

#include "DexFrameMetaData.h"

namespace android {

class KoFrameHistSnapshot;

class DexFocusExposure {
 public:
  // threshold: the focus/exposure score (0..100) below which a frame does not count as well
  // focused and exposed; the engine uses 35.
  explicit DexFocusExposure(int32_t threshold);
  ~DexFocusExposure();

  int32_t threshold() const { return mThreshold; }

  // Searches the first `count` frames of the snapshot for the frame with the best focus and
  // exposure. *frameIndex and *frameId come primed with the captured frame's index and id and
  // are left so when no frame is clearly better. The three temporal statistics are those of the
  // capture sequence (statistics of the per-frame means of the frame difference, luma and Sobel
  // statistics). flags is reserved (0).
  //
  // Candidates are the frames with statistics (processed bit 0x20000) within 6 frame ids and
  // 430 ms of the captured one. Each gets a score in 0..100, the product of three factors:
  //  - focus: the frame's Sobel mean per grey level of its luma standard deviation. Dividing by
  //    the spread makes the sharpness independent of exposure: a darker or lower-contrast frame
  //    of the same scene has proportionally weaker edges, not a softer picture. It is compared
  //    with the sharpest frame of the sequence (sobelStats.max at the snapshot's median spread,
  //    or the sharpest candidate);
  //  - exposure: how close the frame's luma mean is to the median of the snapshot's frames (a
  //    Gaussian with a tolerance of 12 grey levels plus lumaStats.stddev), so that a frame caught
  //    in an exposure transient loses;
  //  - stillness: (diffStats.mean + 2) / (frame's difference mean + 2), capped at 1: a frame that
  //    differs from its predecessor more than usual was taken while something moved.
  // The best candidate replaces the primed frame only when its score is more than 8% above the
  // captured frame's and at least threshold(). Returns 0 (also when the captured frame has no
  // statistics: nothing to compare with), or -1 (logged) for null pointers, count <= 0 or a
  // primed index outside the first count frames.
  int findBestFocusExpKO(KoFrameHistSnapshot* snapshot, int count, int* frameIndex, int* frameId,
                         int flags, KO_dataStats_t diffStats, KO_dataStats_t lumaStats,
                         KO_dataStats_t sobelStats);

 private:
  int32_t mThreshold;

  DexFocusExposure(const DexFocusExposure&) = delete;
  DexFocusExposure& operator=(const DexFocusExposure&) = delete;
};

}  // namespace android
