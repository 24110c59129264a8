#pragma once
// Reference-counted handle of one borrowed ZSL buffer. Whoever needs the buffer holds an
// sp<KoMemoryBuffer>; when the last reference goes the buffer returns to the camera.
#include <cstdint>

#include <utils/RefBase.h>

#include "ABuffer.h"
#include "KoMemory.h"

namespace android {

class KoFrameData;

class KoMemoryBuffer : public RefBase {
 public:
  KoMemoryBuffer(KoMemory* memory, uint8_t* buffer);

  int updateStatus(KOMEMORY_STATUS_T op);
  void setFrameData(sp<KoFrameData>& frame);

  // The camera's buffer address held in the handle.
  uint8_t* address() const;

  KoMemory* mMemory;
  sp<ABuffer> mHandle;  // 4 (or pointer-size) bytes holding the camera's buffer address
  sp<KoFrameData> mFrameData;

 protected:
  virtual ~KoMemoryBuffer();
};

}  // namespace android
