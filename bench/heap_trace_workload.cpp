// The heap tracer's benchmarks, as a program of its own rather than a Google
// Benchmark suite: the peer is the heaptrack profiler, which measures a whole
// process (it preloads its own malloc and free), so the same workload has to
// run as a plain program under it. scripts/bench-heap-trace runs the modes,
// interleaved, and prints the table.
//
//   heap_trace_workload plain   [--allocations N]
//   heap_trace_workload oru     [--allocations N] [--file FILE] [--keep]
//   heap_trace_workload writer  [--allocations N] [--threads T] [--file FILE] [--keep]
//   heap_trace_workload capture [--allocations N]
//
// The workload: N (default 1,000,000) blocks allocated with DoAllocation and
// released with DoSizedFree, in rounds of 100 allocations followed by their
// 100 releases, so that a few blocks are live at a time as in a real
// program. Sizes cycle through eight values from 24 to 256 bytes. The
// allocations come from four distinct functions and the releases from two,
// all called from a loop nested ten calls deep, so that they run 18 frames
// deep counting main and the C runtime's start-up frames, and a stack
// capture walks about as far as it would in an application. Only the loop
// is timed (steady_clock), in two parts: the allocation half and the release
// half of each round.
//
// plain   The workload, untraced. Run it under `heaptrack` for the peer:
//         heaptrack's preloaded malloc and free see every block, since
//         DoAllocation and DoSizedFree call malloc and free.
// oru     The workload with a HeapTrace active around the loop (needs a build
//         with ORU_LIVE_ALLOCATION_HOOK=ON, and refuses otherwise). The loop
//         time is what the allocating thread pays: capture, clock and queue
//         append for each allocation and each release. The time from the end
//         of the loop until the HeapTrace's destructor returns (the worker
//         draining its queue) is reported on its own, as is the worker's CPU
//         time. Afterwards the trace file is checked to hold exactly N
//         allocation and N release records and the names of the four
//         allocating functions.
// writer  Throughput of the tracer's worker, in any build: the same loop
//         feeds events straight to HeapTrace::Handler() (OnAllocate and
//         OnFree with made-up block addresses; no memory is allocated), from
//         T threads (default 1). Reported: events per second from the first
//         event until the destructor has written the last one, and events
//         per second of the worker's CPU time, which is what the writer can
//         take when it is the bottleneck. The file is checked as for "oru".
// capture The pieces of a traced event on the allocating thread, each timed
//         alone in the same loop (less the loop's own time): backtrace() as
//         deep as the tracer's capture of a workload allocation (22 frames)
//         and ten frames deeper, hence the cost of one frame;
//         StackWalker::CurrentCallstack() at the same depth; one
//         steady_clock reading. What an event costs beyond these is the
//         hook, the lock and the queue.
//
// Output: readable lines, then one line "heap_trace_workload: key=value ..."
// (times in ns) for scripts/bench-heap-trace. Exit status 0 on success, 1
// when a check of the trace file fails, 2 for a usage error or a mode this
// build cannot run.
//
// POSIX only (clock_gettime's CPU clocks, like the profiler it is compared
// with).
#include <execinfo.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "oru/heap_trace.h"
#include "oru/memory.h"
#include "oru/stack_walker.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kBatch = 100;  // allocations per round, then their releases
constexpr uint64_t kSizes[8] = {24, 32, 48, 64, 96, 128, 160, 256};
// The names of the allocating functions, looked for in the trace's strings.
constexpr const char* kSiteNames[4] = {"AllocateNode", "AllocateString", "AllocateBuffer",
                                       "AllocateTable"};

// Keeps the compiler from turning a call into a jump (which would take the
// caller's frame off the stack) and from moving work across it.
inline void Barrier() {
  asm volatile("" ::: "memory");
}

int64_t Nanoseconds(Clock::duration d) {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(d).count();
}

