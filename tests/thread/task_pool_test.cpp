// Task and TaskPool: limits (0, 1, 4), foreground before background, the
// counters, and a million tasks each run exactly once.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <thread>
#include <vector>

#include "oru/task.h"

namespace oru {
namespace {

using namespace std::chrono_literals;

class FunctionTask : public Task {
public:
  explicit FunctionTask(std::function<void()> f) : m_f(std::move(f)) {}
  void Run() override { m_f(); }

private:
  std::function<void()> m_f;
};

void Start(std::function<void()> f, bool background) {
  std::make_shared<FunctionTask>(std::move(f))->Execute(background);
}

bool WaitFor(const std::function<bool()>& done, std::chrono::seconds limit = 30s) {
  const auto end = std::chrono::steady_clock::now() + limit;
  while (!done()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(1ms);
  }
  return true;
}

// Restores the pool's limit after each test.
class TaskPoolTest : public ::testing::Test {
protected:
  std::shared_ptr<TaskPool> pool = TaskPool::Get();
  uint64_t savedLimit = pool->GetMaxThreads();
  ~TaskPoolTest() override { pool->SetMaxThreads(savedLimit); }
};

TEST_F(TaskPoolTest, DefaultsFollowTheHardware) {
  const unsigned hw = std::thread::hardware_concurrency();
  EXPECT_EQ(hw > 1 ? hw - 1 : 1u, savedLimit);
  pool->SetMaxThreads(1);
  EXPECT_EQ(0u, pool->GetBackgroundLimit());  // n / 2, without a minimum
  pool->SetMaxThreads(7);
  EXPECT_EQ(3u, pool->GetBackgroundLimit());
}

TEST_F(TaskPoolTest, LimitZeroRunsTasksInlineAndEveryTaskIsCounted) {
  const uint64_t cumulative = Task::GetCumulativeTaskCount();
  const uint64_t alive = Task::GetTotalTaskCount();
  pool->SetMaxThreads(0);
  {
    std::thread::id ranOn;
    auto a = std::make_shared<FunctionTask>([&] { ranOn = std::this_thread::get_id(); });
    FunctionTask b(*a);  // a copy is a task of its own
    EXPECT_EQ(alive + 2, Task::GetTotalTaskCount());
    a->Execute(true);
    EXPECT_EQ(std::this_thread::get_id(), ranOn);
    EXPECT_TRUE(a->IsBackground());
  }
  EXPECT_EQ(alive, Task::GetTotalTaskCount());
  EXPECT_EQ(cumulative + 2, Task::GetCumulativeTaskCount());
}

TEST_F(TaskPoolTest, BackgroundTasksWaitWhileForegroundOnesStart) {
  pool->SetMaxThreads(4);  // background limit 2
  ASSERT_TRUE(WaitFor([&] { return pool->GetThreadCount() <= 4; }));
  std::promise<void> gate;
  std::shared_future<void> open = gate.get_future().share();
  std::atomic<int> busy{0};
  for (int i = 0; i < 3; ++i) Start([&busy, open] { ++busy, open.wait(); }, false);
  ASSERT_TRUE(WaitFor([&] { return busy == 3; }));

  std::atomic<bool> backgroundRan{false};
  Start([&] { backgroundRan = true; }, true);
  EXPECT_EQ(1u, pool->GetWaitingTaskCount());  // only one thread free, two needed

  std::promise<void> foreground;
  Start([&] { foreground.set_value(); }, false);  // takes the fourth thread
  EXPECT_EQ(std::future_status::ready, foreground.get_future().wait_for(30s));
  EXPECT_FALSE(backgroundRan);

  gate.set_value();
  EXPECT_TRUE(WaitFor([&] { return backgroundRan.load(); }));
  EXPECT_TRUE(WaitFor([&] { return pool->GetWaitingTaskCount() == 0; }));
}

TEST_F(TaskPoolTest, LoweringTheLimitRetiresThreads) {
  pool->SetMaxThreads(4);
  std::promise<void> gate;
  std::shared_future<void> open = gate.get_future().share();
  std::atomic<int> busy{0};
  for (int i = 0; i < 4; ++i) Start([&busy, open] { ++busy, open.wait(); }, false);
  ASSERT_TRUE(WaitFor([&] { return busy == 4; }));
  EXPECT_EQ(4u, pool->GetThreadCount());
  pool->SetMaxThreads(1);  // busy threads go when their tasks end
  EXPECT_EQ(4u, pool->GetThreadCount());
  gate.set_value();
  EXPECT_TRUE(WaitFor([&] { return pool->GetThreadCount() == 1; }));
  std::promise<void> after;
  Start([&] { after.set_value(); }, true);
  EXPECT_EQ(std::future_status::ready, after.get_future().wait_for(30s));
}

TEST_F(TaskPoolTest, AMillionTasksRunExactlyOnce) {
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
  constexpr int COUNT = 100000;  // the sanitizers make each task far slower
#else
  constexpr int COUNT = 1000000;
#endif
  pool->SetMaxThreads(4);
  std::vector<std::atomic<uint8_t>> runs(COUNT);
  std::atomic<int> done{0};
  std::thread posters[2];
  for (int p = 0; p < 2; ++p) {
    posters[p] = std::thread([&, p] {
      for (int i = p; i < COUNT; i += 2) {
        Start([&runs, &done, i] { ++runs[i], ++done; }, i % 3 == 0);
      }
    });
  }
  for (auto& t : posters) t.join();
  ASSERT_TRUE(WaitFor([&] { return done == COUNT; }, 300s)) << done << " of " << COUNT;
  for (int i = 0; i < COUNT; ++i) ASSERT_EQ(1, runs[i]) << i;
  // A task that throws does not cost the pool its thread.
  Start([] { throw std::runtime_error("task failure"); }, false);
  std::promise<void> after;
  Start([&] { after.set_value(); }, false);
  EXPECT_EQ(std::future_status::ready, after.get_future().wait_for(30s));
}

}  // namespace
}  // namespace oru
