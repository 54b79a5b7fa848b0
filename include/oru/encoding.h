// Encoding conversion between UTF-8 and the fixed-width encodings.
//
// Text inside liboru is UTF-8 in std::string. These functions convert it to
// and from UCS-2 (16-bit units, code points up to U+FFFF only), UCS-4
// (32-bit units), UTF-16 (surrogate pairs) and the platform wide string
// (UTF-16 on Windows, UTF-32 where wchar_t is 32 bits).
//
//   std::u16string u = oru::Utf8ToUtf16("gr\xC3\xBC\xC3\x9F");   // "grüß"
//   std::string back = oru::Utf16ToUtf8(u);
//   std::array<char, 4> buf;
//   auto euro = oru::Ucs2ToUtf8(buf, u'\u20AC');               // E2 82 AC
//
// Failures never throw: a string conversion that meets input it cannot
// convert writes one line to the standard error stream,
//   Cannot convert "<input>" from utf8 to ucs2 string (bad conversion)
// and returns an empty string. For 16- and 32-bit input the line shows the
// input as UTF-8, each unit that cannot be converted written as U+FFFD.
// The input shown is cut after 256 bytes (then "..."), and control bytes
// are written as \xNN, so the line stays one short line whatever the input.
// Utf8ToUtf16 fails silently with an empty result. The single-character
// forms return an empty span on failure and print nothing.
//
// Validation is strict: malformed UTF-8 (overlong forms, truncated
// sequences, stray continuation bytes, encoded surrogates, values above
// U+10FFFF) and unpaired or out-of-range units are rejected as a whole. A
// byte-order mark is an ordinary U+FEFF character; it is never added or
// removed, except by PrefixBomChars.
//
// Threading: every function is safe to call from any thread.
#pragma once

#include <array>
#include <string>

#include "oru/export.h"
#include "oru/string_span.h"

namespace oru {

ORU_API std::u16string Utf8ToUcs2(BasicStringSpan<char const> text);
ORU_API std::string Ucs2ToUtf8(BasicStringSpan<char16_t const> text);
/// Encodes one UCS-2 unit into `buffer`, writes a zero behind it and returns
/// a span over the one to three bytes; an empty span for a surrogate unit.
ORU_API BasicStringSpan<char const> Ucs2ToUtf8(std::array<char, 4>& buffer, char16_t c);

ORU_API std::u32string Utf8ToUcs4(BasicStringSpan<char const> text);
ORU_API std::string Ucs4ToUtf8(BasicStringSpan<char32_t const> text);
/// Encodes one code point into `buffer` (one to four bytes plus a zero);
/// an empty span for a surrogate or a value above U+10FFFF.
ORU_API BasicStringSpan<char const> Ucs4ToUtf8(std::array<char, 5>& buffer, char32_t c);

ORU_API std::u16string Utf8ToUtf16(BasicStringSpan<char const> text);
ORU_API std::string Utf16ToUtf8(BasicStringSpan<char16_t const> text);

ORU_API std::wstring Utf8ToWideStr(BasicStringSpan<char const> text);
ORU_API std::string WideStrToUtf8(BasicStringSpan<wchar_t const> text);

/// True when any byte has the bit of value 0x08 set (not the high bit; kept:
/// hosts pick with it which names to convert). False for empty text.
ORU_API bool IsMultiByteStr(BasicStringSpan<char const> text);
/// Replaces every byte that IsMultiByteStr would flag by `replacement`.
ORU_API void MultiByteStrToSingleByte(std::string& text, char replacement);
/// Inserts the UTF-8 byte-order mark EF BB BF at the front, always.
ORU_API void PrefixBomChars(std::string& text);

class ORU_API EncodingConverter {
public:
  /// Identity conversion: copies `input` to `output` and returns true; the
  /// encoding name is ignored.
  static bool Convert(BasicStringSpan<char const> input, std::string& output,
                      const char* encodingName);
};

}  // namespace oru
