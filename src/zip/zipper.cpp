#include "oru/zipper.h"

#include <zlib.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <vector>

namespace oru {

struct Zipper::Stream {
  z_stream z{};
};

struct Zipper::Staging {
  unsigned char data[Buffer::CAPACITY];
  uint64_t count = 0;
};

namespace {
constexpr unsigned char GZIP_HEADER[10] = {0x1F, 0x8B, 0x08, 0, 0, 0, 0, 0, 0, 0};
constexpr uint64_t BLOCK = Zipper::Buffer::CAPACITY;
}  // namespace

Zipper::Zipper() : current(std::make_shared<Buffer>()) {}

Zipper::~Zipper() {
  // An open section is dropped without finishing it.
  if (compressing) deflateEnd(&stream->z);
}

void Zipper::NextBlock() {
  full.push_back(current);
  current = std::make_shared<Buffer>();
}

bool Zipper::AddPlainBytes(const unsigned char* data, uint64_t size) {
  while (size > 0) {
    if (current->used == BLOCK) NextBlock();  // a new block only when more bytes come
    const uint64_t n = std::min(BLOCK - current->used, size);
    std::memcpy(current->data + current->used, data, static_cast<size_t>(n));
    current->used += n;
    data += n;
    size -= n;
  }
  return true;
}

bool Zipper::StartCompressedSection(int level) {
  if (compressing) return false;
  if (!stream) {
    stream = std::make_unique<Stream>();
    staging = std::make_unique<Staging>();
  }
  AddPlainBytes(GZIP_HEADER, sizeof GZIP_HEADER);
  z_stream& z = stream->z;
  z.next_out = current->data + current->used;
  z.avail_out = static_cast<uInt>(BLOCK - current->used);
  if (level != -1 && (level < 0 || level > 9)) level = -1;
  if (deflateInit2(&z, level, Z_DEFLATED, -15, 9, Z_DEFAULT_STRATEGY) != Z_OK) return false;
  compressing = true;
  return true;
}

bool Zipper::AddBytes(const unsigned char* data, uint64_t size) {
  if (!compressing) return AddPlainBytes(data, size);
  if (size == 0) return true;
  const uint64_t n = std::min(BLOCK - staging->count, size);
  std::memcpy(staging->data + staging->count, data, static_cast<size_t>(n));
  staging->count += n;
  data += n;
  size -= n;
  if (staging->count < BLOCK) return true;
  const bool ok = FlushBuffer(staging->data, BLOCK, false);
  staging->count = 0;
  if (!ok) return false;
  if (size == 0) return true;
  if (size >= BLOCK) return FlushBuffer(data, size, false);
  std::memcpy(staging->data, data, static_cast<size_t>(size));
  staging->count = size;
  return true;
}

bool Zipper::FlushBuffer(const unsigned char* data, uint64_t size, bool finish) {
  if (!compressing) return false;
  z_stream& z = stream->z;
  const int flush = finish ? Z_FINISH : Z_NO_FLUSH;
  // zlib counts input in 32 bits: larger inputs go in pieces.
  do {
    const uint64_t piece = std::min<uint64_t>(size, UINT_MAX);
    z.next_in = const_cast<Bytef*>(data);
    z.avail_in = static_cast<uInt>(piece);
    data += piece;
    size -= piece;
    const bool last = size == 0;
    for (;;) {
      if (z.avail_out == 0) {
        // The block is full: it moves to the finished list and deflate
        // goes on in a new one.
        current->used = BLOCK;
        NextBlock();
        z.next_out = current->data;
        z.avail_out = static_cast<uInt>(BLOCK);
      }
      const int rc = deflate(&z, last ? flush : Z_NO_FLUSH);
      if (rc < 0) return false;
      if (!(last && finish) && z.avail_in == 0) break;
      if (last && finish && rc == Z_STREAM_END) {
        if (z.avail_out == 0) {
          current->used = BLOCK;
          NextBlock();
          z.avail_out = static_cast<uInt>(BLOCK);
        }
        current->used = BLOCK - z.avail_out;
        return true;
      }
    }
  } while (size > 0);
  return true;
}

bool Zipper::FlushBuffer(bool finish) {
  const bool ok = FlushBuffer(staging->data, staging->count, finish);
  staging->count = 0;
  return ok;
}

bool Zipper::EndCompressedSection() {
  if (!compressing) return false;
  FlushBuffer(true);
  const int rc = deflateEnd(&stream->z);
  compressing = false;
  return rc == Z_OK;
}

std::shared_ptr<DataSource> Zipper::GetDSForBuffer() {
  if (compressing) return {};
  std::vector<unsigned char> bytes(static_cast<size_t>(BLOCK * full.size() + current->used));
  unsigned char* out = bytes.data();
  for (const auto& block : full) {
    std::memcpy(out, block->data, BLOCK);
    out += BLOCK;
  }
  if (current->used != 0) std::memcpy(out, current->data, static_cast<size_t>(current->used));
  return InMemoryDataSource::Create(std::move(bytes), true);
}

}  // namespace oru
