#pragma once
// Receives the messages posted to it, on the thread of the looper it is registered on.
#include <atomic>
#include <mutex>

#include <utils/RefBase.h>

#include "ALooper.h"

namespace android {

class AMessage;

class AHandler : public RefBase {
 public:
  AHandler();

  // The id given by ALooper::registerHandler; 0 while not registered.
  ALooper::handler_id id() const { return mID.load(std::memory_order_acquire); }
  // The looper the handler is registered on (null when none or when it is gone).
  sp<ALooper> looper() const;
  wp<ALooper> getLooper() const;

 protected:
  virtual void onMessageReceived(const sp<AMessage>& msg) = 0;

 private:
  friend class ALooper;
  void setID(ALooper::handler_id id, const wp<ALooper>& looper);

  std::atomic<ALooper::handler_id> mID;
  mutable std::mutex mLock;
  wp<ALooper> mLooper;

  AHandler(const AHandler&) = delete;
  AHandler& operator=(const AHandler&) = delete;
};

}  // namespace android
