#pragma once
// The rolling history of recent preview frames (at most 30 nodes, oldest first). The pieces of
// a frame (faces, camera metadata, ZSL buffer) arrive separately and in any order; a piece whose
// frame is in the history is merged at once, otherwise it waits in a pending list of its kind
// until the frame comes or it can no longer find it.
#include <cstdint>

#include <vector>

#include <utils/Vector.h>

#include "ABuffer.h"
#include "KoEngineTypes.h"
#include "KoFaceMetaData.h"
#include "KoFrameHistBase.h"

namespace android {

class KoFrameHist : public KoFrameHistBase {
 public:
  struct faceDataItem_t {
    uint32_t frameId;
    sp<KoFaceMetaData> faceData;
  };
  struct metaDataItem_t {
    uint32_t frameId;
    sp<ABuffer> metaBuffer;
    int32_t luxLevel;
    int32_t aecState;
    int32_t awbState;
    float luxIdx;
    float expTime;
  };
  struct zslDataItem_t {
    uint32_t frameId;
    sp<KoMemoryBuffer> zslMemory;
    KO_ZslFrameData_t zslData;
  };

  KoFrameHist();
  ~KoFrameHist() override;

  void addFrameData(sp<KoFrameData>& frame);
  void addFaceData(uint32_t frameId, sp<KoFaceMetaData>& faceData);
  void addMetaData(uint32_t frameId, sp<ABuffer>& metaBuffer, Ko_CameraMetaData_t* camMeta);
  void addZslData(sp<KoMemoryBuffer>& memory, KO_ZslFrameData_t* zslData, uint32_t frameId);

  // Lets go of the ZSL buffer of the oldest frame with that id; 1 when the frame was found.
  int releaseZslWithFrameId(uint32_t frameId);
  // Frees the Sobel scratch images of the oldest frame with that id; 1 when found.
  int releaseProcessBuffersWithFrameId(uint32_t frameId);

  void performMaintenanceCount();
  void performMaintenanceId(uint32_t frameId);
  void removeOldestItem();
  void removeOldestItems(uint32_t n);

  Vector<faceDataItem_t*> mFaceItems;
  Vector<metaDataItem_t*> mMetaItems;
  Vector<zslDataItem_t*> mZslItems;

 private:
  static void freeFaceDataItem(faceDataItem_t* item);
  static void freeMetaDataItem(metaDataItem_t* item);
  static void freeZslDataItem(zslDataItem_t* item);

  static void mergeFace(KoFrameData* frame, const sp<KoFaceMetaData>& faceData);
  static void mergeMeta(KoFrameData* frame, const sp<ABuffer>& metaBuffer, int32_t luxLevel,
                        int32_t aecState, int32_t awbState, float luxIdx, float expTime);
  static void mergeZsl(sp<KoFrameData>& frame, const sp<KoMemoryBuffer>& memory);

  // History entries dropped from the front that nothing else held, for the next frames (the
  // history lives on the foreground thread; capture snapshots make entries of their own).
  static constexpr size_t kSpareNodes = 4;
  std::vector<sp<KoFrameHistNode>> mSpareNodes;

  KoFrameHist(const KoFrameHist&) = delete;
  KoFrameHist& operator=(const KoFrameHist&) = delete;
};

}  // namespace android
