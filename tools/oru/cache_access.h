// Internal to the oru command: DataCache over a chosen cache directory.
//
//   auto fs = CacheFileSystem(dirOption, CacheMode::ReadOnly);  // throws Failure
//   auto cache = StartCache(fs, limit);                        // ready
//
// Without a directory the cache is the library's default one (the native
// file system's working area + "QD_FileCache"). A named directory must be a
// cache already (its info.txt written by the library), except for a command
// that may make a new cache there (the directory missing or empty). Either
// way the directory must be a real directory, owned by the user and not
// writable by group or others, as the native file system demands of its own.
//
// CacheDirFileSystem hands that directory to the cache and forwards the rest
// to the native file system. In read-only mode it deletes and writes
// nothing: the cache's start-up would delete files its info file does not
// name, and a command that only looks must not change what it looks at.
// One thread.
#pragma once

#include <oru/data_cache.h>
#include <oru/file_system.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace oru::tool {

enum class CacheMode { ReadOnly, Writable, MayCreate };

class CacheDirFileSystem : public ForwardingFileSystem {
public:
  CacheDirFileSystem(std::shared_ptr<FileSystem> native, std::string dir, bool readOnly);

  std::string const& Dir() const { return m_dir; }
  /// Paths the cache asked to delete in read-only mode (and that stayed).
  std::vector<std::string> const& KeptFiles() const { return m_kept; }

  void InitDirToUse(char const* name, std::shared_ptr<DirCallback> const& cb) override;
  void Sync() override;
  int Unlink(char const* path) override;
  std::shared_ptr<FSFilePointer> Fopen(char const* path, char const* mode) override;
  uint64_t TouchFile(char const* path) override;
  std::shared_ptr<FSFilePointer> CreateAndOpenTempFile(char const* dir, char const* ignored,
                                                       int& counter, std::string& outPath) override;
  bool ReplaceFile(char const* from, char const* to) override;

private:
  std::string m_dir;
  bool m_readOnly;
  std::vector<std::string> m_kept;
};

/// The file system for the cache in `dir` (empty: the default cache),
/// checked as the header comment says; Failure with the reason otherwise.
std::shared_ptr<CacheDirFileSystem> CacheFileSystem(std::string const& dir, CacheMode mode);

/// A DataCache over `fs` (the cache directory's file system, or one over
/// it), initialised; Failure when it does not become ready.
std::shared_ptr<DataCache> StartCache(std::shared_ptr<FileSystem> const& fs, uint64_t limit,
                                      std::string const& dir);

/// The size limit the commands give the cache unless --limit says otherwise.
constexpr uint64_t DEFAULT_CACHE_LIMIT = uint64_t(1) << 30;

}  // namespace oru::tool
