// Writing: Zipper's gzip-header-plus-raw-deflate sections and ZipWriter's
// archives, checked with zlib, Python's zipfile and unzip -t.
#include <oru/zip_data_stream.h>
#include <oru/zip_writer.h>
#include <oru/zipper.h>

#include <gtest/gtest.h>
#include <zlib.h>

#include "support/test_util.h"

namespace oru::test {
namespace {

// Inflates raw deflate data (up to 1 MiB); returns the bytes and how much
// input was used.
std::string InflateRaw(const std::string& in, size_t* used = nullptr) {
  z_stream z{};
  std::string out(1 << 20, '\0');
  z.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(in.data()));
  z.avail_in = static_cast<uInt>(in.size());
  z.next_out = reinterpret_cast<Bytef*>(out.data());
  z.avail_out = static_cast<uInt>(out.size());
  EXPECT_TRUE(inflateInit2(&z, -15) == Z_OK && inflate(&z, Z_FINISH) == Z_STREAM_END);
  out.resize(z.total_out);
  if (used) *used = z.total_in;
  inflateEnd(&z);
  return out;
}

const std::string GZIP_HEADER("\x1F\x8B\x08\0\0\0\0\0\0\0", 10);

bool Add(Zipper& z, const std::string& s) {
  return z.AddBytes(reinterpret_cast<const unsigned char*>(s.data()), s.size());
}

// One compressed section of `data` at `level`, alone in its Zipper.
std::string Section(int level, const std::string& data) {
  Zipper z;
  EXPECT_TRUE(z.StartCompressedSection(level) && Add(z, data) && z.EndCompressedSection());
  return Contents(z.GetDSForBuffer());
}

TEST(Zipper, PlainAndCompressedSectionsRoundTrip) {
  const std::string before = "plain head";
  // Ten staging blocks and a byte: the last flush is of that one byte.
  const std::string payload = RandomBytes(70000, 5) + std::string(10 * 16384 + 1 - 70000, 'z');
  const std::string after = "plain tail";
  Zipper z;
  ASSERT_TRUE(Add(z, before));
  ASSERT_TRUE(z.StartCompressedSection(6));
  EXPECT_FALSE(z.StartCompressedSection(6));  // one section at a time
  EXPECT_EQ(z.GetDSForBuffer(), nullptr);     // not while a section is open
  // Pieces smaller and larger than the 16 KiB staging block, and of one byte.
  ASSERT_TRUE(Add(z, payload.substr(0, 100)) && Add(z, payload.substr(100, 1)));
  ASSERT_TRUE(Add(z, payload.substr(101, 40000)) && Add(z, payload.substr(40101)));
  ASSERT_TRUE(z.AddBytes(nullptr, 0));
  ASSERT_TRUE(z.EndCompressedSection());
  ASSERT_TRUE(Add(z, after));

  const std::string out = Contents(z.GetDSForBuffer());
  ASSERT_EQ(out.substr(0, before.size()), before);
  ASSERT_EQ(out.substr(before.size(), 10), GZIP_HEADER);
  size_t used = 0;
  EXPECT_TRUE(InflateRaw(out.substr(before.size() + 10), &used) == payload);
  EXPECT_EQ(out.substr(before.size() + 10 + used), after);  // no trailer
  // The writer keeps its blocks and can be asked again.
  EXPECT_EQ(Contents(z.GetDSForBuffer()), out);
}

TEST(Zipper, OutOfRangeLevelsMeanTheDefault) {
  const std::string data = RandomBytes(5000, 6) + std::string(50000, 'q');
  const std::string byDefault = Section(-1, data);
  for (int level : {10, -5}) EXPECT_EQ(Section(level, data), byDefault) << level;
  EXPECT_NE(Section(1, data), byDefault);
  EXPECT_TRUE(InflateRaw(Section(0, data).substr(10)) == data);
}

TEST(Zipper, BlockBoundariesAndEmptySections) {
  Zipper exact;
  EXPECT_FALSE(exact.EndCompressedSection());  // nothing open
  EXPECT_EQ(Contents(exact.GetDSForBuffer()), "");
  ASSERT_TRUE(Add(exact, std::string(16384, 'x')));
  EXPECT_EQ(Contents(exact.GetDSForBuffer()), std::string(16384, 'x'));
  ASSERT_TRUE(Add(exact, "y"));  // a block that holds one byte
  EXPECT_EQ(Contents(exact.GetDSForBuffer()), std::string(16384, 'x') + "y");

  EXPECT_EQ(Section(-1, ""), GZIP_HEADER + std::string("\x03\x00", 2));  // empty

  // A section that starts when the current block is exactly full, twice.
  Zipper full;
  ASSERT_TRUE(Add(full, std::string(16384 - 10, 'y')));
  for (int round = 0; round < 2; ++round) {
    ASSERT_TRUE(full.StartCompressedSection(6));
    ASSERT_TRUE(Add(full, std::string(40000, 'w')));
    ASSERT_TRUE(full.EndCompressedSection());
  }
  const std::string out = Contents(full.GetDSForBuffer());
  ASSERT_EQ(out.substr(16374, 10), GZIP_HEADER);
  size_t used = 0;
  EXPECT_EQ(InflateRaw(out.substr(16384), &used), std::string(40000, 'w'));
  EXPECT_EQ(out.substr(16384 + used, 10), GZIP_HEADER);
}

std::shared_ptr<DataSource> Src(const std::string& s) {
  return InMemoryDataSource::Create(std::string(s), false);
}

// A source of 4 GiB, more than a member's 32-bit size fields can hold.
class HugeSource : public InMemoryDataSource {
public:
  HugeSource() : InMemoryDataSource(std::string("x"), false) {}
  std::shared_ptr<Buffer> ExtractBuffer() override {
    struct Huge : Buffer {
      uint64_t GetSize() const override { return uint64_t{1} << 32; }
      const std::byte* GetData() const override { return reinterpret_cast<const std::byte*>("x"); }
    };
    return std::make_shared<Huge>();
  }
};

TEST(ZipWriter, ArchivesPassOutsideCheckersAndStoreListedExtensions) {
  const std::string text(50000, 't');
  const std::string binary = RandomBytes(20000, 7);
  ZipWriter writer;
  ASSERT_TRUE(writer.AddFile(Src(text), "dir/readme.txt"));
  ASSERT_TRUE(writer.AddFile(Src(binary), "photo.JPG"));
  ASSERT_TRUE(writer.AddFile(Src("model"), "model"));
  ASSERT_TRUE(writer.AddFile(Src("1"), "1"));  // one-byte writes
  ASSERT_TRUE(writer.AddFile(Src(""), "empty.png"));
  const std::string zip = Contents(writer.GetDSForBuffer());
  // Whole blocks are handed out: only zeros follow the 22-byte end record.
  const size_t end = zip.rfind("PK\x05\x06");
  ASSERT_NE(end, std::string::npos);
  EXPECT_EQ(zip.find_first_not_of('\0', end + 22), std::string::npos);

  auto archive = ZipDataStream::Create(InMemoryDataSource::Create(std::string(zip), false));
  ASSERT_TRUE(archive->IsValid());
  EXPECT_EQ(Contents(archive->GetDataSourceForFile("dir/readme.txt")), text);
  EXPECT_EQ(Contents(archive->GetDataSourceForFile("photo.jpg")), binary);
  EXPECT_EQ(Contents(archive->GetDataSourceForFile("empty.png")), "");
  EXPECT_EQ(Contents(archive->GetDataSourceForFile("1")), "1");

  // unzip and Python's zipfile test the archive and see the methods chosen;
  // Python also inflates a Zipper section after its gzip header.
  if (!HaveTool("python3") || !HaveTool("unzip")) GTEST_SKIP() << "needs python3 and unzip";
  TempDir dir;
  WriteFile(dir.File("w.zip"), zip);
  EXPECT_EQ(oru::test::Run("unzip -tq '" + dir.File("w.zip") + "' >/dev/null"), 0);
  std::string lines;
  for (int i = 0; i < 5000; ++i) lines += "line of text\n";
  WriteFile(dir.File("s.bin"), Section(9, lines));
  EXPECT_EQ(RunPython(R"(import sys, zipfile, zlib
z = zipfile.ZipFile(sys.argv[1])
assert z.testzip() is None
m = {i.filename: i.compress_type for i in z.infolist()}
assert m == {'dir/readme.txt': 8, 'photo.JPG': 0, 'model': 8, '1': 8, 'empty.png': 0}, m
d = open(sys.argv[2], 'rb').read()
assert d[:10] == bytes([0x1f, 0x8b, 8, 0, 0, 0, 0, 0, 0, 0])
assert zlib.decompressobj(-15).decompress(d[10:]) == b'line of text\n' * 5000
)",
                      {dir.File("w.zip"), dir.File("s.bin")}),
            0);
}

