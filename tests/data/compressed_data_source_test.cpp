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
#include <stdexcept>
#include <string>
#include <tuple>

#include "oru/data_source.h"
#include "oru/file_data_source.h"
#include "support/test_util.h"

namespace oru::test {
namespace {

// ---- helpers ---------------------------------------------------------------------

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

// gzip header flag bits (RFC 1952).
constexpr int FHCRC = 2, FEXTRA = 4, FNAME = 8, FCOMMENT = 16;

// A gzip member written by zlib with the optional header fields that `flags`
// asks for: extra field, name, comment and header CRC, in that order after
// the 10 fixed bytes.
std::string GzipMember(const std::string& data, int flags, std::string extra = "",
                       std::string name = "", std::string comment = "") {
  gz_header header{};
  header.time = 1609459200;
  header.os = 3;  // Unix
  if (flags & FEXTRA) header.extra = reinterpret_cast<Bytef*>(extra.data());
  header.extra_len = static_cast<uInt>(extra.size());
  if (flags & FNAME) header.name = reinterpret_cast<Bytef*>(name.data());
  if (flags & FCOMMENT) header.comment = reinterpret_cast<Bytef*>(comment.data());
  header.hcrc = (flags & FHCRC) != 0;
  z_stream zs{};
  EXPECT_EQ(deflateInit2(&zs, 6, Z_DEFLATED, 31, 8, Z_DEFAULT_STRATEGY), Z_OK);
  EXPECT_EQ(deflateSetHeader(&zs, &header), Z_OK);
  std::string out(deflateBound(&zs, static_cast<uLong>(data.size())) + 1024, '\0');
  zs.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(data.data()));
  zs.avail_in = static_cast<uInt>(data.size());
  zs.next_out = reinterpret_cast<Bytef*>(out.data());
  zs.avail_out = static_cast<uInt>(out.size());
  EXPECT_EQ(deflate(&zs, Z_FINISH), Z_STREAM_END);
  out.resize(zs.total_out);
  deflateEnd(&zs);
  return out;
}

// What zlib itself inflates from a zlib or gzip stream that may be cut
// short, given all of it at once: the reference for truncated streams.
std::string InflatePrefix(const std::string& stream) {
  z_stream zs{};
  EXPECT_EQ(inflateInit2(&zs, 15 + 32), Z_OK);  // either wrapper
  zs.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(stream.data()));
  zs.avail_in = static_cast<uInt>(stream.size());
  std::string out;
  int rc = Z_OK;
  while (rc == Z_OK) {
    char piece[65536];
    zs.next_out = reinterpret_cast<Bytef*>(piece);
    zs.avail_out = sizeof piece;
    rc = inflate(&zs, Z_SYNC_FLUSH);
    out.append(piece, sizeof piece - zs.avail_out);
  }
  inflateEnd(&zs);
  return out;
}

// A source that is not a compressed stream at all: the reserved block type
// (BFINAL 1, BTYPE 11) as the first deflate byte.
const std::string kBadBlock("\x07\x00\x00\x00\x00\x00\x00\x00", 8);

// ---- both kinds -------------------------------------------------------------------

enum class Kind { File, Memory };

class CompressedSourceTest : public testing::TestWithParam<Kind> {
protected:
  // A compressed source over `bytes`, created with the underlying source at
  // `start`; the underlying source is kept in `under`. Never null: creation
  // throws at a bad header (and here, when the file cannot be made).
  std::shared_ptr<CompressedDataSource> Open(const std::string& bytes, uint64_t n = 0,
                                             int64_t start = 0) {
    if (GetParam() == Kind::File) {
      const std::string path = dir.File("stream" + std::to_string(files++));
      WriteFile(path, bytes);
      auto file = FileDataSource::Create(path);
      if (!file) throw std::runtime_error("cannot open " + path);
      EXPECT_EQ(file->Seek(start, DataSource::DS_SEEK_SET), 0);
      under = file;
      return CompressedFileDataSource::Create(file, n);
    }
    auto memory = InMemoryDataSource::Create(std::string(bytes), false);
    EXPECT_EQ(memory->Seek(start, DataSource::DS_SEEK_SET), 0);
    under = memory;
    return CompressedInMemoryDataSource::Create(memory, n);
  }

