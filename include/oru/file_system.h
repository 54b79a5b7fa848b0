// FileSystem: the interface through which the data cache (and any host code
// that wants to stay independent of where files live) opens, writes, lists,
// stats, touches and deletes files and prepares its working directory.
//
//   std::shared_ptr<oru::FileSystem> fs = oru::CreateNativeFileSystem();
//   std::string path;
//   int counter = 0;
//   auto fp = fs->CreateAndOpenTempFile("/tmp/work", "", counter, path);  // "/tmp/work/0"
//   fs->Write(std::string("hello\n"), fp);
//   fs->Fclose(fp);
//   auto src = fs->GetDS(path.c_str());                  // a FileDataSource
//
// Two implementations come with the library, both over the C runtime's
// buffered files:
//   - WinFileSystem (separator '\'): the Windows file system. Names are UTF-8
//     and are converted to UTF-16 for the wide runtime calls, so any Unicode
//     name works.
//   - PosixFileSystem (separator '/'): the same algorithms over the POSIX
//     calls, on the UTF-8 name as it stands.
// CreateNativeFileSystem() returns the one that fits the platform the
// library was built for. Both classes are compiled everywhere; the foreign
// one is only useful for tests (WinFileSystem on Linux keeps its '\').
//
// Paths cross the interface as UTF-8 `char const*`. Open files are handed
// around as std::shared_ptr<FSFilePointer>; an empty pointer means "no
// file". A handle is open from Fopen (or CreateAndOpenTempFile) until Fclose
// or WriteAndCloseAsync; dropping the last pointer to an open handle does not
// close it (the FILE* leaks), so always close what you open.
//
// Asynchronous operations (InitDirToUse, AsyncDownloadFile,
// WriteAndCloseAsync) report through a callback object. The two file systems
// here finish them, and call the callback, before they return, on the calling
// thread. Other file systems may complete them later; they must then deliver
// the callback on the thread that uses the cache, typically from
// PumpCallbacks().
//
// Failures are reported by result only: an empty handle, false, 0, -1, an
// unchanged set, an empty string. Nothing throws and nothing is printed.
//
// Links and special files: the two file systems here open, read through
// GetDS and write regular files only, and never through a symbolic link in
// the last component of a path (a reparse point on Windows): a link, a FIFO
// or a device in place of a file gives an empty handle or source, and
// opening a FIFO does not wait for a writer. Stat describes the path itself
// (a link reads as a link, see FileStat::IsRegularFile), and Unlink removes
// a link, not what it points to. The data cache relies on this to remove,
// not follow, whatever was planted in its directory.
//
// Threading: a file system may be used by several threads at once; a handle
// by one thread at a time.
#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <unordered_set>

#include "oru/data_source.h"
#include "oru/export.h"

namespace oru {

/// What Stat reports about a file. Times are seconds since 1970-01-01 UTC.
/// The creation (or, on POSIX, status change) time comes before the
/// modification time (kept: file systems compiled against this layout).
struct FileStat {
  uint64_t size = 0;
  int64_t accessTime = 0;
  int64_t createTime = 0;
  int64_t modifyTime = 0;
  uint64_t mode = 0;  ///< the runtime's file-mode word (type and permission bits)

  /// Whether `mode` says a regular file: not a directory, a link, a FIFO or
  /// a device. A mode of 0 (a file system that does not tell) counts as one.
  bool IsRegularFile() const {
    const uint64_t type = mode & 0170000;
    return type == 0 || type == 0100000;
  }
};

/// An open file of some FileSystem. Only the file system that made it knows
/// what is inside; callers hold it and pass it back.
class ORU_API FSFilePointer {
public:
  virtual ~FSFilePointer();

protected:
  FSFilePointer() = default;
  FSFilePointer(const FSFilePointer&) = default;
  FSFilePointer& operator=(const FSFilePointer&) = default;
};

/// The abstract file system. The order of the virtual operations is fixed:
/// existing file systems are compiled against it. New operations go at the
/// end, with a default that keeps older file systems working.
///
/// Every operation that takes a handle keeps its own reference for the
/// duration of the call and treats an empty handle as "no file".
class ORU_API FileSystem {
public:
  /// Completion of an asynchronous operation.
  class ORU_API Callback {
  public:
    virtual ~Callback();
    /// Called exactly once, with the outcome of the operation.
    virtual void OnComplete(bool success) = 0;
  };

