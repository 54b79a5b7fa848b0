// The native file system (WinFileSystem on Windows, PosixFileSystem
// elsewhere) against the files it makes, with UTF-8 names outside ASCII.
#include <gtest/gtest.h>

#include <chrono>
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
using test::TempDir;
using test::WriteFile;

class FileSystemTest : public ::testing::Test {
protected:
  std::shared_ptr<FileSystem> fs = CreateNativeFileSystem();
  TempDir tmp;
  const char sep = fs->GetDirSeparator();

  // A directory whose name is not ASCII, to carry every test's files.
  std::string Dir() {
    std::string dir = tmp.File("données-日本");
    stdfs::create_directories(stdfs::u8path(dir));
    return dir;
  }
  std::string PathIn(const std::string& dir, const std::string& name) { return dir + sep + name; }

  struct Ready : FileSystem::DirCallback {
    int calls = 0;
    bool success = false;
    void OnDirReady(bool ok) override { ++calls, success = ok; }
  };
};

TEST_F(FileSystemTest, SeparatorMatchesThePlatform) {
  EXPECT_EQ('\\', WinFileSystem::Create()->GetDirSeparator());
  EXPECT_EQ('/', PosixFileSystem::Create()->GetDirSeparator());
#ifdef _WIN32
  EXPECT_EQ('\\', sep);
#else
  EXPECT_EQ('/', sep);
#endif
}

TEST_F(FileSystemTest, OpenFailsWithoutTouchingAnything) {
  EXPECT_EQ(nullptr, fs->Fopen(nullptr, "rb"));
  EXPECT_EQ(nullptr, fs->Fopen(PathIn(Dir(), "missing").c_str(), "rb"));
  EXPECT_FALSE(stdfs::exists(stdfs::u8path(PathIn(Dir(), "missing"))));
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
}

TEST_F(FileSystemTest, WritesAndReadsLinesKeepingCarriageReturns) {
  const std::string path = PathIn(Dir(), "lines-é.txt");
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
  EXPECT_EQ("ab\r", fs->ReadLine(in));
  EXPECT_EQ("cd", fs->ReadLine(in));
  EXPECT_EQ("", fs->ReadLine(in));
  EXPECT_EQ("", fs->ReadLine(in));
  fs->Fclose(in);
}

TEST_F(FileSystemTest, TempFilesTakeTheFirstFreeNumber) {
  const std::string dir = Dir();
  WriteFile(PathIn(dir, "5"), "x");
  WriteFile(PathIn(dir, "6"), "y");
  int counter = 5;
  std::string path;
  auto fp = fs->CreateAndOpenTempFile(dir.c_str(), "ignored", counter, path);
  ASSERT_NE(nullptr, fp);
  EXPECT_EQ(PathIn(dir, "7"), path);
  EXPECT_EQ(8, counter);
  fs->Fwrite("data", 4, fp);
  fs->Fclose(fp);
  EXPECT_EQ("data", ReadFile(path));
  EXPECT_EQ("x", ReadFile(PathIn(dir, "5")));  // existing files untouched

  // A directory that does not exist: the name is found, the open fails,
  // and the counter has moved on all the same.
  counter = 0;
  const std::string missing = PathIn(dir, "no-such-dir");
  EXPECT_EQ(nullptr, fs->CreateAndOpenTempFile(missing.c_str(), "", counter, path));
  EXPECT_EQ(PathIn(missing, "0"), path);
  EXPECT_EQ(1, counter);
}

TEST_F(FileSystemTest, ListsEntriesButNotDotAndDotDot) {
  const std::string dir = Dir();
  WriteFile(PathIn(dir, "a.txt"), "a");
  WriteFile(PathIn(dir, "ü.bin"), "u");
  stdfs::create_directory(stdfs::u8path(PathIn(dir, "sub")));
  WriteFile(PathIn(PathIn(dir, "sub"), "deep"), "d");
  std::unordered_set<std::string> out = {"already"};
  fs->FilesInDir(dir.c_str(), out);
  EXPECT_EQ((std::unordered_set<std::string>{"already", PathIn(dir, "a.txt"), PathIn(dir, "ü.bin"),
                                             PathIn(dir, "sub")}),
            out);
  const std::string missing = PathIn(dir, "missing");
  fs->FilesInDir(missing.c_str(), out);
  EXPECT_EQ(4u, out.size());
}

