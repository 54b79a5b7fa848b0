// FileSpec: a file path taken apart into drive, directories, base name and
// extension, to be changed piece by piece and put back together.
//
//   oru::FileSpec path("/data/models/../scenes/hall.v2.glb");
//   path.Normalize();                       // /data/scenes/hall.v2.glb
//   path.GetExtension();                    // "glb"
//   path.SetExtension("json");
//   path.GetFullPath();                     // "/data/scenes/hall.v2.json"
//   path.MakeRelativeTo(oru::FileSpec("/data/models/"));   // "../scenes/hall.v2.json"
//
// Text is UTF-8 in and out; names are bytes, compared exactly (ASCII
// case-insensitively for Windows paths). Two path styles are understood:
// - Posix: only "/" separates; there is no drive.
// - Windows: "/" and "\" both separate; a drive ("C:") or a UNC root
//   ("\\server\share") may lead. "C:dir" is relative to the drive's current
//   directory; a UNC path is always absolute.
// FileSpec(path) uses the style of the platform the library runs on; the
// two-argument constructor takes any. GetFullPath joins the parts with the
// style's separator (DIR_SEP_CHAR for the platform's own: "\" on Windows,
// "/" elsewhere).
//
// The last part of a path is its file name, unless the path ends with a
// separator or the part is "." or "..": then the path names a directory and
// GetFileName() is empty. Runs of separators count as one. The extension is
// what follows the last dot of the file name (".bashrc" has none).
//
// Ownership and threading: a plain value; one thread at a time per object
// (const members included: a path takes its text apart on first need).
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "oru/export.h"

namespace oru {

class ORU_API FileSpec {
public:
  enum class Style { Posix, Windows };
#if defined(_WIN32)
  static constexpr Style NATIVE_STYLE = Style::Windows;
  static constexpr char DIR_SEP_CHAR = '\\';
#else
  static constexpr Style NATIVE_STYLE = Style::Posix;
  static constexpr char DIR_SEP_CHAR = '/';
#endif

  /// The empty relative path: no drive, no directories, no file name.
  FileSpec() = default;
  /// `path` taken apart in the platform's style.
  explicit FileSpec(std::string_view path);
  FileSpec(std::string_view path, Style style);

  Style GetStyle() const {
    return m_style;
  }
  /// "C:", "\\server\share", or empty.
  const std::string& GetDrive() const;
  const std::vector<std::string>& GetDirectories() const;
  /// The file name without its extension (and without the dot before it).
  std::string GetBaseName() const;
  /// What follows the file name's last dot, without the dot; empty when the
  /// name has no dot or only a leading one.
  std::string GetExtension() const;
  const std::string& GetFileName() const;
  bool IsAbsolute() const;
  bool IsRelative() const {
    return !IsAbsolute();
  }
  /// Drive, root, directories and file name joined with the style's
  /// separator; a path without a file name ends with the separator ("/a/b/",
  /// "/" for the root, "" for the empty relative path).
  std::string GetFullPath() const;
  /// GetFullPath() without the file name.
  std::string GetDirectoryPath() const;

  /// Keeps the extension.
  void SetBaseName(std::string_view baseName);
  /// An empty extension removes it, and its dot.
  void SetExtension(std::string_view extension);
  void SetFileName(std::string_view fileName);
  void AppendDirectory(std::string_view name);
  /// Removes the last directory; false when there is none.
  bool PopDirectory();

  /// Removes "." directories and resolves ".." against the directory before
  /// it. A relative path keeps the ".." it cannot resolve; at the root of an
  /// absolute one ".." is dropped (it never climbs above the root).
  FileSpec& Normalize();
  /// This path's file name, if any, becomes a directory and `relative` is
  /// appended; an absolute `relative` (or one with a drive) replaces this
  /// path instead.
  FileSpec& Join(const FileSpec& relative);
  /// Makes this path the one that leads from the directory `base` (its file
  /// name, if any, counts as a directory) to it, both normalised first.
  /// False, and the path unchanged, when there is none: one absolute and the
  /// other relative, other drives, or ".." in `base` beyond what the two
  /// share.
  bool MakeRelativeTo(const FileSpec& base);

  /// Exact for Posix paths, ASCII case-insensitive for Windows paths.
  bool operator==(const FileSpec& other) const;
  bool operator!=(const FileSpec& other) const {
    return !(*this == other);
  }

private:
  // Takes the text given to the constructor apart, on first need.
  void Split() const;

  Style m_style = NATIVE_STYLE;
  // The path as given, until it is taken apart: a path that is only put back
  // together (FileSpec(p).GetFullPath()) is rendered from it in one pass.
  mutable std::string m_text;
  mutable bool m_split = true;
  mutable std::string m_drive;
  mutable std::vector<std::string> m_directories;
  mutable std::string m_fileName;
  mutable bool m_absolute = false;
};

}  // namespace oru
