// Task and the process-wide task pool.
//
// Every pool thread is a RemoteCall_thread; a task is started by posting a
// call to an idle thread. When the task ends, the same call picks the next
// task for its thread under the pool's mutex (foreground first, background
// when the background limit allows), or parks the thread in the idle list.
// Threads above a lowered limit retire when their task ends; a thread cannot
// join itself, so a retired one is joined by the next pool operation made
// on another thread (or when the pool goes).
#include "oru/task.h"

#include <algorithm>
#include <list>
#include <mutex>
#include <thread>
#include <vector>

#include "oru/make_shared_enabler.h"
#include "oru/memory.h"
#include "oru/performance_counter.h"
#include "oru/remote_call.h"
#include "thread/remote_call_platform.h"

namespace oru {

namespace {

// Constructed with the first task, so they outlive the pool (made later)
// at process exit.
PerformanceCounter& TotalTasks() {
  static PerformanceCounter counter(counters::ExtantTasksTag, 0);
  return counter;
}

PerformanceCounter& CumulativeTasks() {
  static PerformanceCounter counter(counters::CumulativeTasksTag, 0);
  return counter;
}

class TaskThread {
public:
  RemoteCall_thread loop{true};
};

class TaskPoolImpl final : public TaskPool, public std::enable_shared_from_this<TaskPoolImpl> {
public:
  TaskPoolImpl() {
    const unsigned hardware = std::thread::hardware_concurrency();
    maxThreads = hardware > 1 ? hardware - 1 : 1;
    backgroundLimit = std::max<uint64_t>(1, maxThreads / 2);
  }

  ~TaskPoolImpl() override {
    shutDown = true;
    std::list<std::shared_ptr<TaskThread>> all;
    std::list<std::shared_ptr<Task>> dropped;
    {
      std::lock_guard<std::mutex> lock(mutex);
      dropped.splice(dropped.end(), foregroundQueue);
      dropped.splice(dropped.end(), backgroundQueue);
      all.splice(all.end(), threads);
      all.splice(all.end(), retired);
      idleThreads.clear();
      threadCount = 0;
    }
    // Running tasks finish; the loops end and are joined.
    for (auto& t : all) t->loop.Terminate();
  }

  void SetMaxThreads(uint64_t n) override {
    std::vector<std::shared_ptr<TaskThread>> stopping;
    {
      std::lock_guard<std::mutex> lock(mutex);
      maxThreads = n;
      backgroundLimit = n / 2;  // no minimum of 1 (kept: one thread runs foreground work only)
      while (threadCount > maxThreads && !idleThreads.empty()) {
        std::shared_ptr<TaskThread> t = idleThreads.front();
        idleThreads.pop_front();
        threads.remove(t);
        --threadCount;
        stopping.push_back(std::move(t));
      }
      TakeRetired(stopping);
      // A raised limit may let waiting tasks start now.
      StartWaitingTasks();
    }
    for (auto& t : stopping) t->loop.Terminate();
  }

  uint64_t GetMaxThreads() const override {
    return Locked([this] { return maxThreads; });
  }
  uint64_t GetBackgroundLimit() const override {
    return Locked([this] { return backgroundLimit; });
  }
  uint64_t GetThreadCount() const override {
    return Locked([this] { return threadCount; });
  }
  uint64_t GetIdleThreadCount() const override {
    return Locked([this] { return static_cast<uint64_t>(idleThreads.size()); });
  }
  uint64_t GetWaitingTaskCount() const override {
    return Locked(
        [this] { return static_cast<uint64_t>(foregroundQueue.size() + backgroundQueue.size()); });
  }

private:
  void Submit(std::shared_ptr<Task> task) override {
    std::unique_lock<std::mutex> lock(mutex);
    if (maxThreads == 0) {
      lock.unlock();
      RunTask(task);
      return;
    }
    std::vector<std::shared_ptr<TaskThread>> stopping;
    TakeRetired(stopping);
    std::shared_ptr<TaskThread> thread;
    if (MayStart(*task)) thread = ObtainThread();
    if (!thread) {
      (task->IsBackground() ? backgroundQueue : foregroundQueue).push_back(std::move(task));
    }
    lock.unlock();
    if (thread) Start(thread, std::move(task));
    for (auto& t : stopping) t->loop.Terminate();
  }

  template <class F>
  uint64_t Locked(F f) const {
    std::lock_guard<std::mutex> lock(mutex);
    return f();
  }

  // Under the mutex. A foreground task may always start; a background one
  // only with no foreground task waiting and enough of the pool free.
  bool MayStart(const Task& task) const {
    if (!task.IsBackground()) return true;
    return foregroundQueue.empty() && BackgroundMayStart();
  }
  bool BackgroundMayStart() const {
    const uint64_t free = idleThreads.size() + (maxThreads - std::min(maxThreads, threadCount));
    return free >= backgroundLimit;
  }

  // Under the mutex: an idle thread, or a new one while below the limit.
  std::shared_ptr<TaskThread> ObtainThread() {
    if (!idleThreads.empty()) {
      std::shared_ptr<TaskThread> t = idleThreads.front();
      idleThreads.pop_front();
      return t;
    }
    if (threadCount >= maxThreads) return nullptr;
    auto t = std::make_shared<TaskThread>();
    threads.push_back(t);
    ++threadCount;
    return t;
  }

