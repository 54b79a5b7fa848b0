// FlagSet: scans and masking at word boundaries, sets of different sizes,
// random operation sequences checked against std::vector<bool>, and the
// resizable form's use of its allocator (no allocation up to 64 flags, every
// block given back once, with its size).
#include "oru/flag_set.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <random>
#include <string>
#include <utility>
#include <vector>

namespace oru::test {
namespace {

using Fixed = FlagSet<FixedSize<64>>;
using Resizable = FlagSet<std::allocator<uint64_t>>;
constexpr uint64_t NPOS = ~uint64_t{0};

// The storage word and the size, nothing more: the allocator takes no room.
static_assert(sizeof(Resizable) == 2 * sizeof(uint64_t));

template <class S>
std::vector<uint64_t> Scan(const S& s) {
  std::vector<uint64_t> found;
  for (uint64_t i = s.GetFirstSetFlag(); i != NPOS && found.size() <= s.size();
       i = s.GetNextSetFlag(i)) {
    found.push_back(i);
  }
  return found;
}

std::vector<uint64_t> Range(uint64_t from, uint64_t to) {
  std::vector<uint64_t> out;
  for (uint64_t i = from; i < to; ++i) out.push_back(i);
  return out;
}

// Every query of `s` agrees with the model `m`.
template <class S>
::testing::AssertionResult Matches(const S& s, const std::vector<bool>& m, std::mt19937_64& rng) {
  if (s.size() != m.size()) {
    return ::testing::AssertionFailure() << "size " << s.size() << ", expected " << m.size();
  }
  std::vector<uint64_t> expected;
  for (uint64_t i = 0; i < m.size(); ++i) {
    if (s.IsSet(i) != m[i]) return ::testing::AssertionFailure() << "flag " << i << " differs";
    if (m[i]) expected.push_back(i);
  }
  if (Scan(s) != expected) return ::testing::AssertionFailure() << "scan differs";
  if (s.AnySet() != !expected.empty()) return ::testing::AssertionFailure() << "AnySet differs";
  for (int k = 0; k < 4 && !m.empty(); ++k) {  // scans from clear flags too
    const uint64_t from = rng() % m.size();
    uint64_t want = from + 1;
    while (want < m.size() && !m[want]) ++want;
    if (s.GetNextSetFlag(from) != (want < m.size() ? want : NPOS)) {
      return ::testing::AssertionFailure() << "GetNextSetFlag(" << from << ") differs";
    }
  }
  if (s.GetNextSetFlag(m.size()) != NPOS) return ::testing::AssertionFailure() << "past the end";
  return ::testing::AssertionSuccess();
}

template <class S>
S Make(uint64_t n) {
  if constexpr (std::is_same_v<S, Fixed>) {
    return S();
  } else {
    return S(n);
  }
}

// A random set of size n and its model; sometimes a subset of `super`.
template <class S>
std::pair<S, std::vector<bool>> Random(uint64_t n, std::mt19937_64& rng,
                                       const std::vector<bool>& super) {
  S s = Make<S>(n);
  std::vector<bool> m(n);
  const bool subset = rng() % 3 == 0;
  const unsigned density = static_cast<unsigned>(rng() % 4);  // out of 4
  for (uint64_t i = 0; i < n; ++i) {
    m[i] = (rng() % 4 < density) && (!subset || super[i]);
    if (m[i]) s.Set(i);
  }
  return {std::move(s), std::move(m)};
}

// Assigns a list of L random entries; the model becomes what assign makes.
template <class S, std::size_t... I>
void AssignList(S& s, std::vector<bool>& m, std::mt19937_64& rng, std::index_sequence<I...>) {
  const std::vector<bool> v{((void)I, rng() % 2 == 0)...};
  s.assign({static_cast<bool>(v[I])...});
  m = v;
  if (std::is_same_v<S, Fixed>) m.resize(64, false);  // entries beyond 64 are dropped
}

template <class S>
void RunRandomOperations(uint64_t base, uint64_t seed) {
  constexpr bool RESIZABLE = !std::is_same_v<S, Fixed>;
  std::mt19937_64 rng(seed);
  S s = Make<S>(base);
  std::vector<bool> m(base);
  for (int step = 0; step < 600; ++step) {
    const uint64_t n = m.size();
    const uint64_t i = n == 0 ? 0 : rng() % n;
    auto [o, om] = Random<S>(n, rng, m);
    const int op = static_cast<int>(rng() % (RESIZABLE ? 19 : 16));
    // Applies f(flag here, flag in o) to the model, flag by flag.
    const auto zip = [&](auto f) {
      for (uint64_t k = 0; k < n; ++k) m[k] = f(m[k], om[k]);
    };
    switch (op) {
      case 0:
      case 1:
      case 2:  // one flag: set, clear, invert
        if (n == 0) break;
        op == 0 ? s.Set(i) : op == 1 ? s.Clear(i) : s.Toggle(i);
        m[i] = op == 0 || (op == 2 && !m[i]);
        break;
      case 3:
      case 4:
      case 5:  // every flag
        op == 3 ? s.Set() : op == 4 ? s.Clear() : s.Toggle();
        op == 5 ? m.flip() : m.assign(n, op == 3);
        break;
      case 6:
        s &= o;
        zip([](bool a, bool b) { return a && b; });
        break;
      case 7:
        rng() % 2 ? s |= o : s.Set(o);
        zip([](bool a, bool b) { return a || b; });
        break;
      case 8:
        rng() % 2 ? s ^= o : s.Toggle(o);
        zip([](bool a, bool b) { return a != b; });
        break;
      case 9:
        s.Clear(o);
        zip([](bool a, bool b) { return a && !b; });
        break;
      case 10: {
        bool subset = true;
        for (uint64_t k = 0; k < n; ++k) subset = subset && (!om[k] || m[k]);
        ASSERT_EQ(s.AreSet(o), subset) << "step " << step;
        break;
      }
      case 11: {
        const S inverse = ~s;
        auto flipped = m;
        flipped.flip();
        ASSERT_TRUE(Matches(inverse, flipped, rng)) << "step " << step;
        if (rng() % 2) {
          s = inverse;
          m = flipped;
        }
        break;
      }
      case 12: {
        s.swap(o);
        std::swap(m, om);
        ASSERT_TRUE(Matches(o, om, rng)) << "step " << step;
        break;
      }
      case 13: {  // copy, move, and both assignments
        S copy(s);
        S moved(std::move(copy));
        o = moved;
        s = std::move(o);
        break;
      }
      case 14:
        AssignList(s, m, rng, std::make_index_sequence<3>());
        break;
      case 15:
        AssignList(s, m, rng, std::make_index_sequence<65>());
        break;
      default:
        if constexpr (RESIZABLE) {
          const uint64_t to = rng() % 2 ? base : rng() % (2 * base + 70);
          const bool value = rng() % 2 == 0;
          if (op == 16) {
            s.resize(to, value);
            m.resize(to, value);
          } else if (op == 17) {
            s.assign(to, value);
            m.assign(to, value);
          } else {
            AssignList(s, m, rng, std::make_index_sequence<130>());
          }
        }
    }
    ASSERT_TRUE(Matches(s, m, rng)) << "step " << step << ", operation " << op;
  }
}

TEST(FlagSetRandom, MatchesVectorBoolAtEverySize) {
  for (const uint64_t size : {0, 1, 63, 64, 65, 127, 128, 1000}) {
    SCOPED_TRACE("size " + std::to_string(size));
    RunRandomOperations<Resizable>(size, 1000 + size);
  }
  RunRandomOperations<Fixed>(64, 7);
}

TEST(FlagSetFixed, EdgeCases) {
  const Fixed all(true);
  EXPECT_EQ(Scan(all), Range(0, 64));
  EXPECT_EQ(all.GetNextSetFlag(62), 63u);
  EXPECT_EQ(all.GetNextSetFlag(63), NPOS);
  EXPECT_EQ(all.GetNextSetFlag(NPOS), 0u);
  EXPECT_TRUE(all.AreSet(Fixed()));

  Fixed s(true);
  s.assign({true, false, true});
  EXPECT_EQ(Scan(s), (std::vector<uint64_t>{0, 2}));
  EXPECT_EQ(s.GetNextSetFlag(0), 2u);  // never i itself
  EXPECT_EQ(s.GetNextSetFlag(2), NPOS);
  EXPECT_EQ(Fixed().GetFirstSetFlag(), NPOS);
  EXPECT_EQ(Scan(Fixed{true}), std::vector<uint64_t>{0});  // braces: the list constructor
}

TEST(FlagSetResizable, BitsBeyondTheSizeNeverShow) {
  const Resizable full(70, true);
  EXPECT_EQ(Scan(full), Range(0, 70));
  EXPECT_EQ(full.GetNextSetFlag(69), NPOS);

  Resizable r(128);
  for (uint64_t i = 70; i < 128; ++i) r.Set(i);
  r.resize(70);
  EXPECT_FALSE(r.AnySet());
  EXPECT_EQ(r.GetFirstSetFlag(), NPOS);

  // Whole-set operations on a partial last word must not spill past the size.
  for (const uint64_t n : {5, 70}) {
    Resizable a(n), b(n), c(n), d(n), e(n, false);
    a.Set();
    b.Toggle();
    c = ~d;
    e |= Resizable(300, true);
    for (Resizable* x : {&a, &b, &c, &e}) {
      x->resize(n + 64, false);
      EXPECT_EQ(Scan(*x), Range(0, n)) << n;
    }
  }
}

TEST(FlagSetResizable, ScansStopAtTheLastFlag) {
  for (const uint64_t n : {1, 63, 64, 65, 128, 129}) {
    Resizable r(n);
    r.Set(n - 1);
    EXPECT_EQ(r.GetFirstSetFlag(), n - 1) << n;
    EXPECT_EQ(r.GetNextSetFlag(NPOS), n - 1) << n;
    EXPECT_EQ(r.GetNextSetFlag(n - 1), NPOS) << n;
    EXPECT_EQ(r.GetNextSetFlag(NPOS - 1), NPOS) << n;
    r.Clear(n - 1).Set(0);
    EXPECT_EQ(r.GetNextSetFlag(0), NPOS) << n;
  }
  EXPECT_EQ(Resizable().GetFirstSetFlag(), NPOS);
  EXPECT_TRUE(Resizable().AreSet(Resizable()));
  EXPECT_TRUE(Resizable(100).AreSet(Resizable()));
}

TEST(FlagSetResizable, DifferentSizesCombineBelowTheSmaller) {
  Resizable big(200, true), small(70);
  small.Set(3);
  big &= small;  // flags 70..199 stay
  std::vector<uint64_t> expected = Range(70, 200);
  expected.insert(expected.begin(), 3);
  EXPECT_EQ(Scan(big), expected);
  big.Clear(Resizable(100, true));
  EXPECT_EQ(Scan(big), Range(100, 200));
  small ^= Resizable(200, true);  // no flag appears beyond 70
  expected = Range(0, 70);
  expected.erase(expected.begin() + 3);
  EXPECT_EQ(Scan(small), expected);
  Resizable hint(200);
  hint.Set(100);
  EXPECT_TRUE(Resizable(70).AreSet(hint));  // flag 100 lies beyond the smaller size
  hint.Set(10);
  EXPECT_FALSE(Resizable(70).AreSet(hint));
}

TEST(FlagSetResizable, ResizeKeepsFlagsAndFillsNewOnes) {
  Resizable r{true, false, true};
  EXPECT_EQ(r.size(), 3u);
  r.resize(130, true);
  std::vector<uint64_t> expected = Range(2, 130);
  expected.insert(expected.begin(), 0);
  EXPECT_EQ(Scan(r), expected);
  r.resize(3);
  r.resize(130, false);
  EXPECT_EQ(Scan(r), (std::vector<uint64_t>{0, 2}));
  r.resize(0);
  EXPECT_TRUE(r.empty());
  EXPECT_EQ(r.GetFirstSetFlag(), NPOS);
  EXPECT_THROW(Resizable(Resizable::max_size() + 1), std::length_error);
  EXPECT_THROW(r.resize(NPOS), std::length_error);
}

// Records every block: a deallocation must name a live block with its size.
struct AllocLog {
  std::map<const uint64_t*, std::size_t> live;
  int allocations = 0;
  std::vector<std::string> errors;
};

template <bool PROPAGATE>
struct CountingAllocator {
  using value_type = uint64_t;
  using propagate_on_container_copy_assignment = std::bool_constant<PROPAGATE>;
  using propagate_on_container_move_assignment = std::bool_constant<PROPAGATE>;
  using propagate_on_container_swap = std::bool_constant<PROPAGATE>;
  using is_always_equal = std::false_type;

