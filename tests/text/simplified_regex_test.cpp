// SimplifiedRegex: the dialect's translation through its observable
// matches, with the wildcard scan checked against the regex engine; and
// StringSplit.
#include <gtest/gtest.h>

#include <random>
#include <regex>
#include <string>
#include <vector>

#include "oru/simplified_regex.h"
#include "oru/toolchain.h"
#include "oru/symbol.h"

namespace oru {
namespace {

// Every case runs with the direct wildcard scan allowed and forbidden.
class SimplifiedRegexTest : public ::testing::TestWithParam<bool> {
protected:
  SimplifiedRegex Compile(const std::string& pattern, bool caseInsensitive = false) {
    SimplifiedRegex r;
    r.UseWildcardFastPath(GetParam());
    r.CompileRegex(pattern, caseInsensitive);
    return r;
  }
};

TEST_P(SimplifiedRegexTest, WildcardsSearchAnywhere) {
  auto r = Compile("*.txt");
  EXPECT_EQ(GetParam(), r.UsesWildcardFastPath());
  EXPECT_TRUE(r.MatchText("notes.txt"));
  EXPECT_TRUE(r.MatchText("a.txt.bak"));
  EXPECT_FALSE(r.MatchText("notes_txt"));
  EXPECT_TRUE(r.MatchText(Symbol("x.txt")));
  EXPECT_FALSE(r.MatchText(Symbol()));
  EXPECT_FALSE(r.MatchText(static_cast<const char*>(nullptr)));

  EXPECT_TRUE(Compile("a?c").MatchText("xabcx"));
  EXPECT_FALSE(Compile("a?c").MatchText("ac"));
  EXPECT_FALSE(Compile("a?c").MatchText("a\nc"));  // wildcards stop at line breaks
  EXPECT_FALSE(Compile("a*c").MatchText("ab\rc"));
  EXPECT_TRUE(Compile("a*c").MatchText("a\nabc"));
  auto anchors = Compile("^x$");
  EXPECT_TRUE(anchors.MatchText("a^x$b"));
  EXPECT_FALSE(anchors.MatchText("x"));
  EXPECT_TRUE(Compile("").MatchText(""));
  EXPECT_TRUE(Compile("*").MatchText("\n"));
  EXPECT_FALSE(Compile("?").MatchText("\n"));
}

TEST_P(SimplifiedRegexTest, EscapesAndOperatorsReachTheEngine) {
  EXPECT_TRUE(Compile("a\\?c").MatchText("c"));    // the expression a?c
  EXPECT_TRUE(Compile("ab\\*c").MatchText("ac"));  // the expression ab*c
  EXPECT_TRUE(Compile("x[0-9]+y").MatchText("x123y"));
  EXPECT_FALSE(Compile("x[0-9]+y").MatchText("xy"));
  EXPECT_TRUE(Compile("(cat|dog)s").MatchText("hotdogs"));
  EXPECT_TRUE(Compile("a\\\\b").MatchText("a\\b"));  // a pair of backslashes escapes nothing
  EXPECT_FALSE(Compile("[a]").UsesWildcardFastPath());
}

TEST_P(SimplifiedRegexTest, CaseInsensitiveOnlyWhenAsked) {
  EXPECT_TRUE(Compile("ABC", true).MatchText("xabcx"));
  EXPECT_FALSE(Compile("ABC", false).MatchText("xabcx"));
  EXPECT_TRUE(Compile("*.TXT", true).MatchText("NOTES.txt"));
}

TEST_P(SimplifiedRegexTest, NewClearedAndFailedStates) {
  SimplifiedRegex fresh;
  EXPECT_TRUE(fresh.IsValid());
  EXPECT_FALSE(fresh.MatchText(""));
  EXPECT_FALSE(fresh.MatchText("anything"));
  fresh.ClearRegex();
  EXPECT_TRUE(fresh.MatchText(""));
  EXPECT_TRUE(fresh.MatchText("anything"));

  SimplifiedRegex r;
  r.UseWildcardFastPath(GetParam());
  r.CompileRegex("abc", false);
  EXPECT_THROW(r.CompileRegex("(abc", false), std::regex_error);
  EXPECT_THROW(r.CompileRegex("[abc", false), std::regex_error);
  EXPECT_TRUE(r.MatchText("xyz"));  // the reset left the empty expression
  EXPECT_TRUE(r.IsValid());
}

INSTANTIATE_TEST_SUITE_P(FastPath, SimplifiedRegexTest, ::testing::Bool(),
                         [](const auto& info) { return info.param ? "Scan" : "Engine"; });

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
  std::vector<std::string> out = {"kept"};
  StringSplit("  a  b\tc ", out, nullptr);
  EXPECT_EQ((std::vector<std::string>{"kept", "a", "b", "c"}), out);
  out.clear();
  StringSplit("", out, ",");
  StringSplit(",,", out, ",");
  EXPECT_TRUE(out.empty());
  StringSplit("a,b", out, ";");
  EXPECT_EQ(std::vector<std::string>{"a,b"}, out);
  out.clear();
  StringSplit(";x;;y,z", out, ";,");
  EXPECT_EQ((std::vector<std::string>{"x", "y", "z"}), out);
  out.clear();
  StringSplit("\xC3\xA9|\xFF", out, "|");  // high bytes are ordinary characters
  EXPECT_EQ((std::vector<std::string>{"\xC3\xA9", "\xFF"}), out);
}

}  // namespace
}  // namespace oru

