#pragma once
// Tracks the ZSL buffers the camera lends the engine: at most seven out at once, where each
// stands (pending, in the history, held by capture snapshots), and hands each back to the
// camera exactly once through the engine's frame-done callback.
#include <pthread.h>

#include <cstdint>

#include <utils/RefBase.h>
#include <utils/Vector.h>

namespace android {

class KoEngineContext;
class KoMemoryBuffer;

enum KOMEMORY_STATUS_T {
  KOMEMORY_PENDING = 0,          // status = 0x2
  KOMEMORY_IN_HISTORY = 1,       // status = 0x4
  KOMEMORY_OUT_OF_HISTORY = 2,   // clears 0x4
  KOMEMORY_SNAPSHOT_LOCK = 3,    // lockCount + 1, sets 0x8
  KOMEMORY_SNAPSHOT_UNLOCK = 4,  // lockCount - 1, clears 0x8
};

class KoMemory {
 public:
  enum : uint32_t {
    STATUS_REGISTERED = 0x1,
    STATUS_PENDING = 0x2,
    STATUS_IN_HISTORY = 0x4,
    STATUS_SNAPSHOT = 0x8,
    MAX_BUFFERS = 7,
  };

  struct bufferItem_t {
    uint32_t status;
    int32_t lockCount;
    uint8_t* buffer;
  };

  explicit KoMemory(KoEngineContext* engine);
  ~KoMemory();

  // Registers a borrowed buffer; false when seven are already out (*out untouched).
  bool addZslBuffer(uint8_t* buffer, sp<KoMemoryBuffer>* out);
  // Index of the item with that address or -1; the caller holds mLock.
  int findBuffer(uint8_t* buffer);
  int updateStatus(uint8_t* buffer, KOMEMORY_STATUS_T op);
  // Removes the item and hands the buffer back to the camera.
  int returnZslBuffer(uint8_t* buffer);
  void logZslStatus();

  // Bookkeeping views for diagnostics and tests; false when the address is not tracked.
  bool getStatus(uint8_t* buffer, uint32_t* status, int32_t* lockCount);
  uint32_t count();

 private:
  pthread_mutex_t mLock;
  KoEngineContext* mEngine;
  uint32_t mCount;
  Vector<bufferItem_t*> mBuffers;

  KoMemory(const KoMemory&) = delete;
  KoMemory& operator=(const KoMemory&) = delete;
};

}  // namespace android
