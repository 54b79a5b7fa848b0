// FileDataSource and the platform file layer under it: lazy opening, UTF-8
// names and binary reads, the end-of-file indicator, clones, giving up and
// regaining the handle, 64-bit sizes and the time stamp, and the one-line
// diagnostics on the standard error stream. (The seek rules are in
// in_memory_data_source_test.cpp, beside those of memory.)
#include "oru/file_data_source.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <string>

#include "oru/data_source.h"
#include "support/test_util.h"

namespace oru::test {
namespace {

namespace fs = std::filesystem;

std::string ErrnoText(int error) {
  return std::strerror(error);
}

void SetModificationTime(const std::string& path, int64_t secondsSince1970) {
  const std::chrono::sys_seconds when{std::chrono::seconds{secondsSince1970}};
  fs::last_write_time(fs::u8path(path), std::chrono::file_clock::from_sys(when));
}

class FileDataSourceTest : public testing::Test {
protected:
  void SetUp() override { WriteFile(path, kTen); }

  static constexpr const char* kTen = "0123456789";
  TempDir dir;
  std::string path = dir.File("ten.bin");
};

// ---- creation, names and lazy opening -----------------------------------------

TEST_F(FileDataSourceTest, TheFileIsOpenedAtFirstUseAndClosedOnRequest) {
  auto src = FileDataSource::Create(path);
  ASSERT_NE(src, nullptr);
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
  auto src = FileDataSource::Create(name);
  ASSERT_NE(src, nullptr);
  EXPECT_EQ(src->GetFileSize(), bytes.size());
  EXPECT_EQ(Read(*src, 100), bytes);
}

TEST(FileDataSourceCreate, MissingFileGivesNullAndOneLine) {
  testing::internal::CaptureStderr();
  EXPECT_EQ(FileDataSource::Create(""), nullptr);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");  // an empty name is silent

  TempDir dir;
  const std::string missing = dir.File("missing.bin");
  testing::internal::CaptureStderr();
  EXPECT_EQ(FileDataSource::Create(missing), nullptr);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "Cannot create FileDataSource for \"" + missing + "\" (" + ErrnoText(ENOENT) + ").\n");
}

TEST_F(FileDataSourceTest, FileDeletedAfterCreateFailsOnFirstUse) {
  auto src = FileDataSource::Create(path);
  ASSERT_NE(src, nullptr);
  fs::remove(fs::u8path(path));

  const std::string openLine =
      "FileDataSource: Cannot open file\"" + path + "\"(" + ErrnoText(ENOENT) + ").\n";
  testing::internal::CaptureStderr();
  EXPECT_EQ(src->GetByte(), -1);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), openLine);

  // Every later operation tries to open again, reports again, and gives the
  // result of an unopened file.
  testing::internal::CaptureStderr();
  EXPECT_EQ(src->GetFileSize(), UINT64_MAX);
  EXPECT_TRUE(src->IsEndOfBuffer());
  EXPECT_EQ(src->GetOffset(), UINT64_MAX);
  EXPECT_EQ(src->Seek(0, DataSource::DS_SEEK_SET), -1);
  EXPECT_EQ(src->GetTimeStamp(), "");
  std::byte b[4];
  EXPECT_EQ(src->GetBytes(b, 4), 0u);
  std::string expected;
  for (int i = 0; i < 6; ++i) expected += openLine;
  EXPECT_EQ(testing::internal::GetCapturedStderr(), expected);
  EXPECT_FALSE(src->IsHoldingSystemResources());

  // A clone needs a readable file.
  testing::internal::CaptureStderr();
  EXPECT_EQ(src->Clone(), nullptr);
  testing::internal::GetCapturedStderr();

  // Once the file is back, the same source works.
  WriteFile(path, "back");
  EXPECT_EQ(Read(*src, 10), "back");
}

// ---- reading and the end-of-file indicator --------------------------------------

TEST_F(FileDataSourceTest, EndIsReportedOnlyAfterAReadFailsAndClearedBySeeks) {
  auto src = FileDataSource::Create(path);
  ASSERT_NE(src, nullptr);
  std::byte b{};
  EXPECT_EQ(src->GetBytes(&b, 0), 0u);
  EXPECT_FALSE(src->IsEndOfBuffer());
  EXPECT_EQ(Read(*src, 10), kTen);
  EXPECT_EQ(src->GetOffset(), 10u);
  EXPECT_FALSE(src->IsEndOfBuffer());  // exactly the last byte read
  EXPECT_EQ(Read(*src, 10), "");
  EXPECT_TRUE(src->IsEndOfBuffer());
  ASSERT_EQ(src->Seek(-2, DataSource::DS_SEEK_END), 0);
  EXPECT_FALSE(src->IsEndOfBuffer());
  EXPECT_EQ(Read(*src, 5), "89");  // a short read hits the end
  EXPECT_TRUE(src->IsEndOfBuffer());
  ASSERT_EQ(src->Seek(0, DataSource::DS_SEEK_CUR), 0);
  EXPECT_FALSE(src->IsEndOfBuffer());
  // The same with byte reads.
  ASSERT_EQ(src->Seek(9, DataSource::DS_SEEK_SET), 0);
  EXPECT_EQ(src->GetByte(), '9');
  EXPECT_FALSE(src->IsEndOfBuffer());
  EXPECT_EQ(src->GetByte(), -1);
  EXPECT_TRUE(src->IsEndOfBuffer());
  // Giving up the handle clears it as well.
  src->RelinquishSystemResources();
  EXPECT_FALSE(src->IsEndOfBuffer());
  EXPECT_EQ(Read(*src, 3), "012");

  WriteFile(path, "");
  auto empty = FileDataSource::Create(path);
  ASSERT_NE(empty, nullptr);
  EXPECT_EQ(empty->GetFileSize(), 0u);
  EXPECT_FALSE(empty->IsEndOfBuffer());
  EXPECT_EQ(empty->GetByte(), -1);
  EXPECT_TRUE(empty->IsEndOfBuffer());
  EXPECT_EQ(empty->ExtractBuffer()->GetSize(), 0u);
  WriteFile(path, "z");
  EXPECT_EQ(FileDataSource::Create(path)->ExtractBuffer()->GetData()[0], std::byte{'z'});
}

