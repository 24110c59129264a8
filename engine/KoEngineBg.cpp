#include "KoEngineBg.h"

#include <cerrno>
#include <ctime>

#include <log/log.h>

#include "KoEngineFg.h"
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
  if (msg->what() == KoEngineFg::kWhatClear) {
    pthread_cond_signal(&mStopCond);
  }
  // In any other state or for any other code there is nothing to do yet: capture analysis
  // messages are added with the background analysis itself.
  pthread_mutex_unlock(&mLock);
}

}  // namespace android
