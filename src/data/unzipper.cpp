#include "data/unzipper.h"

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <new>

#include "oru/compressed_data_source.h"

namespace oru {

const char* UnrecognizedCompressedFormat::what() const noexcept {
  return "Unrecognized Compressed Format.";
}

namespace detail {

namespace {

constexpr uint64_t DEFAULT_CHUNK = 65536;
constexpr uint64_t MIN_CHUNK = 4096;
// Chunks stop doubling here, so one chunk always fits zlib's 32-bit counts.
constexpr uint64_t MAX_CHUNK = uint64_t{1} << 30;
// The first chunk is sized from the compressed length, but never above this.
constexpr uint64_t MAX_FIRST_CHUNK = uint64_t{1} << 28;

[[noreturn]] void Fail() {
  throw UnrecognizedCompressedFormat();
}

}  // namespace

void Unzipper::FreeDeleter::operator()(std::byte* p) const noexcept {
  std::free(p);
}

Unzipper::Unzipper(uint64_t n, uint64_t available)
    : stream(new z_stream{},
             [](z_stream* s) {
               // Safe before inflateInit too: zlib refuses a stream it never set up.
               inflateEnd(s);
               delete s;
             }),
      inputLeft(n),
      inputLimited(n != 0),
      compressedLength(n) {
  if (n != 0) {
    const uint64_t bounded = std::min({n, available, MAX_FIRST_CHUNK / 3});
    chunkSize = std::max(3 * bounded, MIN_CHUNK);
  } else {
    chunkSize = DEFAULT_CHUNK;
  }
  chunks.reserve(16);
  AddChunk();
}

Unzipper::~Unzipper() = default;

void Unzipper::SetMemoryLimit(uint64_t bytes) {
  memoryLimit = bytes;
}

void Unzipper::AddChunk() {
  // With a memory limit, chunks stop growing at a quarter of it, so that
  // freeing whole chunks keeps what is held near the limit.
  const uint64_t cap = memoryLimit == 0 ? MAX_CHUNK : std::max(MIN_CHUNK, memoryLimit / 4);
  Chunk chunk;
  if (chunks.empty()) {
    chunk.size = std::min(chunkSize, cap);
    chunk.start = 0;
  } else {
    const Chunk& last = chunks.back();
    chunk.size = std::min({last.size * 2, MAX_CHUNK, cap});
    chunk.start = last.start + last.size;
  }
  // calloc: zero-filled, and large blocks come straight from the kernel
  // already zeroed, so the fill costs nothing up front.
  chunk.data.reset(static_cast<std::byte*>(std::calloc(static_cast<size_t>(chunk.size), 1)));
  if (!chunk.data) throw std::bad_alloc();
  keptBytes += chunk.size;
  chunks.push_back(std::move(chunk));
  DropOldChunks();
}

void Unzipper::DropOldChunks() {
  if (memoryLimit == 0) return;
  while (keptBytes > memoryLimit && firstKept < readChunk) {
    keptBytes -= chunks[firstKept].size;
    chunks[firstKept].data.reset();
    ++firstKept;
  }
}

void Unzipper::Restart() {
  highWater = std::max(highWater, Inflated());
  if (inflateReset(stream.get()) != Z_OK) Fail();
  chunks.clear();
  firstKept = keptBytes = 0;
  readChunk = readOffset = writeChunk = writeOffset = 0;
  ended = false;
  inputLeft = compressedLength;
  pending = nullptr;
  pendingLength = fedTotal = 0;
  stream->next_in = nullptr;
  stream->avail_in = 0;
  AddChunk();
  RestartInput();
}

int Unzipper::Reposition(uint64_t target) {
  try {
    if (target < chunks[firstKept].start) Restart();
    std::vector<std::byte> scratch(static_cast<size_t>(std::min<uint64_t>(target, DEFAULT_CHUNK)));
    while (GetOffset() < target) {
      const uint64_t want = std::min<uint64_t>(target - GetOffset(), scratch.size());
      if (GetBytes(scratch.data(), want) == 0) break;
    }
  } catch (const std::exception&) {
    // Inflated once before, it fails now: the input changed under us.
    return -1;
  }
  return GetOffset() == target ? 0 : -1;
}

void Unzipper::Start(DataSource& source) {
  std::byte magic[2];
  if (source.GetBytes(magic, 2) < 2) Fail();
  int rc;
  if (magic[0] == std::byte{0x1F} && magic[1] == std::byte{0x8B}) {
    // gzip: method byte, flags, then time, extra flags and OS (6 bytes).
    if (source.Seek(1, DS_SEEK_CUR) != 0) Fail();
    const int flags = source.GetByte();
    if (flags < 0) Fail();
    if (source.Seek(6, DS_SEEK_CUR) != 0) Fail();
    if (flags & 4) {  // extra field
      const int lo = source.GetByte();
      const int hi = source.GetByte();
      if (lo < 0 || hi < 0) Fail();
      if (source.Seek(hi * 256 + lo, DS_SEEK_CUR) != 0) Fail();
    }
    for (int bit : {8, 16}) {  // file name, comment: zero-terminated
      if (flags & bit) {
        int c;
        do {
          c = source.GetByte();
          if (c < 0) Fail();
        } while (c != 0);
      }
    }
    if (flags & 2) {  // header checksum
      if (source.Seek(2, DS_SEEK_CUR) != 0) Fail();
    }
    // The header is consumed by hand, so inflate sees raw deflate data. The
    // trailer (CRC and length) is never checked.
    rc = inflateInit2(stream.get(), -15);
  } else {
    if (source.Seek(-2, DS_SEEK_CUR) != 0) Fail();
    rc = inflateInit(stream.get());
  }
  if (rc != Z_OK) Fail();
  startOffset = source.GetOffset();
}

void Unzipper::Feed(const std::byte* data, uint64_t length) {
  if (inputLimited) {
    if (length > inputLeft) length = inputLeft;
    inputLeft -= length;
  }
  pending = data;
  pendingLength = length;
  TopUpInput();
}

void Unzipper::TopUpInput() {
  const uint64_t piece = std::min<uint64_t>(pendingLength, UINT_MAX);
  stream->next_in = reinterpret_cast<Bytef*>(const_cast<std::byte*>(pending));
  stream->avail_in = static_cast<uInt>(piece);
  pending += piece;
  pendingLength -= piece;
  fedTotal += piece;
}

uint64_t Unzipper::CopyOut(std::byte* dst, uint64_t count) {
  uint64_t got = 0;
  while (got < count) {
    const Chunk& chunk = chunks[readChunk];
    const uint64_t limit = readChunk == writeChunk ? writeOffset : chunk.size;
    if (readOffset == limit) {
      if (readChunk == writeChunk) break;
      ++readChunk;
      readOffset = 0;
      continue;
    }
    const uint64_t n = std::min(limit - readOffset, count - got);
    std::memcpy(dst + got, chunk.data.get() + readOffset, static_cast<size_t>(n));
    readOffset += n;
    got += n;
  }
  return got;
}

uint64_t Unzipper::GetBytes(std::byte* dst, uint64_t count) {
  uint64_t copied = CopyOut(dst, count);
  while (copied < count && !ended) {
    if (writeOffset == chunks[writeChunk].size) {
      if (writeChunk + 1 == chunks.size()) AddChunk();
      ++writeChunk;
      writeOffset = 0;
    }
    Chunk& chunk = chunks[writeChunk];
    z_stream& zs = *stream;
    zs.next_out = reinterpret_cast<Bytef*>(chunk.data.get() + writeOffset);
    zs.avail_out = static_cast<uInt>(chunk.size - writeOffset);
    for (;;) {
      if (zs.avail_in == 0) {
        if (pendingLength != 0) {
          TopUpInput();
        } else {
          Refill();
        }
        if (zs.avail_in == 0) {  // input exhausted: a truncated stream just ends
          ended = true;
          break;
        }
      }
      const int rc = inflate(&zs, Z_SYNC_FLUSH);
      if (rc == Z_STREAM_END) {
        ended = true;
        break;
      }
      if (rc != Z_OK) {
        writeOffset = chunk.size - zs.avail_out;
        Fail();
      }
      if (zs.avail_out == 0) break;
    }
    writeOffset = chunk.size - zs.avail_out;
    copied += CopyOut(dst + copied, count - copied);
  }
  return copied;
}

int Unzipper::GetByte() {
  std::byte b;
  return GetBytes(&b, 1) == 1 ? static_cast<int>(b) : -1;
}

int Unzipper::Seek(int64_t offset, SeekOrigin origin) {
  // Everything ever inflated counts, also what was freed or not yet
  // inflated again since a restart.
  const uint64_t inflated = std::max(highWater, Inflated());
  uint64_t target;
  if (origin == DS_SEEK_SET && offset >= 0) {
    target = static_cast<uint64_t>(offset);
  } else if (origin == DS_SEEK_CUR) {
    target = GetOffset() + static_cast<uint64_t>(offset);
  } else if (origin == DS_SEEK_END && offset <= 0) {
    // The end is the end of what has been inflated, not of the stream.
    target = inflated + static_cast<uint64_t>(offset);
  } else {
    return -1;
  }
  if (target >= inflated) return -1;
  if (target < chunks[firstKept].start || target >= Inflated()) return Reposition(target);
  auto it = std::upper_bound(chunks.begin() + static_cast<ptrdiff_t>(firstKept),
                             chunks.begin() + static_cast<ptrdiff_t>(writeChunk) + 1, target,
                             [](uint64_t t, const Chunk& c) { return t < c.start + c.size; });
  readChunk = static_cast<uint64_t>(it - chunks.begin());
  readOffset = target - it->start;
  return 0;
}

uint64_t Unzipper::GetCompressedOffset() const {
  const uint64_t inflated = Inflated();
  if (inflated == 0) return startOffset;
  const uint64_t consumed = fedTotal - stream->avail_in;
  return startOffset +
         static_cast<uint64_t>(static_cast<double>(GetOffset()) / static_cast<double>(inflated) *
                               static_cast<double>(consumed));
}

}  // namespace detail
}  // namespace oru
