#pragma once
// An image of a frame record that owns its memory (16-byte aligned) and is recycled: when the
// last reference goes (the frame record, the preview encoder's rolling buffer or a clip that
// still encodes it), the image goes back to its recycler for a later frame, on whichever thread
// that is; the recycler's lock orders the last reader before the next writer. Frames share
// their analysis copy with the preview encoder this way instead of copying it.
#include "ABuffer.h"
#include "KoRecycler.h"

namespace android {

class KoImageBuffer : public ABuffer {
 public:
  // `bytes` bytes of new memory; data() is null when memory runs out.
  KoImageBuffer(KoRecycler<KoImageBuffer>* recycler, size_t bytes);

  // Serves a request for `bytes` bytes: only an image of exactly that size does.
  bool reuse(size_t bytes);

 protected:
  ~KoImageBuffer() override;
  void onLastStrongRef(const void* id) override;

 private:
  wp<KoRecycler<KoImageBuffer>> mRecycler;
};

}  // namespace android
