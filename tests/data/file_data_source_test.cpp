// The plain sources. FileDataSource and the platform file layer under it:
// lazy opening, UTF-8 names and binary reads, the end-of-file indicator,
// clones, giving up and regaining the handle, 64-bit sizes and the time
// stamp, and the one-line diagnostics on the standard error stream.
// InMemoryDataSource: the five ways of making one, clones and ExtractBuffer.
// Then the exact seek rules of both (memory: unsigned arithmetic with
// wrap-around). Reads up to the end of both run in the DataStream and
// LineReader suites over every kind of source.
#include "oru/file_data_source.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <limits>
#include <string>
#include <vector>

#include "oru/data_source.h"
#include "support/test_util.h"

namespace oru::test {
namespace {

namespace fs = std::filesystem;

void SetModificationTime(const std::string& path, int64_t secondsSince1970) {
  const std::chrono::sys_seconds when{std::chrono::seconds{secondsSince1970}};
  fs::last_write_time(fs::u8path(path), std::chrono::file_clock::from_sys(when));
}

class FileDataSourceTest : public testing::Test {
protected:
  void SetUp() override {
    WriteFile(path, kTen);
    src = FileDataSource::Create(path);
    ASSERT_NE(src, nullptr);
  }

  static constexpr const char* kTen = "0123456789";
  TempDir dir;
  std::string path = dir.File("ten.bin");
  std::shared_ptr<FileDataSource> src;
};

// ---- creation, names and lazy opening -----------------------------------------

TEST_F(FileDataSourceTest, TheFileIsOpenedAtFirstUseAndClosedOnRequest) {
  EXPECT_FALSE(src->IsHoldingSystemResources());
  WriteFile(path, "changed");  // what is read is what is there at first use
  EXPECT_EQ(Read(*src, 6), "change");
  EXPECT_TRUE(src->IsHoldingSystemResources());
  src->RelinquishSystemResources();
  EXPECT_FALSE(src->IsHoldingSystemResources());
  src->RelinquishSystemResources();  // twice is harmless
  EXPECT_EQ(src->GetOffset(), 0u);   // the next use reopens it at the start
  EXPECT_TRUE(src->IsHoldingSystemResources());
  EXPECT_EQ(src->GetByte(), 'c');
}

TEST_F(FileDataSourceTest, NonAsciiNameAndBytesReachTheSystemUnchanged) {
  // Latin, Greek and CJK letters and a character outside the BMP, which
  // needs a surrogate pair in UTF-16.
  const std::string name =
      dir.File("gr\xC3\xBC\xC3\x9F_\xCE\xB1\xCE\xB2_\xE6\x97\xA5_\xF0\x9F\x98\x80.bin");
  // CR LF, Ctrl-Z and NUL would all be altered or end the read in text mode.
  const std::string bytes("a\r\nb\x1A\x00\xFF\n", 8);
  WriteFile(name, bytes);
  auto named = FileDataSource::Create(name);
  ASSERT_NE(named, nullptr);
  EXPECT_EQ(named->GetFileSize(), bytes.size());
  EXPECT_EQ(Read(*named, 100), bytes);
}

TEST_F(FileDataSourceTest, MissingFileGivesNullOrFailsAtEveryUseWithOneLine) {
  fs::remove(fs::u8path(path));
  const std::string why = std::string(" (") + std::strerror(ENOENT) + ").\n";
  const std::string createLine = "Cannot create FileDataSource for \"" + path + "\"" + why;
  // (The missing space before "(" is the library's wording.)
  const std::string openLine =
      "FileDataSource: Cannot open file\"" + path + "\"(" + std::strerror(ENOENT) + ").\n";
  testing::internal::CaptureStderr();
  EXPECT_EQ(FileDataSource::Create(""), nullptr);  // an empty name is silent
  EXPECT_EQ(FileDataSource::Create(path), nullptr);
  EXPECT_EQ(src->Clone(), nullptr);  // a clone needs a readable file
  // A source made before the file went tries to open it at every use,
  // reports, and gives the result of an unopened file.
  EXPECT_EQ(src->GetByte(), -1);
  EXPECT_EQ(src->GetFileSize(), UINT64_MAX);
  EXPECT_TRUE(src->IsEndOfBuffer());
  EXPECT_EQ(src->GetOffset(), UINT64_MAX);
  EXPECT_EQ(src->Seek(0, DataSource::DS_SEEK_SET), -1);
  EXPECT_EQ(src->GetTimeStamp(), "");
  std::byte b[4];
  EXPECT_EQ(src->GetBytes(b, 4), 0u);
  std::string expected = createLine + createLine;
  for (int i = 0; i < 7; ++i) expected += openLine;
  EXPECT_EQ(testing::internal::GetCapturedStderr(), expected);
  EXPECT_FALSE(src->IsHoldingSystemResources());
  WriteFile(path, "back");  // once the file is back, the same source works
  EXPECT_EQ(Read(*src, 10), "back");
}

// ---- clones ---------------------------------------------------------------

// A clone of either plain kind starts where the original stands, with its
// temporary flag, and moves on its own.
TEST_F(FileDataSourceTest, ClonesStartAtThePositionAndMoveOnTheirOwn) {
  const std::shared_ptr<DataSource> sources[] = {
      src, InMemoryDataSource::Create(std::string(kTen), false)};
  for (const auto& original : sources) {
    original->SetIsTempFile(true);
    EXPECT_EQ(Read(*original, 4), "0123");
    auto clone = original->Clone();
    ASSERT_NE(clone, nullptr);
    EXPECT_TRUE(clone->IsTempFile());
    EXPECT_EQ(Read(*clone, 3), "456");
    EXPECT_EQ(original->GetByte(), '4');
    EXPECT_EQ(clone->GetByte(), '7');
  }
}

// ---- size, time stamp, buffer ------------------------------------------------------------

TEST_F(FileDataSourceTest, SizeAndTimeStampAreTheFilesOwn) {
  // A sparse file past 4 GiB, where 32-bit sizes and offsets would wrap; no
  // disk space is used for the hole.
  const uint64_t size = (uint64_t{5} << 30) + 3;
  fs::resize_file(fs::u8path(path), size);
  SetModificationTime(path, 1609459200);  // 2021-01-01 00:00:00 UTC
  EXPECT_EQ(src->GetFileSize(), size);
  EXPECT_EQ(src->GetTimeStamp(), "1609459200");
  ASSERT_EQ(src->Seek(-1, DataSource::DS_SEEK_END), 0);
  EXPECT_EQ(src->GetOffset(), size - 1);
  EXPECT_EQ(src->GetByte(), 0);
  SetModificationTime(path, 86400);  // 1970-01-02, a short number
  EXPECT_EQ(src->GetTimeStamp(), "86400");
}

TEST_F(FileDataSourceTest, ExtractBufferCopiesTheWholeFileAndKeepsThePosition) {
  EXPECT_EQ(Read(*src, 3), "012");
  auto buffer = src->ExtractBuffer();
  ASSERT_NE(buffer, nullptr);
  const auto text = [&buffer] {
    return std::string(reinterpret_cast<const char*>(buffer->GetData()),
                       static_cast<size_t>(buffer->GetSize()));
  };
  EXPECT_EQ(text(), kTen);
  EXPECT_EQ(src->GetByte(), '3');
  src.reset();
  WriteFile(path, "");
  EXPECT_EQ(text(), kTen);  // a copy: the buffer does not follow the file
  EXPECT_EQ(FileDataSource::Create(path)->ExtractBuffer()->GetSize(), 0u);
}

// ---- failures ----------------------------------------------------------------------------

TEST_F(FileDataSourceTest, StatFailureOfAnOpenFileIsReported) {
#ifdef _WIN32
  GTEST_SKIP() << "an open file cannot be deleted on Windows";
#else
  EXPECT_EQ(src->GetByte(), '0');
  fs::remove(fs::u8path(path));
  const std::string statLine =
      "FileDataSource:: Failed to  stat \"" + path + "\" (" + std::strerror(ENOENT) + ").\n";
  testing::internal::CaptureStderr();
  EXPECT_EQ(src->GetFileSize(), 0u);
  EXPECT_EQ(src->GetTimeStamp(), "");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), statLine + statLine);
  // The open stream still reads the deleted file's bytes.
  EXPECT_EQ(Read(*src, 100), "123456789");
#endif
}

