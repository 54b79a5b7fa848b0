// HeapTrace: capture on the allocating threads, symbolising and writing on
// one worker thread.
//
// The worker's writer turns events into heaptrack's records
// (memory/trace_records.h) over three helpers: the cache of described return
// addresses (trace_symbols.h), the policy of which frames a stack keeps
// (trace_stack_policy.h), and the buffered file (trace_file.h). What stays
// here is the queue, the worker, and the writer's own tables: stack nodes,
// allocation sites and live blocks.
#include "oru/heap_trace.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <deque>
#include <mutex>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "fs/file_system_platform.h"
#include "memory/trace_records.h"
#include "memory/trace_stack_policy.h"
#include "memory/trace_symbols.h"
#include "oru/stack_walker.h"
#include "oru/symbol.h"

namespace oru {

namespace {

// Set on a thread while it is inside the tracer (and for the whole life of
// the worker), so that allocations the tracer itself makes are not traced.
thread_local bool t_insideTracer = false;

// Sets the flag for a scope and restores what it was.
class InsideTracer {
public:
  InsideTracer() noexcept : m_saved(t_insideTracer) { t_insideTracer = true; }
  ~InsideTracer() { t_insideTracer = m_saved; }
  InsideTracer(const InsideTracer&) = delete;
  InsideTracer& operator=(const InsideTracer&) = delete;

private:
  bool m_saved;
};

enum EventKind : int32_t { kStop = 0, kFree = 1, kAllocation = 2 };

// The worker is woken when this many events wait, and otherwise looks at the
// queue every kIdleWait. It writes faster than one thread captures, so
// waking it whenever it had emptied the queue cost a futex call and two
// context switches for nearly every event.
constexpr size_t kWakeBatch = 1024;
constexpr std::chrono::milliseconds kIdleWait{10};

struct Event {
  std::vector<void*> stack;  // return addresses, innermost first
  void* block;
  uint64_t size;       // allocations only
  uint64_t timestamp;  // monotonic nanoseconds
  int32_t kind;
};

struct SiteKey {
  uint64_t size;
  uint32_t stack;
  bool operator==(const SiteKey&) const = default;
};

struct SiteKeyHash {
  size_t operator()(const SiteKey& key) const noexcept {
    char bytes[12];
    std::memcpy(bytes, &key.size, 8);
    std::memcpy(bytes + 8, &key.stack, 4);
    return static_cast<size_t>(Symbol::Hash(bytes, 12));
  }
};

struct RawStackHash {
  size_t operator()(const std::vector<void*>& stack) const noexcept {
    return static_cast<size_t>(
        Symbol::Hash(reinterpret_cast<const char*>(stack.data()), stack.size() * sizeof(void*)));
  }
};

// Lives on the worker thread: turns events into records.
class TraceWriter {
public:
  explicit TraceWriter(const std::string& fileName)
      : m_records(fileName), m_symbols(m_records, m_policy) {}

  void Close() { m_records.Close(); }

  void Allocation(const Event& event) {
    m_records.Clock(event.timestamp);
    const uint32_t stack = StackId(event.stack);
    auto [site, isNew] = m_sites.try_emplace(SiteKey{event.size, stack}, m_siteCount);
    if (isNew) {
      ++m_siteCount;
      m_records.Site(event.size, stack);
    }
    const auto address = reinterpret_cast<uintptr_t>(event.block);
    m_records.Allocation(site->second, address);
    m_live[address] = site->second;  // a live address is overwritten
    m_records.EndEvent();
  }

  void Free(const Event& event) {
    m_records.Clock(event.timestamp);
    const auto address = reinterpret_cast<uintptr_t>(event.block);
    const auto live = m_live.find(address);
    if (live == m_live.end()) {
      m_records.UnmatchedRelease(address);
    } else {
      const uint32_t site = live->second;
      m_live.erase(live);
      m_records.Release(site, address, StackId(event.stack));
    }
    m_records.EndEvent();
  }

private:
  // The id of a captured stack after the policy's cleaning, writing the
  // records of whatever in it is new. Stacks seen before are found whole.
  uint32_t StackId(const std::vector<void*>& raw) {
    const auto known = m_rawStacks.find(raw);
    if (known != m_rawStacks.end()) return known->second;

    m_frames.clear();
    for (void* pc : raw) m_frames.push_back(m_symbols.Describe(pc));
    m_kept.clear();
    detail::StackPolicy::Clean(m_frames, m_kept);

    // Nodes from the outermost frame inwards; the innermost names the stack.
    uint32_t node = 0;
    for (auto it = m_kept.rbegin(); it != m_kept.rend(); ++it) {
      const uint64_t key = (static_cast<uint64_t>(node) << 32) | *it;
      auto [entry, isNew] = m_nodes.try_emplace(key, m_nodeCount + 1);
      if (isNew) {
        ++m_nodeCount;
        m_records.Node(*it, node);
      }
      node = entry->second;
    }
    m_rawStacks.emplace(raw, node);
    return node;
  }

