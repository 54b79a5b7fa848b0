// HeapTrace: capture on the allocating threads, symbolising and writing on
// one worker thread.
//
// The file is in heaptrack's text format, version 2, so heaptrack_print and
// the heaptrack GUI read it. Records, numbers in lower-case hex:
//   v 10150 2                header
//   s <text>                 string; numbered from 1 in order of appearance
//   i <pc> <module> <function> <file> <line>
//                            a return address and its description (string
//                            numbers and the line); numbered from 1
//   t <instruction> <parent> stack node: one frame and the node of the
//                            frame that called it (0: outermost frame);
//                            numbered from 1, and a stack is named by the
//                            node of its innermost frame (0: empty stack)
//   a <size> <stack>         allocation site; numbered from 0
//   c <microseconds>         wall-clock time of the next record
//   + <site> <address>       allocation
//   - <site> <address> <stack>
//                            release of a live block: the site of its
//                            allocation, and the stack that released it
//   #Unmatched free <address>
//                            release of a block that is not live (a comment
//                            line for readers)
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

uint64_t MonotonicNanoseconds() noexcept {
  return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(
                                   std::chrono::steady_clock::now().time_since_epoch())
                                   .count());
}

// The names that "operator new" and the like are compared with: without the
// parameter list, and without the return type that demangled names of
// function templates (and undecorated Windows names) carry in front. The
// result views into `name`.
std::string_view ComparisonName(std::string_view name) {
  // The parameter list is the parenthesised group closed by the last ')',
  // when only qualifiers (const, &, noexcept, __ptr64) follow it.
  const size_t close = name.rfind(')');
  if (close != std::string_view::npos &&
      name.find_first_of(":<>()", close + 1) == std::string_view::npos) {
    int depth = 0;
    for (size_t i = close + 1; i-- > 0;) {
      if (name[i] == ')') {
        ++depth;
      } else if (name[i] == '(' && --depth == 0) {
        if (i > 0) name = name.substr(0, i);
        break;
      }
    }
  }
  // A return type ends at the last space outside brackets that does not
  // belong to an operator's name ("operator new", "operator<< <T>").
  int depth = 0;
  for (size_t i = name.size(); i-- > 0;) {
    const char c = name[i];
    if (c == '>' || c == ')' || c == ']') {
      ++depth;
    } else if (c == '<' || c == '(' || c == '[') {
      --depth;
    } else if (c == ' ' && depth == 0) {
      const std::string_view before = name.substr(0, i);
      const size_t tokenStart = before.find_last_of(": ");
      const std::string_view token =
          tokenStart == std::string_view::npos ? before : before.substr(tokenStart + 1);
      if (token.substr(0, 8) == "operator") continue;
      return name.substr(i + 1);
    }
  }
  return name;
}

// Frames of the allocation machinery: dropped from the inner end of every
// stack, so that a stack starts where the program asked for memory.
const std::vector<std::string_view>& SkipNames() {
  static const std::vector<std::string_view> names{
      "operator new",
      "operator delete",
      "oru::HeapTrace::Tracer::OnAllocate",
      "oru::HeapTrace::Tracer::OnFree",
      // Also machinery: the array forms, the library's allocation path that
      // calls the tracer, and the stack walker's own capture.
      "operator new[]",
      "operator delete[]",
      "oru::DoAllocation",
      "oru::DoSizedFree",
      "oru::DoUnsizedFree",
      "oru::detail::NotifyAllocationEvent",
      "oru::detail::CountAllocation",
      "oru::detail::AnnounceRelease",
  };
  return names;
}

// Frames of program and thread start-up: a stack is cut off after them.
const std::vector<std::string_view>& StopNames() {
  static const std::vector<std::string_view> names{
      "AfxWinMain",
      "wWinMain",
      "wWinMainCRTStartup",
      "invoke_main",
      "__scrt_common_main_seh",
      "__scrt_common_main",
      // One name of two thread-start functions run together: it matches
      // neither, so worker-thread stacks run out to their last frame (kept:
      // traces compared across runs need the same cut).
      "BaseThreadInitThunkRtlUserThreadStart",
      "main",
  };
  return names;
}

