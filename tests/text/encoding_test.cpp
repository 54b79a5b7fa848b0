#include "oru/encoding.h"

#include <gtest/gtest.h>

#include <thread>

#include "support/test_util.h"

namespace {

using oru::BasicStringSpan;
using oru::test::Utf8Of;

// A reference UTF-16 encoder, written independently of the library.
std::u16string RefUtf16(char32_t c) {
  if (c < 0x10000) return std::u16string(1, static_cast<char16_t>(c));
  const char32_t v = c - 0x10000;
  return {static_cast<char16_t>(0xD800 | v >> 10), static_cast<char16_t>(0xDC00 | (v & 0x3FF))};
}

// What `f` writes to standard error.
template <class F>
std::string Stderr(F f) {
  testing::internal::CaptureStderr();
  f();
  return testing::internal::GetCapturedStderr();
}

std::string Line(const std::string& input, const std::string& direction) {
  return "Cannot convert \"" + input + "\" from " + direction + " string (bad conversion)\n";
}

TEST(EncodingTest, AllCodePointsConvertBothWays) {
  std::string utf8, bmpUtf8;
  std::u16string utf16, ucs2;
  std::u32string ucs4;
  // The single-character forms reject silently.
  EXPECT_EQ(Stderr([&] {
              for (char32_t c = 0; c <= 0x10FFFF; ++c) {
                std::array<char, 5> buf4, big;
                ASSERT_TRUE(oru::Ucs4ToUtf8(big, 0x110000 + c).empty());
                std::array<char, 4> buf2;
                const auto one = oru::Ucs4ToUtf8(buf4, c);
                const auto two = oru::Ucs2ToUtf8(buf2, static_cast<char16_t>(c));
                if (c >= 0xD800 && c <= 0xDFFF) {
                  ASSERT_EQ(one.data(), nullptr) << std::hex << unsigned(c);
                  ASSERT_EQ(one.end(), nullptr);
                  ASSERT_EQ(two.data(), nullptr);
                  continue;
                }
                const std::string ref = Utf8Of(c);
                ASSERT_EQ(one.str(), ref) << std::hex << unsigned(c);
                ASSERT_EQ(buf4[ref.size()], '\0');
                utf8 += ref, utf16 += RefUtf16(c), ucs4 += c;
                if (c > 0xFFFF) continue;
                ASSERT_EQ(two.str(), ref) << std::hex << unsigned(c);
                ASSERT_EQ(buf2[ref.size()], '\0');
                bmpUtf8 += ref, ucs2 += static_cast<char16_t>(c);
              }
            }),
            "");
  // Whole-string comparisons with EXPECT_TRUE keep megabytes out of failure messages.
  EXPECT_TRUE(oru::Utf8ToUcs4(utf8) == ucs4 && oru::Ucs4ToUtf8(ucs4) == utf8);
  EXPECT_TRUE(oru::Utf8ToUtf16(utf8) == utf16 && oru::Utf16ToUtf8(utf16) == utf8);
  EXPECT_TRUE(oru::Utf8ToUcs2(bmpUtf8) == ucs2 && oru::Ucs2ToUtf8(ucs2) == bmpUtf8);
  const std::wstring wide = oru::Utf8ToWideStr(utf8);
  if constexpr (sizeof(wchar_t) == 2) {
    EXPECT_TRUE(wide == std::wstring(utf16.begin(), utf16.end()));
  } else {
    EXPECT_TRUE(wide == std::wstring(ucs4.begin(), ucs4.end()));
  }
  EXPECT_TRUE(oru::WideStrToUtf8(wide) == utf8);
}

TEST(EncodingTest, RejectsMalformedUtf8) {
  // Overlong two- and three-byte forms, an encoded surrogate, U+110000, lead
  // bytes F5 and FE, stray continuations alone and after a sequence, forms
  // truncated at the end or cut by ASCII, a bad byte behind the ASCII fast path.
  for (const std::string s :
       {"\xC0\x80", "\xE0\x80\x80", "\xED\xA0\x80", "\xF4\x90\x80\x80", "\xF5\x80\x80\x80", "\xFE",
        "\x80", "\xC3\xA9\xA9", "a\xC3", "\xF0\x9F\x98", "\xE2\x82\x61", "0123456789abcdef\xFF"}) {
    EXPECT_EQ(Stderr([&] {
                EXPECT_EQ(oru::Utf8ToUcs2(s), u"");
                EXPECT_EQ(oru::Utf8ToUcs4(s), U"");
                EXPECT_EQ(oru::Utf8ToUtf16(s), u"");
                EXPECT_EQ(oru::Utf8ToWideStr(s), L"");
              }),
              Line(s, "utf8 to ucs2") + Line(s, "utf8 to ucs4") + Line(s, "utf8 to wide"))
        << testing::PrintToString(s);
  }
  // UCS-2 stops at U+FFFF.
  EXPECT_EQ(Stderr([] { EXPECT_EQ(oru::Utf8ToUcs2("\xF0\x90\x80\x80"), u""); }),
            Line("\xF0\x90\x80\x80", "utf8 to ucs2"));
}

// A multi-byte character, or a bad unit, at every offset around the eight-byte
// ASCII blocks must be seen.
TEST(EncodingTest, NonAsciiAtEveryOffset) {
  for (std::size_t k = 0; k <= 17; ++k) {
    const std::string pad(k, 'x');
    const std::u16string pad16(k, u'x');
    const std::string good = pad + "\xE2\x82\xAC" + pad;
    EXPECT_EQ(oru::Utf8ToUtf16(good), pad16 + u"\u20AC" + pad16) << k;
    EXPECT_EQ(oru::Utf16ToUtf8(pad16 + u"\u20AC" + pad16), good) << k;
    const std::string fffd = pad + "\xEF\xBF\xBD" + pad;
    EXPECT_EQ(Stderr([&] {
                EXPECT_EQ(oru::Utf8ToUtf16(pad + "\xE2\x82" + pad), u"") << k;
                EXPECT_EQ(oru::Ucs2ToUtf8(pad16 + u'\xDC00' + pad16), "");
                EXPECT_EQ(
                    oru::Ucs4ToUtf8(std::u32string(k, U'x') + U'\xD800' + std::u32string(k, U'x')),
                    "");
              }),
              Line(fffd, "ucs2 to utf8") + Line(fffd, "ucs4 to utf8"));  // UTF-16 is silent
  }
}

// Bad units render as U+FFFD in the failure line. A surrogate unit is
// rejected in either width of wchar_t; a 32-bit one also holds values above
// U+10FFFF, and negative ones. A pair cut by the end of the span is cut.
TEST(EncodingTest, RejectsBadUnitsAndRendersThemAsReplacement) {
  const std::string fffd = "\xEF\xBF\xBD";
  const std::string smiley = "\xF0\x9F\x98\x80";  // U+1F600
  const std::u16string pair = u"a\xD83D\xDE00";
  std::vector<std::wstring> wide = {{L'w', wchar_t(0xD800)}};
  std::string expected =
      Line("a" + fffd + fffd, "ucs2 to utf8") + Line("a" + fffd, "utf16 to utf8") +
      Line(fffd + fffd, "utf16 to utf8") + Line(fffd + "\xEE\x80\x80", "utf16 to utf8") +
      Line(fffd + "z", "utf16 to utf8") + Line(smiley + fffd, "utf16 to utf8") +
      Line("a" + fffd, "utf16 to utf8") + Line(fffd + fffd + fffd + "b", "ucs4 to utf8") +
      Line("w" + fffd, "wide to utf8");
  if constexpr (sizeof(wchar_t) == 4) {
    wide.insert(wide.end(), {{wchar_t(0x110000)}, {wchar_t(-1)}});
    expected += Line(fffd, "wide to utf8") + Line(fffd, "wide to utf8");
  }
  EXPECT_EQ(Stderr([&] {
              // UCS-2 has no surrogates at all, not even a well-formed pair.
              EXPECT_EQ(oru::Ucs2ToUtf8(pair), "");
              for (const char16_t* bad : {u"a\xD83D",              // high surrogate at the end
                                          u"\xDE00\xD83D",         // pair in the wrong order
                                          u"\xD83D\xE000",         // high before a unit above lows
                                          u"\xD83Dz",              // high before a non-surrogate
                                          u"\xD83D\xDE00\xDC00"})  // good pair, then a lone low
                EXPECT_EQ(oru::Utf16ToUtf8(bad), "");
              EXPECT_EQ(oru::Utf16ToUtf8(BasicStringSpan<char16_t const>(pair.data(), 2)), "");
              EXPECT_EQ(oru::Ucs4ToUtf8(std::u32string{0xDFFF, 0x110000, 0xFFFFFFFF, U'b'}), "");
              for (const std::wstring& w : wide) EXPECT_EQ(oru::WideStrToUtf8(w), "");
            }),
            expected);
  EXPECT_EQ(oru::Utf16ToUtf8(u"\xD83D\xDE00"), smiley);
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
      EXPECT_EQ(oru::Utf8ToUcs4(part), decoded.substr(0, n++)) << cut;
      continue;
    }
    EXPECT_EQ(Stderr([&] { EXPECT_EQ(oru::Utf8ToUcs4(part), U"") << cut; }),
              Line(full.substr(0, cut), "utf8 to ucs4"));
  }
}

