// The on-disk data cache (DataCache over the native file system).
//
// Every cache here lives in a private directory made for the run under
// $ORU_BENCH_DIR, or /var/tmp when that is not set (not /tmp, which is a
// tmpfs on some machines: the cache is meant to be measured on a disk). The
// directory is removed at exit. While a benchmark runs, XDG_CACHE_HOME
// points at its own subdirectory, because that is where the native file
// system puts the cache directory "QD_FileCache"; the previous value is put
// back afterwards. The label of each benchmark names the file-system type it ran on.
//
// The buffer jobs are timed in wall-clock time (UseRealTime): the peer `cp`
// runs in a child process whose CPU time the harness does not see. The
// scaling jobs run in this thread only, and their file work is served from
// the kernel's caches (the page cache, the directory cache; nothing waits on
// the disk), so they are timed in the thread's CPU time, user and system:
// on a shared machine that is steadier than the wall clock, which also
// counts the time other processes hold the CPU.
//
// - BM_CacheBuffer64M: a 64 MiB block (pseudo-random bytes, made once).
//   Ours: AddBuffer of the block (the cache writes it to a new file and
//   hands back a source over that file), then the whole source read back in
//   1 MiB GetBytes calls, and the source dropped. Peer: `cp` of a 64 MiB
//   file holding the same bytes to a new file on the same disk, run through
//   std::system, so the shell's and cp's start-up are inside the time (what
//   a caller copying through the tool pays). BM_CacheBuffer64MReadWrite is
//   the same job of ours against an in-process copy of that file with
//   read()/write() of 1 MiB, the same copy without starting a process.
//   Between passes, outside the time, each side deletes what it wrote (ours
//   through FinaliseCache, which drops buffer files nobody reads any more),
//   so every pass writes a new file. Throughput counts the 64 MiB once per
//   pass on both sides. Ours copies them into the page cache and back out;
//   the read()/write() peer copies them out of the page cache and back in;
//   cp 9.x copies with copy_file_range, inside the kernel, one copy instead
//   of two.
// - BM_CacheStartup/<n>: a directory holding a cache of n files of 64 bytes
//   (named like URLs, with extra data), prepared once per n by AddFile and
//   FinaliseCache outside any timing. Timed: Create + Initialize of a new
//   cache over it (listing the directory, reading the info file, a stat per
//   file). A start-up of an intact cache deletes nothing and writes nothing,
//   so the prepared state serves every pass; every pass is checked to have
//   found all n files.
// - BM_CacheEvictHalf/<n>: a cache holding n files of 64 bytes with a size
//   limit equal to their total. Timed: one AddFile of a file of half that
//   total, which makes the cache evict the n / 2 files written longest ago
//   and then write the new file. Outside the time, the new file is removed
//   and the evicted names are added again, which restores n files at the
//   limit.
// Both scaling jobs report their complexity fitted to n log n and the time
// per file (per evicted file for eviction).
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>
#if defined(__linux__)
#include <sys/vfs.h>
#endif

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <system_error>
#include <vector>

#include "oru/data_cache.h"
#include "oru/data_source.h"
#include "oru/file_system.h"

namespace {

constexpr uint64_t BLOCK_BYTES = uint64_t{64} << 20;
constexpr std::size_t CHUNK_BYTES = std::size_t{1} << 20;
constexpr uint64_t SMALL_FILE_BYTES = 64;

// ---- where the caches live ------------------------------------------------------

class BenchRoot {
public:
  BenchRoot() {
    const char* base = std::getenv("ORU_BENCH_DIR");
    std::string pattern = (base != nullptr && *base != '\0') ? base : "/var/tmp";
    pattern += "/oru_cache_bench_XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) {
      std::perror("cache_bench: mkdtemp");
      std::abort();
    }
    path = pattern;
    std::fprintf(stderr, "cache_bench: caches under %s (%s)\n", path.c_str(),
                 FileSystemType().c_str());
  }
  ~BenchRoot() {
    std::error_code error;
    std::filesystem::remove_all(path, error);
  }
  BenchRoot(const BenchRoot&) = delete;
  BenchRoot& operator=(const BenchRoot&) = delete;

