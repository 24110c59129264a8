#pragma once
// Builds the engine's per-frame records from the camera's inputs: the preview frame (downscaled
// analysis image, camera values, motion-sensor samples), face records and ZSL buffers. Used from
// one thread only.
#include <cstdint>
#include <vector>

#include <utils/Errors.h>
#include <utils/RefBase.h>

#include "KoEngineTypes.h"
#include "KoFaceMetaData.h"
#include "KoFrameData.h"
#include "KoImageBuffer.h"
#include "KoRecycler.h"
#include "KoMemoryBuffer.h"
#include "KoSensorSample.h"
#include "SensorEventQueue.h"

namespace android {

class KoEngineContext;

class KoFrameDataCreate {
 public:
  explicit KoFrameDataCreate(KoEngineContext* engine);
  ~KoFrameDataCreate();

  status_t setup();
  status_t cleanup();

  // Always 0; `frame` is set only when a record was made.
  status_t newFrame(KO_PreviewFrameData_t* preview, sp<KoFrameData>& frame);
  // 0, or NO_MEMORY when the record cannot be made. A null record gives mValid 0.
  status_t newFaceData(KO_cam_face_detection_data_t* face, sp<KoFaceMetaData>& faceData);
  // Always 0; `memory` is set only when the buffer is accepted.
  status_t newZslFrame(KO_ZslFrameData_t* zsl, sp<KoMemoryBuffer>& memory);

  status_t getDexCustomAFMetadata(sp<KoFrameData>& frame, KO_dex_af_metadata_t* af);
  status_t getSensorData(sp<KoFrameData>& frame);
  status_t downscaleImage(KO_cam_frame_len_offset_t* planes, sp<KoFrameData>& frame,
                          const uint8_t* data, int width, int height);

  KoEngineContext* mEngine;
  sp<SensorEventQueue> mSensorQueue;
  uint8_t mSensorEnabled[4];  // accelerometer, gyroscope, orientation, magnetic field
  KoSensorSample mLastAccelSample;
  KoSensorSample mLastGyroSample;
  KoSensorSample mLastOrientSample;
  KoSensorSample mLastMagneticSample;

 private:
  std::vector<ASensorEvent> mSensorEvents;  // read buffer of getSensorData
  // Released frame records and images kept for the next frames (records hold no image while
  // kept; images are kept by kind: analysis copies, small images, Sobel planes).
  static constexpr size_t kKeptFrames = 8;
  static constexpr size_t kKeptImages = 4;
  sp<KoRecycler<KoFrameData>> mFrameRecycler;
  sp<KoRecycler<KoImageBuffer>> mImageRecycler;
  sp<KoRecycler<KoImageBuffer>> mSmallRecycler;
  sp<KoRecycler<KoImageBuffer>> mSobelRecycler;
  uint8_t* mScaleTemp = nullptr;  // scratch of the general reducers
  size_t mScaleTempBytes = 0;

  KoFrameDataCreate(const KoFrameDataCreate&) = delete;
  KoFrameDataCreate& operator=(const KoFrameDataCreate&) = delete;
};

}  // namespace android
