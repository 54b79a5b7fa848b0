// HttpFileSystem: a FileSystem whose AsyncDownloadFile really fetches
// http:// and https:// URLs (with libcurl), and which does everything else
// through a local file system (the native one unless another is given).
// It lives in its own library, liboru-net (CMake target oru::net), so that
// the core library needs no network code.
//
//   auto http = oru::HttpFileSystem::Create();
//   auto cache = oru::DataCache::Create(http, 256 << 20);
//   cache->Initialize();
//   while (!cache->Initialized()) http->WaitIdle(std::chrono::milliseconds(50));
//   oru::FetchIntoCache(cache, http, "https://host/scene.zip", /*revalidate=*/true,
//                       [](oru::CachedFetch const& r) { ... r.source ... });
//   while (!http->WaitIdle(std::chrono::milliseconds(50))) {}
//
// Downloads: each transfer writes to a temporary name beside `localPath` and
// renames it to `localPath` only when the whole body arrived with a 2xx
// status; a failed, refused, cut, timed-out or oversized transfer leaves no
// file at `localPath` and no temporary file. The temporary file is created
// exclusively (never through a planted link) and readable by its owner only,
// and so is the file it becomes. Only the http and https protocols are
// spoken, redirects included; redirects are followed up to
// HttpOptions::maxRedirects.
//
// Ownership: held by std::shared_ptr (a DataCache over it holds one too).
// The object owns its worker thread and the local file system it forwards
// to. Callbacks queued for delivery hold what they captured until they run
// or the object goes away.
//
// Threading: transfers run on one worker thread owned by the object, several
// at once. Completion and progress callbacks are delivered only from
// PumpCallbacks() (or WaitIdle(), which pumps), on the thread that calls it:
// the thread that uses the cache. All member functions may be called from
// any thread, but callbacks are run by whoever pumps. The destructor cancels
// transfers still running (their files are not left behind) and delivers no
// further callbacks.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "oru/data_cache.h"
#include "oru/file_system.h"

// Export macro of liboru-net (the same scheme as ORU_API in oru/export.h).
#if defined(ORU_STATIC)
#define ORU_NET_API
#elif defined(_WIN32)
#if defined(ORU_BUILDING_NET)
#define ORU_NET_API __declspec(dllexport)
#else
#define ORU_NET_API __declspec(dllimport)
#endif
#else
#define ORU_NET_API __attribute__((visibility("default")))
#endif

namespace oru {

/// Limits and hooks of an HttpFileSystem, fixed at creation.
struct HttpOptions {
  /// Whole-transfer limit, connecting included.
  std::chrono::milliseconds timeout{60000};
  /// Redirects followed before the transfer fails.
  long maxRedirects = 5;
  /// A body longer than this (declared or received) fails the transfer.
  uint64_t maxBodyBytes = uint64_t(4) << 30;
  /// Transfers run at the same time; more wait in order.
  unsigned maxParallel = 8;
  /// Called from PumpCallbacks with the bytes received so far and the total
  /// (0 when the server did not say), at most a few times a second per
  /// transfer and once at the end of a successful one.
  std::function<void(std::string const& url, uint64_t received, uint64_t total)> progress;
  /// Connects elsewhere than a URL says, as curl's --connect-to does: each
  /// entry is "HOST:PORT:CONNECT-TO-HOST:CONNECT-TO-PORT". Lets a URL (and so
  /// a cache name) stay the same while the server behind it moves.
  std::vector<std::string> connectTo;
};

/// The outcome of one Download.
struct HttpResult {
  bool success = false;      ///< the body is at localPath (2xx), or 304 kept it
  bool notModified = false;  ///< 304: the server says the caller's copy is current
  long status = 0;           ///< the final HTTP status; 0 when none arrived
  std::string etag;          ///< the response's ETag header value, as sent; may be empty
  std::string
      reason;  ///< empty on success, else one line ("HTTP 404", "timed out after 2000 ms", ...)
};

class ORU_NET_API HttpFileSystem : public ForwardingFileSystem {
public:
  /// A file system over `local` (CreateNativeFileSystem() when null).
  static std::shared_ptr<HttpFileSystem> Create(HttpOptions options = {},
                                                std::shared_ptr<FileSystem> local = nullptr);
  ~HttpFileSystem() override;

  /// Fetches `url` (http:// or https://; anything else fails at once with a
  /// reason) into `localPath`. A non-empty `ifNoneMatch` is sent as
  /// If-None-Match; a 304 answer then succeeds with notModified set and
  /// leaves `localPath` as it was. `done` is called exactly once, from
  /// PumpCallbacks.
  void Download(std::string const& url, std::string const& localPath,
                std::string const& ifNoneMatch, std::function<void(HttpResult const&)> done);

  /// Pumps callbacks until nothing is queued or running, or `limit` has
  /// passed. True when idle.
  bool WaitIdle(std::chrono::milliseconds limit);

  /// For an http:// or https:// `url` whose `localPath` is not a regular
  /// file yet: Download(url, localPath, "", ...) and cb->OnComplete(success).
  /// Otherwise (a file already there, as for every cache hit, or another kind
  /// of name such as the cache's "cacheinfo"): the local file system's
  /// answer. Either way `cb` runs from the next PumpCallbacks, never inside
  /// this call, so a DataCache over this file system goes through its
  /// asynchronous start-up.
  void AsyncDownloadFile(char const* url, char const* localPath,
                         std::shared_ptr<Callback> const& cb) override;
  /// Delivers completed callbacks (and progress) on the calling thread.
  void PumpCallbacks() override;

  // Everything else goes to the local file system, unchanged.

private:
  class Impl;
  HttpFileSystem(std::shared_ptr<FileSystem> local, std::unique_ptr<Impl> impl);
  std::unique_ptr<Impl> impl;
};

/// Where FetchIntoCache found what it hands out.
enum class FetchedFrom {
  Cache,        ///< a cache hit, not revalidated
  Revalidated,  ///< a cache hit the server confirmed with 304
  Network,      ///< downloaded now and added to the cache
  Failed        ///< nothing to hand out; see `reason`
};

struct CachedFetch {
  std::shared_ptr<DataSource> source;  ///< the cached file; empty when Failed
  FetchedFrom from = FetchedFrom::Failed;
  std::string reason;  ///< empty unless Failed
};

/// The data road's first leg: hands `url`'s bytes out of `cache`, which must
/// be a ready cache over `http`. A miss downloads the URL (to a scratch
/// file), adds it to the cache under `url` with extra data "etag <ETag>"
/// (or "" when the server sent none) and hands out the cached copy. A hit
/// is served from disk; with `revalidate` and an ETag recorded, the URL is
/// asked again with If-None-Match: 304 keeps the cached file, 200 replaces
/// it. When the server cannot be reached on a revalidation, the cached copy
/// is served (from Cache). `done` runs once, from the http file system's
/// PumpCallbacks (or inside this call when nothing is to be fetched).
ORU_NET_API void FetchIntoCache(std::shared_ptr<DataCache> const& cache,
                                std::shared_ptr<HttpFileSystem> const& http, std::string const& url,
                                bool revalidate, std::function<void(CachedFetch const&)> done);

}  // namespace oru
