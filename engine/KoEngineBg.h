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

namespace android {

class KoEngine;

class KoEngineBg : public AHandler {
 public:
  // How long a stop waits for the queue to drain.
  static const int kStopTimeoutSec = 1;

  explicit KoEngineBg(KoEngine* engine);

  void init();
  int getHandlerId() const { return id(); }
  void deinit();
  void deinit_l();

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
