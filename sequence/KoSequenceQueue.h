#pragma once
// The capture sequences of the engine, one per take-picture request, in creation order. The
// foreground handler creates them, asks on every preview frame which have collected enough
// frames after the shutter (the history is then frozen into the sequence), and removes them
// once their results are delivered; both handlers record finished stages as process-field bits.
//
// Locking: mLock guards the vector and every process-field read-modify-write. The record
// returned by getSequence is used outside the lock: the handlers hand it over by process bits
// (the background touches a record only after it was dispatched, the foreground removes it only
// after the background's last bit).
#include <pthread.h>

#include <atomic>
#include <cstdint>

#include <utils/RefBase.h>
#include <utils/Vector.h>

#include "ABuffer.h"
#include "KoEngineTypes.h"
#include "KoSequenceData.h"

namespace android {

class KoFrameHist;

class KoSequenceQueue {
 public:
  // frameDelay: preview frames to wait after the captured frame before freezing the history.
  explicit KoSequenceQueue(int frameDelay);
  // Frees every remaining sequence, its snapshot (and so its hold on ZSL buffers) included.
  ~KoSequenceQueue();

  // Number of sequences in the queue, in any state. Lock-free.
  int getNumActiveJobs();
  // Appends, in queue order, the job id of every sequence whose process field holds all bits of
  // mask (mask 0: every sequence). out is not emptied first.
  void getSequenceVector(uint32_t mask, Vector<int>& out);
  // Index of the first sequence with that job id; -1 for job id -1, an empty queue or no match.
  // The caller holds mLock.
  int findSnapshotIndex(int jobId);
  // The first sequence with that job id or null. Valid until removeSequence.
  KoSequenceData* getSequence(int jobId);
  // The job's process field; 0 when the queue is empty or the job unknown.
  uint32_t getProcessField(int jobId);
  // ORs / clears bits of the job's process field.
  void setProcessField(int jobId, uint32_t bits);
  void clearProcessField(int jobId, uint32_t bits);
  // Destroys the job's snapshot (which unlocks and drops its ZSL buffers).
  void freeSequenceSnapshot(int jobId);
  // Lets the job's snapshot release its ZSL buffers; its frames stay.
  void releaseSequenceZSLBuffers(int jobId);
  // Freezes hist into the job's sequence and resolves the captured frame in it. Called with
  // mLock held (from maintainQueue). Leaves the sequence without a snapshot when hist is empty.
  void insertFrameDataHistory(int jobId, KoFrameHist* hist);
  // Called on every preview frame: freezes the history of the sequences whose wait is over and
  // appends the job ids that became ready for analysis to ready (marking them dispatched).
  void maintainQueue(KoFrameHist* hist, Vector<int>& ready);
  // Sets every field of seq to its creation value. mBestShotInfo[1] and mBestShotScores are not
  // touched.
  void initNewSequence(KoSequenceData* seq, int jobId, int64_t timestamp, int frameId,
                       int orientation, int videoFd, int metadataFd, const sp<ABuffer>& config,
                       bool bestShotEnable, bool videoEnable, KO_timespec_t exifTs, bool hdrMode);
  // Appends a new sequence for the job; returns 0.
  int newSequence(int jobId, int64_t timestamp, int frameId, int orientation, int videoFd,
                  int metadataFd, const sp<ABuffer>& config, bool bestShotEnable, bool videoEnable,
                  KO_timespec_t exifTs, bool hdrMode);
  // Frees what seq owns (snapshot, face-identity data, config reference) and empties its lists.
  void clearSequence(KoSequenceData* seq);
  // Clears, frees and removes the job's sequence.
  void removeSequence(int jobId);
  void DEBUG_SetOrientation(int jobId, int orientation);

 private:
  // Snapshot and captured-frame resolution of one record; the caller holds mLock.
  void takeSnapshot(KoSequenceData* seq, KoFrameHist* hist);
  // The record at findSnapshotIndex(jobId) or null; the caller holds mLock.
  KoSequenceData* findLocked(int jobId);
  // clearSequence, then frees the record (its vectors and config reference with it).
  void freeSequence(KoSequenceData* seq);

  pthread_mutex_t mLock;
  int32_t mFrameDelay;
  Vector<KoSequenceData*> mSequences;
  // Mirror of mSequences.size(), written under mLock and read without it.
  std::atomic<int> mNumJobs;

  KoSequenceQueue(const KoSequenceQueue&) = delete;
  KoSequenceQueue& operator=(const KoSequenceQueue&) = delete;
};

}  // namespace android
