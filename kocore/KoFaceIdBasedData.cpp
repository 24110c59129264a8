#include "KoFaceIdBasedData.h"

namespace android {

KoFaceIdBasedData::KoFaceIdBasedData(KoFrameHistSnapshot* snapshot) : mSnapshot(snapshot) {}

KoFaceIdBasedData::~KoFaceIdBasedData() {}

}  // namespace android
