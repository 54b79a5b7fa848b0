// HeapTrace: the records it writes for events fed to its handler, how it
// cleans stacks, its failures, many producers, and that heaptrack_print
// reads what it writes.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <map>
#include <new>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "oru/data_source.h"
#include "oru/heap_trace.h"
#include "oru/memory.h"
#include "support/test_util.h"

#if defined(__GNUC__)
#define ORU_NOINLINE __attribute__((noinline))
#else
#define ORU_NOINLINE
#endif

namespace oru::trace_test {
// Keeps calls from becoming jumps, so every helper keeps its own frame.
inline std::atomic<int> g_sink{0};
}  // namespace oru::trace_test

// Helpers whose names begin with "std::", for the collapsing of runs of
// standard-library frames. They are local to this file.
namespace std {
namespace {
ORU_NOINLINE void OruTestStdInner(oru::MemoryEventHandler* handler, void* block) {
  handler->OnAllocate(block, 24);
  oru::trace_test::g_sink.fetch_add(1, std::memory_order_relaxed);
}
ORU_NOINLINE void OruTestStdMiddle(oru::MemoryEventHandler* handler, void* block) {
  OruTestStdInner(handler, block);
  oru::trace_test::g_sink.fetch_add(1, std::memory_order_relaxed);
}
ORU_NOINLINE void OruTestStdOuter(oru::MemoryEventHandler* handler, void* block) {
  OruTestStdMiddle(handler, block);
  oru::trace_test::g_sink.fetch_add(1, std::memory_order_relaxed);
}
}  // namespace
}  // namespace std

namespace oru {
namespace {

using trace_test::g_sink;

// A placement form of the global operator new: its name is "operator new",
// so the tracer must drop its frame like that of the real one.
struct TraceTag {};
}  // namespace
}  // namespace oru

ORU_NOINLINE void* operator new(std::size_t size, oru::TraceTag, oru::MemoryEventHandler* handler,
                                void* block) {
  handler->OnAllocate(block, size);
  oru::g_sink.fetch_add(1, std::memory_order_relaxed);
  return block;
}
// The matching placement delete, needed only if a constructor threw.
void operator delete(void*, oru::TraceTag, oru::MemoryEventHandler*, void*) noexcept {}

namespace oru {
namespace {

struct Payload {
  char bytes[40];
};

ORU_NOINLINE void AllocateThroughOperatorNew(MemoryEventHandler* handler, void* block) {
  new (TraceTag{}, handler, block) Payload;
  g_sink.fetch_add(1, std::memory_order_relaxed);
}

ORU_NOINLINE void AllocateLeaky(MemoryEventHandler* handler, void* block, uint64_t size) {
  handler->OnAllocate(block, size);
  g_sink.fetch_add(1, std::memory_order_relaxed);
}

ORU_NOINLINE void AllocateOther(MemoryEventHandler* handler, void* block, uint64_t size) {
  handler->OnAllocate(block, size);
  g_sink.fetch_add(1, std::memory_order_relaxed);
}

ORU_NOINLINE void Release(MemoryEventHandler* handler, void* block) {
  handler->OnFree(block);
  g_sink.fetch_add(1, std::memory_order_relaxed);
}

ORU_NOINLINE void CallStdRun(MemoryEventHandler* handler, void* block) {
  std::OruTestStdOuter(handler, block);
  g_sink.fetch_add(1, std::memory_order_relaxed);
}

void* Address(uintptr_t value) {
  return reinterpret_cast<void*>(value);
}

std::string Hex(uint64_t value) {
  std::ostringstream out;
  out << std::hex << value;
  return out.str();
}

// Reads a trace back the way a reader of the format must: every id refers
// to a record written before it, numbered in order of appearance.
struct Trace {
  struct Frame {
    std::string function, file, module;
    uint64_t line = 0;
  };
  struct Site {
    uint64_t size;
    uint64_t stack;
  };
  std::vector<std::string> lines;
  std::vector<std::string> strings{""};                      // from 1
  std::vector<Frame> instructions{Frame{}};                  // from 1
  std::vector<std::pair<uint64_t, uint64_t>> nodes{{0, 0}};  // from 1: instruction, parent
  std::vector<Site> sites;                                   // from 0
  std::vector<std::pair<uint64_t, uint64_t>> allocations;    // site, address
  std::vector<std::vector<uint64_t>> frees;                  // site, address, stack
  std::vector<uint64_t> unmatched;
  int clocks = 0;

