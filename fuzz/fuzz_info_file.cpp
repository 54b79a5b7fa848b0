// The data cache's start-up over an arbitrary info file: whatever the file
// says, the cache must come up without crashing or hanging, touch nothing
// outside its directory, and serve only files it found there, each with the
// bytes that file holds.
#include <oru/data_cache.h>
#include <oru/file_system.h>

#include <unistd.h>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

namespace {

namespace fs = std::filesystem;

const fs::path& Area() {
  static const fs::path area = [] {
    char pattern[] = "/tmp/oru_fuzz_info_XXXXXX";
    const fs::path p = mkdtemp(pattern);
    setenv("XDG_CACHE_HOME", p.c_str(), 1);  // the native file system's working area
    return p;
  }();
  return area;
}

void Write(const fs::path& path, const void* data, size_t size) {
  std::FILE* f = std::fopen(path.c_str(), "wb");
  if (f == nullptr) __builtin_trap();
  std::fwrite(data, 1, size, f);
  std::fclose(f);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const fs::path dir = Area() / "QD_FileCache";
  fs::remove_all(dir);
  fs::create_directories(dir);
  // A file outside the directory that a hostile "../" name could reach.
  Write(Area() / "outside", "keep", 4);
  for (int i = 0; i < 4; ++i) {
    const std::string bytes = "file " + std::to_string(i);
    Write(dir / std::to_string(i), bytes.data(), bytes.size());
  }
  Write(dir / "info.txt", data, size);

  auto cache = oru::DataCache::Create(oru::CreateNativeFileSystem(), 1 << 20);
  cache->Initialize();
  std::vector<oru::DataCache::InfoContent> content;
  if (!cache->GetInfoFileContent(content)) __builtin_trap();
  for (const auto& entry : content) {
    std::shared_ptr<oru::DataSource> src;
    cache->GetFile(entry.name, [&src](std::shared_ptr<oru::DataSource> const& s,
                                      std::string const&) { src = s; });
    if (!src) __builtin_trap();
    // Every served file is one of the four, with its own bytes.
    char buffer[16] = {};
    const uint64_t n = src->GetBytes(reinterpret_cast<std::byte*>(buffer), sizeof buffer);
    if (n != 6 || std::string(buffer, 5) != "file ") __builtin_trap();
  }
  cache->FinaliseCache();
  if (!fs::exists(Area() / "outside")) __builtin_trap();
  return 0;
}
