// LineReader: byte-order marks, UTF-16 in both orders (with its signed
// widening of the low byte), CR LF handling, lines longer than the read-ahead
// block and the line buffer, the byte limit, ReadBinary and handing the
// stream back. Every case runs over memory, a file, inflated data and a
// source that hands out five bytes per call, which splits marks, units and
// line ends across blocks.
#include <cstring>
#include <utility>
#include <vector>

#include "data/source_kinds.h"
#include "oru/line_reader.h"

namespace oru::test {
namespace {

using namespace std::string_literals;

using Kinds = ::testing::Types<MemoryKind, FileKind, CompressedKind, CappedMemoryKind<5>>;

template <typename K>
class LineReaderKinds : public SourceKindTest<K> {};
TYPED_TEST_SUITE(LineReaderKinds, Kinds, KindName);

std::vector<std::string> ReadAll(LineReader& reader) {
  std::vector<std::string> lines;
  // (A line read must be in the buffer: a null buffer ends the list early.)
  while (lines.size() < 1000 && reader.ReadLine() && reader.GetBuffer() != nullptr)
    lines.push_back(reader.GetString());
  return lines;
}

std::string Letters(size_t n, char first) {
  std::string s(n, ' ');
  for (size_t i = 0; i < n; ++i) s[i] = static_cast<char>(first + i % 26);
  return s;
}

// Each character of `ascii` as one little-endian UTF-16 unit.
std::string Utf16Le(const std::string& ascii) {
  std::string out;
  for (char c : ascii) out += std::string{c, '\0'};
  return out;
}

// (\x61 is 'a' where a hexadecimal escape comes before it.)
TYPED_TEST(LineReaderKinds, LinesMarksAndEncodings) {
  const struct {
    const char* name;
    std::string bytes;
    std::vector<std::string> lines;  // as GetString() gives them
    int limit = 0;                   // of the bytes taken; 0: none
  } cases[] = {
      {"CRLF, no final end", "a\r\nb", {"a", "b"}},
      {"empty lines", "\n\n", {"", ""}},
      {"lone CR stays", "a\rb\r\nc\r", {"a\rb", "c\r"}},
      {"LF CR", "a\n\rb", {"a", "\rb"}},
      {"empty", "", {}},
      {"UTF-8 mark", "\xEF\xBB\xBFhi\r\nthere", {"hi", "there"}},
      {"mark not at the start", "x\n\xEF\xBB\xBFy", {"x", "\xEF\xBB\xBFy"}},
      // a CR b, "", U+4E2D U+1F600
      {"UTF-16LE mixed",
       "\xFF\xFE\x61\0\r\0b\0\n\0\n\0\x2D\x4E\x3D\xD8\x00\xDE"s,
       {"a\rb", "", "\xE4\xB8\xAD\xF0\x9F\x98\x80"}},
      {"UTF-16BE", "\xFE\xFF\0\r\0\n\0a\0\r\0\n\0b"s, {"", "a", "b"}},
      // E9 as the low byte is widened to FFE9.
      {"UTF-16LE widening", "\xFF\xFE\xE9\0"s, {"\xEF\xBF\xA9"}},
      {"UTF-16BE widening", "\xFE\xFF\0\xE9"s, {"\xEF\xBF\xA9"}},
      {"UTF-16 odd trailing byte", "\xFF\xFE\x61\0b"s, {"a"}},
      {"mark in 3 bytes", "\xFF\xFE\x61", {"\xFF\xFE\x61"}},
      {"UTF-8 mark alone", "\xEF\xBB\xBF", {"\xEF\xBB\xBF"}},
      {"half a UTF-8 mark", "\xFF\xBB\xBFz", {"\xFF\xBB\xBFz"}},
      {"a UTF-16 mark a byte late", "x\xFF\xFEz", {"x\xFF\xFEz"}},
      {"mark in 4 bytes", "\xFF\xFE\x61\0"s, {"a"}},
      {"limit inside a line", "abcdef", {"abc"}, 3},
      {"limit after a line end", "ab\ncd\nef", {"ab", "cd"}, 5},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    DataStream s = this->Make(c.bytes);
    LineReader reader(&s, c.limit);
    EXPECT_EQ(ReadAll(reader), c.lines);
    EXPECT_FALSE(reader.ReadLine());
    EXPECT_EQ(reader.GetBuffer(), nullptr);
    EXPECT_EQ(reader.GetString(), "");
    EXPECT_EQ(s.GetBytesRead(), c.limit != 0 ? static_cast<size_t>(c.limit) : c.bytes.size());
  }
}

// The first 4 KiB block ends in the CR of an empty line whose LF starts the
// next; the line after outgrows the line buffer several times, the last
// follows a shrink. In UTF-16 the CR is in bytes 4094-4095, the LF in
// 4096-4097.
TYPED_TEST(LineReaderKinds, LongLinesAcrossBlocks) {
  const std::string a = Letters(4094, 'a'), b = Letters(20000, 'A');
  const std::string c = Letters(2046, 'a'), d = Letters(3000, 'A');
  const std::pair<std::string, std::vector<std::string>> cases[] = {
      {a + "\n\r\n" + b + "\ntail", {a, "", b, "tail"}},
      {"\xFF\xFE" + Utf16Le(c + "\r\n" + d + "\nd"), {c, d, "d"}}};
  for (const auto& [bytes, lines] : cases) {
    DataStream s = this->Make(bytes);
    LineReader reader(&s, 0);
    EXPECT_EQ(ReadAll(reader), lines);
  }
}

// The last UTF-16 line, shorter than the one before, is zero-terminated in
// the buffer (GetString goes by its length; callers of GetBuffer do not).
TYPED_TEST(LineReaderKinds, LastUnitLineIsTerminatedInTheBuffer) {
  DataStream s = this->Make("\xFE\xFF\0x\0y\0z\0\n\0A"s);
  LineReader reader(&s, 0);
  ASSERT_TRUE(reader.ReadLine() && reader.ReadLine());
  EXPECT_EQ(std::u16string(reinterpret_cast<const char16_t*>(reader.GetBuffer())), u"A");
}

TYPED_TEST(LineReaderKinds, ReadBinary) {
  std::string bin = RandomBytes(6000, 4);
  bin[0] = '\n';
  bin[1] = '\0';
  DataStream s = this->Make("head\n" + bin);
  LineReader reader(&s, 0);
  EXPECT_EQ(reader.GetBinBuffer(), nullptr);
  EXPECT_EQ(reader.ReadBinary(0), 0u);
  EXPECT_EQ(reader.GetBinBuffer(), nullptr);
  ASSERT_TRUE(reader.ReadLine());
  EXPECT_EQ(reader.GetString(), "head");
  // Shorter than the line before it, so the zero after it must be written.
  ASSERT_EQ(reader.ReadBinary(2), 2u);
  EXPECT_EQ(std::memcmp(reader.GetBinBuffer(), bin.data(), 2), 0);
  EXPECT_EQ(reader.GetBinBuffer()[2], 0);
  ASSERT_EQ(reader.ReadBinary(100000), 5998u);
  EXPECT_EQ(std::memcmp(reader.GetBinBuffer(), bin.data() + 2, 5998), 0);
  EXPECT_EQ(reader.GetBinBuffer()[5998], 0);
  EXPECT_EQ(reader.ReadBinary(5), 0u);
  EXPECT_FALSE(reader.ReadLine());
}

TYPED_TEST(LineReaderKinds, SeekToBufferStartReadsAheadFromTheFirstUnusedByte) {
  // The stream goes back to the first byte not handed out, and the reader
  // reads a fresh block from there: nothing is lost or counted twice.
  const std::string bin = RandomBytes(5000, 9);
  DataStream s = this->Make("header\n" + bin);
  LineReader reader(&s, 0);
  ASSERT_TRUE(reader.ReadLine());
  EXPECT_EQ(reader.GetString(), "header");
  EXPECT_TRUE(reader.SeekToBufferStart());
  // One block (up to 4 KiB, less for a source that trickles) was read again.
  EXPECT_GT(s.GetPosition(), 7u);
  EXPECT_LE(s.GetPosition(), 7u + 4096u);
  EXPECT_EQ(s.GetBytesRead(), s.GetPosition());
  ASSERT_EQ(reader.ReadBinary(10000), bin.size());
  EXPECT_TRUE(std::string(reinterpret_cast<char*>(reader.GetBinBuffer()), bin.size()) == bin);
  EXPECT_EQ(s.GetBytesRead(), 7 + bin.size());

  // Lines go on being read after handing the stream back; at the end of the
  // data (no final line feed) the stream stays at the end: a read-and-rewind
  // loop sees each line once, then stops.
  DataStream tail = this->Make("a\nb");
  LineReader rewinding(&tail, 0);
  EXPECT_TRUE(rewinding.SeekToBufferStart());  // nothing read yet: the stream stays at 0
  std::vector<std::string> seen;
  for (int i = 0; i < 5 && rewinding.ReadLine(); ++i) {
    seen.push_back(rewinding.GetString());
    EXPECT_TRUE(rewinding.SeekToBufferStart());
  }
  EXPECT_EQ(seen, (std::vector<std::string>{"a", "b"}));
  EXPECT_EQ(tail.GetPosition(), 3u);
}

// A stream that cannot go back: SeekToBufferStart says so.
TEST(LineReaderSeek, RefusedSeekIsReported) {
  struct NoSeek : CappedMemorySource {
    using CappedMemorySource::CappedMemorySource;
    int Seek(int64_t, SeekOrigin) override { return -1; }
  };
  DataStream s(std::make_shared<NoSeek>("a\nb\n", 100));
  LineReader reader(&s, 0);
  ASSERT_TRUE(reader.ReadLine());
  EXPECT_FALSE(reader.SeekToBufferStart());
}

}  // namespace
}  // namespace oru::test
