// The counted allocation path, the memory usage account and the shutdown
// flag.
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <new>

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

constinit std::atomic<uint64_t> s_usedBytes{0};
constinit std::atomic<uint64_t> s_highUsageBytes{0};
constinit std::atomic<int32_t> s_recordUsageMilliseconds{0};
constinit std::atomic<bool> s_doingShutdown{false};

}  // namespace

// ---- the allocation path -----------------------------------------------------

void* DoAllocation(uint64_t size) {
  const auto bytes = static_cast<std::size_t>(size);
  void* block = std::malloc(bytes);
  while (block == nullptr) {
    const std::new_handler handler = std::get_new_handler();
    if (handler == nullptr) throw detail::BadAllocation();
    handler();
    block = std::malloc(bytes);
  }
  AllocationCounters& c = Counters();
  ++c.callsToNew;
  c.cumulativeAllocations += size;
  return block;
}

void DoSizedFree(void* p, uint64_t size) noexcept {
  if (p == nullptr) return;
  std::free(p);
  AllocationCounters& c = Counters();
  c.cumulativeDeallocations += size;
  ++c.callsToDelete;
}

void DoUnsizedFree(void* p) noexcept {
  if (p == nullptr) return;
  std::free(p);
  AllocationCounters& c = Counters();
  ++c.callsToDelete;
  ++c.unsizedDeallocations;
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

MemoryEventHandler* SetAllocationEventHandler(MemoryEventHandler* /*handler*/) noexcept {
  return nullptr;  // inert on purpose: nothing is stored or installed
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
  return IsDoingShutdown() ? 0 : s_highUsageBytes.load();  // bytes, not MiB, on purpose
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
  // Kept on purpose: the seconds are computed in single precision and only
  // widened for printing.
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
