// Task and TaskPool: units of work run on one process-wide pool of worker
// threads.
//
//   class Decode : public oru::Task {
//   public:
//     void Run() override { ... }        // on a pool thread
//   };
//   std::make_shared<Decode>()->Execute(/*background=*/false);
//
// Foreground tasks are served before background ones, and background tasks
// may only start while at least GetBackgroundLimit() threads' worth of the
// pool is free, so they never crowd out foreground work. The pool has
// hardware-concurrency-minus-one threads at most (at least one), made on
// demand and kept idle when there is no work; SetMaxThreads changes the
// limit (0 runs every task on the thread that calls Execute).
//
// Ownership: a task is always held by std::shared_ptr (Execute uses
// shared_from_this); the pool holds it until it has run. The pool itself
// lives until the process exits; at exit it drops the tasks still waiting
// and waits for the running ones. On Windows it is not torn down at exit:
// the system has stopped its threads by then, and waiting on them would
// hang, so the system reclaims it. After SetDoingShutdown() (memory.h) a
// finishing task no longer picks up new work.
//
// Threading: Execute, Get and the pool's members may be called from any
// thread. A task's Run() runs on a pool thread; an exception escaping it is
// caught and dropped so that the thread keeps serving the pool.
//
// Two performance counters follow the tasks: "Current Tasks" (alive now)
// and "Cumulative Tasks" (ever constructed).
#pragma once

#include <cstdint>
#include <memory>

#include "oru/export.h"

namespace oru {

class ORU_API Task : public std::enable_shared_from_this<Task> {
public:
  Task();
  Task(const Task& other);
  Task& operator=(const Task& other);
  virtual ~Task();

  /// The work; called once on a pool thread.
  virtual void Run() = 0;

  /// Hands the task to the pool. The task must be owned by a shared_ptr.
  void Execute(bool background);
  bool IsBackground() const { return background; }

  /// Tasks alive now, and tasks ever constructed.
  static uint64_t GetTotalTaskCount();
  static uint64_t GetCumulativeTaskCount();

private:
  bool background = false;
};

/// The process-wide pool behind Task::Execute.
class ORU_API TaskPool {
public:
  virtual ~TaskPool();

  /// The pool, made on first use.
  static std::shared_ptr<TaskPool> Get();

  /// Sets the thread limit; the background limit becomes n / 2 (so a limit
  /// of 1 holds no background task back). Idle threads above the limit go
  /// at once, busy ones when their task ends. 0 runs tasks inline.
  virtual void SetMaxThreads(uint64_t n) = 0;
  virtual uint64_t GetMaxThreads() const = 0;
  virtual uint64_t GetBackgroundLimit() const = 0;
  /// Pool threads alive, idle ones, and tasks waiting for a thread.
  virtual uint64_t GetThreadCount() const = 0;
  virtual uint64_t GetIdleThreadCount() const = 0;
  virtual uint64_t GetWaitingTaskCount() const = 0;

protected:
  TaskPool() = default;
  TaskPool(const TaskPool&) = default;
  TaskPool(TaskPool&&) = default;
  TaskPool& operator=(const TaskPool&) = default;
  TaskPool& operator=(TaskPool&&) = default;

private:
  friend class Task;
  virtual void Submit(std::shared_ptr<Task> task) = 0;
};

}  // namespace oru
