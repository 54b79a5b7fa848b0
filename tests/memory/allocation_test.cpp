// The counted allocation path, which allocations the library's operators
// count, the memory resources, the usage account and the shutdown flag.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <mutex>
#include <new>
#include <stdexcept>
#include <thread>

#include "oru/data_source.h"
#include "oru/memory.h"
#include "support/test_util.h"

namespace oru {
namespace {

// The counters: calls to new, bytes, calls to delete, bytes freed, unsized
// releases.
using Counts = std::array<uint64_t, 5>;
Counts Now() {
  return {counters::CallsToNew(), counters::CumulativeAllocations(), counters::CallsToDelete(),
          counters::CumulativeDeallocations(), counters::UnsizedDeallocations()};
}
// What was counted since the object was made.
struct Counter {
  Counts operator()() const {
    Counts counted = Now();
    for (size_t i = 0; i < counted.size(); ++i) counted[i] -= start[i];
    return counted;
  }
  const Counts start = Now();
};

const Counts NOTHING{0, 0, 0, 0, 0};

// No machine provides 2^62 bytes, so malloc fails at once. (Under the
// sanitizers this needs allocator_may_return_null=1, which scripts/sanitize
// sets.)
constexpr uint64_t IMPOSSIBLE = uint64_t{1} << 62;

void ExpectBadAllocation(const std::function<void()>& allocate) {
  try {
    allocate();
    ADD_FAILURE() << "the allocation succeeded";
  } catch (const std::bad_alloc& e) {
    EXPECT_STREQ("bad allocation", e.what());
  }
}

TEST(AllocationPath, CountsAllocationsAndReleases) {
  const Counter counted;
  void* p = DoAllocation(100);
  void* empty = DoAllocation(0);
  ASSERT_TRUE(p != nullptr && empty != nullptr && p != empty);
  std::memset(p, 0xA5, 100);
  DoSizedFree(nullptr, 100);  // null is ignored and not counted
  DoUnsizedFree(nullptr);
  EXPECT_EQ((Counts{2, 100, 0, 0, 0}), counted());
  DoSizedFree(p, 100);
  DoUnsizedFree(empty);  // a release without bytes
  EXPECT_EQ((Counts{2, 100, 2, 100, 1}), counted());

  // The counters are registered under their names, once each.
  std::map<std::string, int> tags;
  PerformanceCounter::VisitAllCounters(
      [&](BasicStringSpan<char const> tag, uint64_t) { ++tags[tag.str()]; });
  for (const char* name :
       {"Calls to ::operator new()", "Cumulative allocations", "Calls to ::operator delete()",
        "Cumulative deallocations", "Unsized deallocations"}) {
    EXPECT_EQ(1, tags[name]) << name;
  }
}

TEST(AllocationPath, FailureCallsTheNewHandlerUntilItGivesUp) {
  const std::new_handler saved = std::set_new_handler(nullptr);
  const Counter counted;
  ExpectBadAllocation([] { DoAllocation(IMPOSSIBLE); });
  EXPECT_EQ(NOTHING, counted());
#if defined(_WIN32) && !defined(ORU_STATIC)
  std::set_new_handler(saved);
  GTEST_SKIP() << "oru.dll has its own C++ runtime and thus its own new-handler, which "
                  "std::set_new_handler in the test program does not reach";
#endif
  // The handler releases a reserve on its first call and removes itself on
  // its second, so that the next failure throws.
  static std::atomic<int> s_calls{0};
  static void* s_reserve = nullptr;
  s_reserve = DoAllocation(4096);
  std::set_new_handler([] {
    if (++s_calls == 1) {
      DoSizedFree(s_reserve, 4096);
      s_reserve = nullptr;
    } else {
      std::set_new_handler(nullptr);
    }
  });
  const Counter retried;
  ExpectBadAllocation([] { DoAllocation(IMPOSSIBLE); });
  std::set_new_handler(saved);
  EXPECT_EQ(2, s_calls.load());
  EXPECT_EQ(nullptr, s_reserve);
  EXPECT_EQ((Counts{0, 0, 1, 4096, 0}), retried());  // only the reserve
}

TEST(AllocationPath, ConcurrentCountsAreExact) {
  constexpr uint64_t THREADS = 4, ROUNDS = 20000;
  const Counter counted;
  std::vector<std::thread> threads;
  for (uint64_t t = 0; t < THREADS; ++t) {
    threads.emplace_back([size = 16 + t] {
      for (uint64_t i = 0; i < ROUNDS; ++i) {
        void* p = DoAllocation(size);
        static_cast<char*>(p)[size - 1] = 1;
        i % 4 == 0 ? DoUnsizedFree(p) : DoSizedFree(p, size);
      }
    });
  }
  for (auto& t : threads) t.join();
  const uint64_t bytes = ROUNDS * (16 + 17 + 18 + 19);  // a quarter released unsized
  EXPECT_EQ(
      (Counts{THREADS * ROUNDS, bytes, THREADS * ROUNDS, bytes / 4 * 3, THREADS * ROUNDS / 4}),
      counted());
}

TEST(AllocationScope, CountsTheLibrarysOwnAllocationsOnly) {
  const Counter counted;
  int* volatile mine = new int(7);  // volatile: the pair must not be optimised away
  delete mine;
  std::vector<std::string> strings(20, std::string(100, 'o'));
  strings = {};
  EXPECT_EQ(NOTHING, counted()) << "the program's own allocations were counted";
  {
    auto source = InMemoryDataSource::Create(std::string(1000, 'x'), false);
#ifdef ORU_STATIC
    EXPECT_EQ(NOTHING, counted());  // the program's operators are left alone
#else
    EXPECT_GT(counted()[0], 0u) << "the library's allocations were not counted";
#endif
  }
#ifdef ORU_STATIC
  EXPECT_EQ(NOTHING, counted());
#else
  EXPECT_GT(counted()[2], 0u) << "the library's releases were not counted";
#endif
}

// ---- memory resources and the event hook ----------------------------------------

TEST(MemoryResource, BuiltInResources) {
  memory_resource& newDelete = mem_resource_internals::s_newDeleteMemResource;
  memory_resource& null = mem_resource_internals::s_nullMemResource;
  EXPECT_EQ(&newDelete, s_defaultMemResource.load());  // the default
  const Counter counted;
  void* p = newDelete.allocate(48, 64);  // the alignment is ignored
  EXPECT_EQ((Counts{1, 48, 0, 0, 0}), counted());
  newDelete.deallocate(p, 48, 64);
  EXPECT_EQ((Counts{1, 48, 1, 48, 0}), counted());

  ExpectBadAllocation([&] { null.allocate(1); });
  int local = 5;
  null.deallocate(&local, sizeof local);  // releases nothing
  EXPECT_EQ((Counts{1, 48, 1, 48, 0}), counted());

  // Neither claims equality with anything, itself included.
  EXPECT_FALSE(newDelete.is_equal(newDelete) || null.is_equal(null));
}

// Hears the hook's events, a release with the size RELEASED. Other threads
// of the process may allocate through the library meanwhile, so the tests
// look only for their own blocks.
constexpr uint64_t RELEASED = UINT64_MAX;
struct Recorder : MemoryEventHandler {
  void OnAllocate(void* block, uint64_t size) override { Add(block, size); }
  void OnFree(void* block) override { Add(block, RELEASED); }
  void Add(void* block, uint64_t size) {
    std::lock_guard<std::mutex> lock(mutex);
    events.emplace_back(block, size);
  }
  bool HeardOnce(void* block, uint64_t size) {
    std::lock_guard<std::mutex> lock(mutex);
    return std::count(events.begin(), events.end(), std::make_pair(block, size)) == 1;
  }
  std::mutex mutex;
  std::vector<std::pair<void*, uint64_t>> events;
};

TEST(MemoryEvents, SetAllocationEventHandlerInstallsNothing) {
  if (IsAllocationEventHookLive()) GTEST_SKIP() << "this build has the live hook";
  Recorder recorder;
  for (auto* handler : {&recorder, &recorder, static_cast<Recorder*>(nullptr)}) {
    EXPECT_EQ(nullptr, SetAllocationEventHandler(handler));
    DoUnsizedFree(DoAllocation(8));
  }
  EXPECT_TRUE(recorder.events.empty());
}

// The live hook (builds with ORU_LIVE_ALLOCATION_HOOK=ON).
class LiveHookTest : public ::testing::Test {
protected:
  void SetUp() override {
    if (!IsAllocationEventHookLive()) GTEST_SKIP() << "this build's hook is inert";
  }
};

TEST_F(LiveHookTest, DeliversEveryAllocationAndRelease) {
  Recorder recorder, second;
  ASSERT_EQ(nullptr, SetAllocationEventHandler(&recorder));
  void* sized = DoAllocation(24);
  void* unsized = DoAllocation(0);
  EXPECT_TRUE(recorder.HeardOnce(sized, 24));
  EXPECT_TRUE(recorder.HeardOnce(unsized, 0));  // the hook passes size 0 on
  DoSizedFree(sized, 24);
  DoUnsizedFree(unsized);
  EXPECT_TRUE(recorder.HeardOnce(sized, RELEASED));
  EXPECT_TRUE(recorder.HeardOnce(unsized, RELEASED));
  DoUnsizedFree(nullptr);  // nothing to tell
  EXPECT_FALSE(recorder.HeardOnce(nullptr, RELEASED));
  // Replacing returns the previous handler, which then hears nothing more.
  EXPECT_EQ(&recorder, SetAllocationEventHandler(&second));
  void* later = DoAllocation(8);
  EXPECT_FALSE(recorder.HeardOnce(later, 8));
  EXPECT_TRUE(second.HeardOnce(later, 8));
  EXPECT_EQ(&second, SetAllocationEventHandler(nullptr));
  DoSizedFree(later, 8);
  EXPECT_FALSE(second.HeardOnce(later, RELEASED));
}

TEST_F(LiveHookTest, AHandlerThatThrowsDoesNotBreakAllocation) {
  struct Thrower : MemoryEventHandler {
    void OnAllocate(void*, uint64_t) override { throw std::runtime_error("full"); }
    void OnFree(void*) override { throw std::runtime_error("full"); }
  } thrower;
  SetAllocationEventHandler(&thrower);
  void* block = nullptr;
  EXPECT_NO_THROW(block = DoAllocation(32));
  EXPECT_NE(nullptr, block);
  DoSizedFree(block, 32);
  EXPECT_EQ(&thrower, SetAllocationEventHandler(nullptr));
}

TEST_F(LiveHookTest, ReplacementWaitsForCallsInProgress) {
  // A handler busy on another thread must have returned before the call
  // that replaces it does, so that it may be destroyed right after.
  struct Slow : MemoryEventHandler {
    void OnAllocate(void*, uint64_t size) override {
      if (size != 4321) return;
      entered = true;
      std::this_thread::sleep_for(std::chrono::milliseconds(200));
      finished = true;
    }
    void OnFree(void*) override {}
    std::atomic<bool> entered{false}, finished{false};
  } slow;
  SetAllocationEventHandler(&slow);
  std::thread allocator([] { DoSizedFree(DoAllocation(4321), 4321); });
  while (!slow.entered) std::this_thread::yield();
  EXPECT_EQ(&slow, SetAllocationEventHandler(nullptr));
  EXPECT_TRUE(slow.finished);
  allocator.join();
}

TEST_F(LiveHookTest, ReplacingUnderSteadyTrafficFinishes) {
  // Threads allocating without pause must not keep a replacement waiting,
  // and each handler hears the traffic of its own turn.
  Recorder a, b;
  std::atomic<bool> stop{false};
  std::atomic<uint64_t> pairs{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&stop, &pairs] {
      while (!stop) {
        DoSizedFree(DoAllocation(16), 16);
        ++pairs;
      }
    });
  }
  for (int i = 0; i < 200; ++i) {
    const uint64_t before = pairs.load();
    while (pairs.load() < before + 50) std::this_thread::yield();  // traffic flows
    SetAllocationEventHandler(i % 2 ? &a : &b);
  }
  SetAllocationEventHandler(nullptr);
  stop = true;
  for (auto& thread : threads) thread.join();
  EXPECT_FALSE(a.events.empty());
  EXPECT_FALSE(b.events.empty());
}

