// FlagSet against a model: random operation sequences on sets of many sizes,
// checked flag by flag and scan by scan against std::vector<bool>. Operands
// of other sizes and with other allocators are mixed in, and the resizable
// form's blocks are watched at every step: nothing allocated up to 64 flags,
// one block of ceil(size / 64) words above, every block given back once,
// with its size, to the allocator that the propagation rules say owns it.
#include "oru/flag_set.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>

namespace oru::test {
namespace {

constexpr uint64_t NPOS = ~uint64_t{0};
using Fixed = FlagSet<FixedSize<64>>;
using Resizable = FlagSet<std::allocator<uint64_t>>;
// The storage word and the size, nothing more: the allocator takes no room.
static_assert(sizeof(Resizable) == 2 * sizeof(uint64_t));

// The live blocks of one allocator, and the calls that broke the rules.
struct AllocLog {
  std::map<const uint64_t*, std::size_t> live;
  int allocations = 0, errors = 0;
};

template <bool PROPAGATE>
struct LoggingAllocator {
  using value_type = uint64_t;
  using propagate_on_container_copy_assignment = std::bool_constant<PROPAGATE>;
  using propagate_on_container_move_assignment = std::bool_constant<PROPAGATE>;
  using propagate_on_container_swap = std::bool_constant<PROPAGATE>;
  using is_always_equal = std::false_type;

