#include "KoEngine.h"

#include <cstring>

#include <log/log.h>
#include <utils/Timers.h>
#include <utils/Vector.h>

#include "ABuffer.h"
#include "AMessage.h"
#include "DexCameraMotion.h"
#include "DexFocusExposure.h"
#include "DexFrameMetaData.h"
#include "DexKoVersion.h"
#include "DexMotionDetection.h"
#include "DexSceneClassifer.h"
#include "DexVideoGeneration.h"
#include "KoEngineBg.h"
#include "KoEngineFg.h"
#include "KoFrameDataCreate.h"
#include "KoMemory.h"
#include "KoPreviewEncode.h"
#include "KoSequenceQueue.h"
#include "KoStatsData.h"

#undef LOG_TAG
#define LOG_TAG "KoEngine"

namespace android {

namespace {

const int kCaptureJobs = 6;  // frames collected after the shutter (and jobs kept at most)

int64_t nowUs() { return systemTime(SYSTEM_TIME_MONOTONIC) / 1000; }

// Copies `size` bytes into a new owning buffer (an empty one when there is nothing to copy).
sp<ABuffer> copyToBuffer(const void* data, size_t size) {
  sp<ABuffer> buffer = new ABuffer(size);
  if (data && size && buffer->data()) memcpy(buffer->data(), data, size);
  return buffer;
}

}  // namespace

KoEngine::KoEngine(void* cookie, KO_KoEngineConfig_t* config)
    : mCookie(cookie),
      mFrameDataCreate(nullptr),
      mSequenceQueue(nullptr),
      mMemory(nullptr),
      mPreviewEncode(nullptr),
      mFrameMetaData(nullptr),
      mFocusExposure(nullptr),
      mMotionDetection(nullptr),
      mCameraMotion(nullptr),
      mVideoGeneration(nullptr),
      mSceneClassifier(nullptr),
      mStatsData(nullptr),
      mBestShotDoneCb(nullptr),
      mVideoDoneCb(nullptr),
      mMetaDataDoneCb(nullptr),
      mStatisticsCb(nullptr),
      mFrameDoneCb(nullptr),
      mEngineDoneCb(nullptr),
      mLastZslFrameId(0),
      mRecording(false),
      mVideoEnable(true),
      mBestShotEnable(true),
      mProcessInFg(true),
      mState(0),
      mFeatureMask(FEATURE_DEFAULT),
      mSensorMask(0) {
  pthread_mutex_init(&mLock, nullptr);
  KO_KoEngineConfig_t effective = {true, true, true};
  if (config) {
    effective = *config;
  } else {
    ALOG(LOG_WARN, LOG_TAG, "%s: no configuration given, every feature allowed", "KoEngine");
  }
  configEngine(&effective);
  mFrameDataCreate = new KoFrameDataCreate(this);
  mFg = new KoEngineFg(this);
  mFg->init(mProcessInFg);
  mBg = new KoEngineBg(this);
  mBg->init();
  mMemory = new KoMemory(this);
  mPreviewEncode = new KoPreviewEncode(mFg, KoEngineFg::videoEncodeCompleteCb, effective.videoEnable,
                                       effective.auxEnable);
  mFrameMetaData = new DexFrameMetaData();
  mFocusExposure = new DexFocusExposure(35);
  mCameraMotion = new DexCameraMotion();
  mMotionDetection = new DexMotionDetection(640, 360);
  mVideoGeneration = new DexVideoGeneration();
  mSequenceQueue = new KoSequenceQueue(kCaptureJobs);
  mSceneClassifier = new DexSceneClassifer();
  mStatsData = new KoStatsData();

  DexKoVersion* version = new DexKoVersion();
  const char* text = "";
  version->getVersion(&text);
  ALOG(LOG_WARN, LOG_TAG, "%s: koCore library version = %s", "KoEngine", text ? text : "");
  Vector<DexKoVersion::koVersion_t> versions;
  version->getAllVersions(versions);
  delete version;
  mState = 1;
}

KoEngine::~KoEngine() {
  // Operations already waiting for the lock see the state and do nothing.
  mState = 2;
  pthread_mutex_lock(&mLock);
  if (mFg != nullptr) {
    mFg->deinit();  // stops the background handler first
    mFg.clear();
  }
  mBg.clear();
  delete mPreviewEncode;
  mPreviewEncode = nullptr;
  delete mFrameMetaData;
  mFrameMetaData = nullptr;
  delete mFocusExposure;
  mFocusExposure = nullptr;
  delete mMotionDetection;
  mMotionDetection = nullptr;
  delete mCameraMotion;
  mCameraMotion = nullptr;
  delete mVideoGeneration;
  mVideoGeneration = nullptr;
  delete mSceneClassifier;
  mSceneClassifier = nullptr;
  delete mStatsData;
  mStatsData = nullptr;
  delete mFrameDataCreate;
  mFrameDataCreate = nullptr;
  delete mSequenceQueue;
  mSequenceQueue = nullptr;
  delete mMemory;
  mMemory = nullptr;
  pthread_mutex_unlock(&mLock);
  pthread_mutex_destroy(&mLock);
}

void KoEngine::configEngine(KO_KoEngineConfig_t* config) {
  if (!config) return;
  mBestShotEnable = config->bestShotEnable;
  mVideoEnable = config->videoEnable;
  uint32_t features = mFeatureMask;
  if (!config->auxEnable) features &= ~0x2u;
  if (!config->videoEnable) features &= ~(0x1u | 0x2u | FEATURE_MOTION_SCORES);
  mFeatureMask = features;
  if (features & FEATURE_SENSORS) mSensorMask |= SENSOR_ACCELEROMETER | SENSOR_GYROSCOPE;
}

void KoEngine::setEnableModes(int bestShot, int video) {
  if (bestShot != -1) mBestShotEnable = bestShot != 0;
  if (video != -1) mVideoEnable = video != 0;
}

void KoEngine::frameDone(void* buffer) {
  KO_frameDoneCallBack_t cb = mFrameDoneCb;
  if (cb) cb(mCookie, buffer);
}

int KoEngine::handleStartPreview(int width, int height, unsigned int /*reserved*/, bool previewHist,
                                 bool replaceEnable, KO_cam_position_t camPosition) {
  pthread_mutex_lock(&mLock);
  if (mState != 2) {
    sp<AMessage> msg = new AMessage(KoEngineFg::kWhatStartPreview, mFg->getHandlerId());
    msg->setInt32("width", width);
    msg->setInt32("height", height);
    msg->setInt32("preview_hist", previewHist);
    msg->setInt32("replace_enable", replaceEnable);
    msg->setInt32("cam_position", camPosition);
    msg->post();
  }
  pthread_mutex_unlock(&mLock);
  return 0;
}

int KoEngine::handlePreviewFrame(KO_PreviewFrameData_t* preview) {
  int result = 0;
  pthread_mutex_lock(&mLock);
  if (mState != 2) {
    if (mFg->isLateMode()) {
      postLateMessage();
    } else if (!preview) {
      ALOG(LOG_ERROR, LOG_TAG, "%s: no preview record", "handlePreviewFrame");
    } else {
      sp<KoFrameData> frame;
      result = mFrameDataCreate->newFrame(preview, frame);
      if (result == 0 && frame != nullptr) {
        sp<AMessage> msg = new AMessage(KoEngineFg::kWhatPreviewFrame, mFg->getHandlerId());
        msg->setObject("frame_data", frame);
        msg->setBuffer("preview_data", copyToBuffer(preview, sizeof(*preview)));
        msg->setInt64("system_time", nowUs());
        msg->post();
      }
    }
  }
  pthread_mutex_unlock(&mLock);
  return result;
}

int KoEngine::handleMetadataFrame(KO_cam_face_detection_data_t* face, KO_MetaFrameData_t* meta) {
  int result = 0;
  pthread_mutex_lock(&mLock);
  if (mState != 2) {
    if (mFg->isLateMode()) {
      postLateMessage();
    } else {
      if (face && face->frameId != 0) {
        sp<KoFaceMetaData> faceData;
        result = mFrameDataCreate->newFaceData(face, faceData);
        if (result == 0 && faceData != nullptr) {
          sp<AMessage> msg = new AMessage(KoEngineFg::kWhatFaceFrame, mFg->getHandlerId());
          msg->setObject("face_data", faceData);
          msg->setInt32("frame_id", static_cast<int32_t>(face->frameId));
          msg->setInt64("system_time", nowUs());
          msg->post();
        }
      }
      if (meta) {
        sp<AMessage> msg = new AMessage(KoEngineFg::kWhatMetaFrame, mFg->getHandlerId());
        msg->setBuffer("meta_data", copyToBuffer(meta->data, meta->data ? meta->size : 0));
        msg->setBuffer("cam_meta_data", copyToBuffer(&meta->camMeta, sizeof(meta->camMeta)));
        msg->setInt32("frame_id", static_cast<int32_t>(meta->frameId));
        msg->setInt64("system_time", nowUs());
        msg->post();
      } else {
        ALOG(LOG_ERROR, LOG_TAG, "%s: no metadata record", "handleMetadataFrame");
      }
    }
  }
  pthread_mutex_unlock(&mLock);
  return result;
}

int KoEngine::handleZslFrame(KO_ZslFrameData_t* zsl) {
  pthread_mutex_lock(&mLock);
  if (mState != 2 && !zsl) {
    ALOG(LOG_ERROR, LOG_TAG, "%s: no ZSL record", "handleZslFrame");
  } else if (mState != 2 && !zsl->buffer) {
    // Nothing was lent, so nothing goes back.
    ALOG(LOG_ERROR, LOG_TAG, "%s: ZSL record of frame %u without a buffer", "handleZslFrame", zsl->frameId);
  } else if (mState != 2) {
    if (mFg->isLateMode()) {
      postLateMessage();
      frameDone(zsl->buffer);
    } else {
      sp<KoMemoryBuffer> memory;
      bool accepted = true;
      if (!mProcessInFg) {
        // With foreground processing off only every third frame id is taken.
        accepted = zsl->frameId - mLastZslFrameId > 2;
        if (accepted) {
          mFrameDataCreate->newZslFrame(zsl, memory);
          if (memory != nullptr) mLastZslFrameId = zsl->frameId;
        }
      } else {
        mFrameDataCreate->newZslFrame(zsl, memory);
      }
      if (!accepted || memory == nullptr) frameDone(zsl->buffer);
      // Posted even when the buffer went back, so the foreground sees every frame id.
      sp<AMessage> msg = new AMessage(KoEngineFg::kWhatZslFrame, mFg->getHandlerId());
      msg->setObject("frame_data", memory);
      msg->setBuffer("zsl_data", copyToBuffer(zsl, sizeof(*zsl)));
      msg->setInt32("frame_id", static_cast<int32_t>(zsl->frameId));
      msg->setInt64("system_time", nowUs());
      msg->post();
    }
  }
  pthread_mutex_unlock(&mLock);
  return 0;
}

int KoEngine::handleZslChannelCb() {
  pthread_mutex_lock(&mLock);
  if (mState != 2) {
    sp<AMessage> msg = new AMessage(KoEngineFg::kWhatZslChannel, mFg->getHandlerId());
    msg->setInt32("jobId", 0);
    msg->post();
  }
  pthread_mutex_unlock(&mLock);
  return 0;
}

int KoEngine::handleStartRecording() {
  pthread_mutex_lock(&mLock);
  if (mState != 2) {
    mRecording = true;
    mPreviewEncode->startRecording();
    (new AMessage(KoEngineFg::kWhatStartRecording, mFg->getHandlerId()))->post();
  }
  pthread_mutex_unlock(&mLock);
  return 0;
}

int KoEngine::handleStopRecording() {
  pthread_mutex_lock(&mLock);
  if (mState != 2) {
    mRecording = false;
    mPreviewEncode->stopRecording();
    (new AMessage(KoEngineFg::kWhatStopRecording, mFg->getHandlerId()))->post();
  }
  pthread_mutex_unlock(&mLock);
  return 0;
}

int KoEngine::handleFlushVideo() {
  pthread_mutex_lock(&mLock);
  if (mState != 2) mPreviewEncode->flush();
  pthread_mutex_unlock(&mLock);
  return 0;
}

int KoEngine::handleTakePicture(KO_TakePicture_t* picture) {
  pthread_mutex_lock(&mLock);
  if (mState != 2 && !picture) {
    ALOG(LOG_ERROR, LOG_TAG, "%s: no take-picture record", "handleTakePicture");
  } else if (mState != 2) {
    const bool bestShot = mBestShotEnable ? picture->bestShotEnable : false;
    const bool video = mVideoEnable && picture->videoFd >= 0 ? picture->videoEnable : false;
    sp<ABuffer> config = copyToBuffer(picture->config, picture->config ? picture->configSize : 0);
    sp<AMessage> msg = new AMessage(KoEngineFg::kWhatTakePicture, mFg->getHandlerId());
    msg->setInt32("job_id", picture->jobId);
    msg->setInt32("frame_id", picture->frameId);
    msg->setInt64("timeStamp", picture->timeStamp);
    msg->setInt32("orientation", picture->orientation);
    msg->setInt32("video_fd", picture->videoFd);
    msg->setInt32("metadata_fd", picture->metadataFd);
    msg->setBuffer("config", config);
    msg->setInt32("bestShot_enable", bestShot);
    msg->setInt32("video_enable", video);
    msg->setBuffer("exif_ts", copyToBuffer(&picture->exifTs, sizeof(picture->exifTs)));
    msg->setInt32("hdr_mode", picture->hdrMode);
    msg->setInt64("system_time", nowUs());
    msg->post();
  }
  pthread_mutex_unlock(&mLock);
  return 0;
}

int KoEngine::handleGetParameters(KO_getParams_t* params) {
  if (!params) return 0;
  // Under the engine lock: destruction clears mFg with the lock held.
  pthread_mutex_lock(&mLock);
  if (mState == 2 || mFg == nullptr) {
    params->param1 = 0;
    params->param2 = 0;
  } else {
    params->param1 = mFg->mReportedParam1;
    params->param2 = mFg->mReportedParam2;
  }
  pthread_mutex_unlock(&mLock);
  return 0;
}

void KoEngine::postLateMessage() {
  sp<AMessage> msg = new AMessage(KoEngineFg::kWhatLate, mFg->getHandlerId());
  msg->setInt64("system_time", nowUs());
  msg->post();
}

namespace {
template <typename Cb>
int storeCallback(std::atomic<Cb>& slot, Cb cb) {
  slot = cb;
  return cb ? 0 : KoEngine::CALLBACK_NULL;
}
}  // namespace

int KoEngine::registerBestShotDoneCallBack(KO_bestShotDoneCallBack_t cb) { return storeCallback(mBestShotDoneCb, cb); }
int KoEngine::registerVideoDoneCallBack(KO_videoDoneCallBack_t cb) { return storeCallback(mVideoDoneCb, cb); }
int KoEngine::registerMetaDataDoneCallBack(KO_metaDataDoneCallBack_t cb) { return storeCallback(mMetaDataDoneCb, cb); }
int KoEngine::registerStatisticsCallBack(KO_statisticsCallBack_t cb) { return storeCallback(mStatisticsCb, cb); }
int KoEngine::registerFrameDoneCallBack(KO_frameDoneCallBack_t cb) { return storeCallback(mFrameDoneCb, cb); }
int KoEngine::registerKoEngineDoneCallBack(KO_engineDoneCallBack_t cb) { return storeCallback(mEngineDoneCb, cb); }

}  // namespace android
