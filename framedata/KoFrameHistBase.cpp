#include "KoFrameHistBase.h"

namespace android {

KoFrameHistBase::KoFrameHistBase() : mMaxItems(MAX_ITEMS) {}

KoFrameHistBase::~KoFrameHistBase() {}

int KoFrameHistBase::getItemWithFrameId(uint32_t frameId, sp<KoFrameData>& out) {
  for (size_t i = 0; i < mHistory.size(); ++i) {
    const sp<KoFrameData>& frame = mHistory[i]->mFrameData;
    if (frame != nullptr && frame->mFrameId == frameId) {
      out = frame;
      return 1;
    }
  }
  out.clear();
  return 1;
}

}  // namespace android
