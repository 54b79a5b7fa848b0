#include "oru/encoding.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

using oru::BasicStringSpan;

bool IsScalar(char32_t c) {
  return c <= 0x10FFFF && (c < 0xD800 || c > 0xDFFF);
}

// Reference encoders, written independently of the library: the lead byte
// marker comes from shifting 0xFF00, continuation bytes are peeled off the
// low end.
std::string RefUtf8(char32_t c) {
  if (c < 0x80) return std::string(1, static_cast<char>(c));
  const int n = c < 0x800 ? 2 : c < 0x10000 ? 3 : 4;
  std::string s(static_cast<std::size_t>(n), '\0');
  for (int i = n - 1; i > 0; --i, c >>= 6) s[i] = static_cast<char>(0x80 | (c & 0x3F));
  s[0] = static_cast<char>(((0xFF00 >> n) & 0xFF) | c);
  return s;
}

std::u16string RefUtf16(char32_t c) {
  if (c < 0x10000) return std::u16string(1, static_cast<char16_t>(c));
  const char32_t v = c - 0x10000;
  return {static_cast<char16_t>(0xD800 | v >> 10), static_cast<char16_t>(0xDC00 | (v & 0x3FF))};
}

std::string Hex(char32_t c) {
  char text[16];
  std::snprintf(text, sizeof text, "U+%04X", static_cast<unsigned>(c));
  return text;
}

std::string Line(const std::string& input, const std::string& direction) {
  return "Cannot convert \"" + input + "\" from " + direction + " string (bad conversion)\n";
}

TEST(EncodingTest, AllCodePointsConvertBothWays) {
  std::string utf8, bmpUtf8;
  std::u16string utf16, ucs2;
  std::u32string ucs4;
  // The single-character forms reject silently.
  testing::internal::CaptureStderr();
  for (char32_t c = 0; c <= 0x10FFFF; ++c) {
    std::array<char, 5> buf4;
    std::array<char, 4> buf2;
    auto one = oru::Ucs4ToUtf8(buf4, c);
    if (!IsScalar(c)) {
      ASSERT_EQ(one.data(), nullptr) << Hex(c);
      ASSERT_EQ(one.end(), nullptr);
      if (c <= 0xFFFF) ASSERT_EQ(oru::Ucs2ToUtf8(buf2, static_cast<char16_t>(c)).data(), nullptr);
      continue;
    }
    const std::string ref = RefUtf8(c);
    ASSERT_EQ(one.str(), ref) << Hex(c);
    ASSERT_EQ(buf4[ref.size()], '\0');
    utf8 += ref;
    utf16 += RefUtf16(c);
    ucs4 += c;
    if (c <= 0xFFFF) {
      auto two = oru::Ucs2ToUtf8(buf2, static_cast<char16_t>(c));
      ASSERT_EQ(two.str(), ref) << Hex(c);
      ASSERT_EQ(buf2[ref.size()], '\0');
      bmpUtf8 += ref;
      ucs2 += static_cast<char16_t>(c);
    }
  }
  // Whole-string comparisons with EXPECT_TRUE keep megabytes out of failure messages.
  EXPECT_TRUE(oru::Utf8ToUcs4(utf8) == ucs4);
  EXPECT_TRUE(oru::Ucs4ToUtf8(ucs4) == utf8);
  EXPECT_TRUE(oru::Utf8ToUtf16(utf8) == utf16);
  EXPECT_TRUE(oru::Utf16ToUtf8(utf16) == utf8);
  EXPECT_TRUE(oru::Utf8ToUcs2(bmpUtf8) == ucs2);
  EXPECT_TRUE(oru::Ucs2ToUtf8(ucs2) == bmpUtf8);
  const std::wstring wide = oru::Utf8ToWideStr(utf8);
  if constexpr (sizeof(wchar_t) == 2) {
    EXPECT_TRUE(wide == std::wstring(utf16.begin(), utf16.end()));
  } else {
    EXPECT_TRUE(wide == std::wstring(ucs4.begin(), ucs4.end()));
  }
  EXPECT_TRUE(oru::WideStrToUtf8(wide) == utf8);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST(EncodingTest, RejectsMalformedUtf8) {
  // The reference encoder itself, at the length boundaries.
  EXPECT_EQ(RefUtf8(0x7F) + RefUtf8(0x80) + RefUtf8(0x7FF) + RefUtf8(0x800) + RefUtf8(0xFFFF) +
                RefUtf8(0x10000) + RefUtf8(0x10FFFF),
            "\x7F\xC2\x80\xDF\xBF\xE0\xA0\x80\xEF\xBF\xBF\xF0\x90\x80\x80\xF4\x8F\xBF\xBF");

  // Overlong two- and three-byte forms, an encoded surrogate, U+110000, lead
  // bytes F5 and FE, stray continuations alone and after a sequence, forms
  // truncated at the end or cut by ASCII, a bad byte behind the ASCII fast path.
  for (const std::string s :
       {"\xC0\x80", "\xE0\x80\x80", "\xED\xA0\x80", "\xF4\x90\x80\x80", "\xF5\x80\x80\x80", "\xFE",
        "\x80", "\xC3\xA9\xA9", "a\xC3", "\xF0\x9F\x98", "\xE2\x82\x61", "0123456789abcdef\xFF"}) {
    SCOPED_TRACE(testing::PrintToString(s));
    testing::internal::CaptureStderr();
    EXPECT_EQ(oru::Utf8ToUcs2(s), u"");
    EXPECT_EQ(oru::Utf8ToUcs4(s), U"");
    EXPECT_EQ(oru::Utf8ToUtf16(s), u"");
    EXPECT_EQ(oru::Utf8ToWideStr(s), L"");
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              Line(s, "utf8 to ucs2") + Line(s, "utf8 to ucs4") + Line(s, "utf8 to wide"));
  }
  // UCS-2 stops at U+FFFF.
  testing::internal::CaptureStderr();
  EXPECT_EQ(oru::Utf8ToUcs2("\xF0\x90\x80\x80"), u"");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), Line("\xF0\x90\x80\x80", "utf8 to ucs2"));
}

