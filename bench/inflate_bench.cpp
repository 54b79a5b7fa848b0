// Inflating gzip: the compressed sources against a single zlib inflate call.
//
// The data is 64 MiB of mixed content of the kind the library reads: log-like
// text lines interleaved with binary mesh blocks (float32 vertex positions on
// a smooth surface, uint32 triangle indices). It is gzip-compressed once, at
// level 6, before any timing.
//
// - ours_memory: CompressedInMemoryDataSource over the gzip bytes, read to the
//   end in 64 KiB GetBytes calls.
// - ours_file: CompressedFileDataSource over a temporary file holding the same
//   gzip bytes (warm in the page cache), read the same way.
// - peer: inflateInit2 (gzip window bits) and one inflate(Z_FINISH) call into
//   a preallocated, already touched 64 MiB buffer.
//
// Each pass of ours builds a new compressed source, since a source keeps every
// byte it has inflated; building, reading and releasing it are all timed, as
// are inflateInit2 and inflateEnd for the peer. Throughput counts inflated
// bytes.
#include <benchmark/benchmark.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "oru/compressed_data_source.h"
#include "oru/data_source.h"
#include "oru/file_data_source.h"

namespace {

constexpr std::size_t RAW_BYTES = std::size_t{64} << 20;
constexpr std::size_t READ_BYTES = std::size_t{64} << 10;

void AppendText(std::string& out, std::mt19937& rng, std::size_t bytes) {
  static const char* const LEVELS[] = {"INFO ", "INFO ", "INFO ", "DEBUG", "WARN "};
  static const char* const PATHS[] = {"/api/v1/items", "/api/v1/users", "/static/mesh",
                                      "/api/v1/search", "/health"};
  std::uniform_int_distribution<int> pick(0, 4);
  std::uniform_int_distribution<int> worker(1, 16);
  std::uniform_int_distribution<uint32_t> id;
  std::uniform_int_distribution<int> item(1, 250000);
  std::uniform_int_distribution<int> ms(1, 900);
  std::uniform_int_distribution<int> size(200, 65000);
  static unsigned clock = 0;
  char line[256];
  const std::size_t end = out.size() + bytes;
  while (out.size() < end) {
    ++clock;
    const int n = std::snprintf(
        line, sizeof line,
        "2026-11-21 %02u:%02u:%02u.%03u %s [worker-%d] request id=%08x path=%s/%d took %d ms "
        "bytes=%d\n",
        (clock / 3600000) % 24, (clock / 60000) % 60, (clock / 1000) % 60, clock % 1000,
        LEVELS[pick(rng)], worker(rng), id(rng), PATHS[pick(rng)], item(rng), ms(rng), size(rng));
    out.append(line, static_cast<std::size_t>(n));
  }
}

void AppendMesh(std::string& out, std::mt19937& rng, std::size_t side) {
  std::uniform_real_distribution<float> noise(-0.001f, 0.001f);
  const float phase = noise(rng) * 1000.0f;
  std::vector<float> vertices;
  vertices.reserve(side * side * 3);
  for (std::size_t y = 0; y < side; ++y) {
    for (std::size_t x = 0; x < side; ++x) {
      const float fx = static_cast<float>(x) * 0.25f;
      const float fy = static_cast<float>(y) * 0.25f;
      // Heights quantised to millimetres, as exported meshes often are.
      const float z =
          std::round((std::sin(fx * 0.3f + phase) * std::cos(fy * 0.2f)) * 1000.0f) / 1000.0f;
      vertices.insert(vertices.end(), {fx, fy, z});
    }
  }
  std::vector<uint32_t> indices;
  indices.reserve((side - 1) * (side - 1) * 6);
  for (uint32_t y = 0; y + 1 < side; ++y) {
    for (uint32_t x = 0; x + 1 < side; ++x) {
      const auto i = static_cast<uint32_t>(y * side + x);
      const auto s = static_cast<uint32_t>(side);
      indices.insert(indices.end(), {i, i + 1, i + s, i + 1, i + s + 1, i + s});
    }
  }
  out.append(reinterpret_cast<const char*>(vertices.data()), vertices.size() * sizeof(float));
  out.append(reinterpret_cast<const char*>(indices.data()), indices.size() * sizeof(uint32_t));
}

struct GzipData {
  std::vector<unsigned char> gzip;
  std::size_t rawSize = 0;
  std::string fileName;