  /// Completion of InitDirToUse. `dir` is filled in (UTF-8, no trailing
  /// separator) before OnDirReady(true) is called.
  class ORU_API DirCallback {
  public:
    virtual ~DirCallback();
    virtual void OnDirReady(bool success) = 0;
    std::string dir;
  };

  virtual ~FileSystem();

  /// Prepares the working directory `name` in this file system's working
  /// area (a private per-user place for the two file systems here, see
  /// PosixFileSystem and WinFileSystem), creating its last level when it is
  /// missing, and reports through `cb`. With an empty `cb` the directory is
  /// still prepared.
  virtual void InitDirToUse(char const* name, std::shared_ptr<DirCallback> const& cb) = 0;
  /// Gives an asynchronous file system the chance to deliver completed
  /// callbacks on the caller's thread. The data cache calls it each time it
  /// checks whether it is ready. Does nothing here.
  virtual void PumpCallbacks();
  /// Called once at the end of DataCache::FinaliseCache, after the info file
  /// was written: a file system that mirrors its files elsewhere may flush
  /// them now. Does nothing here.
  virtual void Sync();
  /// Makes `url` available at `localPath` and reports through `cb`. The two
  /// file systems here transfer nothing: the file is already local, so they
  /// report success at once without creating `localPath`.
  virtual void AsyncDownloadFile(char const* url, char const* localPath,
                                 std::shared_ptr<Callback> const& cb) = 0;
  /// Adds `dir` + separator + name to `out` for every entry of `dir` but "."
  /// and "..", subdirectories included (not descended into). `out` is never
  /// cleared; a missing directory adds nothing.
  virtual void FilesInDir(char const* dir, std::unordered_set<std::string>& out) = 0;
  /// Deletes a file: 0 on success, -1 on failure.
  virtual int Unlink(char const* path) = 0;
  /// A FileDataSource over `path` (empty when it cannot be read).
  virtual std::shared_ptr<DataSource> GetDS(char const* path) = 0;
  /// Opens `path` with a C runtime `mode` ("rb", "w", ...); empty on failure
  /// or for a null path.
  virtual std::shared_ptr<FSFilePointer> Fopen(char const* path, char const* mode) = 0;
  /// Closes an open handle. The handle must not be used afterwards.
  virtual void Fclose(std::shared_ptr<FSFilePointer> const& fp) = 0;
  /// Writes `size` bytes; errors and short writes are not reported.
  virtual void Fwrite(void const* data, uint64_t size,
                      std::shared_ptr<FSFilePointer> const& fp) = 0;
  /// Fills `out` and returns true; false (and `out` unchanged) on failure.
  virtual bool Stat(char const* path, FileStat& out) = 0;
  /// Sets the file's modification time to now, keeping its access time.
  /// Returns the time set (seconds since 1970), 0 when the file is missing.
  virtual uint64_t TouchFile(char const* path) = 0;
  /// Opens the first free name `dir` + separator + decimal(counter) for
  /// binary writing, testing counter, counter + 1, ... and leaving `counter`
  /// one past the number used; `outPath` receives the name. The second
  /// argument is ignored. Empty when the open fails (outPath and counter are
  /// updated all the same).
  virtual std::shared_ptr<FSFilePointer> CreateAndOpenTempFile(char const* dir, char const* ignored,
                                                               int& counter,
                                                               std::string& outPath) = 0;
  /// Copies `src` from its start into the open file `fp`, closes it, leaves
  /// `src` at offset 0 and reports through `cb`. An empty `fp` reports false
  /// and leaves `src` untouched. Write errors are not reported.
  virtual void WriteAndCloseAsync(std::shared_ptr<DataSource> const& src,
                                  std::shared_ptr<FSFilePointer> const& fp,
                                  std::shared_ptr<Callback> const& cb) = 0;
  /// Writes `size` bytes; true when `fp` is a file, whatever was written.
  virtual bool Write(void* data, uint64_t size, std::shared_ptr<FSFilePointer> const& fp) = 0;
  /// Takes `text` over and writes it; true when `fp` is a file. With an
  /// empty `fp` returns false and leaves `text` alone.
  virtual bool Write(std::string&& text, std::shared_ptr<FSFilePointer> const& fp) = 0;
  /// Reads up to and including the next '\n' and returns the line without
  /// it (a '\r' before it is kept). End of file gives an empty string, as an
  /// empty line does.
  virtual std::string ReadLine(std::shared_ptr<FSFilePointer> const& fp) = 0;
  /// The character that separates directories in this file system's paths.
  virtual char GetDirSeparator() = 0;
  /// Replaces the file `to` by the file `from` in one step, so that a reader
  /// sees either the old or the new `to`, never a mix. Returns false when it
  /// cannot (the default, for file systems written before it existed); the
  /// data cache then writes its info file in place.
  virtual bool ReplaceFile(char const* from, char const* to);

protected:
  FileSystem() = default;
  FileSystem(const FileSystem&) = default;
  FileSystem& operator=(const FileSystem&) = default;
};

/// The handle of the two file systems here: one C runtime FILE*. Copying
/// copies the pointer; the destructor does not close it.
class ORU_API StdioFilePointer : public FSFilePointer {
public:
  /// One allocation for the object and its reference counts.
  static std::shared_ptr<StdioFilePointer> Create(std::FILE* file);

