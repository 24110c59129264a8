#include "KoImagePool.h"

#include "fastcv.h"

namespace android {

KoImagePool::KoImagePool() {
  pthread_mutex_init(&mLock, nullptr);
  // Room for every block the pool may keep, so that giving a block back never allocates.
  mBlocks.setCapacity(4 * kMaxBlocksPerSize);
}

KoImagePool::~KoImagePool() {
  for (size_t i = 0; i < mBlocks.size(); ++i) fcvMemFree(mBlocks[i].data);
  mBlocks.clear();
  pthread_mutex_destroy(&mLock);
}

uint8_t* KoImagePool::take(size_t bytes) {
  pthread_mutex_lock(&mLock);
  for (size_t i = mBlocks.size(); i-- > 0;) {
    if (mBlocks[i].bytes != bytes) continue;
    uint8_t* block = mBlocks[i].data;
    mBlocks.removeAt(i);
    pthread_mutex_unlock(&mLock);
    return block;
  }
  pthread_mutex_unlock(&mLock);
  return static_cast<uint8_t*>(fcvMemAlloc(static_cast<unsigned int>(bytes), 16));
}

void KoImagePool::give(uint8_t* block, size_t bytes) {
  if (block == nullptr) return;
  pthread_mutex_lock(&mLock);
  size_t sameSize = 0;
  for (size_t i = 0; i < mBlocks.size(); ++i) sameSize += mBlocks[i].bytes == bytes ? 1 : 0;
  const bool keep = sameSize < kMaxBlocksPerSize && mBlocks.size() < mBlocks.capacity();
  if (keep) mBlocks.push_back(Block{block, bytes});
  pthread_mutex_unlock(&mLock);
  if (!keep) fcvMemFree(block);
}

size_t KoImagePool::keptBlocks() const {
  pthread_mutex_lock(&mLock);
  const size_t n = mBlocks.size();
  pthread_mutex_unlock(&mLock);
  return n;
}

}  // namespace android
