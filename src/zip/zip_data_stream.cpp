#include "oru/zip_data_stream.h"

#include <minizip/unzip.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <climits>
#include <cstdio>
#include <map>
#include <mutex>
#include <unordered_map>

#include "oru/file_data_source.h"
#include "oru/make_shared_enabler.h"
#include "zip/minizip_bridge.h"

namespace oru {

namespace {

constexpr char URL_PREFIX[] = "zipdatastream://";
constexpr size_t URL_PREFIX_LENGTH = sizeof(URL_PREFIX) - 1;
constexpr char DISPLAY_PREFIX[] = "_qd_zip://";
constexpr uLong NAME_BUFFER = 2048;
constexpr uint64_t MAX_DEFLATE_RATIO = 1032;
// Any non-null value: the source is already open, minizip only needs a handle.
void* const OPEN_TOKEN = reinterpret_cast<void*>(1);

std::atomic<uint64_t> s_nextId{0};

// The process-wide registry of archives by id. Never destroyed, so lookups
// during static destruction stay safe.
struct Registry {
  std::mutex mutex;
  std::unordered_map<std::string, std::weak_ptr<ZipDataStream>> archives;
};

Registry& TheRegistry() {
  static Registry* registry = new Registry;
  return *registry;
}

std::string LowerAscii(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

}  // namespace

struct ZipDataStream::Unzipper {
  std::shared_ptr<DataSource> source;
  std::map<std::string, unz64_file_pos> tocIndex;
  bool tocComplete = false;
  unzFile zipHandle = nullptr;
  unz64_file_pos lastScanned{};
  std::string uniqueId;

  explicit Unzipper(const std::shared_ptr<DataSource>& src)
      : source(src), uniqueId(URL_PREFIX + std::to_string(s_nextId.fetch_add(1))) {
    if (!source) return;
    zlib_filefunc64_def functions = detail::MinizipFunctions(this);
    zipHandle = unzOpen2_64(nullptr, &functions);
  }

  ~Unzipper() {
    if (zipHandle != nullptr) unzClose(zipHandle);
  }

  // ---- the I/O bridge from minizip to the source --------------------------

  static voidpf ZCALLBACK Open(voidpf, const void*, int) { return OPEN_TOKEN; }

  static uLong ZCALLBACK Read(voidpf opaque, voidpf, void* buffer, uLong size) {
    auto* self = static_cast<Unzipper*>(opaque);
    try {
      return static_cast<uLong>(self->source->GetBytes(static_cast<std::byte*>(buffer), size));
    } catch (...) {
      // An exception must not cross minizip's C frames; a failed read is
      // reported as nothing read.
      return 0;
    }
  }

  static uLong ZCALLBACK Write(voidpf, voidpf, const void*, uLong) { return 0; }

  static ZPOS64_T ZCALLBACK Tell(voidpf opaque, voidpf) {
    return static_cast<Unzipper*>(opaque)->source->GetOffset();
  }

  static long ZCALLBACK Seek(voidpf opaque, voidpf, ZPOS64_T offset, int origin) {
    SeekOrigin o;
    switch (origin) {
      case ZLIB_FILEFUNC_SEEK_SET:
        o = DS_SEEK_SET;
        break;
      case ZLIB_FILEFUNC_SEEK_CUR:
        o = DS_SEEK_CUR;
        break;
      case ZLIB_FILEFUNC_SEEK_END:
        o = DS_SEEK_END;
        break;
      default:
        return -1;
    }
    return static_cast<Unzipper*>(opaque)->source->Seek(static_cast<int64_t>(offset), o);
  }

  static int ZCALLBACK Close(voidpf, voidpf) { return 0; }
  static int ZCALLBACK TestError(voidpf, voidpf) { return 0; }

  // ---- the lazy table of contents -----------------------------------------

