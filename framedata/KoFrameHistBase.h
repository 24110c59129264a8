#pragma once
// The node list that the live history and its snapshots share: nodes oldest first (index 0).
#include <cstdint>

#include <utils/RefBase.h>
#include <utils/Vector.h>

#include "KoFrameHistNode.h"

namespace android {

class KoFrameHistBase {
 public:
  enum : uint32_t { MAX_ITEMS = 30 };

  KoFrameHistBase();
  virtual ~KoFrameHistBase();

  // out = the oldest frame with that id, or null; always returns 1.
  int getItemWithFrameId(uint32_t frameId, sp<KoFrameData>& out);
  // Index of the oldest frame with that id, or -1.
  int indexOfFrameId(uint32_t frameId) const;

  size_t size() const { return mHistory.size(); }

  Vector<sp<KoFrameHistNode>> mHistory;
  uint32_t mMaxItems;
};

}  // namespace android