constexpr std::string_view kNoFunction = "(function-name not available)";
constexpr std::string_view kNoFile = "(filename not available)";
constexpr std::string_view kNoModule = "(module-name not available)";

// FNV-1a over the bytes of the keys, as every table of the writer hashes.
struct KeyHash {
  size_t operator()(uint64_t key) const noexcept {
    unsigned char bytes[8];
    std::memcpy(bytes, &key, 8);
    return static_cast<size_t>(Symbol::Hash(reinterpret_cast<const char*>(bytes), 8));
  }
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

struct TextHash {
  using is_transparent = void;
  size_t operator()(std::string_view text) const noexcept {
    return static_cast<size_t>(Symbol::Hash(text.data(), text.size()));
  }
};

struct RawStackHash {
  size_t operator()(const std::vector<void*>& stack) const noexcept {
    return static_cast<size_t>(
        Symbol::Hash(reinterpret_cast<const char*>(stack.data()), stack.size() * sizeof(void*)));
  }
};

// The stack walker's capture: it and every frame inside it are dropped.
// Usually it is the first frame, but an interposed backtrace() (as
// AddressSanitizer's) adds a frame of its own before it.
constexpr std::string_view kCaptureName = "oru::StackWalker::CurrentCallstack";

// What a frame is to the stack filter.
enum class FrameRole : uint8_t { kPlain, kCapture, kSkip, kStop, kStd };

struct Instruction {
  uint32_t id;
  FrameRole role;
};

// Lives on the worker thread: turns events into records.
class TraceWriter {
public:
  // Binary mode: every line ends in a bare "\n" on every platform, as
  // heaptrack's readers expect.
  explicit TraceWriter(const std::string& fileName) : m_file(detail::OpenFile(fileName, "wb")) {
    if (m_file == nullptr)
      throw std::runtime_error("Could not open trace file \"" + fileName + "\"");
    using namespace std::chrono;
    const auto wall = duration_cast<microseconds>(system_clock::now().time_since_epoch()).count();
    const auto mono = static_cast<int64_t>(MonotonicNanoseconds() / 1000);
    m_clockOffset = static_cast<uint64_t>(wall) - static_cast<uint64_t>(mono);
    m_buffer.reserve(kBufferSize + 4096);
    Put("v 10150 2\n");
    m_skip.insert(SkipNames().begin(), SkipNames().end());
    m_stop.insert(StopNames().begin(), StopNames().end());
  }

  ~TraceWriter() {
    if (m_file != nullptr) std::fclose(m_file);
  }

  // Writes what is buffered and closes the file; throws when the file could
  // not be written in full.
  void Close() {
    const bool written = Flush();
    const bool closed = std::fclose(m_file) == 0;
    m_file = nullptr;
    if (!written || !closed) throw std::runtime_error("Could not write the trace file");
  }

  void Allocation(const Event& event) {
    PutClock(event.timestamp);
    const uint32_t stack = StackId(event.stack);
    auto [site, isNew] = m_sites.try_emplace(SiteKey{event.size, stack}, m_siteCount);
    if (isNew) {
      ++m_siteCount;
      Put("a ");
      PutHex(event.size);
      Put(' ');
      PutHex(stack);
      Put('\n');
    }
    Put("+ ");
    PutHex(site->second);
    Put(' ');
    PutHex(reinterpret_cast<uintptr_t>(event.block));
    Put('\n');
    m_live[reinterpret_cast<uintptr_t>(event.block)] =
        site->second;  // a live address is overwritten
    MaybeFlush();
  }

  void Free(const Event& event) {
    PutClock(event.timestamp);
    const auto address = reinterpret_cast<uintptr_t>(event.block);
    const auto live = m_live.find(address);
    if (live == m_live.end()) {
      Put("#Unmatched free ");
      PutHex(address);
      Put('\n');
    } else {
      const uint32_t site = live->second;
      m_live.erase(live);
      const uint32_t stack = StackId(event.stack);
      Put("- ");
      PutHex(site);
      Put(' ');
      PutHex(address);
      Put(' ');
      PutHex(stack);
      Put('\n');
    }
    MaybeFlush();
  }

private:
  static constexpr size_t kBufferSize = 256 * 1024;

