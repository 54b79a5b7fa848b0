// POSIX file calls for the file data source: the narrow functions straight
// on the UTF-8 name, which is what the kernel expects; no conversion.

// 64-bit offsets for fseeko/ftello/stat on 32-bit targets too.
#ifndef _FILE_OFFSET_BITS
#define _FILE_OFFSET_BITS 64
#endif

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "data/file_io.h"

namespace oru::detail {

namespace {

static_assert(sizeof(off_t) >= sizeof(int64_t), "file offsets must be 64 bits wide");

// strerror_r comes in two shapes and the libc decides which one we get.
// Overloading on its result picks the right reading of it at compile time.

// XSI form: returns 0 and fills `buffer`, or an error (older glibc: -1 with
// errno set) when the number is unknown or the buffer is too small.
[[maybe_unused]] std::string StrerrorResult(int rc, const char* buffer, int error) {
  if (rc != 0) return "Unknown error " + std::to_string(error);
  return buffer;
}

// GNU form: returns the text, which may be a static string instead of
// `buffer`.
[[maybe_unused]] std::string StrerrorResult(const char* text, const char* /*buffer*/, int error) {
  if (text == nullptr) return "Unknown error " + std::to_string(error);
  return text;
}

}  // namespace

std::FILE* OpenFileForReading(const std::string& utf8Name) {
  // O_NONBLOCK: opening a FIFO must not wait for a writer. Only regular
  // files are read: a FIFO or a device has no size and no seek, and the
  // Windows runtime refuses a directory, so it is refused here too.
  const int fd = open(utf8Name.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) return nullptr;
  struct stat st {};
  if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    close(fd);
    errno = S_ISDIR(st.st_mode) ? EISDIR : EINVAL;
    return nullptr;
  }
  fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK);
  std::FILE* f = fdopen(fd, "rb");
  if (f == nullptr) close(fd);
  return f;
}

bool IsFileReadable(const std::string& utf8Name) {
  return access(utf8Name.c_str(), R_OK) == 0;
}

int SeekFile(std::FILE* f, int64_t offset, int origin) {
  return fseeko(f, static_cast<off_t>(offset), origin) == 0 ? 0 : -1;
}

int64_t TellFile(std::FILE* f) {
  return static_cast<int64_t>(ftello(f));
}

bool StatFile(const std::string& utf8Name, uint64_t* size, int64_t* modificationTime) {
  struct stat st {};
  if (stat(utf8Name.c_str(), &st) != 0) return false;
  *size = static_cast<uint64_t>(st.st_size);
  *modificationTime = static_cast<int64_t>(st.st_mtime);
  return true;
}

std::string ErrnoText(int error) {
  const int saved = errno;
  char buffer[512] = {};
  std::string text = StrerrorResult(strerror_r(error, buffer, sizeof buffer), buffer, error);
  errno = saved;
  return text;
}

}  // namespace oru::detail
