#include "KoMemory.h"

#include <log/log.h>

#include "KoEngineContext.h"
#include "KoMemoryBuffer.h"

#undef LOG_TAG
#define LOG_TAG "KoMemory"

namespace android {

KoMemory::KoMemory(KoEngineContext* engine) : mEngine(engine), mCount(0) {
  pthread_mutex_init(&mLock, nullptr);
}

KoMemory::~KoMemory() {
  pthread_mutex_lock(&mLock);
  while (!mBuffers.isEmpty()) {
    size_t last = mBuffers.size() - 1;
    bufferItem_t* item = mBuffers[last];
    mBuffers.removeAt(last);
    if (mEngine) mEngine->frameDone(item->buffer);
    delete item;
  }
  pthread_mutex_unlock(&mLock);
  pthread_mutex_destroy(&mLock);
}

bool KoMemory::addZslBuffer(uint8_t* buffer, sp<KoMemoryBuffer>* out) {
  pthread_mutex_lock(&mLock);
  if (mCount > MAX_BUFFERS - 1) {
    logZslStatus();
    pthread_mutex_unlock(&mLock);
    return false;
  }
  bufferItem_t* item = new bufferItem_t{STATUS_REGISTERED, 0, buffer};
  mBuffers.push_back(item);
  mCount++;
  sp<KoMemoryBuffer> handle = new KoMemoryBuffer(this, buffer);
  pthread_mutex_unlock(&mLock);
  // Assigned without the lock: a handle *out held before goes now, and its last reference
  // hands its buffer back through returnZslBuffer, which takes mLock.
  *out = handle;
  return true;
}

int KoMemory::findBuffer(uint8_t* buffer) {
  for (size_t i = 0; i < mBuffers.size(); ++i) {
    if (mBuffers[i]->buffer == buffer) return static_cast<int>(i);
  }
  return -1;
}

int KoMemory::updateStatus(uint8_t* buffer, KOMEMORY_STATUS_T op) {
  pthread_mutex_lock(&mLock);
  int index = findBuffer(buffer);
  if (index < 0) {
    ALOG(LOG_WARN, LOG_TAG, "%s BUFFER NOT FOUND", "updateStatus");
  } else {
    bufferItem_t* item = mBuffers[index];
    switch (op) {
      case KOMEMORY_PENDING:
        item->status = STATUS_PENDING;
        break;
      case KOMEMORY_IN_HISTORY:
        item->status = STATUS_IN_HISTORY;
        break;
      case KOMEMORY_OUT_OF_HISTORY:
        item->status &= ~STATUS_IN_HISTORY;
        break;
      case KOMEMORY_SNAPSHOT_LOCK:
        item->lockCount++;
        item->status |= STATUS_SNAPSHOT;
        break;
      case KOMEMORY_SNAPSHOT_UNLOCK:
        // The snapshot bit goes with any unlock, whatever count remains.
        item->lockCount--;
        item->status &= ~STATUS_SNAPSHOT;
        break;
      default:
        break;
    }
  }
  pthread_mutex_unlock(&mLock);
  return 0;
}

int KoMemory::returnZslBuffer(uint8_t* buffer) {
  pthread_mutex_lock(&mLock);
  int index = findBuffer(buffer);
  if (index < 0) {
    ALOG(LOG_WARN, LOG_TAG, "%s RETURNED BUFFER NOT FOUND", "returnZslBuffer");
  } else {
    bufferItem_t* item = mBuffers[index];
    mBuffers.removeAt(index);
    mCount--;
    // The callback runs with mLock held: it must not call back into this object.
    if (mEngine) mEngine->frameDone(buffer);
    delete item;
  }
  pthread_mutex_unlock(&mLock);
  return 0;
}

void KoMemory::logZslStatus() {}

bool KoMemory::getStatus(uint8_t* buffer, uint32_t* status, int32_t* lockCount) {
  pthread_mutex_lock(&mLock);
  int index = findBuffer(buffer);
  if (index >= 0) {
    if (status) *status = mBuffers[index]->status;
    if (lockCount) *lockCount = mBuffers[index]->lockCount;
  }
  pthread_mutex_unlock(&mLock);
  return index >= 0;
}

uint32_t KoMemory::count() {
  pthread_mutex_lock(&mLock);
  uint32_t n = mCount;
  pthread_mutex_unlock(&mLock);
  return n;
}

}  // namespace android
