// DataCache: a size-limited on-disk cache of downloaded files, keyed by
// logical name (as a rule the location a file was fetched from).
//
//   auto cache = oru::DataCache::Create(oru::CreateNativeFileSystem(), 512 << 20);
//   cache->Initialize();                     // directory "QD_FileCache", info file read
//   cache->AddFile("https://host/model.zip", source, [](bool ok) { ... }, "etag 42");
//   cache->GetFile("https://host/model.zip",
//                  [](std::shared_ptr<oru::DataSource> const& src, std::string const& name) {
//                    if (src) { ... read it ... }      // empty when not cached
//                  });
//   cache->FinaliseCache();                  // write the info file before exit
//
// Each cached item is a file in the cache directory named by a decimal
// number. The info file "info.txt" in the same directory says, across runs,
// which logical name (and which caller-supplied extra text) each number
// holds, and which alternative names lead to which logical names:
//
//   Version 1.8
//   <file number> <extra data>
//   <logical name>
//   ...
//   ---
//   <alternative name><<>><logical name>
//   ...
//
// Lines end in LF (CR LF on Windows, through the runtime's text mode). Sizes
// and times are not stored: they come from the files when the cache starts.
// At start-up, files the info file does not name are deleted, and a cached
// file modified after the info file was written empties the whole cache.
//
// When the cache is full, adding a file evicts the files written longest ago
// first, but never a file whose source a reader still holds (or whose name is
// pinned): such a file, when removed, moves to the buffer cache and stays on
// disk until its last reader lets go.
//
// What the cache adds to the plain design, so that it never serves wrong
// bytes whatever happened between runs:
//   - The info file is written under a temporary name ("info.txt.new") and
//     moved over "info.txt" in one step (FileSystem::ReplaceFile), so a
//     process killed while writing it leaves the previous info file whole.
//     A file system without ReplaceFile gets the info file written in place.
//   - File numbers are never reused while the info file on disk may still
//     name them: after start-up the counter continues past the highest
//     number the info file named.
//   - An info file is trusted only up to what was written whole: entries
//     count only when the "---" line follows them, and an alternative-name
//     line without its line end is dropped.
//   - A file whose size on disk is not the size that was written (disk full,
//     a short source) is not recorded; AddFile reports false.
//   - Names, alternative names and extra data that would break the info
//     file's lines (a line break; "<<>>" in an alternative name; a name that
//     is empty) are refused.
//   - Without a prepared directory the cache stays uninitialized and touches
//     no file.
// A cached file edited behind the cache's back is detected by its
// modification time, which the file system reports in whole seconds; an edit
// within the same second as the info file's last write goes unnoticed.
//
// Ownership: the cache is held by std::shared_ptr; the callbacks it gives
// the file system hold weak pointers to it, so a callback that arrives after
// the cache is gone does nothing. Sources handed out by GetFile and AddBuffer
// are owned by the caller; the cache keeps weak pointers to know which files
// are still being read.
//
// Threading: one thread. The file system's callbacks must arrive on that
// thread (the file systems of this library call them before they return; an
// asynchronous one delivers them from PumpCallbacks, which the cache calls
// each time it checks whether it is ready). Until the start-up chain has
// completed, the cache answers as if it were empty and AddFile reports false.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "oru/data_source.h"
#include "oru/export.h"
#include "oru/file_system.h"

namespace oru {

class ORU_API DataCache : public std::enable_shared_from_this<DataCache> {
public:
  /// One cached file.
  struct FileInfo {
    std::string path;       ///< full local path
    std::string extraData;  ///< caller's text; spaces allowed, no line break
    uint64_t size = 0;      ///< bytes
    uint64_t time = 0;      ///< modification time (seconds since 1970) when recorded
  };

  /// One entry as read from, or reported about, the info file.
  struct InfoContent {
    std::string name;  ///< logical name
    std::string extraData;
  };

  using FileMap = std::unordered_map<std::string, std::shared_ptr<FileInfo>>;
  using InfoMap = std::unordered_map<std::string, InfoContent>;

  /// A file removed from `files` while readers still held it: it stays on
  /// disk, counted in the total size, until the last reader is gone.
  struct BufferEntry {
    std::shared_ptr<FileInfo> record;
    std::vector<std::weak_ptr<DataSource>> readers;
  };

  /// The version line of the info file.
  static constexpr const char* VERSION_TEXT = "Version 1.8";
  /// The cache directory's name in the file system's working area.
  static constexpr const char* CACHE_DIR_NAME = "QD_FileCache";
  static constexpr const char* INFO_FILE_NAME = "info.txt";

  /// A cache over `fs` that holds at most `sizeLimit` bytes of files. It does
  /// nothing until Initialize() is called. A null `fs` gives a cache that
  /// never becomes ready.
  static std::shared_ptr<DataCache> Create(std::shared_ptr<FileSystem> const& fs,
                                           uint64_t sizeLimit);

  DataCache(const DataCache&) = default;
  DataCache(DataCache&&) = default;
  DataCache& operator=(const DataCache&) = default;
  DataCache& operator=(DataCache&&) = default;
  virtual ~DataCache();

  // ---- start-up and shut-down ----------------------------------------------

