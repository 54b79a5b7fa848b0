// ZIP archives: ZipDataStream and ZipWriter against libzip, all in memory.
//
// The archives are made once, before any timing, by the `zip` command (3.0,
// default level 6, deflate) from files written to a temporary directory; their
// bytes are then held in memory and the directory removed.
//
// - BM_ZipExtractAll: 200 members of 300 KiB each (log-like text lines
//   interleaved with binary mesh blocks; 61,440,000 bytes that deflate to
//   about a third at level 6). Ours: a ZipDataStream
//   over one InMemoryDataSource holding the archive, ListContents, then
//   GetDataSourceForFile for every member; each member's bytes are reached
//   through GetDataBuffer. Peer: libzip over the same bytes
//   (zip_source_buffer_create + zip_open_from_source), zip_fopen_index +
//   zip_fread of every member into one preallocated, already touched buffer.
//   Both open the archive anew in every pass. Throughput counts member bytes.
// - BM_ZipLookup: 10,000 members of 100..400 bytes, looked up by name in a
//   fixed shuffled order. Ours inflates a member as part of every lookup
//   (GetDataSourceForFile returns the member's bytes), so the peer locates,
//   opens and reads each member too: zip_name_locate + zip_fopen_index +
//   zip_fread + zip_fclose. Ours matches names ignoring ASCII case; the peer
//   with the same semantics passes ZIP_FL_NOCASE (ours_nocase against peer).
//   BM_ZipLookupExact is the same job against libzip's case-sensitive lookup
//   (no flag), which is a different, narrower service; it has no target.
//   A new ZipDataStream is made in every pass, so the first lookups pay for
//   reading the central directory; libzip reads it in zip_open_from_source,
//   also timed. Throughput counts member bytes read.
// - BM_ZipBuild: the 200 members of the first job written into a new archive
//   in memory. Ours: ZipWriter::AddFile of an InMemoryDataSource per member
//   (made from the member's bytes in the pass, which copies them), then
//   GetDSForBuffer. Peer: libzip writing into a zip_source_buffer_create
//   (NULL, 0) target kept alive with zip_source_keep, opened with
//   ZIP_TRUNCATE; zip_source_buffer + zip_file_add per member with deflate at
//   level 6 (zlib's default, which ours uses) set by zip_set_file_compression;
//   zip_close, then the archive bytes are read out of the target source into a
//   std::string. Throughput counts member bytes written.
#include <benchmark/benchmark.h>
#include <unistd.h>
#include <zip.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <system_error>
#include <vector>

#include "oru/data_source.h"
#include "oru/zip_data_stream.h"
#include "oru/zip_writer.h"

