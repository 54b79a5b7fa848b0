// JsonFormatter: writes JSON text token by token to an output stream.
//
// The caller opens and closes objects and arrays and writes names,
// separators and values in document order; the formatter takes care of
// indentation, string escaping and number forms. It keeps no document tree
// and does not check that the calls make valid JSON: a missing separator or
// an unclosed bracket is written exactly as asked.
//
//   std::ostringstream out;
//   oru::JsonFormatter json(out, 2);    // 2 spaces per level; 0 = one line
//   json.StartObject();
//   json.FormatString("size");
//   json.NameValueSeparator();
//   json.FormatUnsigned(42);
//   json.ItemSeparator();
//   json.FormatString("path");
//   json.NameValueSeparator();
//   oru::GenerateJson(json, std::filesystem::path("data/model.bin"));
//   json.FinishObject();
//   // {
//   //   "size" : 42,
//   //   "path" : "data/model.bin"
//   // }
//
// Output forms:
// - With an indent step of 0 nothing but the tokens is written: {"a":1}.
//   Otherwise each item goes on its own line, names are followed by " : "
//   and an empty object or array stays "{}" or "[]". SetCompactPrettyPrint
//   keeps a part of a pretty document on one line: "[ 1,  2,  3 ]". The
//   space after brackets and the double space after commas (the separator's
//   space plus the space that replaces the line break) stay as they are:
//   documents already written this way are compared byte for byte by the
//   programs that read them.
// - Strings are written as UTF-8 bytes unchanged except for the quotation
//   mark, the backslash and bytes below 0x20 (\b \f \n \r \t, else \u00XX).
// - Integers are plain decimal. Doubles of magnitude 1e-7 or more are written
//   in fixed notation with the fewest digits that read back as the same
//   double, always with a decimal point (2 -> 2.0); smaller ones in
//   scientific notation with 5 decimals (1.23457e-08); zero as 0.0 or -0.0;
//   infinities and NaN as null. The stream's own formatting flags and
//   precision are neither used nor changed for any of these.
//
// Ownership: the formatter holds a reference to the stream; the stream is the
// caller's and must outlive the formatter. Stream errors are left in the
// stream's state for the caller to check.
//
// Threading: a formatter, like its stream, is used by one thread at a time.
// Separate formatters on separate streams may run on different threads.
#pragma once

#include <cstdint>
#include <filesystem>
#include <iosfwd>
#include <string>

#include "oru/export.h"
#include "oru/string_span.h"

namespace oru {

class ORU_API JsonFormatter {
public:
  /// Writes to `out`; `indentStep` spaces are added per nesting level, and
  /// 0 gives output without any line breaks or spaces.
  JsonFormatter(std::ostream& out, unsigned indentStep);

  /// "{" and "[": the next token goes on a new, deeper indented line.
  void StartObject();
  void StartArray();
  /// "}" and "]" on their own line at the outer level, or right after the
  /// opening bracket when nothing was written in between; a bracket closed
  /// right after such an empty one follows it on the same line ("[]]"; kept:
  /// files already written compare equal as text). Closing more levels than were opened leaves the
  /// indentation at 0.
  void FinishObject();
  void FinishArray();

  /// "," between items (", " in compact mode); the next token goes on a new
  /// line when pretty printing.
  void ItemSeparator();
  /// " : " between a name and its value when pretty printing, else ":".
  void NameValueSeparator();

  /// The text between quotation marks, escaped as JSON requires.
  void FormatString(BasicStringSpan<char const> text);
  void FormatSigned(int64_t value);
  void FormatUnsigned(uint64_t value);
  void FormatFloating(double value);
  /// Widened to double first, so 0.1f is written as 0.10000000149011612.
  void FormatFloating(float value);
  void FormatBoolean(bool value);
  void FormatNull();
  /// The pointer as the stream writes a const void*, in quotation marks.
  void FormatPointer(const void* pointer);

  /// Turns compact mode on or off; returns the previous setting. In compact
  /// mode pretty output stays on one line, items separated by ", ". A line
  /// break that is due when compact mode is switched on is written first.
  /// Has no visible effect with an indent step of 0.
  bool SetCompactPrettyPrint(bool compact);

private:
  void StartCompound(char c);
  void FinishCompound(char c);
  // Writes the line break and indentation (or, in compact mode, the space)
  // that is due before the next token, if any.
  void DoIndent();

  std::ostream& m_out;
  uint32_t m_indentStep;
  uint32_t m_currentIndent = 0;
  bool m_pretty;
  bool m_compact = false;
  bool m_needIndent = false;
  bool m_justOpened = false;
};

/// The path's text in UTF-8 (a wide Windows path is converted).
ORU_API std::string PathToString(const std::filesystem::path& path);
/// Writes PathToString(path) as a JSON string.
ORU_API void GenerateJson(JsonFormatter& formatter, const std::filesystem::path& path);

}  // namespace oru
