// SimplifiedRegex: name filters in a wildcard dialect, on the standard
// regular-expression engine; StringSplit: cutting text into tokens.
//
//   oru::SimplifiedRegex filter;
//   filter.CompileRegex("*.txt", /*caseInsensitive=*/true);
//   filter.MatchText("notes.TXT");      // true
//   filter.MatchText("a.txt.bak");      // true: a search, nothing is anchored
//
//   std::vector<std::string> tokens;
//   oru::StringSplit("  a  b\tc ", tokens, nullptr);   // "a", "b", "c"
//
// The dialect: `*` is any run of characters, `?` any one character, and `.`,
// `^` and `$` are literal. Everything else keeps its ECMAScript meaning, so
// `[abc]`, `(x|y)`, `+`, `{2}` and backslash escapes work; `\*` and `\?` give
// the regular-expression operators `*` and `?`. The translated pattern is
// compiled once (std::regex, ECMAScript grammar) and MatchText searches the
// text for it; like the engine's `.`, a wildcard does not match a line
// break ('\n' or '\r').
//
// Patterns that translate to plain wildcards (literals, `*` and `?` only,
// no line break) are matched by a direct scan instead of the engine, with
// the same answers (the engine's case folding included); the engine is
// still compiled, and is used for everything else.
//
// Time: with the GNU C++ library the engine runs in its polynomial mode, so
// a search takes at most time proportional to the text's length squared
// times the pattern's size, whatever the pattern. A pattern with
// back-references (`\1`) is matched by backtracking and can take time
// exponential in the text's length; do not accept those from untrusted users.
//
// Size: the engine compiles and matches recursively, about once per atom and
// per nesting level, so a pattern of tens of thousands of atoms or
// parentheses would overflow the stack. Patterns come from users, so
// CompileRegex rejects, as it rejects any invalid pattern, a pattern longer
// than MAX_PATTERN_LENGTH (1024) bytes, with parentheses nested deeper than
// MAX_NESTING (64), or whose counted repetitions ("a{1000}", which the
// engine spells out) would make it more than twice that long:
// std::regex_error with code error_complexity. At the
// limits, compiling and searching need at most about 150 KiB of stack in a
// debug build (500 KiB under AddressSanitizer), so they fit the smallest
// common default thread stack (1 MiB, Windows').
//
// Ownership: the object owns its compiled expression; it can be moved, not
// copied. Threading: MatchText is const and may run on several threads at
// once; CompileRegex and ClearRegex need the object to themselves.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <regex>
#include <string>
#include <vector>

#include "oru/export.h"
#include "oru/string_span.h"

namespace oru {

class Symbol;

class ORU_API SimplifiedRegex {
public:
  /// Holds an expression that matches no text.
  SimplifiedRegex();
  ~SimplifiedRegex();
  SimplifiedRegex(SimplifiedRegex&&) noexcept;
  SimplifiedRegex& operator=(SimplifiedRegex&&) noexcept;
  SimplifiedRegex(const SimplifiedRegex&) = delete;
  SimplifiedRegex& operator=(const SimplifiedRegex&) = delete;

  static constexpr size_t MAX_PATTERN_LENGTH = 1024;
  static constexpr int MAX_NESTING = 64;

  /// Translates and compiles `pattern`; returns true. A translation the
  /// grammar rejects (an unbalanced `(` or `[`, ...), or a pattern past the
  /// size limits above, throws std::regex_error and leaves the object
  /// matching every text.
  bool CompileRegex(BasicStringSpan<char const> pattern, bool caseInsensitive);
  /// Installs the empty expression: every text matches.
  void ClearRegex();
  /// Always true: the object always holds a usable expression.
  bool IsValid() const { return true; }

  /// True when the expression is found anywhere in the text. Only the first
  /// 2^31 - 1 bytes of a longer text are searched: lengths are taken as
  /// signed 32-bit counts (a length that does not fit reads as its low 32
  /// bits; one that turns negative there searches nothing).
  bool MatchText(const std::string& text) const;
  bool MatchText(const Symbol& text) const;
  /// Up to the terminating NUL; null counts as the empty text.
  bool MatchText(const char* text) const;

  /// Whether CompileRegex may use the direct wildcard scan (default true).
  /// Off, every pattern goes to the engine; for measurements and tests.
  void UseWildcardFastPath(bool enabled) { m_fastPathAllowed = enabled; }
  /// Whether the current expression is matched by the direct scan.
  bool UsesWildcardFastPath() const;

private:
  struct Wildcard;
  bool Match(const char* text, uint64_t length) const;

  std::unique_ptr<std::regex> m_regex;
  std::unique_ptr<Wildcard> m_wildcard;
  bool m_fastPathAllowed = true;
};

/// Appends the tokens of `text` to `out` (not cleared first): the runs of
/// characters between delimiters. `delimiters` lists the delimiter
/// characters; null means space and tab. Runs of delimiters count as one,
/// leading and trailing ones are ignored, and no token is empty.
ORU_API void StringSplit(const std::string& text, std::vector<std::string>& out,
                         const char* delimiters);

}  // namespace oru
