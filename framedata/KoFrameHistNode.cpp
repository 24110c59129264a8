#include "KoFrameHistNode.h"

namespace android {

KoFrameHistNode::KoFrameHistNode(sp<KoFrameData>& frame, sp<KoMemoryBuffer>& memory)
    : mFrameData(frame), mZslMemory(memory) {}

KoFrameHistNode::~KoFrameHistNode() {
  mZslMemory.clear();
  mFrameData.clear();
}

}  // namespace android