  // The kind of file system the root is on, for the benchmark labels.
  std::string FileSystemType() const {
#if defined(__linux__)
    struct statfs st {};
    if (statfs(path.c_str(), &st) != 0) return "unknown";
    switch (static_cast<unsigned long>(st.f_type)) {
      case 0xEF53UL:
        return "ext4";
      case 0x01021994UL:
        return "tmpfs";
      case 0x58465342UL:
        return "xfs";
      case 0x9123683EUL:
        return "btrfs";
      case 0x794C7630UL:
        return "overlayfs";
      default: {
        char hex[32];
        std::snprintf(hex, sizeof hex, "fs 0x%lx", static_cast<unsigned long>(st.f_type));
        return hex;
      }
    }
#else
    return "unknown";
#endif
  }

  std::string path;
};

BenchRoot& Root() {
  static BenchRoot root;
  return root;
}

// A subdirectory of the root; emptied first when `fresh`.
std::string WorkDir(const std::string& name, bool fresh) {
  const std::string dir = Root().path + "/" + name;
  std::error_code error;
  if (fresh) std::filesystem::remove_all(dir, error);
  std::filesystem::create_directories(dir, error);
  return dir;
}

// Points XDG_CACHE_HOME at `dir` (where the native file system makes the
// cache directory) for the lifetime of the object, then restores it.
class WorkingAreaScope {
public:
  explicit WorkingAreaScope(const std::string& dir) {
    if (const char* old = std::getenv("XDG_CACHE_HOME")) previous = old;
    setenv("XDG_CACHE_HOME", dir.c_str(), 1);
  }
  ~WorkingAreaScope() {
    if (previous) {
      setenv("XDG_CACHE_HOME", previous->c_str(), 1);
    } else {
      unsetenv("XDG_CACHE_HOME");
    }
  }
  WorkingAreaScope(const WorkingAreaScope&) = delete;
  WorkingAreaScope& operator=(const WorkingAreaScope&) = delete;

private:
  std::optional<std::string> previous;
};

// A ready cache over the native file system in $XDG_CACHE_HOME; empty on failure.
std::shared_ptr<oru::DataCache> OpenCache(uint64_t sizeLimit) {
  auto cache = oru::DataCache::Create(oru::CreateNativeFileSystem(), sizeLimit);
  cache->Initialize();
  if (!cache->Initialized()) return nullptr;
  return cache;
}

std::size_t CountEntries(oru::DataCache& cache) {
  std::vector<oru::DataCache::InfoContent> entries;
  return cache.GetInfoFileContent(entries) ? entries.size() : 0;
}

// ---- data ---------------------------------------------------------------------

// The 64 MiB block both sides of the buffer job move, pseudo-random so that
// nothing on the way can shortcut it.
const std::vector<std::byte>& Block() {
  static const std::vector<std::byte> block = [] {
    std::vector<std::byte> b(BLOCK_BYTES);
    std::mt19937_64 rng(64);
    for (std::size_t i = 0; i < b.size(); i += 8) {
      const uint64_t v = rng();
      std::memcpy(b.data() + i, &v, 8);
    }
    return b;
  }();
  return block;
}

// The block as a file on the benchmark disk, the peers' input; written once.
const std::string& BlockFile() {
  static const std::string path = [] {
    const std::string p = WorkDir("peer_input", true) + "/block.bin";
    const std::vector<std::byte>& block = Block();
    const int fd = open(p.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd < 0) std::abort();
    for (std::size_t done = 0; done < block.size();) {
      const ssize_t n = write(fd, block.data() + done, block.size() - done);
      if (n <= 0) std::abort();
      done += static_cast<std::size_t>(n);
    }
    close(fd);
    return p;
  }();
  return path;
}

