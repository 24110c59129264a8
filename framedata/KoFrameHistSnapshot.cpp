#include "KoFrameHistSnapshot.h"

namespace android {

KoFrameHistSnapshot::KoFrameHistSnapshot(KoFrameHistBase* source) {
  if (!source) return;
  for (size_t i = 0; i < source->mHistory.size(); ++i) {
    const sp<KoFrameHistNode>& node = source->mHistory[i];
    sp<KoFrameData> frame = node->mFrameData;
    if (frame == nullptr || !(frame->processedEvents() & KoFrameData::EVENT_IN_HISTORY)) continue;
    sp<KoMemoryBuffer> memory = node->mZslMemory;
    mHistory.push_back(new KoFrameHistNode(frame, memory));
    if (memory != nullptr) memory->updateStatus(KOMEMORY_SNAPSHOT_LOCK);
  }
}

KoFrameHistSnapshot::~KoFrameHistSnapshot() {
  for (size_t i = 0; i < mHistory.size(); ++i) {
    if (mHistory[i]->mZslMemory != nullptr) mHistory[i]->mZslMemory->updateStatus(KOMEMORY_SNAPSHOT_UNLOCK);
  }
  mHistory.clear();
}

void KoFrameHistSnapshot::releaseZSLBuffers() {
  for (size_t i = 0; i < mHistory.size(); ++i) {
    const sp<KoFrameHistNode>& node = mHistory[i];
    if (node->mZslMemory == nullptr) continue;
    node->mZslMemory->updateStatus(KOMEMORY_SNAPSHOT_UNLOCK);
    node->mZslMemory.clear();
  }
}

void KoFrameHistSnapshot::getFrameDataQueue(Vector<sp<KoFrameData>>& out) {
  for (size_t i = 0; i < mHistory.size(); ++i) out.push_back(mHistory[i]->mFrameData);
}

}  // namespace android
