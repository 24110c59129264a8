#include "DexVideoGeneration.h"

namespace android {

DexVideoGeneration::DexVideoGeneration() {}

DexVideoGeneration::~DexVideoGeneration() {}

}  // namespace android