  explicit LoggingAllocator(AllocLog* l) : log(l) {}
  uint64_t* allocate(std::size_t n) {
    log->errors += n < 2;  // up to 64 flags live inside the set
    uint64_t* p = std::allocator<uint64_t>().allocate(n);
    log->live[p] = n, ++log->allocations;
    return p;
  }
  void deallocate(uint64_t* p, std::size_t n) {
    const auto it = log->live.find(p);
    if (it == log->live.end() || it->second != n) return void(++log->errors);
    log->live.erase(it);
    std::allocator<uint64_t>().deallocate(p, n);
  }
  friend bool operator==(const LoggingAllocator& a, const LoggingAllocator& b) {
    return a.log == b.log;
  }
  AllocLog* log;
};

template <class S>
constexpr bool RESIZABLE = !std::is_same_v<S, Fixed>;

// Every query of `s` agrees with the model `m`.
template <class S>
::testing::AssertionResult Matches(const S& s, const std::vector<bool>& m, std::mt19937_64& rng) {
  const uint64_t n = m.size();
  if (s.size() != n) return ::testing::AssertionFailure() << "size " << s.size() << " not " << n;
  bool any = false;
  for (uint64_t i = 0; i < n; ++i) {
    if (s.IsSet(i) != m[i]) return ::testing::AssertionFailure() << "flag " << i << " differs";
    any = any || m[i];
  }
  if (s.AnySet() != any) return ::testing::AssertionFailure() << "AnySet differs";
  // The set flag after i; NPOS starts at flag 0.
  const auto next = [&](uint64_t i) {
    do ++i;
    while (i < n && !m[i]);
    return i < n ? i : NPOS;
  };
  if (s.GetFirstSetFlag() != next(NPOS)) return ::testing::AssertionFailure() << "first differs";
  // A whole scan, then from random flags (clear ones too), the last flag,
  // past the end, and NPOS - 1.
  std::vector<uint64_t> from = {n ? rng() % n : 0, n ? rng() % n : 0, n - 1, n, NPOS - 1, NPOS};
  for (uint64_t i = s.GetFirstSetFlag(); i != NPOS; i = next(i)) from.push_back(i);
  for (const uint64_t i : from)
    if (s.GetNextSetFlag(i) != next(i))
      return ::testing::AssertionFailure() << "GetNextSetFlag(" << i << ") differs";
  return ::testing::AssertionSuccess();
}

// A set of n flags made with `log`'s allocator, all `fill`.
template <class S>
S Make(uint64_t n, bool fill, AllocLog* log) {
  if constexpr (RESIZABLE<S>) return S(n, fill, typename S::allocator_type(log));
  if constexpr (!RESIZABLE<S>) return S(fill);
}

// Gives every flag of `s` a random value and returns them; sometimes only
// flags set in `super` are set.
template <class S>
std::vector<bool> Randomise(S& s, std::mt19937_64& rng, const std::vector<bool>& super) {
  std::vector<bool> m(s.size());
  const bool subset = rng() % 3 == 0;
  const unsigned density = static_cast<unsigned>(rng() % 4);  // out of 4
  for (uint64_t i = 0; i < m.size(); ++i) {
    m[i] = rng() % 4 < density && (!subset || (i < super.size() && super[i]));
    m[i] ? s.Set(i) : s.Clear(i);
  }
  return m;
}

// Gives `s` a list of random entries, by assign or by the list constructor;
// the model becomes what that makes.
template <class S, std::size_t... I>
void AssignList(S& s, std::vector<bool>& m, std::mt19937_64& rng, std::index_sequence<I...>) {
  const std::vector<bool> v{((void)I, rng() % 2 == 0)...};
  if (rng() % 2) {
    s.assign({static_cast<bool>(v[I])...});
  } else if constexpr (RESIZABLE<S>) {
    s = S({static_cast<bool>(v[I])...}, s.get_allocator());
  } else {
    s = S{static_cast<bool>(v[I])...};
  }
  m = v;
  if (!RESIZABLE<S>) m.resize(64, false);  // entries beyond 64 are dropped
}

// Whole-set operations with another set, and what each does to a flag.
template <class S>
const std::pair<void (*)(S&, const S&), bool (*)(bool, bool)> COMBINE[6] = {
    {[](S& a, const S& b) { a &= b; }, [](bool a, bool b) { return a && b; }},
    {[](S& a, const S& b) { a |= b; }, [](bool a, bool b) { return a || b; }},
    {[](S& a, const S& b) { a.Set(b); }, [](bool a, bool b) { return a || b; }},
    {[](S& a, const S& b) { a ^= b; }, [](bool a, bool b) { return a != b; }},
    {[](S& a, const S& b) { a.Toggle(b); }, [](bool a, bool b) { return a != b; }},
    {[](S& a, const S& b) { a.Clear(b); }, [](bool a, bool b) { return a && !b; }},
};

template <class S, bool PROPAGATE = false>
void RunRandomOperations(uint64_t base, uint64_t seed) {
  std::mt19937_64 rng(seed);
  AllocLog logs[2];
  const auto Other = [&logs](const AllocLog* log) { return log == &logs[0] ? &logs[1] : &logs[0]; };
  {
    AllocLog* owner = &logs[0];  // the log of s's allocator
    S s = Make<S>(base, false, owner);
    std::vector<bool> m(base);
    for (int step = 0; step < 600; ++step) {
      const uint64_t n = m.size();
      const int op = static_cast<int>(rng() % (RESIZABLE<S> ? 12 : 9));
      SCOPED_TRACE("step " + std::to_string(step) + ", operation " + std::to_string(op));
      {  // The other operand: mostly of the same size and allocator.
        const uint64_t size = RESIZABLE<S> && rng() % 4 == 0 ? rng() % (2 * base + 70) : n;
        AllocLog* other = rng() % 4 == 0 ? Other(owner) : owner;
        S o = Make<S>(size, rng() % 2 == 0, other);
        std::vector<bool> om = Randomise(o, rng, m);
        const uint64_t below = std::min(n, size);  // what two sets of different sizes share
        const auto how = rng() % 4;
        switch (op) {
          case 0: {  // one flag: set, clear, invert
            if (n == 0) break;
            const uint64_t i = rng() % n;
            how == 0 ? s.Set(i) : how == 1 ? s.Clear(i) : s.Toggle(i);
            m[i] = how == 0 || (how >= 2 && !m[i]);
            break;
          }
          case 1:  // every flag
            how == 0 ? s.Set() : how == 1 ? s.Clear() : s.Toggle();
            how >= 2 ? m.flip() : m.assign(n, how == 0);
            break;
          case 2: {
            const auto& [call, rule] = COMBINE<S>[rng() % std::size(COMBINE<S>)];
            call(s, o);
            for (uint64_t k = 0; k < below; ++k) m[k] = rule(m[k], om[k]);
            break;
          }
          case 3: {
            bool subset = true;
            for (uint64_t k = 0; k < below; ++k) subset = subset && (!om[k] || m[k]);
            ASSERT_EQ(s.AreSet(o), subset);
            break;
          }
          case 4: {
            const S inverse = ~s;
            auto flipped = m;
            flipped.flip();
            ASSERT_TRUE(Matches(inverse, flipped, rng));
            if (how < 2) s = inverse, m = flipped;
            break;
          }
          case 5:
            s.swap(o);
            std::swap(m, om);
            ASSERT_TRUE(Matches(o, om, rng));
            if (PROPAGATE) owner = other;
            break;
          case 6:  // s becomes a copy of o, in every way there is
            if (how == 0) s = o;
            if (how == 1) s = std::move(o);
            if (how == 2 || (how == 3 && !RESIZABLE<S>)) s = S(o);
            if constexpr (RESIZABLE<S>) {
              // The new set takes s's allocator.
              if (how == 3) s = S(std::move(o), s.get_allocator()), other = owner;
            }
            m = om;
            if (PROPAGATE) owner = other;
            break;
          case 7:
          case 8:
            op == 7 ? AssignList(s, m, rng, std::make_index_sequence<3>())
                    : AssignList(s, m, rng, std::make_index_sequence<65>());
            break;
          default:
            if constexpr (RESIZABLE<S>) {
              const uint64_t to = rng() % 2 ? base : rng() % (2 * base + 70);
              const bool value = how < 2;
              const int allocations = owner->allocations;
              if (op == 9) s.resize(to, value), m.resize(to, value);
              if (op == 10) s.assign(to, value), m.assign(to, value);
              if (op == 11) AssignList(s, m, rng, std::make_index_sequence<130>());
              // The same number of words: the block is kept.
              if (op != 11 && n > 64 && to > 64 && (n + 63) / 64 == (to + 63) / 64)
                ASSERT_EQ(owner->allocations, allocations);
            }
        }
        ASSERT_TRUE(Matches(s, m, rng));
      }
      if constexpr (RESIZABLE<S>) {
        // Only s is left: it alone holds a block, from the allocator it owns.
        ASSERT_EQ(s.get_allocator().log, owner);
        ASSERT_EQ(logs[0].errors + logs[1].errors, 0);
        ASSERT_TRUE(Other(owner)->live.empty());
        ASSERT_EQ(owner->live.size(), m.size() > 64 ? 1u : 0u);
        if (m.size() > 64) ASSERT_EQ(owner->live.begin()->second, (m.size() + 63) / 64);
      }
    }
  }
  EXPECT_TRUE(logs[0].live.empty() && logs[1].live.empty());
  EXPECT_EQ(logs[0].errors + logs[1].errors, 0);
}

TEST(FlagSet, MatchesVectorBoolAtEverySize) {
  for (const uint64_t size : {0, 1, 63, 64, 65, 127, 128, 1000}) {
    SCOPED_TRACE("size " + std::to_string(size));
    RunRandomOperations<FlagSet<LoggingAllocator<false>>>(size, 1000 + size);
    RunRandomOperations<FlagSet<LoggingAllocator<true>>, true>(size, 2000 + size);
  }
  RunRandomOperations<Fixed>(64, 7);
  EXPECT_THROW(Resizable(Resizable::max_size() + 1), std::length_error);
  Resizable r(10, true);
  EXPECT_THROW(r.resize(NPOS), std::length_error);
}

}  // namespace
}  // namespace oru::test