  void Put(char c) { m_buffer.push_back(c); }
  void Put(std::string_view text) { m_buffer.append(text); }
  void PutHex(uint64_t value) {
    char digits[16];
    int n = 0;
    do {
      digits[n++] = "0123456789abcdef"[value & 15];
      value >>= 4;
    } while (value != 0);
    while (n > 0) m_buffer.push_back(digits[--n]);
  }
  void PutClock(uint64_t nanoseconds) {
    Put("c ");
    PutHex(m_clockOffset + nanoseconds / 1000);
    Put('\n');
  }
  void MaybeFlush() {
    if (m_buffer.size() >= kBufferSize && !Flush())
      throw std::runtime_error("Could not write the trace file");
  }
  bool Flush() {
    const bool ok = std::fwrite(m_buffer.data(), 1, m_buffer.size(), m_file) == m_buffer.size() &&
                    std::fflush(m_file) == 0;
    m_buffer.clear();
    return ok;
  }

  // The number of `text`, writing an "s" record when it is new. Line ends
  // inside the text would break the file's lines: they become spaces.
  uint32_t Intern(std::string_view text) {
    const auto found = m_strings.find(text);
    if (found != m_strings.end()) return found->second;
    const uint32_t id = m_nextString++;
    m_strings.emplace(std::string(text), id);
    const size_t start = m_buffer.size();
    Put("s ");
    Put(text);
    std::replace_if(
        m_buffer.begin() + static_cast<std::ptrdiff_t>(start), m_buffer.end(),
        [](char c) { return c == '\n' || c == '\r'; }, ' ');
    Put('\n');
    return id;
  }

  // The record of a return address, described (and its "i" record written)
  // the first time it is seen. The description is that of the call
  // instruction, one byte before the address it returns to.
  Instruction Describe(void* pc) {
    const auto address = reinterpret_cast<uintptr_t>(pc);
    const auto found = m_instructions.find(address);
    if (found != m_instructions.end()) return found->second;

    void* call = reinterpret_cast<void*>(address - (address != 0 ? 1 : 0));
    std::string function = m_walker.FunctionForAddress(call);
    auto [file, line] = m_walker.FileAndLineNoForAddress(call);
    std::string module = m_walker.ModuleForAddress(call);
    if (function.empty()) function = kNoFunction;
    if (file.empty()) file = kNoFile;
    if (module.empty()) module = kNoModule;

    FrameRole role = FrameRole::kPlain;
    const std::string_view key = ComparisonName(function);
    if (key == kCaptureName) {
      role = FrameRole::kCapture;
    } else if (m_skip.count(key) != 0) {
      role = FrameRole::kSkip;
    } else if (m_stop.count(key) != 0) {
      role = FrameRole::kStop;
    } else if (key.substr(0, 5) == "std::") {
      role = FrameRole::kStd;
    }

    const uint32_t moduleId = Intern(module);
    const uint32_t functionId = Intern(function);
    const uint32_t fileId = Intern(file);
    const Instruction instruction{m_nextInstruction++, role};
    Put("i ");
    PutHex(address);
    Put(' ');
    PutHex(moduleId);
    Put(' ');
    PutHex(functionId);
    Put(' ');
    PutHex(fileId);
    Put(' ');
    PutHex(line);
    Put('\n');
    m_instructions.emplace(address, instruction);
    return instruction;
  }

