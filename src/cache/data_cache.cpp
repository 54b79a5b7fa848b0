// DataCache: start-up and the info file, then the item operations.
#include "oru/data_cache.h"

#include <algorithm>
#include <cstdlib>
#include <utility>

#include "cache/info_file.h"
#include "oru/make_shared_enabler.h"

namespace oru {

namespace {

// The info file is first written here, then moved over the real one.
constexpr const char* NEW_INFO_SUFFIX = ".new";

bool HasLineBreak(std::string const& text) {
  return text.find_first_of("\r\n") != std::string::npos;
}

bool AnyAlive(std::vector<std::weak_ptr<DataSource>> const& readers) {
  return std::any_of(readers.begin(), readers.end(),
                     [](std::weak_ptr<DataSource> const& r) { return !r.expired(); });
}

// The number a cached file is named by, or -1 when the name is not a
// decimal number that fits the counter.
int64_t FileNumber(std::string const& path, char separator) {
  const size_t slash = path.rfind(separator);
  const std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
  if (name.empty() || name.size() > 9) return -1;
  int64_t n = 0;
  for (char c : name) {
    if (c < '0' || c > '9') return -1;
    n = n * 10 + (c - '0');
  }
  return n;
}

void Report(std::function<void(bool)> const& done, bool ok) {
  if (done) done(ok);
}

}  // namespace

// ---- the callbacks handed to the file system ----------------------------------
// Each holds only a weak pointer to the cache: one that arrives after the
// cache is gone does nothing.

class ORU_LOCAL DataCache::DirReady : public FileSystem::DirCallback {
public:
  explicit DirReady(std::weak_ptr<DataCache> c) : cache(std::move(c)) {}
  void OnDirReady(bool success) override {
    auto self = cache.lock();
    // Without a directory there is nowhere the cache may list, write or
    // delete files: it stays uninitialized.
    if (!self || !success || dir.empty()) return;
    self->DownloadInfoFile(dir);
  }

private:
  std::weak_ptr<DataCache> cache;
};

class ORU_LOCAL DataCache::InfoFetched : public FileSystem::Callback {
public:
  explicit InfoFetched(std::weak_ptr<DataCache> c) : cache(std::move(c)) {}
  void OnComplete(bool /*success*/) override {
    auto self = cache.lock();
    if (!self) return;
    // A failed fetch reads as a missing info file: an empty cache.
    self->infoFileFetched = true;
    InfoMap map;
    map.max_load_factor(1.0f);
    map.rehash(8);
    self->ReadInfoFile(map);
    self->SetupFileCache(map);
  }

private:
  std::weak_ptr<DataCache> cache;
};

class ORU_LOCAL DataCache::FileWritten : public FileSystem::Callback {
public:
  FileWritten(std::weak_ptr<DataCache> c, std::string p, uint64_t s, std::string n, std::string e,
              std::function<void(bool)> d)
      : cache(std::move(c)),
        path(std::move(p)),
        size(s),
        name(std::move(n)),
        extraData(std::move(e)),
        done(std::move(d)) {}

  void OnComplete(bool success) override {
    auto self = cache.lock();
    if (!self) return;
    FileSystem& fs = *self->fileSystem;
    // The file system does not report short writes (a full disk, a source
    // that delivered less than its size): a file of the wrong size is
    // never recorded, so it is never served.
    FileStat st;
    if (!success || !fs.Stat(path.c_str(), st) || st.size != size) {
      fs.Unlink(path.c_str());
      Report(done, false);
      return;
    }
    self->WrittenFile(path, size, name, extraData);
    Report(done, true);
  }

private:
  std::weak_ptr<DataCache> cache;
  std::string path;
  uint64_t size;
  std::string name;
  std::string extraData;
  std::function<void(bool)> done;
};

class ORU_LOCAL DataCache::FileFetched : public FileSystem::Callback {
public:
  using Done = std::function<void(std::shared_ptr<DataSource> const&, std::string const&)>;
  FileFetched(std::weak_ptr<DataCache> c, std::shared_ptr<FileInfo> r, std::string n, Done d)
      : cache(std::move(c)), record(std::move(r)), name(std::move(n)), done(std::move(d)) {}