int64_t CpuNanoseconds(clockid_t clock) {
  timespec ts{};
  clock_gettime(clock, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

// Times of one run of the loop.
struct LoopTimes {
  int64_t rounds = 0;
  int64_t allocateNs = 0;  // sum of the allocation halves of the rounds
  int64_t releaseNs = 0;   // sum of the release halves
  int64_t loopNs = 0;      // the whole loop
  int64_t loopCpuNs = 0;   // CPU time of the thread over the whole loop
};

// The workload's allocation path: the library's.
struct LibraryOps {
  static void* Allocate(int /*slot*/, uint64_t size) { return oru::DoAllocation(size); }
  static void Release(void* block, uint64_t size) { oru::DoSizedFree(block, size); }
};

// Writer mode's path: events told straight to a tracer's handler, for blocks
// that do not exist. Each thread has its own range of addresses, reused
// round after round the way malloc reuses freed blocks.
struct HandlerOps {
  static inline oru::MemoryEventHandler* handler = nullptr;
  static inline thread_local uintptr_t base = 0;

  static void* Allocate(int slot, uint64_t size) {
    void* block = reinterpret_cast<void*>(base + static_cast<uintptr_t>(slot) * 256);
    handler->OnAllocate(block, size);
    return block;
  }
  static void Release(void* block, uint64_t /*size*/) { handler->OnFree(block); }
};

// Capture mode's paths: the pieces of a traced event, each alone, made at
// the places of the workload's allocations and releases (one piece per
// allocation and one per release, as the tracer does).
inline void* const kNoBlock = reinterpret_cast<void*>(uintptr_t{16});

struct BacktraceOps {  // backtrace() into a buffer of the tracer's size
  static inline uint64_t frames = 0;
  [[gnu::noinline]] static void Capture() {
    void* buffer[1024];
    frames += static_cast<uint64_t>(backtrace(buffer, 1024));
    Barrier();
  }
  static void* Allocate(int, uint64_t) {
    Capture();
    return kNoBlock;
  }
  static void Release(void*, uint64_t) { Capture(); }
};

struct WalkerOps {  // StackWalker::CurrentCallstack(): backtrace() and the vector it fills
  static inline oru::StackWalker* walker = nullptr;
  static inline uint64_t frames = 0;
  static void Capture() { frames += walker->CurrentCallstack().size(); }
  static void* Allocate(int, uint64_t) {
    Capture();
    return kNoBlock;
  }
  static void Release(void*, uint64_t) { Capture(); }
};

struct ClockOps {  // one reading of the monotonic clock
  static inline int64_t sum = 0;
  static void Read() { sum += Clock::now().time_since_epoch().count(); }
  static void* Allocate(int, uint64_t) {
    Read();
    return kNoBlock;
  }
  static void Release(void*, uint64_t) { Read(); }
};

// The allocating functions: four places in a program that ask for memory.
// Each counts its calls in its own slot, so that the compiler cannot fold
// them into one function (the trace must show four distinct callers).
uint64_t s_siteCalls[6];

template <class Ops>
[[gnu::noinline]] void* AllocateNode(int slot, uint64_t size) {
  void* block = Ops::Allocate(slot, size);
  ++s_siteCalls[0];
  Barrier();
  return block;
}
template <class Ops>
[[gnu::noinline]] void* AllocateString(int slot, uint64_t size) {
  void* block = Ops::Allocate(slot, size);
  ++s_siteCalls[1];
  Barrier();
  return block;
}
template <class Ops>
[[gnu::noinline]] void* AllocateBuffer(int slot, uint64_t size) {
  void* block = Ops::Allocate(slot, size);
  ++s_siteCalls[2];
  Barrier();
  return block;
}
template <class Ops>
[[gnu::noinline]] void* AllocateTable(int slot, uint64_t size) {
  void* block = Ops::Allocate(slot, size);
  ++s_siteCalls[3];
  Barrier();
  return block;
}

// The releasing functions: two places that give memory back.
template <class Ops>
[[gnu::noinline]] void ReleaseFirstHalf(void* block, uint64_t size) {
  Ops::Release(block, size);
  ++s_siteCalls[4];
  Barrier();
}
template <class Ops>
[[gnu::noinline]] void ReleaseSecondHalf(void* block, uint64_t size) {
  Ops::Release(block, size);
  ++s_siteCalls[5];
  Barrier();
}

template <class Ops>
[[gnu::noinline]] void Loop(LoopTimes& times) {
  void* blocks[kBatch];
  uint64_t sizes[kBatch];
  const int64_t cpuStart = CpuNanoseconds(CLOCK_THREAD_CPUTIME_ID);
  const Clock::time_point start = Clock::now();
  for (int64_t round = 0; round < times.rounds; ++round) {
    const Clock::time_point t0 = Clock::now();
    for (int i = 0; i < kBatch; ++i) {
      const uint64_t size = kSizes[static_cast<size_t>(i * 5 + round) % 8];
      sizes[i] = size;
      switch (i & 3) {
        case 0:
          blocks[i] = AllocateNode<Ops>(i, size);
          break;
        case 1:
          blocks[i] = AllocateString<Ops>(i, size);
          break;
        case 2:
          blocks[i] = AllocateBuffer<Ops>(i, size);
          break;
        default:
          blocks[i] = AllocateTable<Ops>(i, size);
          break;
      }
    }
    const Clock::time_point t1 = Clock::now();
    for (int i = 0; i < kBatch / 2; ++i) ReleaseFirstHalf<Ops>(blocks[i], sizes[i]);
    for (int i = kBatch / 2; i < kBatch; ++i) ReleaseSecondHalf<Ops>(blocks[i], sizes[i]);
    const Clock::time_point t2 = Clock::now();
    times.allocateNs += Nanoseconds(t1 - t0);
    times.releaseNs += Nanoseconds(t2 - t1);
  }
  times.loopNs = Nanoseconds(Clock::now() - start);
  times.loopCpuNs = CpuNanoseconds(CLOCK_THREAD_CPUTIME_ID) - cpuStart;
}

// Ten nested calls between the caller and the loop, each its own function.
template <class Ops, int Depth>
[[gnu::noinline]] void Descend(LoopTimes& times) {
  if constexpr (Depth == 0) {
    Loop<Ops>(times);
  } else {
    Descend<Ops, Depth - 1>(times);
  }
  Barrier();
}

// The loop nested kDepth calls below the caller; 10 by default.
template <class Ops, int kDepth = 10>
[[gnu::noinline]] void RunLoop(LoopTimes& times) {
  Descend<Ops, kDepth - 1>(times);
  Barrier();
}

// ---- checking the trace file ------------------------------------------------

struct TraceCounts {
  uint64_t allocations = 0;  // "+" records
  uint64_t releases = 0;     // "-" records
  uint64_t unmatched = 0;    // "#Unmatched free" comments
  uint64_t bytes = 0;
  bool header = false;
  bool sitesNamed[4] = {false, false, false, false};
};

TraceCounts CountTrace(const std::string& fileName) {
  TraceCounts counts;
  std::ifstream in(fileName, std::ios::binary);
  std::string line;
  bool first = true;
  while (std::getline(in, line)) {
    counts.bytes += line.size() + 1;
    if (first) {
      counts.header = line == "v 10150 2";
      first = false;
    }
    if (line.size() < 2) continue;
    if (line[0] == '+' && line[1] == ' ') {
      ++counts.allocations;
    } else if (line[0] == '-' && line[1] == ' ') {
      ++counts.releases;
    } else if (line.rfind("#Unmatched free ", 0) == 0) {
      ++counts.unmatched;
    } else if (line[0] == 's' && line[1] == ' ') {
      for (int i = 0; i < 4; ++i) {
        if (line.find(kSiteNames[i]) != std::string::npos) counts.sitesNamed[i] = true;
      }
    }
  }
  return counts;
}

// Whether the trace holds exactly the expected events; says what is wrong.
bool CheckTrace(const TraceCounts& counts, uint64_t expected) {
  bool ok = true;
  if (!counts.header) {
    std::fprintf(stderr, "check failed: the trace does not start with \"v 10150 2\"\n");
    ok = false;
  }
  if (counts.allocations != expected || counts.releases != expected || counts.unmatched != 0) {
    std::fprintf(stderr,
                 "check failed: expected %llu allocation and %llu release records, found %llu "
                 "and %llu (and %llu unmatched releases)\n",
                 static_cast<unsigned long long>(expected),
                 static_cast<unsigned long long>(expected),
                 static_cast<unsigned long long>(counts.allocations),
                 static_cast<unsigned long long>(counts.releases),
                 static_cast<unsigned long long>(counts.unmatched));
    ok = false;
  }
  for (int i = 0; i < 4; ++i) {
    if (!counts.sitesNamed[i]) {
      std::fprintf(stderr, "check failed: no string record names %s\n", kSiteNames[i]);
      ok = false;
    }
  }
  return ok;
}

// ---- the modes ----------------------------------------------------------------

struct Options {
  std::string mode;
  uint64_t allocations = 1000000;
  int threads = 1;
  std::string file;
  bool keep = false;
};

std::string DefaultTraceFile() {
  return (std::filesystem::temp_directory_path() /
          ("heap_trace_workload-" + std::to_string(getpid()) + ".heaptrace"))
      .string();
}

void PrintLoop(const char* mode, const LoopTimes& t, uint64_t allocations) {
  const double n = static_cast<double>(allocations);
  std::printf("%s: %llu allocations and releases in %.1f ms (thread CPU %.1f ms)\n", mode,
              static_cast<unsigned long long>(allocations), static_cast<double>(t.loopNs) / 1e6,
              static_cast<double>(t.loopCpuNs) / 1e6);
  std::printf("  %.1f ns per allocation + release pair (allocation %.1f ns, release %.1f ns)\n",
              static_cast<double>(t.loopNs) / n, static_cast<double>(t.allocateNs) / n,
              static_cast<double>(t.releaseNs) / n);
}

void PrintMachineLine(const Options& o, const LoopTimes& t, int64_t drainNs, int64_t workerCpuNs,
                      int64_t totalNs) {
  std::printf(
      "heap_trace_workload: mode=%s allocations=%llu threads=%d loop_ns=%lld allocate_ns=%lld "
      "release_ns=%lld loop_cpu_ns=%lld drain_ns=%lld worker_cpu_ns=%lld total_ns=%lld\n",
      o.mode.c_str(), static_cast<unsigned long long>(o.allocations), o.threads,
      static_cast<long long>(t.loopNs), static_cast<long long>(t.allocateNs),
      static_cast<long long>(t.releaseNs), static_cast<long long>(t.loopCpuNs),
      static_cast<long long>(drainNs), static_cast<long long>(workerCpuNs),
      static_cast<long long>(totalNs));
}

[[gnu::noinline]] int RunPlain(const Options& o) {
  LoopTimes times;
  times.rounds = static_cast<int64_t>(o.allocations / kBatch);
  const uint64_t before = oru::counters::CallsToNew();
  RunLoop<LibraryOps>(times);
  if (oru::counters::CallsToNew() - before < o.allocations) {
    std::fprintf(stderr, "check failed: the allocations did not go through DoAllocation\n");
    return 1;
  }
  PrintLoop("plain", times, o.allocations);
  PrintMachineLine(o, times, 0, 0, times.loopNs);
  return 0;
}

int Finish(const Options& o, const std::string& file, uint64_t expected) {
  const TraceCounts counts = CountTrace(file);
  std::printf("  trace file: %.1f MB, %llu allocation and %llu release records\n",
              static_cast<double>(counts.bytes) / 1e6,
              static_cast<unsigned long long>(counts.allocations),
              static_cast<unsigned long long>(counts.releases));
  const bool ok = CheckTrace(counts, expected);
  if (o.keep) {
    std::printf("  kept %s\n", file.c_str());
  } else {
    std::error_code ignored;
    std::filesystem::remove(file, ignored);
  }
  return ok ? 0 : 1;
}

[[gnu::noinline]] int RunTraced(const Options& o) {
  if (!oru::IsAllocationEventHookLive()) {
    std::fprintf(stderr,
                 "oru mode: the allocation event hook is inert in this build, so a HeapTrace "
                 "would see none of the workload's allocations. Configure with "
                 "ORU_LIVE_ALLOCATION_HOOK=ON (the bench-hook preset).\n");
    return 2;
  }
  const std::string file = o.file.empty() ? DefaultTraceFile() : o.file;
  LoopTimes times;
  times.rounds = static_cast<int64_t>(o.allocations / kBatch);

  const int64_t processCpuStart = CpuNanoseconds(CLOCK_PROCESS_CPUTIME_ID);
  const int64_t mainCpuStart = CpuNanoseconds(CLOCK_THREAD_CPUTIME_ID);
  auto trace = std::make_unique<oru::HeapTrace>(file);
  if (trace->Handler() == nullptr) {
    std::fprintf(stderr, "oru mode: could not start tracing into %s\n", file.c_str());
    return 2;
  }
  RunLoop<LibraryOps>(times);
  const Clock::time_point loopEnd = Clock::now();
  trace.reset();
  const int64_t drainNs = Nanoseconds(Clock::now() - loopEnd);
  const int64_t workerCpuNs = (CpuNanoseconds(CLOCK_PROCESS_CPUTIME_ID) - processCpuStart) -
                              (CpuNanoseconds(CLOCK_THREAD_CPUTIME_ID) - mainCpuStart);

  PrintLoop("oru", times, o.allocations);
  std::printf(
      "  then %.1f ms until the destructor had written the last event; worker CPU %.1f ms\n",
      static_cast<double>(drainNs) / 1e6, static_cast<double>(workerCpuNs) / 1e6);
  PrintMachineLine(o, times, drainNs, workerCpuNs, times.loopNs + drainNs);
  return Finish(o, file, o.allocations);
}

[[gnu::noinline]] void Produce(int thread, int64_t rounds, LoopTimes* times) {
  HandlerOps::base = (static_cast<uintptr_t>(thread) + 1) << 32;
  times->rounds = rounds;
  RunLoop<HandlerOps>(*times);
}

int RunWriter(const Options& o) {
  const std::string file = o.file.empty() ? DefaultTraceFile() : o.file;
  const int64_t roundsPerThread = static_cast<int64_t>(o.allocations / kBatch) / o.threads;
  const uint64_t allocations = static_cast<uint64_t>(roundsPerThread * o.threads) * kBatch;
  std::vector<LoopTimes> times(static_cast<size_t>(o.threads));

  const int64_t processCpuStart = CpuNanoseconds(CLOCK_PROCESS_CPUTIME_ID);
  const int64_t mainCpuStart = CpuNanoseconds(CLOCK_THREAD_CPUTIME_ID);
  auto trace = std::make_unique<oru::HeapTrace>(file);
  HandlerOps::handler = trace->Handler();
  if (HandlerOps::handler == nullptr) {
    std::fprintf(stderr, "writer mode: could not start tracing into %s\n", file.c_str());
    return 2;
  }
  const Clock::time_point start = Clock::now();
  if (o.threads == 1) {
    Produce(0, roundsPerThread, &times[0]);
  } else {
    std::vector<std::thread> producers;
    for (int t = 0; t < o.threads; ++t)
      producers.emplace_back(Produce, t, roundsPerThread, &times[static_cast<size_t>(t)]);
    for (std::thread& p : producers) p.join();
  }
  const Clock::time_point produced = Clock::now();
  HandlerOps::handler = nullptr;
  trace.reset();
  const Clock::time_point end = Clock::now();
  int64_t producerCpuNs = 0;
  for (const LoopTimes& t : times) producerCpuNs += t.loopCpuNs;
  int64_t workerCpuNs = (CpuNanoseconds(CLOCK_PROCESS_CPUTIME_ID) - processCpuStart) -
                        (CpuNanoseconds(CLOCK_THREAD_CPUTIME_ID) - mainCpuStart);
  if (o.threads > 1) workerCpuNs -= producerCpuNs;  // the main thread's own time is already out

  const double events = 2.0 * static_cast<double>(allocations);
  const int64_t totalNs = Nanoseconds(end - start);
  const int64_t drainNs = Nanoseconds(end - produced);
  std::printf("writer: %.0f events (%llu allocations and their releases) from %d thread(s)\n",
              events, static_cast<unsigned long long>(allocations), o.threads);
  std::printf("  fed in %.1f ms, written %.1f ms after the last one: %.2f M events/s overall\n",
              static_cast<double>(Nanoseconds(produced - start)) / 1e6,
              static_cast<double>(drainNs) / 1e6, events / static_cast<double>(totalNs) * 1e3);
  std::printf("  worker CPU %.1f ms: %.0f ns per event, %.2f M events per worker CPU second\n",
              static_cast<double>(workerCpuNs) / 1e6, static_cast<double>(workerCpuNs) / events,
              events / static_cast<double>(workerCpuNs) * 1e3);
  std::printf("  producers' CPU %.1f ms: %.0f ns per event\n",
              static_cast<double>(producerCpuNs) / 1e6,
              static_cast<double>(producerCpuNs) / events);
  Options shown = o;
  shown.allocations = allocations;
  LoopTimes sum;
  for (const LoopTimes& t : times) {
    sum.loopNs = std::max(sum.loopNs, t.loopNs);
    sum.allocateNs += t.allocateNs;
    sum.releaseNs += t.releaseNs;
    sum.loopCpuNs += t.loopCpuNs;
  }
  PrintMachineLine(shown, sum, drainNs, workerCpuNs, totalNs);
  return Finish(o, file, allocations);
}

// Time per event of `Ops` in the workload's loop, less the loop's own time
// (measured with no operation), wall and CPU.
struct PieceTime {
  double wallNs;
  double cpuNs;
};

struct NoOps {
  static void* Allocate(int, uint64_t) { return kNoBlock; }
  static void Release(void*, uint64_t) {}
};

template <class Ops, int kDepth = 10>
[[gnu::noinline]] PieceTime TimePiece(int64_t rounds, const LoopTimes& empty) {
  LoopTimes times;
  times.rounds = rounds;
  RunLoop<Ops, kDepth>(times);
  const double events = 2.0 * static_cast<double>(rounds) * kBatch;
  return {static_cast<double>(times.loopNs - empty.loopNs) / events,
          static_cast<double>(times.loopCpuNs - empty.loopCpuNs) / events};
}

[[gnu::noinline]] int RunCapture(const Options& o) {
  const int64_t rounds = static_cast<int64_t>(o.allocations / kBatch);
  const double events = 2.0 * static_cast<double>(o.allocations);
  LoopTimes empty;
  empty.rounds = rounds;
  RunLoop<NoOps>(empty);

  const PieceTime clock = TimePiece<ClockOps>(rounds, empty);
  BacktraceOps::frames = 0;
  // Deep enough that backtrace() walks as many frames (22) as the tracer's
  // capture of a workload allocation, which has three more frames above the
  // allocating function (DoAllocation, the hook's notification and the
  // handler) where this has one; then ten frames more, for the cost of one
  // frame.
  const PieceTime shallow = TimePiece<BacktraceOps, 12>(rounds, empty);
  const double shallowFrames = static_cast<double>(BacktraceOps::frames) / events;
  BacktraceOps::frames = 0;
  const PieceTime deep = TimePiece<BacktraceOps, 22>(rounds, empty);
  const double deepFrames = static_cast<double>(BacktraceOps::frames) / events;
  oru::StackWalker walker;
  WalkerOps::walker = &walker;
  const PieceTime walk = TimePiece<WalkerOps, 12>(rounds, empty);
  const double walkFrames = static_cast<double>(WalkerOps::frames) / events;

  const double perFrameWall = (deep.wallNs - shallow.wallNs) / (deepFrames - shallowFrames);
  const double perFrameCpu = (deep.cpuNs - shallow.cpuNs) / (deepFrames - shallowFrames);
  std::printf("capture: per event, %.0f events each, wall (thread CPU) ns\n", events);
  std::printf("  steady_clock::now()                      %8.1f (%.1f)\n", clock.wallNs,
              clock.cpuNs);
  std::printf("  backtrace(), %4.1f frames                 %8.1f (%.1f)\n", shallowFrames,
              shallow.wallNs, shallow.cpuNs);
  std::printf("  backtrace(), %4.1f frames                 %8.1f (%.1f)\n", deepFrames, deep.wallNs,
              deep.cpuNs);
  std::printf("  backtrace() per frame                    %8.1f (%.1f)\n", perFrameWall,
              perFrameCpu);
  std::printf("  StackWalker::CurrentCallstack(), %4.1f f. %8.1f (%.1f)\n", walkFrames, walk.wallNs,
              walk.cpuNs);
  std::printf(
      "heap_trace_workload: mode=capture allocations=%llu clock_ns=%.1f clock_cpu_ns=%.1f "
      "backtrace_frames=%.1f backtrace_ns=%.1f backtrace_cpu_ns=%.1f deep_frames=%.1f "
      "deep_backtrace_ns=%.1f deep_backtrace_cpu_ns=%.1f frame_ns=%.2f frame_cpu_ns=%.2f "
      "walker_frames=%.1f walker_ns=%.1f walker_cpu_ns=%.1f\n",
      static_cast<unsigned long long>(o.allocations), clock.wallNs, clock.cpuNs, shallowFrames,
      shallow.wallNs, shallow.cpuNs, deepFrames, deep.wallNs, deep.cpuNs, perFrameWall, perFrameCpu,
      walkFrames, walk.wallNs, walk.cpuNs);
  return 0;
}

int Usage() {
  std::fprintf(
      stderr,
      "usage: heap_trace_workload plain|oru|writer|capture [--allocations N] [--threads T] "
      "[--file FILE] [--keep]\n");
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) return Usage();
  Options o;
  o.mode = argv[1];
  for (int i = 2; i < argc; ++i) {
    const std::string_view arg = argv[i];
    const bool hasValue = i + 1 < argc;
    if (arg == "--allocations" && hasValue) {
      o.allocations = std::strtoull(argv[++i], nullptr, 10);
    } else if (arg == "--threads" && hasValue) {
      o.threads = std::atoi(argv[++i]);
    } else if (arg == "--file" && hasValue) {
      o.file = argv[++i];
    } else if (arg == "--keep") {
      o.keep = true;
    } else {
      return Usage();
    }
  }
  if (o.allocations < kBatch || o.allocations % kBatch != 0 || o.threads < 1) {
    std::fprintf(stderr, "--allocations must be a multiple of %d, --threads at least 1\n", kBatch);
    return 2;
  }
  if (o.mode == "plain") return RunPlain(o);
  if (o.mode == "oru") return RunTraced(o);
  if (o.mode == "writer") return RunWriter(o);
  if (o.mode == "capture") return RunCapture(o);
  return Usage();
}
