// Remote calls: run a callable on a chosen thread and get its result back
// through a std::future.
//
// RemoteCall_thread is a worker thread with its own first-in-first-out
// queue of calls and one optional periodic timer callback:
//
//   oru::RemoteCall_thread worker(true);
//   std::future<int> answer = worker.Post([] { return 6 * 7; });
//   answer.get();                                   // 42, computed on the worker
//   worker.AddIntervalCallback(100, [](std::chrono::milliseconds budget) { ... });
//   worker.EnableTimer();
//   ...
//   worker.Terminate();                             // before destruction
//
// RemoteCall_messenger is the other direction: calls posted from anywhere
// to the thread that created it (the application thread), which runs them
// when it calls ProcessQueue(). Posting to an empty messenger from another
// thread calls OnNeedToProcessQueue_thread() once, on the posting thread,
// so the owner can wake its event loop (for example by posting a window
// message):
//
//   class UiMessenger : public oru::RemoteCall_messenger {
//     void OnNeedToProcessQueue_thread() override { WakeUiLoop(); }
//   };
//   ui.Post([] { label.SetText("done"); });        // from a worker
//   ui.ProcessQueue();                             // on the UI thread
//
// Calls run outside every lock, so a call may post further calls, also to
// its own thread (Post with forceQueue = true keeps them asynchronous; with
// false, a post from the loop's own thread runs the call at once). A call
// that throws hands its exception to its future. Calls dropped unrun (by
// Terminate, or posted after it) break their promises: the future throws
// std::future_error "broken promise".
//
// The timer: once enabled, the loop calls the callback every intervalMs
// milliseconds (10 by default) with the time it may use before the next
// tick. SetProritiseTimer(true), the default, measures the period from one
// callback's start to the next; false, from one callback's end to the next
// start. Either way, queued calls always get at least a fifth of the period.
// On Windows the loop also pumps the thread's window messages between jobs.
//
// Threading: any thread may post, and objects may be constructed on any
// threads at once. Terminate() may be called from any thread, the loop's
// own included; from another thread it waits for the loop to end, so no
// call runs after it returns.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <exception>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <thread>
#include <type_traits>
#include <utility>

#include "oru/export.h"

namespace oru {

/// A queued call. Concrete calls fulfil a promise when they run; dropping
/// one unrun breaks it.
class ORU_API RemoteFunction_base {
public:
  virtual ~RemoteFunction_base();
  /// Runs the wrapped callable and fulfils the promise.
  virtual void Call() = 0;
};

/// A callable of result type R with the promise of its result.
template <class R, class F>
class RemoteFunction final : public RemoteFunction_base {
public:
  explicit RemoteFunction(F f) : m_function(std::move(f)) {}
  std::future<R> GetFuture() { return m_promise.get_future(); }
  void Call() override {
    try {
      if constexpr (std::is_void_v<R>) {
        m_function();
        m_promise.set_value();
      } else {
        m_promise.set_value(m_function());
      }
    } catch (...) {
      m_promise.set_exception(std::current_exception());
    }
  }

private:
  F m_function;
  std::promise<R> m_promise;
};

namespace detail {
template <class F>
using RemoteResult = std::invoke_result_t<std::decay_t<F>&>;

template <class F>
std::pair<std::shared_ptr<RemoteFunction_base>, std::future<RemoteResult<F>>> MakeRemoteCall(
    F&& f) {
  auto fn = std::make_shared<RemoteFunction<RemoteResult<F>, std::decay_t<F>>>(std::forward<F>(f));
  auto future = fn->GetFuture();
  return {std::move(fn), std::move(future)};
}
}  // namespace detail

class ORU_API RemoteCall_thread {
public:
  /// Starts the worker thread; the argument is accepted and ignored (the
  /// loop always runs on a thread of its own). Throws std::system_error
  /// when no thread can be started.
  explicit RemoteCall_thread(bool ownThread = true);
  /// Terminates the loop first when that was not done (from the loop's own
  /// thread the thread is detached instead, as it cannot join itself).
  ~RemoteCall_thread();
  RemoteCall_thread(const RemoteCall_thread&) = delete;
  RemoteCall_thread& operator=(const RemoteCall_thread&) = delete;

