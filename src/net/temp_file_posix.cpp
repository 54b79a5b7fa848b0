// TempFile on POSIX: mkostemps makes the name (O_CREAT | O_EXCL, mode 0600),
// so a link or file planted under the chosen name is never opened.
#ifndef _FILE_OFFSET_BITS
#define _FILE_OFFSET_BITS 64
#endif

#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

#include "net/temp_file.h"

namespace oru::net {

namespace {

std::string DirectoryOf(std::string const& path) {
  const size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  if (slash == 0) return "/";
  return path.substr(0, slash);
}

std::string BaseOf(std::string const& path) {
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

// Creates "<stem>XXXXXX<suffix>" exclusively; the descriptor, or -1 with
// errno set. `out` receives the name.
int CreateExclusive(std::string const& stem, std::string const& suffix, std::string& out) {
  std::string name = stem + "XXXXXX" + suffix;
  std::vector<char> buffer(name.begin(), name.end());
  buffer.push_back('\0');
  const int fd = mkostemps(buffer.data(), static_cast<int>(suffix.size()), O_CLOEXEC);
  if (fd >= 0) out.assign(buffer.data());
  return fd;
}

}  // namespace

void TempFile::Fail(char const* what, std::string const& name, int err) {
  error = std::string(what) + " " + name + ": " + std::strerror(err);
}

bool TempFile::Create(std::string const& finalPath) {
  Discard();
  // A dot name: listings and globs of the directory pass it by.
  const std::string stem = DirectoryOf(finalPath) + "/." + BaseOf(finalPath) + ".";
  fd = CreateExclusive(stem, ".part", path);
  if (fd < 0) {
    Fail("cannot create a temporary file in", DirectoryOf(finalPath), errno);
    path.clear();
    return false;
  }
  return true;
}

bool TempFile::Write(char const* data, size_t size) {
  while (size > 0) {
    const ssize_t n = ::write(fd, data, size);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      Fail("cannot write", path, n < 0 ? errno : ENOSPC);
      return false;
    }
    data += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

bool TempFile::Commit(std::string const& finalPath) {
  // close() is where some file systems report a failed write.
  const int closed = ::close(fd);
  fd = -1;
  if (closed != 0) {
    Fail("cannot write", path, errno);
    Discard();
    return false;
  }
  if (std::rename(path.c_str(), finalPath.c_str()) != 0) {
    Fail("cannot rename the download to", finalPath, errno);
    Discard();
    return false;
  }
  path.clear();
  return true;
}

void TempFile::Discard() {
  if (fd >= 0) ::close(fd);
  fd = -1;
  if (!path.empty()) ::unlink(path.c_str());
  path.clear();
}

std::string ReserveUniqueFile(std::string const& dir, std::string const& prefix,
                              std::string& error) {
  std::string name;
  const int fd = CreateExclusive(dir + "/" + prefix, "", name);
  if (fd < 0) {
    error = "cannot create a file in " + dir + ": " + std::strerror(errno);
    return "";
  }
  ::close(fd);
  return name;
}

}  // namespace oru::net
