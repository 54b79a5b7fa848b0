// The platform file layer under FileDataSource: UTF-8 names reach the
// operating system intact, offsets and sizes are 64-bit, files open in
// binary mode, and failures leave errno for the caller's message.
#include "data/file_io.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <memory>

#include "support/test_util.h"

namespace oru::detail {
namespace {

namespace fs = std::filesystem;
using oru::test::TempDir;
using oru::test::WriteFile;

struct FileCloser {
  void operator()(std::FILE* f) const { std::fclose(f); }
};
using FilePtr = std::unique_ptr<std::FILE, FileCloser>;

// Past 4 GiB, where 32-bit offsets and sizes would wrap.
constexpr int64_t BEYOND_4GIB = int64_t{5} * 1024 * 1024 * 1024 + 3;

TEST(FileIo, OpensNonAsciiNamesAndReadsBytesUnchanged) {
  TempDir dir;
  // Latin, Greek and CJK letters and a character outside the BMP, which
  // needs a surrogate pair in UTF-16.
  const std::string name =
      dir.File("gr\xC3\xBC\xC3\x9F_\xCE\xB1\xCE\xB2_\xE6\x97\xA5_\xF0\x9F\x98\x80.bin");
  // CR LF, Ctrl-Z and NUL would all be altered or end the read in text mode.
  const std::string bytes("a\r\nb\x1A\x00\xFF\n", 8);
  WriteFile(name, bytes);

  EXPECT_TRUE(IsFileReadable(name));
  FilePtr f(OpenFileForReading(name));
  ASSERT_NE(f, nullptr) << ErrnoText(errno);
  char buffer[16] = {};
  EXPECT_EQ(std::fread(buffer, 1, sizeof buffer, f.get()), bytes.size());
  EXPECT_EQ(std::string(buffer, bytes.size()), bytes);

  uint64_t size = 0;
  int64_t mtime = 0;
  ASSERT_TRUE(StatFile(name, &size, &mtime));
  EXPECT_EQ(size, bytes.size());
}

TEST(FileIo, MissingFileFailsWithErrno) {
  TempDir dir;
  const std::string name = dir.File("missing.bin");
  uint64_t size = 7;
  int64_t mtime = 7;

  errno = 0;
  EXPECT_FALSE(IsFileReadable(name));
  EXPECT_EQ(errno, ENOENT);

  errno = 0;
  EXPECT_EQ(OpenFileForReading(name), nullptr);
  EXPECT_EQ(errno, ENOENT);

  errno = 0;
  EXPECT_FALSE(StatFile(name, &size, &mtime));
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(size, 7u);
  EXPECT_EQ(mtime, 7);

  // A directory is accessible but does not open.
  const std::string sub = dir.File("sub");
  fs::create_directory(fs::u8path(sub));
  EXPECT_TRUE(IsFileReadable(sub));
  errno = 0;
  EXPECT_EQ(FilePtr(OpenFileForReading(sub)), nullptr);
  EXPECT_NE(errno, 0);
}

TEST(FileIo, SeekAndTellUseAllOriginsAnd64BitOffsets) {
  TempDir dir;
  const std::string name = dir.File("ten.bin");
  WriteFile(name, "0123456789");
  FilePtr f(OpenFileForReading(name));
  ASSERT_NE(f, nullptr);

  EXPECT_EQ(TellFile(f.get()), 0);
  EXPECT_EQ(SeekFile(f.get(), 5, SEEK_SET), 0);
  EXPECT_EQ(TellFile(f.get()), 5);
  EXPECT_EQ(SeekFile(f.get(), -2, SEEK_CUR), 0);
  EXPECT_EQ(std::fgetc(f.get()), '3');
  EXPECT_EQ(SeekFile(f.get(), -1, SEEK_END), 0);
  EXPECT_EQ(std::fgetc(f.get()), '9');

  // Before the start fails and keeps the position.
  EXPECT_EQ(SeekFile(f.get(), -1, SEEK_SET), -1);
  EXPECT_EQ(TellFile(f.get()), 10);

  // Beyond the end is allowed; reading there finds the end of the file.
  EXPECT_EQ(SeekFile(f.get(), BEYOND_4GIB, SEEK_SET), 0);
  EXPECT_EQ(TellFile(f.get()), BEYOND_4GIB);
  EXPECT_EQ(std::fgetc(f.get()), EOF);
  EXPECT_NE(std::feof(f.get()), 0);
  // A successful seek clears the end-of-file indicator.
  EXPECT_EQ(SeekFile(f.get(), 0, SEEK_SET), 0);
  EXPECT_EQ(std::feof(f.get()), 0);
  EXPECT_EQ(std::fgetc(f.get()), '0');
}

TEST(FileIo, StatReportsLargeSizesAndModificationTime) {
  TempDir dir;
  const std::string name = dir.File("big.bin");
  WriteFile(name, "x");
  // A sparse file: no disk space is used for the hole.
  fs::resize_file(fs::u8path(name), static_cast<std::uintmax_t>(BEYOND_4GIB));

  // 2021-01-01 00:00:00 UTC.
  const auto newYear = std::chrono::sys_seconds{std::chrono::seconds{1609459200}};
  fs::last_write_time(fs::u8path(name), std::chrono::file_clock::from_sys(newYear));

  uint64_t size = 0;
  int64_t mtime = 0;
  ASSERT_TRUE(StatFile(name, &size, &mtime)) << ErrnoText(errno);
  EXPECT_EQ(size, static_cast<uint64_t>(BEYOND_4GIB));
  EXPECT_EQ(mtime, 1609459200);

  FilePtr f(OpenFileForReading(name));
  ASSERT_NE(f, nullptr);
  EXPECT_EQ(SeekFile(f.get(), 0, SEEK_END), 0);
  EXPECT_EQ(TellFile(f.get()), BEYOND_4GIB);
}

}  // namespace
}  // namespace oru::detail
