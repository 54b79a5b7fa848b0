// DataStream: typed reads in both byte orders with their lenient and
// element-wise results at the end of the data, line reads over every
// line-end combination, skips and positions, progress, compressed sections,
// copies and moves. The behavioural cases run over every kind of source (see
// source_kinds.h), since memory is read on a separate fast road.
#include <cstring>
#include <type_traits>
#include <vector>

#include "data/source_kinds.h"
#include "oru/sparse_data_source.h"

namespace oru::test {
namespace {

using namespace std::string_literals;

using AllKinds = ::testing::Types<MemoryKind, FileKind, CompressedKind, CappedMemoryKind<3>>;

template <typename K>
class DataStreamAllKinds : public SourceKindTest<K> {};
TYPED_TEST_SUITE(DataStreamAllKinds, AllKinds, KindName);

template <typename... T, typename F>
void ForEachType(F&& f) {
  (f(std::type_identity<T>{}), ...);
}

// Hands out the test's bytes the way the source under test does: at most
// `cap` bytes per request.
struct Feed {
  std::string bytes;
  uint64_t cap;
  size_t pos = 0;

  std::string Take(uint64_t n) {
    const size_t k = static_cast<size_t>(std::min<uint64_t>({n, cap, bytes.size() - pos}));
    pos += k;
    return bytes.substr(pos - k, k);
  }
};

// The documented result of reading `count` elements of `width` bytes into
// `out`: in host order (and for bytes) one request for everything, success
// when anything came; in the other order one request per element, a partial
// element zero-padded and reversed, failure at the first element that gets
// no byte.
bool Expected(Feed& feed, bool swapped, size_t width, unsigned char* out, uint64_t count) {
  if (!swapped || width == 1) {
    const std::string got = feed.Take(count * width);
    std::memcpy(out, got.data(), got.size());
    return !got.empty();
  }
  for (uint64_t i = 0; i < count; ++i) {
    const std::string got = feed.Take(width);
    if (got.empty()) return false;
    unsigned char element[8] = {};
    std::memcpy(element, got.data(), got.size());
    for (size_t j = 0; j < width; ++j) out[i * width + j] = element[width - 1 - j];
  }
  return true;
}

std::string Text(DataStream& s, uint64_t count) {
  std::string out(static_cast<size_t>(count), '\0');
  out.resize(static_cast<size_t>(s.FillBuffer(reinterpret_cast<std::byte*>(out.data()), count)));
  return out;
}

// ---- typed reads ------------------------------------------------------------

TYPED_TEST(DataStreamAllKinds, ArrayReadsFollowTheRules) {
  const std::string bytes = RandomBytes(9001, 11);
  ForEachType<char, unsigned char, short, unsigned short, int, unsigned int, float, double, int64_t,
              uint64_t>([&](auto tag) {
    using T = typename decltype(tag)::type;
    for (bool swapped : {false, true}) {
      SCOPED_TRACE(::testing::Message() << "width " << sizeof(T) << " swapped " << swapped);
      DataStream s = this->Make(bytes);
      if (swapped) s.SetSrcEndianess(BigEndian);
      Feed feed{bytes, TypeParam::kCap};
      int round = 0;
      for (uint64_t count : {1, 3, 0, 1, 2, 100, 1, 2100, 2100}) {
        std::vector<T> got(count + 1), want(count + 1);
        std::memset(got.data(), 0xA5, got.size() * sizeof(T));
        std::memset(want.data(), 0xA5, want.size() * sizeof(T));
        const bool wantOk = Expected(feed, swapped, sizeof(T),
                                     reinterpret_cast<unsigned char*>(want.data()), count);
        // A single element goes through the scalar form now and then.
        const bool ok = count == 1 && round++ % 2 == 1 ? s.Read(got[0]) : s.Read(got.data(), count);
        EXPECT_EQ(ok, wantOk) << "count " << count;
        EXPECT_EQ(std::memcmp(got.data(), want.data(), got.size() * sizeof(T)), 0)
            << "count " << count;
        EXPECT_EQ(s.GetBytesRead(), feed.pos) << "count " << count;
        if (s.GetBytesRead() != feed.pos) break;  // the rest would differ as well
      }
    }
  });
}

TYPED_TEST(DataStreamAllKinds, BoolIsAnyNonZeroByte) {
  DataStream s = this->Make("\x00\x01\x02\xFF"s);
  bool value = true;
  for (bool expected : {false, true, true, true}) {
    EXPECT_TRUE(s.Read(value));
    EXPECT_EQ(value, expected);
  }
  EXPECT_FALSE(s.Read(value));
  EXPECT_TRUE(value);  // untouched
}

// ---- line reads -------------------------------------------------------------

struct LineCase {
  const char* name;
  std::string bytes;
  std::vector<std::string> lines;
  // Ends in a two-byte line end, so no read ever goes past the end.
  bool pairAtEnd = false;
};

const LineCase kLineCases[] = {
    {"LF", "ab\ncd", {"ab", "cd"}},
    {"CR", "ab\rcd", {"ab", "cd"}},
    {"CRLF", "ab\r\ncd", {"ab", "cd"}},
    {"LFCR", "ab\n\rcd", {"ab", "cd"}},
    {"LF LF", "ab\n\ncd", {"ab", "", "cd"}},
    {"mixed", "ab\r\ncd\n\nef", {"ab", "cd", "", "ef"}},
    {"no final end", "ab", {"ab"}},
    {"final LF", "ab\n", {"ab"}},
    {"final CR", "ab\r", {"ab"}},
    {"final LF LF", "ab\n\n", {"ab", ""}},
    {"final CRLF", "ab\r\n", {"ab"}, true},
    {"final LFCR", "ab\n\r", {"ab"}, true},
    {"only LF", "\n", {""}},
    {"only CRLF", "\r\n", {""}, true},
    {"empty", "", {}},
    {"raw bytes", "a\xFF\x00z\n\x80"s, {"a\xFF\x00z"s, "\x80"}},
    {"long", std::string(10000, 'q') + "\r\nend", {std::string(10000, 'q'), "end"}}};

TYPED_TEST(DataStreamAllKinds, LinesEndAtEveryLineEnd) {
  for (const LineCase& c : kLineCases) {
    SCOPED_TRACE(c.name);
    std::vector<std::string> expected = c.lines;
    // A source that learns of its end only from a failed read gives one more,
    // empty, line when nothing has read past the end yet.
    if ((TypeParam::kEndSeenLate && (c.pairAtEnd || c.bytes.empty())) ||
        (TypeParam::kEndUnknownUntilRead && c.bytes.empty()))
      expected.push_back("");
    DataStream s = this->Make(c.bytes);
    std::vector<std::string> got;
    std::string line;
    while (got.size() < expected.size() + 3 && s.Read(&line)) got.push_back(line);
    EXPECT_EQ(got, expected);
    line = "untouched";
    EXPECT_FALSE(s.Read(&line));
    EXPECT_EQ(line, "untouched");
    EXPECT_EQ(s.GetBytesRead(), c.bytes.size());
  }
}

// ---- positions, skips, raw reads --------------------------------------------

TYPED_TEST(DataStreamAllKinds, SkipsPositionsAndTheEndOfData) {
  DataStream s = this->Make("0123456789abcdefghijklmnopqrstuvwxyz");
  char c = 0;
  ASSERT_TRUE(s.Read(c));  // inflated data can be positioned only once read
  EXPECT_TRUE(s.SkipBytes(2) && s.SkipUInt16s(2) && s.SkipUInt32s(1) && s.SkipFloats(2) &&
              s.SkipDoubles(1));
  EXPECT_EQ(s.GetPosition(), 27u);
  EXPECT_EQ(s.GetBytesRead(), 27u);
  EXPECT_EQ(Text(s, 1), "r");
  EXPECT_TRUE(s.SetPosition(5));
  EXPECT_EQ(Text(s, 1), "5");
  EXPECT_TRUE(s.Rewind());
  EXPECT_EQ(Text(s, 1), "0");
  EXPECT_EQ(s.GetBytesRead(), 30u);  // positioning counts nothing
  s.ResetBytesRead();
  EXPECT_TRUE(s.SkipBytes(0));
  EXPECT_EQ(s.GetBytesRead(), 0u);

  DataStream empty = this->Make("");
  EXPECT_EQ(empty.IsEOF(), !TypeParam::kEndSeenLate && !TypeParam::kEndUnknownUntilRead);
  c = 'k';
  EXPECT_FALSE(empty.Read(c));
  EXPECT_EQ(c, 'k');
  EXPECT_TRUE(empty.IsEOF());

  s = this->Make("abc");
  EXPECT_FALSE(s.IsEOF());
  EXPECT_EQ(Text(s, 2), "ab");
  ASSERT_TRUE(s.Read(c));
  EXPECT_EQ(s.IsEOF(), !TypeParam::kEndSeenLate);
  EXPECT_FALSE(s.Read(c));
  EXPECT_TRUE(s.IsEOF());
  // A successful seek to the end clears a file's end indicator.
  EXPECT_EQ(s.SetPosition(3), TypeParam::kSeekToEnd);
  EXPECT_EQ(s.GetPosition(), 3u);
  EXPECT_EQ(s.IsEOF(), !TypeParam::kEndSeenLate);
  ASSERT_TRUE(s.SetPosition(1));
  EXPECT_EQ(s.SetPosition(4), TypeParam::kSeekPastEnd);
  EXPECT_EQ(s.GetPosition(), TypeParam::kSeekPastEnd ? 4u : 1u);
  ASSERT_TRUE(s.SetPosition(1));
  EXPECT_EQ(s.SkipUInt16s(2), TypeParam::kSeekPastEnd);
  EXPECT_EQ(s.GetPosition(), TypeParam::kSeekPastEnd ? 5u : 1u);
  EXPECT_EQ(s.GetBytesRead(), TypeParam::kSeekPastEnd ? 7u : 3u);
}

TYPED_TEST(DataStreamAllKinds, CopiesShareThePositionAndMovesCarryOn) {
  DataStream a = this->Make("0123456789");
  a.SetSrcEndianess(BigEndian);
  EXPECT_EQ(Text(a, 2), "01");
  DataStream b = a;
  EXPECT_TRUE(b.IsBigEndian());
  EXPECT_EQ(Text(b, 3), "234");
  EXPECT_EQ(Text(a, 1), "5");  // the copy moved the shared position
  EXPECT_EQ(a.GetBytesRead(), 3u);
  EXPECT_EQ(b.GetBytesRead(), 5u);
  DataStream target = this->Make("zz");
  target = std::move(a);
  EXPECT_EQ(Text(target, 1), "6");
  EXPECT_EQ(target.GetBytesRead(), 4u);
  EXPECT_TRUE(target.IsBigEndian());
}

// ---- progress ---------------------------------------------------------------

// The truncated percentage; past the end (a file) only its low byte counts,
// and what is above 100 is 100.
TYPED_TEST(DataStreamAllKinds, ProgressIsThePercentageOfThePosition) {
  if (std::is_same_v<TypeParam, CompressedKind>) GTEST_SKIP() << "see the section test";
  EXPECT_EQ(this->Make("").GetProgress(), 100);
  DataStream s = this->Make(std::string(200, 'p'));
  const int cases[][2] = {{0, 0}, {1, 0}, {100, 50}, {199, 99}, {200, 100}, {300, 100}, {600, 44}};
  for (const auto& [at, percent] : cases) {
    if (at > 200 && !TypeParam::kSeekPastEnd) break;
    ASSERT_TRUE(s.SetPosition(at));
    EXPECT_EQ(s.GetProgress(), percent) << "at " << at;
  }
}

// ---- compressed sections ----------------------------------------------------

// A prefix, the compressed section, a tail: the section's lines are read
// and the main source takes over again after it.
TEST(DataStreamCompressedSection, ReadsTheSectionAndReturns) {
  TempDir dir;
  const std::string text = "first line\nsecond line\r\nthird";
  const std::string z = Deflate(text, 'z');
  // More than one input block of a file.
  const std::string big = RandomBytes(70000, 8) + "\nend";
  WriteFile(dir.File("g.bin"), "HDR:" + Deflate(big, 'g') + "TAIL");
  const struct {
    const char* name;
    std::shared_ptr<DataSource> main;
    const std::string& text;
    uint64_t length;  // of the compressed data, 0: unknown
  } cases[] = {
      {"memory", InMemoryDataSource::Create("HDR:" + z + "TAIL", false), text, z.size()},
      {"file, gzip", FileDataSource::Create(dir.File("g.bin")), big, 0},
      // A user's class derived from the in-memory source has the view too.
      {"derived memory", std::make_shared<CappedMemorySource>("HDR:" + z + "TAIL", 3), text, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    DataStream s(c.main);
    ASSERT_TRUE(s.SkipBytes(4));
    ASSERT_TRUE(s.StartCompressedSection(c.length));
    EXPECT_EQ(s.GetPosition(), 0u);
    EXPECT_TRUE(Text(s, c.text.size() + 10) == c.text);
    EXPECT_TRUE(s.IsEOF());
    EXPECT_EQ(s.GetBytesRead(), 4 + c.text.size());
    // Progress follows the compressed bytes taken (for zlib data, all of them).
    if (&c.text == &text) EXPECT_EQ(s.GetProgress(), (4 + z.size()) * 100 / (8 + z.size()));
    EXPECT_TRUE(s.EndCompressedSection());
    EXPECT_EQ(s.ActiveDataSource(), c.main);
    if (&c.text == &text) {
      // The in-memory kind leaves the main position where the zlib data starts.
      EXPECT_EQ(s.GetPosition(), 4u);
      ASSERT_TRUE(s.SkipBytes(z.size()));
      // Back on the main source, a user's source is read element by element
      // again in the other byte order, three bytes per call or not.
      s.SetSrcEndianess(BigEndian);
      uint16_t tail[2] = {};
      EXPECT_TRUE(s.Read(tail, 2) && tail[0] == 0x5441 && tail[1] == 0x494C);  // "TAIL"
    }
    ASSERT_TRUE(s.Rewind());
    EXPECT_EQ(Text(s, 3), "HDR");
  }
  // A source without a compressed view has no section to start.
  EXPECT_FALSE(DataStream(SparseDataSource::Create(1)).StartCompressedSection());
}

}  // namespace
}  // namespace oru::test
