// RemoteCall_thread and RemoteCall_messenger: ordering, inline runs on the
// own thread, the timer in both period modes, broken promises on
// termination, messenger notifications, and posting under load.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <thread>
#include <utility>
#include <vector>

#include "oru/remote_call.h"

namespace oru {
namespace {

using namespace std::chrono_literals;

bool IsBroken(std::future<void>&& f) {
  try {
    f.get();
  } catch (const std::future_error& e) {
    return e.code() == std::future_errc::broken_promise;
  }
  return false;
}

// Order among many posts is the load test's business.
TEST(RemoteCallThread, RunsCallsOnItsOwnThread) {
  RemoteCall_thread worker(false);  // the argument is ignored: always its own thread
  EXPECT_FALSE(worker.IsInRemoteThread());
  const auto [inside, id] = worker
                                .Post([&] {
                                  return std::make_pair(worker.IsInRemoteThread(),
                                                        RemoteCall_thread::GetCurrentThreadId());
                                })
                                .get();
  EXPECT_TRUE(inside);
  EXPECT_NE(RemoteCall_thread::GetCurrentThreadId(), id);
  EXPECT_TRUE(worker.MainThreadQueueEmpty());

  // From the loop itself: inline unless forced into the queue.
  auto ranLater = std::make_shared<std::atomic<bool>>(false);
  auto nested = worker.Post([&worker, ranLater] {
    bool ranInline = false;
    worker.Post([&ranInline] { ranInline = true; });
    worker.Post([ranLater] { *ranLater = true; }, /*forceQueue=*/true);
    return ranInline && !*ranLater;
  });
  EXPECT_TRUE(nested.get());
  worker.Post([] {}).get();
  EXPECT_TRUE(*ranLater);

  // Exceptions travel through the future.
  EXPECT_THROW(worker.Post([]() -> int { throw std::runtime_error("inside"); }).get(),
               std::runtime_error);
  worker.Terminate();
}

TEST(RemoteCallThread, TerminationBreaksThePromisesOfQueuedCalls) {
  RemoteCall_thread worker;
  std::promise<void> gate, started;
  auto blocker = worker.Post([open = gate.get_future().share(), &started] {
    started.set_value();
    open.wait();
  });
  started.get_future().wait();
  std::atomic<int> ran{0};
  std::vector<std::future<void>> queued;
  for (int i = 0; i < 10; ++i) queued.push_back(worker.Post([&ran] { ++ran; }));
  std::thread terminator([&] { worker.Terminate(); });
  // Once posts are dropped at once, the loop is flagged: open the gate.
  while (worker.Post([] {}).wait_for(0s) != std::future_status::ready) std::this_thread::yield();
  gate.set_value();
  terminator.join();
  blocker.get();
  EXPECT_EQ(0, ran);
  for (auto& f : queued) EXPECT_TRUE(IsBroken(std::move(f)));
  EXPECT_TRUE(IsBroken(worker.Post([&ran] { ++ran; })));
  worker.DisableTimer();  // harmless after termination
}

// The timer in both period modes, with calls posted meanwhile. Its argument
// is about the period when the period runs from start to start, and exactly
// a fifth of it when it runs from end to start (the tick is then already
// due). A tick never comes before its period is over, nor once the timer is
// off. Only lower bounds on time are checked, which a slow or busy machine
// cannot break.
TEST(RemoteCallThread, TimerFollowsThePeriodMode) {
  using Clock = std::chrono::steady_clock;
  for (bool prioritise : {true, false}) {
    SCOPED_TRACE(prioritise ? "start to start" : "end to start");
    RemoteCall_thread worker;
    worker.SetProritiseTimer(prioritise);
    std::vector<std::pair<int64_t, Clock::time_point>> ticks;  // used on the loop only
    std::promise<void> third;
    worker.AddIntervalCallback(100, [&](std::chrono::milliseconds budget) {
      ticks.emplace_back(budget.count(), Clock::now());
      if (ticks.size() == 3) third.set_value();
    });
    worker.EnableTimer();
    int sum = 0;
    for (int i = 0; i < 1000; ++i) sum += worker.Post([i] { return i; }).get();
    EXPECT_EQ(999 * 1000 / 2, sum);
    third.get_future().wait();
    worker.DisableTimer();
    auto tickCount = [&] { return worker.Post([&] { return ticks.size(); }).get(); };
    const size_t count = tickCount();
    std::this_thread::sleep_for(250ms);
    EXPECT_EQ(count, tickCount());
    for (const auto& [budget, when] : ticks) {
      EXPECT_LE(budget, 100);
      EXPECT_TRUE(prioritise ? budget > 20 : budget == 20) << budget;
    }
    EXPECT_GE(ticks[2].second - ticks[0].second, 2 * 99ms);
    worker.Terminate();
  }
}

TEST(RemoteCallThread, NothingIsLostUnderLoadAndOrderHoldsPerPoster) {
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
  constexpr int PER_POSTER = 25000;  // the sanitizers make each call far slower
#else
  constexpr int PER_POSTER = 250000;
#endif
  constexpr int POSTERS = 4;
  RemoteCall_thread worker;
  std::vector<std::vector<int>> seen(POSTERS);  // touched only on the loop
  std::vector<std::thread> posters;
  std::vector<std::future<void>> last(POSTERS);
  for (int p = 0; p < POSTERS; ++p) {
    posters.emplace_back([&, p] {
      for (int i = 0; i < PER_POSTER; ++i) {
        auto f = worker.Post([&seen, p, i] { seen[p].push_back(i); });
        if (i + 1 == PER_POSTER) last[p] = std::move(f);
      }
    });
  }
  for (auto& t : posters) t.join();
  for (auto& f : last) f.get();
  for (int p = 0; p < POSTERS; ++p) {
    ASSERT_EQ(static_cast<size_t>(PER_POSTER), seen[p].size());
    for (int i = 0; i < PER_POSTER; ++i) ASSERT_EQ(i, seen[p][i]);
  }
  worker.Terminate();
}

TEST(RemoteCallThread, TerminateRacingPostersNeverRunsLateAndNeverLosesAPromise) {
  for (int round = 0; round < 20; ++round) {
    RemoteCall_thread worker;
    std::atomic<bool> returned{false}, lateRun{false};
    std::vector<std::vector<std::future<void>>> futures(3);
    std::vector<std::thread> posters;
    for (int p = 0; p < 3; ++p) {
      posters.emplace_back([&, p] {
        for (int i = 0; i < 2000; ++i) {
          futures[p].push_back(worker.Post([&] {
            if (returned) lateRun = true;
          }));
        }
      });
    }
    std::this_thread::sleep_for(std::chrono::microseconds(200 * round));
    worker.Terminate();
    returned = true;
    for (auto& t : posters) t.join();
    EXPECT_FALSE(lateRun);
    // Every future is settled: run (value) or dropped (broken promise).
    for (auto& list : futures) {
      for (auto& f : list) ASSERT_EQ(std::future_status::ready, f.wait_for(0s));
    }
  }
}

class CountingMessenger : public RemoteCall_messenger {
public:
  std::atomic<int> notifications{0};
  void OnNeedToProcessQueue_thread() override { ++notifications; }
};

TEST(RemoteCallMessenger, NotifiesOncePerBatchAndRunsOnTheAppThread) {
  CountingMessenger messenger;
  EXPECT_TRUE(messenger.IsInAppThread());
  // On the app thread: at once.
  EXPECT_EQ(std::future_status::ready, messenger.Post([] {}).wait_for(0s));
  EXPECT_EQ(0, messenger.notifications);

  std::vector<int> order;
  std::future<int> answer;
  std::thread worker([&] {
    EXPECT_FALSE(messenger.IsInAppThread());
    messenger.Post([&] { order.push_back(1); });
    messenger.Post([&] { order.push_back(2); });
    answer = messenger.Post([&] {
      order.push_back(3);
      messenger.Post([&] { order.push_back(4); });  // on the app thread: inline
      return 42;
    });
  });
  worker.join();
  EXPECT_EQ(1, messenger.notifications);
  EXPECT_TRUE(order.empty());
  messenger.ProcessQueue();
  EXPECT_EQ((std::vector<int>{1, 2, 3, 4}), order);
  EXPECT_EQ(42, answer.get());

  // Empty again: the next post notifies again.
  std::future<void> dropped, late;
  std::thread([&] { dropped = messenger.Post([] {}); }).join();
  EXPECT_EQ(2, messenger.notifications);
  messenger.Terminate();
  std::thread([&] { late = messenger.Post([] {}); }).join();
  EXPECT_TRUE(IsBroken(std::move(dropped)) && IsBroken(std::move(late)));
}

}  // namespace
}  // namespace oru