  /// Queues `f` and returns the future of its result. From the loop's own
  /// thread with forceQueue false, `f` runs before Post returns.
  template <class F>
  std::future<detail::RemoteResult<F>> Post(F&& f, bool forceQueue = false) {
    auto [fn, future] = detail::MakeRemoteCall(std::forward<F>(f));
    EnqueueRemoteFunction(fn, forceQueue);
    return std::move(future);
  }

  /// Queues a ready-made call that has no future (the same rules as Post).
  void PostCall(const std::shared_ptr<RemoteFunction_base>& fn, bool forceQueue = false) {
    EnqueueRemoteFunction(fn, forceQueue);
  }

  /// Does nothing: the loop always runs on the object's own thread.
  void RunMainThread();
  bool MainThreadQueueEmpty();
  /// Stores the timer's period and callback; EnableTimer() starts it.
  void AddIntervalCallback(unsigned int intervalMs,
                           std::function<void(std::chrono::milliseconds)> callback);
  /// Switch the timer on or off, in queue order, on the loop thread.
  void EnableTimer();
  void DisableTimer();
  /// Whether the period is measured start to start (true) or end to start.
  void SetProritiseTimer(bool prioritise);  // spelled so: the binary interface
  /// The operating system's id of the calling thread.
  static uint64_t GetCurrentThreadId();
  /// True on this object's loop thread.
  bool IsInRemoteThread() const;
  /// Ends the loop: queued calls are dropped unrun (their promises broken),
  /// later posts are dropped too. From another thread, waits for the loop.
  void Terminate();
  /// Dispatches the calling thread's pending window messages (Windows);
  /// nothing elsewhere.
  static void _ProcessWindowsMessages();

private:
  void EnqueueRemoteFunction(const std::shared_ptr<RemoteFunction_base>& fn, bool forceQueue);
  void Run();

  bool ownThread;
  std::mutex mutex;
  std::condition_variable wake;
  std::deque<std::shared_ptr<RemoteFunction_base>> queue;
  std::function<void(std::chrono::milliseconds)> timerCallback;
  uint64_t intervalMs = 10;
  std::thread thread;
  std::atomic<bool> terminated{false};
  uint64_t threadIndex;
  std::atomic<bool> prioritiseTimer{true};
  bool timerEnabled = false;  // touched only on the loop thread
};

class ORU_API RemoteCall_messenger {
public:
  /// Makes the constructing thread the application thread.
  RemoteCall_messenger();
  virtual ~RemoteCall_messenger();
  RemoteCall_messenger(const RemoteCall_messenger&) = delete;
  RemoteCall_messenger& operator=(const RemoteCall_messenger&) = delete;

  /// On the application thread `f` runs before Post returns; elsewhere it
  /// is queued for ProcessQueue().
  template <class F>
  std::future<detail::RemoteResult<F>> Post(F&& f) {
    auto [fn, future] = detail::MakeRemoteCall(std::forward<F>(f));
    EnqueueRemoteFunction(fn);
    return std::move(future);
  }

  /// Called on the posting thread when a post finds the queue empty; the
  /// owner arranges for ProcessQueue() to run on the application thread.
  virtual void OnNeedToProcessQueue_thread();
  /// Runs the queued calls in FIFO order until the queue is empty, calls
  /// posted meanwhile included. Call it on the application thread.
  void ProcessQueue();
  bool IsInAppThread() const;
  /// Drops every queued call unrun; later posts are dropped too.
  void Terminate();

private:
  void EnqueueRemoteFunction(const std::shared_ptr<RemoteFunction_base>& fn);

  std::mutex mutex;
  std::deque<std::shared_ptr<RemoteFunction_base>> queue;
  std::atomic<bool> terminated{false};
  uint64_t threadIndex;
};

}  // namespace oru
