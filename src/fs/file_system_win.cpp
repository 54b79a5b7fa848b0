// Windows calls under the stdio file systems: the wide-character runtime
// and Win32 functions on the UTF-16 form of each UTF-8 path, so that names
// outside the ANSI code page work.
#define WIN32_LEAN_AND_MEAN
#define NOMINMAX
#include <windows.h>

#include <sys/stat.h>
#include <sys/types.h>
#include <sys/utime.h>

#include <direct.h>
#include <io.h>
#include <cstdio>
#include <ctime>

#include "fs/file_system_platform.h"
#include "oru/encoding.h"
#include "oru/file_system.h"

namespace oru {

std::shared_ptr<FileSystem> CreateNativeFileSystem() {
  return WinFileSystem::Create();
}

namespace detail {

namespace {

std::wstring Wide(const std::string& utf8) {
  return Utf8ToWideStr(utf8);
}

// The attributes of the name itself (a reparse point is not followed), or
// INVALID_FILE_ATTRIBUTES.
DWORD Attributes(const std::string& path) {
  return GetFileAttributesW(Wide(path).c_str());
}

// Whatever is not a plain file: a directory, a device, or a reparse point
// (a symbolic link or a junction) that would send reads and writes elsewhere.
constexpr DWORD NOT_A_PLAIN_FILE =
    FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_DEVICE | FILE_ATTRIBUTE_REPARSE_POINT;

// The mode that StatPath gives a reparse point: the POSIX value of a link.
constexpr unsigned short LINK_MODE = 0120000;

bool TemporaryDirectory(std::string& out) {
  wchar_t buffer[MAX_PATH + 1];
  const DWORD n = GetTempPathW(MAX_PATH + 1, buffer);
  if (n == 0 || n > MAX_PATH) return false;
  out = WideStrToUtf8(BasicStringSpan<wchar_t const>(buffer, n));
  return true;
}

}  // namespace

std::FILE* OpenFile(const std::string& path, const std::string& mode) {
  return _wfopen(Wide(path).c_str(), Wide(mode).c_str());
}

std::FILE* OpenPlainFile(const std::string& path, const std::string& mode) {
  const DWORD attributes = Attributes(path);
  if (attributes != INVALID_FILE_ATTRIBUTES && (attributes & NOT_A_PLAIN_FILE) != 0) return nullptr;
  return _wfopen(Wide(path).c_str(), Wide(mode).c_str());
}

bool StatPath(const std::string& path, FileStat& out) {
  struct _stat64 st {};
  if (_wstat64(Wide(path).c_str(), &st) != 0) return false;
  out.size = static_cast<uint64_t>(st.st_size);
  out.accessTime = static_cast<int64_t>(st.st_atime);
  out.createTime = static_cast<int64_t>(st.st_ctime);
  out.modifyTime = static_cast<int64_t>(st.st_mtime);
  auto mode = static_cast<unsigned short>(st.st_mode);
  const DWORD attributes = Attributes(path);
  if (attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0)
    mode = static_cast<unsigned short>((mode & 07777) | LINK_MODE);
  out.mode = mode;
  return true;
}

bool SetFileTimes(const std::string& path, int64_t accessTime, int64_t modifyTime) {
  struct __utimbuf64 times {};
  times.actime = static_cast<__time64_t>(accessTime);
  times.modtime = static_cast<__time64_t>(modifyTime);
  return _wutime64(Wide(path).c_str(), &times) == 0;
}

int64_t CurrentTime() {
  return static_cast<int64_t>(_time64(nullptr));
}

int UnlinkPath(const std::string& path) {
  return _wunlink(Wide(path).c_str()) == 0 ? 0 : -1;
}

bool PathExists(const std::string& path) {
  return Attributes(path) != INVALID_FILE_ATTRIBUTES;
}

bool PrepareWorkingDirectory(const std::string& name, char separator, std::string& out) {
  // The user's temporary directory is the user's own on Windows.
  std::string path;
  if (!TemporaryDirectory(path) || path.empty()) return false;
  if (path.back() != separator) path += separator;
  path += name;
  if (!PathExists(path) && _wmkdir(Wide(path).c_str()) != 0) return false;
  const DWORD attributes = Attributes(path);
  if (attributes == INVALID_FILE_ATTRIBUTES || (attributes & FILE_ATTRIBUTE_DIRECTORY) == 0 ||
      (attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0)
    return false;
  out = path;
  return true;
}

bool ListDirectory(const std::string& dir, char separator,
                   const std::function<void(const std::string&)>& entry) {
  const std::wstring pattern = Wide(dir + separator + '*');
  WIN32_FIND_DATAW data;
  HANDLE h = FindFirstFileW(pattern.c_str(), &data);
  if (h == INVALID_HANDLE_VALUE) return false;
  do {
    entry(WideStrToUtf8(BasicStringSpan<wchar_t const>(data.cFileName, wcslen(data.cFileName))));
  } while (FindNextFileW(h, &data));
  FindClose(h);
  return true;
}

void ReadLineFromFile(std::FILE* f, std::string& line) {
  _lock_file(f);
  for (int c; (c = _getc_nolock(f)) != EOF && c != '\n';) line += static_cast<char>(c);
  _unlock_file(f);
}

bool RenameReplacing(const std::string& from, const std::string& to) {
  return MoveFileExW(Wide(from).c_str(), Wide(to).c_str(),
                     MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH) != 0;
}

}  // namespace detail
}  // namespace oru
