// HttpFileSystem and FetchIntoCache against tools/http_server.py on 127.0.0.1.
#include "oru/http_file_system.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <thread>

#include "http_server_process.h"
#include "support/test_util.h"

namespace oru {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

// The server's /_/bytes/N body.
std::string Pattern(size_t n) {
  std::string out;
  for (size_t i = 0; i < n; ++i) out.push_back(static_cast<char>((i * 7 + 3) % 251));
  return out;
}

size_t EntryCount(fs::path const& dir) {
  return static_cast<size_t>(std::distance(fs::directory_iterator(dir), fs::directory_iterator()));
}

class Http : public ::testing::Test {
protected:
  static void SetUpTestSuite() {
    served = new test::TempDir;
    server = new tools::HttpServerProcess(ORU_HTTP_SERVER_SCRIPT, served->path().string());
  }
  static void TearDownTestSuite() {
    delete server;
    delete served;
  }
  void SetUp() override {
    if (server->Port() == 0) GTEST_SKIP() << "python3 could not start the HTTP server";
  }

  static HttpResult Get(HttpFileSystem& http, std::string const& url, std::string const& path,
                        std::string const& etag = "") {
    HttpResult out;
    out.reason = "no callback";
    http.Download(url, path, etag, [&out](HttpResult const& r) { out = r; });
    EXPECT_TRUE(http.WaitIdle(20s));
    return out;
  }

  static inline test::TempDir* served = nullptr;
  static inline tools::HttpServerProcess* server = nullptr;
  test::TempDir dir;
};

TEST_F(Http, OutcomesLeaveTheWholeBodyOrNoFile) {
  const std::string none = "<no file>";
  struct {
    std::string url, ifNoneMatch;
    long timeoutMs, maxRedirects;
    uint64_t maxBody;
    bool success, notModified;
    long status;
    std::string reason, file;
  } cases[] = {
      {"/_/bytes/70000?etag=e1", "", 60000, 5, 1 << 20, true, false, 200, "", Pattern(70000)},
      {"/_/bytes/10?etag=e1", "e1", 60000, 5, 1 << 20, true, true, 304, "", "old"},
      {"/_/bytes/10?etag=e2", "e1", 60000, 5, 1 << 20, true, false, 200, "", Pattern(10)},
      {"/_/status/404", "", 60000, 5, 1 << 20, false, false, 404, "HTTP 404", none},
      {"/_/status/500", "", 60000, 5, 1 << 20, false, false, 500, "HTTP 500", none},
      {"/_/cut/30000", "", 60000, 5, 1 << 20, false, false, 200, "transfer cut short", none},
      {"/_/slow/3000", "", 300, 5, 1 << 20, false, false, 0, "timed out after 300 ms", none},
      {"/_/bytes/2000", "", 60000, 5, 1000, false, false, 200, "body larger than 1000 bytes", none},
      {"/_/unsized/200000", "", 60000, 5, 1000, false, false, 200, "body larger than 1000 bytes",
       none},
      {"/_/redirect/3", "", 60000, 5, 1 << 20, true, false, 200, "", Pattern(100)},
      {"/_/redirect/3", "", 60000, 2, 1 << 20, false, false, 302, "too many redirects", none},
      {"/_/loop", "", 60000, 5, 1 << 20, false, false, 302, "too many redirects", none},
      {"http://127.0.0.1:1/", "", 60000, 5, 1 << 20, false, false, 0, "connection refused", none},
      {"ftp://127.0.0.1/x", "", 60000, 5, 1 << 20, false, false, 0,
       "not an http or https URL: ftp://127.0.0.1/x", none},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.url);
    HttpOptions options;
    options.timeout = std::chrono::milliseconds(c.timeoutMs);
    options.maxRedirects = c.maxRedirects;
    options.maxBodyBytes = c.maxBody;
    auto http = HttpFileSystem::Create(options);
    const std::string path = dir.File("out");
    fs::remove(path);
    if (c.file == "old") test::WriteFile(path, "old");
    const std::string url = c.url[0] == '/' ? server->Base() + c.url : c.url;
    const HttpResult r = Get(*http, url, path, c.ifNoneMatch);
    EXPECT_EQ(r.success, c.success);
    EXPECT_EQ(r.notModified, c.notModified);
    EXPECT_EQ(r.status, c.status);
    EXPECT_EQ(r.reason, c.reason);
    EXPECT_EQ(fs::exists(path) ? test::ReadFile(path) : none, c.file);
    EXPECT_EQ(EntryCount(dir.path()), c.file == none ? 0u : 1u);  // no temporary file left
    const size_t tag = c.url.find("etag=");
    if (c.success) EXPECT_EQ(r.etag, tag == std::string::npos ? "" : c.url.substr(tag + 5));
  }
}

