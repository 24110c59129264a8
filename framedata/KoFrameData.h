#pragma once
// Everything the engine knows about one preview frame: identity, the downscaled picture and the
// working images derived from it, the camera's focus/exposure/face results, the motion-sensor
// samples of the moment, the engine's own statistics and scores, and the handle of the matching
// ZSL buffer once it has arrived. Shared by reference between the history, capture snapshots and
// the best-shot list; the last reference frees the images.
#include <pthread.h>

#include <atomic>
#include <cstdint>

#include <utils/RefBase.h>
#include <utils/Vector.h>

#include "ABuffer.h"
#include "DexFrameMetaData.h"
#include "KoEngineTypes.h"
#include "KoFaceMetaData.h"
#include "KoRecycler.h"
#include "KoSensorSample.h"

namespace android {

class KoFrameData : public RefBase {
 public:
  // Processed-event bits of mProcessedEvents.
  enum : uint32_t {
    EVENT_IN_HISTORY = 0x1,
    EVENT_FACE = 0x2,
    EVENT_ZSL = 0x4,
    EVENT_METADATA = 0x8,
    EVENT_MOTION = 0x10000,
    EVENT_STATS = 0x20000,
    EVENT_CAM_MOTION = 0x40000,
  };

  enum : uint32_t {
    ANALYSIS_WIDTH = 640,
    ANALYSIS_HEIGHT = 360,
    SMALL_WIDTH = 320,
    SMALL_HEIGHT = 180,
    SMALL_IMAGE_BYTES = SMALL_WIDTH * SMALL_HEIGHT,
    SOBEL_BUFFER_BYTES = SMALL_WIDTH * SMALL_HEIGHT * 2,
    ANALYSIS_IMAGE_BYTES = ANALYSIS_WIDTH * ANALYSIS_HEIGHT * 3 / 2,
    HISTOGRAM_BINS = 32,
  };

  KoFrameData();
  // A frame that goes back to `recycler` when its last strong reference goes (letting go of its
  // images and of what it holds of others), to be handed out again by KoRecycler::obtain.
  explicit KoFrameData(KoRecycler<KoFrameData>* recycler);

  // Back to the state of a new frame, keeping the histogram block (its contents are stale until
  // the frame is filled again). Called by the recycler.
  bool reuse();

  // ORs bits into mProcessedEvents. Safe to call while holding gFrameDataMutex: the mutex is
  // only tried, never waited for, and a caller that holds it keeps it.
  void setProcessedEvents(uint32_t bits);

  // Lets an image of the frame go: freed, or back to its recycler (see mRecycledImages).
  void releaseImage(sp<ABuffer>& image);
  uint32_t processedEvents() const { return mProcessedEvents.load(std::memory_order_acquire); }
  bool hasEvents(uint32_t bits) const { return (processedEvents() & bits) == bits; }

  // The ZSL handle is cleared by the buffer's owner on whichever thread drops the last
  // reference, so reads and writes of it go through these two.
  sp<ABuffer> zslBuffer() const;
  void setZslBuffer(const sp<ABuffer>& handle);
  // Clears the handle only while it is still `handle` (a later buffer for the same frame id
  // may have replaced it).
  void clearZslBuffer(const sp<ABuffer>& handle);

  // The frame's sensor block as the camera-motion kernel takes it.
  KO_sensorData_t sensorData() const;

  // Face entries of mFaceData that can be read, clamped to the record's capacity.
  uint32_t faceCount() const { return KO_faceCount(&mFaceData.record); }

  int64_t mTimestamp;
  uint32_t mFrameId;
  uint8_t mHasZsl;
  uint32_t mWidth;   // of mDownscaledImage, a multiple of 16; also its luma stride
  uint32_t mHeight;  // a multiple of 8
  uint32_t mAnalysisWidth;
  uint32_t mAnalysisHeight;
  uint32_t mSmallWidth;
  uint32_t mSmallHeight;
  sp<ABuffer> mZslBuffer;        // 4-byte handle owned by a KoMemoryBuffer; use zslBuffer()
  sp<ABuffer> mDownscaledImage;  // planar 4:2:0: luma, then U, then V planes
  uint8_t* mAnalysisImage;       // 640x360 band centred in mDownscaledImage, stride mWidth
  sp<ABuffer> mSmallImage;       // 320x180 luma
  bool mSmallImageReady;         // mSmallImage holds the 2x2 reduction of the analysis view
  sp<ABuffer> mSobelBuffer1;     // 320x180 int16 scratch
  sp<ABuffer> mSobelBuffer2;
  int32_t mFeScore;
  float mAuxScore;
  float mFacesScore;
  float mBsScore;
  uint32_t mStatsWidth;
  uint32_t mStatsHeight;
  uint32_t mStatsParams[5];
  KO_dataStats_t mLumaStats;
  KO_dataStats_t mDiffStats;
  KO_dataStats_t mSobelStats;
  Vector<KO_dataStats_t> mStatsVectors[3];
  uint32_t mHistogramBins;
  uint32_t* mHistogram;
  uint32_t mMotionResult[10];  // motion estimation result block, read by word
  KoFaceBlock_t mFaceData;
  KoSensorSample mAccelSample;
  KoSensorSample mGyroSample;
  KoSensorSample mOrientSample;
  KoSensorSample mMagneticSample;
  uint8_t mSensorEnabled[4];  // accelerometer, gyroscope, orientation, magnetic field
  int16_t mCafState;
  int16_t mLensPos;
  uint8_t mAfRoiType;
  uint8_t mAfNumRoi;
  uint16_t mAfWindow[4];
  uint32_t mZoom;
  int32_t mOrientation;
  int32_t mLuxLevel;
  int32_t mAecState;
  int32_t mAwbState;
  float mLuxIdx;
  float mExpTime;
  uint32_t mStreamType;
  uint32_t mPreviewWidth;
  uint32_t mPreviewHeight;
  uint32_t mAnalysisImageSize;
  uint32_t mFaceRefWidth;
  uint32_t mFaceRefHeight;
  uint32_t mCamMotion[8];  // camera-motion result block, read by word
  sp<ABuffer> mMetaBuffer;
  std::atomic<uint32_t> mProcessedEvents;
  // The four images are recycled KoImageBuffers (frames made by the frame factory): they are
  // let go, not freed, and go back to their recyclers. Otherwise they are freed with the frame.
  bool mRecycledImages;

  // Serialises changes to frames shared between the history and its readers.
  static pthread_mutex_t gFrameDataMutex;

 protected:
  virtual ~KoFrameData();
  void onLastStrongRef(const void* id) override;

 private:
  void clearValues();

  mutable pthread_mutex_t mZslLock;
  wp<KoRecycler<KoFrameData>> mRecycler;

  KoFrameData(const KoFrameData&) = delete;
  KoFrameData& operator=(const KoFrameData&) = delete;
};

}  // namespace android
