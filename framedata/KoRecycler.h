#pragma once
// Reference-counted records handed out again instead of being deleted and allocated anew: the
// frame records and history entries made for every preview frame come back here when their last
// strong reference goes, on whichever thread that is, and the next frame revives one of them.
//
// How: a recycled type T is built with OBJECT_LIFETIME_WEAK, so that losing its last strong
// reference calls T::onLastStrongRef but does not delete it; T then calls giveBack(this), which
// keeps a weak reference to it (up to `capacity` of them); obtain() revives the newest one with
// promote(). An object that is not kept (the list is full, or the recycler is gone) has no weak
// reference left and is deleted as usual. The mutex orders everything the releasing thread did
// with the object before whatever the next user does with it. T provides:
//   - a constructor T(KoRecycler<T>*, args...) that calls extendObjectLifetime(OBJECT_LIFETIME_WEAK) and
//     keeps a wp to the recycler;
//   - onLastStrongRef: drop what the object holds, then recycler->giveBack(this);
//   - reuse(args...): back to the state of a new object made with the same arguments, or false
//     when the object cannot serve them (it is then deleted, not kept); called by obtain on a
//     revived one.
#include <pthread.h>

#include <new>
#include <vector>

#include <utils/RefBase.h>

namespace android {

template <typename T>
class KoRecycler : public RefBase {
 public:
  explicit KoRecycler(size_t capacity) {
    pthread_mutex_init(&mLock, nullptr);
    mFree.reserve(capacity);  // giving back never allocates (and a std::vector never shrinks)
    mCapacity = capacity;
  }

  // A revived object that takes `args`, or a new one made with them; null only when memory
  // runs out.
  template <typename... Args>
  sp<T> obtain(Args... args) {
    for (;;) {
      wp<T> kept;
      pthread_mutex_lock(&mLock);
      if (!mFree.empty()) {
        kept = mFree.back();
        mFree.pop_back();
      }
      pthread_mutex_unlock(&mLock);
      if (kept == nullptr) break;
      sp<T> object = kept.promote();
      if (object == nullptr) continue;
      if (object->reuse(args...)) return object;
      // Refused: dropping the reference gives it back at once (nobody else holds it), and
      // giveBack lets it go instead of keeping it for the next request.
      pthread_mutex_lock(&mLock);
      mRefused = object.get();
      pthread_mutex_unlock(&mLock);
      object.clear();
    }
    return sp<T>(new (std::nothrow) T(this, args...));
  }

  // Called by T::onLastStrongRef. Keeps the object for obtain() while there is room.
  void giveBack(T* object) {
    pthread_mutex_lock(&mLock);
    if (object == mRefused) {
      mRefused = nullptr;
    } else if (mFree.size() < mCapacity) {
      mFree.push_back(wp<T>(object));
    }
    pthread_mutex_unlock(&mLock);
  }

  // Objects waiting to be reused.
  size_t kept() const {
    pthread_mutex_lock(&mLock);
    const size_t n = mFree.size();
    pthread_mutex_unlock(&mLock);
    return n;
  }

 protected:
  virtual ~KoRecycler() {
    // The kept objects lose their last (weak) reference here and are deleted.
    mFree.clear();
    pthread_mutex_destroy(&mLock);
  }

 private:
  mutable pthread_mutex_t mLock;
  size_t mCapacity;
  std::vector<wp<T>> mFree;
  T* mRefused = nullptr;  // refused by reuse(), not to be kept again

  KoRecycler(const KoRecycler&) = delete;
  KoRecycler& operator=(const KoRecycler&) = delete;
};

}  // namespace android
