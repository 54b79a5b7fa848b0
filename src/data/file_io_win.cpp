// Windows file calls for the file data source: the wide-character runtime
// functions on the UTF-16 form of the UTF-8 name, so that names outside the
// ANSI code page open correctly.
#include <sys/stat.h>
#include <sys/types.h>

#include <io.h>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "data/file_io.h"
#include "oru/encoding.h"

namespace oru::detail {

namespace {

// The mode argument of _waccess that asks for read permission.
constexpr int ACCESS_READ = 4;

}  // namespace

std::FILE* OpenFileForReading(const std::string& utf8Name) {
  const std::wstring wide = Utf8ToWideStr(utf8Name);
  std::FILE* f = nullptr;
  const errno_t rc = _wfopen_s(&f, wide.c_str(), L"rb");
  if (rc != 0) {
    // _wfopen_s reports the reason through its result; make errno agree so
    // that callers can print it whatever the runtime did with errno.
    errno = rc;
    return nullptr;
  }
  return f;
}

bool IsFileReadable(const std::string& utf8Name) {
  const std::wstring wide = Utf8ToWideStr(utf8Name);
  return _waccess(wide.c_str(), ACCESS_READ) == 0;
}

int SeekFile(std::FILE* f, int64_t offset, int origin) {
  if (_fseeki64(f, offset, origin) != 0) return -1;
  // A successful seek clears the end-of-file indicator. Against msvcrt.dll,
  // _fseeki64 is the toolchain's emulation over fsetpos, and not every
  // runtime's fsetpos clears it (wine's does not). clearerr does, but it
  // also drops the error indicator, which a seek must keep: so only when
  // that is not set.
  if (!std::ferror(f)) std::clearerr(f);
  return 0;
}

int64_t TellFile(std::FILE* f) {
  return _ftelli64(f);
}

bool StatFile(const std::string& utf8Name, uint64_t* size, int64_t* modificationTime) {
  const std::wstring wide = Utf8ToWideStr(utf8Name);
  struct _stat64 st {};
  if (_wstat64(wide.c_str(), &st) != 0) return false;
  *size = static_cast<uint64_t>(st.st_size);
  *modificationTime = static_cast<int64_t>(st.st_mtime);
  return true;
}

std::string ErrnoText(int error) {
  const int saved = errno;
  char buffer[512];
  if (strerror_s(buffer, sizeof buffer, error) != 0) {
    std::snprintf(buffer, sizeof buffer, "Unknown error %d", error);
  }
  errno = saved;
  return buffer;
}

}  // namespace oru::detail
