#include "oru/zip_data_stream.h"

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cstdio>
#include <mutex>
#include <new>
#include <unordered_map>

#include "oru/file_data_source.h"
#include "oru/make_shared_enabler.h"
#include "text/echo_text.h"
#include "zip/member_codec.h"
#include "zip/zip_directory.h"

namespace oru {

namespace {

constexpr char URL_PREFIX[] = "zipdatastream://";
constexpr size_t URL_PREFIX_LENGTH = sizeof(URL_PREFIX) - 1;
constexpr char DISPLAY_PREFIX[] = "_qd_zip://";
constexpr uint64_t MAX_DEFLATE_RATIO = 1032;
constexpr uint16_t STORED = 0;
constexpr uint16_t DEFLATED = 8;
constexpr uint16_t ENCRYPTED_FLAG = 1;
constexpr uint64_t INPUT_CHUNK = 64 * 1024;

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

// The form names are compared in: ASCII lower case, "/" between directories.
std::string LookupKey(std::string text) {
  for (char& c : text) {
    c = c == '\\' ? '/' : static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  }
  return text;
}

// A declared size that the member's compressed bytes could never produce
// (deflate expands at most 1032 times; stored data not at all) marks a lying
// entry: without this check a tiny archive could make every request allocate
// gigabytes of zeros.
bool IsPossibleSize(const detail::ZipEntry& entry) {
  const uint64_t packed = entry.compressedSize;
  if (entry.method == STORED) return entry.size <= packed;
  return packed >= (UINT64_MAX - 1024) / MAX_DEFLATE_RATIO ||
         entry.size <= packed * MAX_DEFLATE_RATIO + 1024;
}

// Sizes `buffer` to `n` bytes; false when there is no memory for them.
bool Reserve(std::vector<unsigned char>& buffer, uint64_t n) {
  try {
    buffer.resize(static_cast<size_t>(n));
    return true;
  } catch (const std::bad_alloc&) {
    return false;
  }
}

}  // namespace

struct ZipDataStream::Unzipper {
  std::shared_ptr<DataSource> source;
  detail::ZipSourceReader reader;
  detail::ZipDirectoryBounds bounds;
  bool valid = false;
  bool directoryRead = false;
  std::vector<detail::ZipEntry> entries;
  // Lookup key to the index of the first entry of that name.
  std::unordered_map<std::string, size_t> tocIndex;
  std::string uniqueId;

  explicit Unzipper(const std::shared_ptr<DataSource>& src)
      : source(src), reader(src), uniqueId(URL_PREFIX + std::to_string(s_nextId.fetch_add(1))) {
    valid = source && detail::FindZipDirectory(reader, &bounds);
  }

  // The directory is read once, whole, on first need: which members overlap
  // can only be told from all of them.
  void ReadDirectory() {
    if (directoryRead || !valid) return;
    directoryRead = true;
    entries = detail::ReadZipDirectory(reader, bounds);
    tocIndex.reserve(entries.size());
    for (size_t i = 0; i < entries.size(); ++i) tocIndex.emplace(LookupKey(entries[i].name), i);
  }

  const detail::ZipEntry* Locate(const std::string& member) {
    ReadDirectory();
    const auto known = tocIndex.find(LookupKey(member));
    return known != tocIndex.end() ? &entries[known->second] : nullptr;
  }

  // Raw deflate from `packed` bytes at `at` into exactly `size` bytes; false
  // when the stream is corrupt or ends before filling them. Compressed bytes
  // that are in memory, or few enough to read whole, are inflated in one go;
  // a stream far longer than its member (possible: deflate allows empty
  // blocks) is fed to zlib in chunks, so it is never held whole.
  bool Inflate(uint64_t at, uint64_t packed, unsigned char* out, uint64_t size) {
    if (const unsigned char* inPlace = reader.InPlace(at, packed))
      return detail::InflateMember(inPlace, packed, out, size);
    std::vector<unsigned char> chunk;
    if (packed <= size + size / 1024 + INPUT_CHUNK && Reserve(chunk, packed)) {
      return reader.ReadAt(at, chunk.data(), packed) &&
             detail::InflateMember(chunk.data(), packed, out, size);
    }
    uint64_t fed = 0;
    return detail::InflateMemberZlib(
        [&](const unsigned char*& piece, uint64_t& n) {
          n = std::min<uint64_t>(packed - fed, INPUT_CHUNK);
          chunk.resize(static_cast<size_t>(n));
          piece = chunk.data();
          if (!reader.ReadAt(at + fed, chunk.data(), n)) return false;
          fed += n;
          return true;
        },
        out, size);
  }

  // The member's bytes, checked against its CRC-32; null with the reason in
  // `*why` when they cannot be had or trusted.
  std::shared_ptr<InMemoryDataSource> Read(const detail::ZipEntry& entry, std::string* why) {
    uint64_t dataStart = 0;
    if (entry.defect != nullptr) {
      *why = entry.defect;
    } else if ((entry.flags & ENCRYPTED_FLAG) != 0) {
      *why = "encrypted";
    } else if (entry.method != STORED && entry.method != DEFLATED) {
      *why = "compression method " + std::to_string(entry.method);
    } else if (!detail::FindZipEntryData(reader, entry, &dataStart)) {
      *why = "no local header";
    } else if (dataStart > reader.Size() || entry.compressedSize > reader.Size() - dataStart) {
      *why = "data cut short";
    } else if (!IsPossibleSize(entry)) {
      *why = "declared size impossible for its compressed data";
    }
    if (!why->empty()) return nullptr;
    auto result = InMemoryDataSource::Create(entry.size, source->IsTempFile());
    auto* out = reinterpret_cast<unsigned char*>(const_cast<std::byte*>(result->GetDataBuffer()));
    if (out == nullptr && entry.size != 0) {
      *why = "not enough memory";
      return nullptr;
    }
    const bool complete = entry.method == STORED
                              ? reader.ReadAt(dataStart, out, entry.size)
                              : Inflate(dataStart, entry.compressedSize, out, entry.size);
    if (!complete) {
      *why = "corrupt data";
    } else if (detail::Crc32(out, entry.size) != entry.crc) {
      *why = "CRC-32 mismatch";
    }
    if (!why->empty()) return nullptr;
    return result;
  }

  std::shared_ptr<DataSource> Extract(const std::string& member) {
    const detail::ZipEntry* entry = Locate(member);
    if (entry == nullptr) return nullptr;
    std::string why;
    std::shared_ptr<InMemoryDataSource> result = Read(*entry, &why);
    if (!result) {
      const std::string line = "Cannot read ZIP member \"" + detail::EchoText(entry->name) +
                               "\" of \"" + uniqueId + "\" (" + why + ").\n";
      std::fwrite(line.data(), 1, line.size(), stderr);
      return nullptr;
    }
    result->SetTimeStamp(source->GetTimeStamp());
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
  return unzipper->valid;
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
  if (!u.valid) {
    const std::string line = "Failed to get ToC for ZIP file \"" + u.uniqueId + "\"\n";
    std::fwrite(line.data(), 1, line.size(), stderr);
    return false;
  }
  u.ReadDirectory();
  for (const detail::ZipEntry& entry : u.entries) out->push_back(entry.name);
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
