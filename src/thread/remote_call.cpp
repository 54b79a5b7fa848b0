// RemoteCall_thread's loop and RemoteCall_messenger.
#include "oru/remote_call.h"

#include <algorithm>

#include "thread/remote_call_platform.h"

namespace oru {

namespace {

// Every thread's index of the remote-call loop it runs and of the messenger
// it owns. They start at a value no object has, so a thread that never ran
// a loop is never taken for one (which would make posts from it run
// inline).
constexpr uint64_t NO_INDEX = ~uint64_t(0);
thread_local uint64_t t_remoteCallIndex = NO_INDEX;
thread_local uint64_t t_messengerIndex = NO_INDEX;

std::atomic<uint64_t> s_nextThreadIndex{0};
std::atomic<uint64_t> s_nextMessengerIndex{0};

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// A single wait is capped; longer waits simply go round again.
constexpr auto LONGEST_WAIT = std::chrono::hours(24 * 10);

}  // namespace

RemoteFunction_base::~RemoteFunction_base() = default;

// ---- RemoteCall_thread -------------------------------------------------------------

RemoteCall_thread::RemoteCall_thread(bool /*ownThread*/)
    : ownThread(true), threadIndex(s_nextThreadIndex.fetch_add(1)) {
  if (ownThread) thread = std::thread([this] { Run(); });
}

RemoteCall_thread::~RemoteCall_thread() {
  if (thread.joinable()) {
    Terminate();
    if (thread.joinable()) thread.detach();  // destroyed by one of its own calls
  }
}

void RemoteCall_thread::RunMainThread() {}

bool RemoteCall_thread::MainThreadQueueEmpty() {
  std::lock_guard<std::mutex> lock(mutex);
  return queue.empty();
}

void RemoteCall_thread::AddIntervalCallback(unsigned int interval,
                                            std::function<void(milliseconds)> callback) {
  std::lock_guard<std::mutex> lock(mutex);
  intervalMs = interval;
  timerCallback = std::move(callback);
}

void RemoteCall_thread::EnableTimer() {
  Post([this] { timerEnabled = true; });
}

void RemoteCall_thread::DisableTimer() {
  if (terminated) return;
  Post([this] { timerEnabled = false; });
}

void RemoteCall_thread::SetProritiseTimer(bool prioritise) {
  prioritiseTimer = prioritise;
}

uint64_t RemoteCall_thread::GetCurrentThreadId() {
  return detail::CurrentThreadId();
}

bool RemoteCall_thread::IsInRemoteThread() const {
  return t_remoteCallIndex == threadIndex;
}

void RemoteCall_thread::_ProcessWindowsMessages() {
  detail::PumpThreadMessages();
}

void RemoteCall_thread::Terminate() {
  {
    std::lock_guard<std::mutex> lock(mutex);
    terminated = true;
  }
  wake.notify_all();
  if (ownThread && thread.joinable() && thread.get_id() != std::this_thread::get_id()) {
    thread.join();
  }
}

void RemoteCall_thread::EnqueueRemoteFunction(const std::shared_ptr<RemoteFunction_base>& fn,
                                              bool forceQueue) {
  if (!forceQueue && IsInRemoteThread()) {
    fn->Call();
    return;
  }
  {
    std::lock_guard<std::mutex> lock(mutex);
    // After Terminate nothing runs any more: the call is dropped, and its
    // promise breaks as soon as the poster lets go of it.
    if (terminated) return;
    queue.push_back(fn);
  }
  wake.notify_all();
}

void RemoteCall_thread::Run() {
  t_remoteCallIndex = threadIndex;
  uint64_t interval = 0;
  {
    std::lock_guard<std::mutex> lock(mutex);
    interval = intervalMs;
  }
  Clock::time_point deadline = Clock::now() + milliseconds(interval);
  for (;;) {
    std::unique_lock<std::mutex> lock(mutex);
    interval = intervalMs;
    bool timerDue = false;
    const auto ready = [this] { return !queue.empty() || terminated; };
    if (!timerEnabled) {
      wake.wait(lock, ready);
    } else if (std::chrono::duration_cast<milliseconds>(deadline - Clock::now()).count() < 1) {
      timerDue = true;
    } else {
      while (!ready()) {
        const Clock::time_point limit = std::min(deadline, Clock::now() + LONGEST_WAIT);
        wake.wait_until(lock, limit);
        if (!ready() && Clock::now() >= deadline) {
          timerDue = true;
          break;
        }
      }
    }

    if (terminated) {
      std::deque<std::shared_ptr<RemoteFunction_base>> dropped;
      dropped.swap(queue);
      std::function<void(milliseconds)> callback = std::move(timerCallback);
      timerCallback = nullptr;
      lock.unlock();
      return;  // `dropped` breaks the promises of the calls it held
    }

    if (!queue.empty() && !timerDue) {
      std::shared_ptr<RemoteFunction_base> fn = std::move(queue.front());
      queue.pop_front();
      lock.unlock();
      fn->Call();
      detail::PumpThreadMessages();
      continue;
    }

    if (timerDue) {
      std::function<void(milliseconds)> callback = timerCallback;
      lock.unlock();
      const bool prioritise = prioritiseTimer;
      const auto fifth = milliseconds(interval / 5);
      if (prioritise) deadline = Clock::now() + milliseconds(interval);
      if (callback) {
        const auto left = std::chrono::duration_cast<milliseconds>(deadline - Clock::now());
        callback(std::max(fifth, left));
      }
      if (!prioritise) deadline = Clock::now() + milliseconds(interval);
      // Queued calls always get at least a fifth of the period.
      if (deadline - Clock::now() < fifth) deadline = Clock::now() + fifth;
      detail::PumpThreadMessages();
    }
  }
}

// ---- RemoteCall_messenger -------------------------------------------------------------

RemoteCall_messenger::RemoteCall_messenger() : threadIndex(s_nextMessengerIndex.fetch_add(1)) {
  t_messengerIndex = threadIndex;
}

RemoteCall_messenger::~RemoteCall_messenger() = default;

void RemoteCall_messenger::OnNeedToProcessQueue_thread() {}

bool RemoteCall_messenger::IsInAppThread() const {
  return t_messengerIndex == threadIndex;
}

void RemoteCall_messenger::EnqueueRemoteFunction(const std::shared_ptr<RemoteFunction_base>& fn) {
  if (IsInAppThread()) {
    fn->Call();
    return;
  }
  bool wasEmpty = false;
  {
    std::lock_guard<std::mutex> lock(mutex);
    if (terminated) return;  // dropped: its promise breaks
    wasEmpty = queue.empty();
    queue.push_back(fn);
  }
  // Only the change from empty to non-empty notifies: one wake-up per batch.
  if (wasEmpty) OnNeedToProcessQueue_thread();
}

void RemoteCall_messenger::ProcessQueue() {
  for (;;) {
    std::shared_ptr<RemoteFunction_base> fn;
    {
      std::lock_guard<std::mutex> lock(mutex);
      if (queue.empty()) return;
      fn = std::move(queue.front());
      queue.pop_front();
    }
    fn->Call();
  }
}

void RemoteCall_messenger::Terminate() {
  std::deque<std::shared_ptr<RemoteFunction_base>> dropped;
  std::lock_guard<std::mutex> lock(mutex);
  terminated = true;
  dropped.swap(queue);
}

}  // namespace oru
