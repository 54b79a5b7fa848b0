// oru cache ls|stat|verify|get|rm|clear: the download cache on disk, seen
// through DataCache. ls, stat and verify change nothing in the directory.
#include <oru/data_cache.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <ctime>
#include <unordered_set>

#include "cache_access.h"
#include "cache_get.h"
#include "oru_command.h"

namespace oru::tool {

namespace {

struct Entry {
  std::string name;
  DataCache::FileInfo info;
};

// The cache's entries, sorted by name.
std::vector<Entry> Entries(DataCache& cache) {
  std::vector<DataCache::InfoContent> content;
  cache.GetInfoFileContent(content);
  std::vector<Entry> entries;
  for (auto const& item : content) {
    if (!cache.Contains(item.name)) continue;
    const auto it = cache.LookupName(item.name);
    if (it->second) entries.push_back({item.name, *it->second});
  }
  std::sort(entries.begin(), entries.end(),
            [](Entry const& a, Entry const& b) { return a.name < b.name; });
  return entries;
}

std::string LocalTime(uint64_t seconds) {
  const auto t = static_cast<std::time_t>(seconds);
  char text[32] = "?";
  if (std::tm const* tm = std::localtime(&t))
    std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", tm);
  return text;
}

std::string HumanBytes(uint64_t bytes) {
  const char* units[] = {"bytes", "KiB", "MiB", "GiB", "TiB"};
  double value = static_cast<double>(bytes);
  int unit = 0;
  while (value >= 1024.0 && unit < 4) {
    value /= 1024.0;
    ++unit;
  }
  char text[32];
  if (unit == 0) {
    std::snprintf(text, sizeof text, "%" PRIu64 " bytes", bytes);
  } else {
    std::snprintf(text, sizeof text, "%.1f %s", value, units[unit]);
  }
  return text;
}

std::string FileName(std::string const& path, char separator) {
  const auto slash = path.rfind(separator);
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

int Ls(std::string const& dir, uint64_t limit) {
  auto fs = CacheFileSystem(dir, CacheMode::ReadOnly);
  auto cache = StartCache(fs, limit, fs->Dir());
  for (Entry const& e : Entries(*cache)) {
    std::printf("%-6s %12" PRIu64 "  %s  %s", FileName(e.info.path, fs->GetDirSeparator()).c_str(),
                e.info.size, LocalTime(e.info.time).c_str(), e.name.c_str());
    if (!e.info.extraData.empty()) std::printf("  [%s]", e.info.extraData.c_str());
    std::printf("\n");
  }
  return 0;
}

int Stat(std::string const& dir, uint64_t limit) {
  auto fs = CacheFileSystem(dir, CacheMode::ReadOnly);
  auto cache = StartCache(fs, limit, fs->Dir());
  const std::vector<Entry> entries = Entries(*cache);
  std::printf("cache directory  %s\n", fs->Dir().c_str());
  std::printf("files            %zu\n", entries.size());
  std::printf("bytes            %s\n", HumanBytes(cache->GetTotalSize()).c_str());
  std::printf("limit            %s (this command's; applications set their own)\n",
              HumanBytes(cache->GetSizeLimit()).c_str());
  if (!entries.empty()) {
    auto [oldest, newest] = std::minmax_element(
        entries.begin(), entries.end(),
        [](Entry const& a, Entry const& b) { return a.info.time < b.info.time; });
    std::printf("oldest           %s  %s\n", LocalTime(oldest->info.time).c_str(),
                oldest->name.c_str());
    std::printf("newest           %s  %s\n", LocalTime(newest->info.time).c_str(),
                newest->name.c_str());
  }
  return 0;
}

// Reads the whole file; the byte count, or -1 when it cannot be opened.
int64_t ReadableBytes(FileSystem& fs, std::string const& path) {
  auto source = fs.GetDS(path.c_str());
  if (!source) return -1;
  std::vector<std::byte> buffer(1 << 16);
  int64_t total = 0;
  uint64_t n;
  while ((n = source->GetBytes(buffer.data(), buffer.size())) > 0) total += static_cast<int64_t>(n);
  return total;
}

int Verify(std::string const& dir, uint64_t limit) {
  auto fs = CacheFileSystem(dir, CacheMode::ReadOnly);
  auto cache = StartCache(fs, limit, fs->Dir());
  DataCache::InfoMap listed;  // path -> entry, as the library reads the info file
  cache->ReadInfoFile(listed);
  const char separator = fs->GetDirSeparator();
  const std::string infoPath = fs->Dir() + separator + DataCache::INFO_FILE_NAME;
  FileStat infoStat;
  const bool haveInfo = fs->Stat(infoPath.c_str(), infoStat);

  std::size_t problems = 0;
  auto problem = [&problems](std::string const& text) {
    ++problems;
    std::printf("%s\n", text.c_str());
  };
  std::vector<std::pair<std::string, DataCache::InfoContent>> sorted(listed.begin(), listed.end());
  std::sort(sorted.begin(), sorted.end(),
            [](auto const& a, auto const& b) { return a.first < b.first; });
  for (auto const& [path, entry] : sorted) {
    const std::string what = FileName(path, separator) + " (" + entry.name + ")";
    FileStat st;
    if (!fs->Stat(path.c_str(), st)) {
      problem("missing      " + what);
      continue;
    }
    if (!st.IsRegularFile()) {
      problem("not a file   " + what);
      continue;
    }
    const int64_t bytes = ReadableBytes(*fs, path);
    if (bytes < 0) {
      problem("unreadable   " + what);
    } else if (static_cast<uint64_t>(bytes) != st.size) {
      problem("short read   " + what + ": " + std::to_string(bytes) + " of " +
              std::to_string(st.size) + " bytes");
    } else if (haveInfo && st.modifyTime > infoStat.modifyTime) {
      problem("modified     " + what + " after info.txt (the cache empties itself)");
    }
  }
  std::unordered_set<std::string> present;
  fs->FilesInDir(fs->Dir().c_str(), present);
  std::vector<std::string> orphans;
  for (std::string const& path : present) {
    if (path != infoPath && listed.find(path) == listed.end()) orphans.push_back(path);
  }
  std::sort(orphans.begin(), orphans.end());
  for (std::string const& path : orphans) {
    problem("orphan       " + FileName(path, separator) + " (not in info.txt)");
  }
  if (problems != 0) {
    Complain(fs->Dir() + ": " + std::to_string(problems) + " problem" + (problems == 1 ? "" : "s") +
             " found");
    return 1;
  }
  std::printf("%zu entries, all readable, no orphans\n", listed.size());
  return 0;
}

int Rm(std::string const& dir, std::string const& name, uint64_t limit) {
  auto fs = CacheFileSystem(dir, CacheMode::Writable);
  auto cache = StartCache(fs, limit, fs->Dir());
  if (!cache->Contains(name)) throw Failure(Printable(name) + ": not in the cache");
  cache->RemoveFile(name);
  cache->FinaliseCache();
  std::printf("removed %s\n", name.c_str());
  return 0;
}

int Clear(std::string const& dir, uint64_t limit) {
  auto fs = CacheFileSystem(dir, CacheMode::Writable);
  auto cache = StartCache(fs, limit, fs->Dir());
  std::vector<DataCache::InfoContent> content;
  cache->GetInfoFileContent(content);
  cache->EmptyCache();
  cache->FinaliseCache();  // an empty info file: the directory stays a cache
  std::printf("removed %zu file%s\n", content.size(), content.size() == 1 ? "" : "s");
  return 0;
}

}  // namespace

void AddCacheCommands(CLI::App& app, Context& ctx) {
  auto* cacheCommand =
      app.add_subcommand("cache", "The download cache: ls, stat, verify, get, rm, clear");
  cacheCommand->require_subcommand(1, 1);

  struct Args {
    std::string dir;
    std::string name;
    uint64_t limit = DEFAULT_CACHE_LIMIT;
    CacheGetArgs get;
  };
  auto args = std::make_shared<Args>();
  const char* dirHelp = "The cache directory (the one holding info.txt); default: the library's";
  auto addDir = [&](CLI::App* sub, bool positional) {
    auto* option = sub->add_option(positional ? "DIR,--dir" : "--dir", args->dir, dirHelp);
    option->type_name("DIR");
    sub->add_option("--limit", args->limit, "Size limit in bytes the cache is opened with")
        ->capture_default_str();
  };

  auto* ls = cacheCommand->add_subcommand("ls", "Lists the cached files: number, size, time, name");
  addDir(ls, true);
  ls->callback([&ctx, args] { ctx.run = [args] { return Ls(args->dir, args->limit); }; });

  auto* stat = cacheCommand->add_subcommand("stat", "Files, bytes, limit, oldest and newest entry");
  addDir(stat, true);
  stat->callback([&ctx, args] { ctx.run = [args] { return Stat(args->dir, args->limit); }; });

  auto* verify = cacheCommand->add_subcommand(
      "verify", "Reads every entry; reports missing, short, modified and orphaned files");
  addDir(verify, true);
  verify->callback([&ctx, args] { ctx.run = [args] { return Verify(args->dir, args->limit); }; });

  auto* get = cacheCommand->add_subcommand(
      "get", "Serves URL from the cache, downloading and adding it on a miss");
  get->add_option("URL", args->get.url, "An http:// or https:// URL")->required();
  addDir(get, false);
  get->add_option("-o,--output", args->get.output, "Also copy the bytes to this file");
  get->add_flag("--revalidate", args->get.revalidate,
                "On a hit, ask the server whether the copy is current (ETag)");
  get->add_option("--timeout", args->get.timeoutSeconds, "Seconds a download may take")
      ->capture_default_str();
  get->callback([&ctx, args] {
    ctx.run = [args, &ctx] {
      args->get.dir = args->dir;
      args->get.limit = args->limit;
      return CacheGet(args->get, ctx.quiet);
    };
  });

  auto* rm = cacheCommand->add_subcommand("rm", "Removes one entry by its name (URL)");
  rm->add_option("NAME", args->name, "The entry's name")->required();
  addDir(rm, false);
  rm->callback(
      [&ctx, args] { ctx.run = [args] { return Rm(args->dir, args->name, args->limit); }; });

  auto* clear = cacheCommand->add_subcommand("clear", "Removes every entry");
  addDir(clear, false);
  clear->callback([&ctx, args] { ctx.run = [args] { return Clear(args->dir, args->limit); }; });
}

}  // namespace oru::tool
