// JsonFormatter and the path helpers.
//
// Speed: every token reaches the stream in as few ostream::write calls as
// possible (one per token, plus one for a due line break). Strings are
// scanned for the bytes that need escaping and copied in runs through a
// small stack buffer; integers and doubles are converted with std::to_chars,
// so no string stream is made per number and the caller's stream flags and
// precision are neither used nor disturbed; indentation comes from a static
// run of spaces.
#include "oru/json_formatter.h"

#include <array>
#include <charconv>
#include <cmath>
#include <cstddef>
#include <cstring>
#include <ostream>
#include <system_error>
#include <type_traits>

namespace oru {
namespace {

// What a byte becomes inside a JSON string: 0 when it is written unchanged,
// 'u' for the \u00XX form, else the letter (or character) after the
// backslash. Bytes of 0x80 and above and '/' are written unchanged.
constexpr std::array<char, 256> ESCAPES = [] {
  std::array<char, 256> table{};
  for (int c = 0; c < 0x20; ++c) table[static_cast<std::size_t>(c)] = 'u';
  table['\b'] = 'b';
  table['\f'] = 'f';
  table['\n'] = 'n';
  table['\r'] = 'r';
  table['\t'] = 't';
  table['"'] = '"';
  table['\\'] = '\\';
  return table;
}();

// A line break followed by spaces: one write covers the indentation of all
// but very deep levels.
constexpr std::size_t SPACE_RUN = 256;
constexpr std::array<char, 1 + SPACE_RUN> LINE_BREAK = [] {
  std::array<char, 1 + SPACE_RUN> text{};
  text[0] = '\n';
  for (std::size_t i = 1; i < text.size(); ++i) text[i] = ' ';
  return text;
}();

void Write(std::ostream& out, const char* data, std::size_t size) {
  out.write(data, static_cast<std::streamsize>(size));
}

// Collects the pieces of one token on the stack and hands them to the stream
// in as few writes as possible.
class TokenBuffer {
public:
  explicit TokenBuffer(std::ostream& out) : m_out(out) {}
  TokenBuffer(const TokenBuffer&) = delete;
  TokenBuffer& operator=(const TokenBuffer&) = delete;
  ~TokenBuffer() { Flush(); }

