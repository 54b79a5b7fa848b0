#include "oru/file_data_source.h"

#include <cerrno>
#include <string>

#include "data/file_io.h"
#include "oru/compressed_data_source.h"
#include "oru/make_shared_enabler.h"

namespace oru {

namespace {

// One diagnostic line, written in one piece so lines from threads do not mix.
void Report(const std::string& line) {
  std::fwrite(line.data(), 1, line.size(), stderr);
  std::fflush(stderr);
}

}  // namespace

std::shared_ptr<FileDataSource> FileDataSource::Create(BasicStringSpan<const char> fileName) {
  if (fileName.empty()) return {};
  std::string name(fileName.begin(), fileName.end());
  if (!detail::IsFileReadable(name)) {
    const int err = errno;
    Report("Cannot create FileDataSource for \"" + name + "\" (" + detail::ErrnoText(err) + ").\n");
    return {};
  }
  return std::make_shared<make_shared_enabler<FileDataSource>>(fileName);
}

FileDataSource::FileDataSource(BasicStringSpan<const char> name)
    : fd(nullptr), fileName(name.begin(), name.end()), isTempFile(false) {}

FileDataSource::~FileDataSource() {
  if (fd != nullptr) std::fclose(fd);
}

bool FileDataSource::EnsureFd() const {
  if (fd != nullptr) return true;
  fd = detail::OpenFileForReading(fileName);
  if (fd == nullptr) {
    const int err = errno;
    // The missing space before "(" is the library's own wording, kept as is.
    Report("FileDataSource: Cannot open file\"" + fileName + "\"(" + detail::ErrnoText(err) +
           ").\n");
    return false;
  }
  return true;
}

std::shared_ptr<DataSource> FileDataSource::Clone() const {
  auto clone = Create(fileName);
  if (!clone) return clone;
  const uint64_t p = GetOffset();
  if (p != UINT64_MAX) clone->Seek(static_cast<int64_t>(p), DS_SEEK_SET);
  clone->SetIsTempFile(IsTempFile());
  return clone;
}

uint64_t FileDataSource::GetBufferSize() const {
  return UINT64_MAX;
}

uint64_t FileDataSource::GetBytes(std::byte* dst, uint64_t count) {
  if (!EnsureFd()) return 0;
  if (count == 0) return 0;
  uint64_t done = 0;
  uint64_t remaining = count;
  while (remaining != 0) {
    const size_t want = remaining > SIZE_MAX ? SIZE_MAX : static_cast<size_t>(remaining);
    const size_t n = std::fread(dst + done, 1, want, fd);
    if (n == 0) {
      if (std::ferror(fd)) {
        const int err = errno;
        // The doubled space is the library's own wording, kept as is.
        Report("FileDataSource: Failed to  read " + std::to_string(remaining) + " bytes (" +
               detail::ErrnoText(err) + ").\n");
      }
      return done;
    }
    done += n;
    remaining -= n;
  }
  return done;
}

int FileDataSource::GetByte() {
  if (!EnsureFd()) return -1;
  return std::getc(fd);
}

uint64_t FileDataSource::GetOffset() const {
  if (!EnsureFd()) return UINT64_MAX;
  return static_cast<uint64_t>(detail::TellFile(fd));
}

int FileDataSource::Seek(int64_t offset, SeekOrigin origin) {
  if (!EnsureFd()) return -1;
  if (origin != DS_SEEK_SET && origin != DS_SEEK_CUR && origin != DS_SEEK_END) return -1;
  return detail::SeekFile(fd, offset, static_cast<int>(origin));
}

bool FileDataSource::IsEndOfBuffer() const {
  if (!EnsureFd()) return true;
  return std::feof(fd) != 0;
}

namespace {

bool StatOrReport(const std::string& name, uint64_t* size, int64_t* mtime) {
  if (detail::StatFile(name, size, mtime)) return true;
  const int err = errno;
  // The doubled colon and space are the library's own wording, kept as is.
  Report("FileDataSource:: Failed to  stat \"" + name + "\" (" + detail::ErrnoText(err) + ").\n");
  return false;
}

}  // namespace

uint64_t FileDataSource::GetFileSize() const {
  if (!EnsureFd()) return UINT64_MAX;
  uint64_t size = 0;
  int64_t mtime = 0;
  return StatOrReport(fileName, &size, &mtime) ? size : 0;
}

std::string FileDataSource::GetTimeStamp() const {
  if (!EnsureFd()) return {};
  uint64_t size = 0;
  int64_t mtime = 0;
  return StatOrReport(fileName, &size, &mtime) ? std::to_string(mtime) : std::string();
}

bool FileDataSource::IsTempFile() const {
  return isTempFile;
}

void FileDataSource::SetIsTempFile(bool temp) {
  isTempFile = temp;
}

std::shared_ptr<CompressedDataSource> FileDataSource::CompressedDataSourceFromThis(uint64_t n) {
  auto self = std::static_pointer_cast<FileDataSource>(shared_from_this());
  return CompressedFileDataSource::Create(std::move(self), n);
}

void FileDataSource::RelinquishSystemResources() {
  if (fd != nullptr) {
    std::fclose(fd);
    fd = nullptr;
  }
}

bool FileDataSource::IsHoldingSystemResources() const {
  return fd != nullptr;
}

}  // namespace oru