namespace {

constexpr std::size_t BIG_MEMBERS = 200;
constexpr std::size_t BIG_MEMBER_BYTES = std::size_t{300} << 10;
constexpr std::size_t SMALL_MEMBERS = 10000;

struct Member {
  std::string name;
  std::string bytes;
};

struct Archive {
  std::vector<Member> members;
  std::string zip;     // the archive made by the zip command
  uint64_t total = 0;  // sum of member sizes
};

void AppendText(std::string& out, std::mt19937& rng, std::size_t bytes) {
  static const char* const LEVELS[] = {"INFO ", "INFO ", "INFO ", "DEBUG", "WARN "};
  static const char* const PATHS[] = {"/api/v1/items", "/api/v1/users", "/static/mesh",
                                      "/api/v1/search", "/health"};
  std::uniform_int_distribution<int> pick(0, 4);
  std::uniform_int_distribution<int> worker(1, 16);
  std::uniform_int_distribution<uint32_t> id;
  std::uniform_int_distribution<int> item(1, 250000);
  std::uniform_int_distribution<int> ms(1, 900);
  static unsigned clock = 0;
  char line[256];
  const std::size_t end = out.size() + bytes;
  while (out.size() < end) {
    ++clock;
    const int n = std::snprintf(line, sizeof line,
                                "2026-11-21 %02u:%02u:%02u.%03u %s [worker-%d] request id=%08x "
                                "path=%s/%d took %d ms\n",
                                (clock / 3600000) % 24, (clock / 60000) % 60, (clock / 1000) % 60,
                                clock % 1000, LEVELS[pick(rng)], worker(rng), id(rng),
                                PATHS[pick(rng)], item(rng), ms(rng));
    out.append(line, static_cast<std::size_t>(n));
  }
  out.resize(end);
}

// float32 positions on a smooth surface followed by uint32 triangle indices.
void AppendMesh(std::string& out, std::mt19937& rng, std::size_t bytes) {
  std::uniform_real_distribution<float> phase(0.0f, 6.28f);
  const float p = phase(rng);
  const std::size_t end = out.size() + bytes;
  uint32_t i = 0;
  while (out.size() + 12 <= end) {
    const float u = static_cast<float>(i % 64) / 64.0f;
    const float v = static_cast<float>(i / 64) / 64.0f;
    const float xyz[3] = {u, v, 0.25f * std::sin(6.0f * u + p) * std::cos(4.0f * v)};
    out.append(reinterpret_cast<const char*>(xyz), sizeof xyz);
    ++i;
    if (i % 256 == 0) {
      for (uint32_t k = 0; k < 24 && out.size() + 4 <= end; ++k) {
        const uint32_t index = i - 256 + (k * 7) % 256;
        out.append(reinterpret_cast<const char*>(&index), sizeof index);
      }
    }
  }
  out.resize(end, '\0');
}

bool WriteFile(const std::string& path, const std::string& bytes) {
  std::ofstream f(path, std::ios::binary);
  f.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  return static_cast<bool>(f);
}

// Writes the members under a temporary directory, zips it with the zip
// command (files only, stored paths relative to the directory) and keeps the
// archive bytes.
bool ZipWithCommand(Archive& archive) {
  char dirTemplate[] = "/tmp/oru_zip_bench_XXXXXX";
  const char* dir = mkdtemp(dirTemplate);
  if (!dir) return false;
  bool ok = true;
  for (const Member& m : archive.members) {
    const std::string path = std::string(dir) + "/" + m.name;
    std::error_code error;
    std::filesystem::create_directories(std::filesystem::path(path).parent_path(), error);
    ok = ok && WriteFile(path, m.bytes);
  }
  const std::string zipPath = std::string(dir) + ".zip";
  const std::string command = "cd '" + std::string(dir) + "' && zip -q -r -D '" + zipPath + "' .";
  ok = ok && std::system(command.c_str()) == 0;
  std::ifstream in(zipPath, std::ios::binary);
  std::ostringstream bytes;
  bytes << in.rdbuf();
  archive.zip = bytes.str();
  std::error_code error;
  std::filesystem::remove_all(dir, error);
  std::filesystem::remove(zipPath, error);
  return ok && !archive.zip.empty();
}

const Archive& BigArchive() {
  static const Archive archive = [] {
    Archive a;
    std::mt19937 rng(7);
    for (std::size_t i = 0; i < BIG_MEMBERS; ++i) {
      Member m;
      char name[64];
      std::snprintf(name, sizeof name, "scene_%02zu/part_%03zu.dat", i / 20, i);
      m.name = name;
      while (m.bytes.size() < BIG_MEMBER_BYTES) {
        const std::size_t left = BIG_MEMBER_BYTES - m.bytes.size();
        AppendText(m.bytes, rng, std::min<std::size_t>(left, 24 << 10));
        if (m.bytes.size() < BIG_MEMBER_BYTES) {
          AppendMesh(m.bytes, rng,
                     std::min<std::size_t>(BIG_MEMBER_BYTES - m.bytes.size(), 12 << 10));
        }
      }
      a.total += m.bytes.size();
      a.members.push_back(std::move(m));
    }
    if (!ZipWithCommand(a)) a.zip.clear();
    return a;
  }();
  return archive;
}

const Archive& SmallArchive() {
  static const Archive archive = [] {
    Archive a;
    std::mt19937 rng(11);
    std::uniform_int_distribution<int> length(100, 400);
    std::uniform_int_distribution<int> value(0, 99999);
    for (std::size_t i = 0; i < SMALL_MEMBERS; ++i) {
      Member m;
      char name[64];
      std::snprintf(name, sizeof name, "Catalog_%02zu/Item_%05zu.json", i % 100, i);
      m.name = name;
      const std::size_t want = static_cast<std::size_t>(length(rng));
      char field[96];
      int k = 0;
      m.bytes = "{";
      while (m.bytes.size() < want) {
        const int n = std::snprintf(field, sizeof field, "\"field_%d\": %d, ", k++, value(rng));
        m.bytes.append(field, static_cast<std::size_t>(n));
      }
      m.bytes.resize(want);
      m.bytes += "}\n";
      a.total += m.bytes.size();
      a.members.push_back(std::move(m));
    }
    if (!ZipWithCommand(a)) a.zip.clear();
    return a;
  }();
  return archive;
}

// The names of the small archive in a fixed random order.
const std::vector<std::string>& ShuffledNames() {
  static const std::vector<std::string> names = [] {
    std::vector<std::string> n;
    for (const Member& m : SmallArchive().members) n.push_back(m.name);
    std::shuffle(n.begin(), n.end(), std::mt19937(3));
    return n;
  }();
  return names;
}

// The bytes of a member: the block of the in-memory source the reader returns.
const std::byte* MemberBytes(const std::shared_ptr<oru::DataSource>& member) {
  auto* memory = dynamic_cast<oru::InMemoryDataSource*>(member.get());
  return memory ? memory->GetDataBuffer() : nullptr;
}

// True when every member of `archive` comes back from `source` byte for byte.
bool MembersMatch(const std::shared_ptr<oru::InMemoryDataSource>& source, const Archive& archive) {
  auto zip = oru::ZipDataStream::Create(source);
  for (const Member& m : archive.members) {
    auto member = zip->GetDataSourceForFile(m.name);
    const std::byte* bytes = member ? MemberBytes(member) : nullptr;
    if (!bytes || member->GetFileSize() != m.bytes.size() ||
        std::memcmp(bytes, m.bytes.data(), m.bytes.size()) != 0)
      return false;
  }
  return true;
}

// The timed work of ours: every named member, inflated whole.
bool ExtractEach(oru::ZipDataStream& zip, const std::vector<std::string>& names) {
  for (const std::string& name : names) {
    auto member = zip.GetDataSourceForFile(name);
    const std::byte* bytes = member ? MemberBytes(member) : nullptr;
    if (!bytes) return false;
    benchmark::DoNotOptimize(bytes);
    benchmark::ClobberMemory();
  }
  return true;
}

zip_t* OpenWithLibzip(const std::string& bytes) {
  zip_error_t error;
  zip_error_init(&error);
  zip_source_t* src = zip_source_buffer_create(bytes.data(), bytes.size(), 0, &error);
  zip_t* za = src ? zip_open_from_source(src, ZIP_RDONLY, &error) : nullptr;
  if (src && !za) zip_source_free(src);
  zip_error_fini(&error);
  return za;
}

// ---- extract every member -----------------------------------------------------

void BM_ZipExtractAll_ours(benchmark::State& state) {
  const Archive& archive = BigArchive();
  if (archive.zip.empty()) {
    state.SkipWithError("could not make the archive with the zip command");
    return;
  }
  auto source = oru::InMemoryDataSource::Create(archive.zip.data(), archive.zip.size(), false);
  // Outside the timed loop: every member comes back whole and correct.
  if (!MembersMatch(source, archive)) {
    state.SkipWithError("ZipDataStream gave a different member");
    return;
  }
  std::vector<std::string> names;
  for (auto _ : state) {
    auto zip = oru::ZipDataStream::Create(source);
    names.clear();
    zip->ListContents(&names);
    if (!ExtractEach(*zip, names)) {
      state.SkipWithError("member missing");
      return;
    }
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                          static_cast<int64_t>(archive.total));
}

void BM_ZipExtractAll_peer(benchmark::State& state) {
  const Archive& archive = BigArchive();
  if (archive.zip.empty()) {
    state.SkipWithError("could not make the archive with the zip command");
    return;
  }
  std::vector<char> buffer(BIG_MEMBER_BYTES, 1);  // preallocated and touched
  for (auto _ : state) {
    zip_t* za = OpenWithLibzip(archive.zip);
    if (!za) {
      state.SkipWithError("libzip could not open the archive");
      return;
    }
    const zip_int64_t count = zip_get_num_entries(za, 0);
    for (zip_int64_t i = 0; i < count; ++i) {
      zip_stat_t st;
      if (zip_stat_index(za, static_cast<zip_uint64_t>(i), 0, &st) != 0) break;
      if (st.size > buffer.size()) buffer.resize(st.size);
      zip_file_t* f = zip_fopen_index(za, static_cast<zip_uint64_t>(i), 0);
      if (!f) {
        state.SkipWithError("libzip could not open a member");
        return;
      }
      const zip_int64_t n = zip_fread(f, buffer.data(), st.size);
      zip_fclose(f);
      if (n != static_cast<zip_int64_t>(st.size)) {
        state.SkipWithError("libzip short read");
        return;
      }
      benchmark::DoNotOptimize(buffer.data());
      benchmark::ClobberMemory();
    }
    zip_discard(za);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                          static_cast<int64_t>(archive.total));
}

// ---- look up every member by name ---------------------------------------------

void BM_ZipLookup_ours(benchmark::State& state) {
  const Archive& archive = SmallArchive();
  if (archive.zip.empty()) {
    state.SkipWithError("could not make the archive with the zip command");
    return;
  }
  const std::vector<std::string>& names = ShuffledNames();
  auto source = oru::InMemoryDataSource::Create(archive.zip.data(), archive.zip.size(), false);
  // Outside the timed loop: every member comes back whole and correct.
  if (!MembersMatch(source, archive)) {
    state.SkipWithError("ZipDataStream gave a different member");
    return;
  }
  for (auto _ : state) {
    auto zip = oru::ZipDataStream::Create(source);
    if (!ExtractEach(*zip, names)) {
      state.SkipWithError("member missing");
      return;
    }
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                          static_cast<int64_t>(archive.total));
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) *
                          static_cast<int64_t>(names.size()));
}