  explicit Trace(const std::string& path) {
    std::istringstream in(test::ReadFile(path));
    for (std::string line; std::getline(in, line);) {
      lines.push_back(line);
      std::istringstream fields(line.size() > 2 ? line.substr(2) : "");
      fields >> std::hex;
      uint64_t a = 0, b = 0, c = 0, d = 0, e = 0;
      switch (line.empty() ? '?' : line[0]) {
        case 's':
          strings.push_back(line.substr(2));
          break;
        case 'i':
          fields >> a >> b >> c >> d >> e;
          EXPECT_TRUE(b < strings.size() && c < strings.size() && d < strings.size()) << line;
          instructions.push_back(Frame{strings.at(c), strings.at(d), strings.at(b), e});
          break;
        case 't':
          fields >> a >> b;
          EXPECT_TRUE(a < instructions.size() && b < nodes.size()) << line;
          nodes.emplace_back(a, b);
          break;
        case 'a':
          fields >> a >> b;
          EXPECT_LT(b, nodes.size()) << line;
          sites.push_back(Site{a, b});
          break;
        case '+':
          fields >> a >> b;
          EXPECT_LT(a, sites.size()) << line;
          allocations.emplace_back(a, b);
          break;
        case '-':
          fields >> a >> b >> c;
          EXPECT_LT(a, sites.size()) << line;
          EXPECT_LT(c, nodes.size()) << line;
          frees.push_back({a, b, c});
          break;
        case 'c':
          ++clocks;
          break;
        case '#':
          EXPECT_EQ(0u, line.rfind("#Unmatched free ", 0)) << line;
          unmatched.push_back(std::stoull(line.substr(16), nullptr, 16));
          break;
        case 'v':
          EXPECT_EQ("v 10150 2", line);
          break;
        default:
          ADD_FAILURE() << "unknown record: " << line;
      }
    }
  }