// ---- the usage account and shutdown ------------------------------------------------

TEST(RecordMemoryUsage, AccountAndThreshold) {
  ASSERT_FALSE(IsDoingShutdown());
  const uint64_t base = RecordMemoryUsage::Used();
  ASSERT_LE(base, uint64_t{1} << 20);
  RecordMemoryUsage::Add(0);
  RecordMemoryUsage::Remove(0);
  EXPECT_EQ(base, RecordMemoryUsage::Used());
  RecordMemoryUsage::Remove(base + 1);  // not checked: wraps
  EXPECT_EQ(UINT64_MAX, RecordMemoryUsage::Used());
  RecordMemoryUsage::Add(base + 1);

  RecordMemoryUsage::SetHighUsageValue(1);  // MiB in, bytes out
  EXPECT_EQ(1048576u, RecordMemoryUsage::GetHighUsageValue());
  RecordMemoryUsage::Add((uint64_t{1} << 20) - base);
  EXPECT_FALSE(RecordMemoryUsage::PassedHighUsage());  // at the threshold
  RecordMemoryUsage::Add(1);
  EXPECT_TRUE(RecordMemoryUsage::PassedHighUsage());
  RecordMemoryUsage::SetHighUsageValue(0);  // no threshold: never passed
  EXPECT_FALSE(RecordMemoryUsage::PassedHighUsage());
  RecordMemoryUsage::Remove((uint64_t{1} << 20) - base + 1);
  EXPECT_EQ(base, RecordMemoryUsage::Used());
}

