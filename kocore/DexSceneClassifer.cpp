#include "DexSceneClassifer.h"

namespace android {

DexSceneClassifer::DexSceneClassifer() {}

DexSceneClassifer::~DexSceneClassifer() {}

}  // namespace android
