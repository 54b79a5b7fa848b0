// ForwardingFileSystem: every operation handed on to the inner file system.
#include "oru/file_system.h"

namespace oru {

ForwardingFileSystem::ForwardingFileSystem(std::shared_ptr<FileSystem> f) : inner(std::move(f)) {}

void ForwardingFileSystem::InitDirToUse(char const* name, std::shared_ptr<DirCallback> const& cb) {
  inner->InitDirToUse(name, cb);
}
void ForwardingFileSystem::PumpCallbacks() {
  inner->PumpCallbacks();
}
void ForwardingFileSystem::Sync() {
  inner->Sync();
}
void ForwardingFileSystem::AsyncDownloadFile(char const* url, char const* localPath,
                                             std::shared_ptr<Callback> const& cb) {
  inner->AsyncDownloadFile(url, localPath, cb);
}
void ForwardingFileSystem::FilesInDir(char const* dir, std::unordered_set<std::string>& out) {
  inner->FilesInDir(dir, out);
}
int ForwardingFileSystem::Unlink(char const* path) {
  return inner->Unlink(path);
}
std::shared_ptr<DataSource> ForwardingFileSystem::GetDS(char const* path) {
  return inner->GetDS(path);
}
std::shared_ptr<FSFilePointer> ForwardingFileSystem::Fopen(char const* path, char const* mode) {
  return inner->Fopen(path, mode);
}
void ForwardingFileSystem::Fclose(std::shared_ptr<FSFilePointer> const& fp) {
  inner->Fclose(fp);
}
void ForwardingFileSystem::Fwrite(void const* data, uint64_t size,
                                  std::shared_ptr<FSFilePointer> const& fp) {
  inner->Fwrite(data, size, fp);
}
bool ForwardingFileSystem::Stat(char const* path, FileStat& out) {
  return inner->Stat(path, out);
}
uint64_t ForwardingFileSystem::TouchFile(char const* path) {
  return inner->TouchFile(path);
}
std::shared_ptr<FSFilePointer> ForwardingFileSystem::CreateAndOpenTempFile(char const* dir,
                                                                           char const* ignored,
                                                                           int& counter,
                                                                           std::string& outPath) {
  return inner->CreateAndOpenTempFile(dir, ignored, counter, outPath);
}
void ForwardingFileSystem::WriteAndCloseAsync(std::shared_ptr<DataSource> const& src,
                                              std::shared_ptr<FSFilePointer> const& fp,
                                              std::shared_ptr<Callback> const& cb) {
  inner->WriteAndCloseAsync(src, fp, cb);
}
bool ForwardingFileSystem::Write(void* data, uint64_t size,
                                 std::shared_ptr<FSFilePointer> const& fp) {
  return inner->Write(data, size, fp);
}
bool ForwardingFileSystem::Write(std::string&& text, std::shared_ptr<FSFilePointer> const& fp) {
  return inner->Write(std::move(text), fp);
}
std::string ForwardingFileSystem::ReadLine(std::shared_ptr<FSFilePointer> const& fp) {
  return inner->ReadLine(fp);
}
char ForwardingFileSystem::GetDirSeparator() {
  return inner->GetDirSeparator();
}
bool ForwardingFileSystem::ReplaceFile(char const* from, char const* to) {
  return inner->ReplaceFile(from, to);
}

}  // namespace oru
