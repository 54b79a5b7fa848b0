// SimplifiedRegex: the dialect's translation through its observable
// matches, with the wildcard scan checked against the regex engine, and the
// size limits that keep the engine's recursion off the end of the stack; and
// StringSplit.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <regex>

#include "oru/simplified_regex.h"
#include "oru/symbol.h"
#include "oru/toolchain.h"

namespace oru {
namespace {

// Every case runs with the direct wildcard scan allowed and forbidden.
TEST(SimplifiedRegex, MatchesTheDialect) {
  const struct {
    const char *pattern, *text;
    bool icase, match;
  } cases[] = {
      {"*.txt", "notes.txt", false, true},
      {"*.txt", "a.txt.bak", false, true},  // a search: nothing is anchored
      {"*.txt", "notes_txt", false, false},
      {"a?c", "xabcx", false, true},
      {"a?c", "ac", false, false},
      {"a?c", "a\nc", false, false},  // wildcards stop at line breaks
      {"a*c", "ab\rc", false, false},
      {"a*c", "a\nabc", false, true},
      {"^x$", "a^x$b", false, true},
      {"^x$", "x", false, false},
      {"", "", false, true},
      {"*", "\n", false, true},
      {"?", "\n", false, false},
      {"a\\?c", "c", false, true},    // the expression a?c
      {"ab\\*c", "ac", false, true},  // the expression ab*c
      {"x[0-9]+y", "x123y", false, true},
      {"(cat|dog)s", "hotdogs", false, true},
      {"a\\\\b", "a\\b", false, true},  // a pair of backslashes escapes nothing
      {"ABC", "xabcx", true, true},
      {"ABC", "xabcx", false, false},
      {"*.TXT", "NOTES.txt", true, true},
  };
  for (const bool scan : {false, true}) {
    for (const auto& c : cases) {
      SimplifiedRegex r;
      r.UseWildcardFastPath(scan);
      r.CompileRegex(c.pattern, c.icase);
      EXPECT_EQ(r.MatchText(c.text), c.match) << c.pattern << " on " << c.text << ", " << scan;
      EXPECT_EQ(r.MatchText(Symbol(c.text)), c.match) << c.pattern << " on " << c.text;
      EXPECT_EQ(r.UsesWildcardFastPath(), scan && !std::strpbrk(c.pattern, "\\[(")) << c.pattern;
    }
    SimplifiedRegex r;
    r.UseWildcardFastPath(scan);
    r.CompileRegex("*.txt", false);
    EXPECT_FALSE(r.MatchText(static_cast<const char*>(nullptr)));
    // A pattern the engine rejects leaves the empty expression, which
    // matches everything.
    EXPECT_THROW(r.CompileRegex("(abc", false), std::regex_error);
    EXPECT_THROW(r.CompileRegex("[abc", false), std::regex_error);
    EXPECT_TRUE(r.MatchText("xyz"));
  }
  // A new object matches nothing; a cleared one everything.
  SimplifiedRegex fresh;
  EXPECT_FALSE(fresh.MatchText(""));
  fresh.ClearRegex();
  EXPECT_TRUE(fresh.MatchText("anything"));
}

TEST(SimplifiedRegex, WildcardScanAgreesWithTheEngine) {
  // Random plain-wildcard patterns and texts over a small alphabet with
  // case, line breaks, NUL and high bytes, answered both ways.
  const std::string patternChars = "aAbB*?.$^\x80\xC3\xA9";
  const std::string textChars = std::string("aAbB.$^\n\r\x80\xC3\xA9", 12) + '\0';
  std::mt19937 rng(2024);
  int matches = 0;
  for (int round = 0; round < 4000; ++round) {
    std::string pattern;
    for (size_t n = rng() % 6; n > 0; --n) pattern += patternChars[rng() % patternChars.size()];
    const bool icase = rng() % 2 == 0;
    SimplifiedRegex scan, engine;
    engine.UseWildcardFastPath(false);
    scan.CompileRegex(pattern, icase);
    engine.CompileRegex(pattern, icase);
    ASSERT_TRUE(scan.UsesWildcardFastPath()) << pattern;
    for (int t = 0; t < 8; ++t) {
      std::string text;
      for (size_t n = rng() % 12; n > 0; --n) text += textChars[rng() % textChars.size()];
      const bool expected = engine.MatchText(text);
      ASSERT_EQ(expected, scan.MatchText(text))
          << "pattern \"" << pattern << "\" icase " << icase << " text \"" << text << "\"";
      matches += expected;
    }
  }
  EXPECT_GT(matches, 1000);  // both answers occur often enough to mean something
}

TEST(StringSplit, CutsAtRunsOfDelimiters) {
  const struct {
    const char *text, *delimiters;
    std::vector<std::string> tokens;
  } cases[] = {
      {"  a  b\tc ", nullptr, {"a", "b", "c"}},
      {"", ",", {}},
      {",,", ",", {}},
      {"a,b", ";", {"a,b"}},
      {";x;;y,z", ";,", {"x", "y", "z"}},
      {"\xC3\xA9|\xFF", "|", {"\xC3\xA9", "\xFF"}},  // high bytes are ordinary characters
  };
  for (const auto& c : cases) {
    std::vector<std::string> out = {"kept"}, expected = {"kept"};  // appended, not cleared
    expected.insert(expected.end(), c.tokens.begin(), c.tokens.end());
    StringSplit(c.text, out, c.delimiters);
    EXPECT_EQ(out, expected) << c.text;
  }
}

TEST(SimplifiedRegex, NestedRepetitionsTakePolynomialTime) {
  if (!ORU_HAS_POLYNOMIAL_REGEX)
    GTEST_SKIP() << "this C++ library's regex engine backtracks: the search would not end";
  // A backtracking engine needs about 2^40 steps here; the test would not
  // finish. Answers must stay the engine's.
  SimplifiedRegex r;
  r.CompileRegex("(a\\*)\\*b", false);  // the expression (a*)*b
  EXPECT_FALSE(r.MatchText(std::string(40, 'a')));
  EXPECT_TRUE(r.MatchText(std::string(40, 'a') + "b"));
}

TEST(SimplifiedRegex, PatternsPastTheSizeLimitsAreRejected) {
  // The largest patterns allowed compile and match; a byte or a level more is
  // rejected like an invalid pattern, and the sizes that once overflowed the
  // stack are rejected at once. Parentheses that are escaped or inside
  // brackets, first or after other members, are literal and do not nest.
  const size_t max = SimplifiedRegex::MAX_PATTERN_LENGTH;
  const int depth = SimplifiedRegex::MAX_NESTING;
  std::string starred, literalParens;
  for (size_t i = 0; i < max / 2; ++i) starred += "a*";
  for (int i = 0; i < 42; ++i) literalParens += i % 3 == 0 ? "\\(" : i % 3 == 1 ? "[(]" : "[a(]";
  const std::string nested = std::string(depth, '(') + "a" + std::string(depth, ')');
  const struct {
    std::string pattern, text;  // an empty text: the pattern is rejected
  } cases[] = {
      {starred, std::string(max / 2, 'a')},
      {starred + "a", ""},
      {std::string(max, 'b'), std::string(max, 'b')},
      {std::string(max + 1, 'b'), ""},
      {nested, "a"},
      {"(" + nested + ")", ""},
      {literalParens + nested, std::string(42, '(') + "a"},
      {std::string(50000, '('), ""},
      {std::string(50000, 'a'), ""},
      // Counted repetitions are spelled out by the engine: they count so.
      {"a{2041}b", std::string(2041, 'a') + "b"},
      {"a{2049}", ""},
      {"(ab{10,40}){50}", ""},
      {"a{3,99999999999999999999}", ""},
  };
  for (const auto& c : cases) {
    SimplifiedRegex r;
    if (!c.text.empty()) {
      ASSERT_NO_THROW(r.CompileRegex(c.pattern, false)) << c.pattern.size();
      EXPECT_TRUE(r.MatchText(c.text)) << c.pattern.size();
      continue;
    }
    try {
      r.CompileRegex(c.pattern, false);
      ADD_FAILURE() << "accepted a pattern of " << c.pattern.size() << " bytes";
    } catch (const std::regex_error& e) {
      EXPECT_EQ(e.code(), std::regex_constants::error_complexity);
    }
    EXPECT_TRUE(r.MatchText("x"));  // the reset left the empty expression
  }
}

}  // namespace
}  // namespace oru
