// Compressed sources: gzip and zlib streams inflated through both kinds (over
// a file and over memory), gzip headers with every optional field, files made
// by the gzip tool and by Python, the compressed-length limit, truncated and
// corrupt streams, seeking inside what has been inflated, and the properties
// forwarded to the underlying source.
#include "oru/compressed_data_source.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <cstddef>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "oru/data_source.h"
#include "oru/file_data_source.h"
#include "support/test_util.h"

namespace oru {
namespace {

using test::Deflate;
using test::HaveTool;
using test::RandomBytes;
using test::ReadFile;
using test::TempDir;
using test::WriteFile;

// ---- helpers ---------------------------------------------------------------------

using test::Read;
using test::ReadAll;

std::string Text(size_t size) {
  std::string s;
  for (int i = 0; s.size() < size; ++i)
    s += "line " + std::to_string(i) + ": the quick brown fox jumps over the lazy dog\n";
  s.resize(size);
  return s;
}

// Alternating runs of text (compresses well) and random bytes (does not).
std::string Mixed(size_t size) {
  std::string s;
  for (unsigned i = 0; s.size() < size; ++i)
    s += i % 2 == 0 ? Text(150000) : RandomBytes(110000, i);
  s.resize(size);
  return s;
}

void AppendLe32(std::string& s, uint32_t v) {
  for (int i = 0; i < 4; ++i) s += static_cast<char>((v >> (8 * i)) & 0xFF);
}

uint32_t Crc32(const std::string& s) {
  return static_cast<uint32_t>(
      crc32(0, reinterpret_cast<const Bytef*>(s.data()), static_cast<uInt>(s.size())));
}

// gzip header flag bits (RFC 1952).
constexpr int FHCRC = 2;
constexpr int FEXTRA = 4;
constexpr int FNAME = 8;
constexpr int FCOMMENT = 16;

// A gzip member made by hand, so that every optional header field can be
// present: the fixed header, then extra field, name, comment and header CRC
// as `flags` asks, then raw deflate data and the CRC-32/length trailer.
std::string GzipHeader(int flags, const std::string& extra, const std::string& name,
                       const std::string& comment) {
  std::string h = {'\x1F', '\x8B', '\x08', static_cast<char>(flags)};
  AppendLe32(h, 1609459200);  // modification time
  h += '\x00';                // extra flags
  h += '\x03';                // operating system: Unix
  if (flags & FEXTRA) {
    h += static_cast<char>(extra.size() & 0xFF);
    h += static_cast<char>(extra.size() >> 8);
    h += extra;
  }
  if (flags & FNAME) h += name + '\0';
  if (flags & FCOMMENT) h += comment + '\0';
  if (flags & FHCRC) {
    const uint32_t crc = Crc32(h);
    h += static_cast<char>(crc & 0xFF);
    h += static_cast<char>((crc >> 8) & 0xFF);
  }
  return h;
}

std::string GzipMember(const std::string& data, int flags, const std::string& extra = "",
                       const std::string& name = "", const std::string& comment = "") {
  std::string g = GzipHeader(flags, extra, name, comment) + Deflate(data, 'r');
  AppendLe32(g, Crc32(data));
  AppendLe32(g, static_cast<uint32_t>(data.size()));
  return g;
}

// A source that is not a compressed stream at all: the reserved block type
// (BFINAL 1, BTYPE 11) as the first deflate byte.
const std::string kBadBlock("\x07\x00\x00\x00\x00\x00\x00\x00", 8);

// ---- both kinds -------------------------------------------------------------------

enum class Kind { File, Memory };

class CompressedSourceTest : public testing::TestWithParam<Kind> {
protected:
  // A compressed source over `bytes`, created with the underlying source at
  // `start`; the underlying source is kept in `under`.
  std::shared_ptr<CompressedDataSource> Open(const std::string& bytes, uint64_t n = 0,
                                             int64_t start = 0) {
    if (GetParam() == Kind::File) {
      const std::string path = dir.File("stream" + std::to_string(files++));
      WriteFile(path, bytes);
      auto file = FileDataSource::Create(path);
      EXPECT_NE(file, nullptr);
      if (!file) return {};
      EXPECT_EQ(file->Seek(start, DataSource::DS_SEEK_SET), 0);
      under = file;
      return CompressedFileDataSource::Create(file, n);
    }
    auto memory = InMemoryDataSource::Create(std::string(bytes), false);
    EXPECT_EQ(memory->Seek(start, DataSource::DS_SEEK_SET), 0);
    under = memory;
    return CompressedInMemoryDataSource::Create(memory, n);
  }

