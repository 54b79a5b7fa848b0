// FetchIntoCache: a cache lookup, and a download when the cache has nothing
// (or, revalidating, when the server has something newer). Each step's
// callback holds the one Fetch object, which holds the cache and the file
// system only weakly: a fetch queued in the file system must not keep either
// alive.
#include <utility>

#include "net/temp_file.h"
#include "oru/file_data_source.h"
#include "oru/http_file_system.h"

namespace oru {

namespace {

// The extra data a fetched entry carries: "etag <value>".
constexpr char ETAG_PREFIX[] = "etag ";

std::string EtagOf(std::string const& extraData) {
  const std::string prefix = ETAG_PREFIX;
  return extraData.compare(0, prefix.size(), prefix) == 0 ? extraData.substr(prefix.size()) : "";
}

class Fetch : public std::enable_shared_from_this<Fetch> {
public:
  Fetch(std::shared_ptr<DataCache> const& c, std::shared_ptr<HttpFileSystem> const& h,
        std::string u, std::function<void(CachedFetch const&)> d)
      : cache(c), http(h), url(std::move(u)), done(std::move(d)) {}

  void Start(bool revalidate) {
    auto c = cache.lock();
    if (!c || !c->Initialized()) return Fail("the cache is not ready");
    if (!c->Contains(url)) return Download("", false);
    const std::string etag = EtagOf(c->GetExtraData(url));
    if (revalidate && !etag.empty()) return Download(etag, true);
    auto self = shared_from_this();
    Serve(FetchedFrom::Cache, [self] { self->Download("", false); });
  }

private:
  void Download(std::string const& etag, bool haveCopy) {
    auto c = cache.lock();
    auto h = http.lock();
    if (!c || !h) return Fail("the cache was closed");
    std::string error;
    // In the cache's own private directory; a name the cache never uses for
    // its files, and which its next start-up removes if this process dies.
    scratch = net::ReserveUniqueFile(c->GetCacheDir(), "fetch-", error);
    if (scratch.empty()) return Fail(error);
    auto self = shared_from_this();
    h->Download(url, scratch, etag,
                [self, haveCopy](HttpResult const& r) { self->Downloaded(r, haveCopy); });
  }

  void Downloaded(HttpResult const& r, bool haveCopy) {
    auto self = shared_from_this();
    if (r.notModified) {
      RemoveScratch();
      return Serve(FetchedFrom::Revalidated, [self] { self->Download("", false); });
    }
    if (!r.success) {
      RemoveScratch();
      if (!haveCopy) return Fail(r.reason);
      // The server cannot confirm the copy: it is still what we have.
      return Serve(FetchedFrom::Cache, [self, reason = r.reason] { self->Fail(reason); });
    }
    auto c = cache.lock();
    if (!c) return Fail("the cache was closed");
    c->AddFile(
        url, FileDataSource::Create(scratch),
        [self](bool added) {
          self->RemoveScratch();
          if (!added) return self->Fail("the cache did not take the download (empty, or no room)");
          self->Serve(FetchedFrom::Network,
                      [self] { self->Fail("the cache lost the file it was given"); });
        },
        r.etag.empty() ? "" : ETAG_PREFIX + r.etag);
  }

  // Hands out the cached copy, as coming `from` there; `otherwise` when the
  // cache has none after all.
  void Serve(FetchedFrom from, std::function<void()> otherwise) {
    auto c = cache.lock();
    if (!c) return Fail("the cache was closed");
    auto self = shared_from_this();
    c->GetFile(url, [self, from, otherwise = std::move(otherwise)](
                        std::shared_ptr<DataSource> const& source, std::string const&) {
      if (!source) return otherwise();
      self->done(CachedFetch{source, from, ""});
    });
  }

  void Fail(std::string const& reason) {
    RemoveScratch();
    done(CachedFetch{nullptr, FetchedFrom::Failed, reason});
  }

  void RemoveScratch() {
    if (scratch.empty()) return;
    if (auto h = http.lock()) h->Unlink(scratch.c_str());
    scratch.clear();
  }

  std::weak_ptr<DataCache> cache;
  std::weak_ptr<HttpFileSystem> http;
  std::string url;
  std::function<void(CachedFetch const&)> done;
  std::string scratch;
};

}  // namespace

void FetchIntoCache(std::shared_ptr<DataCache> const& cache,
                    std::shared_ptr<HttpFileSystem> const& http, std::string const& url,
                    bool revalidate, std::function<void(CachedFetch const&)> done) {
  std::make_shared<Fetch>(cache, http, url, std::move(done))->Start(revalidate);
}

}  // namespace oru
