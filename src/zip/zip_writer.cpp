#include "oru/zip_writer.h"

#include <minizip/zip.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <list>
#include <string>
#include <unordered_set>

#include "zip/member_codec.h"
#include "zip/minizip_bridge.h"

namespace oru {

namespace {

void* const OPEN_TOKEN = reinterpret_cast<void*>(1);
constexpr uint64_t MIN_BLOCK = 4096;
constexpr size_t MAX_NAME = 65535;
constexpr uint64_t MAX_MEMBER = 0xFFFFFFFFull;  // the write count is 32 bits
constexpr int DEFLATE_LEVEL = 6;

// Members with these extensions are already compressed: store them.
bool IsStoredExtension(const std::string& name) {
  static const std::unordered_set<std::string> s_stored = {"qdz", "edz",  "ol",  "qds",
                                                           "jpg", "jpeg", "png", "tga"};
  const size_t dot = name.rfind('.');
  if (dot == std::string::npos) return false;
  std::string ext = name.substr(dot + 1);
  for (char& c : ext) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return s_stored.count(ext) != 0;
}

}  // namespace

struct ORU_LOCAL ZipWriter::Impl {
  struct Buffer {
    std::string bytes;  // its size is the block's capacity
    uint64_t pos = 0;   // where the next write goes
    uint64_t len = 0;   // the highest position ever written
  };
  using Blocks = std::list<std::shared_ptr<Buffer>>;

  Blocks blocks;
  Blocks::iterator cursor = blocks.end();
  zipFile zipHandle = nullptr;

  ~Impl() {
    if (zipHandle != nullptr) zipClose(zipHandle, nullptr);
  }

  // ---- the I/O bridge from minizip to the blocks --------------------------

  static voidpf ZCALLBACK Open(voidpf, const void*, int) { return OPEN_TOKEN; }
  static uLong ZCALLBACK Read(voidpf, voidpf, void*, uLong) { return 0; }

  static uLong ZCALLBACK Write(voidpf opaque, voidpf, const void* data, uLong n) {
    Impl& self = *static_cast<Impl*>(opaque);
    const auto* src = static_cast<const char*>(data);
    uint64_t remaining = n;
    while (remaining > 0 && self.cursor != self.blocks.end()) {
      Buffer& b = **self.cursor;
      const uint64_t k = std::min<uint64_t>(b.bytes.size() - b.pos, remaining);
      std::memcpy(b.bytes.data() + b.pos, src, static_cast<size_t>(k));
      b.pos += k;
      b.len = std::max(b.len, b.pos);
      src += k;
      remaining -= k;
      if (b.pos == b.bytes.size()) {
        ++self.cursor;
        if (self.cursor != self.blocks.end()) (*self.cursor)->pos = 0;
      }
    }
    if (remaining > 0) {
      auto block = std::make_shared<Buffer>();
      block->bytes.assign(static_cast<size_t>(std::max(MIN_BLOCK, remaining)), '\0');
      std::memcpy(block->bytes.data(), src, static_cast<size_t>(remaining));
      block->pos = block->len = remaining;
      self.blocks.push_back(std::move(block));
      self.cursor = std::prev(self.blocks.end());
    }
    return n;
  }

  // The length written so far, not the cursor's position: minizip asks for
  // it to learn where the next record starts (kept: minizip's offsets depend on it).
  static ZPOS64_T ZCALLBACK Tell(voidpf opaque, voidpf) {
    const Impl& self = *static_cast<Impl*>(opaque);
    uint64_t total = 0;
    for (const auto& b : self.blocks) total += b->len;
    return total;
  }

  long MoveForward(uint64_t remaining) {
    while (cursor != blocks.end() && (*cursor)->pos + remaining > (*cursor)->len) {
      remaining -= (*cursor)->len - (*cursor)->pos;
      ++cursor;
      if (cursor == blocks.end()) return -1;
      (*cursor)->pos = 0;
    }
    if (cursor == blocks.end()) return remaining == 0 ? 0 : -1;
    (*cursor)->pos += remaining;
    return 0;
  }