TEST(ZipWriter, RefusalsAndStartingOver) {
  ZipWriter writer;
  EXPECT_EQ(Contents(writer.GetDSForBuffer()), "");  // nothing added: empty
  EXPECT_FALSE(writer.AddFile(nullptr, "a"));
  EXPECT_FALSE(writer.AddFile(Src("x"), ""));
  EXPECT_FALSE(writer.AddFile(Src("x"), std::string(65536, 'n')));
  EXPECT_FALSE(writer.AddFile(std::make_shared<HugeSource>(), "huge"));
  EXPECT_TRUE(writer.AddFile(Src("x"), std::string(65535, 'n')));
  const std::string first = Contents(writer.GetDSForBuffer());
  ASSERT_TRUE(writer.AddFile(Src("second"), "b.txt"));
  auto small = writer.GetDSForBuffer();
  EXPECT_EQ(small->GetFileSize(), 4096u);  // one block for a small archive
  auto archive = ZipDataStream::Create(small);
  std::vector<std::string> names;
  ASSERT_TRUE(archive->ListContents(&names));
  EXPECT_EQ(names, std::vector<std::string>{"b.txt"});  // a new archive
  EXPECT_NE(first.find(std::string(100, 'n')), std::string::npos);
}

}  // namespace
}  // namespace oru::test