TEST(FileDataSourceFailure, ReadErrorIsReported) {
#ifndef __linux__
  GTEST_SKIP() << "needs a readable file whose reads fail: /proc/self/mem on Linux";
#else
  // Reading at address 0 of the own process's memory fails with EIO.
  auto src = FileDataSource::Create("/proc/self/mem");
  ASSERT_NE(src, nullptr);
  std::byte b[10];
  testing::internal::CaptureStderr();
  EXPECT_EQ(src->GetBytes(b, 10), 0u);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "FileDataSource: Failed to  read 10 bytes (" +
                                                        std::string(std::strerror(EIO)) + ").\n");
#endif
}

// ---- InMemoryDataSource ---------------------------------------------------------

// ---- creation ---------------------------------------------------------------

TEST(InMemoryDataSourceCreate, TakesContainersOverAndCopiesPointers) {
  std::string text(1000, 'x');  // long enough to live on the heap
  std::vector<char> chars = {'q', '\0', 'r', '\xFF'};
  std::vector<unsigned char> bytes = {0x00, 0x80, 0xFF};
  const void* blocks[] = {text.data(), chars.data(), bytes.data()};
  const std::shared_ptr<InMemoryDataSource> taken[] = {
      InMemoryDataSource::Create(std::move(text), false),
      InMemoryDataSource::Create(std::move(chars), false),
      InMemoryDataSource::Create(std::move(bytes), false)};
  for (int i = 0; i < 3; ++i)
    EXPECT_EQ(static_cast<const void*>(taken[i]->GetDataBuffer()), blocks[i]) << "not copied";
  EXPECT_EQ(Contents(taken[1]), std::string("q\0r\xFF", 4));
  // Bytes above 0x7F come back as 128..255, never negative.
  for (int want : {0x00, 0x80, 0xFF, -1}) EXPECT_EQ(taken[2]->GetByte(), want);

  char hello[] = "hello";
  auto copied = InMemoryDataSource::Create(hello, 5, false);
  hello[0] = 'J';  // the source has its own copy
  EXPECT_EQ(Contents(copied), "hello");

  auto zeros = InMemoryDataSource::Create(uint64_t{16}, false);
  EXPECT_EQ(Contents(zeros), std::string(16, '\0'));
  std::memcpy(const_cast<std::byte*>(zeros->GetDataBuffer()), "0123456789abcdef", 16);
  EXPECT_EQ(Contents(zeros), "0123456789abcdef");
}

