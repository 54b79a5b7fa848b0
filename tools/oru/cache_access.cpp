#include "cache_access.h"

#include <chrono>
#include <filesystem>
#include <fstream>
#include <thread>

#include "oru_command.h"

namespace oru::tool {

namespace fs = std::filesystem;

namespace {

// Learns the directory a DirCallback was handed.
class DirProbe : public FileSystem::DirCallback {
public:
  void OnDirReady(bool success) override { ready = success; }
  bool ready = false;
};

bool HasEntries(std::string const& dir) {
  std::error_code error;
  return fs::directory_iterator(fs::u8path(dir), error) != fs::directory_iterator();
}

}  // namespace

CacheDirFileSystem::CacheDirFileSystem(std::shared_ptr<FileSystem> native, std::string dir,
                                       bool readOnly)
    : ForwardingFileSystem(std::move(native)), m_dir(std::move(dir)), m_readOnly(readOnly) {}

void CacheDirFileSystem::InitDirToUse(char const*, std::shared_ptr<DirCallback> const& cb) {
  // Checked again now: the directory is used from here on.
  const bool ok = PrivateDirProblem(m_dir).empty();
  if (!cb) return;
  if (ok) cb->dir = m_dir;
  cb->OnDirReady(ok);
}

void CacheDirFileSystem::Sync() {
  if (!m_readOnly) Inner().Sync();
}

int CacheDirFileSystem::Unlink(char const* path) {
  if (m_readOnly) {
    m_kept.emplace_back(path != nullptr ? path : "");
    return -1;
  }
  return Inner().Unlink(path);
}

std::shared_ptr<FSFilePointer> CacheDirFileSystem::Fopen(char const* path, char const* mode) {
  if (m_readOnly && mode != nullptr && std::string(mode).find_first_of("wa+") != std::string::npos)
    return nullptr;
  return Inner().Fopen(path, mode);
}

uint64_t CacheDirFileSystem::TouchFile(char const* path) {
  if (m_readOnly) {
    FileStat st;
    return Inner().Stat(path, st) ? static_cast<uint64_t>(st.modifyTime) : 0;
  }
  return Inner().TouchFile(path);
}

std::shared_ptr<FSFilePointer> CacheDirFileSystem::CreateAndOpenTempFile(char const* dir,
                                                                         char const* ignored,
                                                                         int& counter,
                                                                         std::string& outPath) {
  if (m_readOnly) return nullptr;
  return Inner().CreateAndOpenTempFile(dir, ignored, counter, outPath);
}

bool CacheDirFileSystem::ReplaceFile(char const* from, char const* to) {
  return !m_readOnly && Inner().ReplaceFile(from, to);
}

std::shared_ptr<CacheDirFileSystem> CacheFileSystem(std::string const& dir, CacheMode mode) {
  auto native = CreateNativeFileSystem();
  std::string where = dir;
  std::error_code error;
  if (where.empty()) {
    auto probe = std::make_shared<DirProbe>();
    native->InitDirToUse(DataCache::CACHE_DIR_NAME, probe);
    if (!probe->ready || probe->dir.empty()) {
      throw Failure(
          "the default cache directory cannot be used (a link, another user's, or "
          "writable by others)");
    }
    where = probe->dir;
  } else if (!fs::exists(fs::symlink_status(fs::u8path(where), error))) {
    if (mode != CacheMode::MayCreate) throw Failure(where + ": No such directory");
    if (!MakePrivateDir(where)) throw Failure(where + ": cannot be created");
  }
  if (const std::string problem = PrivateDirProblem(where); !problem.empty()) {
    throw Failure(where + ": " + problem);
  }

  // The library's info file says this is a cache. A directory holding
  // anything else is refused: the cache would delete what it does not name.
  const fs::path info = fs::u8path(where) / DataCache::INFO_FILE_NAME;
  std::ifstream in(info, std::ios::binary);
  std::string first;
  if (in && std::getline(in, first)) {
    if (!first.empty() && first.back() == '\r') first.pop_back();
    if (first != DataCache::VERSION_TEXT) {
      throw Failure(where +
                    ": not a cache directory (info.txt is not the cache's, or of another "
                    "version)");
    }
  } else if (!dir.empty() && !(mode == CacheMode::MayCreate && !HasEntries(where))) {
    throw Failure(where + ": not a cache directory (no info.txt)");
  }
  return std::make_shared<CacheDirFileSystem>(native, where, mode == CacheMode::ReadOnly);
}

std::shared_ptr<DataCache> StartCache(std::shared_ptr<FileSystem> const& fs, uint64_t limit,
                                      std::string const& dir) {
  auto cache = DataCache::Create(fs, limit);
  cache->Initialize();
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!cache->Initialized()) {
    if (std::chrono::steady_clock::now() > deadline) {
      throw Failure(dir + ": the cache did not start");
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return cache;
}

}  // namespace oru::tool
