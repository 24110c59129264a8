#include "KoFaceMetaData.h"

#include <cstring>

namespace android {

KoFaceMetaData::KoFaceMetaData() : mValid(0) { memset(&mFaceData, 0, sizeof(mFaceData)); }

KoFaceMetaData::~KoFaceMetaData() {}

}  // namespace android