  void OnComplete(bool success) override {
    auto self = cache.lock();
    if (!self) return;
    --self->outstandingRequests;
    std::shared_ptr<DataSource> source;
    if (success) source = self->GotFile(record, name);
    done(source, name);
  }

private:
  std::weak_ptr<DataCache> cache;
  std::shared_ptr<FileInfo> record;
  std::string name;
  Done done;
};

// ---- construction and start-up ------------------------------------------------

std::shared_ptr<DataCache> DataCache::Create(std::shared_ptr<FileSystem> const& fs,
                                             uint64_t sizeLimit) {
  return std::make_shared<make_shared_enabler<DataCache>>(fs, sizeLimit);
}

DataCache::DataCache(std::shared_ptr<FileSystem> const& fs, uint64_t limit)
    : sizeLimit(limit), fileSystem(fs) {}

DataCache::~DataCache() = default;

void DataCache::Initialize() {
  auto self = shared_from_this();  // std::bad_weak_ptr for a cache nobody owns
  if (initializeStarted || !fileSystem) return;
  initializeStarted = true;
  fileSystem->InitDirToUse(CACHE_DIR_NAME, std::make_shared<DirReady>(self));
}

void DataCache::DownloadInfoFile(std::string const& dir) {
  cacheDir = dir;
  infoFilePath = cacheDir + fileSystem->GetDirSeparator() + INFO_FILE_NAME;
  fileSystem->AsyncDownloadFile("cacheinfo", infoFilePath.c_str(),
                                std::make_shared<InfoFetched>(weak_from_this()));
}

bool DataCache::Initialized() {
  if (initialized) return true;
  if (fileSystem) fileSystem->PumpCallbacks();
  if (!cacheDir.empty() && infoFileFetched && infoFileRead) initialized = true;
  return initialized;
}

void DataCache::ReadInfoFile(InfoMap& out) {
  infoFileRead = true;
  if (cacheDir.empty()) return;
  detail::ReadInfoFile(*fileSystem, infoFilePath, cacheDir, out, alternativeNames);
}

void DataCache::SetupFileCache(InfoMap const& map) {
  if (cacheDir.empty()) return;
  FileSystem& fs = *fileSystem;
  const char separator = fs.GetDirSeparator();

  std::unordered_set<std::string> listed;
  fs.FilesInDir(cacheDir.c_str(), listed);
  for (auto const& path : listed) {
    if (path != infoFilePath && map.find(path) == map.end()) fs.Unlink(path.c_str());
  }

  files.reserve(files.size() + map.size());
  FileStat infoStat;
  const int64_t infoTime = fs.Stat(infoFilePath.c_str(), infoStat) ? infoStat.modifyTime : 0;
  bool stale = false;
  for (auto const& [path, content] : map) {
    // New files get numbers past every one the info file named, so that no
    // file it still names is ever rewritten before it is rewritten itself.
    const int64_t number = FileNumber(path, separator);
    if (number >= tempFileCounter) tempFileCounter = static_cast<int32_t>(number + 1);

    // Only files found in the directory, and never the info file itself.
    FileStat st;
    if (path == infoFilePath || listed.find(path) == listed.end() || !fs.Stat(path.c_str(), st)) {
      continue;
    }
    if (!st.IsRegularFile()) {
      fs.Unlink(path.c_str());  // a link or a FIFO in place of a file: removed, never followed
      continue;
    }
    auto& slot = files[content.name];
    if (slot) {
      // Two files under one name (a hand-edited info file): the later wins
      // and the other is no longer reachable.
      UnlinkFile(*slot);
    }
    slot = std::make_shared<FileInfo>(
        FileInfo{path, content.extraData, st.size, static_cast<uint64_t>(st.modifyTime)});
    totalSize += st.size;
    if (st.modifyTime > infoTime) stale = true;
  }
  // A file changed after the info file was written: the info file cannot be
  // trusted about any of them.
  if (stale) EmptyCache();
}

bool DataCache::WriteInfoFileTo(char const* path) const {
  auto fp = fileSystem->Fopen(path, "w");
  if (!fp) return false;
  const std::string text =
      detail::InfoFileText(files, alternativeNames, fileSystem->GetDirSeparator());
  fileSystem->Fwrite(text.data(), text.size(), fp);
  fileSystem->Fclose(fp);
  return true;
}

void DataCache::WriteInfoFile() const {
  if (cacheDir.empty()) return;
  // Written aside and moved into place, so that a process killed half way
  // leaves the previous info file whole.
  const std::string fresh = infoFilePath + NEW_INFO_SUFFIX;
  fileSystem->Unlink(fresh.c_str());  // whatever is there (a planted link) goes first
  if (WriteInfoFileTo(fresh.c_str())) {
    if (fileSystem->ReplaceFile(fresh.c_str(), infoFilePath.c_str())) return;
    fileSystem->Unlink(fresh.c_str());
  }
  WriteInfoFileTo(infoFilePath.c_str());
}

void DataCache::UpdateInfoFile() {
  if (Initialized()) WriteInfoFile();
}

void DataCache::FinaliseCache() {
  if (!Initialized()) return;
  WriteInfoFile();
  CleanupBufferCache();
  fileSystem->Sync();
}

bool DataCache::GetInfoFileContent(std::vector<InfoContent>& out) {
  if (!Initialized()) return false;
  out.resize(files.size());
  size_t i = 0;
  for (auto const& [name, record] : files) out[i++] = InfoContent{name, record->extraData};
  return true;
}

void DataCache::AddAlternativeName(std::string const& alternative, std::string const& name) {
  if (alternative.empty() || name.empty() || HasLineBreak(alternative) || HasLineBreak(name) ||
      alternative.find(detail::ALTERNATIVE_MARK) != std::string::npos) {
    return;
  }
  alternativeNames[alternative] = name;
}

// ---- items --------------------------------------------------------------------

void DataCache::AddFile(std::string const& name, std::shared_ptr<DataSource> const& data,
                        std::function<void(bool)> done, std::string const& extraData) {
  if (!Initialized()) {
    done(false);  // unchecked: hosts learn of a missing `done` by this throw
    return;
  }
  // Names and extra data become lines of the info file; a line break in
  // them would shift every later line onto another file.
  if (!data || name.empty() || HasLineBreak(name) || HasLineBreak(extraData)) {
    Report(done, false);
    return;
  }
  const uint64_t size = data->GetFileSize();
  if (size == 0 || !MakeSpace(size)) {
    Report(done, false);
    return;
  }
  if (auto it = LookupName(name); it != files.end()) RemoveFile(it);

  std::string path;
  auto fp =
      fileSystem->CreateAndOpenTempFile(cacheDir.c_str(), name.c_str(), tempFileCounter, path);
  if (!fp) {
    Report(done, false);
    return;
  }
  fileSystem->WriteAndCloseAsync(data, fp,
                                 std::make_shared<FileWritten>(weak_from_this(), path, size, name,
                                                               extraData, std::move(done)));
}

void DataCache::WrittenFile(std::string const& path, uint64_t size, std::string const& name,
                            std::string const& extraData) {
  FileStat st;
  const uint64_t time =
      fileSystem->Stat(path.c_str(), st) ? static_cast<uint64_t>(st.modifyTime) : 0;
  // Two writes under one name may overlap on an asynchronous file system;
  // the record of the earlier one must not be dropped with its file.
  if (auto it = files.find(name); it != files.end()) RemoveFile(it);
  files[name] = std::make_shared<FileInfo>(FileInfo{path, extraData, size, time});
  totalSize += size;
}

void DataCache::GetFile(
    std::string const& name,
    std::function<void(std::shared_ptr<DataSource> const&, std::string const&)> done) {
  if (!done) return;
  const auto it = LookupName(name);
  if (it == files.end()) {
    done(nullptr, name);
    return;
  }
  ++outstandingRequests;
  const std::shared_ptr<FileInfo> record = it->second;
  fileSystem->AsyncDownloadFile(
      name.c_str(), record->path.c_str(),
      std::make_shared<FileFetched>(weak_from_this(), record, name, std::move(done)));
}

std::shared_ptr<DataSource> DataCache::GotFile(std::shared_ptr<FileInfo> const& record,
                                               std::string const& name) {
  auto source = fileSystem->GetDS(record->path.c_str());
  if (!source) return source;
  FileStat st;
  if (fileSystem->Stat(record->path.c_str(), st))
    record->time = static_cast<uint64_t>(st.modifyTime);
  source->SetIsTempFile(true);
  inUse[name].push_back(source);
  return source;
}

std::shared_ptr<DataSource> DataCache::AddBuffer(void* data, uint64_t size) {
  if (auto source = StoreBuffer(data, size)) return source;
  return InMemoryDataSource::Create(data, size, true);
}

std::shared_ptr<DataSource> DataCache::AddBuffer(std::string&& data) {
  if (auto source = StoreBuffer(data.data(), data.size())) return source;
  return InMemoryDataSource::Create(std::move(data), true);
}

std::shared_ptr<DataSource> DataCache::StoreBuffer(void* data, uint64_t size) {
  if (!Initialized() || !MakeSpace(size)) return nullptr;
  FileSystem& fs = *fileSystem;
  std::string path;
  auto fp = fs.CreateAndOpenTempFile(cacheDir.c_str(), "", tempFileCounter, path);
  if (!fp) return nullptr;
  const bool written = fs.Write(data, size, fp);
  fs.Fclose(fp);
  // As in AddFile: a file that did not get every byte is not served.
  FileStat st;
  std::shared_ptr<DataSource> source;
  if (written && fs.Stat(path.c_str(), st) && st.size == size) source = fs.GetDS(path.c_str());
  if (!source) {
    fs.Unlink(path.c_str());
    return nullptr;
  }
  source->SetIsTempFile(true);
  BufferEntry& entry = bufferCache[path];
  entry.record = std::make_shared<FileInfo>(FileInfo{path, std::string(), size, 0});
  entry.readers.push_back(source);
  totalSize += size;
  return source;
}

bool DataCache::HasRoomFor(uint64_t needed) const {
  return needed <= sizeLimit && totalSize <= sizeLimit - needed;
}

bool DataCache::MakeSpace(uint64_t needed) {
  if (HasRoomFor(needed)) return true;
  CleanupBufferCache();
  if (HasRoomFor(needed)) return true;

  std::vector<std::pair<std::string, uint64_t>> candidates;
  candidates.reserve(files.size());
  for (auto const& [name, record] : files) candidates.emplace_back(name, record->time);
  std::sort(candidates.begin(), candidates.end(), [](auto const& a, auto const& b) {
    return static_cast<int64_t>(a.second - b.second) < 0;
  });
  for (auto const& [name, time] : candidates) {
    if (IsFileInUse(name)) continue;
    if (auto it = LookupName(name); it != files.end()) {
      RemoveFile(it);
      if (HasRoomFor(needed)) return true;
    }
  }
  return false;
}

bool DataCache::IsFileInUse(std::string const& name) {
  if (pinnedNames.count(name) != 0) return true;
  const auto it = inUse.find(name);
  if (it == inUse.end()) return false;
  if (AnyAlive(it->second)) return true;
  inUse.erase(it);
  return false;
}

void DataCache::PinName(std::string const& name) {
  pinnedNames.insert(name);
}

DataCache::FileMap::iterator DataCache::LookupName(std::string const& name) {
  if (!Initialized()) return files.end();
  if (auto it = files.find(name); it != files.end()) return it;
  if (auto alt = alternativeNames.find(name); alt != alternativeNames.end()) {
    return files.find(alt->second);
  }
  return files.end();
}

void DataCache::RemoveFile(FileMap::iterator it) {
  if (it == files.end()) return;
  if (IsFileInUse(it->first)) {
    MoveInUseFileToBufferCache(it->first, *it->second);
  } else {
    UnlinkFile(*it->second);
  }
  files.erase(it);
}

void DataCache::RemoveFile(std::string const& name) {
  RemoveFile(LookupName(name));
}

void DataCache::UnlinkFile(FileInfo const& record) {
  fileSystem->Unlink(record.path.c_str());
  totalSize -= std::min(totalSize, record.size);
}

void DataCache::CleanupBufferCache() {
  for (auto it = bufferCache.begin(); it != bufferCache.end();) {
    if (AnyAlive(it->second.readers)) {
      ++it;
      continue;
    }
    UnlinkFile(*it->second.record);
    it = bufferCache.erase(it);
  }
}

void DataCache::MoveInUseFileToBufferCache(std::string const& name, FileInfo const& record) {
  BufferEntry& entry = bufferCache[record.path];
  if (!entry.record) entry.record = std::make_shared<FileInfo>(record);
  // The readers move with the file: a new file under the same name starts
  // with none.
  if (auto it = inUse.find(name); it != inUse.end()) {
    entry.readers.insert(entry.readers.end(), it->second.begin(), it->second.end());
    inUse.erase(it);
  }
}

void DataCache::EmptyCache() {
  if (!Initialized()) return;
  while (!files.empty()) RemoveFile(files.begin());
  fileSystem->Unlink(infoFilePath.c_str());
  CleanupBufferCache();
}

bool DataCache::Contains(std::string const& name) {
  return LookupName(name) != files.end();
}

uint64_t DataCache::GetFileSize(std::string const& name) {
  const auto it = LookupName(name);
  return it != files.end() ? it->second->size : 0;
}

std::string DataCache::GetExtraData(std::string const& name) {
  const auto it = LookupName(name);
  return it != files.end() ? it->second->extraData : std::string();
}

std::string DataCache::LookupPrimaryName(std::string const& name) const {
  const auto it = alternativeNames.find(name);
  return it != alternativeNames.end() ? it->second : std::string();
}

void DataCache::StartLoadJob() {
  ++loadJobs;
}

void DataCache::FinishLoadJob() {
  if (--loadJobs > 0) return;
  pinnedNames.clear();
  FinaliseCache();
}

uint32_t DataCache::GetOutstandingFileRequestCount() const {
  return outstandingRequests;
}

uint64_t DataCache::GetTotalSize() const {
  return totalSize;
}

uint64_t DataCache::GetSizeLimit() const {
  return sizeLimit;
}

std::string DataCache::GetCacheDir() const {
  return cacheDir;
}

}  // namespace oru
