// The registry of performance counters, the library's counter tags and the
// trace dispatcher.
//
// The registry is a doubly linked list of entries under one mutex. It is made
// on first use and never destroyed, so a counter may register before any
// other dynamic initialisation has run (the allocation counters do, on the
// first allocation of the process) and unregister after every other static
// object is gone.
#include "oru/performance_counter.h"

#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>

#include "thread/debugger_output.h"

namespace oru {

namespace counters {
constinit const BasicStringSpan<char const> ExtantTasksTag("Current Tasks");
constinit const BasicStringSpan<char const> CumulativeTasksTag("Cumulative Tasks");
constinit const BasicStringSpan<char const> CallsToNewTag("Calls to ::operator new()");
constinit const BasicStringSpan<char const> CumulativeAllocationsTag("Cumulative allocations");
constinit const BasicStringSpan<char const> CallsToDeleteTag("Calls to ::operator delete()");
constinit const BasicStringSpan<char const> CumulativeDeallocationsTag("Cumulative deallocations");
constinit const BasicStringSpan<char const> UnsizedDeallocationsTag("Unsized deallocations");
}  // namespace counters

namespace detail {

// One registered counter. The tag's characters (and a terminating NUL) are
// stored right after the entry, in the same block.
struct CounterRegistration {
  CounterRegistration* prev = nullptr;
  CounterRegistration* next = nullptr;
  PerformanceCounter* counter = nullptr;
  BasicStringSpan<char const> tag;
};

}  // namespace detail

namespace {

using detail::CounterRegistration;

struct Registry {
  std::mutex mutex;
  CounterRegistration* first = nullptr;  // oldest
  CounterRegistration* last = nullptr;   // newest
};

// The registry, made on first use and never destroyed. (std::mutex is not
// constexpr-constructible with every runtime, so the registry cannot simply
// be constant-initialised.)
Registry& TheRegistry() {
  alignas(Registry) static unsigned char storage[sizeof(Registry)];
  static Registry* const registry = new (storage) Registry;
  return *registry;
}

}  // namespace

PerformanceCounter::PerformanceCounter(BasicStringSpan<char const> tag, uint64_t initial)
    : m_value(initial) {
  if (tag.empty()) return;
  // Entries come from malloc, not operator new: the allocation counters are
  // PerformanceCounters themselves and are constructed inside the first
  // allocation, which must not re-enter the counted allocation path.
  const std::size_t length = tag.size();
  void* block = std::malloc(sizeof(CounterRegistration) + length + 1);
  if (block == nullptr) return;
  char* text = static_cast<char*>(block) + sizeof(CounterRegistration);
  std::memcpy(text, tag.data(), length);
  text[length] = '\0';
  auto* entry = new (block) CounterRegistration;
  entry->counter = this;
  entry->tag = BasicStringSpan<char const>(text, length);

  Registry& registry = TheRegistry();
  std::lock_guard<std::mutex> lock(registry.mutex);
  entry->prev = registry.last;
  if (registry.last != nullptr) {
    registry.last->next = entry;
  } else {
    registry.first = entry;
  }
  registry.last = entry;
  m_registration = entry;
}

PerformanceCounter::~PerformanceCounter() {
  CounterRegistration* entry = m_registration;
  if (entry == nullptr) return;
  {
    Registry& registry = TheRegistry();
    std::lock_guard<std::mutex> lock(registry.mutex);
    if (entry->prev != nullptr) {
      entry->prev->next = entry->next;
    } else {
      registry.first = entry->next;
    }
    if (entry->next != nullptr) {
      entry->next->prev = entry->prev;
    } else {
      registry.last = entry->prev;
    }
  }
  entry->~CounterRegistration();
  std::free(entry);
}

BasicStringSpan<char const> PerformanceCounter::Tag() const noexcept {
  return m_registration != nullptr ? m_registration->tag : BasicStringSpan<char const>();
}

void PerformanceCounter::VisitAllCounters(
    std::function<void(BasicStringSpan<char const>, uint64_t)> visitor) {
  if (!visitor) return;
  Registry& registry = TheRegistry();
  std::lock_guard<std::mutex> lock(registry.mutex);
  for (const CounterRegistration* entry = registry.first; entry != nullptr; entry = entry->next) {
    visitor(entry->tag, entry->counter->load());
  }
}

// ---- trace dispatch ----------------------------------------------------------

ITraceInfoHelper::~ITraceInfoHelper() = default;

ITraceInfoHelper* TraceInfoDispatcher::s_pHelper = nullptr;

void TraceInfoDispatcher::SetHandler(ITraceInfoHelper* const helper) {
  s_pHelper = helper;
}

void TraceInfoDispatcher::Trace(const std::string& message) {
  if (ITraceInfoHelper* helper = s_pHelper) helper->TraceInfo(message);
}

void TraceInfoDispatcher::Trace(char* file, int line, const char* format, ...) {
  // Both texts are cut to fit 1024-byte buffers (1023 characters and a NUL).
  constexpr std::size_t BUFFER_SIZE = 1024;
  char message[BUFFER_SIZE] = "";
  if (format != nullptr) {
    va_list args;
    va_start(args, format);
    if (std::vsnprintf(message, BUFFER_SIZE, format, args) < 0) message[0] = '\0';
    va_end(args);
  }
  if (ITraceInfoHelper* helper = s_pHelper) helper->TraceInfo(std::string(message));

  char debuggerLine[BUFFER_SIZE];
  if (std::snprintf(debuggerLine, BUFFER_SIZE, "%s(%d): info : %s \n", file != nullptr ? file : "",
                    line, message) < 0) {
    return;
  }
  detail::WriteDebuggerLine(debuggerLine);
}

}  // namespace oru
