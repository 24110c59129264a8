#pragma once
// A frozen copy of a history's node list, taken for a capture. It shares the frames and ZSL
// buffers by reference and keeps every ZSL buffer it holds locked until released.
#include <utils/Vector.h>

#include "KoFrameHistBase.h"

namespace android {

class KoFrameHistSnapshot : public KoFrameHistBase {
 public:
  explicit KoFrameHistSnapshot(KoFrameHistBase* source);
  ~KoFrameHistSnapshot() override;

  // Unlocks and lets go of every ZSL buffer the snapshot holds; the frames stay.
  void releaseZSLBuffers();
  // Appends the snapshot's frames, oldest first, to out.
  void getFrameDataQueue(Vector<sp<KoFrameData>>& out);

 private:
  KoFrameHistSnapshot(const KoFrameHistSnapshot&) = delete;
  KoFrameHistSnapshot& operator=(const KoFrameHistSnapshot&) = delete;
};

}  // namespace android
