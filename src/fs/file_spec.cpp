#include "oru/file_spec.h"

#include <algorithm>

namespace oru {

namespace {

bool IsSeparator(char c, FileSpec::Style style) {
  return c == '/' || (style == FileSpec::Style::Windows && c == '\\');
}

char SeparatorOf(FileSpec::Style style) {
  return style == FileSpec::Style::Windows ? '\\' : '/';
}

char LowerAscii(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

bool SameText(std::string_view a, std::string_view b, bool ignoreCase) {
  if (!ignoreCase) return a == b;
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
           return LowerAscii(x) == LowerAscii(y);
         });
}

bool IsDotName(std::string_view name) {
  return name == "." || name == "..";
}

// The position of the dot that starts the extension, or npos: the last dot,
// unless it is the name's first character.
size_t ExtensionDot(const std::string& fileName) {
  const size_t dot = fileName.rfind('.');
  return dot == std::string::npos || dot == 0 ? std::string::npos : dot;
}

// Takes `path` apart in `style`, telling `parts` of each piece in order:
// Drive(text) (already in the style's form), Absolute(), then Directory(text)
// and File(text) for the parts ("." and ".." are always directories).
template <class Parts>
void ParsePath(std::string_view path, FileSpec::Style style, Parts& parts) {
  const bool windows = style == FileSpec::Style::Windows;
  const char sep = SeparatorOf(style);
  const auto separatorAt = [&](size_t i) { return i < path.size() && IsSeparator(path[i], style); };
  // The next separator from `from`, or the end: memchr for one separator.
  const auto nextSeparator = [&path, windows](size_t from) {
    const size_t found = windows ? path.find_first_of("/\\", from) : path.find('/', from);
    return found == std::string_view::npos ? path.size() : found;
  };
  size_t at = 0;
  bool absolute = false;
  if (windows && separatorAt(0) && separatorAt(1)) {
    // UNC root: \\server\share, always absolute.
    std::string drive{sep, sep};
    at = 2;
    for (int part = 0; part < 2 && at < path.size(); ++part) {
      const size_t end = nextSeparator(at);
      if (part == 1) drive += sep;
      drive.append(path.substr(at, end - at));
      at = end;
      while (separatorAt(at)) ++at;
    }
    parts.Drive(drive);
    absolute = true;
  } else if (windows && path.size() >= 2 && path[1] == ':' &&
             ((path[0] >= 'A' && path[0] <= 'Z') || (path[0] >= 'a' && path[0] <= 'z'))) {
    parts.Drive(path.substr(0, 2));
    at = 2;
  }
  if (absolute || separatorAt(at)) parts.Absolute();
  const std::string_view rest = path.substr(at);
  size_t separators = static_cast<size_t>(std::count(rest.begin(), rest.end(), '/'));
  if (windows) separators += static_cast<size_t>(std::count(rest.begin(), rest.end(), '\\'));
  parts.Expect(separators + 1);
  while (at < path.size()) {
    const size_t end = nextSeparator(at);
    if (end > at) {
      const std::string_view part = path.substr(at, end - at);
      if (end == path.size() && !IsDotName(part)) {
        parts.File(part);
      } else {
        parts.Directory(part);
      }
    }
    at = end + 1;
  }
}

// Fills a path's parts.
struct SpecParts {
  std::string& drive;
  std::vector<std::string>& directories;
  std::string& fileName;
  bool& absolute;
  void Drive(std::string_view text) { drive.assign(text); }
  void Absolute() { absolute = true; }
  void Expect(size_t count) { directories.reserve(count); }
  void Directory(std::string_view text) { directories.emplace_back(text); }
  void File(std::string_view text) { fileName.assign(text); }
};

// Writes the full path: the parts joined with the style's separator.
struct PathText {
  std::string& out;
  char sep;
  void Drive(std::string_view text) { out += text; }
  void Absolute() { out += sep; }
  void Expect(size_t) {}
  void Directory(std::string_view text) {
    out += text;
    out += sep;
  }
  void File(std::string_view text) { out += text; }
};

}  // namespace

// Defined here too, so that the DLL exports them: a program that takes their
// address (binds a reference to one) links against oru.dll's copy.
constexpr FileSpec::Style FileSpec::NATIVE_STYLE;
constexpr char FileSpec::DIR_SEP_CHAR;

FileSpec::FileSpec(std::string_view path) : FileSpec(path, NATIVE_STYLE) {}

FileSpec::FileSpec(std::string_view path, Style style)
    : m_style(style), m_text(path), m_split(false) {}

void FileSpec::Split() const {
  if (m_split) return;
  SpecParts parts{m_drive, m_directories, m_fileName, m_absolute};
  ParsePath(m_text, m_style, parts);
  m_split = true;
  m_text = std::string();
}

const std::string& FileSpec::GetDrive() const {
  Split();
  return m_drive;
}

const std::vector<std::string>& FileSpec::GetDirectories() const {
  Split();
  return m_directories;
}

const std::string& FileSpec::GetFileName() const {
  Split();
  return m_fileName;
}

bool FileSpec::IsAbsolute() const {
  Split();
  return m_absolute;
}

