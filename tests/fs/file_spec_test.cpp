// FileSpec against std::filesystem on generated POSIX paths, and the
// Windows forms, editing and relative paths by table.
#include "oru/file_spec.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <random>
#include <string>

namespace oru {
namespace {

using Style = FileSpec::Style;

std::string Joined(const std::vector<std::string>& parts) {
  std::string out;
  for (const auto& p : parts) out += p + "|";
  return out;
}

TEST(FileSpec, AgreesWithStdFilesystemOnPosixPaths) {
#ifdef _WIN32
  GTEST_SKIP() << "std::filesystem reads paths the Windows way here";
#endif
  const char* parts[] = {"a", "b.c", ".d", "e.", "..", ".", "f.tar.gz", "\xC3\xA9", ""};
  std::mt19937 rng(7);
  for (int round = 0; round < 600; ++round) {
    std::string path = rng() % 3 == 0 ? "/" : "";
    for (int n = static_cast<int>(rng() % 5); n >= 0; --n) {
      path += parts[rng() % std::size(parts)];
      if (n > 0 || rng() % 4 == 0) path += "/";
    }
    SCOPED_TRACE(path);
    const std::filesystem::path ref(path);
    FileSpec parsed(path, Style::Posix);
    EXPECT_EQ(parsed.IsAbsolute(), ref.is_absolute());
    std::string name = ref.filename().string();
    if (name == "." || name == "..") name.clear();  // a directory to FileSpec
    EXPECT_EQ(parsed.GetFileName(), name);
    if (!name.empty()) {
      EXPECT_EQ(parsed.GetBaseName(), ref.stem().string());
      const std::string ext = ref.extension().string();
      EXPECT_EQ(parsed.GetExtension(), ext.empty() ? ext : ext.substr(1));
    }
    // A full path reads back as the same path.
    EXPECT_EQ(FileSpec(parsed.GetFullPath(), Style::Posix), parsed);
    std::string normal = ref.lexically_normal().string();
    if (normal == ".") normal.clear();
    if (normal.size() >= 2 && normal.compare(normal.size() - 2, 2, "..") == 0) normal += "/";
    EXPECT_EQ(parsed.Normalize().GetFullPath(), normal);
  }
}

TEST(FileSpec, WindowsFormsAndComparison) {
  const struct {
    const char *path, *drive, *dirs, *file;
    bool absolute;
    const char* full;
  } cases[] = {
      {"C:\\dir\\sub\\file.txt", "C:", "dir|sub|", "file.txt", true, "C:\\dir\\sub\\file.txt"},
      {"c:/dir//file", "c:", "dir|", "file", true, "c:\\dir\\file"},
      {"C:rel\\x.y", "C:", "rel|", "x.y", false, "C:rel\\x.y"},
      {"\\\\server\\share\\a\\b", "\\\\server\\share", "a|", "b", true, "\\\\server\\share\\a\\b"},
      {"//server/share/", "\\\\server\\share", "", "", true, "\\\\server\\share\\"},
      {"\\top\\x", "", "top|", "x", true, "\\top\\x"},
      {"a/b\\..", "", "a|b|..|", "", false, "a\\b\\..\\"},
  };
  for (const auto& c : cases) {
    const FileSpec parsed(c.path, Style::Windows);
    EXPECT_EQ(parsed.GetDrive() + "/" + Joined(parsed.GetDirectories()) + parsed.GetFileName(),
              std::string(c.drive) + "/" + c.dirs + c.file)
        << c.path;
    EXPECT_EQ(parsed.IsAbsolute(), c.absolute) << c.path;
    EXPECT_EQ(parsed.GetFullPath(), c.full) << c.path;
  }
  EXPECT_EQ(FileSpec("C:\\Dir\\A.TXT", Style::Windows), FileSpec("c:/dir/a.txt", Style::Windows));
  EXPECT_NE(FileSpec("/Dir/A", Style::Posix), FileSpec("/dir/a", Style::Posix));
  EXPECT_NE(FileSpec("a/b", Style::Posix), FileSpec("/a/b", Style::Posix));
  EXPECT_EQ(FileSpec::DIR_SEP_CHAR, FileSpec("x/").GetFullPath().back());
}

TEST(FileSpec, EditingJoiningAndRelativePaths) {
  FileSpec parsed("dir/name.tar.gz", Style::Posix);
  parsed.SetBaseName("n2");
  EXPECT_EQ(parsed.GetFullPath(), "dir/n2.gz");
  parsed.SetExtension("");
  EXPECT_EQ(parsed.GetFileName(), "n2");
  parsed.SetExtension("md");
  parsed.AppendDirectory("sub");
  EXPECT_EQ(parsed.GetFullPath(), "dir/sub/n2.md");
  EXPECT_EQ(parsed.GetDirectoryPath(), "dir/sub/");
  parsed.SetFileName(".bashrc");
  EXPECT_EQ(parsed.GetExtension(), "");
  EXPECT_TRUE(parsed.PopDirectory() && parsed.PopDirectory());
  EXPECT_FALSE(parsed.PopDirectory());
  EXPECT_EQ(FileSpec("/..", Style::Posix).Normalize().GetFullPath(), "/");
  EXPECT_EQ(FileSpec("/a/b", Style::Posix).Join(FileSpec("c/d.txt", Style::Posix)).GetFullPath(),
            "/a/b/c/d.txt");
  EXPECT_EQ(FileSpec("/a/b", Style::Posix).Join(FileSpec("/x", Style::Posix)).GetFullPath(), "/x");

  const struct {
    const char *path, *base, *result;  // result null: no relative path exists
    Style style;
  } cases[] = {
      {"/data/scenes/hall.glb", "/data/models/", "../scenes/hall.glb", Style::Posix},
      {"/a/b", "/a/b/", "../b", Style::Posix},
      {"a/b", "a/../a/x", "../b", Style::Posix},
      {"/a", "rel/", nullptr, Style::Posix},
      {"a/b", "../c/", nullptr, Style::Posix},
      {"C:\\x\\y", "D:\\x\\", nullptr, Style::Windows},
      {"C:\\X\\y\\z", "c:\\x\\Q\\", "..\\y\\z", Style::Windows},
  };
  for (const auto& c : cases) {
    FileSpec target(c.path, c.style);
    const bool made = target.MakeRelativeTo(FileSpec(c.base, c.style));
    EXPECT_EQ(made, c.result != nullptr) << c.path << " from " << c.base;
    EXPECT_EQ(target.GetFullPath(), made ? c.result : FileSpec(c.path, c.style).GetFullPath());
  }
}

}  // namespace
}  // namespace oru