  TempDir dir;
  int files = 0;
  std::shared_ptr<DataSource> under;
};

INSTANTIATE_TEST_SUITE_P(Kinds, CompressedSourceTest, testing::Values(Kind::File, Kind::Memory),
                         [](const testing::TestParamInfo<Kind>& info) {
                           return info.param == Kind::File ? "File" : "Memory";
                         });

TEST_P(CompressedSourceTest, EveryCombinationOfOptionalGzipFields) {
  const std::string data = Text(3000);
  // 300 bytes, so that both bytes of the extra field's length matter; and
  // every field empty.
  const std::string extra = RandomBytes(300, 3);
  for (bool empty : {false, true}) {
    for (int flags = 0; flags < 32; flags += 2) {
      SCOPED_TRACE("flags " + std::to_string(flags) + (empty ? " empty" : ""));
      auto src = empty ? Open(GzipMember(data, flags))
                       : Open(GzipMember(data, flags, extra, "name.txt", "a comment, \xC3\xA9"));
      ASSERT_NE(src, nullptr);
      EXPECT_EQ(ReadAll(*src, 1000), data);
    }
  }
}

TEST_P(CompressedSourceTest, TrailerIsNotCheckedAndOnlyTheFirstMemberIsRead) {
  std::string gz = GzipMember(Text(2000), 0);
  for (size_t i = gz.size() - 8; i < gz.size(); ++i) gz[i] = static_cast<char>(~gz[i]);
  auto src = Open(gz + GzipMember("second", 0));
  ASSERT_NE(src, nullptr);
  EXPECT_EQ(ReadAll(*src, 100), Text(2000));
  EXPECT_TRUE(src->IsEndOfBuffer());
}

TEST_P(CompressedSourceTest, LargeStreamReadInPiecesOfEverySize) {
  // Over 5 MB: many output chunks and, for files, many input blocks. Step 0
  // reads byte by byte.
  const std::string data = Mixed(5 * 1024 * 1024 + 123);
  const std::string z = Deflate(data, 'z');
  for (uint64_t step : {uint64_t{0}, uint64_t{13}, uint64_t{4096}, uint64_t{65536}, uint64_t{65537},
                        uint64_t{1} << 20, uint64_t{8} << 20}) {
    SCOPED_TRACE("step " + std::to_string(step));
    auto src = Open(z);
    ASSERT_NE(src, nullptr);
    std::string got;
    if (step == 0) {
      for (int c = src->GetByte(); c != -1; c = src->GetByte()) got += static_cast<char>(c);
    } else {
      got = ReadAll(*src, step);
    }
    ASSERT_EQ(got.size(), data.size());
    EXPECT_TRUE(got == data);
    EXPECT_TRUE(src->IsEndOfBuffer());
  }
}

// ---- the compressed-length limit and damaged streams ------------------------------------

TEST_P(CompressedSourceTest, LimitEndsTheStream) {
  // Bytes past the limit must not be fed to inflate, or they would be
  // inflated as garbage or fail: at the end of the stream and inside it.
  const std::string data = Text(200000);
  const std::string z = Deflate(data, 'z');
  for (uint64_t n : {uint64_t{z.size()}, uint64_t{z.size() / 2}}) {
    SCOPED_TRACE("limit " + std::to_string(n));
    auto src = Open(z + RandomBytes(100000, 11), n);
    ASSERT_NE(src, nullptr);
    std::string got;
    ASSERT_NO_THROW(got = ReadAll(*src, 4096));
    EXPECT_TRUE(got == (n == z.size() ? data : data.substr(0, got.size())));
    EXPECT_GT(got.size(), n == z.size() ? data.size() - 1 : 0u);
    if (n < z.size()) EXPECT_LT(got.size(), data.size());
    EXPECT_TRUE(src->IsEndOfBuffer());
  }
}

TEST_P(CompressedSourceTest, TruncatedStreamEndsWithWhatCouldBeInflated) {
  const std::string data = Mixed(400000);
  for (char format : {'z', 'g'}) {
    SCOPED_TRACE(std::string("format ") + format);
    const std::string full = Deflate(data, format);
    auto src = Open(full.substr(0, full.size() * 3 / 5));
    ASSERT_NE(src, nullptr);
    std::string got;
    ASSERT_NO_THROW(got = ReadAll(*src, 10000));
    EXPECT_GT(got.size(), 0u);
    EXPECT_LT(got.size(), data.size());
    EXPECT_TRUE(got == data.substr(0, got.size()));
    EXPECT_TRUE(src->IsEndOfBuffer());
  }
}

TEST_P(CompressedSourceTest, CorruptStreamsThrowFromReads) {
  std::string badSum = Deflate(Text(5000), 'z');
  badSum.back() = static_cast<char>(badSum.back() ^ 1);  // the Adler-32 at the end
  const std::string cases[] = {
      "\x78\x9C" + kBadBlock,                 // a good zlib header
      GzipHeader(0, "", "", "") + kBadBlock,  // a good gzip header
      badSum,
      // A raw deflate stream's first byte never has compression method 8 in
      // its low nibble; Create cannot tell, inflate can.
      Deflate(Text(1000), 'r'),
  };
  for (const std::string& bytes : cases) {
    auto src = Open(bytes);
    ASSERT_NE(src, nullptr);
    EXPECT_THROW(ReadAll(*src, 1000), UnrecognizedCompressedFormat);
  }
  auto src = Open(cases[0]);
  EXPECT_THROW(src->GetByte(), UnrecognizedCompressedFormat);
  EXPECT_STREQ(UnrecognizedCompressedFormat().what(), "Unrecognized Compressed Format.");
}

TEST_P(CompressedSourceTest, BadHeadersThrowFromCreate) {
  const std::string named = GzipMember("x", FNAME, "", "long-name.txt");
  const std::string commented = GzipMember("x", FCOMMENT, "", "", "a comment");
  struct Case {
    std::string bytes;
    bool memoryOnly;  // memory refuses to skip past its end; a file allows it
  };
  const Case cases[] = {
      {std::string(), false},
      {std::string("\x1F"), false},
      {std::string("\x1F\x8B"), false},                       // no method or flags
      {std::string("\x1F\x8B\x08"), false},                   // no flags
      {named.substr(0, 10 + 4), false},                       // inside the name
      {commented.substr(0, 10 + 3), false},                   // inside the comment
      {GzipHeader(FEXTRA, "", "", "").substr(0, 11), false},  // half the extra length
      {std::string("\x1F\x8B\x08\x00\x00\x00", 6), true},     // fixed header cut
      {GzipHeader(FEXTRA, std::string(300, 'e'), "", "").substr(0, 12 + 100), true},
      {GzipHeader(FHCRC, "", "", "").substr(0, 11), true},  // half the header CRC
  };
  for (const Case& c : cases) {
    SCOPED_TRACE("header of " + std::to_string(c.bytes.size()) + " bytes");
    if (!c.memoryOnly || GetParam() == Kind::Memory)
      EXPECT_THROW(Open(c.bytes), UnrecognizedCompressedFormat);
  }
}

// ---- seeking inside what has been inflated ----------------------------------------------

TEST_P(CompressedSourceTest, SeekInsideWhatHasBeenInflated) {
  const std::string data = Mixed(3 * 1024 * 1024);
  const auto size = static_cast<int64_t>(data.size());
  auto src = Open(Deflate(data, 'z'));
  ASSERT_NE(src, nullptr);
  // Nothing is inflated yet, so there is nowhere to go, not even 0.
  for (SeekOrigin origin :
       {DataSource::DS_SEEK_SET, DataSource::DS_SEEK_CUR, DataSource::DS_SEEK_END})
    EXPECT_EQ(src->Seek(0, origin), -1);
  EXPECT_EQ(src->GetOffset(), 0u);
  ASSERT_EQ(ReadAll(*src, 1 << 20).size(), data.size());

  constexpr SeekOrigin SET = DataSource::DS_SEEK_SET, CUR = DataSource::DS_SEEK_CUR,
                       END = DataSource::DS_SEEK_END;
  struct Case {
    int64_t from, offset;
    SeekOrigin origin;
    int64_t to;  // -1: refused, the position stays
  };
  const Case cases[] = {
      {5, 0, SET, 0},
      {5, 65535, SET, 65535},
      {5, 65536, SET, 65536},
      {5, 196608, SET, 196608},
      {5, size / 2, SET, size / 2},
      {5, size - 1, SET, size - 1},
      {5, -1, END, size - 1},
      {5, -size, END, 0},
      {5, 65536 - size, END, 65536},
      {11, 31, CUR, 42},
      {42, -2, CUR, 40},
      {5, size, SET, -1},  // the end itself is not a target
      {5, -1, SET, -1},
      {5, 0, END, -1},
      {5, 1, END, -1},
      {5, -size - 1, END, -1},
      {11, -12, CUR, -1},
      {11, size - 11, CUR, -1},
      {5, 0, SeekOrigin(3), -1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message()
                 << "from " << c.from << " offset " << c.offset << " origin " << c.origin);
    ASSERT_EQ(src->Seek(c.from, SET), 0);
    EXPECT_EQ(src->Seek(c.offset, c.origin), c.to < 0 ? -1 : 0);
    const int64_t at = c.to < 0 ? c.from : c.to;
    EXPECT_EQ(src->GetOffset(), static_cast<uint64_t>(at));
    EXPECT_TRUE(Read(*src, 3) == data.substr(static_cast<size_t>(at), 3));
  }
  ASSERT_EQ(src->Seek(size - 1, SET), 0);
  EXPECT_FALSE(src->IsEndOfBuffer());
  EXPECT_EQ(src->GetByte(), static_cast<unsigned char>(data.back()));
  EXPECT_TRUE(src->IsEndOfBuffer());
}

TEST_P(CompressedSourceTest, SeekEndIsTheEndOfWhatIsInflatedSoFar) {
  const std::string data = RandomBytes(1024 * 1024, 6);
  auto src = Open(Deflate(data, 'z'));
  ASSERT_NE(src, nullptr);
  ASSERT_EQ(Read(*src, 100), data.substr(0, 100));

  ASSERT_EQ(src->Seek(-1, DataSource::DS_SEEK_END), 0);
  const uint64_t last = src->GetOffset();
  EXPECT_GE(last, 99u);
  EXPECT_LT(last + 1, data.size());  // not the end of the stream
  EXPECT_EQ(src->GetByte(), static_cast<unsigned char>(data[last]));
  EXPECT_EQ(src->Seek(static_cast<int64_t>(last) + 1, DataSource::DS_SEEK_SET), -1);
  EXPECT_FALSE(src->IsEndOfBuffer());

  // Reading on from a seek back inflates the rest as usual.
  ASSERT_EQ(src->Seek(10, DataSource::DS_SEEK_SET), 0);
  EXPECT_TRUE(ReadAll(*src, 50000) == data.substr(10));
}

TEST_P(CompressedSourceTest, SeekAnywhereInAFullyInflatedStream) {
  const std::string data = Mixed(3 * 1024 * 1024);
  const uint64_t size = data.size();
  auto src = Open(Deflate(data, 'z'));
  ASSERT_NE(src, nullptr);
  ASSERT_EQ(ReadAll(*src, 1 << 20).size(), size);

  for (uint64_t at :
       {uint64_t{0}, uint64_t{65535}, uint64_t{65536}, uint64_t{196608}, size / 2, size - 1}) {
    SCOPED_TRACE("offset " + std::to_string(at));
    ASSERT_EQ(src->Seek(static_cast<int64_t>(at), DataSource::DS_SEEK_SET), 0);
    EXPECT_EQ(src->GetOffset(), at);
    const std::string got = Read(*src, 3);
    EXPECT_TRUE(got == data.substr(static_cast<size_t>(at), 3));
    ASSERT_EQ(
        src->Seek(static_cast<int64_t>(at) - static_cast<int64_t>(size), DataSource::DS_SEEK_END),
        0);
    EXPECT_EQ(src->GetOffset(), at);
  }
  EXPECT_EQ(src->Seek(static_cast<int64_t>(size), DataSource::DS_SEEK_SET), -1);
  ASSERT_EQ(src->Seek(static_cast<int64_t>(size) - 1, DataSource::DS_SEEK_SET), 0);
  EXPECT_FALSE(src->IsEndOfBuffer());
  EXPECT_EQ(src->GetByte(), static_cast<unsigned char>(data.back()));
  EXPECT_TRUE(src->IsEndOfBuffer());
}

TEST_P(CompressedSourceTest, BoundedMemoryGivesTheSameBytesWhereverItSeeks) {
  // Read whole with 256 KiB kept: seeks behind the kept chunks inflate again
  // from the start (gzip and zlib streams), and every read matches the data.
  const std::string data = Mixed(3 * 1024 * 1024);
  std::mt19937 rng(5);
  for (const std::string& stream : {GzipMember(data, 0), Deflate(data, 'z')}) {
    auto src = Open(stream);
    ASSERT_NE(src, nullptr);
    if (auto file = std::dynamic_pointer_cast<CompressedFileDataSource>(src))
      file->SetMemoryLimit(256 << 10);
    if (auto memory = std::dynamic_pointer_cast<CompressedInMemoryDataSource>(src))
      memory->SetMemoryLimit(256 << 10);
    ASSERT_TRUE(ReadAll(*src, 100000) == data);
    for (int i = 0; i < 16; ++i) {
      const uint64_t at = rng() % data.size();
      ASSERT_EQ(src->Seek(static_cast<int64_t>(at), DataSource::DS_SEEK_SET), 0);
      EXPECT_TRUE(Read(*src, 1000) == data.substr(static_cast<size_t>(at), 1000)) << at;
    }
    EXPECT_EQ(src->Seek(static_cast<int64_t>(data.size()), DataSource::DS_SEEK_SET), -1);
    EXPECT_EQ(src->Seek(-1, DataSource::DS_SEEK_END), 0);
    EXPECT_EQ(src->GetByte(), static_cast<unsigned char>(data.back()));
  }
}

// ---- properties --------------------------------------------------------------------------

TEST_P(CompressedSourceTest, SizesAreUnknownAndTheRestIsForwarded) {
  auto src = Open(Deflate(Text(1000), 'z'));
  ASSERT_NE(src, nullptr);
  EXPECT_EQ(src->GetFileSize(), 0u);
  EXPECT_EQ(src->GetBufferSize(), UINT64_MAX);
  ReadAll(*src, 100);
  EXPECT_EQ(src->GetFileSize(), 0u);
  EXPECT_EQ(src->GetBufferSize(), UINT64_MAX);
  // The whole-content copy goes by GetFileSize, so it is empty.
  EXPECT_EQ(src->ExtractBuffer()->GetSize(), 0u);
  EXPECT_EQ(src->Clone(), nullptr);
  EXPECT_EQ(src->CompressedDataSourceFromThis(0), nullptr);
  // The temporary flag is the underlying source's.
  under->SetIsTempFile(true);
  EXPECT_TRUE(src->IsTempFile());
  src->SetIsTempFile(false);
  EXPECT_FALSE(under->IsTempFile());
}

TEST_P(CompressedSourceTest, CompressedOffsetOfAZlibStream) {
  // Incompressible data, so the estimate grows steadily with the position.
  const std::string data = RandomBytes(600000, 8);
  const std::string z = Deflate(data, 'z');
  const uint64_t start = 5;
  const uint64_t end = start + z.size();
  auto src = Open("xxxxx" + z + "trailing", 0, static_cast<int64_t>(start));
  ASSERT_NE(src, nullptr);
  EXPECT_EQ(src->GetCompressedOffset(), start);  // nothing inflated yet

  uint64_t previous = start;
  uint64_t total = 0;
  while (true) {
    const uint64_t got = Read(*src, 10000).size();
    if (got == 0) break;
    total += got;
    const uint64_t offset = src->GetCompressedOffset();
    EXPECT_GE(offset, previous);
    EXPECT_LE(offset, end);
    previous = offset;
  }
  EXPECT_EQ(total, data.size());
  // At the end every byte of the stream, checksum included, is consumed.
  EXPECT_EQ(src->GetCompressedOffset(), end);

  // Back at the start the estimate is back at the start too.
  ASSERT_EQ(src->Seek(0, DataSource::DS_SEEK_SET), 0);
  EXPECT_EQ(src->GetCompressedOffset(), start);
}

TEST_P(CompressedSourceTest, CompressedOffsetStartsAfterTheGzipHeader) {
  const std::string gz = GzipMember(Text(1000), FNAME | FCOMMENT, "", "abc", "de");
  auto src = Open(gz);
  ASSERT_NE(src, nullptr);
  EXPECT_EQ(src->GetCompressedOffset(), 10u + 4u + 3u);
  ReadAll(*src, 100);
  const uint64_t end = src->GetCompressedOffset();
  EXPECT_GT(end, 17u);
  EXPECT_LE(end, gz.size() - 8);  // the trailer is not inflated
}

// ---- data from independent tools ------------------------------------------------------------

class GzipToolTest : public testing::Test {
protected:
  void SetUp() override {
    if (!HaveTool("gzip")) GTEST_SKIP() << "the gzip tool is not available";
  }

