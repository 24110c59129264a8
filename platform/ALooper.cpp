#define LOG_TAG "ALooper"
#include "ALooper.h"

#include <pthread.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <utility>
#include <vector>

#include <log/log.h>
#include <utils/Timers.h>

#include "AHandler.h"
#include "AMessage.h"

namespace android {

// What the loop thread shares with the looper object.
struct ALooper::State {
  std::mutex lock;
  std::condition_variable cond;  // queue changed, stop requested or loop ended
  std::string name;
  // Ordered by due time, then by posting order.
  std::map<std::pair<int64_t, uint64_t>, sp<AMessage>> queue;
  uint64_t nextSeq = 0;
  bool running = false;
  bool stopRequested = false;
  std::thread::id loopThread;
};

namespace {

// The process-wide table of registered handlers, so that a message finds the looper of its
// target by id alone. The handler and the looper are held weakly: registration keeps neither
// alive. Never destroyed, so that loopers living in static objects can still use it at exit.
struct HandlerInfo {
  const ALooper* owner;
  wp<ALooper> looper;
  wp<AHandler> handler;
};

struct HandlerRegistry {
  std::mutex lock;
  std::map<ALooper::handler_id, HandlerInfo> handlers;
  ALooper::handler_id nextID = 1;
};

HandlerRegistry& registry() {
  static HandlerRegistry* instance = new HandlerRegistry();
  return *instance;
}

}  // namespace

ALooper::ALooper() : mState(std::make_shared<State>()) {}

ALooper::~ALooper() {
  stop();
  if (mThread.joinable()) {
    // Destroyed by the last reference going away on the loop thread itself: the loop ends
    // on its own after the current message, keeping the shared state alive until then.
    if (mThread.get_id() == std::this_thread::get_id()) {
      mThread.detach();
    } else {
      mThread.join();
    }
  }
  // Forget the handlers of this looper so that they can be registered elsewhere.
  std::vector<sp<AHandler>> orphans;
  {
    HandlerRegistry& reg = registry();
    std::lock_guard<std::mutex> lock(reg.lock);
    for (auto it = reg.handlers.begin(); it != reg.handlers.end();) {
      if (it->second.owner == this) {
        sp<AHandler> handler = it->second.handler.promote();
        if (handler != nullptr) orphans.push_back(handler);
        it = reg.handlers.erase(it);
      } else {
        ++it;
      }
    }
  }
  for (const sp<AHandler>& handler : orphans) handler->setID(0, wp<ALooper>());
}

void ALooper::setName(const char* name) {
  std::lock_guard<std::mutex> lock(mState->lock);
  mState->name = name ? name : "";
}

const char* ALooper::getName() const {
  std::lock_guard<std::mutex> lock(mState->lock);
  return mState->name.c_str();
}

int64_t ALooper::GetNowUs() { return systemTime(SYSTEM_TIME_MONOTONIC) / 1000; }

ALooper::handler_id ALooper::registerHandler(const sp<AHandler>& handler) {
  if (handler == nullptr) return BAD_VALUE;
  HandlerRegistry& reg = registry();
  std::lock_guard<std::mutex> lock(reg.lock);
  if (handler->id() != 0) {
    ALOGE("handler %d is already registered", handler->id());
    return INVALID_OPERATION;
  }
  handler_id id = reg.nextID++;
  reg.handlers[id] = HandlerInfo{this, this, handler};
  handler->setID(id, this);
  return id;
}

void ALooper::unregisterHandler(handler_id handlerID) {
  sp<AHandler> handler;
  {
    HandlerRegistry& reg = registry();
    std::lock_guard<std::mutex> lock(reg.lock);
    auto it = reg.handlers.find(handlerID);
    if (it == reg.handlers.end() || it->second.owner != this) return;
    handler = it->second.handler.promote();
    reg.handlers.erase(it);
  }
  // Outside the registry lock: dropping the last reference may run the handler's destructor.
  if (handler != nullptr) handler->setID(0, wp<ALooper>());
}

status_t ALooper::start(bool runOnCallingThread, bool /*canCallJava*/, int32_t priority) {
  std::shared_ptr<State> state = mState;
  {
    std::lock_guard<std::mutex> lock(state->lock);
    if (state->running) return INVALID_OPERATION;
  }
  // A loop that was asked to end from its own thread has not been joined yet.
  if (mThread.joinable()) mThread.join();

  std::string name;
  {
    std::lock_guard<std::mutex> lock(state->lock);
    if (state->running) return INVALID_OPERATION;
    state->running = true;
    state->stopRequested = false;
    name = state->name;
  }

  if (runOnCallingThread) {
    // Only the local copy of the state is used from here on: the looper may be destroyed
    // by a message handled in this loop.
    Loop(state);
    return OK;
  }

  mThread = std::thread([state, name, priority]() {
    if (!name.empty()) pthread_setname_np(pthread_self(), name.substr(0, 15).c_str());
    if (priority != 0) {
      // Needs permission for raised priorities; the looper works the same without it.
      pid_t tid = static_cast<pid_t>(syscall(SYS_gettid));
      (void)setpriority(PRIO_PROCESS, static_cast<id_t>(tid), priority);
    }
    Loop(state);
  });
  return OK;
}

status_t ALooper::stop() {
  std::shared_ptr<State> state = mState;
  std::map<std::pair<int64_t, uint64_t>, sp<AMessage>> dropped;
  {
    std::unique_lock<std::mutex> lock(state->lock);
    state->stopRequested = true;
    state->cond.notify_all();
    if (state->running && state->loopThread == std::this_thread::get_id()) {
      // Called from a handler: the loop ends after this message, waiting here would never end.
      return OK;
    }
    state->cond.wait(lock, [&state]() { return !state->running; });
    // Whatever was posted since the loop ended, or before it ever started.
    dropped.swap(state->queue);
  }
  if (mThread.joinable() && mThread.get_id() != std::this_thread::get_id()) mThread.join();
  return OK;
}

void ALooper::Loop(const std::shared_ptr<State>& state) {
  std::unique_lock<std::mutex> lock(state->lock);
  state->loopThread = std::this_thread::get_id();
  while (!state->stopRequested) {
    if (state->queue.empty()) {
      state->cond.wait(lock);
      continue;
    }
    auto first = state->queue.begin();
    int64_t waitUs = first->first.first - GetNowUs();
    if (waitUs > 0) {
      state->cond.wait_for(lock, std::chrono::microseconds(waitUs));
      continue;
    }
    sp<AMessage> msg = std::move(first->second);
    state->queue.erase(first);
    lock.unlock();
    Deliver(msg);
    msg.clear();
    lock.lock();
  }

  // Release the messages left over before reporting the end, so that stop() returns with
  // them gone.
  std::map<std::pair<int64_t, uint64_t>, sp<AMessage>> dropped;
  dropped.swap(state->queue);
  lock.unlock();
  dropped.clear();
  lock.lock();
  state->running = false;
  state->loopThread = std::thread::id();
  state->cond.notify_all();
}

void ALooper::Deliver(const sp<AMessage>& msg) {
  sp<AHandler> handler;
  {
    HandlerRegistry& reg = registry();
    std::lock_guard<std::mutex> lock(reg.lock);
    auto it = reg.handlers.find(msg->target());
    if (it != reg.handlers.end()) handler = it->second.handler.promote();
  }
  // Unregistered or destroyed meanwhile: the message is dropped.
  if (handler == nullptr) return;
  handler->onMessageReceived(msg);
}

status_t ALooper::PostMessage(const sp<AMessage>& msg, int64_t delayUs) {
  sp<ALooper> looper;
  {
    HandlerRegistry& reg = registry();
    std::lock_guard<std::mutex> lock(reg.lock);
    auto it = reg.handlers.find(msg->target());
    if (it == reg.handlers.end()) return -ENOENT;
    looper = it->second.looper.promote();
  }
  if (looper == nullptr) return -ENOENT;
  looper->post(msg, delayUs);
  return OK;
}

void ALooper::post(const sp<AMessage>& msg, int64_t delayUs) {
  int64_t whenUs = GetNowUs() + (delayUs > 0 ? delayUs : 0);
  std::lock_guard<std::mutex> lock(mState->lock);
  mState->queue.emplace(std::make_pair(whenUs, mState->nextSeq++), msg);
  mState->cond.notify_all();
}

}  // namespace android