  // Checks that a truncated stream gives what zlib can inflate of it.
  void ExpectPrefixOfTruncated(const std::string& cut, const std::string& data) {
    auto src = Open(cut);
    std::string got;
    ASSERT_NO_THROW(got = ReadAll(*src, 4096));
    EXPECT_GT(got.size(), 0u);
    EXPECT_LT(got.size(), data.size());
    EXPECT_TRUE(got == data.substr(0, got.size()));
    EXPECT_EQ(got.size(), InflatePrefix(cut).size());
    EXPECT_TRUE(src->IsEndOfBuffer());
  }

  TempDir dir;
  int files = 0;
  std::shared_ptr<DataSource> under;
};

INSTANTIATE_TEST_SUITE_P(Kinds, CompressedSourceTest, testing::Values(Kind::File, Kind::Memory),
                         [](const testing::TestParamInfo<Kind>& info) {
                           return info.param == Kind::File ? "File" : "Memory";
                         });

// Every member's trailer is spoilt and a second member follows it: the
// trailer is not checked, and only the first member is read.
TEST_P(CompressedSourceTest, EveryCombinationOfOptionalGzipFields) {
  const std::string data = Text(3000);
  // 300 bytes, so that both bytes of the extra field's length matter; and
  // every field empty.
  const std::string extra = RandomBytes(300, 3);
  for (bool empty : {false, true}) {
    for (int flags = 0; flags < 32; flags += 2) {
      SCOPED_TRACE("flags " + std::to_string(flags) + (empty ? " empty" : ""));
      std::string gz = empty ? GzipMember(data, flags)
                             : GzipMember(data, flags, extra, "name.txt", "a comment, \xC3\xA9");
      for (size_t i = gz.size() - 8; i < gz.size(); ++i) gz[i] = static_cast<char>(~gz[i]);
      auto src = Open(gz + GzipMember("second", 0));
      EXPECT_EQ(ReadAll(*src, 1000), data);
      EXPECT_TRUE(src->IsEndOfBuffer());
    }
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
    ExpectPrefixOfTruncated(full.substr(0, full.size() * 3 / 5), data);
  }
}

TEST_P(CompressedSourceTest, CorruptStreamsThrowFromReads) {
  std::string badSum = Deflate(Text(5000), 'z');
  badSum.back() = static_cast<char>(badSum.back() ^ 1);  // the Adler-32 at the end
  const std::string cases[] = {
      "\x78\x9C" + kBadBlock,                       // a good zlib header
      GzipMember("", 0).substr(0, 10) + kBadBlock,  // a good gzip header
      badSum,
      // A raw deflate stream's first byte never has compression method 8 in
      // its low nibble; Create cannot tell, inflate can.
      Deflate(Text(1000), 'r'),
  };
  for (const std::string& bytes : cases) {
    auto src = Open(bytes);
    EXPECT_THROW(ReadAll(*src, 1000), UnrecognizedCompressedFormat);
  }
}

