#pragma once
// Helpers shared by the platform tests.
#include <atomic>

#include <utils/RefBase.h>

namespace platform_test {

// Counts its destructions, to see when references held by messages are released.
class Counted : public android::RefBase {
 public:
  explicit Counted(std::atomic<int>* destroyed) : mDestroyed(destroyed) {}

 protected:
  ~Counted() override { mDestroyed->fetch_add(1); }

 private:
  std::atomic<int>* mDestroyed;
};

}  // namespace platform_test
