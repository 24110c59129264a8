#include "DexFocusExposure.h"

namespace android {

DexFocusExposure::DexFocusExposure(int32_t threshold) : mThreshold(threshold) {}

DexFocusExposure::~DexFocusExposure() {}

}  // namespace android

namespace android {
int DexFocusExposure::findBestFocusExpKO(KoFrameHistSnapshot* snapshot, int, int* frameIndex, int* frameId, int,
                                         KO_dataStats_t, KO_dataStats_t, KO_dataStats_t) {
  return snapshot && frameIndex && frameId ? 0 : -1;
}
}  // namespace android