  // Under the mutex: start waiting tasks while threads can be had.
  void StartWaitingTasks() {
    for (;;) {
      std::list<std::shared_ptr<Task>>* queue = nullptr;
      if (!foregroundQueue.empty()) {
        queue = &foregroundQueue;
      } else if (!backgroundQueue.empty() && BackgroundMayStart()) {
        queue = &backgroundQueue;
      } else {
        return;
      }
      std::shared_ptr<TaskThread> t = ObtainThread();
      if (!t) return;
      std::shared_ptr<Task> task = std::move(queue->front());
      queue->pop_front();
      // Posting only takes the loop's own lock, never the pool's.
      Start(t, std::move(task));
    }
  }

  void TakeRetired(std::vector<std::shared_ptr<TaskThread>>& out) {
    for (auto it = retired.begin(); it != retired.end();) {
      if ((*it)->loop.IsInRemoteThread()) {
        ++it;
        continue;
      }
      out.push_back(std::move(*it));
      it = retired.erase(it);
    }
  }

  static void RunTask(const std::shared_ptr<Task>& task) {
    try {
      task->Run();
    } catch (...) {
      // A task's failure is its own; the thread goes on serving the pool.
    }
  }

  // The call posted to a pool thread: runs its task, then, on the same
  // thread and without going back through the queue, every task the pool
  // hands it next. It carries no promise: nobody waits on it.
  class TaskCall final : public RemoteFunction_base {
  public:
    TaskCall(std::weak_ptr<TaskPoolImpl> pool, TaskThread* thread, std::shared_ptr<Task> task)
        : m_pool(std::move(pool)), m_thread(thread), m_task(std::move(task)) {}
    void Call() override {
      std::shared_ptr<Task> task = std::move(m_task);
      while (task) {
        RunTask(task);
        task.reset();  // released before the next one is picked
        if (IsDoingShutdown()) return;
        auto pool = m_pool.lock();
        if (!pool) return;
        task = pool->Finished(m_thread);
      }
    }

  private:
    std::weak_ptr<TaskPoolImpl> m_pool;
    TaskThread* m_thread;
    std::shared_ptr<Task> m_task;
  };

  void Start(const std::shared_ptr<TaskThread>& thread, std::shared_ptr<Task> task) {
    thread->loop.PostCall(
        std::make_shared<TaskCall>(weak_from_this(), thread.get(), std::move(task)),
        /*forceQueue=*/true);
  }

  // On the worker thread `raw`, after its task was released: the next task
  // for it, or null when it retired or went idle.
  std::shared_ptr<Task> Finished(TaskThread* raw) {
    std::lock_guard<std::mutex> lock(mutex);
    if (shutDown) return nullptr;
    auto it = std::find_if(threads.begin(), threads.end(),
                           [raw](const std::shared_ptr<TaskThread>& t) { return t.get() == raw; });
    if (it == threads.end()) return nullptr;
    if (threadCount > maxThreads) {
      std::shared_ptr<TaskThread> self = *it;
      threads.erase(it);
      --threadCount;
      // Ends its loop after this call; joined later from another thread.
      self->loop.Terminate();
      retired.push_back(std::move(self));
      return nullptr;
    }
    std::shared_ptr<Task> next;
    if (!foregroundQueue.empty()) {
      next = std::move(foregroundQueue.front());
      foregroundQueue.pop_front();
    } else if (!backgroundQueue.empty() && BackgroundMayStart()) {
      next = std::move(backgroundQueue.front());
      backgroundQueue.pop_front();
    }
    if (!next) idleThreads.push_back(*it);
    return next;
  }

  mutable std::mutex mutex;
  std::list<std::shared_ptr<Task>> foregroundQueue;
  std::list<std::shared_ptr<Task>> backgroundQueue;
  std::list<std::shared_ptr<TaskThread>> threads;
  std::list<std::shared_ptr<TaskThread>> idleThreads;
  uint64_t maxThreads = 1;
  uint64_t threadCount = 0;
  uint64_t backgroundLimit = 1;
  std::atomic<bool> shutDown{false};
  std::list<std::shared_ptr<TaskThread>> retired;
};

}  // namespace

// ---- Task --------------------------------------------------------------------------------

Task::Task() {
  ++TotalTasks();
  ++CumulativeTasks();
}

Task::Task(const Task& other)
    : std::enable_shared_from_this<Task>(other), background(other.background) {
  ++TotalTasks();
  ++CumulativeTasks();
}

Task& Task::operator=(const Task& other) {
  background = other.background;
  return *this;
}

Task::~Task() {
  --TotalTasks();
}

void Task::Execute(bool runInBackground) {
  background = runInBackground;
  std::shared_ptr<Task> self = shared_from_this();
  // The pool lives until exit: no reference count to touch per task.
  static TaskPool& pool = *TaskPool::Get();
  pool.Submit(std::move(self));
}

uint64_t Task::GetTotalTaskCount() {
  return TotalTasks().load();
}

uint64_t Task::GetCumulativeTaskCount() {
  return CumulativeTasks().load();
}

// ---- TaskPool -----------------------------------------------------------------------------

TaskPool::~TaskPool() = default;

std::shared_ptr<TaskPool> TaskPool::Get() {
  // Thread-safe static initialisation. Released at process exit where the
  // platform lets the pool wait for its threads there; on Windows it is
  // left for the system to reclaim (see JoinThreadsAtExit).
  static const std::shared_ptr<TaskPoolImpl> owned =
      detail::JoinThreadsAtExit() ? std::make_shared<TaskPoolImpl>() : nullptr;
  static const std::shared_ptr<TaskPoolImpl>* pool =
      owned ? &owned : new std::shared_ptr<TaskPoolImpl>(std::make_shared<TaskPoolImpl>());
  return *pool;
}

}  // namespace oru