std::string FileSpec::GetBaseName() const {
  Split();
  const size_t dot = ExtensionDot(m_fileName);
  return dot == std::string::npos ? m_fileName : m_fileName.substr(0, dot);
}

std::string FileSpec::GetExtension() const {
  Split();
  const size_t dot = ExtensionDot(m_fileName);
  return dot == std::string::npos ? std::string() : m_fileName.substr(dot + 1);
}

namespace {

// Drive, root, directories each followed by the separator, then `fileName`.
std::string JoinPath(const std::string& drive, bool absolute,
                     const std::vector<std::string>& directories, std::string_view fileName,
                     char sep) {
  size_t length = drive.size() + 1 + fileName.size();
  for (const std::string& dir : directories) length += dir.size() + 1;
  std::string out;
  out.reserve(length);
  out += drive;
  if (absolute) out += sep;
  for (const std::string& dir : directories) {
    out += dir;
    out += sep;
  }
  out += fileName;
  return out;
}

}  // namespace

std::string FileSpec::GetDirectoryPath() const {
  Split();
  return JoinPath(m_drive, m_absolute, m_directories, {}, SeparatorOf(m_style));
}

std::string FileSpec::GetFullPath() const {
  if (!m_split) {
    // Straight from the text: the same pieces as the parts would give.
    std::string out;
    out.reserve(m_text.size() + 1);
    PathText text{out, SeparatorOf(m_style)};
    ParsePath(m_text, m_style, text);
    return out;
  }
  return JoinPath(m_drive, m_absolute, m_directories, m_fileName, SeparatorOf(m_style));
}

void FileSpec::SetBaseName(std::string_view baseName) {
  Split();
  const size_t dot = ExtensionDot(m_fileName);
  std::string name(baseName);
  if (dot != std::string::npos) name += m_fileName.substr(dot);
  m_fileName = std::move(name);
}

void FileSpec::SetExtension(std::string_view extension) {
  Split();
  std::string name = GetBaseName();
  if (!extension.empty()) {
    name += '.';
    name += extension;
  }
  m_fileName = std::move(name);
}

void FileSpec::SetFileName(std::string_view fileName) {
  Split();
  m_fileName = std::string(fileName);
}

void FileSpec::AppendDirectory(std::string_view name) {
  Split();
  m_directories.emplace_back(name);
}

bool FileSpec::PopDirectory() {
  Split();
  if (m_directories.empty()) return false;
  m_directories.pop_back();
  return true;
}

FileSpec& FileSpec::Normalize() {
  Split();
  std::vector<std::string> kept;
  for (std::string& dir : m_directories) {
    if (dir == ".") continue;
    if (dir == "..") {
      if (!kept.empty() && kept.back() != "..") {
        kept.pop_back();
        continue;
      }
      if (m_absolute) continue;  // never above the root
    }
    kept.push_back(std::move(dir));
  }
  m_directories = std::move(kept);
  return *this;
}

FileSpec& FileSpec::Join(const FileSpec& relative) {
  Split();
  relative.Split();
  if (relative.m_absolute || !relative.m_drive.empty()) {
    *this = relative;
    return *this;
  }
  if (!m_fileName.empty()) m_directories.push_back(std::move(m_fileName));
  m_directories.insert(m_directories.end(), relative.m_directories.begin(),
                       relative.m_directories.end());
  m_fileName = relative.m_fileName;
  return *this;
}

bool FileSpec::MakeRelativeTo(const FileSpec& base) {
  Split();
  base.Split();
  const bool ignoreCase = m_style == Style::Windows;
  if (m_absolute != base.m_absolute || !SameText(m_drive, base.m_drive, ignoreCase)) return false;
  FileSpec target = *this;
  target.Normalize();
  FileSpec from = base;
  from.Normalize();
  if (!from.m_fileName.empty()) from.m_directories.push_back(from.m_fileName);
  size_t shared = 0;
  while (shared < target.m_directories.size() && shared < from.m_directories.size() &&
         SameText(target.m_directories[shared], from.m_directories[shared], ignoreCase))
    ++shared;
  std::vector<std::string> path;
  for (size_t i = shared; i < from.m_directories.size(); ++i) {
    // The name of the directory a ".." of `base` leads to is not known.
    if (from.m_directories[i] == "..") return false;
    path.emplace_back("..");
  }
  path.insert(path.end(), target.m_directories.begin() + static_cast<std::ptrdiff_t>(shared),
              target.m_directories.end());
  m_drive.clear();
  m_absolute = false;
  m_directories = std::move(path);
  m_fileName = std::move(target.m_fileName);
  return true;
}

bool FileSpec::operator==(const FileSpec& other) const {
  Split();
  other.Split();
  const bool ignoreCase = m_style == Style::Windows;
  if (m_style != other.m_style || m_absolute != other.m_absolute ||
      m_directories.size() != other.m_directories.size() ||
      !SameText(m_drive, other.m_drive, ignoreCase) ||
      !SameText(m_fileName, other.m_fileName, ignoreCase))
    return false;
  for (size_t i = 0; i < m_directories.size(); ++i) {
    if (!SameText(m_directories[i], other.m_directories[i], ignoreCase)) return false;
  }
  return true;
}

}  // namespace oru