  explicit CountingAllocator(AllocLog* l) : log(l) {}
  uint64_t* allocate(std::size_t n) {
    uint64_t* p = std::allocator<uint64_t>().allocate(n);
    log->live[p] = n;
    ++log->allocations;
    return p;
  }
  void deallocate(uint64_t* p, std::size_t n) {
    const auto it = log->live.find(p);
    if (it == log->live.end() || it->second != n) {
      log->errors.push_back("bad deallocate of " + std::to_string(n) + " words");
      return;
    }
    log->live.erase(it);
    std::allocator<uint64_t>().deallocate(p, n);
  }
  friend bool operator==(const CountingAllocator& a, const CountingAllocator& b) {
    return a.log == b.log;
  }
  AllocLog* log;
};

TEST(FlagSetAllocator, UpTo64FlagsNeverAllocate) {
  AllocLog log;
  const CountingAllocator<false> alloc(&log);
  using Set = FlagSet<CountingAllocator<false>>;
  for (const uint64_t n : {0, 1, 63, 64}) {
    Set a(n, true, alloc), b(n, alloc);
    Set c(a), d(std::move(b), alloc), e({true, false}, alloc);
    c.resize(n / 2, true);
    c.resize(64, true);
    d = ~a;
    d.swap(e);
    e.assign(n, false);
    EXPECT_EQ(Scan(a), Range(0, n));
  }
  EXPECT_EQ(log.allocations, 0);
}

TEST(FlagSetAllocator, EveryBlockIsReturnedOnce) {
  AllocLog log;
  const CountingAllocator<false> alloc(&log);
  using Set = FlagSet<CountingAllocator<false>>;
  {
    Set a(10, true, alloc);
    a.resize(65, true);
    a.resize(1000, false);
    ASSERT_EQ(log.live.size(), 1u);
    EXPECT_EQ(log.live.begin()->second, 16u);  // ceil(1000 / 64) words
    const int before = log.allocations;
    a.resize(1020, true);  // same word count: in place
    EXPECT_EQ(log.allocations, before);
    Set b(a), c(200, alloc);
    const int copies = log.allocations;
    b.assign(1001, false);  // same word count: the block is reused
    c = Set(250, true, alloc);
    EXPECT_EQ(log.allocations, copies + 1);
    c = b;
    c = std::move(a);
    a.resize(70);  // a moved-from set is empty and usable
    b.swap(c);
    b.resize(64);
    c = ~b;
    a.assign(300, true);
    EXPECT_EQ(Scan(a), Range(0, 300));
  }
  EXPECT_TRUE(log.live.empty());
  EXPECT_TRUE(log.errors.empty()) << log.errors.front();
}

TEST(FlagSetAllocator, UnequalAllocatorsFollowTheirPropagation) {
  AllocLog mine, theirs;
  {
    using Set = FlagSet<CountingAllocator<false>>;
    Set a(100, CountingAllocator<false>(&mine)), b(300, true, CountingAllocator<false>(&theirs));
    a = std::move(b);  // no propagation: copied into a's allocator
    EXPECT_EQ(a.get_allocator().log, &mine);
    EXPECT_EQ(mine.live.size(), 1u);
    Set c(200, true, CountingAllocator<false>(&theirs));
    c.Clear(5);
    a.swap(c);
    EXPECT_EQ(a.get_allocator().log, &mine);
    EXPECT_EQ(a.size(), 200u);
    EXPECT_FALSE(a.IsSet(5));
    EXPECT_EQ(Scan(c), Range(0, 300));
  }
  {
    using Set = FlagSet<CountingAllocator<true>>;
    Set a(100, CountingAllocator<true>(&mine)), b(300, true, CountingAllocator<true>(&theirs));
    const int before = theirs.allocations;
    a = std::move(b);  // propagates: takes b's block
    EXPECT_EQ(a.get_allocator().log, &theirs);
    EXPECT_EQ(theirs.allocations, before);
    Set c(70, CountingAllocator<true>(&mine));
    c = a;
    EXPECT_EQ(c.get_allocator().log, &theirs);
    c.swap(a);
    EXPECT_EQ(Scan(c), Range(0, 300));
  }
  for (AllocLog* log : {&mine, &theirs}) {
    EXPECT_TRUE(log->live.empty());
    EXPECT_TRUE(log->errors.empty()) << log->errors.front();
  }
}

}  // namespace
}  // namespace oru::test