void LookupWithLibzip(benchmark::State& state, zip_flags_t locateFlags) {
  const Archive& archive = SmallArchive();
  if (archive.zip.empty()) {
    state.SkipWithError("could not make the archive with the zip command");
    return;
  }
  const std::vector<std::string>& names = ShuffledNames();
  std::vector<char> buffer(4096, 1);
  for (auto _ : state) {
    zip_t* za = OpenWithLibzip(archive.zip);
    if (!za) {
      state.SkipWithError("libzip could not open the archive");
      return;
    }
    for (const std::string& name : names) {
      const zip_int64_t index = zip_name_locate(za, name.c_str(), locateFlags);
      zip_stat_t st;
      if (index < 0 || zip_stat_index(za, static_cast<zip_uint64_t>(index), 0, &st) != 0) {
        state.SkipWithError("libzip could not find a member");
        return;
      }
      if (st.size > buffer.size()) buffer.resize(st.size);
      zip_file_t* f = zip_fopen_index(za, static_cast<zip_uint64_t>(index), 0);
      const zip_int64_t n = f ? zip_fread(f, buffer.data(), st.size) : -1;
      if (f) zip_fclose(f);
      if (n != static_cast<zip_int64_t>(st.size)) {
        state.SkipWithError("libzip short read");
        return;
      }
      benchmark::DoNotOptimize(buffer.data());
      benchmark::ClobberMemory();
    }
    zip_discard(za);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                          static_cast<int64_t>(archive.total));
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) *
                          static_cast<int64_t>(names.size()));
}