TEST_P(CompressedSourceTest, BadHeadersThrowFromCreate) {
  const struct {
    std::string bytes;
    bool memoryOnly;  // memory refuses to skip past its end; a file allows it
  } cases[] = {
      {std::string(), false},
      {std::string("\x1F"), false},
      {std::string("\x1F\x8B"), false},                                       // no method or flags
      {std::string("\x1F\x8B\x08"), false},                                   // no flags
      {GzipMember("x", FNAME, "", "long-name.txt").substr(0, 14), false},     // inside the name
      {GzipMember("x", FCOMMENT, "", "", "a comment").substr(0, 13), false},  // inside the comment
      {GzipMember("x", FEXTRA).substr(0, 11), false},      // half the extra length
      {std::string("\x1F\x8B\x08\x00\x00\x00", 6), true},  // fixed header cut
      {GzipMember("x", FEXTRA, std::string(300, 'e')).substr(0, 12 + 100), true},
      {GzipMember("x", FHCRC).substr(0, 11), true},  // half the header CRC
  };
  for (const auto& c : cases) {
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
  // Nothing is inflated yet, so there is nowhere to go, not even 0.
  for (SeekOrigin origin :
       {DataSource::DS_SEEK_SET, DataSource::DS_SEEK_CUR, DataSource::DS_SEEK_END})
    EXPECT_EQ(src->Seek(0, origin), -1);
  EXPECT_EQ(src->GetOffset(), 0u);
  // The end is the end of what has been inflated so far.
  ASSERT_EQ(Read(*src, 100), data.substr(0, 100));
  ASSERT_EQ(src->Seek(-1, DataSource::DS_SEEK_END), 0);
  const uint64_t inflated = src->GetOffset() + 1;
  EXPECT_GE(inflated, 100u);
  EXPECT_LT(inflated, data.size());  // not the end of the stream
  EXPECT_EQ(src->GetByte(), static_cast<unsigned char>(data[inflated - 1]));
  EXPECT_EQ(src->Seek(static_cast<int64_t>(inflated), DataSource::DS_SEEK_SET), -1);
  EXPECT_FALSE(src->IsEndOfBuffer());
  // Reading on from a seek back inflates the rest as usual.
  ASSERT_EQ(src->Seek(10, DataSource::DS_SEEK_SET), 0);
  ASSERT_TRUE(ReadAll(*src, 1 << 20) == data.substr(10));

  constexpr SeekOrigin SET = DataSource::DS_SEEK_SET, CUR = DataSource::DS_SEEK_CUR,
                       END = DataSource::DS_SEEK_END, BAD = SeekOrigin(3);
  const int64_t half = size / 2, last = size - 1;
  const struct {
    int64_t from, offset;
    SeekOrigin origin;
    int64_t to;  // -1: refused, the position stays (the end itself is not a target)
  } cases[] = {{5, 0, SET, 0},           {5, 65535, SET, 65535}, {5, 65536, SET, 65536},
               {5, 196608, SET, 196608}, {5, half, SET, half},   {5, last, SET, last},
               {5, -1, END, last},       {5, -size, END, 0},     {5, 65536 - size, END, 65536},
               {11, 31, CUR, 42},        {42, -2, CUR, 40},      {5, size, SET, -1},
               {5, -1, SET, -1},         {5, 0, END, -1},        {5, 1, END, -1},
               {5, -size - 1, END, -1},  {11, -12, CUR, -1},     {11, size - 11, CUR, -1},
               {5, 0, BAD, -1}};
  for (const auto& c : cases) {
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

TEST_P(CompressedSourceTest, BoundedMemoryGivesTheSameBytesWhereverItSeeks) {
  // Read whole with 256 KiB kept: seeks behind the kept chunks inflate again
  // from the start (gzip and zlib streams), and every read matches the data.
  const std::string data = Mixed(3 * 1024 * 1024);
  std::mt19937 rng(5);
  for (const std::string& stream : {GzipMember(data, 0), Deflate(data, 'z')}) {
    auto src = Open(stream);
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
  EXPECT_EQ(src->GetFileSize(), 0u);
  EXPECT_EQ(src->CompressedDataSourceFromThis(0), nullptr);
  // The time stamp and the temporary flag are the underlying source's.
  EXPECT_EQ(src->GetTimeStamp(), under->GetTimeStamp());
  under->SetIsTempFile(true);
  EXPECT_TRUE(src->IsTempFile());
  src->SetIsTempFile(false);
  EXPECT_FALSE(under->IsTempFile());
}

TEST_P(CompressedSourceTest, CompressedOffsetFollowsTheInflatedPosition) {
  // The first read inflates all of it (the first chunk is sized from the
  // compressed length), so the estimate is the position's share of the
  // inflated bytes, applied to the compressed bytes consumed.
  const std::string data = RandomBytes(20000, 8);
  const std::string z = Deflate(data, 'z');
  const uint64_t start = 5, end = start + z.size();
  auto src = Open("xxxxx" + z + "trailing", 0, static_cast<int64_t>(start));
  EXPECT_EQ(src->GetCompressedOffset(), start);  // nothing inflated yet
  ASSERT_EQ(Read(*src, 5000), data.substr(0, 5000));
  EXPECT_EQ(src->GetCompressedOffset(), start + z.size() / 4);
  ASSERT_EQ(Read(*src, 20000), data.substr(5000));
  // At the end every byte of the stream, checksum included, is consumed.
  EXPECT_EQ(src->GetCompressedOffset(), end);
  // Back at the start the estimate is back at the start too.
  ASSERT_EQ(src->Seek(0, DataSource::DS_SEEK_SET), 0);
  EXPECT_EQ(src->GetCompressedOffset(), start);
}

// ---- data from independent tools ------------------------------------------------------------

TEST_P(CompressedSourceTest, FilesFromTheGzipTool) {
  if (!HaveTool("gzip")) GTEST_SKIP() << "the gzip tool is not available";
  const auto gzip = [this](const std::string& data, const std::string& name,
                           const std::string& options) {
    const std::string in = dir.File(name);
    WriteFile(in, data);
    EXPECT_EQ(test::Run("gzip -c " + options + " '" + in + "' > '" + in + ".gz'"), 0);
    return ReadFile(in + ".gz");
  };
  const std::string large = Mixed(5 * 1000 * 1000), text = Text(100000);
  const std::string plain = gzip(large, "large.bin", "-n");
  const std::string named = gzip(text, "named-file.txt", "-N -9");
  EXPECT_EQ(named.substr(10, 15), std::string("named-file.txt\0", 15));
  for (const auto& [gz, data, headerLength] :
       {std::tuple(&plain, &large, 10u), std::tuple(&named, &text, 10u + 15u)}) {
    auto src = Open(*gz);
    EXPECT_EQ(src->GetCompressedOffset(), headerLength);
    EXPECT_TRUE(ReadAll(*src, 65536) == *data);
    EXPECT_TRUE(src->IsEndOfBuffer());
  }
  ExpectPrefixOfTruncated(plain.substr(0, plain.size() / 2), large);
}

// Python writes a member with a stored name for us to read, and reads back
// one of ours with every optional field (which guards the members used
// above).
TEST_P(CompressedSourceTest, PythonReadsOursAndWeReadPythons) {
  if (!HaveTool("python3")) GTEST_SKIP() << "python3 is not available";
  const std::string data = Mixed(200000), text = Text(5000);
  WriteFile(dir.File("input.bin"), data);
  WriteFile(dir.File("ours.gz"), GzipMember(text, FEXTRA | FNAME | FCOMMENT | FHCRC,
                                            RandomBytes(300, 3), "name.txt", "comment"));
  ASSERT_EQ(RunPython("import gzip,sys\n"
                      "a=sys.argv\n"
                      "with gzip.GzipFile(filename='stored-name.bin',mode='wb',"
                      "fileobj=open(a[2],'wb'),mtime=1609459200) as g:\n"
                      "  g.write(open(a[1],'rb').read())\n"
                      "open(a[4],'wb').write(gzip.open(a[3]).read())\n",
                      {dir.File("input.bin"), dir.File("theirs.gz"), dir.File("ours.gz"),
                       dir.File("ours.txt")}),
            0);
  EXPECT_TRUE(ReadFile(dir.File("ours.txt")) == text);
  const std::string gz = ReadFile(dir.File("theirs.gz"));
  ASSERT_GE(gz.size(), 10u);
  EXPECT_NE(gz[3] & FNAME, 0);
  auto src = Open(gz);
  EXPECT_TRUE(ReadAll(*src, 30000) == data);
}

}  // namespace
}  // namespace oru::test