  // The id of a captured stack after filtering, writing the records of
  // whatever in it is new. Stacks seen before are found whole.
  uint32_t StackId(const std::vector<void*>& raw) {
    const auto known = m_rawStacks.find(raw);
    if (known != m_rawStacks.end()) return known->second;

    m_frames.clear();
    for (void* pc : raw) m_frames.push_back(Describe(pc));

    // Drop the capture and the machinery at the inner end, cut after a
    // start-up frame.
    size_t first = 0;
    for (size_t i = 0; i < m_frames.size(); ++i) {
      if (m_frames[i].role == FrameRole::kCapture) {
        first = i + 1;
        break;
      }
    }
    while (first < m_frames.size() && m_frames[first].role == FrameRole::kSkip) ++first;
    size_t end = first;
    while (end < m_frames.size() && m_frames[end].role != FrameRole::kStop) ++end;
    if (end < m_frames.size()) ++end;  // the start-up frame itself stays

    // Each run of two or more "std::" frames keeps only its outermost frame,
    // unless the run reaches the outer end (kept whole: traces compared
    // across runs need the same frames).
    m_kept.clear();
    for (size_t i = first; i < end;) {
      size_t runEnd = i;
      while (runEnd < end && m_frames[runEnd].role == FrameRole::kStd) ++runEnd;
      if (runEnd - i >= 2 && runEnd < end) {
        m_kept.push_back(m_frames[runEnd - 1].id);
        i = runEnd;
      } else if (runEnd > i) {
        for (; i < runEnd; ++i) m_kept.push_back(m_frames[i].id);
      } else {
        m_kept.push_back(m_frames[i++].id);
      }
    }

    // Nodes from the outermost frame inwards; the innermost names the stack.
    uint32_t node = 0;
    for (auto it = m_kept.rbegin(); it != m_kept.rend(); ++it) {
      const uint64_t key = (static_cast<uint64_t>(node) << 32) | *it;
      auto [entry, isNew] = m_nodes.try_emplace(key, m_nodeCount + 1);
      if (isNew) {
        ++m_nodeCount;
        Put("t ");
        PutHex(*it);
        Put(' ');
        PutHex(node);
        Put('\n');
      }
      node = entry->second;
    }
    m_rawStacks.emplace(raw, node);
    return node;
  }

  StackWalker m_walker;
  std::FILE* m_file;
  // The names of the skip and stop sets. They are compared once per distinct
  // return address, when it is described, and kept out of the string
  // records: a trace of nothing holds the header alone.
  std::unordered_set<std::string_view, TextHash> m_skip;
  std::unordered_set<std::string_view, TextHash> m_stop;
  std::unordered_map<std::string, uint32_t, TextHash, std::equal_to<>> m_strings;
  std::unordered_map<uint64_t, Instruction, KeyHash> m_instructions;
  std::unordered_map<uint64_t, uint32_t, KeyHash> m_nodes;  // (parent << 32 | instruction) -> node
  std::unordered_map<SiteKey, uint32_t, SiteKeyHash> m_sites;
  std::unordered_map<uint64_t, uint32_t, KeyHash> m_live;  // block address -> site
  // Whole captured stacks already turned into ids, so that a repeated stack
  // costs one lookup instead of one per frame.
  std::unordered_map<std::vector<void*>, uint32_t, RawStackHash> m_rawStacks;
  uint64_t m_clockOffset = 0;  // wall-clock minus monotonic microseconds
  // Strings and instructions are numbered from 1, stack nodes from 1 (the
  // count starts at 0), sites from 0: 0 is "none" for the first three.
  uint32_t m_nextString = 1;
  uint32_t m_nextInstruction = 1;
  uint32_t m_nodeCount = 0;
  uint32_t m_siteCount = 0;
  std::string m_buffer;
  std::vector<Instruction> m_frames;  // scratch of StackId
  std::vector<uint32_t> m_kept;       // scratch of StackId
};

// Thrown by Tracer::Start when the trace file cannot be created.
class TraceFileError : public std::runtime_error {
public:
  using std::runtime_error::runtime_error;
};

}  // namespace

class HeapTrace::Tracer final : public MemoryEventHandler {
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
  Queue(Event{m_walker.CurrentCallstack(), block, size, MonotonicNanoseconds(), kAllocation});
}

void HeapTrace::Tracer::OnFree(void* block) {
  if (block == nullptr || t_insideTracer) return;
  const InsideTracer inside;
  if (!m_running.load(std::memory_order_relaxed)) return;
  Queue(Event{m_walker.CurrentCallstack(), block, 0, MonotonicNanoseconds(), kFree});
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