  GzipData() {
    std::string raw;
    raw.reserve(RAW_BYTES + (std::size_t{1} << 20));
    std::mt19937 rng(2026);
    while (raw.size() < RAW_BYTES) {
      AppendText(raw, rng, 96 << 10);
      AppendMesh(raw, rng, 64);
    }
    raw.resize(RAW_BYTES);
    rawSize = raw.size();

    z_stream zs{};
    if (deflateInit2(&zs, 6, Z_DEFLATED, 16 + 15, 8, Z_DEFAULT_STRATEGY) != Z_OK) std::abort();
    gzip.resize(deflateBound(&zs, static_cast<uLong>(raw.size())));
    zs.next_in = reinterpret_cast<Bytef*>(raw.data());
    zs.avail_in = static_cast<uInt>(raw.size());
    zs.next_out = gzip.data();
    zs.avail_out = static_cast<uInt>(gzip.size());
    if (deflate(&zs, Z_FINISH) != Z_STREAM_END) std::abort();
    gzip.resize(zs.total_out);
    deflateEnd(&zs);

    const char* dir = std::getenv("TMPDIR");
    std::string pattern = (dir != nullptr && *dir != '\0') ? dir : "/tmp";
    pattern += "/oru_bench_XXXXXX";
    const int fd = mkstemp(pattern.data());
    if (fd < 0) std::abort();
    fileName = pattern;
    std::size_t written = 0;
    while (written < gzip.size()) {
      const ssize_t n = write(fd, gzip.data() + written, gzip.size() - written);
      if (n <= 0) std::abort();
      written += static_cast<std::size_t>(n);
    }
    close(fd);
  }
  ~GzipData() {
    if (!fileName.empty()) std::remove(fileName.c_str());
  }
};

const GzipData& Data() {
  static const GzipData data;
  return data;
}

void Finish(benchmark::State& state, uint64_t inflated) {
  const GzipData& data = Data();
  if (inflated != data.rawSize) state.SkipWithError("inflated size differs from the input");
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                          static_cast<int64_t>(data.rawSize));
  state.counters["ratio"] =
      static_cast<double>(data.rawSize) / static_cast<double>(data.gzip.size());
}

uint64_t ReadToEnd(oru::DataSource& source, std::vector<std::byte>& block) {
  uint64_t total = 0;
  while (const uint64_t n = source.GetBytes(block.data(), block.size())) {
    benchmark::DoNotOptimize(block.data());
    benchmark::ClobberMemory();
    total += n;
  }
  return total;
}

void BM_InflateGzip_ours_memory(benchmark::State& state) {
  const GzipData& data = Data();
  auto source = oru::InMemoryDataSource::Create(data.gzip.data(), data.gzip.size(), false);
  std::vector<std::byte> block(READ_BYTES);
  uint64_t inflated = 0;
  for (auto _ : state) {
    source->Seek(0, oru::DS_SEEK_SET);
    auto gz = oru::CompressedInMemoryDataSource::Create(source, 0);
    inflated = ReadToEnd(*gz, block);
  }
  Finish(state, inflated);
}

void BM_InflateGzip_ours_file(benchmark::State& state) {
  const GzipData& data = Data();
  std::vector<std::byte> block(READ_BYTES);
  uint64_t inflated = 0;
  for (auto _ : state) {
    auto file = oru::FileDataSource::Create(data.fileName);
    if (!file) {
      state.SkipWithError("cannot open the temporary file");
      return;
    }
    auto gz = oru::CompressedFileDataSource::Create(file, 0);
    inflated = ReadToEnd(*gz, block);
  }
  Finish(state, inflated);
}

void BM_InflateGzip_peer(benchmark::State& state) {
  const GzipData& data = Data();
  std::vector<unsigned char> out(data.rawSize + 1);
  std::memset(out.data(), 0, out.size());  // fault the pages in before timing
  uint64_t inflated = 0;
  for (auto _ : state) {
    z_stream zs{};
    if (inflateInit2(&zs, 16 + 15) != Z_OK) {
      state.SkipWithError("inflateInit2 failed");
      return;
    }
    zs.next_in = const_cast<Bytef*>(data.gzip.data());
    zs.avail_in = static_cast<uInt>(data.gzip.size());
    zs.next_out = out.data();
    zs.avail_out = static_cast<uInt>(out.size());
    const int rc = inflate(&zs, Z_FINISH);
    inflated = zs.total_out;
    inflateEnd(&zs);
    if (rc != Z_STREAM_END) {
      state.SkipWithError("inflate did not reach the end of the stream");
      return;
    }
    benchmark::DoNotOptimize(out.data());
    benchmark::ClobberMemory();
  }
  Finish(state, inflated);
}

// ---- one forward pass over 1 GiB ------------------------------------------------
//
// The 64 MiB of mixed content sixteen times over, as one gzip stream at level
// 1 in a temporary file (made once, on first use: some ten seconds). Ours
// reads it with CompressedFileDataSource in 64 KiB GetBytes calls, keeping
// 16 MiB (ours_bounded) or everything (ours_unbounded, the default); the peer
// is zlib's own streaming reader, gzread into the same 64 KiB block. The
// counter peak_rss_mb is the largest growth of the process's resident memory
// over the pass, sampled every 64 MiB read.

constexpr int PASS_COPIES = 16;

