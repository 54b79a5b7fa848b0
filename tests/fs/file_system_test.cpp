// The native file system (WinFileSystem on Windows, PosixFileSystem
// elsewhere) against the files it makes, with UTF-8 names outside ASCII.
#include <gtest/gtest.h>

#include <chrono>
#include <ctime>
#include <filesystem>
#include <functional>
#include <string>

#ifndef _WIN32
#include <sys/stat.h>
#include <unistd.h>
#endif

#include "oru/data_source.h"
#include "oru/file_system.h"
#include "support/test_util.h"

namespace oru {
namespace {

namespace stdfs = std::filesystem;
using test::ReadFile;
using test::WriteFile;
using Names = std::unordered_set<std::string>;

// Records how an asynchronous operation of either kind ended.
struct Outcome : FileSystem::Callback, FileSystem::DirCallback {
  int calls = 0;
  bool ok = false;
  void OnComplete(bool success) override { ++calls, ok = success; }
  void OnDirReady(bool success) override { ++calls, ok = success; }
};

class FileSystemTest : public ::testing::Test {
protected:
  std::shared_ptr<FileSystem> fs = CreateNativeFileSystem();
  test::TempDir tmp;
  const char sep = fs->GetDirSeparator();
  // A directory whose name is not ASCII, to carry every test's files.
  const std::string dir = tmp.File("données-日本");
  const bool dirMade = stdfs::create_directories(stdfs::u8path(dir));

