#include "KoSequenceQueue.h"

#include <cstddef>
#include <cstring>
#include <type_traits>

#include "KoFaceIdBasedData.h"
#include "KoFrameHist.h"
#include "KoFrameHistSnapshot.h"

namespace android {

// The record is shared whole with the analysis library: check the parts of its layout that do
// not depend on the pointer size. (It holds Vectors, so it is not standard-layout; GCC still
// lays it out in declaration order and computes these offsets.)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Winvalid-offsetof"
static_assert(sizeof(std::atomic<uint32_t>) == 4 && alignof(std::atomic<uint32_t>) == 4,
              "the process field is a plain 32-bit word");
static_assert(std::atomic<uint32_t>::is_always_lock_free, "the process field is lock-free");
static_assert(alignof(KoSequenceData) == 8, "KoSequenceData is 8-byte aligned");
static_assert(offsetof(KoSequenceData, mProcessField) == 0, "KoSequenceData layout");
static_assert(offsetof(KoSequenceData, mVideoEnabled) == 4, "KoSequenceData layout");
static_assert(offsetof(KoSequenceData, mBestShotEnabled) == 5, "KoSequenceData layout");
static_assert(offsetof(KoSequenceData, mFramesToWait) == 6, "KoSequenceData layout");
static_assert(offsetof(KoSequenceData, mSnapshot) == 8, "KoSequenceData layout");
static_assert(sizeof(KO_timespec_t) == 8, "mExifTs is two 32-bit words");
static_assert(sizeof(KoSequenceData::mSceneInfo) == 20, "mSceneInfo is five words");
static_assert(offsetof(KoSequenceData, mVideoCancelled) - offsetof(KoSequenceData, mVideoGenerated) == 1 &&
                  offsetof(KoSequenceData, mVideoSet) - offsetof(KoSequenceData, mVideoGenerated) == 2 &&
                  offsetof(KoSequenceData, mVideoMotionScore) - offsetof(KoSequenceData, mVideoGenerated) == 4 &&
                  offsetof(KoSequenceData, mVideoStartFrameId) - offsetof(KoSequenceData, mVideoGenerated) == 8 &&
                  offsetof(KoSequenceData, mVideoStopFrameId) - offsetof(KoSequenceData, mVideoGenerated) == 12 &&
                  offsetof(KoSequenceData, mVideoReserved) - offsetof(KoSequenceData, mVideoGenerated) == 16,
              "video block layout");
static_assert(offsetof(KoSequenceData, mBestShotInfo) - offsetof(KoSequenceData, mVideoGenerated) == 32,
              "the video block is 32 bytes");
static_assert(offsetof(KoSequenceData, mBestShotInfo) % 8 == 0, "best-shot slots are 8-byte aligned");
static_assert(sizeof(KoSequenceData::mBestShotInfo) == 160, "two 80-byte best-shot slots");
#pragma GCC diagnostic pop

namespace {

constexpr size_t kVideoBlockBytes = 32;

}  // namespace

KoSequenceQueue::KoSequenceQueue(int frameDelay) : mFrameDelay(frameDelay), mNumJobs(0) {
  pthread_mutex_init(&mLock, nullptr);
  mSequences.clear();
}

KoSequenceQueue::~KoSequenceQueue() {
  for (size_t i = 0; i < mSequences.size(); ++i) {
    freeSequence(mSequences[i]);
    mSequences.editItemAt(i) = nullptr;
  }
  mSequences.clear();
  mNumJobs.store(0, std::memory_order_release);
  pthread_mutex_destroy(&mLock);
}

int KoSequenceQueue::getNumActiveJobs() { return mNumJobs.load(std::memory_order_acquire); }

void KoSequenceQueue::getSequenceVector(uint32_t mask, Vector<int>& out) {
  pthread_mutex_lock(&mLock);
  for (size_t i = 0; i < mSequences.size(); ++i) {
    const KoSequenceData* seq = mSequences[i];
    if ((seq->mProcessField.load(std::memory_order_relaxed) & mask) == mask) out.push_back(seq->mJobId);
  }
  pthread_mutex_unlock(&mLock);
}

int KoSequenceQueue::findSnapshotIndex(int jobId) {
  if (jobId == -1 || mSequences.isEmpty()) return -1;
  for (size_t i = 0; i < mSequences.size(); ++i) {
    if (mSequences[i]->mJobId == jobId) return static_cast<int>(i);
  }
  return -1;
}

KoSequenceData* KoSequenceQueue::findLocked(int jobId) {
  int index = findSnapshotIndex(jobId);
  return index < 0 ? nullptr : mSequences[index];
}

KoSequenceData* KoSequenceQueue::getSequence(int jobId) {
  pthread_mutex_lock(&mLock);
  KoSequenceData* seq = findLocked(jobId);
  pthread_mutex_unlock(&mLock);
  return seq;
}

uint32_t KoSequenceQueue::getProcessField(int jobId) {
  pthread_mutex_lock(&mLock);
  KoSequenceData* seq = findLocked(jobId);
  uint32_t field = seq ? seq->mProcessField.load(std::memory_order_relaxed) : 0;
  pthread_mutex_unlock(&mLock);
  return field;
}

void KoSequenceQueue::setProcessField(int jobId, uint32_t bits) {
  pthread_mutex_lock(&mLock);
  KoSequenceData* seq = findLocked(jobId);
  if (seq) seq->mProcessField.fetch_or(bits, std::memory_order_acq_rel);
  pthread_mutex_unlock(&mLock);
}

void KoSequenceQueue::clearProcessField(int jobId, uint32_t bits) {
  pthread_mutex_lock(&mLock);
  KoSequenceData* seq = findLocked(jobId);
  if (seq) seq->mProcessField.fetch_and(~bits, std::memory_order_acq_rel);
  pthread_mutex_unlock(&mLock);
}

void KoSequenceQueue::freeSequenceSnapshot(int jobId) {
  pthread_mutex_lock(&mLock);
  KoSequenceData* seq = findLocked(jobId);
  if (seq && seq->mSnapshot) {
    delete seq->mSnapshot;
    seq->mSnapshot = nullptr;
  }
  pthread_mutex_unlock(&mLock);
}

void KoSequenceQueue::releaseSequenceZSLBuffers(int jobId) {
  pthread_mutex_lock(&mLock);
  KoSequenceData* seq = findLocked(jobId);
  if (seq && seq->mSnapshot) seq->mSnapshot->releaseZSLBuffers();
  pthread_mutex_unlock(&mLock);
}

void KoSequenceQueue::insertFrameDataHistory(int jobId, KoFrameHist* hist) {
  KoSequenceData* seq = findLocked(jobId);
  if (seq) takeSnapshot(seq, hist);
}

void KoSequenceQueue::takeSnapshot(KoSequenceData* seq, KoFrameHist* hist) {
  // A snapshot left from an earlier attempt (its bit cleared by hand) is replaced, not leaked.
  delete seq->mSnapshot;
  seq->mSnapshot = new KoFrameHistSnapshot(hist);
  KoFrameHistSnapshot* snap = seq->mSnapshot;
  const size_t count = snap->mHistory.size();
  if (count == 0) {
    delete snap;
    seq->mSnapshot = nullptr;
    return;
  }

  auto frameAt = [snap](size_t i) -> KoFrameData* { return snap->mHistory[i]->mFrameData.get(); };
  seq->mFirstFrameId = static_cast<int32_t>(frameAt(0)->mFrameId);
  seq->mFirstFrameTsUs = frameAt(0)->mTimestamp;
  seq->mLastFrameTsUs = frameAt(count - 1)->mTimestamp;
  seq->mLastFrameId = static_cast<int32_t>(frameAt(count - 1)->mFrameId);

  const uint32_t capturedId = static_cast<uint32_t>(seq->mCapturedFrameId);
  for (size_t i = 0; i < count; ++i) {
    if (frameAt(i)->mFrameId == capturedId) {
      seq->mCapturedFrameIndex = static_cast<int32_t>(i);
      seq->mProcessField.fetch_or(KO_SEQ_HISTORY_TAKEN, std::memory_order_acq_rel);
      return;
    }
  }

  // The captured frame id is not in the history: choose a frame by the capture time stamp.
  seq->mCapturedFrameIndex = -1;
  const int64_t t = seq->mCapturedTsUs;
  size_t chosen = 0;
  if (t < seq->mFirstFrameTsUs && count >= 2) {
    // Deliberately the second frame, not the first.
    chosen = 1;
  } else if (t > seq->mLastFrameTsUs) {
    chosen = count - 1;
  } else {
    for (size_t i = 0; i < count; ++i) {
      if (frameAt(i)->mTimestamp >= t) {
        chosen = i;
        break;
      }
    }
  }
  seq->mCapturedFrameId = static_cast<int32_t>(frameAt(chosen)->mFrameId);
  seq->mCapturedFrameIndex = static_cast<int32_t>(chosen);
  seq->mCapturedTsUs = frameAt(chosen)->mTimestamp;
  seq->mProcessField.fetch_or(KO_SEQ_HISTORY_TAKEN, std::memory_order_acq_rel);
}

void KoSequenceQueue::maintainQueue(KoFrameHist* hist, Vector<int>& ready) {
  pthread_mutex_lock(&mLock);
  const bool haveFrames = hist && !hist->mHistory.isEmpty() && hist->mHistory.top()->mFrameData != nullptr;
  const uint32_t newestId = haveFrames ? hist->mHistory.top()->mFrameData->mFrameId : 0;

  for (size_t i = 0; i < mSequences.size(); ++i) {
    KoSequenceData* seq = mSequences[i];

    int32_t sinceCapture = 0;
    if (haveFrames && seq->mCapturedFrameId != -1) {
      sinceCapture = static_cast<int32_t>(newestId - static_cast<uint32_t>(seq->mCapturedFrameId));
    }
    const bool waiting = seq->mFramesToWait != 0 && sinceCapture <= mFrameDelay;

    if (!waiting && !(seq->mProcessField.load(std::memory_order_relaxed) & KO_SEQ_DISPATCHED)) {
      // Each record takes its own snapshot, so that a job id given twice does not make the
      // second record refreeze the first one's history.
      if (!(seq->mProcessField.load(std::memory_order_relaxed) & KO_SEQ_HISTORY_TAKEN)) {
        takeSnapshot(seq, hist);
      }
      if ((seq->mProcessField.load(std::memory_order_relaxed) & KO_SEQ_STAGE_MASK) ==
          (KO_SEQ_HISTORY_TAKEN | KO_SEQ_PROCESS_REQUESTED)) {
        ready.push_back(seq->mJobId);
        seq->mProcessField.fetch_or(KO_SEQ_DISPATCHED, std::memory_order_acq_rel);
      }
    }

    // The countdown runs for every sequence, dispatched ones included.
    if (seq->mFramesToWait > 0) --seq->mFramesToWait;
  }
  pthread_mutex_unlock(&mLock);
}

void KoSequenceQueue::initNewSequence(KoSequenceData* seq, int jobId, int64_t timestamp, int frameId,
                                      int orientation, int videoFd, int metadataFd,
                                      const sp<ABuffer>& config, bool bestShotEnable,
                                      bool videoEnable, KO_timespec_t exifTs, bool hdrMode) {
  if (!seq) return;
  seq->mJobId = jobId;
  seq->mCapturedTsUs = timestamp;
  seq->mCapturedFrameId = frameId;
  seq->mOrientation = orientation;
  seq->mVideoFd = videoFd;
  seq->mMetadataFd = metadataFd;
  seq->mConfig = config;  // sp assignment takes the new reference before dropping the old one
  seq->mBestShotEnabled = bestShotEnable ? 1 : 0;
  seq->mVideoEnabled = videoEnable ? 1 : 0;
  seq->mExifTs = exifTs;
  seq->mHdrMode = hdrMode ? 1 : 0;

  seq->mProcessField.store(0, std::memory_order_relaxed);
  seq->mFramesToWait = static_cast<int8_t>(mFrameDelay);
  seq->mSnapshot = nullptr;
  seq->mCapturedFrameIndex = -1;
  seq->mFirstFrameId = -1;
  seq->mLastFrameId = -1;
  seq->mFirstFrameTsUs = -1;
  seq->mLastFrameTsUs = -1;
  seq->mAuxFlag = 0;
  seq->mBestFeFrameId = 0;
  seq->mBestFeFrameIndex = 0;
  seq->mResultCookie = 0;
  seq->mCamMotionValid = 0;
  seq->mVideoSaved = 0;
  memset(seq->mSceneInfo, 0, sizeof(seq->mSceneInfo));
  memset(&seq->mVideoGenerated, 0, kVideoBlockBytes);
  memset(&seq->mBestShotInfo[0], 0, sizeof(seq->mBestShotInfo[0]));
  memset(&seq->mFrameLumaStats, 0, sizeof(seq->mFrameLumaStats));
  memset(&seq->mFrameDiffStats, 0, sizeof(seq->mFrameDiffStats));
  memset(&seq->mFrameSobelStats, 0, sizeof(seq->mFrameSobelStats));
  seq->mCamMotionList.clear();
  seq->mLumaStatsList.clear();
  seq->mDiffStatsList.clear();
  seq->mSobelStatsList.clear();
  seq->mFaceIdData = nullptr;
}

int KoSequenceQueue::newSequence(int jobId, int64_t timestamp, int frameId, int orientation,
                                 int videoFd, int metadataFd, const sp<ABuffer>& config,
                                 bool bestShotEnable, bool videoEnable, KO_timespec_t exifTs,
                                 bool hdrMode) {
  pthread_mutex_lock(&mLock);
  // Value-initialised: the plain fields start zeroed (mBestShotInfo[1] stays so), the vectors
  // empty and mConfig null.
  KoSequenceData* seq = new KoSequenceData();
  initNewSequence(seq, jobId, timestamp, frameId, orientation, videoFd, metadataFd, config,
                  bestShotEnable, videoEnable, exifTs, hdrMode);
  mSequences.push_back(seq);
  mNumJobs.store(static_cast<int>(mSequences.size()), std::memory_order_release);
  pthread_mutex_unlock(&mLock);
  return 0;
}

void KoSequenceQueue::clearSequence(KoSequenceData* seq) {
  if (!seq) return;
  delete seq->mSnapshot;
  seq->mSnapshot = nullptr;
  seq->mLumaStatsList.clear();
  seq->mDiffStatsList.clear();
  seq->mSobelStatsList.clear();
  seq->mCamMotionList.clear();
  delete seq->mFaceIdData;
  seq->mFaceIdData = nullptr;
  seq->mConfig.clear();
}

void KoSequenceQueue::freeSequence(KoSequenceData* seq) {
  if (!seq) return;
  clearSequence(seq);
  delete seq;
}

void KoSequenceQueue::removeSequence(int jobId) {
  pthread_mutex_lock(&mLock);
  int index = findSnapshotIndex(jobId);
  if (index >= 0) {
    freeSequence(mSequences[index]);
    mSequences.editItemAt(index) = nullptr;
    mSequences.removeAt(index);
    mNumJobs.store(static_cast<int>(mSequences.size()), std::memory_order_release);
  }
  pthread_mutex_unlock(&mLock);
}

void KoSequenceQueue::DEBUG_SetOrientation(int jobId, int orientation) {
  pthread_mutex_lock(&mLock);
  KoSequenceData* seq = findLocked(jobId);
  if (seq) seq->mOrientation = orientation;
  pthread_mutex_unlock(&mLock);
}

}  // namespace android
