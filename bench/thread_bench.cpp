// Remote calls and the task pool against what a user would otherwise write.
//
// - BM_RemoteRoundTrip: posting an empty call to a RemoteCall_thread and
//   waiting for its future, one at a time (latency). Peer: the same through
//   a std::packaged_task handed to a minimal mutex/condition-variable worker.
// - BM_TaskPool1M: one million tiny tasks (an atomic increment each) through
//   TaskPool, waiting until all ran. Peer: oneTBB's task_group with the same
//   number of threads (a task_arena of the pool's size).
//
// Rates are items per second (round trips, tasks).
#include <benchmark/benchmark.h>
#include <tbb/task_arena.h>
#include <tbb/task_group.h>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <future>
#include <mutex>
#include <thread>

#include "oru/remote_call.h"
#include "oru/task.h"

namespace {

void BM_RemoteRoundTrip_ours(benchmark::State& state) {
  oru::RemoteCall_thread worker;
  for (auto _ : state) worker.Post([] {}).get();
  worker.Terminate();
  state.SetItemsProcessed(state.iterations());
}

// The smallest worker a user would write: one queue, one mutex, one
// condition variable.
class MinimalWorker {
public:
  MinimalWorker() : m_thread([this] { Loop(); }) {}
  ~MinimalWorker() {
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      m_stop = true;
    }
    m_cv.notify_one();
    m_thread.join();
  }
  std::future<void> Post(std::function<void()> f) {
    std::packaged_task<void()> task(std::move(f));
    auto future = task.get_future();
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      m_queue.push_back(std::move(task));
    }
    m_cv.notify_one();
    return future;
  }

private:
  void Loop() {
    for (;;) {
      std::packaged_task<void()> task;
      {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_cv.wait(lock, [this] { return m_stop || !m_queue.empty(); });
        if (m_stop) return;
        task = std::move(m_queue.front());
        m_queue.pop_front();
      }
      task();
    }
  }
  std::mutex m_mutex;
  std::condition_variable m_cv;
  std::deque<std::packaged_task<void()>> m_queue;
  bool m_stop = false;
  std::thread m_thread;
};

void BM_RemoteRoundTrip_peer(benchmark::State& state) {
  MinimalWorker worker;
  for (auto _ : state) worker.Post([] {}).get();
  state.SetItemsProcessed(state.iterations());
}

constexpr int TASKS = 1000000;

class CountTask : public oru::Task {
public:
  explicit CountTask(std::atomic<int>* count) : m_count(count) {}
  void Run() override { m_count->fetch_add(1, std::memory_order_relaxed); }

private:
  std::atomic<int>* m_count;
};

void BM_TaskPool1M_ours(benchmark::State& state) {
  auto pool = oru::TaskPool::Get();
  for (auto _ : state) {
    std::atomic<int> count{0};
    for (int i = 0; i < TASKS; ++i) std::make_shared<CountTask>(&count)->Execute(false);
    while (count.load(std::memory_order_relaxed) != TASKS) std::this_thread::yield();
  }
  state.SetItemsProcessed(state.iterations() * TASKS);
  state.counters["threads"] = static_cast<double>(pool->GetMaxThreads());
}

void BM_TaskPool1M_peer(benchmark::State& state) {
  // The pool's worker count, plus the submitting thread as TBB counts it.
  const int workers = static_cast<int>(oru::TaskPool::Get()->GetMaxThreads());
  tbb::task_arena arena(workers + 1, 1);
  for (auto _ : state) {
    std::atomic<int> count{0};
    arena.execute([&] {
      tbb::task_group group;
      for (int i = 0; i < TASKS; ++i) {
        group.run([&count] { count.fetch_add(1, std::memory_order_relaxed); });
      }
      group.wait();
    });
    benchmark::DoNotOptimize(count.load());
  }
  state.SetItemsProcessed(state.iterations() * TASKS);
}

}  // namespace

BENCHMARK(BM_RemoteRoundTrip_ours)->Name("BM_RemoteRoundTrip/ours")->UseRealTime();
BENCHMARK(BM_RemoteRoundTrip_peer)->Name("BM_RemoteRoundTrip/peer")->UseRealTime();
BENCHMARK(BM_TaskPool1M_ours)
    ->Name("BM_TaskPool1M/ours")
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK(BM_TaskPool1M_peer)
    ->Name("BM_TaskPool1M/peer")
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