void BM_ZipLookup_peer(benchmark::State& state) {
  LookupWithLibzip(state, ZIP_FL_NOCASE);
}
void BM_ZipLookupExact_peer(benchmark::State& state) {
  LookupWithLibzip(state, 0);
}

// ---- build an archive ---------------------------------------------------------

void BM_ZipBuild_ours(benchmark::State& state) {
  const Archive& archive = BigArchive();
  uint64_t size = 0;
  for (auto _ : state) {
    oru::ZipWriter writer;
    for (const Member& m : archive.members) {
      if (!writer.AddFile(oru::InMemoryDataSource::Create(m.bytes.data(), m.bytes.size(), false),
                          m.name)) {
        state.SkipWithError("AddFile refused a member");
        return;
      }
    }
    auto zip = writer.GetDSForBuffer();
    size = zip->GetFileSize();
    benchmark::DoNotOptimize(zip);
  }
  state.counters["archive_bytes"] = static_cast<double>(size);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                          static_cast<int64_t>(archive.total));
}

// Writes the archive with libzip into memory and returns its bytes (empty on
// failure).
std::string BuildWithLibzip(const Archive& archive) {
  zip_error_t error;
  zip_error_init(&error);
  std::string out;
  zip_source_t* target = zip_source_buffer_create(nullptr, 0, 0, &error);
  if (!target) return out;
  zip_source_keep(target);  // still ours after zip_close
  zip_t* za = zip_open_from_source(target, ZIP_TRUNCATE, &error);
  bool ok = za != nullptr;
  for (const Member& m : archive.members) {
    if (!ok) break;
    zip_source_t* src = zip_source_buffer(za, m.bytes.data(), m.bytes.size(), 0);
    const zip_int64_t index = src ? zip_file_add(za, m.name.c_str(), src, ZIP_FL_ENC_UTF_8) : -1;
    if (index < 0) {
      if (src) zip_source_free(src);
      ok = false;
      break;
    }
    ok = zip_set_file_compression(za, static_cast<zip_uint64_t>(index), ZIP_CM_DEFLATE, 6) == 0;
  }
  if (za) {
    if (!ok || zip_close(za) != 0) {
      zip_discard(za);
      ok = false;
    }
  }
  zip_stat_t st;
  zip_stat_init(&st);
  if (ok && zip_source_stat(target, &st) == 0 && (st.valid & ZIP_STAT_SIZE) &&
      zip_source_open(target) == 0) {
    out.resize(st.size);
    const zip_int64_t n = zip_source_read(target, out.data(), st.size);
    if (n != static_cast<zip_int64_t>(st.size)) out.clear();
    zip_source_close(target);
  }
  zip_source_free(target);
  zip_error_fini(&error);
  return out;
}