  detail::TraceRecords m_records;
  detail::StackPolicy m_policy;
  detail::TraceSymbols m_symbols;
  // (parent << 32 | instruction) -> node
  std::unordered_map<uint64_t, uint32_t, detail::TraceKeyHash> m_nodes;
  std::unordered_map<SiteKey, uint32_t, SiteKeyHash> m_sites;
  std::unordered_map<uint64_t, uint32_t, detail::TraceKeyHash> m_live;  // block address -> site
  // Whole captured stacks already turned into ids, so that a repeated stack
  // costs one lookup instead of one per frame.
  std::unordered_map<std::vector<void*>, uint32_t, RawStackHash> m_rawStacks;
  // Stack nodes are numbered from 1 (the count starts at 0), sites from 0.
  uint32_t m_nodeCount = 0;
  uint32_t m_siteCount = 0;
  std::vector<detail::TraceFrame> m_frames;  // scratch of StackId
  std::vector<uint32_t> m_kept;              // scratch of StackId
};

// Thrown by Tracer::Start when the trace file cannot be created.
class TraceFileError : public std::runtime_error {
public:
  using std::runtime_error::runtime_error;
};

}  // namespace

class ORU_LOCAL HeapTrace::Tracer final : public MemoryEventHandler {
public:
  explicit Tracer(std::string fileName) : m_fileName(std::move(fileName)) {}
  ~Tracer() override;

  // Tests the file, starts the worker and installs the tracer as the
  // allocation event handler. Throws TraceFileError when the file cannot be
  // created.
  void Start();

  void OnAllocate(void* block, uint64_t size) override;
  void OnFree(void* block) override;

private:
  void Queue(Event&& event);
  void Run(const std::string& fileName);

  StackWalker m_walker;  // captures on the allocating threads
  std::mutex m_mutex;
  std::condition_variable m_wake;
  std::deque<Event> m_queue;
  bool m_stopQueued = false;  // under m_mutex
  // Cleared when the worker has ended, so that nothing more is queued.
  std::atomic<bool> m_running{true};
  std::thread m_worker;
  MemoryEventHandler* m_previous = nullptr;
  // Kept until the handler is removed: a block the live hook saw allocated
  // before the tracer was installed and released afterwards would be an
  // unmatched release in every trace.
  std::string m_fileName;
};

void HeapTrace::Tracer::Start() {
  // Open and close at once: creates or truncates the file, and tells now
  // whether it can be written.
  std::FILE* test = detail::OpenFile(m_fileName, "w+");
  if (test == nullptr) throw TraceFileError(m_fileName);
  std::fclose(test);
  m_worker = std::thread([this, fileName = m_fileName] { Run(fileName); });
  // Last, so that nothing of the setup is traced.
  m_previous = SetAllocationEventHandler(this);
}

HeapTrace::Tracer::~Tracer() {
  if (!m_worker.joinable()) return;  // never started
  SetAllocationEventHandler(m_previous);
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_queue.push_back(Event{{}, nullptr, 0, 0, kStop});
    m_stopQueued = true;
  }
  m_wake.notify_one();
  m_worker.join();
}

void HeapTrace::Tracer::OnAllocate(void* block, uint64_t size) {
  if (block == nullptr || size == 0 || t_insideTracer) return;
  const InsideTracer inside;
  if (!m_running.load(std::memory_order_relaxed)) return;
  Queue(
      Event{m_walker.CurrentCallstack(), block, size, detail::MonotonicNanoseconds(), kAllocation});
}

void HeapTrace::Tracer::OnFree(void* block) {
  if (block == nullptr || t_insideTracer) return;
  const InsideTracer inside;
  if (!m_running.load(std::memory_order_relaxed)) return;
  Queue(Event{m_walker.CurrentCallstack(), block, 0, detail::MonotonicNanoseconds(), kFree});
}

void HeapTrace::Tracer::Queue(Event&& event) {
  size_t queued;
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_queue.push_back(std::move(event));
    queued = m_queue.size();
  }
  // Only the event that fills a batch wakes the worker; a busy worker sees
  // the batch before it waits again, an idle one within kIdleWait anyway.
  if (queued == kWakeBatch) m_wake.notify_one();
}

void HeapTrace::Tracer::Run(const std::string& fileName) {
  t_insideTracer = true;  // for the thread's whole life: its own allocations are not traced
  try {
    TraceWriter writer(fileName);
    std::deque<Event> batch;
    for (;;) {
      {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_wake.wait_for(lock, kIdleWait,
                        [this] { return m_queue.size() >= kWakeBatch || m_stopQueued; });
        batch.swap(m_queue);  // take everything queued, in order
      }
      for (const Event& event : batch) {
        if (event.kind == kStop) {
          writer.Close();
          m_running.store(false);
          return;
        }
        if (event.kind == kFree) {
          writer.Free(event);
        } else {
          writer.Allocation(event);
        }
      }
      batch.clear();
    }
  } catch (const std::exception& error) {
    std::fprintf(stderr, "HeapTrace caught std::exception(\"%s\").\n", error.what());
  } catch (...) {
    std::fputs("HeapTrace caught unknown exception.\n", stderr);
  }
  m_running.store(false);
}

HeapTrace::HeapTrace(BasicStringSpan<char const> traceFileName) {
  if (traceFileName.size() == 0) return;
  auto tracer = std::make_unique<Tracer>(std::string(traceFileName.data(), traceFileName.size()));
  try {
    tracer->Start();
  } catch (const TraceFileError& error) {
    std::fprintf(stderr, "Could not create trace file \"%s\"\n", error.what());
    return;
  }
  m_tracer = std::move(tracer);
}

HeapTrace::~HeapTrace() = default;

MemoryEventHandler* HeapTrace::Handler() const {
  return m_tracer.get();
}

}  // namespace oru