TEST_F(Http, ParallelDownloadsReportOnlyFromThePumpingThread) {
  const auto self = std::this_thread::get_id();
  std::map<std::string, std::pair<uint64_t, uint64_t>> lastProgress;
  int wrongThread = 0, done = 0, ok = 0;
  HttpOptions options;
  options.maxParallel = 4;
  options.progress = [&](std::string const& url, uint64_t received, uint64_t total) {
    wrongThread += std::this_thread::get_id() != self;
    lastProgress[url] = {received, total};
  };
  auto http = HttpFileSystem::Create(options);
  for (size_t i = 0; i < 20; ++i) {
    const std::string name = std::to_string(i);
    http->Download(server->Base() + "/_/bytes/" + std::to_string(50000 + i), dir.File(name), "",
                   [&, name, i](HttpResult const& r) {
                     wrongThread += std::this_thread::get_id() != self;
                     ++done;
                     ok += r.success && test::ReadFile(dir.File(name)) == Pattern(50000 + i);
                   });
  }
  std::this_thread::sleep_for(300ms);
  EXPECT_EQ(done, 0);  // nothing arrives without a pump
  ASSERT_TRUE(http->WaitIdle(30s));
  EXPECT_EQ(ok, 20);
  EXPECT_EQ(wrongThread, 0);
  ASSERT_EQ(lastProgress.size(), 20u);
  for (auto const& [url, p] : lastProgress) {
    EXPECT_EQ(p.first, p.second) << url;
    EXPECT_EQ(url, server->Base() + "/_/bytes/" + std::to_string(p.first));
  }
}

TEST_F(Http, DestructorCancelsAndRemovesTemporaryFiles) {
  bool called = false;
  {
    auto http = HttpFileSystem::Create();
    for (int i = 0; i < 3; ++i) {
      http->Download(server->Base() + "/_/slow/5000", dir.File(std::to_string(i)), "",
                     [&called](HttpResult const&) { called = true; });
    }
    for (int i = 0; i < 100 && EntryCount(dir.path()) < 3; ++i) std::this_thread::sleep_for(20ms);
    EXPECT_EQ(EntryCount(dir.path()), 3u);  // the transfers' temporary files
  }
  EXPECT_EQ(EntryCount(dir.path()), 0u);
  EXPECT_FALSE(called);
}

TEST_F(Http, DataCacheFetchesRevalidatesAndFallsBack) {
  test::ScopedTempArea area(dir.path().string());
  auto http = HttpFileSystem::Create();
  auto cache = DataCache::Create(http, 1 << 20);
  cache->Initialize();
  for (int i = 0; i < 100 && !cache->Initialized(); ++i) http->WaitIdle(50ms);
  ASSERT_TRUE(cache->Initialized());

  const std::string file = (served->path() / "scene.bin").string();
  const std::string url = server->Base() + "/scene.bin";
  struct {
    std::string content;  // written before the step; "-" removes the file
    bool revalidate;
    FetchedFrom from;
    std::string served, reason;
  } steps[] = {
      {"v1", false, FetchedFrom::Network, "v1", ""},
      {"", false, FetchedFrom::Cache, "v1", ""},
      {"", true, FetchedFrom::Revalidated, "v1", ""},
      {"v2", false, FetchedFrom::Cache, "v1", ""},
      {"", true, FetchedFrom::Network, "v2", ""},
      {"-", true, FetchedFrom::Cache, "v2", ""},  // the server lost it: the copy stays
  };
  for (auto const& s : steps) {
    SCOPED_TRACE(s.served + (s.revalidate ? " revalidated" : ""));
    if (s.content == "-") fs::remove(file);
    if (s.content.size() > 1) test::WriteFile(file, s.content);
    CachedFetch got;
    got.reason = "no callback";
    FetchIntoCache(cache, http, url, s.revalidate, [&got](CachedFetch const& r) { got = r; });
    ASSERT_TRUE(http->WaitIdle(20s));
    EXPECT_EQ(got.from, s.from);
    EXPECT_EQ(got.reason, s.reason);
    EXPECT_EQ(test::Contents(got.source), s.served);
    EXPECT_EQ(cache->GetExtraData(url).rfind("etag \"", 0), 0u);
  }
  CachedFetch missing;
  FetchIntoCache(cache, http, server->Base() + "/none", false,
                 [&missing](CachedFetch const& r) { missing = r; });
  ASSERT_TRUE(http->WaitIdle(20s));
  EXPECT_EQ(missing.from, FetchedFrom::Failed);
  EXPECT_EQ(missing.reason, "HTTP 404");
  // Only the cached files and the info file: no scratch file left behind.
  cache->FinaliseCache();
  EXPECT_EQ(EntryCount(cache->GetCacheDir()), 2u);
}

}  // namespace
}  // namespace oru
