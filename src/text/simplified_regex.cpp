// SimplifiedRegex: the wildcard dialect translated to ECMAScript, matched by
// std::regex, with a direct scan for patterns that are plain wildcards.
#include "oru/simplified_regex.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <locale>
#include <string_view>
#include <vector>

#include "oru/symbol.h"
#include "oru/toolchain.h"

namespace oru {

namespace {

// The user's pattern as an ECMAScript expression: `*` -> `.*`, `?` -> `.`,
// `.` `^` `$` made literal, and a backslash before `*` or `?` turned into the
// operator itself. A pair of backslashes stays a pair and escapes nothing.
std::string Translate(BasicStringSpan<char const> pattern) {
  std::string out;
  out.reserve(pattern.size() * 2);
  bool escaped = false;
  for (char c : pattern) {
    switch (c) {
      case '$':
        out += "\\$";
        break;
      case '^':
        out += "\\^";
        break;
      case '.':
        out += "\\.";
        break;
      case '*':
        if (escaped) {
          out.back() = '*';
        } else {
          out += ".*";
        }
        break;
      case '?':
        if (escaped) {
          out.back() = '?';
        } else {
          out += '.';
        }
        break;
      default:
        out += c;
        break;
    }
    escaped = c == '\\' && !escaped;
  }
  return out;
}

// Characters that keep a regular-expression meaning after translation.
bool IsOperator(char c) {
  return std::strchr("\\|+()[]{}", c) != nullptr && c != '\0';
}

// Whether a pattern stays within what the engine can take without running
// out of stack: the user's pattern's length, and, on its translation, the
// depth of groups and the size once every counted repetition ("{n}",
// "{n,}", "{n,m}") is spelled out, as the engine's compiler does. That size
// counts the translation's characters, a repeated group's (or bracket
// expression's, or character's) as often as it is repeated; without counted
// repetitions it is the translation's length, at most twice the pattern's.
bool WithinLimits(BasicStringSpan<char const> pattern, std::string_view translated) {
  if (pattern.size() > SimplifiedRegex::MAX_PATTERN_LENGTH) return false;
  constexpr uint64_t MAX_EXPANDED = 2 * SimplifiedRegex::MAX_PATTERN_LENGTH;
  std::vector<uint64_t> groups{0};  // sizes of the open groups, outermost first
  uint64_t last = 0;                // size of what a quantifier would repeat
  for (size_t i = 0; i < translated.size(); ++i) {
    const char c = translated[i];
    if (c == '\\' && i + 1 < translated.size()) {
      last = 2;
      ++i;
    } else if (c == '[') {
      const size_t begin = i;
      // ']' right after '[' or "[^" is a member, not the end.
      i += translated.compare(i, 2, "[^") == 0 ? 2 : 1;
      if (i < translated.size() && translated[i] == ']') ++i;
      while (i < translated.size() && translated[i] != ']') i += translated[i] == '\\' ? 2 : 1;
      last = std::min(i, translated.size() - 1) - begin + 1;
    } else if (c == '(') {
      if (groups.size() > static_cast<size_t>(SimplifiedRegex::MAX_NESTING)) return false;
      groups.push_back(1);
      last = 0;
      continue;
    } else if (c == ')' && groups.size() > 1) {
      last = groups.back() + 1;
      groups.pop_back();
    } else if (c == '{') {
      // n, n, or n,m: the largest count is what gets spelled out.
      uint64_t counts[2] = {0, 0};
      int which = 0;
      size_t j = i + 1;
      for (; j < translated.size() && translated[j] != '}'; ++j) {
        if (translated[j] == ',' && which == 0) {
          which = 1;
        } else if (translated[j] >= '0' && translated[j] <= '9') {
          counts[which] = counts[which] * 10 + static_cast<uint64_t>(translated[j] - '0');
          if (counts[which] > MAX_EXPANDED) return false;
        } else {
          break;  // not a counted repetition: the engine rejects it, or it is literal
        }
      }
      if (j < translated.size() && translated[j] == '}') {
        const uint64_t repeat = std::max(counts[0] + (which == 1 ? 1 : 0), counts[1]);
        if (repeat > 1) groups.back() += last * (repeat - 1);
        groups.back() += j - i + 1;
        if (groups.back() > MAX_EXPANDED) return false;
        i = j;
        last = 0;
        continue;
      }
      last = 1;
    } else {
      last = 1;
    }
    groups.back() += last;
    if (groups.back() > MAX_EXPANDED) return false;
  }
  return true;
}

constexpr int ANY = -1;  // a pattern position that takes any character but a line break

bool IsLineBreak(unsigned char c) {
  return c == '\n' || c == '\r';
}

}  // namespace

// A plain wildcard pattern: literal segments (with any-character positions)
// separated by runs of anything. Since neither a literal of the pattern nor
// a wildcard matches a line break, a match lies within one line of the text,
// and within a line taking each segment at its earliest place is never
// worse than a later one.
struct SimplifiedRegex::Wildcard {
  std::vector<std::vector<int>> segments;
  std::array<unsigned char, 256> fold{};
  bool caseSensitive = true;

