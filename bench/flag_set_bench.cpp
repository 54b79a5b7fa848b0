// FlagSet against std::bitset.
//
// - BM_FlagSetScan: visits every set flag of a 1,000,000-flag set in which
//   1% of the flags, at random positions, are set: GetFirstSetFlag and then
//   GetNextSetFlag until NPOS. Peer: std::bitset<1000000> holding the same
//   flags, scanned with libstdc++'s _Find_first and _Find_next.
//
// Names are BM_<job>/ours and BM_<job>/peer so that scripts/bench can pair
// them. Items are the set flags found; bytes are the flag words scanned
// (125,000 per pass for both), so either rate gives the same ratio.
#include <benchmark/benchmark.h>

#include <bitset>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <random>
#include <vector>

#include "oru/flag_set.h"

namespace {

constexpr std::size_t FLAGS = 1000000;
constexpr int64_t BYTES_PER_PASS = FLAGS / 8;

using Flags = oru::FlagSet<std::allocator<uint64_t>>;

// The positions of the set flags: each flag with probability 1/100.
const std::vector<uint64_t>& Positions() {
  static const std::vector<uint64_t> positions = [] {
    std::mt19937_64 rng(2024);
    std::bernoulli_distribution pick(0.01);
    std::vector<uint64_t> out;
    for (uint64_t i = 0; i < FLAGS; ++i) {
      if (pick(rng)) out.push_back(i);
    }
    return out;
  }();
  return positions;
}

void BM_FlagSetScan_ours(benchmark::State& state) {
  Flags flags(FLAGS);
  for (const uint64_t i : Positions()) flags.Set(i);
  uint64_t found = 0;
  for (auto _ : state) {
    found = 0;
    for (uint64_t i = flags.GetFirstSetFlag(); i != Flags::NPOS; i = flags.GetNextSetFlag(i)) {
      benchmark::DoNotOptimize(i);
      ++found;
    }
  }
  if (found != Positions().size()) state.SkipWithError("FlagSet scan found the wrong count");
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(found));
  state.SetBytesProcessed(state.iterations() * BYTES_PER_PASS);
}

void BM_FlagSetScan_peer(benchmark::State& state) {
  // 125 KB: too large for the stack.
  auto flags = std::make_unique<std::bitset<FLAGS>>();
  for (const uint64_t i : Positions()) flags->set(i);
  uint64_t found = 0;
  for (auto _ : state) {
    found = 0;
    for (std::size_t i = flags->_Find_first(); i < FLAGS; i = flags->_Find_next(i)) {
      benchmark::DoNotOptimize(i);
      ++found;
    }
  }
  if (found != Positions().size()) state.SkipWithError("bitset scan found the wrong count");
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(found));
  state.SetBytesProcessed(state.iterations() * BYTES_PER_PASS);
}

BENCHMARK(BM_FlagSetScan_ours)->Name("BM_FlagSetScan/ours");
BENCHMARK(BM_FlagSetScan_peer)->Name("BM_FlagSetScan/peer");

}  // namespace
