// The counted allocation path, the memory usage account and the shutdown
// flag.
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <thread>

#include "memory/allocation_path.h"
#include "memory/bad_allocation.h"
#include "oru/memory.h"
#include "oru/performance_counter.h"

namespace oru {

const char* detail::BadAllocation::what() const noexcept {
  return "bad allocation";
}

namespace {

struct AllocationCounters {
  PerformanceCounter callsToNew{counters::CallsToNewTag, 0};
  PerformanceCounter cumulativeAllocations{counters::CumulativeAllocationsTag, 0};
  PerformanceCounter callsToDelete{counters::CallsToDeleteTag, 0};
  PerformanceCounter cumulativeDeallocations{counters::CumulativeDeallocationsTag, 0};
  PerformanceCounter unsizedDeallocations{counters::UnsizedDeallocationsTag, 0};
};

// The counters are made by the first allocation of the process, which may
// come from any translation unit's static initialisation, and are never
// destroyed, so that releases during static destruction still count. Their
// construction allocates nothing through the counted path.
AllocationCounters& Counters() noexcept {
  alignas(AllocationCounters) static unsigned char storage[sizeof(AllocationCounters)];
  static AllocationCounters* const counters = new (storage) AllocationCounters;
  return *counters;
}

// Have the counters registered by the time the library is loaded, so that a
// visitor of all counters (which holds the registry's lock) can never be the
// one whose allocation would register them.
[[maybe_unused]] const bool s_countersRegistered = (Counters(), true);

// ---- the allocation event hook ------------------------------------------------
//
// Live only when built with ORU_LIVE_ALLOCATION_HOOK; otherwise
// SetAllocationEventHandler stores nothing and the allocation path has no
// hook at all.
//
// A handler may be replaced while other threads are calling it, and the one
// replaced may be destroyed as soon as SetAllocationEventHandler returns. So
// every call of a handler is counted in one of two in-flight counters, the
// one of the current generation; a replacement switches the generation and
// waits until the old generation's counter drains. Calls starting after the
// switch count in the new generation and see the new handler, so the wait
// cannot be starved by a steady stream of allocations.
#if ORU_LIVE_ALLOCATION_HOOK
constexpr bool kLiveHook = true;
#else
constexpr bool kLiveHook = false;
#endif

constinit std::atomic<MemoryEventHandler*> s_eventHandler{nullptr};
constinit std::atomic<uint32_t> s_handlerGeneration{0};
constinit std::atomic<uint32_t> s_handlerCalls[2]{0, 0};
// Handler calls this thread is inside of: a replacement made from inside a
// handler does not wait for its own call.
thread_local int t_handlerDepth = 0;

[[maybe_unused]] MemoryEventHandler* InstallEventHandler(MemoryEventHandler* handler) noexcept {
  static std::atomic_flag installing;  // clear: C++20 initialises it so
  while (installing.test_and_set(std::memory_order_acquire)) std::this_thread::yield();
  MemoryEventHandler* previous = s_eventHandler.exchange(handler);
  const uint32_t oldGeneration = s_handlerGeneration.fetch_add(1);
  if (t_handlerDepth == 0) {
    while (s_handlerCalls[oldGeneration & 1].load() != 0) std::this_thread::yield();
  }
  installing.clear(std::memory_order_release);
  return previous;
}

constinit std::atomic<uint64_t> s_usedBytes{0};
constinit std::atomic<uint64_t> s_highUsageBytes{0};
constinit std::atomic<int32_t> s_recordUsageMilliseconds{0};
constinit std::atomic<bool> s_doingShutdown{false};

}  // namespace

// ---- the allocation path -----------------------------------------------------

namespace detail {

// The hook's one entry point: tells the handler of an allocation (`size`
// given) or a release, counted in the current generation. One named
// function without helpers, so that HeapTrace can drop its frame (with
// those of DoAllocation and the releases) from the stacks it records.
void NotifyAllocationEvent(void* block, uint64_t size, bool allocation) noexcept {
  if (s_eventHandler.load(std::memory_order_relaxed) == nullptr) return;
  std::atomic<uint32_t>& calls = s_handlerCalls[s_handlerGeneration.load() & 1];
  calls.fetch_add(1);
  ++t_handlerDepth;
  if (MemoryEventHandler* handler = s_eventHandler.load()) {
    try {
      if (allocation) {
        handler->OnAllocate(block, size);
      } else {
        handler->OnFree(block);
      }
    } catch (...) {
      // An event the handler could not take is lost; the allocation stands.
    }
  }
  --t_handlerDepth;
  calls.fetch_sub(1);
}

void* MallocOrThrow(std::size_t bytes) {
  void* block = std::malloc(bytes);
  while (block == nullptr) {
    const std::new_handler handler = std::get_new_handler();
    if (handler == nullptr) throw BadAllocation();
    handler();
    block = std::malloc(bytes);
  }
  return block;
}

void CountAllocation(void* block, uint64_t size) noexcept {
  AllocationCounters& c = Counters();
  ++c.callsToNew;
  c.cumulativeAllocations += size;
  if constexpr (kLiveHook) NotifyAllocationEvent(block, size, true);
}

void AnnounceRelease(void* block) noexcept {
  if constexpr (kLiveHook) NotifyAllocationEvent(block, 0, false);
}

void CountSizedRelease(uint64_t size) noexcept {
  AllocationCounters& c = Counters();
  c.cumulativeDeallocations += size;
  ++c.callsToDelete;
}

void CountUnsizedRelease() noexcept {
  AllocationCounters& c = Counters();
  ++c.callsToDelete;
  ++c.unsizedDeallocations;
}

}  // namespace detail

void* DoAllocation(uint64_t size) {
  void* block = detail::MallocOrThrow(static_cast<std::size_t>(size));
  detail::CountAllocation(block, size);
  return block;
}

void DoSizedFree(void* p, uint64_t size) noexcept {
  if (p == nullptr) return;
  detail::AnnounceRelease(p);
  std::free(p);
  detail::CountSizedRelease(size);
}

void DoUnsizedFree(void* p) noexcept {
  if (p == nullptr) return;
  detail::AnnounceRelease(p);
  std::free(p);
  detail::CountUnsizedRelease();
}

namespace counters {
uint64_t CallsToNew() noexcept {
  return Counters().callsToNew.load();
}
uint64_t CumulativeAllocations() noexcept {
  return Counters().cumulativeAllocations.load();
}
uint64_t CallsToDelete() noexcept {
  return Counters().callsToDelete.load();
}
uint64_t CumulativeDeallocations() noexcept {
  return Counters().cumulativeDeallocations.load();
}
uint64_t UnsizedDeallocations() noexcept {
  return Counters().unsizedDeallocations.load();
}
}  // namespace counters

// ---- allocation events ---------------------------------------------------------

MemoryEventHandler::~MemoryEventHandler() = default;

MemoryEventHandler* SetAllocationEventHandler(MemoryEventHandler* handler) noexcept {
  if constexpr (kLiveHook) {
    return InstallEventHandler(handler);
  } else {
    (void)handler;
    return nullptr;  // inert: nothing is stored or installed (see the header)
  }
}

bool IsAllocationEventHookLive() noexcept {
  return kLiveHook;
}

// ---- the usage account and the shutdown flag -----------------------------------

void RecordMemoryUsage::Add(uint64_t bytes) noexcept {
  if (bytes == 0 || IsDoingShutdown()) return;
  s_usedBytes.fetch_add(bytes);
}

void RecordMemoryUsage::Remove(uint64_t bytes) noexcept {
  if (bytes == 0 || IsDoingShutdown()) return;
  s_usedBytes.fetch_sub(bytes);
}

uint64_t RecordMemoryUsage::Used() noexcept {
  return IsDoingShutdown() ? 0 : s_usedBytes.load();
}

void RecordMemoryUsage::SetHighUsageValue(uint64_t megabytes) noexcept {
  if (IsDoingShutdown()) return;
  s_highUsageBytes.store(megabytes << 20);
}

uint64_t RecordMemoryUsage::GetHighUsageValue() noexcept {
  return IsDoingShutdown() ? 0 : s_highUsageBytes.load();  // bytes, not MiB (see the header)
}

bool RecordMemoryUsage::PassedHighUsage() noexcept {
  if (IsDoingShutdown()) return false;
  const uint64_t threshold = s_highUsageBytes.load();
  return threshold != 0 && s_usedBytes.load() > threshold;
}

void RecordMemoryUsage::AddRecordUsageTime(int milliseconds) noexcept {
  s_recordUsageMilliseconds.fetch_add(static_cast<int32_t>(milliseconds));
}

void RecordMemoryUsage::ResetRecordUsageTime() noexcept {
  s_recordUsageMilliseconds.exchange(0);
}

void RecordMemoryUsage::PrintfRecordUsageTime() {
  if (s_recordUsageMilliseconds.load() == 0) return;
  // The seconds are computed in single precision and only widened for
  // printing (kept: scripts that read this line expect those digits).
  const float seconds = static_cast<float>(s_recordUsageMilliseconds.load()) / 1000.0f;
  std::printf("Total Memory Usage Time: %fs\n", static_cast<double>(seconds));
}

bool IsDoingShutdown() noexcept {
  return s_doingShutdown.load(std::memory_order_relaxed);
}

void SetDoingShutdown() noexcept {
  s_doingShutdown.store(true, std::memory_order_relaxed);
}

}  // namespace oru
