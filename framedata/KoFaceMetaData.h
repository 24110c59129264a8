#pragma once
// Face-detection results travelling from the camera to the history until the frame they
// belong to is known.
#include <cstdint>

#include <utils/RefBase.h>

#include "KoEngineTypes.h"

namespace android {

// The 336-byte face block of a frame: the camera's record, then the number of faces the face
// analysis predicts to blink (written by the analysis, never by the camera).
struct KoFaceBlock_t {
  KO_cam_face_detection_data_t record;
  int32_t numBlinkedPredicted;
};
static_assert(sizeof(KoFaceBlock_t) == 336, "face block size");

class KoFaceMetaData : public RefBase {
 public:
  KoFaceMetaData();

  uint32_t mValid;  // 1 when a face-detection record was supplied
  KoFaceBlock_t mFaceData;

 protected:
  virtual ~KoFaceMetaData();
};

}  // namespace android