  // Compresses `data` with the gzip tool (extra options in `options`) and
  // returns the .gz file's path.
  std::string Gzip(const std::string& data, const std::string& name, const std::string& options) {
    const std::string in = dir.File(name);
    WriteFile(in, data);
    const std::string out = in + ".gz";
    EXPECT_EQ(test::Run("gzip -c " + options + " '" + in + "' > '" + out + "'"), 0);
    return out;
  }

  // Checks that both kinds inflate the .gz file at `path` to `data`.
  void ExpectBothKindsRead(const std::string& path, const std::string& data,
                           uint64_t headerLength) {
    auto file = CompressedFileDataSource::Create(FileDataSource::Create(path), 0);
    EXPECT_EQ(file->GetCompressedOffset(), headerLength);
    EXPECT_TRUE(ReadAll(*file, 65536) == data);
    EXPECT_TRUE(file->IsEndOfBuffer());

    auto memory =
        CompressedInMemoryDataSource::Create(InMemoryDataSource::Create(ReadFile(path), false), 0);
    EXPECT_EQ(memory->GetCompressedOffset(), headerLength);
    EXPECT_TRUE(ReadAll(*memory, 65536) == data);
    EXPECT_TRUE(memory->IsEndOfBuffer());
  }

  TempDir dir;
};

TEST_F(GzipToolTest, WithAndWithoutName) {
  const std::string large = Mixed(5 * 1000 * 1000);
  ExpectBothKindsRead(Gzip(large, "large.bin", "-n"), large, 10);
  const std::string data = Text(100000);
  const std::string path = Gzip(data, "named-file.txt", "-N -9");
  EXPECT_EQ(ReadFile(path).substr(10, 15), std::string("named-file.txt\0", 15));
  ExpectBothKindsRead(path, data, 10 + 15);
}

TEST_F(GzipToolTest, TruncatedFile) {
  const std::string data = Mixed(500000);
  const std::string gz = ReadFile(Gzip(data, "cut.bin", "-n"));
  const std::string cut = gz.substr(0, gz.size() / 2);
  WriteFile(dir.File("cut.gz"), cut);
  auto file = CompressedFileDataSource::Create(FileDataSource::Create(dir.File("cut.gz")), 0);
  auto memory =
      CompressedInMemoryDataSource::Create(InMemoryDataSource::Create(std::string(cut), false), 0);
  std::string fromFile, fromMemory;
  ASSERT_NO_THROW(fromFile = ReadAll(*file, 4096));
  ASSERT_NO_THROW(fromMemory = ReadAll(*memory, 4096));
  EXPECT_GT(fromFile.size(), 0u);
  EXPECT_LT(fromFile.size(), data.size());
  EXPECT_TRUE(fromFile == data.substr(0, fromFile.size()));
  EXPECT_TRUE(fromMemory == fromFile);
}

// Python writes a member with a stored name for us to read, and reads back
// a hand-made member with every optional field (which guards the hand-made
// members used above).
TEST(PythonGzipTest, BothWays) {
  if (!HaveTool("python3")) GTEST_SKIP() << "python3 is not available";
  TempDir dir;
  const std::string data = Mixed(200000), text = Text(5000);
  WriteFile(dir.File("input.bin"), data);
  WriteFile(dir.File("hand.gz"), GzipMember(text, FEXTRA | FNAME | FCOMMENT | FHCRC,
                                            RandomBytes(300, 3), "name.txt", "comment"));
  const std::string script =
      "import gzip,sys\n"
      "a=sys.argv\n"
      "with gzip.GzipFile(filename='stored-name.bin',mode='wb',fileobj=open(a[2],'wb'),"
      "mtime=1609459200) as g: g.write(open(a[1],'rb').read())\n"
      "open(a[4],'wb').write(gzip.open(a[3]).read())\n";
  ASSERT_EQ(test::Run("python3 -c \"" + script + "\" '" + dir.File("input.bin") + "' '" +
                      dir.File("output.gz") + "' '" + dir.File("hand.gz") + "' '" +
                      dir.File("hand.txt") + "'"),
            0);
  EXPECT_TRUE(ReadFile(dir.File("hand.txt")) == text);
  const std::string gz = ReadFile(dir.File("output.gz"));
  ASSERT_GE(gz.size(), 10u);
  EXPECT_NE(gz[3] & FNAME, 0);
  auto file = CompressedFileDataSource::Create(FileDataSource::Create(dir.File("output.gz")), 0);
  EXPECT_TRUE(ReadAll(*file, 30000) == data);
  auto memory =
      CompressedInMemoryDataSource::Create(InMemoryDataSource::Create(std::string(gz), false), 0);
  EXPECT_TRUE(ReadAll(*memory, 30000) == data);
}

}  // namespace
}  // namespace oru
