#include "KoFrameData.h"

#include <cstdlib>
#include <cstring>

#include "fastcv.h"

namespace android {

pthread_mutex_t KoFrameData::gFrameDataMutex = PTHREAD_MUTEX_INITIALIZER;

KoFrameData::KoFrameData()
    : mAnalysisImage(nullptr), mHistogram(nullptr), mProcessedEvents(0), mRecycledImages(false) {
  clearValues();
  pthread_mutex_init(&mZslLock, nullptr);
}

KoFrameData::KoFrameData(KoRecycler<KoFrameData>* recycler) : KoFrameData() {
  extendObjectLifetime(OBJECT_LIFETIME_WEAK);
  mRecycler = recycler;
}

void KoFrameData::clearValues() {
  mTimestamp = 0;
  mFrameId = 0;
  mHasZsl = 0;
  mWidth = 0;
  mHeight = 0;
  mAnalysisWidth = 0;
  mAnalysisHeight = 0;
  mSmallWidth = 0;
  mSmallHeight = 0;
  mAnalysisImage = nullptr;
  mSmallImageReady = false;
  mFeScore = 0;
  mAuxScore = 0.0f;
  mFacesScore = 0.0f;
  mBsScore = 0.0f;
  mStatsWidth = 0;
  mStatsHeight = 0;
  memset(mStatsParams, 0, sizeof(mStatsParams));
  mLumaStats = KO_dataStats_t();
  mDiffStats = KO_dataStats_t();
  mSobelStats = KO_dataStats_t();
  mHistogramBins = 0;
  memset(mMotionResult, 0, sizeof(mMotionResult));
  memset(&mFaceData, 0, sizeof(mFaceData));
  mAccelSample = KoSensorSample();
  mGyroSample = KoSensorSample();
  mOrientSample = KoSensorSample();
  mMagneticSample = KoSensorSample();
  memset(mSensorEnabled, 0, sizeof(mSensorEnabled));
  mCafState = 0;
  mLensPos = 0;
  mAfRoiType = 0;
  mAfNumRoi = 0;
  memset(mAfWindow, 0, sizeof(mAfWindow));
  mZoom = 0;
  mOrientation = 0;
  mLuxLevel = 0;
  mAecState = 0;
  mAwbState = 0;
  mLuxIdx = 0.0f;
  mExpTime = 0.0f;
  mStreamType = 0;
  mPreviewWidth = 0;
  mPreviewHeight = 0;
  mAnalysisImageSize = 0;
  mFaceRefWidth = 0;
  mFaceRefHeight = 0;
  memset(mCamMotion, 0, sizeof(mCamMotion));
  mProcessedEvents.store(0, std::memory_order_relaxed);
}

bool KoFrameData::reuse() {
  clearValues();
  if (mHistogram) memset(mHistogram, 0, HISTOGRAM_BINS * sizeof(uint32_t));
  return true;
}

void KoFrameData::onLastStrongRef(const void* /*id*/) {
  // What the frame holds of others goes now; its own images stay for the next use.
  sp<KoRecycler<KoFrameData>> recycler = mRecycler.promote();
  if (recycler == nullptr) return;
  setZslBuffer(nullptr);
  mMetaBuffer.clear();
  for (Vector<KO_dataStats_t>& v : mStatsVectors) v.clear();
  // The images may still be in use elsewhere (the preview encoder keeps the analysis copy):
  // the next frame takes images of its own from the recyclers.
  sp<ABuffer>* images[] = {&mSmallImage, &mSobelBuffer1, &mSobelBuffer2, &mDownscaledImage};
  for (sp<ABuffer>* image : images) releaseImage(*image);
  mAnalysisImage = nullptr;
  recycler->giveBack(this);
}

KoFrameData::~KoFrameData() {
  setZslBuffer(nullptr);
  mAnalysisImage = nullptr;
  sp<ABuffer>* images[] = {&mSmallImage, &mSobelBuffer1, &mSobelBuffer2, &mDownscaledImage};
  for (sp<ABuffer>* image : images) releaseImage(*image);
  mMetaBuffer.clear();
  for (Vector<KO_dataStats_t>& v : mStatsVectors) v.clear();
  if (mHistogram) {
    free(mHistogram);
    mHistogram = nullptr;
  }
  pthread_mutex_destroy(&mZslLock);
}

void KoFrameData::releaseImage(sp<ABuffer>& image) {
  if (image == nullptr) return;
  if (!mRecycledImages) fcvMemFree(image->base());
  image.clear();
}

void KoFrameData::setProcessedEvents(uint32_t bits) {
  // Never block here: the history calls this with gFrameDataMutex already held. The bit set
  // itself is atomic, so the update is whole with or without the mutex.
  bool locked = pthread_mutex_trylock(&gFrameDataMutex) == 0;
  mProcessedEvents.fetch_or(bits, std::memory_order_acq_rel);
  if (locked) pthread_mutex_unlock(&gFrameDataMutex);
}

sp<ABuffer> KoFrameData::zslBuffer() const {
  pthread_mutex_lock(&mZslLock);
  sp<ABuffer> handle = mZslBuffer;
  pthread_mutex_unlock(&mZslLock);
  return handle;
}

void KoFrameData::setZslBuffer(const sp<ABuffer>& handle) {
  sp<ABuffer> old;
  pthread_mutex_lock(&mZslLock);
  old = mZslBuffer;
  mZslBuffer = handle;
  pthread_mutex_unlock(&mZslLock);
  // `old` is released here, outside the lock.
}

void KoFrameData::clearZslBuffer(const sp<ABuffer>& handle) {
  sp<ABuffer> old;
  pthread_mutex_lock(&mZslLock);
  if (mZslBuffer == handle) {
    old = mZslBuffer;
    mZslBuffer.clear();
  }
  pthread_mutex_unlock(&mZslLock);
}

KO_sensorData_t KoFrameData::sensorData() const {
  KO_sensorData_t block;
  memset(&block, 0, sizeof(block));
  const KoSensorSample* samples[4] = {&mAccelSample, &mGyroSample, &mOrientSample, &mMagneticSample};
  KO_sensorSample_t* out[4] = {&block.accel, &block.gyro, &block.orient, &block.magnetic};
  for (int i = 0; i < 4; ++i) {
    out[i]->timeStamp = samples[i]->mTimestamp;
    out[i]->x = samples[i]->mX;
    out[i]->y = samples[i]->mY;
    out[i]->z = samples[i]->mZ;
    block.enabled[i] = mSensorEnabled[i];
  }
  return block;
}

}  // namespace android
