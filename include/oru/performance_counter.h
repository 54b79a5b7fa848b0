// Named performance counters and informational trace messages.
//
// PerformanceCounter is a 64-bit atomic counter that registers itself under a
// name (its tag) in one process-wide registry, so that a monitoring tool can
// list every live counter without knowing where it is defined:
//
//   static oru::PerformanceCounter s_filesOpened("Files opened", 0);
//   ++s_filesOpened;                              // one atomic increment
//
//   oru::PerformanceCounter::VisitAllCounters(
//       [](oru::BasicStringSpan<char const> tag, uint64_t value) {
//         std::printf("%.*s: %llu\n", int(tag.size()), tag.data(),
//                     static_cast<unsigned long long>(value));
//       });
//
// TraceInfoDispatcher passes informational messages to one sink that the host
// installs (an ITraceInfoHelper); the formatted form also writes a line for
// the debugger (OutputDebugStringA on Windows, the standard error stream
// elsewhere):
//
//   struct LogSink : oru::ITraceInfoHelper {
//     void TraceInfo(const std::string& message) override { Log(message); }
//   } sink;
//   oru::TraceInfoDispatcher::SetHandler(&sink);
//   oru::TraceInfoDispatcher::Trace("cache ready");
//
// Ownership: a counter owns a private copy of its tag; the caller's text is
// only read during construction. The dispatcher does not own the sink: it
// must stay alive until it is removed with SetHandler(nullptr).
//
// Threading: counter values are atomic; any thread may change or read any
// counter without a lock. Constructing, destroying and visiting counters take
// the registry's mutex, so a visitor must not construct or destroy counters.
// The registry itself is never destroyed, so counters with static storage
// duration may be constructed and destroyed in any order, also during
// process exit. The sink pointer is a plain pointer: install it before other
// threads start tracing.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>

#include "oru/export.h"
#include "oru/string_span.h"

namespace oru {

namespace detail {
struct CounterRegistration;  // a counter's entry in the registry (internal)
}  // namespace detail

/// A named 64-bit atomic counter, listed in the process-wide registry while
/// it lives. Neither copyable nor movable: the registry points at it.
class ORU_API PerformanceCounter {
public:
  /// Starts at `initial`. A non-empty `tag` is copied and the counter is
  /// registered under it (several counters may share a tag; each is visited).
  /// An empty tag gives a counter that counts but is never visited. Should
  /// the registry entry itself not be allocatable, the counter stays
  /// unregistered rather than throwing.
  explicit PerformanceCounter(BasicStringSpan<char const> tag, uint64_t initial = 0);
  /// Leaves the registry.
  ~PerformanceCounter();
  PerformanceCounter(const PerformanceCounter&) = delete;
  PerformanceCounter& operator=(const PerformanceCounter&) = delete;

  /// The registered tag; empty when the counter is not registered. Valid as
  /// long as the counter.
  BasicStringSpan<char const> Tag() const noexcept;

  // These prefix forms return the value from *before* the change, while +=
  // and -= return the new value (kept: callers that number events with ++
  // rely on it). Arithmetic wraps modulo 2^64.
  uint64_t operator++() noexcept { return m_value.fetch_add(1); }
  uint64_t operator--() noexcept { return m_value.fetch_sub(1); }
  uint64_t operator+=(uint64_t n) noexcept { return m_value.fetch_add(n) + n; }
  uint64_t operator-=(uint64_t n) noexcept { return m_value.fetch_sub(n) - n; }

  uint64_t load() const noexcept { return m_value.load(); }
  operator uint64_t() const noexcept { return m_value.load(); }  // NOLINT: reads as a number
  void store(uint64_t value) noexcept { m_value.store(value); }

  /// Calls `visitor(tag, current value)` once for every registered counter,
  /// in the order they were constructed, holding the registry's mutex
  /// throughout. The visitor must not construct or destroy counters.
  static void VisitAllCounters(std::function<void(BasicStringSpan<char const>, uint64_t)> visitor);

private:
  detail::CounterRegistration* m_registration = nullptr;  // null when unregistered
  std::atomic<uint64_t> m_value;
};

/// Tags of the counters that the library itself keeps.
namespace counters {
/// "Current Tasks" and "Cumulative Tasks": tasks alive now and ever created.
ORU_API extern const BasicStringSpan<char const> ExtantTasksTag;
ORU_API extern const BasicStringSpan<char const> CumulativeTasksTag;
/// The allocation counters (see oru/memory.h): "Calls to ::operator new()",
/// "Cumulative allocations" (bytes), "Calls to ::operator delete()",
/// "Cumulative deallocations" (bytes) and "Unsized deallocations".
ORU_API extern const BasicStringSpan<char const> CallsToNewTag;
ORU_API extern const BasicStringSpan<char const> CumulativeAllocationsTag;
ORU_API extern const BasicStringSpan<char const> CallsToDeleteTag;
ORU_API extern const BasicStringSpan<char const> CumulativeDeallocationsTag;
ORU_API extern const BasicStringSpan<char const> UnsizedDeallocationsTag;
}  // namespace counters

/// The receiver of informational trace messages, implemented by the host.
class ORU_API ITraceInfoHelper {
public:
  virtual ~ITraceInfoHelper();
  /// Receives one message, without a trailing newline. Called on the thread
  /// that traced; the reference is valid only during the call.
  virtual void TraceInfo(const std::string& message) = 0;
};

/// Routes trace messages to the installed ITraceInfoHelper. Static only.
class ORU_API TraceInfoDispatcher {
public:
  /// Installs `helper` as the sink, replacing any earlier one; null removes
  /// it. The dispatcher does not take ownership.
  static void SetHandler(ITraceInfoHelper* const helper);
  /// Passes `message` to the sink; does nothing when none is installed.
  static void Trace(const std::string& message);
  /// Formats `format` with the arguments as printf does, cut to 1023
  /// characters, and passes the text to the sink when one is installed. In
  /// every case also writes "<file>(<line>): info : <text> \n" (again at most
  /// 1023 characters) to the debugger output: OutputDebugStringA on Windows,
  /// the standard error stream elsewhere. `file` is only read.
  static void Trace(char* file, int line, const char* format, ...);

private:
  static ITraceInfoHelper* s_pHelper;
};

}  // namespace oru