  static long ZCALLBACK Seek(voidpf opaque, voidpf, ZPOS64_T offset, int origin) {
    Impl& self = *static_cast<Impl*>(opaque);
    switch (origin) {
      case ZLIB_FILEFUNC_SEEK_SET:
        if (self.blocks.empty()) return offset == 0 ? 0 : -1;
        self.cursor = self.blocks.begin();
        (*self.cursor)->pos = 0;
        return self.MoveForward(offset);
      case ZLIB_FILEFUNC_SEEK_CUR:
        return self.MoveForward(offset);
      case ZLIB_FILEFUNC_SEEK_END:
        if (offset != 0) return -1;
        if (self.blocks.empty()) return 0;
        self.cursor = std::prev(self.blocks.end());
        (*self.cursor)->pos = (*self.cursor)->len;
        return 0;
      default:
        return -1;
    }
  }

  static int ZCALLBACK Close(voidpf, voidpf) { return 0; }
  static int ZCALLBACK TestError(voidpf, voidpf) { return 0; }

  bool OpenArchive() {
    blocks.clear();
    cursor = blocks.end();
    zlib_filefunc64_def functions = detail::MinizipFunctions(this);
    zipHandle = zipOpen2_64(nullptr, APPEND_STATUS_CREATE, nullptr, &functions);
    return zipHandle != nullptr;
  }
};

ZipWriter::ZipWriter() : impl(std::make_unique<Impl>()) {}

ZipWriter::~ZipWriter() = default;

bool ZipWriter::AddFile(const std::shared_ptr<DataSource>& source,
                        BasicStringSpan<char const> name) {
  if (!source || name.empty() || name.size() > MAX_NAME) return false;
  if (impl->zipHandle == nullptr && !impl->OpenArchive()) return false;
  const auto buffer = source->ExtractBuffer();
  if (!buffer) return false;
  const uint64_t size = buffer->GetSize();
  if (size >= MAX_MEMBER || (size != 0 && buffer->GetData() == nullptr)) return false;

  const std::string memberName = name.str();
  // A stored member is written with method 0, as every ZIP tool shows it
  // (method 8 at level 0 would give stored deflate blocks instead). Deflated
  // members are compressed here, whole, and handed to minizip as raw data
  // with their CRC-32 and size.
  const auto* data = reinterpret_cast<const unsigned char*>(buffer->GetData());
  const bool stored = IsStoredExtension(memberName);
  std::string packed;
  if (!stored && !detail::DeflateMember(data, size, DEFLATE_LEVEL, &packed)) return false;
  if (zipOpenNewFileInZip2(impl->zipHandle, memberName.c_str(), nullptr, nullptr, 0, nullptr, 0,
                           nullptr, stored ? 0 : Z_DEFLATED, stored ? 0 : DEFLATE_LEVEL,
                           1) != ZIP_OK)
    return false;
  const unsigned char* out = stored ? data : reinterpret_cast<const unsigned char*>(packed.data());
  const uint64_t outSize = stored ? size : packed.size();
  const int written =
      outSize == 0 ? ZIP_OK
                   : zipWriteInFileInZip(impl->zipHandle, out, static_cast<unsigned>(outSize));
  const int closed = zipCloseFileInZipRaw64(impl->zipHandle, size, detail::Crc32(data, size));
  return written == ZIP_OK && closed == ZIP_OK;
}

std::shared_ptr<DataSource> ZipWriter::GetDSForBuffer() {
  if (impl->zipHandle != nullptr) {
    zipClose(impl->zipHandle, nullptr);  // writes the central directory
    impl->zipHandle = nullptr;
  }
  // Whole blocks, not only what was written: the zero padding after the
  // end record is kept (callers that store archives expect these lengths).
  uint64_t total = 0;
  for (const auto& b : impl->blocks) total += b->bytes.size();
  std::string archive;
  archive.reserve(static_cast<size_t>(total));
  for (const auto& b : impl->blocks) archive += b->bytes;
  impl->blocks.clear();
  impl->cursor = impl->blocks.end();
  return InMemoryDataSource::Create(std::move(archive), true);
}

}  // namespace oru
