#include "KoEngineBg.h"

#include <cerrno>
#include <ctime>

#include <cstring>

#include <log/log.h>
#include <utils/Vector.h>

#include "DexCameraMotion.h"
#include "DexFocusExposure.h"
#include "DexFrameMetaData.h"
#include "DexMotionDetection.h"
#include "KoBestShot.h"
#include "KoEngine.h"
#include "KoEngineFg.h"
#include "KoFaceIdBasedData.h"
#include "KoFrameHistSnapshot.h"
#include "KoSequenceData.h"
#include "KoSequenceQueue.h"
#include "pthread_np.h"

#undef LOG_TAG
#define LOG_TAG "KoEngineBg"

namespace android {

KoEngineBg::KoEngineBg(KoEngine* engine) : mEngine(engine), mLooper(new ALooper()), mStarted(0), mState(0) {
  pthread_mutex_init(&mLock, nullptr);
  pthread_cond_init(&mStopCond, nullptr);
}

KoEngineBg::~KoEngineBg() {
  mState = 2;
  pthread_mutex_lock(&mLock);
  deinit_l();
  pthread_mutex_unlock(&mLock);
  pthread_cond_destroy(&mStopCond);
  mLooper.clear();
  pthread_mutex_destroy(&mLock);
}

void KoEngineBg::init() {
  pthread_mutex_lock(&mLock);
  mLooper->registerHandler(this);
  mLooper->setName("KoEngineBg");
  mLooper->start(false, false, 10);
  mStarted = 1;
  mState = 1;
  pthread_mutex_unlock(&mLock);
}

void KoEngineBg::deinit() {
  mState = 2;
  pthread_mutex_lock(&mLock);
  deinit_l();
  pthread_mutex_unlock(&mLock);
}

void KoEngineBg::deinit_l() {
  if (mLooper == nullptr || !mStarted) return;
  sp<AMessage> msg = new AMessage(KoEngineFg::kWhatClear, id());
  msg->post();
  // One wait, bounded: the looper works off what was queued before 'clea' meanwhile.
  struct timespec rel = {kStopTimeoutSec, 0};
  if (pthread_cond_timedwait_relative_np(&mStopCond, &mLock, &rel) == ETIMEDOUT) {
    ALOG(LOG_WARN, LOG_TAG, "%s: timeout waiting for stop to complete", "deinit_l");
  }
  // After a time-out the looper may still be busy, or about to take mLock for the next queued
  // message; stopping joins its thread, so the lock is let go meanwhile (the message then finds
  // the stopping state and is dropped).
  mStarted = 0;
  sp<ALooper> looper = mLooper;
  pthread_mutex_unlock(&mLock);
  looper->stop();
  looper->unregisterHandler(id());
  pthread_mutex_lock(&mLock);
}

void KoEngineBg::onMessageReceived(const sp<AMessage>& msg) {
  pthread_mutex_lock(&mLock);
  const uint32_t what = msg->what();
  if (what == KoEngineFg::kWhatClear) {
    pthread_cond_signal(&mStopCond);
  } else if (mState != 2 && what == KoEngineFg::kWhatEncodeData) {
    int32_t jobId = 0, previewHist = 0, processFg = 0, camPosition = 0;
    msg->findInt32("jobId", &jobId);
    msg->findInt32("preview_hist", &previewHist);
    msg->findInt32("process_fg", &processFg);
    msg->findInt32("cam_position", &camPosition);
    handleEncodeData(jobId, previewHist == 1, processFg == 1, static_cast<KO_cam_position_t>(camPosition));
  }
  pthread_mutex_unlock(&mLock);
}

void KoEngineBg::handleEncodeData(int jobId, bool previewHist, bool processFg, KO_cam_position_t camPosition) {
  KoSequenceData* seq = mEngine->mSequenceQueue->getSequence(jobId);
  if (!seq) return;
  if (!processFg) {
    memset(seq->mSceneInfo, 0, sizeof(seq->mSceneInfo));
    processFrameStats(seq);
    findBestFE(seq);
    processFaceIdBasedData(seq);
    findBestShot(seq);
  }
  processMotionDetect(seq);
  writePreviewHistoryToFile(seq, previewHist, camPosition);
}

void KoEngineBg::processFrameStats(KoSequenceData* seq) {
  KoFrameHistSnapshot* snapshot = seq->mSnapshot;
  if (!snapshot) return;
  const int count = static_cast<int>(snapshot->size());
  DexFrameMetaData::KoCalcMeanStddevMinMeanQueue(snapshot, &seq->mFrameLumaStats, count, 0, 0);
  DexFrameMetaData::KoCalcMeanStddevMinMeanQueue(snapshot, &seq->mFrameDiffStats, count, 1, 0);
  DexFrameMetaData::KoCalcMeanStddevMinMeanQueue(snapshot, &seq->mFrameSobelStats, count, 2, 0);
  mEngine->mSequenceQueue->setProcessField(seq->mJobId, KO_SEQ_FRAME_STATS_DONE);
}

void KoEngineBg::findBestFE(KoSequenceData* seq) {
  seq->mBestFeFrameId = seq->mCapturedFrameId;
  seq->mBestFeFrameIndex = seq->mCapturedFrameIndex;
  KoFrameHistSnapshot* snapshot = seq->mSnapshot;
  if (!snapshot || !mEngine->mFocusExposure) return;
  int index = seq->mCapturedFrameIndex;
  int frameId = seq->mCapturedFrameId;
  mEngine->mFocusExposure->findBestFocusExpKO(snapshot, static_cast<int>(snapshot->size()), &index, &frameId, 0,
                                              seq->mFrameDiffStats, seq->mFrameLumaStats, seq->mFrameSobelStats);
  seq->mBestFeFrameId = frameId;
  seq->mBestFeFrameIndex = index;
}

void KoEngineBg::processFaceIdBasedData(KoSequenceData* seq) {
  if (!seq->mSnapshot) return;
  KoFaceIdBasedData* faces = new KoFaceIdBasedData(seq->mSnapshot);
  faces->populateFaceIdBasedData();
  delete seq->mFaceIdData;  // a sequence analysed twice keeps only the newest
  seq->mFaceIdData = faces;
  mEngine->mSequenceQueue->setProcessField(seq->mJobId, KO_SEQ_FACE_ID_DONE);
}

void KoEngineBg::findBestShot(KoSequenceData* seq) {
  KoBestShot* bestShot = new KoBestShot();
  bestShot->findFrame(seq);
  const unsigned int index = seq->mCapturedFrameIndex < 0 ? 0u : static_cast<unsigned int>(seq->mCapturedFrameIndex);
  seq->mSceneInfo[0] = KoBestShot::isFaceScene(index, seq->mSnapshot) == 0 ? 1 : 0;
  mEngine->mSequenceQueue->setProcessField(seq->mJobId, KO_SEQ_BESTSHOT_FOUND);
  delete bestShot;
  postBGProcessCompletedMsg(seq->mJobId, KO_SEQ_BESTSHOT_DELIVERED);
}

void KoEngineBg::processMotionDetect(KoSequenceData* seq) {
  KoFrameHistSnapshot* snapshot = seq->mSnapshot;
  if (!snapshot) return;
  if (!seq->mVideoEnabled) {
    seq->mVideoGenerated = 0;
    seq->mVideoMotionScore = 0;
  } else {
    KO_camMotionType_t type;
    memset(&type, 0, sizeof(type));
    if (mEngine->mCameraMotion) mEngine->mCameraMotion->getCamMotionType(seq->mFirstFrameTsUs, seq->mLastFrameTsUs, &type);
    Vector<KO_camMotionType_t> camMotion;
    camMotion.push_back(type);
    float decision = 0.0f;
    if (mEngine->mMotionDetection) {
      decision = mEngine->mMotionDetection->KoMotionDecision(snapshot, camMotion, static_cast<int>(snapshot->size()),
                                                             seq->mCapturedFrameIndex);
    }
    seq->mVideoMotionScore = static_cast<int32_t>(static_cast<double>(decision) * 100.0);
    seq->mVideoGenerated = decision > 0.0f ? 1 : 0;
  }
  KoSequenceQueue* queue = mEngine->mSequenceQueue;
  queue->setProcessField(seq->mJobId, KO_SEQ_MOTION_DONE);
  if (!seq->mVideoGenerated) {
    queue->setProcessField(seq->mJobId, KO_SEQ_VIDEO_FINISHED);
    postBGProcessCompletedMsg(seq->mJobId, KO_SEQ_VIDEO_DELIVERED);
  } else {
    postBGSetStartVideoMsg(seq->mJobId);
  }
}

int KoEngineBg::writePreviewHistoryToFile(KoSequenceData* seq, bool /*previewHist*/, KO_cam_position_t /*camPosition*/) {
  mEngine->mSequenceQueue->setProcessField(seq->mJobId, KO_SEQ_PREVIEW_HISTORY_DONE);
  postBGProcessCompletedMsg(seq->mJobId, KO_SEQ_PREVIEW_HISTORY_DELIVERED);
  return 0;
}

void KoEngineBg::postBGProcessCompletedMsg(int jobId, uint32_t processField) {
  sp<KoEngineFg> fg = mEngine->mFg;
  if (fg == nullptr) return;
  sp<AMessage> msg = new AMessage(KoEngineFg::kWhatProcessCompleted, fg->id());
  msg->setInt32("jobId", jobId);
  msg->setInt32("processField", static_cast<int32_t>(processField));
  msg->post();
}

void KoEngineBg::postBGSetStartVideoMsg(int jobId) {
  sp<KoEngineFg> fg = mEngine->mFg;
  if (fg == nullptr) return;
  sp<AMessage> msg = new AMessage(KoEngineFg::kWhatSetStartVideo, fg->id());
  msg->setInt32("jobId", jobId);
  msg->post();
}

}  // namespace android