// The whole file, for the checks made before timing.
bool FileEqualsBlock(const std::string& path) {
  const std::vector<std::byte>& block = Block();
  std::vector<std::byte> got(block.size() + 1);
  std::FILE* f = std::fopen(path.c_str(), "rb");
  if (f == nullptr) return false;
  const std::size_t n = std::fread(got.data(), 1, got.size(), f);
  std::fclose(f);
  return n == block.size() && std::memcmp(got.data(), block.data(), n) == 0;
}

// Reads `source` to its end in 1 MiB calls; returns the bytes read.
uint64_t ReadAll(oru::DataSource& source, std::vector<std::byte>& chunk) {
  uint64_t total = 0;
  while (const uint64_t n = source.GetBytes(chunk.data(), chunk.size())) {
    benchmark::DoNotOptimize(chunk.data());
    total += n;
  }
  return total;
}

// The logical name and the 64 bytes of the i-th small cached file.
std::string SmallName(int64_t i) {
  char name[64];
  std::snprintf(name, sizeof name, "https://tiles.example.com/v2/%08lld.bin",
                static_cast<long long>(i));
  return name;
}

std::shared_ptr<oru::DataSource> SmallSource(int64_t i) {
  std::string bytes(SMALL_FILE_BYTES, '.');
  std::snprintf(bytes.data(), bytes.size(), "tile %lld", static_cast<long long>(i));
  return oru::InMemoryDataSource::Create(std::move(bytes), false);
}

bool AddSmallFile(oru::DataCache& cache, int64_t i) {
  bool ok = false;
  cache.AddFile(
      SmallName(i), SmallSource(i), [&ok](bool result) { ok = result; },
      "etag " + std::to_string(i));
  return ok;
}

void SetLabel(benchmark::State& state) {
  state.SetLabel(Root().FileSystemType());
}

// ---- a 64 MiB block through the cache, against copying a file ------------------

void BM_CacheBuffer64M_ours(benchmark::State& state) {
  SetLabel(state);
  const std::vector<std::byte>& block = Block();
  WorkingAreaScope tmpdir(WorkDir("buffer_ours", true));
  auto cache = OpenCache(4 * BLOCK_BYTES);
  if (!cache) {
    state.SkipWithError("the cache did not initialize");
    return;
  }
  // AddBuffer takes a non-const pointer; the cache only reads through it.
  void* data = const_cast<std::byte*>(block.data());
  std::vector<std::byte> chunk(CHUNK_BYTES);

  // Once, before timing: the block must really go to a file (a memory copy
  // is the fallback when it cannot) and come back intact.
  {
    auto source = cache->AddBuffer(data, block.size());
    std::vector<std::byte> back(block.size());
    if (!source || source->GetBufferSize() != UINT64_MAX ||
        source->GetBytes(back.data(), back.size()) != block.size() ||
        std::memcmp(back.data(), block.data(), block.size()) != 0) {
      state.SkipWithError("AddBuffer did not give back the block from a file");
      return;
    }
  }
  cache->FinaliseCache();

  for (auto _ : state) {
    uint64_t read = 0;
    bool onDisk = false;
    {
      auto source = cache->AddBuffer(data, block.size());
      onDisk = source->GetBufferSize() == UINT64_MAX;  // memory sources know their size
      read = ReadAll(*source, chunk);
    }
    state.PauseTiming();
    cache->FinaliseCache();  // deletes the buffer file, now that nobody reads it
    const bool empty = cache->GetTotalSize() == 0;
    state.ResumeTiming();
    if (!onDisk || read != block.size() || !empty) {
      state.SkipWithError("the buffer did not make the round trip through a file");
      return;
    }
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                          static_cast<int64_t>(block.size()));
}

