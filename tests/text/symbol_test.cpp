// Symbol: interning, release, the text operations and ordering, and the
// table under contention.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <numeric>
#include <random>
#include <thread>

#include "oru/symbol.h"

namespace oru {
namespace {

TEST(Symbol, EqualTextsShareOneEntryThatGoesWithTheLastHandle) {
  const uint64_t before = Symbol::GetInternedCount();
  {
    const char text[] = "interned-abc";
    Symbol a(text);
    Symbol b{std::string(text)};
    Symbol c(BasicStringSpan<char const>(text, 12));
    EXPECT_EQ(a.data(), b.data());
    EXPECT_EQ(a.data(), c.data());
    EXPECT_NE(static_cast<const void*>(text), a.data());
    EXPECT_EQ(before + 1, Symbol::GetInternedCount());
    EXPECT_NE(a, Symbol("interned-abd"));
    // Assigning a symbol's own text to it must not free it on the way.
    b = b.c_str();
    EXPECT_EQ("interned-abc", std::string(b));
    c = BasicStringSpan<char const>(text, 11);
    EXPECT_EQ("interned-ab", std::string(c));
    a.clear();
    c = Symbol::EMPTY;
    EXPECT_EQ(before + 1, Symbol::GetInternedCount());
  }
  EXPECT_EQ(before, Symbol::GetInternedCount());
}

TEST(Symbol, EmptyTextsHashAndOrder) {
  for (const Symbol& s : {Symbol(""), Symbol(static_cast<const char*>(nullptr)),
                          Symbol(std::string()), Symbol(BasicStringSpan<char const>())}) {
    EXPECT_EQ(Symbol::EMPTY, s);
    EXPECT_STREQ("", s.c_str());
    EXPECT_TRUE(s == "" && std::string() == s);
  }
  EXPECT_TRUE(DualSymbol::EMPTY.empty());
  // FNV-1a over every byte.
  EXPECT_EQ(0xAF63DC4C8601EC8Cull, Symbol("a").GetHash());
  EXPECT_EQ(0x85944171F73967E8ull, Symbol("foobar").GetHash());
  EXPECT_EQ(0xCBF29CE484222325ull, Symbol::Hash("", 0));
  const Symbol withNul(std::string("a\0b", 3));
  EXPECT_EQ(3u, withNul.size());
  EXPECT_NE(Symbol("a").GetHash(), withNul.GetHash());
  // Unsigned bytes, the shorter text first.
  const std::pair<Symbol, Symbol> ordered[] = {{"ab", "abc"},
                                               {"abc", "abd"},
                                               {Symbol(), "a"},
                                               {"z", "\x80"},  // 0x80 sorts after letters
                                               {"a", Symbol(std::string("a\0", 2))}};
  for (const auto& [a, b] : ordered) EXPECT_TRUE(a < b && !(b < a)) << a;
  EXPECT_FALSE(Symbol() < Symbol() || Symbol("b") < Symbol("b"));
}

TEST(Symbol, TextOperationsFollowStdString) {
  const Symbol s("path/to/file.tar.gz");
  const std::string t(s);
  for (char c : {'/', '.', 'z', 'q'}) {
    EXPECT_EQ(t.find(c), s.find(c)) << c;
    EXPECT_EQ(t.find(c, 5), s.find(c, 5)) << c;
    EXPECT_EQ(t.rfind(c), s.rfind(c)) << c;
    EXPECT_EQ(t.rfind(c, 6), s.rfind(c, 6)) << c;
  }
  EXPECT_EQ(t.find("to"), s.find("to"));
  EXPECT_EQ(Symbol::npos, s.find("nope"));
  EXPECT_EQ(Symbol::npos, s.find(static_cast<const char*>(nullptr)));
  EXPECT_EQ(Symbol::npos, Symbol().find('a'));
  EXPECT_EQ("file", s.substr(8, 4));
  EXPECT_EQ("", s.substr(s.size()));
  EXPECT_THROW(s.substr(s.size() + 1), std::out_of_range);
  EXPECT_TRUE(s == t && t == s && s == t.c_str() && t.c_str() == s);
  EXPECT_FALSE(s == "path/to/file.tar.g" || s == static_cast<const char*>(nullptr));

  std::ostringstream out;
  out << Symbol("hello") << '|';
  Symbol("world").Print(out);
  EXPECT_EQ("hello|world", out.str());
  std::istringstream in("  first");
  Symbol word;
  word.Read(in);
  word.Read(in);  // nothing left: unchanged
  EXPECT_EQ(Symbol("first"), word);
}

TEST(Symbol, TableSurvivesGrowthAndRemovalInAnyOrder) {
  // Enough texts to grow every shard several times, then removal in random
  // order, checking that every survivor is still found as itself.
  const uint64_t before = Symbol::GetInternedCount();
  std::vector<std::string> texts;
  for (int i = 0; i < 20000; ++i) texts.push_back("text-" + std::to_string(i * 7919));
  std::vector<Symbol> held(texts.begin(), texts.end());
  EXPECT_EQ(before + 20000, Symbol::GetInternedCount());
  std::vector<size_t> order(held.size());
  std::iota(order.begin(), order.end(), 0);
  std::shuffle(order.begin(), order.end(), std::mt19937(7));
  for (size_t k = 0; k < order.size(); ++k) {
    held[order[k]].clear();
    for (size_t j = k + 1; k % 997 == 0 && j < order.size(); j += 13)
      ASSERT_EQ(held[order[j]], Symbol(texts[order[j]])) << texts[order[j]];
  }
  EXPECT_EQ(before, Symbol::GetInternedCount());
}

TEST(Symbol, InterningAndReleaseAreSafeUnderContention) {
  Symbol::EnableLocking();
  std::vector<std::string> texts;
  for (int i = 0; i < 300; ++i) texts.push_back("shared-" + std::to_string(i));
  const uint64_t before = Symbol::GetInternedCount();
  std::atomic<bool> failed{false};
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(2);
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([&, t] {
      std::mt19937 rng(t);
      std::vector<Symbol> mine(16);
      for (int i = 0; i < 400000 && std::chrono::steady_clock::now() < deadline; ++i) {
        const std::string& text = texts[rng() % texts.size()];
        Symbol s(text);
        Symbol& slot = mine[rng() % mine.size()];
        // A symbol held by another thread is never freed under it: its
        // text stays intact and it stays the one entry for that text.
        if (!slot.empty() && !(slot == Symbol(std::string(slot)))) failed = true;
        if (!(s == text)) failed = true;
        slot = (i % 3 == 0) ? Symbol() : s;
      }
    });
  }
  for (auto& th : threads) th.join();
  EXPECT_FALSE(failed);
  EXPECT_EQ(before, Symbol::GetInternedCount());
}

}  // namespace
}  // namespace oru