std::string PrintedUsageTime(int addMilliseconds) {
  RecordMemoryUsage::AddRecordUsageTime(addMilliseconds);
  ::testing::internal::CaptureStdout();
  RecordMemoryUsage::PrintfRecordUsageTime();
  return ::testing::internal::GetCapturedStdout();
}

TEST(RecordMemoryUsage, PrintfRecordUsageTimeInSinglePrecision) {
  RecordMemoryUsage::ResetRecordUsageTime();
  EXPECT_EQ("", PrintedUsageTime(0));
  RecordMemoryUsage::AddRecordUsageTime(1000);
  EXPECT_EQ("Total Memory Usage Time: 1.500000s\n", PrintedUsageTime(500));
  EXPECT_EQ("Total Memory Usage Time: -0.250000s\n", PrintedUsageTime(-1750));
  RecordMemoryUsage::ResetRecordUsageTime();
  // 16777217 ms becomes 16777216.0f, and the quotient's nearest float is
  // 16777.216796875 (in double it would be 16777.217).
  EXPECT_EQ("Total Memory Usage Time: 16777.216797s\n", PrintedUsageTime(16777217));
  RecordMemoryUsage::ResetRecordUsageTime();
}

// The shutdown flag cannot be cleared, so it is set in a child process: this
// program again, running only the disabled test below, which writes a marker
// when all its checks passed.
TEST(MemoryShutdown, DISABLED_Child) {
  RecordMemoryUsage::Add(uint64_t{3} << 20);
  RecordMemoryUsage::SetHighUsageValue(1);
  ASSERT_TRUE(RecordMemoryUsage::PassedHighUsage());
  SetDoingShutdown();
  EXPECT_TRUE(IsDoingShutdown());
  RecordMemoryUsage::Add(10);
  RecordMemoryUsage::SetHighUsageValue(7);
  EXPECT_EQ(0u, RecordMemoryUsage::Used());
  EXPECT_EQ(0u, RecordMemoryUsage::GetHighUsageValue());
  EXPECT_FALSE(RecordMemoryUsage::PassedHighUsage());
  EXPECT_EQ("Total Memory Usage Time: 2.000000s\n", PrintedUsageTime(2000));  // not guarded
  const Counter counted;                                                      // counting goes on
  DoSizedFree(DoAllocation(8), 8);
  EXPECT_EQ((Counts{1, 8, 1, 8, 0}), counted());
  auto source = InMemoryDataSource::Create(std::string(64, 's'), false);  // torn down at exit
  if (!::testing::Test::HasFailure()) test::WriteFile(test::GetEnv("ORU_SHUTDOWN_MARKER"), "ok");
}

TEST(MemoryShutdown, UsageAccountReadsEmptyAfterShutdownAndTheProcessEndsCleanly) {
  test::TempDir tmp;
  const std::string marker = tmp.File("child-passed");
  {
    test::ScopedEnv env("ORU_SHUTDOWN_MARKER", marker);
    EXPECT_EQ(0, test::ChildProcess("MemoryShutdown.DISABLED_Child").Wait());
  }
  EXPECT_TRUE(std::filesystem::exists(std::filesystem::u8path(marker)))
      << "the child's checks did not all pass";
  EXPECT_FALSE(IsDoingShutdown());
}

}  // namespace
}  // namespace oru
