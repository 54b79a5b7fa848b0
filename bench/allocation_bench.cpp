// The counted allocation path against plain malloc and free.
//
// - BM_Alloc16: DoAllocation(16) + DoSizedFree(p, 16), one pair per item.
//   Peer: malloc(16) + free(p). The difference is what the counting costs:
//   two atomic additions on each side of the pair.
// - BM_Alloc16Threads2: the same pairs on two threads at once (wall-clock
//   time). Both threads add to the same process-wide counters, so the cache
//   line that holds them moves between the two cores; malloc's per-thread
//   caches share nothing.
//
// Names are BM_<job>/ours and BM_<job>/peer so that scripts/bench can pair
// them. Items are allocate-and-free pairs; the overhead per pair in ns is
// 1e9 / ours items/s - 1e9 / peer items/s.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdlib>

#include "oru/memory.h"

namespace {

constexpr uint64_t BLOCK = 16;

void BM_Alloc16_ours(benchmark::State& state) {
  const uint64_t before = oru::counters::CallsToNew();
  for (auto _ : state) {
    void* p = oru::DoAllocation(BLOCK);
    benchmark::DoNotOptimize(p);
    oru::DoSizedFree(p, BLOCK);
  }
  state.SetItemsProcessed(state.iterations());
  // Outside the timed loop: every pair went through the counted path.
  if (state.thread_index() == 0 &&
      oru::counters::CallsToNew() - before < static_cast<uint64_t>(state.iterations())) {
    state.SkipWithError("the allocations were not counted");
  }
}

void BM_Alloc16_peer(benchmark::State& state) {
  for (auto _ : state) {
    void* p = std::malloc(BLOCK);
    benchmark::DoNotOptimize(p);
    std::free(p);
  }
  state.SetItemsProcessed(state.iterations());
}

}  // namespace

BENCHMARK(BM_Alloc16_ours)->Name("BM_Alloc16/ours");
BENCHMARK(BM_Alloc16_peer)->Name("BM_Alloc16/peer");
BENCHMARK(BM_Alloc16_ours)->Name("BM_Alloc16Threads2/ours")->Threads(2)->UseRealTime();
BENCHMARK(BM_Alloc16_peer)->Name("BM_Alloc16Threads2/peer")->Threads(2)->UseRealTime();