void BM_ZipBuild_peer(benchmark::State& state) {
  const Archive& archive = BigArchive();
  {  // Outside the timed loop: the archive libzip wrote reads back whole.
    const std::string built = BuildWithLibzip(archive);
    auto zip = oru::ZipDataStream::Create(
        oru::InMemoryDataSource::Create(built.data(), built.size(), false));
    auto last = zip->GetDataSourceForFile(archive.members.back().name);
    if (!last || last->GetFileSize() != archive.members.back().bytes.size()) {
      state.SkipWithError("libzip wrote an archive that does not read back");
      return;
    }
  }
  uint64_t size = 0;
  for (auto _ : state) {
    const std::string built = BuildWithLibzip(archive);
    if (built.empty()) {
      state.SkipWithError("libzip could not write the archive");
      return;
    }
    size = built.size();
    benchmark::DoNotOptimize(built.data());
  }
  state.counters["archive_bytes"] = static_cast<double>(size);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                          static_cast<int64_t>(archive.total));
}

}  // namespace

BENCHMARK(BM_ZipExtractAll_ours)
    ->Name("BM_ZipExtractAll/ours_datastream")
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ZipExtractAll_peer)->Name("BM_ZipExtractAll/peer")->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ZipLookup_ours)->Name("BM_ZipLookup/ours_nocase")->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ZipLookup_peer)->Name("BM_ZipLookup/peer")->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ZipLookup_ours)->Name("BM_ZipLookupExact/ours_nocase")->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ZipLookupExact_peer)->Name("BM_ZipLookupExact/peer")->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ZipBuild_ours)->Name("BM_ZipBuild/ours_zipwriter")->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ZipBuild_peer)->Name("BM_ZipBuild/peer")->Unit(benchmark::kMillisecond);