  void Append(const char* data, std::size_t size) {
    if (m_size + size > sizeof m_data) {
      Flush();
      if (size >= sizeof m_data) {
        Write(m_out, data, size);
        return;
      }
    }
    std::memcpy(m_data + m_size, data, size);
    m_size += size;
  }
  void Append(char c) {
    if (m_size == sizeof m_data) Flush();
    m_data[m_size++] = c;
  }
  void Flush() {
    if (m_size != 0) Write(m_out, m_data, m_size);
    m_size = 0;
  }

private:
  std::ostream& m_out;
  std::size_t m_size = 0;
  char m_data[512];
};

// Longest text that to_chars makes of a double here: 309 integer digits of
// DBL_MAX and a sign in fixed notation (doubles below 1 get at most 24
// fractional digits), plus the ".0" appended.
constexpr std::size_t FLOAT_TEXT = 400;

}  // namespace

JsonFormatter::JsonFormatter(std::ostream& out, unsigned indentStep)
    : m_out(out), m_indentStep(indentStep), m_pretty(indentStep != 0) {}

void JsonFormatter::DoIndent() {
  if (!m_needIndent) return;
  m_needIndent = false;
  if (!m_pretty) return;
  if (m_compact) {
    m_out.put(' ');
    return;
  }
  std::size_t spaces = m_currentIndent;
  std::size_t first = spaces < SPACE_RUN ? spaces : SPACE_RUN;
  Write(m_out, LINE_BREAK.data(), 1 + first);
  for (spaces -= first; spaces != 0; spaces -= first) {
    first = spaces < SPACE_RUN ? spaces : SPACE_RUN;
    Write(m_out, LINE_BREAK.data() + 1, first);
  }
}

void JsonFormatter::StartCompound(char c) {
  DoIndent();
  m_out.put(c);
  if (m_pretty) {
    m_currentIndent += m_indentStep;
    m_needIndent = true;
  }
  m_justOpened = true;
}

void JsonFormatter::FinishCompound(char c) {
  if (m_pretty) {
    // Closing more levels than were opened stops at column 0.
    m_currentIndent = m_currentIndent > m_indentStep ? m_currentIndent - m_indentStep : 0;
  }
  // An empty object or array closes right after its opening bracket. The
  // flag is not cleared here, so a bracket closed right after an empty one
  // follows it on the same line ("[]]"; kept: written files compare as text).
  if (!m_justOpened) {
    m_needIndent = true;
    DoIndent();
  }
  m_out.put(c);
}

void JsonFormatter::StartObject() {
  StartCompound('{');
}
void JsonFormatter::FinishObject() {
  FinishCompound('}');
}
void JsonFormatter::StartArray() {
  StartCompound('[');
}
void JsonFormatter::FinishArray() {
  FinishCompound(']');
}

void JsonFormatter::ItemSeparator() {
  if (!m_pretty) {
    m_out.put(',');
    return;
  }
  // In compact mode the ", " is followed by the space that stands in for the
  // line break, so items are two spaces apart (kept: written files compare as text).
  if (m_compact)
    Write(m_out, ", ", 2);
  else
    m_out.put(',');
  m_needIndent = true;
}

void JsonFormatter::NameValueSeparator() {
  // Spaces on both sides of the colon in pretty output (kept: written files compare as text).
  if (m_pretty)
    Write(m_out, " : ", 3);
  else
    m_out.put(':');
}

void JsonFormatter::FormatString(BasicStringSpan<char const> text) {
  m_justOpened = false;
  DoIndent();
  TokenBuffer token(m_out);
  token.Append('"');
  const char* p = text.begin();
  const char* const end = text.end();
  while (p != end) {
    const char* run = p;
    while (p != end && ESCAPES[static_cast<unsigned char>(*p)] == 0) ++p;
    token.Append(run, static_cast<std::size_t>(p - run));
    if (p == end) break;
    const auto byte = static_cast<unsigned char>(*p++);
    const char escape = ESCAPES[byte];
    if (escape == 'u') {
      static constexpr char HEX[] = "0123456789abcdef";
      const char code[6] = {'\\', 'u', '0', '0', HEX[byte >> 4], HEX[byte & 0xF]};
      token.Append(code, sizeof code);
    } else {
      const char code[2] = {'\\', escape};
      token.Append(code, sizeof code);
    }
  }
  token.Append('"');
}

void JsonFormatter::FormatSigned(int64_t value) {
  m_justOpened = false;
  DoIndent();
  char text[24];
  const auto result = std::to_chars(text, text + sizeof text, value);
  Write(m_out, text, static_cast<std::size_t>(result.ptr - text));
}

void JsonFormatter::FormatUnsigned(uint64_t value) {
  m_justOpened = false;
  DoIndent();
  char text[24];
  const auto result = std::to_chars(text, text + sizeof text, value);
  Write(m_out, text, static_cast<std::size_t>(result.ptr - text));
}

void JsonFormatter::FormatFloating(double value) {
  m_justOpened = false;
  DoIndent();
  if (!std::isfinite(value)) {
    Write(m_out, "null", 4);
    return;
  }
  if (value == 0) {
    // The sign of zero is kept: readers get -0.0 back.
    if (std::signbit(value))
      Write(m_out, "-0.0", 4);
    else
      Write(m_out, "0.0", 3);
    return;
  }
  char text[FLOAT_TEXT];
  std::to_chars_result result;
  // Below 1e-7 fixed notation would need long runs of zeros, so scientific
  // notation with 5 decimals is used there; the threshold and that
  // precision (which does not round-trip) are kept: written files compare as text.
  if (std::fabs(value) >= 1e-7) {
    // The fewest fixed-notation digits that read back as the same double.
    result = std::to_chars(text, text + sizeof text - 2, value, std::chars_format::fixed);
    if (result.ec == std::errc() &&
        std::memchr(text, '.', static_cast<std::size_t>(result.ptr - text)) == nullptr) {
      *result.ptr++ = '.';
      *result.ptr++ = '0';
    }
  } else {
    result = std::to_chars(text, text + sizeof text, value, std::chars_format::scientific, 5);
  }
  // Cannot fail: the buffer holds the longest text of any double.
  if (result.ec != std::errc()) {
    m_out.setstate(std::ios_base::failbit);
    return;
  }
  Write(m_out, text, static_cast<std::size_t>(result.ptr - text));
}

void JsonFormatter::FormatFloating(float value) {
  FormatFloating(static_cast<double>(value));
}

void JsonFormatter::FormatBoolean(bool value) {
  m_justOpened = false;
  DoIndent();
  if (value)
    Write(m_out, "true", 4);
  else
    Write(m_out, "false", 5);
}

void JsonFormatter::FormatNull() {
  m_justOpened = false;
  DoIndent();
  Write(m_out, "null", 4);
}

void JsonFormatter::FormatPointer(const void* pointer) {
  m_justOpened = false;
  DoIndent();
  m_out.put('"');
  m_out << pointer;
  m_out.put('"');
}

bool JsonFormatter::SetCompactPrettyPrint(bool compact) {
  // A line break that is due belongs to the part before compact mode.
  if (!m_compact && compact) DoIndent();
  const bool previous = m_compact;
  m_compact = compact;
  return previous;
}

std::string PathToString(const std::filesystem::path& path) {
  if constexpr (std::is_same_v<std::filesystem::path::value_type, char>) {
    return path.string();  // POSIX: the native bytes, UTF-8 by convention
  } else {
    const std::u8string text = path.u8string();  // Windows: from UTF-16
    return std::string(reinterpret_cast<const char*>(text.data()), text.size());
  }
}

void GenerateJson(JsonFormatter& formatter, const std::filesystem::path& path) {
  formatter.FormatString(PathToString(path));
}

}  // namespace oru
