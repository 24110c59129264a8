#pragma once
// Focus/exposure choice of the analysis library: picks, among the frames of a capture, the one
// with the best focus and exposure. The engine owns one from construction to destruction; the
// search itself comes with the background analysis of captures.
#include <cstdint>

namespace android {

class DexFocusExposure {
 public:
  // threshold: the focus/exposure score (0..100) below which a frame does not count as well
  // focused and exposed; the engine uses 35.
  explicit DexFocusExposure(int32_t threshold);
  ~DexFocusExposure();

  int32_t threshold() const { return mThreshold; }

 private:
  int32_t mThreshold;

  DexFocusExposure(const DexFocusExposure&) = delete;
  DexFocusExposure& operator=(const DexFocusExposure&) = delete;
};

}  // namespace android