// ---- clones ---------------------------------------------------------------

TEST_F(FileDataSourceTest, CloneStartsAtThePositionAndMovesOnItsOwn) {
  auto src = FileDataSource::Create(path);
  ASSERT_NE(src, nullptr);
  auto unopened = src->Clone();  // starts at zero
  ASSERT_NE(unopened, nullptr);
  EXPECT_FALSE(unopened->IsTempFile());
  EXPECT_EQ(unopened->GetByte(), '0');
  src->SetIsTempFile(true);
  EXPECT_EQ(Read(*src, 4), "0123");

  auto clone = src->Clone();
  ASSERT_NE(clone, nullptr);
  EXPECT_TRUE(clone->IsTempFile());
  EXPECT_EQ(Read(*clone, 3), "456");
  EXPECT_EQ(src->GetByte(), '4');
  EXPECT_EQ(clone->GetByte(), '7');
}

// ---- size, time stamp, buffer ------------------------------------------------------------

TEST_F(FileDataSourceTest, SizeAndTimeStampAreTheFilesOwn) {
  // A sparse file past 4 GiB, where 32-bit sizes and offsets would wrap; no
  // disk space is used for the hole.
  const uint64_t size = (uint64_t{5} << 30) + 3;
  fs::resize_file(fs::u8path(path), size);
  SetModificationTime(path, 1609459200);  // 2021-01-01 00:00:00 UTC
  auto src = FileDataSource::Create(path);
  ASSERT_NE(src, nullptr);
  EXPECT_EQ(src->GetFileSize(), size);
  EXPECT_EQ(src->GetTimeStamp(), "1609459200");
  ASSERT_EQ(src->Seek(-1, DataSource::DS_SEEK_END), 0);
  EXPECT_EQ(src->GetOffset(), size - 1);
  EXPECT_EQ(src->GetByte(), 0);

  SetModificationTime(path, 86400);  // 1970-01-02, a short number
  EXPECT_EQ(src->GetTimeStamp(), "86400");
  // Destroying a source marked temporary deletes nothing.
  src->SetIsTempFile(true);
  src.reset();
  EXPECT_TRUE(fs::exists(fs::u8path(path)));
}

TEST_F(FileDataSourceTest, ExtractBufferCopiesTheWholeFileAndKeepsThePosition) {
  auto src = FileDataSource::Create(path);
  ASSERT_NE(src, nullptr);
  EXPECT_EQ(Read(*src, 3), "012");
  auto buffer = src->ExtractBuffer();
  ASSERT_NE(buffer, nullptr);
  const auto text = [&buffer] {
    return std::string(reinterpret_cast<const char*>(buffer->GetData()),
                       static_cast<size_t>(buffer->GetSize()));
  };
  EXPECT_EQ(text(), kTen);
  EXPECT_EQ(src->GetOffset(), 3u);
  EXPECT_EQ(src->GetByte(), '3');
  // A copy: the buffer does not follow the file.
  src.reset();
  WriteFile(path, "abcdefghij");
  EXPECT_EQ(text(), kTen);
}

// ---- failures ----------------------------------------------------------------------------

TEST_F(FileDataSourceTest, StatFailureOfAnOpenFileIsReported) {
#ifdef _WIN32
  GTEST_SKIP() << "an open file cannot be deleted on Windows";
#else
  auto src = FileDataSource::Create(path);
  ASSERT_NE(src, nullptr);
  EXPECT_EQ(src->GetByte(), '0');
  fs::remove(fs::u8path(path));

  const std::string statLine =
      "FileDataSource:: Failed to  stat \"" + path + "\" (" + ErrnoText(ENOENT) + ").\n";
  testing::internal::CaptureStderr();
  EXPECT_EQ(src->GetFileSize(), 0u);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), statLine);
  testing::internal::CaptureStderr();
  EXPECT_EQ(src->GetTimeStamp(), "");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), statLine);

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
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "FileDataSource: Failed to  read 10 bytes (" + ErrnoText(EIO) + ").\n");
#endif
}

TEST(FileDataSourceFailure, DirectoryGivesNoBytes) {
  TempDir dir;
  const std::string name = dir.File("sub");
  fs::create_directory(fs::u8path(name));
  testing::internal::CaptureStderr();
  auto src = FileDataSource::Create(name);
  if (src != nullptr) {
    EXPECT_EQ(src->GetByte(), -1);
    EXPECT_TRUE(src->IsEndOfBuffer());
  }
  const std::string out = testing::internal::GetCapturedStderr();
  // Whether the access test, the open or the read refuses it, it is said.
  EXPECT_NE(out.find("FileDataSource"), std::string::npos) << out;
}

}  // namespace
}  // namespace oru::test
