#pragma once
// One entry of a frame history: a frame and the ZSL buffer that belongs to it (may be null).
#include <utils/RefBase.h>

#include "KoFrameData.h"
#include "KoMemoryBuffer.h"

namespace android {

class KoFrameHistNode : public RefBase {
 public:
  KoFrameHistNode(sp<KoFrameData>& frame, sp<KoMemoryBuffer>& memory);

  sp<KoFrameData> mFrameData;
  sp<KoMemoryBuffer> mZslMemory;

 protected:
  virtual ~KoFrameHistNode();
};

}  // namespace android