namespace oru {
namespace {

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
  // brackets are literal and do not nest.
  const size_t max = SimplifiedRegex::MAX_PATTERN_LENGTH;
  const int depth = SimplifiedRegex::MAX_NESTING;
  std::string starred, literalParens;
  for (size_t i = 0; i < max / 2; ++i) starred += "a*";
  for (int i = 0; i < 40; ++i) literalParens += i % 2 ? "\\(" : "[(]";
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
      {literalParens + nested, std::string(40, '(') + "a"},
      {std::string(50000, '('), ""},
      {std::string(50000, 'a'), ""},
      // Counted repetitions are spelled out by the engine: they count so.
      {"a{1000}b", std::string(1000, 'a') + "b"},
      {"a{3000}", ""},
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

TEST(SimplifiedRegex, AgreesWithTheDefaultBacktrackingEngine) {
  // Random small expressions with operators, against std::regex in its
  // default mode: the polynomial mode must not change any answer.
  const std::string chars = "ab*?.()|[]+\\{}2,";
  const std::string textChars = "aab.\n";
  std::mt19937 rng(99);
  int compiled = 0;
  for (int round = 0; round < 3000; ++round) {
    std::string pattern;
    for (size_t n = 1 + rng() % 6; n > 0; --n) pattern += chars[rng() % chars.size()];
    SimplifiedRegex ours;
    try {
      ours.CompileRegex(pattern, false);
    } catch (const std::regex_error&) {
      continue;
    }
    // The same translation, checked through observable answers only: a
    // pattern without wildcards, anchors or dots translates to itself.
    if (pattern.find_first_of("*?.$^") != std::string::npos) continue;
    std::regex reference;
    try {
      reference = std::regex(pattern, std::regex::ECMAScript);
    } catch (const std::regex_error&) {
      ADD_FAILURE() << "only the reference rejects " << pattern;
      continue;
    }
    ++compiled;
    for (int t = 0; t < 6; ++t) {
      std::string text;
      for (size_t n = rng() % 8; n > 0; --n) text += textChars[rng() % textChars.size()];
      ASSERT_EQ(std::regex_search(text, reference, std::regex_constants::match_any),
                ours.MatchText(text))
          << "pattern \"" << pattern << "\" text \"" << text << "\"";
    }
  }
  EXPECT_GT(compiled, 300);
}

}  // namespace
}  // namespace oru