  std::string In(const std::string& name) { return dir + sep + name; }
  bool Exists(const std::string& name) { return stdfs::exists(stdfs::u8path(In(name))); }
  // The directory InitDirToUse reports, empty when it fails.
  std::string InitDir(const std::string& name) {
    auto cb = std::make_shared<Outcome>();
    fs->InitDirToUse(name.c_str(), cb);
    EXPECT_EQ(1, cb->calls);
    EXPECT_EQ(cb->ok, !cb->dir.empty()) << cb->dir;
    return cb->dir;
  }
  // Copies `src` into `fp` and reports success (the callback runs once).
  bool WriteAndClose(const std::shared_ptr<DataSource>& src, std::shared_ptr<FSFilePointer> fp) {
    auto cb = std::make_shared<Outcome>();
    fs->WriteAndCloseAsync(src, fp, cb);
    EXPECT_EQ(1, cb->calls);
    return cb->ok;
  }
};

TEST_F(FileSystemTest, WhatIsNotThereFailsWithoutBeingMade) {
  const std::string missing = In("missing"), noDir = In("no-such-dir");
  EXPECT_EQ(nullptr, fs->Fopen(nullptr, "rb"));
  EXPECT_EQ(nullptr, fs->Fopen(missing.c_str(), "rb"));
  EXPECT_EQ(nullptr, fs->GetDS(nullptr));
  FileStat untouched;
  untouched.size = 99;
  EXPECT_FALSE(fs->Stat(missing.c_str(), untouched));
  EXPECT_EQ(99u, untouched.size);
  EXPECT_EQ(0u, fs->TouchFile(missing.c_str()));
  EXPECT_EQ(-1, fs->Unlink(missing.c_str()));
  Names listed = {"already"};
  fs->FilesInDir(missing.c_str(), listed);
  EXPECT_EQ(Names{"already"}, listed);
  // A temporary file in a directory that does not exist: the name is found,
  // the open fails, and the counter has moved on all the same.
  int counter = 0;
  std::string path;
  EXPECT_EQ(nullptr, fs->CreateAndOpenTempFile(noDir.c_str(), "", counter, path));
  EXPECT_EQ(noDir + sep + "0", path);
  EXPECT_EQ(1, counter);
  EXPECT_TRUE(stdfs::is_empty(stdfs::u8path(dir)));

  // Handle operations on no file are harmless and report failure.
  std::shared_ptr<FSFilePointer> none;
  std::string text = "kept";
  EXPECT_FALSE(fs->Write(std::move(text), none));
  EXPECT_EQ("kept", text);
  char byte = 'x';
  EXPECT_FALSE(fs->Write(&byte, 1, none));
  EXPECT_EQ("", fs->ReadLine(none));
  fs->Fwrite(&byte, 1, none);
  fs->Fclose(none);
  auto src = InMemoryDataSource::Create(std::string("abc"), false);
  src->Seek(1, DS_SEEK_SET);
  EXPECT_FALSE(WriteAndClose(src, none));
  EXPECT_EQ(1u, src->GetOffset());  // untouched without a file
}

TEST_F(FileSystemTest, WritesCopiesAndReadsLinesKeepingCarriageReturns) {
  const std::string path = In("lines-é.txt");
  auto out = fs->Fopen(path.c_str(), "wb");
  ASSERT_NE(nullptr, out);
  std::string text = "ab\r\n";
  EXPECT_TRUE(fs->Write(std::move(text), out));
  EXPECT_TRUE(text.empty());  // taken over
  char cd[] = {'c', 'd'};
  EXPECT_TRUE(fs->Write(cd, 2, out));
  fs->Fclose(out);
  EXPECT_EQ("ab\r\ncd", ReadFile(path));
  auto in = fs->Fopen(path.c_str(), "rb");
  ASSERT_NE(nullptr, in);
  for (const char* line : {"ab\r", "cd", "", ""}) EXPECT_EQ(line, fs->ReadLine(in));
  fs->Fclose(in);

  // A source is copied whole, from its start, and left rewound.
  const std::string bytes = test::RandomBytes(10000, 3);
  auto src = InMemoryDataSource::Create(std::string(bytes), false);
  src->Seek(123, DS_SEEK_SET);
  EXPECT_TRUE(WriteAndClose(src, fs->Fopen(path.c_str(), "wb")));
  EXPECT_EQ(0u, src->GetOffset());
  EXPECT_EQ(bytes, ReadFile(path));
  EXPECT_EQ(bytes, test::Contents(fs->GetDS(path.c_str())));

  // A download of a local file: success, and nothing is made.
  auto cb = std::make_shared<Outcome>();
  fs->AsyncDownloadFile("http://example.com/x", In("local").c_str(), cb);
  EXPECT_TRUE(cb->calls == 1 && cb->ok);
  EXPECT_FALSE(Exists("local"));
  fs->AsyncDownloadFile("http://example.com/x", In("local").c_str(), nullptr);
}

TEST_F(FileSystemTest, TempFilesListingAndReplacing) {
  WriteFile(In("5"), "x");
  WriteFile(In("6"), "y");
  int counter = 5;
  std::string path;
  auto fp = fs->CreateAndOpenTempFile(dir.c_str(), "ignored", counter, path);
  ASSERT_NE(nullptr, fp);
  EXPECT_EQ(In("7"), path);  // the first free number
  EXPECT_EQ(8, counter);
  fs->Fwrite("data", 4, fp);
  fs->Fclose(fp);
  EXPECT_EQ("data", ReadFile(path));
  EXPECT_EQ("x", ReadFile(In("5")));  // existing files untouched

  // Listing gives every entry (not "." or ".."), and no deeper one.
  stdfs::create_directory(stdfs::u8path(In("ü")));
  WriteFile(In("ü") + sep + "deep", "d");
  Names out = {"already"};
  fs->FilesInDir(dir.c_str(), out);
  EXPECT_EQ((Names{"already", In("5"), In("6"), In("7"), In("ü")}), out);

  EXPECT_TRUE(fs->ReplaceFile(In("7").c_str(), In("5").c_str()));
  EXPECT_EQ("data", ReadFile(In("5")));
  EXPECT_FALSE(Exists("7"));
  EXPECT_FALSE(fs->ReplaceFile(In("gone").c_str(), In("5").c_str()));
  EXPECT_EQ("data", ReadFile(In("5")));
}

TEST_F(FileSystemTest, StatTouchAndUnlink) {
  const std::string path = In("ファイル");
  WriteFile(path, std::string(1234, 'z'));
  const auto old = stdfs::last_write_time(stdfs::u8path(path)) - std::chrono::hours(48);
  stdfs::last_write_time(stdfs::u8path(path), old);

  FileStat st;
  ASSERT_TRUE(fs->Stat(path.c_str(), st));
  EXPECT_EQ(1234u, st.size);
  EXPECT_EQ(0x8000u, st.mode & 0xF000u);  // a regular file
  const int64_t now = std::time(nullptr);
  EXPECT_NEAR(static_cast<double>(now - 48 * 3600), static_cast<double>(st.modifyTime), 5.0);

  const uint64_t touched = fs->TouchFile(path.c_str());
  EXPECT_NEAR(static_cast<double>(now), static_cast<double>(touched), 5.0);
  ASSERT_TRUE(fs->Stat(path.c_str(), st));
  EXPECT_EQ(static_cast<int64_t>(touched), st.modifyTime);
  EXPECT_EQ(0, fs->Unlink(path.c_str()));
  EXPECT_FALSE(Exists("ファイル"));
}

TEST_F(FileSystemTest, PreparesItsWorkingDirectoryInTheWorkingArea) {
  EXPECT_EQ('\\', WinFileSystem::Create()->GetDirSeparator());
  EXPECT_EQ('/', PosixFileSystem::Create()->GetDirSeparator());
  EXPECT_EQ(static_cast<char>(stdfs::path::preferred_separator), sep);

  test::ScopedTempArea area(dir);
  EXPECT_EQ(In("Cache-ß"), InitDir("Cache-ß"));
  EXPECT_TRUE(stdfs::is_directory(stdfs::u8path(In("Cache-ß"))));
  EXPECT_EQ(In("Cache-ß"), InitDir("Cache-ß"));  // it exists now, which is fine
  // Only the last level is created: a missing parent fails.
  EXPECT_EQ("", InitDir(std::string("missing") + sep + "leaf"));
}

#ifndef _WIN32
TEST_F(FileSystemTest, WorkingDirectoryIsPrivateWhereverItLies) {
  // Where the working area lies, and what in its place is refused because
  // another user could have planted it there.
  const std::string base = In("base"), home = In("home");
  const std::string own = In("oru-" + std::to_string(geteuid()));
  test::ScopedEnv xdg("XDG_CACHE_HOME", ""), homeEnv("HOME", ""), tmpdir("TMPDIR", dir);
  const auto mkdirMode = [](const std::string& at, mode_t mode) {
    mkdir(at.c_str(), 0700), chmod(at.c_str(), mode);
  };
  const struct {
    const char *xdg, *home;
    std::function<void(const std::string& dir)> plant;
    std::string dir;  // empty: refused
  } cases[] = {
      {"base/x", "", [](auto&) {}, base + "/x/QD"},
      {"base", "", [&](auto& at) { mkdirMode(at, 0755); }, base + "/QD"},
      {"base", "", [&](auto& at) { symlink(home.c_str(), at.c_str()); }, ""},
      {"base", "", [](auto& at) { WriteFile(at, "x"); }, ""},
      {"base", "", [&](auto& at) { mkdirMode(at, 0777); }, ""},
      {"base", "", [&](auto& at) { mkdirMode(at, 0770); }, ""},
      {"base", "", [&](auto& at) { mkdirMode(at, 0700), (void)chown(at.c_str(), 65534, 65534); },
       geteuid() == 0 ? "" : base + "/QD"},
      {"relative", "home", [](auto&) {}, home + "/.cache/QD"},
      {"", "", [](auto&) {}, own + "/QD"},
      {"", "", [&](auto&) { mkdirMode(own, 0777); }, ""},
  };
  for (const auto& c : cases) {
    stdfs::remove_all(base), stdfs::remove_all(own), stdfs::remove_all(home);
    stdfs::create_directories(base), stdfs::create_directories(home);
    test::SetEnv("XDG_CACHE_HOME", *c.xdg == 'b' ? In(c.xdg) : c.xdg);
    test::SetEnv("HOME", *c.home ? home : "");
    c.plant(base + "/QD");
    EXPECT_EQ(c.dir, InitDir("QD")) << c.xdg << " " << c.dir;
    struct stat st {};
    if (!c.dir.empty()) EXPECT_TRUE(lstat(c.dir.c_str(), &st) == 0 && (st.st_mode & 022) == 0);
  }
}
#endif

}  // namespace
}  // namespace oru