// A multi-byte character, or a bad byte, at every offset around the eight-byte
// ASCII blocks must be seen.
TEST(EncodingTest, NonAsciiAtEveryOffset) {
  for (std::size_t k = 0; k <= 17; ++k) {
    const std::string pad(k, 'x');
    const std::string good = pad + "\xE2\x82\xAC" + pad;
    const std::u16string good16 = std::u16string(k, u'x') + u"\u20AC" + std::u16string(k, u'x');
    EXPECT_EQ(oru::Utf8ToUtf16(good), good16) << k;
    EXPECT_EQ(oru::Utf16ToUtf8(good16), good) << k;
    EXPECT_EQ(oru::Utf8ToUtf16(pad + "\xE2\x82" + pad), u"") << k;
    testing::internal::CaptureStderr();
    EXPECT_EQ(oru::Ucs2ToUtf8(std::u16string(k, u'x') + u'\xDC00' + std::u16string(k, u'x')), "");
    EXPECT_EQ(oru::Ucs4ToUtf8(std::u32string(k, U'x') + U'\xD800' + std::u32string(k, U'x')), "");
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              Line(pad + "\xEF\xBF\xBD" + pad, "ucs2 to utf8") +
                  Line(pad + "\xEF\xBF\xBD" + pad, "ucs4 to utf8"));
  }
}