TEST(EncodingTest, EmptyInputsBomAndNulAreOrdinary) {
  const std::string bom = std::string("\xEF\xBB\xBF") + 'a', nul("a\0b", 3);
  EXPECT_EQ(Stderr([&] {
              EXPECT_EQ(
                  oru::Utf8ToUcs4(BasicStringSpan<char const>(static_cast<const char*>(nullptr))),
                  U"");
              EXPECT_EQ(oru::Ucs2ToUtf8(u"") + oru::WideStrToUtf8(L""), "");
              EXPECT_EQ(oru::Utf8ToUcs4(bom), U"\uFEFFa");
              EXPECT_EQ(oru::Utf16ToUtf8(u"\uFEFFa"), bom);
              EXPECT_EQ(oru::Utf8ToUtf16(nul), std::u16string(u"a\0b", 3));
              EXPECT_EQ(oru::Ucs4ToUtf8(std::u32string(U"a\0b", 3)), nul);
            }),
            "");
}

TEST(EncodingTest, FailureLinesEchoAShortEscapedInput) {
  // One bad unit in a long text: the line shows the first 256 bytes, control
  // bytes escaped, then "..."; an input of exactly 256 bytes is shown whole.
  const std::string head = "\n\x7F" + std::string(254, 'a');
  const std::string whole = "\xFF" + std::string(255, 'c');
  EXPECT_EQ(Stderr([&] {
              EXPECT_EQ(oru::Utf8ToUcs4(head + std::string(1 << 20, 'a') + "\xFF"), U"");
              EXPECT_EQ(oru::Utf16ToUtf8(std::u16string(1 << 20, u'b') + u'\xD800'), "");
              EXPECT_EQ(oru::Utf8ToUcs4(whole), U"");
            }),
            Line("\\x0A\\x7F" + std::string(254, 'a') + "...", "utf8 to ucs4") +
                Line(std::string(256, 'b') + "...", "utf16 to utf8") + Line(whole, "utf8 to ucs4"));
}

TEST(EncodingTest, FailureLinesStayWholeAcrossThreads) {
  const std::string out = Stderr([] {
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
      threads.emplace_back([] {
        for (int i = 0; i < 200; ++i) oru::Utf8ToUcs4("thread \xFF input");
      });
    }
    for (auto& th : threads) th.join();
  });
  std::string expected;
  for (int i = 0; i < 800; ++i) expected += Line("thread \xFF input", "utf8 to ucs4");
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
