#pragma once
// The background handler: runs the per-capture analysis of dispatched capture jobs on its own
// "KoEngineBg" looper, so that the foreground keeps up with the preview. Started by the engine
// at construction and stopped by the foreground handler before it stops itself.
#include <pthread.h>

#include <atomic>
#include <cstdint>

#include "AHandler.h"
#include "ALooper.h"
#include "AMessage.h"
#include "KoEngineTypes.h"

namespace android {

class KoEngine;
struct KoSequenceData;

class KoEngineBg : public AHandler {
 public:
  // How long a stop waits for the queue to drain.
  static const int kStopTimeoutSec = 1;

  explicit KoEngineBg(KoEngine* engine);

  void init();
  int getHandlerId() const { return id(); }
  void deinit();
  void deinit_l();

  // The analysis of one capture sequence, in order: temporal statistics, focus/exposure choice,
  // face-identity data and best shot (only when the foreground has not run them itself), then
  // the motion decision and the preview-history step. Each finished result is reported to the
  // foreground with 'bgcm' (or 'ssvd' for a clip worth keeping).
  void handleEncodeData(int jobId, bool previewHist, bool processFg, KO_cam_position_t camPosition);
  // The steps. The first three also run on the foreground thread for its running best-shot
  // pass: they touch only the sequence they are given and the engine's analysers, never mLock.
  void processFrameStats(KoSequenceData* seq);
  void findBestFE(KoSequenceData* seq);
  void processFaceIdBasedData(KoSequenceData* seq);
  void findBestShot(KoSequenceData* seq);
  void processMotionDetect(KoSequenceData* seq);
  int writePreviewHistoryToFile(KoSequenceData* seq, bool previewHist, KO_cam_position_t camPosition);
  void postBGProcessCompletedMsg(int jobId, uint32_t processField);
  void postBGSetStartVideoMsg(int jobId);

  pthread_mutex_t mLock;
  KoEngine* mEngine;
  sp<ALooper> mLooper;
  uint8_t mStarted;
  pthread_cond_t mStopCond;
  std::atomic<int32_t> mState;

 protected:
  virtual ~KoEngineBg();
  void onMessageReceived(const sp<AMessage>& msg) override;

 private:
  KoEngineBg(const KoEngineBg&) = delete;
  KoEngineBg& operator=(const KoEngineBg&) = delete;
};

}  // namespace android
