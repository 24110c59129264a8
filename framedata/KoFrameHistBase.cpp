#include "KoFrameHistBase.h"

namespace android {

KoFrameHistBase::KoFrameHistBase() : mMaxItems(MAX_ITEMS) {}

KoFrameHistBase::~KoFrameHistBase() {}

int KoFrameHistBase::getItemWithFrameId(uint32_t frameId, sp<KoFrameData>& out) {
  const int index = indexOfFrameId(frameId);
  if (index >= 0) {
    out = mHistory[static_cast<size_t>(index)]->mFrameData;
  } else {
    out.clear();
  }
  return 1;
}

int KoFrameHistBase::indexOfFrameId(uint32_t frameId) const {
  for (size_t i = 0; i < mHistory.size(); ++i) {
    const sp<KoFrameData>& frame = mHistory[i]->mFrameData;
    if (frame != nullptr && frame->mFrameId == frameId) return static_cast<int>(i);
  }
  return -1;
}

}  // namespace android
