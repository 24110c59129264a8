#pragma once
// Waiting on a condition with a deadline, for tests of threaded code.
#include <chrono>
#include <functional>
#include <thread>

namespace kovane_test {

// Polls `cond` until it holds or `timeoutMs` passes; returns whether it held.
inline bool waitUntil(const std::function<bool()>& cond, int timeoutMs = 5000) {
  auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  while (!cond()) {
    if (std::chrono::steady_clock::now() > deadline) return cond();
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

}  // namespace kovane_test