void BM_CacheBuffer64M_peer(benchmark::State& state) {
  SetLabel(state);
  const std::string& input = BlockFile();
  const std::string copy = WorkDir("buffer_peer_cp", true) + "/copy.bin";
  const std::string command = "cp '" + input + "' '" + copy + "'";
  if (std::system(command.c_str()) != 0 || !FileEqualsBlock(copy)) {
    state.SkipWithError("cp did not copy the block");
    return;
  }
  unlink(copy.c_str());
  for (auto _ : state) {
    const int rc = std::system(command.c_str());
    state.PauseTiming();
    const bool removed = unlink(copy.c_str()) == 0;
    state.ResumeTiming();
    if (rc != 0 || !removed) {
      state.SkipWithError("cp failed");
      return;
    }
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                          static_cast<int64_t>(BLOCK_BYTES));
}

// Copies `from` to a new file `to` with read()/write() of `chunk.size()`
// bytes; returns the bytes written, or 0 on an error.
uint64_t CopyFile(const std::string& from, const std::string& to, std::vector<std::byte>& chunk) {
  const int in = open(from.c_str(), O_RDONLY);
  if (in < 0) return 0;
  const int out = open(to.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  if (out < 0) {
    close(in);
    return 0;
  }
  uint64_t total = 0;
  bool ok = true;
  for (ssize_t n; ok && (n = read(in, chunk.data(), chunk.size())) > 0;) {
    for (ssize_t done = 0; done < n;) {
      const ssize_t w = write(out, chunk.data() + done, static_cast<std::size_t>(n - done));
      if (w <= 0) {
        ok = false;
        break;
      }
      done += w;
    }
    total += static_cast<uint64_t>(n);
  }
  close(in);
  if (close(out) != 0) ok = false;
  return ok ? total : 0;
}

void BM_CacheBuffer64MReadWrite_peer(benchmark::State& state) {
  SetLabel(state);
  const std::string& input = BlockFile();
  const std::string copy = WorkDir("buffer_peer_rw", true) + "/copy.bin";
  std::vector<std::byte> chunk(CHUNK_BYTES);
  if (CopyFile(input, copy, chunk) != BLOCK_BYTES || !FileEqualsBlock(copy)) {
    state.SkipWithError("read()/write() did not copy the block");
    return;
  }
  unlink(copy.c_str());
  for (auto _ : state) {
    const uint64_t copied = CopyFile(input, copy, chunk);
    state.PauseTiming();
    const bool removed = unlink(copy.c_str()) == 0;
    state.ResumeTiming();
    if (copied != BLOCK_BYTES || !removed) {
      state.SkipWithError("read()/write() copy failed");
      return;
    }
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                          static_cast<int64_t>(BLOCK_BYTES));
}

// ---- start-up over n files -------------------------------------------------------

// The directory (the XDG_CACHE_HOME to use) of a finalised cache of n small files,
// made the first time it is asked for.
const std::string& StartupDir(int64_t n) {
  static std::map<int64_t, std::string> prepared;
  if (auto it = prepared.find(n); it != prepared.end()) return it->second;
  const std::string dir = WorkDir("startup_" + std::to_string(n), true);
  WorkingAreaScope tmpdir(dir);
  auto cache = OpenCache(uint64_t{1} << 40);
  if (!cache) return prepared[n];  // empty: the caller reports it
  for (int64_t i = 0; i < n; ++i) {
    if (!AddSmallFile(*cache, i)) return prepared[n];
  }
  cache->FinaliseCache();
  return prepared[n] = dir;
}

void BM_CacheStartup(benchmark::State& state) {
  SetLabel(state);
  const int64_t n = state.range(0);
  const std::string& dir = StartupDir(n);
  if (dir.empty()) {
    state.SkipWithError("could not prepare the cache directory");
    return;
  }
  WorkingAreaScope tmpdir(dir);
  const uint64_t total = static_cast<uint64_t>(n) * SMALL_FILE_BYTES;
  for (auto _ : state) {
    auto cache = oru::DataCache::Create(oru::CreateNativeFileSystem(), uint64_t{1} << 40);
    cache->Initialize();
    const bool ready = cache->Initialized();
    state.PauseTiming();
    // Every start-up must find the whole prepared cache: one that found
    // the info file stale or missing would have emptied the directory.
    const bool whole = ready && cache->GetTotalSize() == total &&
                       CountEntries(*cache) == static_cast<std::size_t>(n);
    cache.reset();  // destruction is not part of start-up
    state.ResumeTiming();
    if (!whole) {
      state.SkipWithError("a start-up did not find all the prepared files");
      return;
    }
  }
  state.SetComplexityN(n);
  state.counters["per_file"] =
      benchmark::Counter(static_cast<double>(n), benchmark::Counter::kIsIterationInvariantRate |
                                                     benchmark::Counter::kInvert);
}

// ---- evicting half of n files ----------------------------------------------------

void BM_CacheEvictHalf(benchmark::State& state) {
  SetLabel(state);
  const int64_t n = state.range(0);
  const uint64_t total = static_cast<uint64_t>(n) * SMALL_FILE_BYTES;
  const std::string dir = WorkDir("evict_" + std::to_string(n), true);
  {
    WorkingAreaScope tmpdir(dir);
    auto cache = OpenCache(total);
    if (!cache) {
      state.SkipWithError("the cache did not initialize");
      return;
    }
    for (int64_t i = 0; i < n; ++i) {
      if (!AddSmallFile(*cache, i)) {
        state.SkipWithError("could not fill the cache");
        return;
      }
    }
    const std::string bigName = "https://tiles.example.com/v2/half.bin";
    const auto big = oru::InMemoryDataSource::Create(total / 2, false);
    const std::size_t left = static_cast<std::size_t>(n - n / 2) + 1;

    for (auto _ : state) {
      bool added = false;
      cache->AddFile(
          bigName, big, [&added](bool ok) { added = ok; }, "half");
      state.PauseTiming();
      const bool evictedHalf =
          added && CountEntries(*cache) == left && cache->GetTotalSize() == total;
      // Back to n small files at the limit: the big file goes, the evicted
      // names come back (newer now than the ones that stayed).
      cache->RemoveFile(bigName);
      bool refilled = true;
      for (int64_t i = 0; i < n && refilled; ++i) {
        if (!cache->Contains(SmallName(i))) refilled = AddSmallFile(*cache, i);
      }
      refilled = refilled && cache->GetTotalSize() == total &&
                 CountEntries(*cache) == static_cast<std::size_t>(n);
      state.ResumeTiming();
      if (!evictedHalf || !refilled) {
        state.SkipWithError("the cache did not evict exactly half of its files");
        break;
      }
    }
  }
  std::error_code error;
  std::filesystem::remove_all(dir, error);
  state.SetComplexityN(n);
  state.counters["per_evicted"] =
      benchmark::Counter(static_cast<double>(n / 2), benchmark::Counter::kIsIterationInvariantRate |
                                                         benchmark::Counter::kInvert);
}

}  // namespace

BENCHMARK(BM_CacheBuffer64M_ours)
    ->Name("BM_CacheBuffer64M/ours_addbuffer")
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK(BM_CacheBuffer64M_peer)
    ->Name("BM_CacheBuffer64M/peer")
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK(BM_CacheBuffer64M_ours)
    ->Name("BM_CacheBuffer64MReadWrite/ours_addbuffer")
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK(BM_CacheBuffer64MReadWrite_peer)
    ->Name("BM_CacheBuffer64MReadWrite/peer")
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK(BM_CacheStartup)
    ->Name("BM_CacheStartup")
    ->Arg(2000)
    ->Arg(5000)
    ->Arg(20000)
    ->Unit(benchmark::kMillisecond)
    ->Complexity(benchmark::oNLogN);
BENCHMARK(BM_CacheEvictHalf)
    ->Name("BM_CacheEvictHalf")
    ->Arg(2000)
    ->Arg(5000)
    ->Arg(20000)
    ->Iterations(3)
    ->Unit(benchmark::kMillisecond)
    ->Complexity(benchmark::oNLogN);