  /// Starts the chain that makes the cache ready: the directory is prepared,
  /// the info file fetched and read, and the directory reconciled with it.
  /// Call once, on a cache owned by a shared_ptr (else std::bad_weak_ptr);
  /// later calls do nothing.
  void Initialize();
  /// True once the chain has completed with a directory. Pumps the file
  /// system's callbacks while it is not.
  bool Initialized();
  /// Reads the info file into `out` (full path -> entry) and the alternative
  /// names into the cache. A missing file or another version leaves `out`
  /// empty.
  void ReadInfoFile(InfoMap& out);
  /// Deletes the directory's files that `map` does not name, records those
  /// it does, and empties the cache when a file is newer than the info file.
  void SetupFileCache(InfoMap const& map);
  /// Writes the info file (see the header comment); failures are silent.
  void WriteInfoFile() const;
  /// WriteInfoFile() when the cache is ready.
  void UpdateInfoFile();
  /// When ready: writes the info file, drops unread buffer-cache files and
  /// calls the file system's Sync().
  void FinaliseCache();
  /// The logical names and extra data of the cached files, in info-file
  /// order; false when the cache is not ready.
  bool GetInfoFileContent(std::vector<InfoContent>& out);
  /// Lets `alternative` lead to the logical name `name`. Ignored when the
  /// alternative is empty or holds "<<>>" or a line break, or the name is
  /// empty or holds a line break.
  void AddAlternativeName(std::string const& alternative, std::string const& name);

  // ---- items -----------------------------------------------------------------

  /// Copies `data` into the cache under `name` (replacing what was there)
  /// and reports through `done` (called with false at once when the cache is
  /// not ready, `data` is empty, or there is no room).
  void AddFile(std::string const& name, std::shared_ptr<DataSource> const& data,
               std::function<void(bool)> done, std::string const& extraData);
  /// Hands the cached file for `name` (or an alternative name) to `done` as
  /// a source, or an empty source when it is not cached. An empty `done`
  /// makes the call do nothing.
  void GetFile(std::string const& name,
               std::function<void(std::shared_ptr<DataSource> const&, std::string const&)> done);
  /// Stores an anonymous block on disk and returns a file source over it;
  /// when that cannot be done, an in-memory copy. The file is deleted once
  /// its last reader is gone (at the next CleanupBufferCache).
  std::shared_ptr<DataSource> AddBuffer(void* data, uint64_t size);
  /// As above; the in-memory fallback takes the string over.
  std::shared_ptr<DataSource> AddBuffer(std::string&& data);

  /// True when `name` is pinned or a source handed out for it is alive.
  bool IsFileInUse(std::string const& name);
  /// Keeps `name` from being evicted until the last load job finishes.
  void PinName(std::string const& name);
  /// The entry for `name` or for the logical name that the alternative
  /// `name` leads to; files.end() when not cached or not ready.
  FileMap::iterator LookupName(std::string const& name);
  /// Removes an entry: its file is deleted, or moved to the buffer cache
  /// when a reader still holds it.
  void RemoveFile(FileMap::iterator it);
  /// RemoveFile(LookupName(name)); unknown names are ignored.
  void RemoveFile(std::string const& name);
  /// Deletes the buffer-cache files that no reader holds any more.
  void CleanupBufferCache();
  /// Moves `record`'s file, with the readers listed under `name`, to the
  /// buffer cache. Readers of two removals of the same path are merged.
  void MoveInUseFileToBufferCache(std::string const& name, FileInfo const& record);
  /// Removes every entry and the info file itself.
  void EmptyCache();
  bool Contains(std::string const& name);
  /// The cached size of `name`, 0 when not cached.
  uint64_t GetFileSize(std::string const& name);
  /// The extra data of `name`, empty when not cached.
  std::string GetExtraData(std::string const& name);
  /// The logical name the alternative `name` leads to; empty when `name` is
  /// not an alternative name. Needs no ready cache.
  std::string LookupPrimaryName(std::string const& name) const;

  void StartLoadJob();
  /// Ends a load job; the last one unpins every name and finalises the cache.
  void FinishLoadJob();
  /// GetFile requests whose file system has not answered yet.
  uint32_t GetOutstandingFileRequestCount() const;

  uint64_t GetTotalSize() const;
  uint64_t GetSizeLimit() const;
  /// The cache directory; empty until it is prepared.
  std::string GetCacheDir() const;

protected:
  DataCache(std::shared_ptr<FileSystem> const& fs, uint64_t sizeLimit);

private:
  class DirReady;
  class InfoFetched;
  class FileWritten;
  class FileFetched;

  void DownloadInfoFile(std::string const& dir);
  std::shared_ptr<DataSource> GotFile(std::shared_ptr<FileInfo> const& record,
                                      std::string const& name);
  void WrittenFile(std::string const& path, uint64_t size, std::string const& name,
                   std::string const& extraData);
  bool MakeSpace(uint64_t needed);
  // The file part of AddBuffer; null when the block cannot go on disk.
  std::shared_ptr<DataSource> StoreBuffer(void* data, uint64_t size);
  void UnlinkFile(FileInfo const& record);
  bool HasRoomFor(uint64_t needed) const;
  bool WriteInfoFileTo(char const* path) const;

  FileMap files;
  std::unordered_map<std::string, BufferEntry> bufferCache;
  std::unordered_map<std::string, std::vector<std::weak_ptr<DataSource>>> inUse;
  std::string cacheDir;
  std::string infoFilePath;
  std::unordered_map<std::string, std::string> alternativeNames;
  uint64_t sizeLimit = 0;
  uint64_t totalSize = 0;
  int32_t tempFileCounter = 0;
  std::shared_ptr<FileSystem> fileSystem;
  int32_t loadJobs = 0;
  std::unordered_set<std::string> pinnedNames;
  uint32_t outstandingRequests = 0;
  bool initialized = false;
  bool infoFileFetched = false;
  bool infoFileRead = false;
  bool initializeStarted = false;
};

}  // namespace oru