TEST(EncodingTest, RejectsBadUnitsAndRendersThemAsReplacement) {
  const std::string fffd = "\xEF\xBF\xBD";
  const std::string smiley = "\xF0\x9F\x98\x80";  // U+1F600
  testing::internal::CaptureStderr();
  // UCS-2 has no surrogates at all, not even a well-formed pair.
  EXPECT_EQ(oru::Ucs2ToUtf8(u"a\xD83D\xDE00"), "");
  EXPECT_EQ(oru::Utf16ToUtf8(u"a\xD83D"), "");       // high surrogate at the end
  EXPECT_EQ(oru::Utf16ToUtf8(u"\xDE00\xD83D"), "");  // pair in the wrong order
  EXPECT_EQ(oru::Utf16ToUtf8(u"\xD83D\xE000"), "");  // high surrogate before a unit above the lows
  EXPECT_EQ(oru::Utf16ToUtf8(u"\xD83Dz"), "");       // high surrogate before a non-surrogate
  EXPECT_EQ(oru::Utf16ToUtf8(u"\xD83D\xDE00\xDC00"), "");  // good pair, then a lone low
  EXPECT_EQ(oru::Ucs4ToUtf8(std::u32string{0xDFFF, 0x110000, 0xFFFFFFFF, U'b'}), "");
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            Line("a" + fffd + fffd, "ucs2 to utf8") + Line("a" + fffd, "utf16 to utf8") +
                Line(fffd + fffd, "utf16 to utf8") + Line(fffd + "\xEE\x80\x80", "utf16 to utf8") +
                Line(fffd + "z", "utf16 to utf8") + Line(smiley + fffd, "utf16 to utf8") +
                Line(fffd + fffd + fffd + "b", "ucs4 to utf8"));
  EXPECT_EQ(oru::Utf16ToUtf8(u"\xD83D\xDE00"), smiley);
  std::array<char, 5> buf;
  EXPECT_TRUE(oru::Ucs4ToUtf8(buf, 0x110000).empty());
}

// The input ends where the span ends, even when the memory behind it would
// complete the sequence.
TEST(EncodingTest, SequenceCutByTheEndOfTheSpan) {
  const std::string full = "a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80";  // a, U+00E9, U+20AC, U+1F600
  const std::u32string decoded = U"a\u00E9\u20AC\U0001F600";
  const std::size_t boundaries[] = {0, 1, 3, 6, 10};
  for (std::size_t cut = 0, n = 0; cut <= full.size(); ++cut) {
    const BasicStringSpan<char const> part(full.data(), cut);
    if (cut == boundaries[n]) {
      EXPECT_EQ(oru::Utf8ToUcs4(part), decoded.substr(0, n)) << cut;
      ++n;
      continue;
    }
    testing::internal::CaptureStderr();
    EXPECT_EQ(oru::Utf8ToUcs4(part), U"") << cut;
    EXPECT_EQ(testing::internal::GetCapturedStderr(), Line(full.substr(0, cut), "utf8 to ucs4"));
  }
  const std::u16string pair = u"a\xD83D\xDE00";
  testing::internal::CaptureStderr();
  EXPECT_EQ(oru::Utf16ToUtf8(BasicStringSpan<char16_t const>(pair.data(), 2)), "");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), Line("a\xEF\xBF\xBD", "utf16 to utf8"));
}

// A surrogate unit is rejected in either width; a 32-bit wchar_t also holds
// values above U+10FFFF, and negative ones.
TEST(EncodingTest, WideStringRejectsWhatItsWidthCannotHold) {
  testing::internal::CaptureStderr();
  EXPECT_EQ(oru::WideStrToUtf8(std::wstring({L'w', wchar_t(0xD800)})), "");
  std::string expected = Line("w\xEF\xBF\xBD", "wide to utf8");
  if constexpr (sizeof(wchar_t) == 4) {
    // Values that only a 32-bit wchar_t can hold: above U+10FFFF, or negative.
    EXPECT_EQ(oru::WideStrToUtf8(std::wstring({wchar_t(0x110000)})), "");
    EXPECT_EQ(oru::WideStrToUtf8(std::wstring({wchar_t(-1)})), "");
    expected += Line("\xEF\xBF\xBD", "wide to utf8") + Line("\xEF\xBF\xBD", "wide to utf8");
  }
  EXPECT_EQ(testing::internal::GetCapturedStderr(), expected);
}

