// The demo's download: tools/http_server.py serves the scene archive on
// 127.0.0.1 at a free port, and FetchIntoCache fetches it through a DataCache
// over HttpFileSystem. The URL names a fixed host that HttpOptions::connectTo
// sends to the server's port, so that the cache finds the scene again on the
// next run although the port changes.
#include <oru/http_file_system.h>
#include <oru/oru.h>
#include <stdlib.h>

#include <cstdio>
#include <filesystem>
#include <iostream>

#include "demo_fetch.h"
#include "http_server_process.h"

using namespace std::chrono_literals;

namespace {

const char* FromText(oru::FetchedFrom from) {
  switch (from) {
    case oru::FetchedFrom::Network:
      return "not cached yet: downloaded it and added it to the cache";
    case oru::FetchedFrom::Revalidated:
      return "cache hit, revalidated: the server answered 304 Not Modified to the cached ETag";
    case oru::FetchedFrom::Cache:
      return "cache hit (the server could not confirm it)";
    case oru::FetchedFrom::Failed:
      break;
  }
  return "failed";
}

// The served directory: private, removed with everything in it.
class ServedDir {
public:
  ServedDir() {
    std::string name = (std::filesystem::temp_directory_path() / "oru_demo_XXXXXX").string();
    if (mkdtemp(name.data()) != nullptr) path = name;
  }
  ~ServedDir() {
    std::error_code ignored;
    if (!path.empty()) std::filesystem::remove_all(path, ignored);
  }
  ServedDir(const ServedDir&) = delete;
  ServedDir& operator=(const ServedDir&) = delete;
  std::string path;
};

}  // namespace

std::shared_ptr<oru::DataSource> FetchScene(bool fresh, std::string const& archive,
                                            std::string& sceneUrl) {
  const std::string host = "scenes.oru-demo.localhost";
  sceneUrl = "http://" + host + "/scene.zip";
  ServedDir served;
  std::FILE* f =
      served.path.empty() ? nullptr : std::fopen((served.path + "/scene.zip").c_str(), "wb");
  const bool written =
      f != nullptr && std::fwrite(archive.data(), 1, archive.size(), f) == archive.size();
  if (f == nullptr || std::fclose(f) != 0 || !written) {
    std::cerr << "cannot write the archive to serve\n";
    return nullptr;
  }
  oru::tools::HttpServerProcess server(ORU_DEMO_SERVER_SCRIPT, served.path);
  if (server.Port() == 0) {
    std::cerr << "cannot start the local HTTP server (python3 " ORU_DEMO_SERVER_SCRIPT ")\n";
    return nullptr;
  }
  oru::HttpOptions options;
  options.timeout = 10s;
  options.connectTo = {host + ":80:127.0.0.1:" + std::to_string(server.Port())};
  auto http = oru::HttpFileSystem::Create(options);
  auto cache = oru::DataCache::Create(http, 64 << 20);
  cache->Initialize();
  // The start-up chain completes as the file system delivers its callbacks.
  while (!cache->Initialized()) {
    if (http->WaitIdle(50ms) && !cache->Initialized()) {
      std::cerr << "the cache directory cannot be prepared\n";
      return nullptr;
    }
  }
  if (fresh) {
    // Only the demo's own entry: the directory is shared with every other
    // program that uses the library's cache.
    cache->RemoveFile(sceneUrl);
    cache->FinaliseCache();
  }
  std::cout << "cache " << cache->GetCacheDir() << ": " << cache->GetTotalSize() << " of "
            << cache->GetSizeLimit() << " bytes used\n";
  std::cout << "serving the scene at " << server.Base() << "/scene.zip (reached as " << sceneUrl
            << ")\n";
  oru::CachedFetch got;
  got.reason = "no answer in time";
  oru::FetchIntoCache(cache, http, sceneUrl, /*revalidate=*/true,
                      [&got](oru::CachedFetch const& r) { got = r; });
  http->WaitIdle(30s);
  cache->FinaliseCache();  // the info file: the cache outlives this process
  if (got.from == oru::FetchedFrom::Failed) {
    std::cerr << "cannot fetch " << sceneUrl << ": " << got.reason << "\n";
    return nullptr;
  }
  std::cout << sceneUrl << ": " << FromText(got.from) << " (" << cache->GetExtraData(sceneUrl)
            << ")\n";
  if (got.from == oru::FetchedFrom::Network) {
    std::cout << "(run the demo again to find it cached)\n";
  }
  return got.source;
}
