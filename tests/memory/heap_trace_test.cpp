// HeapTrace: the records it writes for events fed to its handler, how it
// cleans stacks, its failures, many producers, and that heaptrack_print
// reads what it writes.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <map>
#include <new>
#include <set>
#include <sstream>
#include <thread>

#include "oru/data_source.h"
#include "oru/heap_trace.h"
#include "oru/memory.h"
#include "support/test_util.h"

#if defined(__GNUC__)
#define ORU_NOINLINE __attribute__((noinline))
#else
#define ORU_NOINLINE
#endif

namespace {
// Keeps calls from becoming jumps, so every helper keeps its own frame.
std::atomic<int> g_sink{0};
}  // namespace

// Helpers whose names begin with "std::", for the collapsing of runs of
// standard-library frames. They are local to this file.
namespace std {
namespace {
ORU_NOINLINE void OruTestStdInner(oru::MemoryEventHandler* handler, void* block) {
  handler->OnAllocate(block, 24);
  ++g_sink;
}
ORU_NOINLINE void OruTestStdOuter(oru::MemoryEventHandler* handler, void* block) {
  OruTestStdInner(handler, block);
  ++g_sink;
}
}  // namespace
}  // namespace std

namespace oru {
namespace {
// A placement form of the global operator new: its name is "operator new",
// so the tracer must drop its frame like that of the real one.
struct TraceTag {};
}  // namespace
}  // namespace oru

ORU_NOINLINE void* operator new(std::size_t size, oru::TraceTag, oru::MemoryEventHandler* handler,
                                void* block) {
  handler->OnAllocate(block, size);
  ++g_sink;
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
  ++g_sink;
}

ORU_NOINLINE void AllocateLeaky(MemoryEventHandler* handler, void* block, uint64_t size) {
  handler->OnAllocate(block, size);
  ++g_sink;
}

ORU_NOINLINE void AllocateOther(MemoryEventHandler* handler, void* block, uint64_t size) {
  handler->OnAllocate(block, size);
  ++g_sink;
}

ORU_NOINLINE void Release(MemoryEventHandler* handler, void* block) {
  handler->OnFree(block);
  ++g_sink;
}

ORU_NOINLINE void CallStdRun(MemoryEventHandler* handler, void* block) {
  std::OruTestStdOuter(handler, block);
  ++g_sink;
}

void* Address(uintptr_t value) {
  return reinterpret_cast<void*>(value);
}

// Reads a trace back the way a reader of the format must: every id refers
// to a record written before it, numbered in order of appearance.
struct Trace {
  struct Frame {
    std::string function, file, module;
    uint64_t line = 0;
  };
  struct Site {
    uint64_t size, stack;
  };
  std::vector<std::string> strings{""};                      // from 1
  std::vector<Frame> instructions{Frame{}};                  // from 1
  std::vector<std::pair<uint64_t, uint64_t>> nodes{{0, 0}};  // from 1: instruction, parent
  std::vector<Site> sites;                                   // from 0
  std::vector<std::pair<uint64_t, uint64_t>> allocations;    // site, address
  std::vector<std::vector<uint64_t>> frees;                  // site, address, stack
  std::vector<uint64_t> unmatched, clocks;