  // The frames of a stack, innermost first.
  std::vector<Frame> Stack(uint64_t node) const {
    std::vector<Frame> frames;
    while (node != 0 && node < nodes.size()) {
      frames.push_back(instructions.at(nodes[node].first));
      node = nodes[node].second;
    }
    return frames;
  }
  std::vector<Frame> StackOfAllocation(size_t i) const {
    return Stack(sites.at(allocations.at(i).first).stack);
  }
};

bool Contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

// Name without parameters, for comparing with plain names.
std::string BareName(const std::string& function) {
  return function.substr(0, function.find('('));
}

class HeapTraceTest : public ::testing::Test {
protected:
  test::TempDir dir;
  std::string path = dir.File("run.trace");
};

// ---- the life of a trace ------------------------------------------------------

TEST_F(HeapTraceTest, EmptyNameTracesNothing) {
  HeapTrace trace{BasicStringSpan<char const>()};
  EXPECT_EQ(nullptr, trace.Handler());
  EXPECT_TRUE(std::filesystem::is_empty(dir.path()));
}

TEST_F(HeapTraceTest, UncreatableFileIsReportedAndNotThrown) {
  const std::string name = dir.File("missing") + "/sub/run.trace";
  testing::internal::CaptureStderr();
  {
    HeapTrace trace(name);
    EXPECT_EQ(nullptr, trace.Handler());
  }
  EXPECT_EQ("Could not create trace file \"" + name + "\"\n",
            testing::internal::GetCapturedStderr());
}

TEST_F(HeapTraceTest, NothingTracedLeavesOnlyTheHeader) {
  test::WriteFile(path, "old contents that must go\n");
  {
    HeapTrace trace(path);
    ASSERT_NE(nullptr, trace.Handler());
  }
  EXPECT_EQ("v 10150 2\n", test::ReadFile(path));
}

TEST_F(HeapTraceTest, NullBlocksAndZeroSizesAreIgnored) {
  {
    HeapTrace trace(path);
    trace.Handler()->OnAllocate(nullptr, 16);
    trace.Handler()->OnAllocate(Address(0x5000), 0);
    trace.Handler()->OnFree(nullptr);
  }
  EXPECT_EQ("v 10150 2\n", test::ReadFile(path));
}

// ---- records ---------------------------------------------------------------------

TEST_F(HeapTraceTest, NumbersAreBareLowerCaseHex) {
  {
    HeapTrace trace(path);
    AllocateLeaky(trace.Handler(), Address(0xff), 4096);
    AllocateOther(trace.Handler(), Address(0x1000), 255);
  }
  const Trace t(path);
  ASSERT_EQ(2u, t.sites.size());
  ASSERT_EQ(2u, t.allocations.size());
  // The first site is numbered 0, written "0".
  EXPECT_NE(t.lines.end(), std::find(t.lines.begin(), t.lines.end(), "+ 0 ff"));
  EXPECT_NE(t.lines.end(), std::find(t.lines.begin(), t.lines.end(), "+ 1 1000"));
  EXPECT_NE(t.lines.end(),
            std::find(t.lines.begin(), t.lines.end(), "a 1000 " + Hex(t.sites[0].stack)));
  EXPECT_NE(t.lines.end(),
            std::find(t.lines.begin(), t.lines.end(), "a ff " + Hex(t.sites[1].stack)));
  // A clock record before each event, in wall-clock microseconds.
  EXPECT_EQ(2, t.clocks);
  for (const std::string& line : t.lines) {
    if (line[0] != 'c') continue;
    const uint64_t micros = std::stoull(line.substr(2), nullptr, 16);
    const auto now = std::chrono::duration_cast<std::chrono::microseconds>(
                         std::chrono::system_clock::now().time_since_epoch())
                         .count();
    EXPECT_NEAR(static_cast<double>(now), static_cast<double>(micros), 60e6);
    EXPECT_EQ(Hex(micros), line.substr(2));
  }
}

TEST_F(HeapTraceTest, RepeatedSizeAndStackShareOneSite) {
  {
    HeapTrace trace(path);
    // One call site each, so that the stacks repeat exactly.
    const uint64_t sizes[] = {64, 64, 65};
    for (uintptr_t i = 0; i < 3; ++i) AllocateLeaky(trace.Handler(), Address(0x100 + i), sizes[i]);
    AllocateOther(trace.Handler(), Address(0x300), 64);  // same size, other stack
  }
  const Trace t(path);
  ASSERT_EQ(3u, t.sites.size());
  ASSERT_EQ(4u, t.allocations.size());
  EXPECT_EQ(0u, t.allocations[0].first);
  EXPECT_EQ(0u, t.allocations[1].first);
  EXPECT_EQ(1u, t.allocations[2].first);
  EXPECT_EQ(2u, t.allocations[3].first);
  EXPECT_EQ(t.sites[0].stack, t.sites[1].stack);
  EXPECT_NE(t.sites[0].stack, t.sites[2].stack);
  // Description records are written once: one "i" per distinct address.
  std::map<std::string, int> described;
  for (const std::string& line : t.lines) {
    if (line[0] == 'i') ++described[line.substr(2, line.find(' ', 2) - 2)];
  }
  for (const auto& [address, count] : described) EXPECT_EQ(1, count) << address;
}

TEST_F(HeapTraceTest, ReleasesMatchLiveBlocksOnly) {
  // (allocate?, address), all from one call site each.
  const std::pair<bool, uintptr_t> steps[] = {
      {true, 0xa0},    {false, 0xa0}, {false, 0xa0},  // no longer live
      {false, 0xbeef},                                // never allocated
      {true, 0xa0},                                   // the address again
      {true, 0xa0},  // still live: taken over by the new allocation
      {false, 0xa0},
  };
  {
    HeapTrace trace(path);
    for (const auto& [allocate, address] : steps) {
      if (allocate) {
        AllocateLeaky(trace.Handler(), Address(address), 10);
      } else {
        Release(trace.Handler(), Address(address));
      }
    }
  }
  const Trace t(path);
  ASSERT_EQ(3u, t.allocations.size());
  ASSERT_EQ(2u, t.frees.size());
  EXPECT_EQ((std::vector<uint64_t>{0xa0, 0xbeef}), t.unmatched);
  EXPECT_EQ(t.allocations[0].first, t.frees[0][0]);
  EXPECT_EQ(0xa0u, t.frees[0][1]);
  EXPECT_EQ(t.allocations[2].first, t.frees[1][0]);
  // The stack of a release is that of the releasing code.
  const auto releaser = t.Stack(t.frees[0][2]);
  ASSERT_FALSE(releaser.empty());
  EXPECT_TRUE(Contains(releaser[0].function, "Release")) << releaser[0].function;
  // Every event has its clock record, the unmatched ones included.
  EXPECT_EQ(7, t.clocks);
}

TEST_F(HeapTraceTest, ALiveAddressAllocatedAgainBelongsToTheNewSite) {
  {
    HeapTrace trace(path);
    const uint64_t sizes[] = {10, 20};
    for (uint64_t size : sizes) AllocateLeaky(trace.Handler(), Address(0xa0), size);
    Release(trace.Handler(), Address(0xa0));
    Release(trace.Handler(), Address(0xa0));
  }
  const Trace t(path);
  ASSERT_EQ(2u, t.sites.size());
  ASSERT_EQ(1u, t.frees.size());
  EXPECT_EQ(1u, t.frees[0][0]);  // the site of the 20-byte allocation
  EXPECT_EQ((std::vector<uint64_t>{0xa0}), t.unmatched);
}

// ---- cleaning stacks ---------------------------------------------------------------

TEST_F(HeapTraceTest, StacksStartAtTheCallerOfTheAllocationMachinery) {
  {
    HeapTrace trace(path);
    AllocateLeaky(trace.Handler(), Address(0x10), 8);
    AllocateThroughOperatorNew(trace.Handler(), Address(0x20));
  }
  const Trace t(path);
  ASSERT_EQ(2u, t.allocations.size());
  const auto direct = t.StackOfAllocation(0);
  ASSERT_GE(direct.size(), 2u);
  EXPECT_TRUE(Contains(direct[0].function, "AllocateLeaky")) << direct[0].function;
  EXPECT_TRUE(Contains(direct[0].file, "heap_trace_test.cpp")) << direct[0].file;
  EXPECT_NE(0u, direct[0].line);
  EXPECT_TRUE(Contains(direct[1].function, "HeapTraceTest")) << direct[1].function;

  const auto placed = t.StackOfAllocation(1);
  ASSERT_GE(placed.size(), 1u);
  EXPECT_TRUE(Contains(placed[0].function, "AllocateThroughOperatorNew")) << placed[0].function;
  EXPECT_EQ(sizeof(Payload), t.sites[t.allocations[1].first].size);
}

TEST_F(HeapTraceTest, StacksEndAtMain) {
  {
    HeapTrace trace(path);
    AllocateLeaky(trace.Handler(), Address(0x10), 8);
  }
  const Trace t(path);
  ASSERT_EQ(1u, t.allocations.size());
  const auto stack = t.StackOfAllocation(0);
  ASSERT_FALSE(stack.empty());
  EXPECT_EQ("main", BareName(stack.back().function));
  for (size_t i = 0; i + 1 < stack.size(); ++i) {
    EXPECT_NE("main", BareName(stack[i].function)) << i;
  }
}

TEST_F(HeapTraceTest, WorkerThreadStacksRunToTheirLastFrame) {
  {
    HeapTrace trace(path);
    MemoryEventHandler* handler = trace.Handler();
    std::thread([handler] { AllocateLeaky(handler, Address(0x10), 8); }).join();
  }
  const Trace t(path);
  ASSERT_EQ(1u, t.allocations.size());
  const auto stack = t.StackOfAllocation(0);
  ASSERT_GE(stack.size(), 2u);
  EXPECT_TRUE(Contains(stack[0].function, "AllocateLeaky"));
  for (const auto& frame : stack) EXPECT_NE("main", BareName(frame.function));
  // The thread's start lies in the system's libraries, not in this program.
  EXPECT_NE(stack[0].module, stack.back().module);
}

TEST_F(HeapTraceTest, RunsOfStdFramesKeepTheirOutermostFrame) {
#ifdef _WIN32
  GTEST_SKIP() << "wine's dbghelp names these functions without their namespace, so none begins "
                  "with \"std::\"";
#endif
  {
    HeapTrace trace(path);
    CallStdRun(trace.Handler(), Address(0x10));
  }
  const Trace t(path);
  ASSERT_EQ(1u, t.allocations.size());
  const auto stack = t.StackOfAllocation(0);
  ASSERT_GE(stack.size(), 2u);
  EXPECT_TRUE(Contains(stack[0].function, "OruTestStdOuter")) << stack[0].function;
  EXPECT_TRUE(Contains(stack[1].function, "CallStdRun")) << stack[1].function;
}

TEST_F(HeapTraceTest, ALoneStdFrameStays) {
#ifdef _WIN32
  GTEST_SKIP() << "wine's dbghelp names these functions without their namespace, so none begins "
                  "with \"std::\"";
#endif
  {
    HeapTrace trace(path);
    std::OruTestStdInner(trace.Handler(), Address(0x10));
  }
  const Trace t(path);
  ASSERT_EQ(1u, t.allocations.size());
  const auto stack = t.StackOfAllocation(0);
  ASSERT_GE(stack.size(), 2u);
  EXPECT_TRUE(Contains(stack[0].function, "OruTestStdInner")) << stack[0].function;
  EXPECT_TRUE(Contains(stack[1].function, "HeapTraceTest")) << stack[1].function;
}

// ---- threads and draining ------------------------------------------------------------

TEST_F(HeapTraceTest, ManyProducersLoseNothingAndDestructionDrains) {
  constexpr int kThreads = 8;
  constexpr uintptr_t kPerThread = 1500;
  {
    HeapTrace trace(path);
    MemoryEventHandler* handler = trace.Handler();
    std::vector<std::thread> threads;
    for (uintptr_t t = 0; t < kThreads; ++t) {
      threads.emplace_back([handler, t] {
        for (uintptr_t i = 0; i < kPerThread; ++i) {
          void* block = Address(((t + 1) << 32) | ((i + 1) << 4));
          AllocateLeaky(handler, block, 16 + (i % 3));
          if (i % 2 == 0) Release(handler, block);
        }
      });
    }
    for (auto& thread : threads) thread.join();
    // Destroyed at once: whatever is still queued must be written.
  }
  const Trace t(path);
  EXPECT_EQ(kThreads * kPerThread, t.allocations.size());
  EXPECT_EQ(kThreads * kPerThread / 2, t.frees.size());
  EXPECT_TRUE(t.unmatched.empty());
  // Sizes 16..18 from one stack per thread entry: few sites, all sizes.
  std::map<uint64_t, int> sizes;
  for (const auto& site : t.sites) ++sizes[site.size];
  EXPECT_EQ(3u, sizes.size());
}

#if !defined(_WIN32)
TEST_F(HeapTraceTest, WriteFailureOnTheWorkerIsReported) {
  // /dev/full opens fine and fails every write.
  testing::internal::CaptureStderr();
  {
    HeapTrace trace("/dev/full");
    ASSERT_NE(nullptr, trace.Handler());
    AllocateLeaky(trace.Handler(), Address(0x10), 8);
  }
  EXPECT_EQ("HeapTrace caught std::exception(\"Could not write the trace file\").\n",
            testing::internal::GetCapturedStderr());
}
#endif

// ---- the live hook -------------------------------------------------------------------

ORU_NOINLINE void* AllocateThroughTheLibrary(uint64_t size) {
  void* block = DoAllocation(size);
  g_sink.fetch_add(1, std::memory_order_relaxed);
  return block;
}

TEST_F(HeapTraceTest, LiveHookTracesTheLibrarysAllocations) {
  if (!IsAllocationEventHookLive()) GTEST_SKIP() << "this build's hook is inert";
  void* kept = nullptr;
  {
    HeapTrace trace(path);
    kept = AllocateThroughTheLibrary(12345);
    void* freed = AllocateThroughTheLibrary(54321);
    DoSizedFree(freed, 54321);
    // The library's own containers allocate through its operator new.
    auto source = InMemoryDataSource::Create(std::string(1000, 'x'), false);
    EXPECT_EQ(1000u, source->GetFileSize());
  }
  // After the trace is gone, nothing reaches it.
  EXPECT_EQ(nullptr, SetAllocationEventHandler(nullptr));
  DoSizedFree(kept, 12345);

  const Trace t(path);
  int mine = 0;
  for (size_t i = 0; i < t.allocations.size(); ++i) {
    const auto stack = t.StackOfAllocation(i);
    ASSERT_FALSE(stack.empty());
    // No stack starts inside the allocation machinery.
    const std::string first = BareName(stack[0].function);
    EXPECT_NE("operator new", first);
    EXPECT_NE("oru::DoAllocation", first);
    EXPECT_EQ(std::string::npos, first.find("OnAllocate")) << first;
    const uint64_t size = t.sites[t.allocations[i].first].size;
    if (size == 12345 || size == 54321) {
      ++mine;
      EXPECT_TRUE(Contains(stack[0].function, "AllocateThroughTheLibrary")) << stack[0].function;
    }
  }
  EXPECT_EQ(2, mine);
  EXPECT_GT(t.allocations.size(), 2u);
  ASSERT_EQ(1u, std::count_if(t.frees.begin(), t.frees.end(),
                              [&](const auto& f) { return t.sites[f[0]].size == 54321; }));
}

// ---- a real reader -------------------------------------------------------------------

TEST_F(HeapTraceTest, HeaptrackPrintReadsTheTrace) {
  if (!test::HaveTool("heaptrack_print")) GTEST_SKIP() << "heaptrack_print is not installed";
  {
    HeapTrace trace(path);
    MemoryEventHandler* handler = trace.Handler();
    for (uintptr_t i = 0; i < 5; ++i) AllocateLeaky(handler, Address(0x1000 + 16 * i), 100);
    for (uintptr_t i = 0; i < 3; ++i) {
      AllocateOther(handler, Address(0x9000 + 16 * i), 1000);
      Release(handler, Address(0x9000 + 16 * i));
    }
    Release(handler, Address(0x77));  // unmatched: a comment line for the reader
  }
  const std::string report = dir.File("report.txt");
  ASSERT_EQ(0, test::Run("heaptrack_print '" + path + "' > '" + report + "' 2>&1"));
  const std::string text = test::ReadFile(report);
  EXPECT_TRUE(Contains(text, "calls to allocation functions: 8 ")) << text;
  EXPECT_TRUE(Contains(text, "temporary memory allocations: 3 ")) << text;
  EXPECT_TRUE(Contains(text, "peak heap memory consumption: 1.50K")) << text;
  EXPECT_TRUE(Contains(text, "total memory leaked: 500B")) << text;
  EXPECT_TRUE(Contains(text,
                       "5 calls to allocation functions with 500B peak consumption from\n"
                       "oru::(anonymous namespace)::AllocateLeaky("))
      << text;
  EXPECT_TRUE(Contains(text,
                       "3 calls to allocation functions with 1000B peak consumption from\n"
                       "oru::(anonymous namespace)::AllocateOther("))
      << text;
  EXPECT_TRUE(Contains(text, "heap_trace_test.cpp:")) << text;
  EXPECT_TRUE(Contains(text, "in oru_tests")) << text;
}

}  // namespace
}  // namespace oru
