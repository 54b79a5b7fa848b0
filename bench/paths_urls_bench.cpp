// Paths, URLs and trace ranges.
//
// - ParseURL against uriparser's uriParseSingleUriA (RFC 3986 both), on the
//   same 4,000 URLs of the kinds a viewer meets (web addresses with paths
//   and queries, file URLs, IPv6 hosts, user info), each parsed into a
//   reused result; uriparser frees what it allocated after each parse, as a
//   caller must. Throughput counts URL bytes.
// - FileSpec construction plus GetFullPath against std::filesystem::path
//   construction plus string(), on the same 4,000 POSIX paths.
// - apitrace::Range while nothing is captured and while a capture runs
//   (items are ranges; no peer).
#include <benchmark/benchmark.h>
#include <uriparser/Uri.h>

#include <cstdio>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "oru/api_trace.h"
#include "oru/file_spec.h"
#include "oru/url.h"

namespace {

const std::vector<std::string>& Urls() {
  static const std::vector<std::string> urls = [] {
    const char* hosts[] = {"example.com", "cdn.models.example.org:8443", "[2001:db8::7]:80",
                           "user:secret@files.example.net", "10.0.0.12"};
    const char* words[] = {"models", "scenes", "v2", "textures", "hall", "lod0", "a%20b"};
    std::mt19937 rng(1);
    std::vector<std::string> out;
    for (int i = 0; i < 4000; ++i) {
      std::string url = i % 5 == 0 ? "file://" : (i % 2 ? "https://" : "http://");
      if (i % 5 != 0) url += hosts[rng() % 5];
      for (int n = 1 + static_cast<int>(rng() % 5); n > 0; --n)
        url += "/" + std::string(words[rng() % 7]);
      url += ".glb";
      if (rng() % 2) url += "?version=" + std::to_string(rng() % 100) + "&token=abcdef0123";
      if (rng() % 4 == 0) url += "#node-" + std::to_string(rng() % 50);
      out.push_back(url);
    }
    return out;
  }();
  return urls;
}

int64_t TotalBytes(const std::vector<std::string>& texts) {
  int64_t n = 0;
  for (const auto& t : texts) n += static_cast<int64_t>(t.size());
  return n;
}

void BM_ParseURL_ours(benchmark::State& state) {
  oru::URLParts parts;
  for (auto _ : state) {
    for (const std::string& url : Urls()) {
      if (!oru::ParseURL(url, parts)) state.SkipWithError("a URL was refused");
      benchmark::DoNotOptimize(parts.path.data());
    }
  }
  state.SetBytesProcessed(state.iterations() * TotalBytes(Urls()));
}

void BM_ParseURL_peer(benchmark::State& state) {
  for (auto _ : state) {
    for (const std::string& url : Urls()) {
      UriUriA uri;
      const char* error = nullptr;
      if (uriParseSingleUriA(&uri, url.c_str(), &error) != URI_SUCCESS)
        state.SkipWithError("a URL was refused");
      benchmark::DoNotOptimize(uri.pathTail);
      uriFreeUriMembersA(&uri);
    }
  }
  state.SetBytesProcessed(state.iterations() * TotalBytes(Urls()));
}

const std::vector<std::string>& Paths() {
  static const std::vector<std::string> paths = [] {
    const char* parts[] = {"home", "user",     "projects", "scene.v2.glb", "..",
                           ".",    "textures", "a b",      "build"};
    std::mt19937 rng(2);
    std::vector<std::string> out;
    for (int i = 0; i < 4000; ++i) {
      std::string path = i % 3 ? "/" : "";
      for (int n = 2 + static_cast<int>(rng() % 6); n > 0; --n)
        path += std::string(parts[rng() % 9]) + (n > 1 ? "/" : "");
      out.push_back(path);
    }
    return out;
  }();
  return paths;
}

void BM_FileSpecFullPath_ours(benchmark::State& state) {
  for (auto _ : state) {
    for (const std::string& path : Paths()) {
      std::string full = oru::FileSpec(path, oru::FileSpec::Style::Posix).GetFullPath();
      benchmark::DoNotOptimize(full.data());
    }
  }
  state.SetBytesProcessed(state.iterations() * TotalBytes(Paths()));
}

void BM_FileSpecFullPath_peer(benchmark::State& state) {
  for (auto _ : state) {
    for (const std::string& path : Paths()) {
      std::string full = std::filesystem::path(path).string();
      benchmark::DoNotOptimize(full.data());
    }
  }
  state.SetBytesProcessed(state.iterations() * TotalBytes(Paths()));
}

void BM_TraceRange_ours_idle(benchmark::State& state) {
  for (auto _ : state) {
    oru::apitrace::Range range("idle");
    benchmark::DoNotOptimize(&range);
  }
  state.SetItemsProcessed(state.iterations());
}

void BM_TraceRange_ours_capturing(benchmark::State& state) {
  const std::string path = std::filesystem::temp_directory_path() / "oru_bench_ranges.json";
  oru::apitrace::StartCapture(path);
  for (auto _ : state) {
    oru::apitrace::Range range("capturing");
    benchmark::DoNotOptimize(&range);
  }
  oru::apitrace::StopCapture();
  std::remove(path.c_str());
  state.SetItemsProcessed(state.iterations());
}

}  // namespace

BENCHMARK(BM_ParseURL_ours)->Name("BM_ParseURL/ours");
BENCHMARK(BM_ParseURL_peer)->Name("BM_ParseURL/peer");
BENCHMARK(BM_FileSpecFullPath_ours)->Name("BM_FileSpecFullPath/ours");
BENCHMARK(BM_FileSpecFullPath_peer)->Name("BM_FileSpecFullPath/peer");
BENCHMARK(BM_TraceRange_ours_idle)->Name("BM_TraceRange/ours_idle");
BENCHMARK(BM_TraceRange_ours_capturing)->Name("BM_TraceRange/ours_capturing");
