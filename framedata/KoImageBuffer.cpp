#include "KoImageBuffer.h"

#include "fastcv.h"

namespace android {

KoImageBuffer::KoImageBuffer(KoRecycler<KoImageBuffer>* recycler, size_t bytes)
    : ABuffer(fcvMemAlloc(static_cast<unsigned int>(bytes), 16), bytes) {
  extendObjectLifetime(OBJECT_LIFETIME_WEAK);
  mRecycler = recycler;
}

KoImageBuffer::~KoImageBuffer() {
  if (base() != nullptr) fcvMemFree(base());
}

bool KoImageBuffer::reuse(size_t bytes) {
  if (base() == nullptr || capacity() != bytes) return false;
  setRange(0, bytes);
  return true;
}

void KoImageBuffer::onLastStrongRef(const void* /*id*/) {
  sp<KoRecycler<KoImageBuffer>> recycler = mRecycler.promote();
  if (recycler != nullptr) recycler->giveBack(this);
}

}  // namespace android
