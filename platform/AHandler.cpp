#include "AHandler.h"

namespace android {

AHandler::AHandler() : mID(0) {}

sp<ALooper> AHandler::looper() const {
  std::lock_guard<std::mutex> lock(mLock);
  return mLooper.promote();
}

wp<ALooper> AHandler::getLooper() const {
  std::lock_guard<std::mutex> lock(mLock);
  return mLooper;
}

void AHandler::setID(ALooper::handler_id id, const wp<ALooper>& looper) {
  std::lock_guard<std::mutex> lock(mLock);
  mLooper = looper;
  mID.store(id, std::memory_order_release);
}

}  // namespace android