  static std::unique_ptr<Wildcard> From(BasicStringSpan<char const> pattern, bool caseInsensitive,
                                        const std::locale& locale) {
    auto w = std::make_unique<Wildcard>();
    for (int c = 0; c < 256; ++c) w->fold[c] = static_cast<unsigned char>(c);
    w->caseSensitive = !caseInsensitive;
    if (caseInsensitive) {
      // The engine folds case with the ctype facet of its locale; so do we.
      const auto& ctype = std::use_facet<std::ctype<char>>(locale);
      for (int c = 0; c < 256; ++c) {
        w->fold[c] = static_cast<unsigned char>(ctype.tolower(static_cast<char>(c)));
      }
    }
    std::vector<int> segment;
    for (char ch : pattern) {
      const auto c = static_cast<unsigned char>(ch);
      if (ch == '\\' || IsOperator(ch) || IsLineBreak(c)) return nullptr;
      if (ch == '*') {
        if (!segment.empty()) w->segments.push_back(std::move(segment));
        segment.clear();
      } else if (ch == '?') {
        segment.push_back(ANY);
      } else {
        segment.push_back(w->fold[c]);
      }
    }
    if (!segment.empty()) w->segments.push_back(std::move(segment));
    return w;
  }

  bool SegmentAt(const std::vector<int>& seg, const unsigned char* p) const {
    for (size_t k = 0; k < seg.size(); ++k) {
      if (seg[k] != ANY && seg[k] != fold[p[k]]) return false;
    }
    return true;
  }

  // Whether every segment fits, in order, into the line [begin, end).
  bool MatchLine(const unsigned char* begin, const unsigned char* end) const {
    const unsigned char* pos = begin;
    for (const auto& seg : segments) {
      const size_t m = seg.size();
      if (static_cast<size_t>(end - pos) < m) return false;
      const unsigned char* last = end - m;
      if (seg[0] != ANY && caseSensitive) {
        // Case-sensitive literal start: let memchr find the candidates.
        const auto first = static_cast<unsigned char>(seg[0]);
        for (;;) {
          auto* hit = static_cast<const unsigned char*>(std::memchr(pos, first, last - pos + 1));
          if (hit == nullptr) return false;
          if (SegmentAt(seg, hit)) {
            pos = hit + m;
            break;
          }
          pos = hit + 1;
          if (pos > last) return false;
        }
        continue;
      }
      for (;; ++pos) {
        if (pos > last) return false;
        if (SegmentAt(seg, pos)) break;
      }
      pos += m;
    }
    return true;
  }