TEST(EncodingTest, EmptyInputsBomAndNulAreOrdinary) {
  testing::internal::CaptureStderr();
  EXPECT_EQ(oru::Utf8ToUcs4(BasicStringSpan<char const>(static_cast<const char*>(nullptr))), U"");
  EXPECT_EQ(oru::Ucs2ToUtf8(u"") + oru::WideStrToUtf8(L""), "");
  const std::string bom = std::string("\xEF\xBB\xBF") + 'a';
  EXPECT_EQ(oru::Utf8ToUcs4(bom), U"\uFEFFa");
  EXPECT_EQ(oru::Utf16ToUtf8(u"\uFEFFa"), bom);
  const std::string nul("a\0b", 3);
  EXPECT_EQ(oru::Utf8ToUtf16(nul), std::u16string(u"a\0b", 3));
  EXPECT_EQ(oru::Ucs4ToUtf8(std::u32string(U"a\0b", 3)), nul);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST(EncodingTest, FailureLinesEchoAShortEscapedInput) {
  // One bad unit in a long text: the line shows the first 256 bytes, control
  // bytes escaped, then "..."; an input of exactly 256 bytes is shown whole.
  const std::string head = "\n\x7F" + std::string(254, 'a');
  const std::string whole = "\xFF" + std::string(255, 'c');
  testing::internal::CaptureStderr();
  EXPECT_EQ(oru::Utf8ToUcs4(head + std::string(1 << 20, 'a') + "\xFF"), U"");
  EXPECT_EQ(oru::Utf16ToUtf8(std::u16string(1 << 20, u'b') + u'\xD800'), "");
  EXPECT_EQ(oru::Utf8ToUcs4(whole), U"");
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            Line("\\x0A\\x7F" + std::string(254, 'a') + "...", "utf8 to ucs4") +
                Line(std::string(256, 'b') + "...", "utf16 to utf8") + Line(whole, "utf8 to ucs4"));
}

TEST(EncodingTest, FailureLinesStayWholeAcrossThreads) {
  testing::internal::CaptureStderr();
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([] {
      for (int i = 0; i < 200; ++i) oru::Utf8ToUcs4("thread \xFF input");
    });
  }
  for (auto& th : threads) th.join();
  const std::string out = testing::internal::GetCapturedStderr();
  const std::string line = Line("thread \xFF input", "utf8 to ucs4");
  std::string expected;
  for (int i = 0; i < 800; ++i) expected += line;
  EXPECT_TRUE(out == expected);
}

TEST(EncodingTest, ByteLevelHelpers) {
  // The 0x08 bit, not the high bit, marks a byte.
  for (const char* text : {"", "abc", "012", "\xC3\xA4"}) EXPECT_FALSE(oru::IsMultiByteStr(text));
  for (const char* text : {"h", "abc8"}) EXPECT_TRUE(oru::IsMultiByteStr(text));
  std::string text = "h8a\xC3\xA9";
  oru::MultiByteStrToSingleByte(text, '?');
  EXPECT_EQ(text, "??a\xC3?");

  std::string bom = "x";
  oru::PrefixBomChars(bom);
  oru::PrefixBomChars(bom);
  EXPECT_EQ(bom, "\xEF\xBB\xBF\xEF\xBB\xBFx");

  std::string out = "old";
  EXPECT_TRUE(oru::EncodingConverter::Convert("gr\xC3\xBC\xC3\x9F", out, "latin1"));
  EXPECT_TRUE(oru::EncodingConverter::Convert(out, out, nullptr));  // from itself
  EXPECT_EQ(out, "gr\xC3\xBC\xC3\x9F");
}

}  // namespace