  // The name of the current entry (cut at 2048 bytes), or false on error.
  bool CurrentName(std::string* name, unz_file_info64* info) {
    char buffer[NAME_BUFFER];
    if (unzGetCurrentFileInfo64(zipHandle, info, buffer, NAME_BUFFER, nullptr, 0, nullptr, 0) !=
        UNZ_OK)
      return false;
    name->assign(buffer, std::min<uLong>(info->size_filename, NAME_BUFFER));
    return true;
  }

  // Positions minizip on the member `wanted` (already lower case).
  bool Locate(const std::string& wanted) {
    if (zipHandle == nullptr) return false;
    auto known = tocIndex.find(wanted);
    if (known != tocIndex.end()) return unzGoToFilePos64(zipHandle, &known->second) == UNZ_OK;
    if (tocComplete) return false;

    int rc;
    if (!tocIndex.empty()) {
      rc = unzGoToFilePos64(zipHandle, &lastScanned);
      if (rc == UNZ_OK) rc = unzGoToNextFile(zipHandle);
    } else {
      rc = unzGoToFirstFile(zipHandle);
    }
    while (rc == UNZ_OK) {
      std::string name;
      unz_file_info64 info;
      unz64_file_pos position;
      if (!CurrentName(&name, &info) || unzGetFilePos64(zipHandle, &position) != UNZ_OK) break;
      name = LowerAscii(std::move(name));
      tocIndex.emplace(name, position);  // the first entry of a duplicated name wins
      lastScanned = position;
      if (name == wanted) return true;
      rc = unzGoToNextFile(zipHandle);
    }
    tocComplete = true;
    return false;
  }

  // A declared size that the member's compressed bytes could never produce
  // (deflate expands at most 1032 times; stored data not at all) marks a
  // lying entry: without this check a tiny archive could make every request
  // allocate gigabytes of zeros.
  static bool IsPossibleSize(const unz_file_info64& info) {
    const uint64_t packed = info.compressed_size;
    const uint64_t size = info.uncompressed_size;
    if (info.compression_method == 0) return size <= packed;
    if (info.compression_method == Z_DEFLATED)
      return packed >= (UINT64_MAX - 1024) / MAX_DEFLATE_RATIO ||
             size <= packed * MAX_DEFLATE_RATIO + 1024;
    return true;
  }

