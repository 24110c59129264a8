#include "KoFrameHist.h"

#include <cstring>

#include "fastcv.h"

namespace android {

namespace {

// Removes and frees the oldest items of a pending list while `drop` says so.
template <typename Item, typename Pred, typename Free>
void dropOldest(Vector<Item*>& list, Pred drop, Free freeItem) {
  while (!list.isEmpty() && drop(list[0])) {
    Item* item = list[0];
    list.removeAt(0);
    freeItem(item);
  }
}

// Index of the newest pending item for a frame id, or -1.
template <typename Item>
ssize_t findNewest(const Vector<Item*>& list, uint32_t frameId) {
  for (ssize_t i = static_cast<ssize_t>(list.size()) - 1; i >= 0; --i) {
    if (list[i]->frameId == frameId) return i;
  }
  return -1;
}

}  // namespace

KoFrameHist::KoFrameHist() { mSpareNodes.reserve(kSpareNodes); }

KoFrameHist::~KoFrameHist() {
  while (!mFaceItems.isEmpty()) {
    freeFaceDataItem(mFaceItems.top());
    mFaceItems.pop();
  }
  while (!mMetaItems.isEmpty()) {
    freeMetaDataItem(mMetaItems.top());
    mMetaItems.pop();
  }
  while (!mZslItems.isEmpty()) {
    freeZslDataItem(mZslItems.top());
    mZslItems.pop();
  }
  for (size_t i = 0; i < mHistory.size(); ++i) {
    if (mHistory[i]->mZslMemory != nullptr) mHistory[i]->mZslMemory->updateStatus(KOMEMORY_OUT_OF_HISTORY);
  }
  mHistory.clear();
}

void KoFrameHist::freeFaceDataItem(faceDataItem_t* item) { delete item; }
void KoFrameHist::freeMetaDataItem(metaDataItem_t* item) { delete item; }
void KoFrameHist::freeZslDataItem(zslDataItem_t* item) { delete item; }

void KoFrameHist::mergeFace(KoFrameData* frame, const sp<KoFaceMetaData>& faceData) {
  if (faceData != nullptr && faceData->mValid) {
    memcpy(&frame->mFaceData, &faceData->mFaceData, sizeof(frame->mFaceData));
  }
  frame->setProcessedEvents(KoFrameData::EVENT_FACE);
}

void KoFrameHist::mergeMeta(KoFrameData* frame, const sp<ABuffer>& metaBuffer, int32_t luxLevel,
                            int32_t aecState, int32_t awbState, float luxIdx, float expTime) {
  frame->mMetaBuffer = metaBuffer;
  frame->mLuxLevel = luxLevel;
  frame->mAecState = aecState;
  frame->mAwbState = awbState;
  frame->mLuxIdx = luxIdx;
  frame->mExpTime = expTime;
  frame->setProcessedEvents(KoFrameData::EVENT_METADATA);
}

void KoFrameHist::mergeZsl(sp<KoFrameData>& frame, const sp<KoMemoryBuffer>& memory) {
  frame->setZslBuffer(nullptr);
  frame->mHasZsl = 0;
  if (memory != nullptr) {
    frame->setZslBuffer(memory->mHandle);
    frame->mHasZsl = 1;
    memory->setFrameData(frame);
    memory->updateStatus(KOMEMORY_IN_HISTORY);
  }
  frame->setProcessedEvents(KoFrameData::EVENT_ZSL);
}

void KoFrameHist::addFrameData(sp<KoFrameData>& frame) {
  if (frame == nullptr) return;
  frame->setProcessedEvents(KoFrameData::EVENT_IN_HISTORY);
  const uint32_t id = frame->mFrameId;

  ssize_t i = findNewest(mFaceItems, id);
  if (i >= 0) {
    faceDataItem_t* item = mFaceItems[i];
    mergeFace(frame.get(), item->faceData);
    mFaceItems.removeAt(i);
    freeFaceDataItem(item);
  }
  i = findNewest(mMetaItems, id);
  if (i >= 0) {
    metaDataItem_t* item = mMetaItems[i];
    mergeMeta(frame.get(), item->metaBuffer, item->luxLevel, item->aecState, item->awbState,
              item->luxIdx, item->expTime);
    mMetaItems.removeAt(i);
    freeMetaDataItem(item);
  }
  sp<KoMemoryBuffer> memory;
  i = findNewest(mZslItems, id);
  if (i >= 0) {
    zslDataItem_t* item = mZslItems[i];
    memory = item->zslMemory;
    mergeZsl(frame, memory);
    mZslItems.removeAt(i);
    freeZslDataItem(item);
  }
  if (!mSpareNodes.empty()) {
    sp<KoFrameHistNode> node = mSpareNodes.back();
    mSpareNodes.pop_back();
    node->mFrameData = frame;
    node->mZslMemory = memory;
    mHistory.push_back(node);
  } else {
    mHistory.push_back(new KoFrameHistNode(frame, memory));
  }
  performMaintenanceId(id);
}

void KoFrameHist::addFaceData(uint32_t frameId, sp<KoFaceMetaData>& faceData) {
  for (ssize_t i = static_cast<ssize_t>(mHistory.size()) - 1; i >= 0; --i) {
    pthread_mutex_lock(&KoFrameData::gFrameDataMutex);
    KoFrameData* frame = mHistory[i]->mFrameData.get();
    if (frame && frame->mFrameId == frameId) {
      mergeFace(frame, faceData);
      pthread_mutex_unlock(&KoFrameData::gFrameDataMutex);
      performMaintenanceCount();
      return;
    }
    pthread_mutex_unlock(&KoFrameData::gFrameDataMutex);
  }
  mFaceItems.push_back(new faceDataItem_t{frameId, faceData});
  performMaintenanceCount();
}

void KoFrameHist::addMetaData(uint32_t frameId, sp<ABuffer>& metaBuffer, Ko_CameraMetaData_t* camMeta) {
  Ko_CameraMetaData_t values;
  memset(&values, 0, sizeof(values));
  if (camMeta) values = *camMeta;
  for (ssize_t i = static_cast<ssize_t>(mHistory.size()) - 1; i >= 0; --i) {
    pthread_mutex_lock(&KoFrameData::gFrameDataMutex);
    KoFrameData* frame = mHistory[i]->mFrameData.get();
    if (frame && frame->mFrameId == frameId) {
      mergeMeta(frame, metaBuffer, values.luxLevel, values.aecState, values.awbState, values.luxIdx,
                values.expTime);
      pthread_mutex_unlock(&KoFrameData::gFrameDataMutex);
      performMaintenanceCount();
      return;
    }
    pthread_mutex_unlock(&KoFrameData::gFrameDataMutex);
  }
  mMetaItems.push_back(new metaDataItem_t{frameId, metaBuffer, values.luxLevel, values.aecState,
                                          values.awbState, values.luxIdx, values.expTime});
  performMaintenanceCount();
}

void KoFrameHist::addZslData(sp<KoMemoryBuffer>& memory, KO_ZslFrameData_t* zslData, uint32_t frameId) {
  for (ssize_t i = static_cast<ssize_t>(mHistory.size()) - 1; i >= 0; --i) {
    pthread_mutex_lock(&KoFrameData::gFrameDataMutex);
    const sp<KoFrameHistNode>& node = mHistory[i];
    if (node->mFrameData != nullptr && node->mFrameData->mFrameId == frameId) {
      mergeZsl(node->mFrameData, memory);
      // A buffer the node held before is dropped after the mutex is released, since dropping
      // the last reference hands the buffer back to the camera.
      sp<KoMemoryBuffer> previous = node->mZslMemory;
      node->mZslMemory = memory;
      pthread_mutex_unlock(&KoFrameData::gFrameDataMutex);
      previous.clear();
      performMaintenanceCount();
      return;
    }
    pthread_mutex_unlock(&KoFrameData::gFrameDataMutex);
  }
  zslDataItem_t* item = new zslDataItem_t{frameId, memory, {nullptr, 0}};
  if (zslData) item->zslData = *zslData;
  if (memory != nullptr) memory->updateStatus(KOMEMORY_PENDING);
  mZslItems.push_back(item);
  performMaintenanceCount();
}

void KoFrameHist::performMaintenanceCount() {
  const uint32_t bound = mMaxItems;
  auto tooMany = [bound](const auto& list) { return list.size() > bound; };
  dropOldest(mFaceItems, [&](faceDataItem_t*) { return tooMany(mFaceItems); }, freeFaceDataItem);
  dropOldest(mMetaItems, [&](metaDataItem_t*) { return tooMany(mMetaItems); }, freeMetaDataItem);
  dropOldest(mZslItems, [&](zslDataItem_t*) { return tooMany(mZslItems); }, freeZslDataItem);
}

void KoFrameHist::performMaintenanceId(uint32_t frameId) {
  while (mHistory.size() > mMaxItems) removeOldestItem();
  // Only the front of each list is checked: an older id behind a newer one waits for the
  // count bound.
  dropOldest(mFaceItems, [frameId](faceDataItem_t* it) { return it->frameId < frameId; }, freeFaceDataItem);
  dropOldest(mMetaItems, [frameId](metaDataItem_t* it) { return it->frameId < frameId; }, freeMetaDataItem);
  dropOldest(mZslItems, [frameId](zslDataItem_t* it) { return it->frameId < frameId; }, freeZslDataItem);
  performMaintenanceCount();
}

void KoFrameHist::removeOldestItem() {
  if (mHistory.isEmpty()) return;
  sp<KoFrameHistNode> node = mHistory[0];
  if (node->mZslMemory != nullptr) node->mZslMemory->updateStatus(KOMEMORY_OUT_OF_HISTORY);
  mHistory.removeAt(0);
  if (node->getStrongCount() == 1 && mSpareNodes.size() < kSpareNodes) {
    node->mZslMemory.clear();
    node->mFrameData.clear();
    mSpareNodes.push_back(node);
  }
}

void KoFrameHist::removeOldestItems(uint32_t n) {
  uint32_t count = n < mHistory.size() ? n : static_cast<uint32_t>(mHistory.size());
  for (uint32_t i = 0; i < count; ++i) removeOldestItem();
}

int KoFrameHist::releaseZslWithFrameId(uint32_t frameId) {
  for (size_t i = 0; i < mHistory.size(); ++i) {
    const sp<KoFrameHistNode>& node = mHistory[i];
    if (node->mFrameData == nullptr || node->mFrameData->mFrameId != frameId) continue;
    if (node->mZslMemory != nullptr) {
      node->mZslMemory->updateStatus(KOMEMORY_OUT_OF_HISTORY);
      node->mZslMemory.clear();
    }
    return 1;
  }
  return 0;
}

int KoFrameHist::releaseProcessBuffersWithFrameId(uint32_t frameId) {
  for (size_t i = 0; i < mHistory.size(); ++i) {
    KoFrameData* frame = mHistory[i]->mFrameData.get();
    if (frame == nullptr || frame->mFrameId != frameId) continue;
    sp<ABuffer>* scratch[] = {&frame->mSobelBuffer1, &frame->mSobelBuffer2};
    for (sp<ABuffer>* buffer : scratch) frame->releaseImage(*buffer);
    return 1;
  }
  return 0;
}

}  // namespace android
