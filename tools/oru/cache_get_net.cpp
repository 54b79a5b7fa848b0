// `oru cache get`: DataCache over HttpFileSystem, through FetchIntoCache.
#include <oru/http_file_system.h>

#include <chrono>
#include <cinttypes>
#include <cstdio>

#include "cache_access.h"
#include "cache_get.h"
#include "oru_command.h"
#include "progress.h"

namespace oru::tool {

namespace {

char const* Where(FetchedFrom from) {
  switch (from) {
    case FetchedFrom::Cache:
      return "cache hit";
    case FetchedFrom::Revalidated:
      return "cache hit, revalidated (304)";
    case FetchedFrom::Network:
      return "downloaded";
    case FetchedFrom::Failed:
      break;
  }
  return "failed";
}

std::string ReadAllOf(DataSource& source) {
  std::string bytes;
  std::vector<std::byte> buffer(1 << 16);
  uint64_t n;
  while ((n = source.GetBytes(buffer.data(), buffer.size())) > 0) {
    bytes.append(reinterpret_cast<char const*>(buffer.data()), static_cast<std::size_t>(n));
  }
  return bytes;
}

}  // namespace

int CacheGet(CacheGetArgs const& args, bool quiet) {
  if (args.url.rfind("http://", 0) != 0 && args.url.rfind("https://", 0) != 0) {
    throw Failure(Printable(args.url) + ": not an http:// or https:// URL");
  }
  auto local = CacheFileSystem(args.dir, CacheMode::MayCreate);
  Progress progress("get " + args.url, 0, quiet);
  HttpOptions options;
  options.timeout = std::chrono::seconds(args.timeoutSeconds);
  options.progress = [&progress](std::string const&, uint64_t received, uint64_t total) {
    progress.Update(received, total);
  };
  auto http = HttpFileSystem::Create(options, local);
  auto cache = StartCache(http, args.limit, local->Dir());

  bool finished = false;
  CachedFetch result;
  FetchIntoCache(cache, http, args.url, args.revalidate, [&](CachedFetch const& fetched) {
    result = fetched;
    finished = true;
  });
  // The transfer's own time limit ends it; this only guards against a hang.
  const auto deadline = std::chrono::steady_clock::now() +
                        std::chrono::seconds(args.timeoutSeconds) + std::chrono::seconds(30);
  while (!finished && std::chrono::steady_clock::now() < deadline) {
    http->WaitIdle(std::chrono::milliseconds(50));
  }
  if (!finished) throw Failure(args.url + ": no answer");
  if (result.from == FetchedFrom::Failed || !result.source) {
    cache->FinaliseCache();
    throw Failure(args.url + ": " + (result.reason.empty() ? "failed" : result.reason));
  }
  const uint64_t size = result.source->GetFileSize();
  std::string path;
  if (cache->Contains(args.url)) path = cache->LookupName(args.url)->second->path;
  if (!args.output.empty()) {
    result.source->Seek(0, DS_SEEK_SET);
    WriteFileAtomically(args.output, ReadAllOf(*result.source));
  }
  result.source.reset();
  cache->FinaliseCache();
  std::printf("%s: %s, %" PRIu64 " bytes, %s\n", Where(result.from), args.url.c_str(), size,
              path.c_str());
  return 0;
}

}  // namespace oru::tool
