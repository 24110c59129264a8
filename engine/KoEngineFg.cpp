#include "KoEngineFg.h"

#include <cstdlib>
#include <cstring>

#include <log/log.h>
#include <utils/Timers.h>

#include "DexCameraMotion.h"
#include "DexFrameMetaData.h"
#include "DexMotionDetection.h"
#include "DexVideoGeneration.h"
#include "KoEngine.h"
#include "KoEngineBg.h"
#include "KoBestShot.h"
#include "KoFrameHistSnapshot.h"
#include "KoPreviewEncode.h"
#include "KoSequenceQueue.h"
#include "KoStatsData.h"
#include "KoTopScore.h"

#undef LOG_TAG
#define LOG_TAG "KoEngineFg"

namespace android {

namespace {

// Frame-processed bits this handler reads and sets.
const uint32_t kInHistory = KoFrameData::EVENT_IN_HISTORY;
const uint32_t kFace = KoFrameData::EVENT_FACE;

// The statistics parameters stored with every frame's statistics.
const uint32_t kStatsParams[5] = {16, 4, 4, 96, 30};

// Low-fps and missing-face windows.
const size_t kFpsSpan = 16;
const int kLowFps = 10;
const uint32_t kFaceWindowIds = 6;
const int64_t kFaceWindowUs = 500000;

int64_t nowUs() { return systemTime(SYSTEM_TIME_MONOTONIC) / 1000; }

}  // namespace

KoEngineFg::KoEngineFg(KoEngine* engine)
    : mReportedParam1(85),
      mReportedParam2(85),
      mEngine(engine),
      mTopScore(nullptr),
      mLooper(new ALooper()),
      mLooperRunning(false),
      mFrameHist(nullptr),
      mState(0),
      mPreviewHist(0),
      mReplaceEnable(0),
      mProcessInFg(false),
      mLateMode(false),
      mCamPosition(KO_CAM_POSITION_BACK),
      mLowFpsMode(false),
      mMissingFaceDataMode(false),
      mStopSignalled(false) {
  pthread_mutex_init(&mLock, nullptr);
  pthread_cond_init(&mStopCond, nullptr);
  mFrameHist = new KoFrameHist();
  mTopScore = new KoTopScore(mFrameHist);
}

KoEngineFg::~KoEngineFg() {
  mState = 2;
  pthread_mutex_lock(&mLock);
  deinit_l();
  delete mTopScore;
  mTopScore = nullptr;
  delete mFrameHist;
  mFrameHist = nullptr;
  pthread_mutex_unlock(&mLock);
  pthread_cond_destroy(&mStopCond);
  mLooper.clear();
  pthread_mutex_destroy(&mLock);
}

void KoEngineFg::init(bool processInFg) {
  pthread_mutex_lock(&mLock);
  mLooper->registerHandler(this);
  mLooper->setName("KoEngineFg");
  mLooper->start(false, false, 0);
  mProcessInFg = processInFg;
  mLooperRunning = true;
  mState = 1;
  pthread_mutex_unlock(&mLock);
}

void KoEngineFg::deinit() {
  mState = 2;
  pthread_mutex_lock(&mLock);
  deinit_l();
  pthread_mutex_unlock(&mLock);
}

void KoEngineFg::deinit_l() {
  // The background side goes first: it may still post completions to this handler.
  if (mEngine && mEngine->mBg != nullptr) mEngine->mBg->deinit();
  if (mLooper == nullptr || !mLooperRunning) return;
  // A handler that is already being destroyed cannot be handed 'clea' (its queued messages are
  // dropped anyway): the looper is then stopped without the handshake.
  if (getStrongCount() > 0) {
    mStopSignalled = false;
    sp<AMessage> msg = new AMessage(kWhatClear, id());
    msg->post();
    // The wait releases mLock, so the looper works off everything queued before 'clea'.
    while (!mStopSignalled) pthread_cond_wait(&mStopCond, &mLock);
  }
  // Messages can still arrive after 'clea' (a completion this handler posted to itself, the
  // encoder's 'vide'); the looper may be about to handle one, waiting for mLock. Stopping joins
  // the looper thread, so the lock is let go meanwhile: such a message then finds the stopping
  // state and returns.
  mLooperRunning = false;
  sp<ALooper> looper = mLooper;
  pthread_mutex_unlock(&mLock);
  looper->stop();
  looper->unregisterHandler(id());
  pthread_mutex_lock(&mLock);
}

bool KoEngineFg::isMessageLate(const sp<AMessage>& msg) {
  int64_t postedUs = 0;
  if (!msg->findInt64("system_time", &postedUs)) return mLateMode;
  const int64_t delayUs = nowUs() - postedUs;
  if (!mLateMode) {
    if (delayUs > kLateEnterUs) {
      mLateMode = true;
      return true;
    }
    return false;
  }
  if (delayUs <= kLateLeaveUs) {
    mLateMode = false;
    return false;
  }
  return true;
}

void KoEngineFg::onMessageReceived(const sp<AMessage>& msg) {
  pthread_mutex_lock(&mLock);
  const uint32_t what = msg->what();
  if (what == kWhatClear) {
    mStopSignalled = true;
    pthread_cond_signal(&mStopCond);
    pthread_mutex_unlock(&mLock);
    return;
  }
  if (mState == 2) {
    pthread_mutex_unlock(&mLock);
    return;
  }
  int32_t i0 = 0, i1 = 0, i2 = 0, i3 = 0, i4 = 0;
  sp<RefBase> object;
  sp<ABuffer> buffer, buffer2;
  switch (what) {
    case kWhatStartPreview:
      msg->findInt32("width", &i0);
      msg->findInt32("height", &i1);
      msg->findInt32("preview_hist", &i2);
      msg->findInt32("replace_enable", &i3);
      msg->findInt32("cam_position", &i4);
      handleStartPreview(i0, i1, i2, i3, static_cast<KO_cam_position_t>(i4));
      break;
    case kWhatPreviewFrame: {
      msg->findObject("frame_data", &object);
      msg->findBuffer("preview_data", &buffer);
      sp<KoFrameData> frame = static_cast<KoFrameData*>(object.get());
      KO_PreviewFrameData_t* preview =
          buffer != nullptr && buffer->size() >= sizeof(KO_PreviewFrameData_t)
              ? reinterpret_cast<KO_PreviewFrameData_t*>(buffer->data())
              : nullptr;
      bool late = isMessageLate(msg);
      handlePreviewFrame(frame, preview, late);
      break;
    }
    case kWhatFaceFrame: {
      msg->findObject("face_data", &object);
      msg->findInt32("frame_id", &i0);
      sp<KoFaceMetaData> face = static_cast<KoFaceMetaData*>(object.get());
      bool late = isMessageLate(msg);
      handleMetaFaceFrame(face, static_cast<unsigned int>(i0), late);
      break;
    }
    case kWhatMetaFrame: {
      msg->findBuffer("meta_data", &buffer);
      msg->findBuffer("cam_meta_data", &buffer2);
      msg->findInt32("frame_id", &i0);
      Ko_CameraMetaData_t* camMeta = buffer2 != nullptr && buffer2->size() >= sizeof(Ko_CameraMetaData_t)
                                         ? reinterpret_cast<Ko_CameraMetaData_t*>(buffer2->data())
                                         : nullptr;
      bool late = isMessageLate(msg);
      handleMetaFrame(static_cast<unsigned int>(i0), buffer, camMeta, late);
      break;
    }
    case kWhatZslFrame: {
      msg->findObject("frame_data", &object);
      msg->findBuffer("zsl_data", &buffer);
      msg->findInt32("frame_id", &i0);
      sp<KoMemoryBuffer> memory = static_cast<KoMemoryBuffer*>(object.get());
      object.clear();
      KO_ZslFrameData_t* zsl = buffer != nullptr && buffer->size() >= sizeof(KO_ZslFrameData_t)
                                   ? reinterpret_cast<KO_ZslFrameData_t*>(buffer->data())
                                   : nullptr;
      bool late = isMessageLate(msg);
      handleZslFrame(memory, zsl, static_cast<unsigned int>(i0), late);
      break;
    }
    case kWhatZslChannel:
      msg->findInt32("jobId", &i0);
      handleZslChannelCb(i0);
      break;
    case kWhatStartRecording:
      handleStartRecording();
      break;
    case kWhatStopRecording:
      handleStopRecording();
      break;
    case kWhatTakePicture: {
      int64_t timeStamp = 0;
      int32_t jobId = 0, frameId = 0, orientation = 0, videoFd = -1, metadataFd = -1;
      int32_t bestShot = 0, video = 0, hdr = 0;
      KO_timespec_t exifTs = {0, 0};
      msg->findInt32("job_id", &jobId);
      msg->findInt32("frame_id", &frameId);
      msg->findInt64("timeStamp", &timeStamp);
      msg->findInt32("orientation", &orientation);
      msg->findInt32("video_fd", &videoFd);
      msg->findInt32("metadata_fd", &metadataFd);
      msg->findBuffer("config", &buffer);
      msg->findInt32("bestShot_enable", &bestShot);
      msg->findInt32("video_enable", &video);
      if (msg->findBuffer("exif_ts", &buffer2) && buffer2 != nullptr && buffer2->size() >= sizeof(exifTs)) {
        memcpy(&exifTs, buffer2->data(), sizeof(exifTs));
      }
      msg->findInt32("hdr_mode", &hdr);
      bool late = isMessageLate(msg);
      handleTakePicture(jobId, static_cast<unsigned int>(frameId), timeStamp, orientation, videoFd, metadataFd,
                        buffer, bestShot != 0, video != 0, exifTs, hdr != 0, late);
      break;
    }
    case kWhatLate:
      isMessageLate(msg);
      break;
    case kWhatProcessCompleted:
      msg->findInt32("jobId", &i0);
      msg->findInt32("processField", &i1);
      handleProcessCompleted(i0, i1);
      break;
    case kWhatEncodeData:
      msg->findInt32("jobId", &i0);
      handleEncodeData(i0);
      break;
    case kWhatSetStartVideo:
      msg->findInt32("jobId", &i0);
      handleSetStartVideo(i0);
      break;
    case kWhatVideoEncoded:
      msg->findInt32("jobId", &i0);
      msg->findInt32("videoSaved", &i1);
      handleVideoEncodeComplete(i0, i1 != 0);
      break;
    default:
      // Codes whose stages are not handled here are ignored.
      break;
  }
  pthread_mutex_unlock(&mLock);
}

void KoEngineFg::handleStartPreview(int /*width*/, int /*height*/, int previewHist, int replaceEnable,
                                    KO_cam_position_t camPosition) {
  mPreviewHist = previewHist;
  mReplaceEnable = replaceEnable;
  mCamPosition = camPosition;
}

void KoEngineFg::handlePreviewFrame(sp<KoFrameData>& frame, KO_PreviewFrameData_t* /*preview*/, bool late) {
  if (frame == nullptr) return;
  KoSequenceQueue* queue = mEngine->mSequenceQueue;
  if (late) {
    // While late a frame is kept only for a capture that has not frozen its history yet.
    const int active = queue->getNumActiveJobs();
    if (active == 0) return;
    Vector<int> frozen;
    queue->getSequenceVector(KO_SEQ_HISTORY_TAKEN, frozen);
    if (static_cast<int>(frozen.size()) == active) return;
  }
  mFrameHist->addFrameData(frame);
  if (frame->mDownscaledImage != nullptr) {
    // Recycled images are shared with the encoder (never written again while it holds them);
    // any other image is copied.
    if (frame->mRecycledImages) {
      mEngine->mPreviewEncode->addFrame(frame->mDownscaledImage, static_cast<int>(frame->mWidth),
                                        static_cast<int>(frame->mHeight), frame->mTimestamp);
    } else {
      mEngine->mPreviewEncode->addFrame(frame->mDownscaledImage->data(), static_cast<int>(frame->mWidth),
                                        static_cast<int>(frame->mHeight), frame->mTimestamp);
    }
  }
  mLowFpsMode = getLowFpsMode(mFrameHist, mCamPosition == KO_CAM_POSITION_FRONT, mLowFpsMode);
  mMissingFaceDataMode = getMissingFaceDataMode(mFrameHist);
  mTopScore->flushListIfNeeded(mMissingFaceDataMode);

  const size_t count = mFrameHist->size();
  if (count > 1) {
    sp<KoFrameData> current = mFrameHist->mHistory[count - 1]->mFrameData;
    sp<KoFrameData> previous = mFrameHist->mHistory[count - 2]->mFrameData;
    const uint32_t features = mEngine->featureMask();
    const uint32_t camMotionBits = KoEngine::FEATURE_CAMERA_MOTION | KoEngine::FEATURE_SENSORS;
    if ((features & camMotionBits) == camMotionBits) processCamMotion(current);
    processFrameStats(current, previous);
    if (features & KoEngine::FEATURE_MOTION_SCORES) processMotionScores(current, mFrameHist);
    if (mProcessInFg) processBestShotInFG();
  }

  Vector<int> ready;
  queue->maintainQueue(mFrameHist, ready);
  for (size_t i = 0; i < ready.size(); ++i) {
    if (mProcessInFg) captureBestShotFromFG(ready[i]);
    postEncodeDataMsg(ready[i]);
  }
  processVideoGen();
}

void KoEngineFg::handleMetaFaceFrame(sp<KoFaceMetaData>& face, unsigned int frameId, bool late) {
  if (late || mLowFpsMode) return;
  mFrameHist->addFaceData(frameId, face);
}

void KoEngineFg::handleMetaFrame(unsigned int frameId, sp<ABuffer> metaData, Ko_CameraMetaData_t* camMeta,
                                 bool late) {
  if (late) return;
  mFrameHist->addMetaData(frameId, metaData, camMeta);
}

void KoEngineFg::handleZslFrame(sp<KoMemoryBuffer>& buffer, KO_ZslFrameData_t* zsl, unsigned int frameId,
                                bool late) {
  if (late) return;
  mFrameHist->addZslData(buffer, zsl, frameId);
}

void KoEngineFg::handleStartRecording() {}

void KoEngineFg::handleStopRecording() {}

void KoEngineFg::handleZslChannelCb(int /*jobId*/) {}

void KoEngineFg::handleEncodeData(int jobId) {
  mEngine->mSequenceQueue->setProcessField(jobId, KO_SEQ_PROCESS_REQUESTED);
}

uint8_t* KoEngineFg::makeExifBlock(KoGenFrameData_t* summary, KoFrameHistSnapshot* snapshot, KoSequenceData* job,
                                   bestShotInfo_t* result, uint32_t* size) {
  *size = 0;
  uint8_t* block = static_cast<uint8_t*>(malloc(kExifBlockBytes));
  if (!block) return nullptr;
  const uint16_t prefix[2] = {3, 0};
  memcpy(block, prefix, sizeof(prefix));
  int written = mEngine->mStatsData->genExifHistory(reinterpret_cast<char*>(block + 4), kExifRecordBytes, summary,
                                                    snapshot, job, result, -1, 0);
  *size = static_cast<uint32_t>(written + 4);
  return block;
}

void KoEngineFg::handleTakePicture(int jobId, unsigned int frameId, long long timeStamp, int orientation,
                                   int videoFd, int metadataFd, sp<ABuffer> config, bool bestShot, bool video,
                                   KO_timespec_t exifTs, bool hdrMode, bool late) {
  KO_statisticsCallBack_t statisticsCb = mEngine->mStatisticsCb;
  if (statisticsCb) {
    KoFrameHistSnapshot* snapshot = new KoFrameHistSnapshot(mFrameHist);
    if (snapshot->size() > 0) {
      KoGenFrameData_t summary;
      memset(&summary, 0, sizeof(summary));
      summary.jobId = jobId;
      summary.bestShotEnabled = bestShot;
      summary.videoEnabled = video;
      summary.hdrMode = hdrMode;
      summary.isLateMode = late;
      summary.capturedFrameId = static_cast<int32_t>(frameId);
      summary.capturedFrameIndex = snapshot->indexOfFrameId(frameId);
      summary.bestShotFrameIndex = -1;
      summary.camPosition = mCamPosition;
      uint32_t size = 0;
      uint8_t* block = makeExifBlock(&summary, snapshot, nullptr, nullptr, &size);
      if (block) {
        KO_statistics_cb_t stats = {block, size, exifTs};
        statisticsCb(mEngine->mCookie, jobId, &stats);
        free(block);
      }
    }
    delete snapshot;
  }
  if (late) {
    KO_engineDoneCallBack_t doneCb = mEngine->mEngineDoneCb;
    if (doneCb) doneCb(mEngine->mCookie, jobId);
    return;
  }
  if (mProcessInFg) mTopScore->setCapturedFrameId(jobId, frameId, timeStamp);
  mEngine->mSequenceQueue->newSequence(jobId, timeStamp, static_cast<int>(frameId), orientation, videoFd,
                                       metadataFd, config, bestShot, video, exifTs, hdrMode);
  handleEncodeData(jobId);
}

void KoEngineFg::processBestShotDone(int jobId, KoSequenceData* job, bestShotInfo_t* result) {
  if (!job || !result || !result->generated || !job->mSnapshot) return;
  sp<KoFrameData> frame;
  job->mSnapshot->getItemWithFrameId(static_cast<uint32_t>(result->frameId), frame);
  if (frame == nullptr) return;
  if (frame->mMetaBuffer == nullptr || job->mConfig == nullptr) return;

  KO_bestShotDone_cb_t record;
  memset(&record, 0, sizeof(record));
  record.frameId = frame->mFrameId;
  sp<ABuffer> handle = frame->zslBuffer();
  if (handle != nullptr) memcpy(&record.zslBuffer, handle->data(), sizeof(record.zslBuffer));
  record.configData = job->mConfig->data();
  record.configSize = static_cast<uint32_t>(job->mConfig->size());
  record.metaData = frame->mMetaBuffer->data();
  record.metaSize = static_cast<uint32_t>(frame->mMetaBuffer->size());
  record.exifTs = job->mExifTs;
  record.captureOffsetUs = result->captureOffsetUs;
  record.replace = mReplaceEnable ? result->replace != 0 : false;
  if (frame->mDownscaledImage != nullptr) {
    const int32_t w = static_cast<int32_t>(frame->mWidth), h = static_cast<int32_t>(frame->mHeight);
    record.yPlane = frame->mDownscaledImage->data();
    record.uPlane = record.yPlane + w * h;
    record.vPlane = record.yPlane + w * h * 5 / 4;
    record.width = w;
    record.stride = w;
    record.height = h;
    record.chromaWidth = w / 2;
    record.chromaStride = w / 2;
    record.chromaHeight = h / 2;
  }
  record.algBitField = result->algBitField;
  record.resultCookie = job->mResultCookie;

  KoGenFrameData_t summary;
  memset(&summary, 0, sizeof(summary));
  summary.jobId = jobId;
  summary.bestShotEnabled = job->mBestShotEnabled;
  summary.videoEnabled = job->mVideoEnabled;
  summary.bestShotGenerated = result->generated;
  summary.hdrMode = job->mHdrMode;
  summary.isLateMode = 0;
  summary.capturedFrameId = job->mCapturedFrameId;
  summary.capturedFrameIndex = job->mCapturedFrameIndex;
  summary.bestShotFrameIndex = result->frameIndex;
  summary.referenceFrameId = result->referenceFrameId;
  summary.jpegReplace = result->replace;
  summary.camPosition = mCamPosition;
  uint32_t size = 0;
  uint8_t* block = makeExifBlock(&summary, job->mSnapshot, job, result, &size);
  record.exifData = block;
  record.exifSize = block ? size : 0;

  KO_bestShotDoneCallBack_t cb = mEngine->mBestShotDoneCb;
  if (cb && job->mBestShotEnabled) cb(mEngine->mCookie, jobId, &record);
  free(block);
}

void KoEngineFg::handleProcessCompleted(int jobId, int processField) {
  KoSequenceQueue* queue = mEngine->mSequenceQueue;
  KoSequenceData* job = queue->getSequence(jobId);
  if (!job) return;
  const uint32_t stage = static_cast<uint32_t>(processField);
  uint32_t pf = queue->getProcessField(jobId);

  if ((pf & KO_SEQ_BESTSHOT_FOUND) && (stage & KO_SEQ_BESTSHOT_DELIVERED) &&
      !(pf & KO_SEQ_BESTSHOT_DELIVERED)) {
    queue->setProcessField(jobId, KO_SEQ_BESTSHOT_DELIVERED);
    processBestShotDone(jobId, job, &job->mBestShotInfo[1]);
    processBestShotDone(jobId, job, &job->mBestShotInfo[0]);
    queue->releaseSequenceZSLBuffers(jobId);
  }
  if ((pf & KO_SEQ_VIDEO_FINISHED) && (stage & KO_SEQ_VIDEO_DELIVERED) &&
      !(pf & KO_SEQ_VIDEO_DELIVERED)) {
    queue->setProcessField(jobId, KO_SEQ_VIDEO_DELIVERED);
    KO_videoDoneCallBack_t cb = mEngine->mVideoDoneCb;
    if (cb && job->mVideoEnabled && job->mVideoSaved) cb(mEngine->mCookie, jobId);
  }
  if ((pf & KO_SEQ_PREVIEW_HISTORY_DONE) && (stage & KO_SEQ_PREVIEW_HISTORY_DELIVERED) &&
      !(pf & KO_SEQ_PREVIEW_HISTORY_DELIVERED)) {
    queue->setProcessField(jobId, KO_SEQ_PREVIEW_HISTORY_DELIVERED);
  }

  pf = queue->getProcessField(jobId);
  if ((pf & KO_SEQ_SNAPSHOT_DONE) == KO_SEQ_SNAPSHOT_DONE) queue->freeSequenceSnapshot(jobId);
  if ((pf & KO_SEQ_ALL_DELIVERED) == KO_SEQ_ALL_DELIVERED) {
    debugPrintSnapshot(job);
    queue->removeSequence(jobId);
    KO_engineDoneCallBack_t cb = mEngine->mEngineDoneCb;
    if (cb) cb(mEngine->mCookie, jobId);
  }
}

void KoEngineFg::processBestShotInFG() {
  KoFrameHistSnapshot* snapshot = new KoFrameHistSnapshot(mFrameHist);
  if (snapshot->size() == 0) {
    delete snapshot;
    return;
  }
  KoSequenceQueue* queue = mEngine->mSequenceQueue;
  const size_t newestIndex = snapshot->size() - 1;
  const sp<KoFrameData>& newest = snapshot->mHistory[newestIndex]->mFrameData;
  const KO_timespec_t noExifTs = {0, 0};
  queue->newSequence(KO_SEQ_INTERNAL_JOB_ID, newest->mTimestamp, static_cast<int>(newest->mFrameId), 0, -1, -1,
                     sp<ABuffer>(), false, false, noExifTs, false);
  KoSequenceData* job = queue->getSequence(KO_SEQ_INTERNAL_JOB_ID);
  if (!job) {
    delete snapshot;
    return;
  }
  job->mSnapshot = snapshot;  // the sequence owns it from here
  memset(job->mSceneInfo, 0, sizeof(job->mSceneInfo));
  job->mCapturedFrameIndex = static_cast<int32_t>(newestIndex);

  KoBestShot* bestShot = new KoBestShot();
  const bool faceScene = KoBestShot::isFaceScene(static_cast<unsigned int>(newestIndex), snapshot) != 0;
  job->mSceneInfo[0] = faceScene ? 0 : 1;
  mReportedParam1 = faceScene ? 100 : 85;
  mReportedParam2 = 85;

  // The background handler's analysis steps, run here on the foreground thread.
  KoEngineBg* bg = mEngine->mBg.get();
  if (bg) {
    bg->processFrameStats(job);
    bg->findBestFE(job);
    bg->processFaceIdBasedData(job);
  }
  bestShot->findFrameInFG(job, mMissingFaceDataMode);
  Vector<KoBestShot::BSScore> list;
  bestShot->getBestShotList(list);
  mTopScore->addTopScoreList(list, mMissingFaceDataMode);
  delete bestShot;
  queue->removeSequence(KO_SEQ_INTERNAL_JOB_ID);
}

void KoEngineFg::captureBestShotFromFG(int jobId) {
  KoSequenceQueue* queue = mEngine->mSequenceQueue;
  bestShotInfo_t main, replace;
  memset(&main, 0, sizeof(main));
  memset(&replace, 0, sizeof(replace));
  KoSequenceData* job = queue->getSequence(jobId);
  if (job) {
    KoFrameHistSnapshot* snapshot = job->mSnapshot;
    unsigned int override = getReplaceOverride(snapshot);
    const uint32_t found = mTopScore->getBestShot(jobId, &main, &replace, job->mHdrMode != 0, override);
    if (found) {
      bestShotInfo_t* results[2] = {&main, &replace};
      for (int r = 0; r < 2; ++r) {
        bestShotInfo_t& out = job->mBestShotInfo[r];
        out = *results[r];
        out.replaceOverride = static_cast<int32_t>(override);
        if (snapshot) {
          const int index = snapshot->indexOfFrameId(static_cast<uint32_t>(out.frameId));
          if (index >= 0) out.frameIndex = index;
        }
      }
    }
  }
  // The background analysis is not needed for the best shot any more.
  queue->setProcessField(jobId, KO_SEQ_FG_ANALYSIS_DONE);
  handleProcessCompleted(jobId, KO_SEQ_BESTSHOT_DELIVERED);
}

void KoEngineFg::postEncodeDataMsg(int jobId) {
  KoEngineBg* bg = mEngine->mBg.get();
  if (!bg) return;
  sp<AMessage> msg = new AMessage(kWhatEncodeData, bg->id());
  msg->setInt32("jobId", jobId);
  msg->setInt32("preview_hist", mPreviewHist);
  msg->setInt32("process_fg", mProcessInFg ? 1 : 0);
  msg->setInt32("cam_position", static_cast<int32_t>(mCamPosition));
  msg->post();
}

void KoEngineFg::handleSetStartVideo(int jobId) {
  KoSequenceQueue* queue = mEngine->mSequenceQueue;
  KoSequenceData* job = queue->getSequence(jobId);
  if (!job || !(queue->getProcessField(jobId) & KO_SEQ_MOTION_DONE)) return;
  mEngine->mVideoGeneration->KoSetVideoStartPoint(job, mEngine->mPreviewEncode, mEngine->mCameraMotion);
  queue->setProcessField(jobId, KO_SEQ_VIDEO_START_SET);
}

void KoEngineFg::processVideoGen() {
  KoSequenceQueue* queue = mEngine->mSequenceQueue;
  Vector<int> ids;
  queue->getSequenceVector(KO_SEQ_VIDEO_START_SET, ids);
  for (size_t i = 0; i < ids.size(); ++i) {
    const int jobId = ids[i];
    KoSequenceData* job = queue->getSequence(jobId);
    const uint32_t pf = queue->getProcessField(jobId);
    if (!job || !(pf & KO_SEQ_VIDEO_START_SET) || (pf & KO_SEQ_VIDEO_END_SET)) continue;
    if (job->mVideoCancelled || job->mVideoSet) continue;
    bool set = false, cancelled = false;
    mEngine->mVideoGeneration->KoSetVideoEndPoint(job, mEngine->mPreviewEncode, mEngine->mCameraMotion, set,
                                                  cancelled);
    job->mVideoSet = set ? 1 : 0;
    job->mVideoCancelled = cancelled ? 1 : 0;
    if (set) queue->setProcessField(jobId, KO_SEQ_VIDEO_END_SET);
  }
}

void KoEngineFg::handleVideoEncodeComplete(int jobId, bool saved) {
  KoSequenceQueue* queue = mEngine->mSequenceQueue;
  KoSequenceData* job = queue->getSequence(jobId);
  if (!job) return;
  job->mVideoSaved = saved && !job->mVideoCancelled ? 1 : 0;
  queue->setProcessField(jobId, KO_SEQ_VIDEO_FINISHED | KO_SEQ_VIDEO_END_SET);
  sp<AMessage> msg = new AMessage(kWhatProcessCompleted, id());
  msg->setInt32("jobId", jobId);
  msg->setInt32("processField", static_cast<int32_t>(KO_SEQ_VIDEO_DELIVERED));
  msg->post();
}

void KoEngineFg::debugPrintSnapshot(KoSequenceData* job) {
  if (!job) return;
  ALOG(LOG_VERBOSE, LOG_TAG, "%s: job %d captured frame %d (index %d), frames %d..%d, process 0x%x",
       "debugPrintSnapshot", job->mJobId, job->mCapturedFrameId, job->mCapturedFrameIndex, job->mFirstFrameId,
       job->mLastFrameId, job->mProcessField.load());
}

void KoEngineFg::videoEncodeCompleteCb(sp<KoEngineFg>& fg, int jobId, bool saved) {
  if (fg == nullptr) return;
  sp<AMessage> msg = new AMessage(kWhatVideoEncoded, fg->id());
  msg->setInt32("jobId", jobId);
  msg->setInt32("videoSaved", saved ? 1 : 0);
  msg->post();
}

// ---- Per-frame statistics -------------------------------------------------------------------

void KoEngineFg::processFrameStats(sp<KoFrameData>& current, sp<KoFrameData>& previous) {
  uint8_t* curView = current->mAnalysisImage;
  uint8_t* prevView = previous->mAnalysisImage;
  uint8_t* curSmall = current->mSmallImage != nullptr ? current->mSmallImage->data() : nullptr;
  uint8_t* prevSmall = previous->mSmallImage != nullptr ? previous->mSmallImage->data() : nullptr;
  uint8_t* sobel1 = current->mSobelBuffer1 != nullptr ? current->mSobelBuffer1->data() : nullptr;
  uint8_t* sobel2 = current->mSobelBuffer2 != nullptr ? current->mSobelBuffer2->data() : nullptr;
  if (!curView || !prevView || !curSmall || !prevSmall || !sobel1 || !sobel2) {
    ALOG(LOG_ERROR, LOG_TAG, "%s: Processing buffers NULL", "processFrameStats");
    return;
  }
  const int viewStride = static_cast<int>(current->mAnalysisWidth);
  const int sw = static_cast<int>(current->mSmallWidth), sh = static_cast<int>(current->mSmallHeight);
  // The small images are the 2x2 reductions of the analysis views. Frame creation makes them
  // in its pass over the camera frame for the common camera sizes; any other frame gets its
  // own here, once (the previous frame's is made again only if it never was).
  for (KoFrameData* f : {current.get(), previous.get()}) {
    if (f->mSmallImageReady) continue;
    DexFrameMetaData::downScaleLuma2x(f->mSmallImage->data(), f->mAnalysisImage, viewStride, sw, sh);
    f->mSmallImageReady = true;
  }

  // Luma, Sobel, difference and histogram in one call: two passes over the small image, the
  // same results as the four kernels one after the other.
  KO_dataStats_t luma, sobel, diff;
  memset(&luma, 0, sizeof(luma));
  memset(&sobel, 0, sizeof(sobel));
  memset(&diff, 0, sizeof(diff));
  DexFrameMetaData::calcSmallFrameStats(curSmall, prevSmall, sw, sh, &luma, &sobel, &diff,
                                        current->mHistogram,
                                        static_cast<int>(current->mHistogramBins),
                                        reinterpret_cast<int16_t*>(sobel1),
                                        reinterpret_cast<int16_t*>(sobel2));

  current->mStatsWidth = current->mSmallWidth;
  current->mStatsHeight = current->mSmallHeight;
  current->mLumaStats = luma;
  current->mDiffStats = diff;
  current->mSobelStats = sobel;
  memcpy(current->mStatsParams, kStatsParams, sizeof(kStatsParams));
  for (Vector<KO_dataStats_t>& v : current->mStatsVectors) v.clear();
  current->setProcessedEvents(KoFrameData::EVENT_STATS);
}

void KoEngineFg::processMotionScores(sp<KoFrameData>& current, KoFrameHist* hist) {
  if (!(current->processedEvents() & kInHistory)) return;
  int64_t referenceTs = 0;
  for (ssize_t i = static_cast<ssize_t>(hist->size()) - 1; i >= 0; --i) {
    const sp<KoFrameData>& frame = hist->mHistory[i]->mFrameData;
    if (frame != nullptr && (frame->processedEvents() & KoFrameData::EVENT_MOTION)) {
      referenceTs = frame->mTimestamp;
      break;
    }
  }
  // Low 32 bits of the two stamps, their difference taken as a signed 32-bit number.
  const int32_t delta = static_cast<int32_t>(static_cast<uint32_t>(current->mTimestamp) -
                                             static_cast<uint32_t>(referenceTs));
  if (std::abs(static_cast<int64_t>(delta)) <= kMotionIntervalUs) return;
  if (!current->mAnalysisImage) {
    ALOG(LOG_ERROR, LOG_TAG, "%s: Processing buffers NULL", "processMotionScores");
    return;
  }
  void* scratch = current->mSobelBuffer1 != nullptr ? current->mSobelBuffer1->data() : nullptr;
  const int w = static_cast<int>(current->mAnalysisWidth), h = static_cast<int>(current->mAnalysisHeight);
  DexMotionDetection* motion = mEngine->mMotionDetection;
  motion->processMEPerFrame(current->mAnalysisImage, nullptr, nullptr, nullptr, scratch, w, current->mMotionResult);
  motion->copyNewRefFrame(current->mAnalysisImage, w, h, w);
  current->setProcessedEvents(KoFrameData::EVENT_MOTION);
}

void KoEngineFg::processCamMotion(sp<KoFrameData>& current) {
  DexCameraMotion* camera = mEngine->mCameraMotion;
  camera->readSensorData(current->mTimestamp, current->mFrameId, current->sensorData());
  KO_camMotionType_t type;
  memset(&type, 0, sizeof(type));
  camera->getCamMotionType(current->mTimestamp, current->mTimestamp, &type);
  static_assert(sizeof(type) == sizeof(current->mCamMotion), "camera-motion block size");
  memcpy(current->mCamMotion, &type, sizeof(type));
  current->setProcessedEvents(KoFrameData::EVENT_CAM_MOTION);
}

int KoEngineFg::calculateFps(KoFrameHist* hist) {
  if (!hist || hist->size() < kFpsSpan) return -1;
  const size_t count = hist->size();
  const sp<KoFrameData>& newest = hist->mHistory[count - 1]->mFrameData;
  const sp<KoFrameData>& older = hist->mHistory[count - kFpsSpan]->mFrameData;
  if (newest == nullptr || older == nullptr) return -1;
  const float span = static_cast<float>(newest->mTimestamp - older->mTimestamp) / 1000000.0f;
  if (span == 0.0f) return -1;
  const float frames = static_cast<float>(newest->mFrameId - older->mFrameId);
  return static_cast<int>(frames / span);
}

bool KoEngineFg::getLowFpsMode(KoFrameHist* hist, bool camPositionIs1, bool previous) {
  if (!camPositionIs1) return false;
  const int fps = calculateFps(hist);
  if (fps == -1) return previous;
  return static_cast<unsigned int>(fps) < static_cast<unsigned int>(kLowFps);
}

bool KoEngineFg::getMissingFaceDataMode(KoFrameHist* hist) {
  if (!hist || hist->size() == 0) return false;
  const sp<KoFrameData>& newest = hist->mHistory[hist->size() - 1]->mFrameData;
  for (ssize_t i = static_cast<ssize_t>(hist->size()) - 1; i >= 0; --i) {
    const sp<KoFrameData>& frame = hist->mHistory[i]->mFrameData;
    if (frame == nullptr) continue;
    // Only frames within 6 ids and half a second of the newest count.
    if (newest->mFrameId - frame->mFrameId > kFaceWindowIds || newest->mTimestamp - frame->mTimestamp > kFaceWindowUs) {
      break;
    }
    if (frame->processedEvents() & kFace) return false;
  }
  return true;
}

uint32_t KoEngineFg::getReplaceOverride(KoFrameHistBase* hist) {
  if (!hist || hist->mHistory.isEmpty()) return 0;
  const sp<KoFrameData>& newest = hist->mHistory[hist->mHistory.size() - 1]->mFrameData;
  uint32_t bits = mMissingFaceDataMode ? 0x1 : 0;
  if (newest != nullptr) {
    if (newest->mZoom != 0) bits |= 0x2;
    if (newest->mAfRoiType == 2) bits |= 0x4;
  }
  return bits;
}

}  // namespace android