TEST(InMemoryDataSourceCreate, UnallocatableBlockReadsAsEmpty) {
  // (Under the sanitizers this needs allocator_may_return_null=1, which
  // scripts/sanitize sets.)
  // No machine can provide 2^62 bytes: the block cannot be allocated, and
  // the source must then neither throw nor hand out a null block to read.
  auto src = InMemoryDataSource::Create(uint64_t{1} << 62, false);
  ASSERT_NE(src, nullptr);
  if (src->GetDataBuffer() == nullptr) {
    EXPECT_EQ(src->GetFileSize(), 0u);
    EXPECT_EQ(src->GetByte(), -1);
    std::byte b[4];
    EXPECT_EQ(src->GetBytes(b, 4), 0u);
    EXPECT_TRUE(src->IsEndOfBuffer());
  }
}

// ---- seeking --------------------------------------------------------------------

// Memory stays inside its bytes; a file also goes past its end, with 64-bit
// offsets, and reading there finds the end.
TEST(SeekRules, EveryOriginAndItsLimitsInMemoryAndInAFile) {
  constexpr int64_t kMin = std::numeric_limits<int64_t>::min();
  constexpr int64_t kMax = std::numeric_limits<int64_t>::max();
  constexpr int64_t kFar = (int64_t{5} << 30) + 3;  // past 4 GiB, where 32-bit offsets wrap
  constexpr SeekOrigin SET = DataSource::DS_SEEK_SET, CUR = DataSource::DS_SEEK_CUR,
                       END = DataSource::DS_SEEK_END, BAD = SeekOrigin(3), NEG = SeekOrigin(-1);
  constexpr int64_t kSkip = -2;
  const struct {
    uint64_t from;
    int64_t offset;
    SeekOrigin origin;
    int64_t memory, file;  // where each ends up; -1: refused, the position stays
  } cases[] = {{7, 4, SET, 4, 4},         {2, 10, SET, 10, 10},   {2, 0, SET, 0, 0},
               {2, 11, SET, -1, 11},      {2, 100, SET, -1, 100}, {2, kFar, SET, -1, kFar},
               {2, -1, SET, -1, -1},      {2, kMin, SET, -1, -1}, {2, kMax, SET, -1, kSkip},
               {0, 4, CUR, 4, 4},         {4, -3, CUR, 1, 1},     {2, 8, CUR, 10, 10},
               {10, 1, CUR, -1, 11},      {10, -10, CUR, 0, 0},   {0, -1, CUR, -1, -1},
               {5, -6, CUR, -1, -1},      {5, kMin, CUR, -1, -1}, {5, kMax, CUR, -1, kSkip},
               {0, -3, END, 7, 7},        {0, -10, END, 0, 0},    {0, 0, END, 10, 10},
               {2, -11, END, -1, -1},     {2, 1, END, -1, 11},    {2, kMin, END, -1, -1},
               {2, kMax, END, -1, kSkip}, {3, 0, BAD, -1, -1},    {3, 1, NEG, -1, -1}};
  TempDir dir;
  WriteFile(dir.File("ten.bin"), "0123456789");
  const std::shared_ptr<DataSource> sources[] = {
      InMemoryDataSource::Create(std::string("0123456789"), false),
      FileDataSource::Create(dir.File("ten.bin"))};
  for (const auto& c : cases) {
    for (const auto& src : sources) {
      const bool file = src == sources[1];
      const int64_t to = file ? c.file : c.memory;
      if (to == kSkip) continue;
      SCOPED_TRACE(testing::Message() << (file ? "file" : "memory") << " from " << c.from
                                      << " offset " << c.offset << " origin " << c.origin);
      ASSERT_EQ(src->Seek(static_cast<int64_t>(c.from), SET), 0);
      EXPECT_EQ(src->Seek(c.offset, c.origin) == 0, to >= 0);
      const uint64_t at = to < 0 ? c.from : static_cast<uint64_t>(to);
      EXPECT_EQ(src->GetOffset(), at);
      if (!file) EXPECT_EQ(src->IsEndOfBuffer(), at == 10);
      EXPECT_EQ(src->GetByte(), at < 10 ? '0' + static_cast<int>(at) : -1);
      if (file) EXPECT_EQ(src->IsEndOfBuffer(), at >= 10);
    }
  }
}

// ---- clones and buffers -------------------------------------------------------------

// Clones and the extracted buffer share the bytes, not the time stamp, and
// outlive the original.
TEST(InMemoryDataSourceShare, ClonesAndTheBufferShareTheBytes) {
  auto src = InMemoryDataSource::Create(std::string("0123456789"), false);
  src->SetTimeStamp("1234567890");
  EXPECT_FALSE(src->IsHoldingSystemResources());  // nothing to hold
  auto clone = std::dynamic_pointer_cast<InMemoryDataSource>(src->Clone());
  ASSERT_NE(clone, nullptr);
  auto buffer = src->ExtractBuffer();
  EXPECT_EQ(clone->GetDataBuffer(), src->GetDataBuffer());
  EXPECT_EQ(buffer->GetData(), src->GetDataBuffer());
  src->SetTimeStamp("1");
  src.reset();
  EXPECT_EQ(clone->GetTimeStamp(), "1234567890");
  EXPECT_EQ(Read(*clone, 100), "0123456789");
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(buffer->GetData()),
                        static_cast<size_t>(buffer->GetSize())),
            "0123456789");
}

}  // namespace
}  // namespace oru::test
