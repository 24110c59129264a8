#include "KoFaceIdBasedData.h"

namespace android {

KoFaceIdBasedData::KoFaceIdBasedData(KoFrameHistSnapshot* snapshot) : mSnapshot(snapshot) {}

KoFaceIdBasedData::~KoFaceIdBasedData() {}

}  // namespace android

namespace android {
int KoFaceIdBasedData::populateFaceIdBasedData() { return mSnapshot ? 0 : -1; }
}  // namespace android