struct LargeGzip {
  std::string fileName;
  uint64_t rawSize = 0;

  LargeGzip() {
    const GzipData& data = Data();
    std::vector<unsigned char> raw(data.rawSize);
    z_stream zs{};
    if (inflateInit2(&zs, 16 + 15) != Z_OK) std::abort();
    zs.next_in = const_cast<Bytef*>(data.gzip.data());
    zs.avail_in = static_cast<uInt>(data.gzip.size());
    zs.next_out = raw.data();
    zs.avail_out = static_cast<uInt>(raw.size());
    if (inflate(&zs, Z_FINISH) != Z_STREAM_END) std::abort();
    inflateEnd(&zs);
    fileName = data.fileName + ".large.gz";
    gzFile out = gzopen(fileName.c_str(), "wb1");
    if (out == nullptr) std::abort();
    for (int i = 0; i < PASS_COPIES; ++i) {
      if (gzwrite(out, raw.data(), static_cast<unsigned>(raw.size())) !=
          static_cast<int>(raw.size()))
        std::abort();
    }
    gzclose(out);
    rawSize = uint64_t{PASS_COPIES} * raw.size();
  }
  ~LargeGzip() { std::remove(fileName.c_str()); }
};

const LargeGzip& Large() {
  static const LargeGzip large;
  return large;
}

uint64_t ResidentBytes() {
  long pages = 0, resident = 0;
  if (std::FILE* f = std::fopen("/proc/self/statm", "r")) {
    if (std::fscanf(f, "%ld %ld", &pages, &resident) != 2) resident = 0;
    std::fclose(f);
  }
  return static_cast<uint64_t>(resident) * static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
}

// Reads `next` to its end in 64 KiB pieces, tracking resident growth.
template <class Next>
void LargePass(benchmark::State& state, Next next) {
  Large();  // made before the first pass, so that its memory is not counted
  std::vector<std::byte> block(READ_BYTES);
  uint64_t peak = 0;
  uint64_t total = 0;
  for (auto _ : state) {
    const uint64_t before = ResidentBytes();
    total = 0;
    uint64_t sampleAt = 0;
    while (const uint64_t n = next(block)) {
      benchmark::DoNotOptimize(block.data());
      total += n;
      if (total >= sampleAt) {
        const uint64_t now = ResidentBytes();
        peak = std::max(peak, now > before ? now - before : 0);
        sampleAt += uint64_t{64} << 20;
      }
    }
  }
  if (total != Large().rawSize) state.SkipWithError("inflated size differs from the input");
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                          static_cast<int64_t>(Large().rawSize));
  state.counters["peak_rss_mb"] = static_cast<double>(peak) / (1 << 20);
}

void LargeOurs(benchmark::State& state, uint64_t memoryLimit) {
  std::shared_ptr<oru::CompressedFileDataSource> gz;
  LargePass(state, [&](std::vector<std::byte>& block) -> uint64_t {
    if (!gz) {
      gz = oru::CompressedFileDataSource::Create(oru::FileDataSource::Create(Large().fileName), 0);
      gz->SetMemoryLimit(memoryLimit);
    }
    const uint64_t n = gz->GetBytes(block.data(), block.size());
    if (n == 0) gz.reset();  // each pass starts a new source
    return n;
  });
}

void BM_InflateGzip1GiB_ours_bounded(benchmark::State& state) {
  LargeOurs(state, uint64_t{16} << 20);
}

void BM_InflateGzip1GiB_ours_unbounded(benchmark::State& state) {
  LargeOurs(state, 0);
}

void BM_InflateGzip1GiB_peer(benchmark::State& state) {
  gzFile in = nullptr;
  LargePass(state, [&](std::vector<std::byte>& block) -> uint64_t {
    if (in == nullptr) {
      in = gzopen(Large().fileName.c_str(), "rb");
      gzbuffer(in, 64 << 10);
    }
    const int n = gzread(in, block.data(), static_cast<unsigned>(block.size()));
    if (n <= 0) {
      gzclose(in);
      in = nullptr;
      return 0;
    }
    return static_cast<uint64_t>(n);
  });
}

BENCHMARK(BM_InflateGzip1GiB_ours_bounded)
    ->Name("BM_InflateGzip1GiB/ours_bounded")
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_InflateGzip1GiB_ours_unbounded)
    ->Name("BM_InflateGzip1GiB/ours_unbounded")
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_InflateGzip1GiB_peer)->Name("BM_InflateGzip1GiB/peer")->Unit(benchmark::kMillisecond);

BENCHMARK(BM_InflateGzip_ours_memory)->Name("BM_InflateGzip/ours_memory");
BENCHMARK(BM_InflateGzip_ours_file)->Name("BM_InflateGzip/ours_file");
BENCHMARK(BM_InflateGzip_peer)->Name("BM_InflateGzip/peer");

}  // namespace
