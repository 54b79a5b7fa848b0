// SimplifiedRegex over arbitrary patterns and texts, up to twice the size
// limit: a rejected pattern (std::regex_error) is an expected outcome; a
// crash (a stack overflow included) or a hang is not.
// Whenever the pattern is a plain wildcard, the direct scan must give the
// engine's answer.
//
// Input: one flag byte, the pattern, a NUL, the text. Patterns with
// back-references are skipped: the engine matches those by backtracking,
// which takes exponential time by nature.
#include <oru/simplified_regex.h>

#include <cstdint>
#include <cstring>
#include <regex>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1 || size > 8192) return 0;
  const bool icase = data[0] & 1;
  const char* begin = reinterpret_cast<const char*>(data + 1);
  const char* end = reinterpret_cast<const char*>(data + size);
  const char* split = static_cast<const char*>(std::memchr(begin, 0, end - begin));
  if (split == nullptr) split = end;
  const std::string pattern(begin, split);
  std::string text(split == end ? end : split + 1, end);
  // Patterns reach past the size limits. The engine's search takes time up
  // to the text's length squared times the pattern's, as documented: texts
  // are cut so that this stays within the fuzzer's time-out, and what is
  // left to find is a hang beyond that bound (a backtracking blow-up).
  if (pattern.size() > 2 * oru::SimplifiedRegex::MAX_PATTERN_LENGTH) return 0;
  // A counted repetition ("{1000}") multiplies the engine's program up to
  // twice the pattern limit: such patterns search short texts only.
  const size_t programSize = pattern.find('{') != std::string::npos
                                 ? 2 * oru::SimplifiedRegex::MAX_PATTERN_LENGTH
                                 : pattern.size();
  const size_t budget = 2'000'000 / (programSize + 1);
  while (text.size() * text.size() > budget) text.resize(text.size() / 2);
  for (size_t i = 0; i + 1 < pattern.size(); ++i) {
    if (pattern[i] == '\\' && pattern[i + 1] >= '1' && pattern[i + 1] <= '9') return 0;
  }

  oru::SimplifiedRegex scan, engine;
  engine.UseWildcardFastPath(false);
  try {
    scan.CompileRegex(pattern, icase);
  } catch (const std::regex_error&) {
    // Rejected: the object must now match every text.
    if (!scan.MatchText(text)) __builtin_trap();
    return 0;
  }
  engine.CompileRegex(pattern, icase);  // the same translation compiles again
  const bool answer = engine.MatchText(text);
  if (scan.UsesWildcardFastPath() && scan.MatchText(text) != answer) __builtin_trap();
  return 0;
}