  StdioFilePointer(const StdioFilePointer&) = default;
  StdioFilePointer& operator=(const StdioFilePointer&) = default;
  ~StdioFilePointer() override;

  std::FILE* file;

protected:
  explicit StdioFilePointer(std::FILE* f);
};

using WinFilePointer = StdioFilePointer;
using PosixFilePointer = StdioFilePointer;

/// The algorithms shared by WinFileSystem and PosixFileSystem over the C
/// runtime's files; the only difference between the two is the separator,
/// which every path built here takes from GetDirSeparator().
class ORU_API StdioFileSystem : public FileSystem {
public:
  void InitDirToUse(char const* name, std::shared_ptr<DirCallback> const& cb) override;
  void AsyncDownloadFile(char const* url, char const* localPath,
                         std::shared_ptr<Callback> const& cb) override;
  void FilesInDir(char const* dir, std::unordered_set<std::string>& out) override;
  int Unlink(char const* path) override;
  std::shared_ptr<DataSource> GetDS(char const* path) override;
  std::shared_ptr<FSFilePointer> Fopen(char const* path, char const* mode) override;
  void Fclose(std::shared_ptr<FSFilePointer> const& fp) override;
  void Fwrite(void const* data, uint64_t size, std::shared_ptr<FSFilePointer> const& fp) override;
  bool Stat(char const* path, FileStat& out) override;
  uint64_t TouchFile(char const* path) override;
  std::shared_ptr<FSFilePointer> CreateAndOpenTempFile(char const* dir, char const* ignored,
                                                       int& counter, std::string& outPath) override;
  void WriteAndCloseAsync(std::shared_ptr<DataSource> const& src,
                          std::shared_ptr<FSFilePointer> const& fp,
                          std::shared_ptr<Callback> const& cb) override;
  bool Write(void* data, uint64_t size, std::shared_ptr<FSFilePointer> const& fp) override;
  bool Write(std::string&& text, std::shared_ptr<FSFilePointer> const& fp) override;
  std::string ReadLine(std::shared_ptr<FSFilePointer> const& fp) override;
  bool ReplaceFile(char const* from, char const* to) override;

protected:
  StdioFileSystem() = default;
  StdioFileSystem(const StdioFileSystem&) = default;
  StdioFileSystem& operator=(const StdioFileSystem&) = default;
};

/// The Windows file system: separator '\', working area the user's
/// temporary directory (private to the user on Windows). The temporary
/// directory is asked for in UTF-16 and converted, so a user name outside
/// the ANSI code page works. The directory InitDirToUse hands out is refused
/// when it is a reparse point (a symbolic link or a junction).
class ORU_API WinFileSystem : public StdioFileSystem {
public:
  static std::shared_ptr<WinFileSystem> Create();
  WinFileSystem(const WinFileSystem&) = default;
  WinFileSystem& operator=(const WinFileSystem&) = default;
  char GetDirSeparator() override;

protected:
  WinFileSystem() = default;
};

/// The POSIX file system: separator '/'. Its working area is private to the
/// user, never a fixed name in a directory every user can write to:
/// $XDG_CACHE_HOME, else $HOME/.cache (the XDG base-directory convention;
/// a variable that is unset or not an absolute path is skipped, and a missing
/// directory is made, private), and only when neither can be had, a
/// directory "oru-<user id>" in $TMPDIR (or /tmp). The directory InitDirToUse
/// hands out is made with mode 0700 and refused (OnDirReady(false): the data
/// cache then touches no file) when it is a symbolic link, not a directory,
/// not owned by the calling user, or writable by group or others; the
/// fallback base must pass the same test.
class ORU_API PosixFileSystem : public StdioFileSystem {
public:
  static std::shared_ptr<PosixFileSystem> Create();
  PosixFileSystem(const PosixFileSystem&) = default;
  PosixFileSystem& operator=(const PosixFileSystem&) = default;
  char GetDirSeparator() override;

protected:
  PosixFileSystem() = default;
};

/// WinFileSystem in the Windows build, PosixFileSystem elsewhere.
ORU_API std::shared_ptr<FileSystem> CreateNativeFileSystem();

/// A file system that hands every operation, unchanged, to another one (the
/// "inner" file system, held by shared_ptr for the object's life). Derive
/// from it to change a few operations and keep the rest:
///
///   class NoDeletes : public oru::ForwardingFileSystem {
///   public:
///     using ForwardingFileSystem::ForwardingFileSystem;
///     int Unlink(char const*) override { return -1; }
///   };
///
/// Callbacks of asynchronous operations are the inner file system's to
/// deliver. Threading is the inner file system's.
class ORU_API ForwardingFileSystem : public FileSystem {
public:
  /// Forwards to `inner`, which must not be null.
  explicit ForwardingFileSystem(std::shared_ptr<FileSystem> inner);