TEST_F(FileSystemTest, StatTouchAndUnlink) {
  const std::string path = PathIn(Dir(), "ファイル");
  WriteFile(path, std::string(1234, 'z'));
  const auto old = stdfs::last_write_time(stdfs::u8path(path)) - std::chrono::hours(48);
  stdfs::last_write_time(stdfs::u8path(path), old);

  FileStat st;
  ASSERT_TRUE(fs->Stat(path.c_str(), st));
  EXPECT_EQ(1234u, st.size);
  EXPECT_EQ(0x8000u, st.mode & 0xF000u);  // a regular file
  const int64_t now = std::chrono::duration_cast<std::chrono::seconds>(
                          std::chrono::system_clock::now().time_since_epoch())
                          .count();
  EXPECT_NEAR(static_cast<double>(now - 48 * 3600), static_cast<double>(st.modifyTime), 5.0);

  const uint64_t touched = fs->TouchFile(path.c_str());
  EXPECT_NEAR(static_cast<double>(now), static_cast<double>(touched), 5.0);
  FileStat after;
  ASSERT_TRUE(fs->Stat(path.c_str(), after));
  EXPECT_EQ(static_cast<int64_t>(touched), after.modifyTime);

  FileStat untouched;
  untouched.size = 99;
  const std::string missing = PathIn(Dir(), "missing");
  EXPECT_FALSE(fs->Stat(missing.c_str(), untouched));
  EXPECT_EQ(99u, untouched.size);
  EXPECT_EQ(0u, fs->TouchFile(missing.c_str()));
  EXPECT_FALSE(stdfs::exists(stdfs::u8path(missing)));

  EXPECT_EQ(0, fs->Unlink(path.c_str()));
  EXPECT_EQ(-1, fs->Unlink(path.c_str()));
}

TEST_F(FileSystemTest, CopiesASourceIntoAFileAndRewindsIt) {
  const std::string bytes = test::RandomBytes(10000, 3);
  auto src = InMemoryDataSource::Create(std::string(bytes), false);
  src->Seek(123, DS_SEEK_SET);

  struct Result : FileSystem::Callback {
    int calls = 0;
    bool success = false;
    void OnComplete(bool ok) override { ++calls, success = ok; }
  };
  auto cb = std::make_shared<Result>();
  fs->WriteAndCloseAsync(src, nullptr, cb);
  EXPECT_EQ(1, cb->calls);
  EXPECT_FALSE(cb->success);
  EXPECT_EQ(123u, src->GetOffset());  // untouched without a file

  const std::string path = PathIn(Dir(), "copy");
  cb = std::make_shared<Result>();
  fs->WriteAndCloseAsync(src, fs->Fopen(path.c_str(), "wb"), cb);
  EXPECT_EQ(1, cb->calls);
  EXPECT_TRUE(cb->success);
  EXPECT_EQ(0u, src->GetOffset());
  EXPECT_EQ(bytes, ReadFile(path));
  EXPECT_EQ(bytes, test::Contents(fs->GetDS(path.c_str())));
  EXPECT_EQ(nullptr, fs->GetDS(nullptr));
}

TEST_F(FileSystemTest, DownloadOfALocalFileReportsSuccessAndCreatesNothing) {
  struct Result : FileSystem::Callback {
    int calls = 0;
    void OnComplete(bool ok) override { calls += ok ? 1 : 100; }
  };
  auto cb = std::make_shared<Result>();
  const std::string local = PathIn(Dir(), "local");
  fs->AsyncDownloadFile("http://example.com/x", local.c_str(), cb);
  EXPECT_EQ(1, cb->calls);
  EXPECT_FALSE(stdfs::exists(stdfs::u8path(local)));
  fs->AsyncDownloadFile("http://example.com/x", local.c_str(), nullptr);
}

TEST_F(FileSystemTest, PreparesItsWorkingDirectoryInTheWorkingArea) {
  test::ScopedTempArea area(Dir());
  auto cb = std::make_shared<Ready>();
  fs->InitDirToUse("Cache-ß", cb);
  EXPECT_EQ(1, cb->calls);
  ASSERT_TRUE(cb->success);
  EXPECT_EQ(PathIn(Dir(), "Cache-ß"), cb->dir);
  EXPECT_TRUE(stdfs::is_directory(stdfs::u8path(cb->dir)));

  // Again: it exists now, which is fine.
  cb = std::make_shared<Ready>();
  fs->InitDirToUse("Cache-ß", cb);
  EXPECT_TRUE(cb->success);

  // Only the last level is created: a missing parent fails.
  cb = std::make_shared<Ready>();
  const std::string nested = std::string("missing") + sep + "leaf";
  fs->InitDirToUse(nested.c_str(), cb);
  EXPECT_EQ(1, cb->calls);
  EXPECT_FALSE(cb->success);
  EXPECT_EQ("", cb->dir);
}

