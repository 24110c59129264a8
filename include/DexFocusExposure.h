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
  // capture sequence (per-frame means of the frame difference, luma and Sobel statistics).
  // flags is reserved (0). Returns 0, or -1 for invalid arguments.
  int findBestFocusExpKO(KoFrameHistSnapshot* snapshot, int count, int* frameIndex, int* frameId,
                         int flags, KO_dataStats_t diffStats, KO_dataStats_t lumaStats,
                         KO_dataStats_t sobelStats);

 private:
  int32_t mThreshold;

  DexFocusExposure(const DexFocusExposure&) = delete;
  DexFocusExposure& operator=(const DexFocusExposure&) = delete;
};

}  // namespace android
