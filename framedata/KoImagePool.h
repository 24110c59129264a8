#pragma once
// Image memory of the frame records, handed out again instead of going back to the system.
// Every preview frame needs the same few blocks (the analysis copy, the small image, two Sobel
// planes); taking them from blocks that earlier frames gave back spares the allocator's fresh,
// zero-filled pages on the camera's thread. Frames keep a reference to the pool, so blocks
// given back after the frame factory is gone still find it; the last reference frees the blocks
// it keeps. At most kMaxBlocksPerSize blocks of each size are kept; more are freed at once.
// All memory is fcvMemAlloc'd with 16-byte alignment. Thread-safe: frames are released on
// whichever thread drops them last.
#include <pthread.h>

#include <cstddef>
#include <cstdint>

#include <utils/RefBase.h>
#include <utils/Vector.h>

namespace android {

class KoImagePool : public RefBase {
 public:
  static constexpr size_t kMaxBlocksPerSize = 8;

  KoImagePool();

  // A block of exactly `bytes` bytes: a kept one if there is one, else a new one; null when
  // memory runs out.
  uint8_t* take(size_t bytes);
  // Gives a block of `bytes` bytes back (null is ignored).
  void give(uint8_t* block, size_t bytes);
  // Blocks kept for reuse.
  size_t keptBlocks() const;

 protected:
  virtual ~KoImagePool();

 private:
  struct Block {
    uint8_t* data;
    size_t bytes;
  };
  mutable pthread_mutex_t mLock;
  Vector<Block> mBlocks;

  KoImagePool(const KoImagePool&) = delete;
  KoImagePool& operator=(const KoImagePool&) = delete;
};

}  // namespace android
