#include "oru/api_trace.h"

#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "oru/json_formatter.h"
#include "thread/remote_call_platform.h"

namespace oru::apitrace {

namespace detail {
std::atomic<bool> s_capturing{false};
}  // namespace detail

namespace {

struct Event {
  const char* name;
  uint64_t start;
  uint64_t end;
  uint64_t thread;
};

// The writer is woken when this many events wait, and otherwise looks every
// kIdleWait: a marked thread pays for a queue append, not for a wake-up.
constexpr size_t kWakeBatch = 4096;
constexpr std::chrono::milliseconds kIdleWait{50};

uint64_t Now() {
  return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(
                                   std::chrono::steady_clock::now().time_since_epoch())
                                   .count());
}

uint64_t ThisThread() {
  thread_local const uint64_t id = oru::detail::CurrentThreadId();
  return id;
}

// One capture at a time. Never destroyed, so ranges that end during static
// destruction find it.
struct Capture {
  std::mutex mutex;  // guards everything below
  std::condition_variable wake;
  std::vector<Event> queue;
  // Of the running capture (0: none); changed under the mutex, read by
  // Range::Begin without it.
  std::atomic<uint64_t> id{0};
  uint64_t lastId = 0;
  uint64_t origin = 0;  // its start, in steady-clock nanoseconds
  bool stopping = false;
  std::thread writer;
};

Capture& TheCapture() {
  static Capture* capture = new Capture;
  return *capture;
}

// Writes `events` as trace events, each on a line of its own.
void WriteEvents(std::ostream& out, JsonFormatter& json, const std::vector<Event>& events,
                 uint64_t origin, uint64_t pid, bool& first) {
  for (const Event& e : events) {
    if (!first) out << ",\n";
    first = false;
    json.StartObject();
    const auto field = [&json](const char* name) {
      json.FormatString(name);
      json.NameValueSeparator();
    };
    field("name");
    json.FormatString(e.name);
    json.ItemSeparator();
    field("ph");
    json.FormatString("X");
    json.ItemSeparator();
    field("ts");
    json.FormatFloating(static_cast<double>(e.start - origin) / 1000.0);
    json.ItemSeparator();
    field("dur");
    json.FormatFloating(static_cast<double>(e.end - e.start) / 1000.0);
    json.ItemSeparator();
    field("pid");
    json.FormatUnsigned(pid);
    json.ItemSeparator();
    field("tid");
    json.FormatUnsigned(e.thread);
    json.FinishObject();
  }
}

void RunWriter(Capture& capture, std::unique_ptr<std::ofstream> out, uint64_t origin) {
  JsonFormatter json(*out, 0);
  const uint64_t pid = oru::detail::CurrentProcessId();
  *out << "{\"traceEvents\":[\n";
  bool first = true;
  std::vector<Event> batch;
  for (bool last = false; !last;) {
    {
      std::unique_lock<std::mutex> lock(capture.mutex);
      capture.wake.wait_for(lock, kIdleWait, [&capture] {
        return capture.queue.size() >= kWakeBatch || capture.stopping;
      });
      batch.swap(capture.queue);
      last = capture.stopping;
    }
    WriteEvents(*out, json, batch, origin, pid, first);
    batch.clear();
  }
  *out << "\n],\"displayTimeUnit\":\"ms\"}\n";
}

}  // namespace

void Range::Begin(const char* name) noexcept {
  m_capture = TheCapture().id.load(std::memory_order_acquire);
  if (name == nullptr) m_capture = 0;
  if (m_capture == 0) return;
  m_name = name;
  m_start = Now();
}

void Range::End() noexcept {
  const uint64_t end = Now();
  Capture& capture = TheCapture();
  size_t queued = 0;
  {
    std::lock_guard<std::mutex> lock(capture.mutex);
    // A range that outlives its capture is left out.
    if (capture.id != m_capture || capture.stopping) return;
    try {
      capture.queue.push_back(Event{m_name, m_start, end, ThisThread()});
    } catch (...) {
      return;  // out of memory: the event is lost, the program goes on
    }
    queued = capture.queue.size();
  }
  if (queued == kWakeBatch) capture.wake.notify_one();
}

bool StartCapture(const std::string& path) {
  Capture& capture = TheCapture();
  std::lock_guard<std::mutex> lock(capture.mutex);
  if (capture.id != 0 || capture.writer.joinable()) return false;
  const std::u8string name(path.begin(), path.end());
  auto out = std::make_unique<std::ofstream>(std::filesystem::path(name),
                                             std::ios::binary | std::ios::trunc);
  if (!*out) return false;
  capture.id = ++capture.lastId;
  capture.origin = Now();
  capture.stopping = false;
  capture.queue.clear();
  capture.writer = std::thread(RunWriter, std::ref(capture), std::move(out), capture.origin);
  detail::s_capturing.store(true, std::memory_order_relaxed);
  return true;
}

void StopCapture() {
  Capture& capture = TheCapture();
  std::thread writer;
  {
    std::lock_guard<std::mutex> lock(capture.mutex);
    if (capture.id == 0) return;
    detail::s_capturing.store(false, std::memory_order_relaxed);
    capture.id = 0;
    capture.stopping = true;
    writer = std::move(capture.writer);
  }
  capture.wake.notify_one();
  writer.join();  // the writer writes what is queued, then closes the file
}

}  // namespace oru::apitrace