  std::shared_ptr<DataSource> Extract(std::string member) {
    std::replace(member.begin(), member.end(), '\\', '/');
    if (!Locate(LowerAscii(std::move(member)))) return {};
    if (unzOpenCurrentFile(zipHandle) != UNZ_OK) return {};
    std::shared_ptr<InMemoryDataSource> result;
    unz_file_info64 info;
    if (unzGetCurrentFileInfo64(zipHandle, &info, nullptr, 0, nullptr, 0, nullptr, 0) == UNZ_OK &&
        IsPossibleSize(info)) {
      result = InMemoryDataSource::Create(static_cast<uint64_t>(info.uncompressed_size),
                                          source->IsTempFile());
      // A declared size that could not be allocated gives an empty block.
      if (result->GetDataBuffer() == nullptr && info.uncompressed_size != 0) result.reset();
    }
    if (result) {
      auto* out = const_cast<std::byte*>(result->GetDataBuffer());
      uint64_t done = 0;
      const uint64_t size = result->GetFileSize();
      while (done < size) {
        const auto want = static_cast<unsigned>(std::min<uint64_t>(size - done, INT_MAX));
        const int got = unzReadCurrentFile(zipHandle, out + done, want);
        if (got <= 0) break;  // corrupt or cut short: the tail stays zero
        done += static_cast<uint64_t>(got);
      }
    }
    unzCloseCurrentFile(zipHandle);
    if (result) result->SetTimeStamp(source->GetTimeStamp());
    return result;
  }
};

std::shared_ptr<ZipDataStream> ZipDataStream::Create(const std::shared_ptr<DataSource>& source) {
  std::shared_ptr<ZipDataStream> archive =
      std::make_shared<make_shared_enabler<ZipDataStream>>(source);
  Registry& registry = TheRegistry();
  std::lock_guard<std::mutex> lock(registry.mutex);
  registry.archives[archive->GetUniqueId()] = archive;
  return archive;
}

ZipDataStream::ZipDataStream(const std::shared_ptr<DataSource>& source)
    : unzipper(std::make_unique<Unzipper>(source)) {}

ZipDataStream::~ZipDataStream() = default;

bool ZipDataStream::IsValid() const {
  return unzipper->zipHandle != nullptr;
}

const std::string& ZipDataStream::GetUniqueId() const {
  return unzipper->uniqueId;
}

namespace {
std::string FileNameOf(const DataSource* source) {
  auto* file = dynamic_cast<const FileDataSource*>(source);
  return file ? file->GetFileName() : std::string();
}
}  // namespace

std::string ZipDataStream::GetZipFileName() {
  return FileNameOf(unzipper->source.get());
}

std::string ZipDataStream::ComponentUrl(BasicStringSpan<const char> member) const {
  const std::string name = FileNameOf(unzipper->source.get());
  if (name.empty()) return member.str();
  return DISPLAY_PREFIX + name + "/" + member.str();
}

bool ZipDataStream::ListContents(std::vector<std::string>* out) {
  Unzipper& u = *unzipper;
  unz_global_info64 global;
  if (unzGetGlobalInfo64(u.zipHandle, &global) != UNZ_OK) {
    const std::string line = "Failed to get ToC for ZIP file \"" + u.uniqueId + "\"\n";
    std::fwrite(line.data(), 1, line.size(), stderr);
    return false;
  }
  if (unzGoToFirstFile(u.zipHandle) != UNZ_OK) return false;
  do {
    std::string name;
    unz_file_info64 info;
    if (!u.CurrentName(&name, &info)) break;
    out->push_back(std::move(name));
  } while (unzGoToNextFile(u.zipHandle) == UNZ_OK);
  return true;
}

std::shared_ptr<DataSource> ZipDataStream::GetDataSourceForFile(
    BasicStringSpan<const char> member) {
  return unzipper->Extract(member.str());
}

std::string ZipDataStream::GetTimeStamp(BasicStringSpan<const char>) const {
  return unzipper->source ? unzipper->source->GetTimeStamp() : std::string();
}

std::string ZipDataStream::ExtractFileName(BasicStringSpan<const char> url) {
  const std::string_view text = url;
  if (text.size() >= URL_PREFIX_LENGTH && text.substr(0, URL_PREFIX_LENGTH) == URL_PREFIX) {
    const size_t slash = text.find('/', URL_PREFIX_LENGTH + 1);
    if (slash != std::string_view::npos) return std::string(text.substr(slash + 1));
  }
  return std::string(text);
}

std::shared_ptr<ZipDataStream> ZipDataStream::FindDataStream(BasicStringSpan<const char> id) {
  Registry& registry = TheRegistry();
  std::lock_guard<std::mutex> lock(registry.mutex);
  auto it = registry.archives.find(std::string(id.begin(), id.end()));
  return it != registry.archives.end() ? it->second.lock() : nullptr;
}

std::shared_ptr<DataSource> ZipDataStream::FindDataSource(BasicStringSpan<const char> url) {
  // The prefix itself is not compared: the key is everything up to the first
  // slash after the prefix's length, and must name a registered archive.
  const std::string_view text = url;
  const size_t slash = text.find('/', URL_PREFIX_LENGTH);
  if (slash == std::string_view::npos) return {};
  const std::string_view key = text.substr(0, slash);
  const std::string_view member = text.substr(slash + 1);
  if (key.empty() || member.empty()) return {};
  auto archive = FindDataStream(key);
  return archive ? archive->GetDataSourceForFile(member) : nullptr;
}

}  // namespace oru
