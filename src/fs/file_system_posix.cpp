// POSIX calls under the stdio file systems, on the UTF-8 names as they
// stand: the kernel takes bytes, so no conversion is needed.
#ifndef _FILE_OFFSET_BITS
#define _FILE_OFFSET_BITS 64
#endif

#include <dirent.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>
#include <utime.h>

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

std::FILE* OpenFile(const std::string& path, const std::string& mode) {
  return std::fopen(path.c_str(), mode.c_str());
}

bool StatPath(const std::string& path, FileStat& out) {
  struct stat st {};
  if (stat(path.c_str(), &st) != 0) return false;
  out.size = static_cast<uint64_t>(st.st_size);
  out.accessTime = static_cast<int64_t>(st.st_atime);
  out.createTime = static_cast<int64_t>(st.st_ctime);
  out.modifyTime = static_cast<int64_t>(st.st_mtime);
  out.mode = static_cast<uint64_t>(st.st_mode);
  return true;
}

bool SetFileTimes(const std::string& path, int64_t accessTime, int64_t modifyTime) {
  struct utimbuf times {};
  times.actime = static_cast<time_t>(accessTime);
  times.modtime = static_cast<time_t>(modifyTime);
  return utime(path.c_str(), &times) == 0;
}

int64_t CurrentTime() {
  return static_cast<int64_t>(std::time(nullptr));
}

int UnlinkPath(const std::string& path) {
  return unlink(path.c_str()) == 0 ? 0 : -1;
}

bool PathExists(const std::string& path) {
  return access(path.c_str(), F_OK) == 0;
}

bool MakeDirectory(const std::string& path) {
  return mkdir(path.c_str(), 0777) == 0;
}

bool TemporaryDirectory(std::string& out) {
  const char* env = std::getenv("TMPDIR");
  out = (env != nullptr && *env != '\0') ? env : "/tmp";
  if (out.back() != '/') out += '/';
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
