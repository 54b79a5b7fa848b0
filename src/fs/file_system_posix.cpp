// POSIX calls under the stdio file systems, on the UTF-8 names as they
// stand: the kernel takes bytes, so no conversion is needed.
#ifndef _FILE_OFFSET_BITS
#define _FILE_OFFSET_BITS 64
#endif

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>

#include "fs/file_system_platform.h"
#include "oru/file_system.h"

namespace oru {

std::shared_ptr<FileSystem> CreateNativeFileSystem() {
  return PosixFileSystem::Create();
}

namespace detail {

namespace {

// The open flags of a C runtime mode ("r", "wb", "a+", "wx", ...); false for
// a mode fopen would refuse too.
bool OpenFlags(const std::string& mode, int* flags) {
  if (mode.empty()) return false;
  int f = 0;
  switch (mode[0]) {
    case 'r':
      f = O_RDONLY;
      break;
    case 'w':
      f = O_WRONLY | O_CREAT | O_TRUNC;
      break;
    case 'a':
      f = O_WRONLY | O_CREAT | O_APPEND;
      break;
    default:
      errno = EINVAL;
      return false;
  }
  for (char c : mode.substr(1)) {
    if (c == '+') f = (f & ~(O_RDONLY | O_WRONLY)) | O_RDWR;
    if (c == 'x') f |= O_EXCL;
  }
  *flags = f;
  return true;
}

// A directory only this user can change: not a link, owned by the user, and
// writable by neither group nor others.
bool IsPrivateDirectory(const std::string& path) {
  struct stat st {};
  return lstat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode) && st.st_uid == geteuid() &&
         (st.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

bool IsDirectory(const std::string& path) {
  struct stat st {};
  return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// Creates `path` and its missing parents, each new level private.
bool MakeDirectories(const std::string& path) {
  for (size_t at = 1; at <= path.size(); ++at) {
    if (at < path.size() && path[at] != '/') continue;
    if (mkdir(path.substr(0, at).c_str(), 0700) != 0 && errno != EEXIST) return false;
  }
  return IsDirectory(path);
}

// An environment variable that holds an absolute path, without trailing
// slashes; empty otherwise (a relative value is ignored, as the XDG base
// directory convention asks).
std::string AbsolutePathVariable(const char* name) {
  const char* value = std::getenv(name);
  if (value == nullptr || value[0] != '/') return {};
  std::string path = value;
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return path;
}

// The per-user base of the working area: $XDG_CACHE_HOME, else
// $HOME/.cache, each made when missing; only when neither can be had, a
// directory of this user's own in the temporary directory, which every
// user can write to, so it must prove private.
std::string WorkingAreaBase() {
  const std::string xdg = AbsolutePathVariable("XDG_CACHE_HOME");
  if (!xdg.empty() && MakeDirectories(xdg)) return xdg;
  const std::string home = AbsolutePathVariable("HOME");
  if (!home.empty() && IsDirectory(home)) {
    const std::string cache = home == "/" ? "/.cache" : home + "/.cache";
    if ((mkdir(cache.c_str(), 0700) == 0 || errno == EEXIST) && IsDirectory(cache)) return cache;
  }
  const char* tmp = std::getenv("TMPDIR");
  std::string own = (tmp != nullptr && *tmp != '\0') ? tmp : "/tmp";
  if (own.back() != '/') own += '/';
  own += "oru-" + std::to_string(geteuid());
  if (mkdir(own.c_str(), 0700) != 0 && errno != EEXIST) return {};
  return IsPrivateDirectory(own) ? own : std::string();
}

}  // namespace

std::FILE* OpenFile(const std::string& path, const std::string& mode) {
  return std::fopen(path.c_str(), mode.c_str());
}

std::FILE* OpenPlainFile(const std::string& path, const std::string& mode) {
  int flags = 0;
  if (!OpenFlags(mode, &flags)) return nullptr;
  const int fd = open(path.c_str(), flags | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0666);
  if (fd < 0) return nullptr;
  struct stat st {};
  if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    close(fd);
    errno = EINVAL;
    return nullptr;
  }
  fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK);
  std::FILE* f = fdopen(fd, mode.c_str());
  if (f == nullptr) close(fd);
  return f;
}

bool StatPath(const std::string& path, FileStat& out) {
  struct stat st {};
  if (lstat(path.c_str(), &st) != 0) return false;
  out.size = static_cast<uint64_t>(st.st_size);
  out.accessTime = static_cast<int64_t>(st.st_atime);
  out.createTime = static_cast<int64_t>(st.st_ctime);
  out.modifyTime = static_cast<int64_t>(st.st_mtime);
  out.mode = static_cast<uint64_t>(st.st_mode);
  return true;
}

bool SetFileTimes(const std::string& path, int64_t accessTime, int64_t modifyTime) {
  struct timespec times[2]{};
  times[0].tv_sec = static_cast<time_t>(accessTime);
  times[1].tv_sec = static_cast<time_t>(modifyTime);
  return utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW) == 0;
}

int64_t CurrentTime() {
  return static_cast<int64_t>(std::time(nullptr));
}

int UnlinkPath(const std::string& path) {
  return unlink(path.c_str()) == 0 ? 0 : -1;
}

bool PathExists(const std::string& path) {
  struct stat st {};
  return lstat(path.c_str(), &st) == 0;
}

bool PrepareWorkingDirectory(const std::string& name, char separator, std::string& out) {
  const std::string base = WorkingAreaBase();
  if (base.empty()) return false;
  const std::string dir = base + separator + name;
  if (mkdir(dir.c_str(), 0700) != 0 && errno != EEXIST) return false;
  if (!IsPrivateDirectory(dir)) return false;
  out = dir;
  return true;
}

bool ListDirectory(const std::string& dir, char /*separator*/,
                   const std::function<void(const std::string&)>& entry) {
  DIR* d = opendir(dir.c_str());
  if (d == nullptr) return false;
  while (const dirent* e = readdir(d)) entry(e->d_name);
  closedir(d);
  return true;
}

void ReadLineFromFile(std::FILE* f, std::string& line) {
  flockfile(f);
  for (int c; (c = getc_unlocked(f)) != EOF && c != '\n';) line += static_cast<char>(c);
  funlockfile(f);
}

bool RenameReplacing(const std::string& from, const std::string& to) {
  return std::rename(from.c_str(), to.c_str()) == 0;
}

}  // namespace detail
}  // namespace oru
