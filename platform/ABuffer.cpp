#include "ABuffer.h"

#include <cstdlib>

#include <log/log.h>

namespace android {

ABuffer::ABuffer(size_t capacity)
    : mData(static_cast<uint8_t*>(malloc(capacity ? capacity : 1))),
      mCapacity(mData ? capacity : 0),
      mRangeOffset(0),
      mRangeLength(mCapacity),
      mOwnsData(true) {}

ABuffer::ABuffer(void* data, size_t capacity)
    : mData(static_cast<uint8_t*>(data)),
      mCapacity(capacity),
      mRangeOffset(0),
      mRangeLength(capacity),
      mOwnsData(false) {}

ABuffer::~ABuffer() {
  if (mOwnsData) free(mData);
  mData = nullptr;
}

void ABuffer::setRange(size_t offset, size_t size) {
  LOG_ALWAYS_FATAL_IF(offset > mCapacity || size > mCapacity - offset,
                      "ABuffer::setRange(%zu, %zu) outside capacity %zu", offset, size, mCapacity);
  mRangeOffset = offset;
  mRangeLength = size;
}

}  // namespace android
