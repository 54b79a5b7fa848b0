// Symbol and SimplifiedRegex against what a user would otherwise write.
//
// - BM_SymbolIntern: making a Symbol from a std::string whose text is
//   already interned (the common case: names seen before), 1,000,000 texts
//   of 8..40 bytes, and dropping it again. Peer: std::unordered_set
//   <std::string>::find with the same FNV-1a hash over the same texts.
// - BM_SymbolCopy: copying 4096 handles into a new vector and destroying
//   the copies, Symbol against std::shared_ptr<const std::string>.
// - BM_WildcardMatch: "*.txt" over 1,000,000 file names, with the direct
//   wildcard scan and with the regex engine alone. Peer: fnmatch(3).
//
// Rates are items per second (texts, copies, names).
#include <benchmark/benchmark.h>
#include <fnmatch.h>

#include <algorithm>
#include <memory>
#include <random>
#include <string>
#include <unordered_set>
#include <vector>

#include "oru/simplified_regex.h"
#include "oru/symbol.h"

namespace {

constexpr size_t COUNT = 1000000;

const std::vector<std::string>& Texts() {
  static const std::vector<std::string> texts = [] {
    std::mt19937 rng(5);
    std::vector<std::string> out;
    out.reserve(COUNT);
    for (size_t i = 0; i < COUNT; ++i) {
      std::string t = "n" + std::to_string(i) + "/";
      const size_t length = 8 + rng() % 33;
      while (t.size() < length) t += static_cast<char>('a' + rng() % 26);
      t.resize(length);
      out.push_back(std::move(t));
    }
    std::shuffle(out.begin(), out.end(), rng);
    return out;
  }();
  return texts;
}

struct Fnv {
  size_t operator()(const std::string& s) const noexcept {
    return static_cast<size_t>(oru::Symbol::Hash(s.data(), s.size()));
  }
};

void BM_SymbolIntern_ours(benchmark::State& state) {
  const auto& texts = Texts();
  std::vector<oru::Symbol> keep(texts.begin(), texts.end());  // all interned already
  for (auto _ : state) {
    for (const auto& t : texts) {
      oru::Symbol s(t);
      benchmark::DoNotOptimize(s.data());
    }
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * texts.size()));
}

void BM_SymbolIntern_peer(benchmark::State& state) {
  const auto& texts = Texts();
  std::unordered_set<std::string, Fnv> set(texts.begin(), texts.end());
  for (auto _ : state) {
    for (const auto& t : texts) {
      auto it = set.find(t);
      benchmark::DoNotOptimize(it);
    }
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * texts.size()));
}

// Copy-constructs every handle into fresh storage and destroys the copies:
// one reference taken and one dropped per handle, on both sides.
template <class Handle>
void CopyHandles(benchmark::State& state, const std::vector<Handle>& handles) {
  for (auto _ : state) {
    std::vector<Handle> copies(handles);
    benchmark::DoNotOptimize(copies.data());
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * handles.size()));
}

void BM_SymbolCopy_ours(benchmark::State& state) {
  std::vector<oru::Symbol> handles;
  for (size_t i = 0; i < 4096; ++i) handles.emplace_back(Texts()[i]);
  CopyHandles(state, handles);
}

void BM_SymbolCopy_peer(benchmark::State& state) {
  std::vector<std::shared_ptr<const std::string>> handles;
  for (size_t i = 0; i < 4096; ++i)
    handles.push_back(std::make_shared<const std::string>(Texts()[i]));
  CopyHandles(state, handles);
}

const std::vector<std::string>& FileNames() {
  static const std::vector<std::string> names = [] {
    const char* extensions[] = {".txt", ".png", ".bin", ".txt.bak", ".TXT", ".json", ".tx"};
    std::mt19937 rng(11);
    std::vector<std::string> out;
    out.reserve(COUNT);
    for (size_t i = 0; i < COUNT; ++i) {
      std::string n = "file_" + std::to_string(rng() % 100000);
      out.push_back(n + extensions[rng() % 7]);
    }
    return out;
  }();
  return names;
}

void MatchAll(benchmark::State& state, bool fastPath) {
  oru::SimplifiedRegex r;
  r.UseWildcardFastPath(fastPath);
  r.CompileRegex("*.txt", false);
  const auto& names = FileNames();
  size_t hits = 0;
  for (auto _ : state) {
    for (const auto& n : names) hits += r.MatchText(n);
  }
  benchmark::DoNotOptimize(hits);
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * names.size()));
}

void BM_WildcardMatch_scan(benchmark::State& state) {
  MatchAll(state, true);
}
void BM_WildcardMatch_engine(benchmark::State& state) {
  MatchAll(state, false);
}

void BM_WildcardMatch_peer(benchmark::State& state) {
  const auto& names = FileNames();
  size_t hits = 0;
  // fnmatch anchors the pattern, so "*.txt*" asks the same question as the
  // unanchored search for ".txt".
  for (auto _ : state) {
    for (const auto& n : names) hits += fnmatch("*.txt*", n.c_str(), 0) == 0;
  }
  benchmark::DoNotOptimize(hits);
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * names.size()));
}

}  // namespace

BENCHMARK(BM_SymbolIntern_ours)->Name("BM_SymbolIntern/ours")->Unit(benchmark::kMillisecond);
BENCHMARK(BM_SymbolIntern_peer)->Name("BM_SymbolIntern/peer")->Unit(benchmark::kMillisecond);
BENCHMARK(BM_SymbolCopy_ours)->Name("BM_SymbolCopy/ours");
BENCHMARK(BM_SymbolCopy_peer)->Name("BM_SymbolCopy/peer");
BENCHMARK(BM_WildcardMatch_scan)->Name("BM_WildcardMatch/ours_scan")->Unit(benchmark::kMillisecond);
BENCHMARK(BM_WildcardMatch_engine)
    ->Name("BM_WildcardMatch/ours_engine")
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_WildcardMatch_peer)->Name("BM_WildcardMatch/peer")->Unit(benchmark::kMillisecond);
