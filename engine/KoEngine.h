#pragma once
// The best-shot engine as the camera stack sees it. The camera code constructs it with a cookie
// and a configuration, registers its callbacks and then hands it, as they arrive, preview
// frames, metadata and face records, ZSL buffers and capture requests. Each call does a little
// work on the caller's thread (validating, building the per-frame record, copying the caller's
// records) and posts a message to the foreground handler; results come back through the
// callbacks, each called with the cookie first.
#include <pthread.h>

#include <atomic>
#include <cstdint>

#include <utils/RefBase.h>

#include "KoEngineContext.h"
#include "KoEngineTypes.h"

namespace android {

class KoFrameDataCreate;
class KoEngineFg;
class KoEngineBg;
class KoSequenceQueue;
class KoMemory;
class KoPreviewEncode;
class DexFrameMetaData;
class DexFocusExposure;
class DexMotionDetection;
class DexCameraMotion;
class DexVideoGeneration;
class DexSceneClassifer;
class KoStatsData;

class KoEngine : public KoEngineContext {
 public:
  // Feature bits of mFeatureMask.
  enum : uint32_t {
    FEATURE_MOTION_SCORES = 0x4,  // motion scores per frame
    FEATURE_CAMERA_MOTION = 0x8,  // with FEATURE_SENSORS: camera motion per frame
    FEATURE_SENSORS = 0x10,       // motion sensors attached to frames
    FEATURE_DEFAULT = 0x1F,
  };
  // Sensor selection bits of mSensorMask.
  enum : uint32_t {
    SENSOR_ACCELEROMETER = 0x1,
    SENSOR_GYROSCOPE = 0x2,
    SENSOR_MAGNETIC_FIELD = 0x4,
    SENSOR_ORIENTATION = 0x8,
  };
  // Returned by a register operation given a null callback.
  static const int32_t CALLBACK_NULL = static_cast<int32_t>(0x80000000u);

  KoEngine(void* cookie, KO_KoEngineConfig_t* config);
  virtual ~KoEngine();

  void configEngine(KO_KoEngineConfig_t* config);
  // -1 leaves a flag unchanged; any other value sets it to (value != 0).
  void setEnableModes(int bestShot, int video);

  int handleStartPreview(int width, int height, unsigned int reserved, bool previewHist,
                         bool replaceEnable, KO_cam_position_t camPosition);
  int handlePreviewFrame(KO_PreviewFrameData_t* preview);
  int handleMetadataFrame(KO_cam_face_detection_data_t* face, KO_MetaFrameData_t* meta);
  int handleZslFrame(KO_ZslFrameData_t* zsl);
  int handleZslChannelCb();
  int handleStartRecording();
  int handleStopRecording();
  int handleFlushVideo();
  int handleTakePicture(KO_TakePicture_t* picture);
  int handleGetParameters(KO_getParams_t* params);
  void postLateMessage();

  int registerBestShotDoneCallBack(KO_bestShotDoneCallBack_t cb);
  int registerVideoDoneCallBack(KO_videoDoneCallBack_t cb);
  int registerMetaDataDoneCallBack(KO_metaDataDoneCallBack_t cb);
  int registerStatisticsCallBack(KO_statisticsCallBack_t cb);
  int registerFrameDoneCallBack(KO_frameDoneCallBack_t cb);
  int registerKoEngineDoneCallBack(KO_engineDoneCallBack_t cb);

  // What the frame factory and the ZSL tracking need of the engine.
  uint32_t featureMask() const override { return mFeatureMask.load(); }
  uint32_t sensorMask() const override { return mSensorMask.load(); }
  KoMemory* memory() const override { return mMemory; }
  void frameDone(void* buffer) override;

  // The engine's parts reach each other through these members.
  pthread_mutex_t mLock;
  void* mCookie;
  KoFrameDataCreate* mFrameDataCreate;
  sp<KoEngineFg> mFg;
  sp<KoEngineBg> mBg;
  KoSequenceQueue* mSequenceQueue;
  KoMemory* mMemory;
  KoPreviewEncode* mPreviewEncode;
  DexFrameMetaData* mFrameMetaData;
  DexFocusExposure* mFocusExposure;
  DexMotionDetection* mMotionDetection;
  DexCameraMotion* mCameraMotion;
  DexVideoGeneration* mVideoGeneration;
  DexSceneClassifer* mSceneClassifier;
  KoStatsData* mStatsData;
  // Callbacks may be registered on one thread and called on another.
  std::atomic<KO_bestShotDoneCallBack_t> mBestShotDoneCb;
  std::atomic<KO_videoDoneCallBack_t> mVideoDoneCb;
  std::atomic<KO_metaDataDoneCallBack_t> mMetaDataDoneCb;
  std::atomic<KO_statisticsCallBack_t> mStatisticsCb;
  std::atomic<KO_frameDoneCallBack_t> mFrameDoneCb;
  std::atomic<KO_engineDoneCallBack_t> mEngineDoneCb;
  uint32_t mLastZslFrameId;
  bool mRecording;
  std::atomic<bool> mVideoEnable;
  std::atomic<bool> mBestShotEnable;
  bool mProcessInFg;
  std::atomic<int32_t> mState;
  std::atomic<uint32_t> mFeatureMask;
  std::atomic<uint32_t> mSensorMask;

 private:
  KoEngine(const KoEngine&) = delete;
  KoEngine& operator=(const KoEngine&) = delete;
};

}  // namespace android
