#pragma once
// A byte buffer with a valid range, as the media foundation has it. ABuffer(size) owns its
// memory; ABuffer(data, capacity) only wraps memory that somebody else frees.
#include <cstddef>
#include <cstdint>

#include <utils/RefBase.h>

namespace android {

class ABuffer : public RefBase {
 public:
  explicit ABuffer(size_t capacity);
  ABuffer(void* data, size_t capacity);

  uint8_t* base() { return mData; }
  uint8_t* data() { return mData + mRangeOffset; }
  size_t capacity() const { return mCapacity; }
  size_t size() const { return mRangeLength; }
  size_t offset() const { return mRangeOffset; }

  // Sets the valid range; offset + size must lie within the capacity.
  void setRange(size_t offset, size_t size);

 protected:
  virtual ~ABuffer();

 private:
  uint8_t* mData;
  size_t mCapacity;
  size_t mRangeOffset;
  size_t mRangeLength;
  bool mOwnsData;

  ABuffer(const ABuffer&) = delete;
  ABuffer& operator=(const ABuffer&) = delete;
};

}  // namespace android
