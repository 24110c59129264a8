#include "DexFocusExposure.h"

namespace android {

DexFocusExposure::DexFocusExposure(int32_t threshold) : mThreshold(threshold) {}

DexFocusExposure::~DexFocusExposure() {}

}  // namespace android
