// Without liboru-net the demo cannot download: it adds the archive it packed
// under an https:// name, as a download would.
#include <oru/oru.h>

#include <cstdio>
#include <filesystem>
#include <iostream>

#include "demo_fetch.h"

namespace {

std::shared_ptr<oru::DataSource> FromCache(oru::DataCache& cache, const std::string& name) {
  std::shared_ptr<oru::DataSource> found;
  // The native file system answers before GetFile returns.
  cache.GetFile(name, [&found](std::shared_ptr<oru::DataSource> const& src, std::string const&) {
    found = src;
  });
  return found;
}

}  // namespace

std::shared_ptr<oru::DataSource> FetchScene(bool fresh, std::string const& archive,
                                            std::string& sceneUrl) {
  namespace fs = std::filesystem;
  sceneUrl = "https://example.com/scenes/scene.zip";
  auto cache = oru::DataCache::Create(oru::CreateNativeFileSystem(), 64 << 20);
  cache->Initialize();
  if (!cache->Initialized()) {
    std::cerr << "the cache directory cannot be prepared\n";
    return nullptr;
  }
  if (fresh) {
    cache->RemoveFile(sceneUrl);
    cache->FinaliseCache();
  }
  std::cout << "cache " << cache->GetCacheDir() << ": " << cache->GetTotalSize() << " of "
            << cache->GetSizeLimit() << " bytes used\n";
  if (auto file = FromCache(*cache, sceneUrl)) {
    std::cout << "found " << sceneUrl << " in the cache, added by an earlier run\n";
    return file;
  }
  bool added = false;
  cache->AddFile(
      sceneUrl, oru::InMemoryDataSource::Create(std::string(archive), false),
      [&added](bool ok) { added = ok; }, "built by oru_demo");
  cache->FinaliseCache();  // the info file: the cache outlives this process
  std::cout << "not cached yet (liboru-net not built, so nothing is downloaded): added " << sceneUrl
            << ": " << (added ? "ok" : "FAILED") << "\n";
  return FromCache(*cache, sceneUrl);
}
