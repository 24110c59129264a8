#pragma once
// A message loop running on its own thread. Handlers are registered on a looper and receive
// the messages posted to their id, one at a time, on the looper's thread: immediate messages
// in posting order, delayed ones when due (in due-time order, ties in posting order).
#include <cstdint>
#include <memory>
#include <string>
#include <thread>

#include <utils/Errors.h>
#include <utils/RefBase.h>

namespace android {

class AHandler;
class AMessage;

class ALooper : public RefBase {
 public:
  typedef int32_t handler_id;

  ALooper();

  // Names the looper's thread (shown truncated to 15 characters). Set it before start().
  void setName(const char* name);
  const char* getName() const;

  // Registers a handler on this looper and returns its new id (nonzero and unique in the
  // process). A handler may be registered on one looper at a time; registering it again
  // without unregistering first fails with INVALID_OPERATION (a negative value).
  handler_id registerHandler(const sp<AHandler>& handler);
  // Forgets the handler; messages for it that are still queued are dropped when due.
  void unregisterHandler(handler_id handlerID);

  // Starts the loop on a new thread, or runs it on the calling thread until stop() when
  // runOnCallingThread is set. The priority is applied to the new thread as a nice value when
  // the process may do so. canCallJava has no meaning on the host and is ignored.
  status_t start(bool runOnCallingThread = false, bool canCallJava = false, int32_t priority = 0);
  // Ends the loop and drops the messages still queued. Returns once the loop has ended, except
  // when called from the loop itself, where it only asks it to end after the current message.
  // Safe to call more than once and when never started.
  status_t stop();

  // Monotonic time in microseconds.
  static int64_t GetNowUs();

 protected:
  virtual ~ALooper();

 private:
  friend class AMessage;
  struct State;

  // Queues msg on the looper that has msg->target() registered; -ENOENT when there is none.
  static status_t PostMessage(const sp<AMessage>& msg, int64_t delayUs);
  void post(const sp<AMessage>& msg, int64_t delayUs);
  static void Loop(const std::shared_ptr<State>& state);
  static void Deliver(const sp<AMessage>& msg);

  // Everything the loop touches lives in State, shared with the loop thread, so that the loop
  // can still finish cleanly when the looper object is destroyed on its own thread.
  std::shared_ptr<State> mState;
  std::thread mThread;

  ALooper(const ALooper&) = delete;
  ALooper& operator=(const ALooper&) = delete;
};

}  // namespace android
