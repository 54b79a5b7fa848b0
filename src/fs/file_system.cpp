// The file-system interface's defaults and the stdio-based file systems.
// Everything that touches the operating system goes through
// file_system_platform.h; what is here is the same on every platform.
#include "oru/file_system.h"

#include <array>
#include <climits>
#include <string>

#include "fs/file_system_platform.h"
#include "oru/file_data_source.h"
#include "oru/make_shared_enabler.h"

namespace oru {

namespace {

std::FILE* FileOf(const std::shared_ptr<FSFilePointer>& fp) {
  // Only handles made by StdioFileSystem reach it; a handle of another file
  // system would be a caller's error, and is treated as no file.
  auto* own = dynamic_cast<StdioFilePointer*>(fp.get());
  return own != nullptr ? own->file : nullptr;
}

std::string PathText(char const* path) {
  return path != nullptr ? std::string(path) : std::string();
}

}  // namespace

FSFilePointer::~FSFilePointer() = default;
FileSystem::Callback::~Callback() = default;
FileSystem::DirCallback::~DirCallback() = default;
FileSystem::~FileSystem() = default;

void FileSystem::PumpCallbacks() {}
void FileSystem::Sync() {}
bool FileSystem::ReplaceFile(char const* /*from*/, char const* /*to*/) {
  return false;
}

// ---- StdioFilePointer -------------------------------------------------------

StdioFilePointer::StdioFilePointer(std::FILE* f) : file(f) {}
StdioFilePointer::~StdioFilePointer() = default;  // closing is Fclose's job

std::shared_ptr<StdioFilePointer> StdioFilePointer::Create(std::FILE* file) {
  return std::make_shared<make_shared_enabler<StdioFilePointer>>(file);
}

// ---- StdioFileSystem --------------------------------------------------------

void StdioFileSystem::InitDirToUse(char const* name, std::shared_ptr<DirCallback> const& cb) {
  std::string path;
  const bool ready = detail::PrepareWorkingDirectory(PathText(name), GetDirSeparator(), path);
  if (cb) {
    if (ready) cb->dir = path;
    cb->OnDirReady(ready);
  }
}

void StdioFileSystem::AsyncDownloadFile(char const* /*url*/, char const* /*localPath*/,
                                        std::shared_ptr<Callback> const& cb) {
  // The files of this file system are local already: nothing to fetch.
  if (cb) cb->OnComplete(true);
}

void StdioFileSystem::FilesInDir(char const* dir, std::unordered_set<std::string>& out) {
  const std::string base = PathText(dir) + GetDirSeparator();
  detail::ListDirectory(PathText(dir), GetDirSeparator(), [&](const std::string& name) {
    if (name == "." || name == "..") return;
    out.insert(base + name);
  });
}

int StdioFileSystem::Unlink(char const* path) {
  return detail::UnlinkPath(PathText(path));
}

std::shared_ptr<DataSource> StdioFileSystem::GetDS(char const* path) {
  // A link or a special file in place of a file is never read through.
  FileStat st;
  if (path != nullptr && detail::StatPath(path, st) && !st.IsRegularFile()) return {};
  return FileDataSource::Create(path != nullptr ? BasicStringSpan<const char>(path)
                                                : BasicStringSpan<const char>());
}

std::shared_ptr<FSFilePointer> StdioFileSystem::Fopen(char const* path, char const* mode) {
  if (path == nullptr) return {};
  std::FILE* f = detail::OpenPlainFile(path, PathText(mode));
  if (f == nullptr) return {};
  return StdioFilePointer::Create(f);
}

void StdioFileSystem::Fclose(std::shared_ptr<FSFilePointer> const& fp) {
  const std::shared_ptr<FSFilePointer> keep = fp;
  if (std::FILE* f = FileOf(keep)) std::fclose(f);
}

void StdioFileSystem::Fwrite(void const* data, uint64_t size,
                             std::shared_ptr<FSFilePointer> const& fp) {
  const std::shared_ptr<FSFilePointer> keep = fp;
  if (std::FILE* f = FileOf(keep)) std::fwrite(data, 1, static_cast<size_t>(size), f);
}

bool StdioFileSystem::Stat(char const* path, FileStat& out) {
  if (path == nullptr) return false;
  return detail::StatPath(path, out);
}

uint64_t StdioFileSystem::TouchFile(char const* path) {
  FileStat st;
  if (path == nullptr || !detail::StatPath(path, st)) return 0;
  const int64_t now = detail::CurrentTime();
  // The time is reported whether or not the change took: the file exists,
  // and a caller that records it only needs a time at least this recent.
  detail::SetFileTimes(path, st.accessTime, now);
  return static_cast<uint64_t>(now);
}

std::shared_ptr<FSFilePointer> StdioFileSystem::CreateAndOpenTempFile(char const* dir,
                                                                      char const* /*ignored*/,
                                                                      int& counter,
                                                                      std::string& outPath) {
  const std::string base = PathText(dir) + GetDirSeparator();
  std::string path;
  for (;;) {
    // Past the last int there is no name left to try; give up rather than
    // overflow the caller's counter.
    if (counter == INT_MAX) return {};
    path = base + std::to_string(counter);
    ++counter;
    if (!detail::PathExists(path)) break;
  }
  outPath = path;
  return Fopen(outPath.c_str(), "wb");
}

void StdioFileSystem::WriteAndCloseAsync(std::shared_ptr<DataSource> const& src,
                                         std::shared_ptr<FSFilePointer> const& fp,
                                         std::shared_ptr<Callback> const& cb) {
  const std::shared_ptr<FSFilePointer> keep = fp;
  std::FILE* f = FileOf(keep);
  if (f == nullptr) {
    if (cb) cb->OnComplete(false);
    return;
  }
  if (!src) {  // nothing to copy: close what was opened and say it failed
    std::fclose(f);
    if (cb) cb->OnComplete(false);
    return;
  }
  src->Seek(0, DS_SEEK_SET);
  std::array<std::byte, 4096> buffer{};
  for (uint64_t n; (n = src->GetBytes(buffer.data(), buffer.size())) != 0;) {
    std::fwrite(buffer.data(), 1, static_cast<size_t>(n), f);
  }
  src->Seek(0, DS_SEEK_SET);
  std::fclose(f);
  if (cb) cb->OnComplete(true);
}

bool StdioFileSystem::Write(void* data, uint64_t size, std::shared_ptr<FSFilePointer> const& fp) {
  const std::shared_ptr<FSFilePointer> keep = fp;
  std::FILE* f = FileOf(keep);
  if (f == nullptr) return false;
  std::fwrite(data, 1, static_cast<size_t>(size), f);
  return true;
}

bool StdioFileSystem::Write(std::string&& text, std::shared_ptr<FSFilePointer> const& fp) {
  const std::shared_ptr<FSFilePointer> keep = fp;
  std::FILE* f = FileOf(keep);
  if (f == nullptr) return false;
  const std::string owned = std::move(text);
  text.clear();
  std::fwrite(owned.data(), 1, owned.size(), f);
  return true;
}

std::string StdioFileSystem::ReadLine(std::shared_ptr<FSFilePointer> const& fp) {
  const std::shared_ptr<FSFilePointer> keep = fp;
  std::string line;
  std::FILE* f = FileOf(keep);
  if (f == nullptr) return line;
  detail::ReadLineFromFile(f, line);
  return line;
}

bool StdioFileSystem::ReplaceFile(char const* from, char const* to) {
  if (from == nullptr || to == nullptr) return false;
  return detail::RenameReplacing(from, to);
}

// ---- the two concrete file systems -------------------------------------------

std::shared_ptr<WinFileSystem> WinFileSystem::Create() {
  return std::make_shared<make_shared_enabler<WinFileSystem>>();
}

char WinFileSystem::GetDirSeparator() {
  return '\\';
}

std::shared_ptr<PosixFileSystem> PosixFileSystem::Create() {
  return std::make_shared<make_shared_enabler<PosixFileSystem>>();
}

char PosixFileSystem::GetDirSeparator() {
  return '/';
}

}  // namespace oru
