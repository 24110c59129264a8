#include "KoMemoryBuffer.h"

#include <cstring>

#include "KoFrameData.h"

namespace android {

KoMemoryBuffer::KoMemoryBuffer(KoMemory* memory, uint8_t* buffer)
    : mMemory(memory), mHandle(new ABuffer(sizeof(uint8_t*))) {
  memcpy(mHandle->data(), &buffer, sizeof(buffer));
}

KoMemoryBuffer::~KoMemoryBuffer() {
  if (mFrameData != nullptr) {
    // The frame's handle goes with the buffer; its mHasZsl stays as the history left it.
    mFrameData->clearZslBuffer(mHandle);
    mFrameData.clear();
  }
  if (mMemory) mMemory->returnZslBuffer(address());
  mHandle.clear();
}

uint8_t* KoMemoryBuffer::address() const {
  uint8_t* buffer = nullptr;
  memcpy(&buffer, mHandle->data(), sizeof(buffer));
  return buffer;
}

int KoMemoryBuffer::updateStatus(KOMEMORY_STATUS_T op) {
  return mMemory ? mMemory->updateStatus(address(), op) : 0;
}

void KoMemoryBuffer::setFrameData(sp<KoFrameData>& frame) { mFrameData = frame; }

}  // namespace android