  explicit Trace(const std::string& path) {
    std::istringstream in(test::ReadFile(path));
    std::set<uint64_t> described;
    for (std::string line; std::getline(in, line);) {
      const char kind = line.empty() ? '?' : line[0];
      // The numbers of the record, written back as they must be written:
      // bare lower-case hex.
      std::istringstream fields(line.size() > 2 ? line.substr(2) : "");
      std::vector<uint64_t> f;
      std::ostringstream again;
      again << kind << std::hex;
      for (uint64_t number; fields >> std::hex >> number;) {
        f.push_back(number);
        again << ' ' << number;
      }
      if (kind != 's' && kind != '#') EXPECT_EQ(again.str(), line);
      f.resize(5);
      if (kind == 's') {
        strings.push_back(line.substr(2));
      } else if (kind == 'i') {  // address, module, function, file, line: once per address
        EXPECT_TRUE(described.insert(f[0]).second) << line;
        EXPECT_TRUE(f[1] < strings.size() && f[2] < strings.size() && f[3] < strings.size())
            << line;
        instructions.push_back(Frame{strings.at(f[2]), strings.at(f[3]), strings.at(f[1]), f[4]});
      } else if (kind == 't') {
        EXPECT_TRUE(f[0] < instructions.size() && f[1] < nodes.size()) << line;
        nodes.emplace_back(f[0], f[1]);
      } else if (kind == 'a') {
        EXPECT_LT(f[1], nodes.size()) << line;
        sites.push_back(Site{f[0], f[1]});
      } else if (kind == '+') {
        EXPECT_LT(f[0], sites.size()) << line;
        allocations.emplace_back(f[0], f[1]);
      } else if (kind == '-') {
        EXPECT_TRUE(f[0] < sites.size() && f[2] < nodes.size()) << line;
        frees.push_back({f[0], f[1], f[2]});
      } else if (kind == 'c') {
        clocks.push_back(f[0]);
      } else if (line.rfind("#Unmatched free ", 0) == 0) {
        unmatched.push_back(std::stoull(line.substr(16), nullptr, 16));
      } else {
        EXPECT_EQ("v 10150 2", line) << "neither the header nor a known record";
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

// ---- the life of a trace and its records --------------------------------------------

TEST_F(HeapTraceTest, FailuresAreReportedAndTracesWithoutEventsHoldTheHeaderAlone) {
  // An empty name traces nothing.
  EXPECT_EQ(nullptr, HeapTrace(BasicStringSpan<char const>()).Handler());
  EXPECT_TRUE(std::filesystem::is_empty(dir.path()));

  const std::string uncreatable = dir.File("missing") + "/sub/run.trace";
  testing::internal::CaptureStderr();
  {
    HeapTrace trace(uncreatable);  // reported, not thrown
    EXPECT_EQ(nullptr, trace.Handler());
  }
  EXPECT_EQ("Could not create trace file \"" + uncreatable + "\"\n",
            testing::internal::GetCapturedStderr());
#if !defined(_WIN32)
  // /dev/full opens fine and fails every write: the worker reports that.
  testing::internal::CaptureStderr();
  {
    HeapTrace trace("/dev/full");
    ASSERT_NE(nullptr, trace.Handler());
    AllocateLeaky(trace.Handler(), Address(0x10), 8);
  }
  EXPECT_EQ("HeapTrace caught std::exception(\"Could not write the trace file\").\n",
            testing::internal::GetCapturedStderr());
#endif

  test::WriteFile(path, "old contents that must go\n");
  {
    HeapTrace trace(path);
    ASSERT_NE(nullptr, trace.Handler());
    // Null blocks and zero sizes are no events.
    trace.Handler()->OnAllocate(nullptr, 16);
    trace.Handler()->OnAllocate(Address(0x5000), 0);
    trace.Handler()->OnFree(nullptr);
  }
  EXPECT_EQ("v 10150 2\n", test::ReadFile(path));
}

TEST_F(HeapTraceTest, RecordsOfAllocationsAndReleases) {
  // (size, address), a size of 0 releasing. Each kind of event comes from
  // one call site, so that the stacks repeat exactly.
  const std::pair<uint64_t, uintptr_t> steps[] = {
      {4096, 0xff}, {4096, 0xa0}, {255, 0x1000},  // sites 0, 0 and 1
      {0, 0xa0},    {0, 0xa0},    {0, 0xbeef},    // no longer live; never allocated
      {10, 0xa0},   {20, 0xa0},   {0, 0xa0},      // a live address taken over by site 3
  };
  {
    HeapTrace trace(path);
    for (const auto& [size, address] : steps) {
      size != 0 ? AllocateLeaky(trace.Handler(), Address(address), size)
                : Release(trace.Handler(), Address(address));
    }
    AllocateOther(trace.Handler(), Address(0x300), 4096);  // same size, other stack: site 4
  }
  const Trace t(path);
  ASSERT_EQ(5u, t.sites.size());
  EXPECT_EQ((std::vector<std::pair<uint64_t, uint64_t>>{
                {0, 0xff}, {0, 0xa0}, {1, 0x1000}, {2, 0xa0}, {3, 0xa0}, {4, 0x300}}),
            t.allocations);
  for (size_t i = 1; i < 4; ++i) EXPECT_EQ(t.sites[0].stack, t.sites[i].stack) << i;
  EXPECT_NE(t.sites[0].stack, t.sites[4].stack);
  // A release of a live block names the site of its allocation and the
  // stack of the releasing code; the others become comments.
  ASSERT_EQ(2u, t.frees.size());
  EXPECT_EQ((std::vector<uint64_t>{0, 0xa0, t.frees[0][2]}), t.frees[0]);
  EXPECT_EQ((std::vector<uint64_t>{3, 0xa0, t.frees[0][2]}), t.frees[1]);
  EXPECT_EQ((std::vector<uint64_t>{0xa0, 0xbeef}), t.unmatched);
  EXPECT_TRUE(Contains(t.Stack(t.frees[0][2]).at(0).function, "Release"));
  // A clock record before every event, the comments included, in
  // wall-clock microseconds.
  EXPECT_EQ(10u, t.clocks.size());
  const double now =
      std::chrono::duration<double, std::micro>(std::chrono::system_clock::now().time_since_epoch())
          .count();
  for (uint64_t clock : t.clocks) EXPECT_NEAR(now, static_cast<double>(clock), 60e6);
}

// ---- cleaning stacks ---------------------------------------------------------------

TEST_F(HeapTraceTest, StacksRunFromTheCallerOfTheMachineryToMainOrTheThreadStart) {
  {
    HeapTrace trace(path);
    MemoryEventHandler* handler = trace.Handler();
    AllocateLeaky(handler, Address(0x10), 8);
    AllocateThroughOperatorNew(handler, Address(0x20));
    std::thread([handler] { AllocateLeaky(handler, Address(0x30), 8); }).join();
    CallStdRun(handler, Address(0x40));
    std::OruTestStdInner(handler, Address(0x50));
  }
  const Trace t(path);
  ASSERT_EQ(5u, t.allocations.size());
  const auto direct = t.StackOfAllocation(0);
  ASSERT_GE(direct.size(), 2u);
  EXPECT_TRUE(Contains(direct[0].function, "AllocateLeaky")) << direct[0].function;
  EXPECT_TRUE(Contains(direct[0].file, "heap_trace_test.cpp")) << direct[0].file;
  EXPECT_NE(0u, direct[0].line);
  EXPECT_TRUE(Contains(direct[1].function, "HeapTraceTest")) << direct[1].function;
  // It ends at main, the only frame of that name.
  EXPECT_EQ("main", BareName(direct.back().function));
  for (size_t i = 0; i + 1 < direct.size(); ++i) EXPECT_NE("main", BareName(direct[i].function));

  EXPECT_TRUE(Contains(t.StackOfAllocation(1).at(0).function, "AllocateThroughOperatorNew"));
  EXPECT_EQ(sizeof(Payload), t.sites[t.allocations[1].first].size);

  // A worker thread's stack runs to its last frame, which lies in the
  // system's libraries, not in this program.
  const auto worker = t.StackOfAllocation(2);
  ASSERT_GE(worker.size(), 2u);
  EXPECT_TRUE(Contains(worker[0].function, "AllocateLeaky"));
  for (const auto& frame : worker) EXPECT_NE("main", BareName(frame.function));
  EXPECT_NE(worker[0].module, worker.back().module);

  // A run of standard-library frames keeps its outermost frame, and a lone
  // one stays: the two innermost frames left of each stack. (wine's dbghelp
  // names these functions without their namespace, so none begins with
  // "std::" there.)
#ifndef _WIN32
  const std::pair<const char*, const char*> expected[] = {{"OruTestStdOuter", "CallStdRun"},
                                                          {"OruTestStdInner", "HeapTraceTest"}};
  for (size_t i = 0; i < 2; ++i) {
    const auto stack = t.StackOfAllocation(3 + i);
    ASSERT_GE(stack.size(), 2u);
    EXPECT_TRUE(Contains(stack[0].function, expected[i].first)) << stack[0].function;
    EXPECT_TRUE(Contains(stack[1].function, expected[i].second)) << stack[1].function;
  }
#endif
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

// ---- the live hook -------------------------------------------------------------------

ORU_NOINLINE void* AllocateThroughTheLibrary(uint64_t size) {
  void* block = DoAllocation(size);
  ++g_sink;
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
    for (const char* machinery : {"operator new", "oru::DoAllocation", "OnAllocate"})
      EXPECT_FALSE(Contains(first, machinery)) << first;
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
  for (const char* part : {"calls to allocation functions: 8 ", "temporary memory allocations: 3 ",
                           "peak heap memory consumption: 1.50K", "total memory leaked: 500B",
                           "5 calls to allocation functions with 500B peak consumption from\n"
                           "oru::(anonymous namespace)::AllocateLeaky(",
                           "3 calls to allocation functions with 1000B peak consumption from\n"
                           "oru::(anonymous namespace)::AllocateOther(",
                           "heap_trace_test.cpp:", "in oru_tests"}) {
    EXPECT_TRUE(Contains(text, part)) << part << "\nnot in:\n" << text;
  }
}

}  // namespace
}  // namespace oru