  bool Match(const unsigned char* text, size_t length) const {
    if (segments.empty()) return true;
    const unsigned char* end = text + length;
    const unsigned char* line = text;
    for (;;) {
      const unsigned char* lineEnd = line;
      while (lineEnd != end && !IsLineBreak(*lineEnd)) ++lineEnd;
      if (MatchLine(line, lineEnd)) return true;
      if (lineEnd == end) return false;
      line = lineEnd + 1;
    }
  }
};

SimplifiedRegex::SimplifiedRegex() : m_regex(std::make_unique<std::regex>()) {}
SimplifiedRegex::~SimplifiedRegex() = default;
SimplifiedRegex::SimplifiedRegex(SimplifiedRegex&&) noexcept = default;
SimplifiedRegex& SimplifiedRegex::operator=(SimplifiedRegex&&) noexcept = default;

namespace {

// libstdc++'s engine backtracks by default, which takes exponential time on
// nested repetitions such as "(a*)*b" and recurses once per character of
// the text. Its polynomial mode follows all alternatives at once instead:
// the same answers (whether a match exists), in time bounded by the text's
// length squared times the pattern's size, and a stack bounded by the
// pattern. Patterns with back-references still need backtracking; the
// engine picks that by itself.
std::regex::flag_type EngineFlags() {
#if ORU_HAS_POLYNOMIAL_REGEX
  return std::regex::ECMAScript | std::regex_constants::__polynomial;
#else
  return std::regex::ECMAScript;
#endif
}

}  // namespace

bool SimplifiedRegex::CompileRegex(BasicStringSpan<char const> pattern, bool caseInsensitive) {
  ClearRegex();
  auto flags = EngineFlags();
  if (caseInsensitive) flags |= std::regex::icase;
  const std::string translated = Translate(pattern);
  if (!WithinLimits(pattern, translated))
    throw std::regex_error(std::regex_constants::error_complexity);
  *m_regex = std::regex(translated, flags);  // throws std::regex_error on a bad pattern
  if (m_fastPathAllowed) m_wildcard = Wildcard::From(pattern, caseInsensitive, m_regex->getloc());
  return true;
}

void SimplifiedRegex::ClearRegex() {
  m_wildcard.reset();
  if (!m_regex) m_regex = std::make_unique<std::regex>();  // a moved-from object
  *m_regex = std::regex("", EngineFlags());
}

bool SimplifiedRegex::UsesWildcardFastPath() const {
  return m_wildcard != nullptr;
}

bool SimplifiedRegex::Match(const char* text, uint64_t length) const {
  // Lengths are signed 32-bit counts (kept: hosts get the answers they got for 2 GiB texts).
  const auto n = static_cast<int32_t>(static_cast<uint32_t>(length));
  if (n < 0 || !m_regex) return false;
  if (m_wildcard) return m_wildcard->Match(reinterpret_cast<const unsigned char*>(text), n);
  return std::regex_search(text, text + n, *m_regex, std::regex_constants::match_any);
}

bool SimplifiedRegex::MatchText(const std::string& text) const {
  return Match(text.data(), text.size());
}

bool SimplifiedRegex::MatchText(const Symbol& text) const {
  return Match(text.c_str(), text.size());
}

bool SimplifiedRegex::MatchText(const char* text) const {
  if (text == nullptr) text = "";
  return Match(text, std::strlen(text));
}

void StringSplit(const std::string& text, std::vector<std::string>& out, const char* delimiters) {
  std::array<bool, 256> isDelimiter{};
  if (delimiters == nullptr) delimiters = " \t";
  for (const char* d = delimiters; *d != '\0'; ++d)
    isDelimiter[static_cast<unsigned char>(*d)] = true;
  const auto delim = [&](size_t i) { return isDelimiter[static_cast<unsigned char>(text[i])]; };
  size_t i = 0;
  const size_t n = text.size();
  for (;;) {
    while (i < n && delim(i)) ++i;
    if (i >= n) return;
    const size_t start = i;
    while (i < n && !delim(i)) ++i;
    out.emplace_back(text, start, i - start);
  }
}

}  // namespace oru