#ifndef _WIN32
TEST_F(FileSystemTest, WorkingDirectoryIsPrivateWhereverItLies) {
  // Where the working area lies, and what in its place is refused because
  // another user could have planted it there.
  const std::string base = PathIn(Dir(), "base"), home = PathIn(Dir(), "home");
  const std::string own = PathIn(Dir(), "oru-" + std::to_string(geteuid()));
  const std::string saved[] = {test::GetEnv("XDG_CACHE_HOME"), test::GetEnv("HOME"),
                               test::GetEnv("TMPDIR")};
  const auto mkdirMode = [](const std::string& at, mode_t mode) {
    mkdir(at.c_str(), 0700), chmod(at.c_str(), mode);
  };
  const struct {
    const char *xdg, *home;
    std::function<void(const std::string& dir)> plant;
    std::string dir;  // empty: refused
  } cases[] = {
      {"base/x", "", [](auto&) {}, PathIn(base, "x/QD")},
      {"base", "", [&](auto& at) { mkdirMode(at, 0755); }, PathIn(base, "QD")},
      {"base", "", [&](auto& at) { symlink(home.c_str(), at.c_str()); }, ""},
      {"base", "", [](auto& at) { WriteFile(at, "x"); }, ""},
      {"base", "", [&](auto& at) { mkdirMode(at, 0777); }, ""},
      {"base", "", [&](auto& at) { mkdirMode(at, 0770); }, ""},
      {"base", "", [&](auto& at) { mkdirMode(at, 0700), (void)chown(at.c_str(), 65534, 65534); },
       geteuid() == 0 ? "" : PathIn(base, "QD")},
      {"relative", "home", [](auto&) {}, PathIn(home, ".cache/QD")},
      {"", "", [](auto&) {}, PathIn(own, "QD")},
      {"", "", [&](auto&) { mkdirMode(own, 0777); }, ""},
  };
  for (const auto& c : cases) {
    stdfs::remove_all(base), stdfs::remove_all(own), stdfs::remove_all(home);
    stdfs::create_directories(base), stdfs::create_directories(home);
    test::SetEnv("XDG_CACHE_HOME", *c.xdg == 'b' ? PathIn(Dir(), c.xdg) : c.xdg);
    test::SetEnv("HOME", *c.home ? home : "");
    test::SetEnv("TMPDIR", Dir());
    c.plant(PathIn(base, "QD"));
    auto cb = std::make_shared<Ready>();
    fs->InitDirToUse("QD", cb);
    EXPECT_EQ(c.dir, cb->dir) << c.xdg << " " << c.dir;
    EXPECT_EQ(!c.dir.empty(), cb->success);
    struct stat st {};
    if (!c.dir.empty()) EXPECT_TRUE(lstat(c.dir.c_str(), &st) == 0 && (st.st_mode & 022) == 0);
  }
  test::SetEnv("XDG_CACHE_HOME", saved[0]), test::SetEnv("HOME", saved[1]);
  test::SetEnv("TMPDIR", saved[2]);
}
#endif

TEST_F(FileSystemTest, ReplacesAFileInOneStep) {
  const std::string dir = Dir();
  WriteFile(PathIn(dir, "target"), "old");
  WriteFile(PathIn(dir, "fresh"), "new");
  EXPECT_TRUE(fs->ReplaceFile(PathIn(dir, "fresh").c_str(), PathIn(dir, "target").c_str()));
  EXPECT_EQ("new", ReadFile(PathIn(dir, "target")));
  EXPECT_FALSE(stdfs::exists(stdfs::u8path(PathIn(dir, "fresh"))));
  EXPECT_FALSE(fs->ReplaceFile(PathIn(dir, "gone").c_str(), PathIn(dir, "target").c_str()));
  EXPECT_EQ("new", ReadFile(PathIn(dir, "target")));
}

}  // namespace
}  // namespace oru