  /// The file system every operation goes to.
  FileSystem& Inner() const { return *inner; }

  void InitDirToUse(char const* name, std::shared_ptr<DirCallback> const& cb) override;
  void PumpCallbacks() override;
  void Sync() override;
  void AsyncDownloadFile(char const* url, char const* localPath,
                         std::shared_ptr<Callback> const& cb) override;
  void FilesInDir(char const* dir, std::unordered_set<std::string>& out) override;
  int Unlink(char const* path) override;
  std::shared_ptr<DataSource> GetDS(char const* path) override;
  std::shared_ptr<FSFilePointer> Fopen(char const* path, char const* mode) override;
  void Fclose(std::shared_ptr<FSFilePointer> const& fp) override;
  void Fwrite(void const* data, uint64_t size, std::shared_ptr<FSFilePointer> const& fp) override;
  bool Stat(char const* path, FileStat& out) override;
  uint64_t TouchFile(char const* path) override;
  std::shared_ptr<FSFilePointer> CreateAndOpenTempFile(char const* dir, char const* ignored,
                                                       int& counter, std::string& outPath) override;
  void WriteAndCloseAsync(std::shared_ptr<DataSource> const& src,
                          std::shared_ptr<FSFilePointer> const& fp,
                          std::shared_ptr<Callback> const& cb) override;
  bool Write(void* data, uint64_t size, std::shared_ptr<FSFilePointer> const& fp) override;
  bool Write(std::string&& text, std::shared_ptr<FSFilePointer> const& fp) override;
  std::string ReadLine(std::shared_ptr<FSFilePointer> const& fp) override;
  char GetDirSeparator() override;
  bool ReplaceFile(char const* from, char const* to) override;

private:
  std::shared_ptr<FileSystem> inner;
};

}  // namespace oru
