#include "oru/data_stream.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>
#include <typeinfo>

#include "data/line_scan.h"
#include "oru/compressed_data_source.h"
#include "oru/file_data_source.h"
#include "oru/make_shared_enabler.h"
#include "oru/toolchain.h"
#include "oru/sparse_data_source.h"

namespace oru {

const Endianess HostEndianess =
    std::endian::native == std::endian::little ? LittleEndian : BigEndian;

namespace {

// Reverses the byte order of one element of `Width` bytes.
template <std::size_t Width>
inline void SwapElement(std::byte* dst, const std::byte* src) {
  if constexpr (Width == 2) {
    uint16_t v;
    std::memcpy(&v, src, 2);
    v = static_cast<uint16_t>((v << 8) | (v >> 8));
    std::memcpy(dst, &v, 2);
  } else if constexpr (Width == 4) {
    uint32_t v;
    std::memcpy(&v, src, 4);
    v = detail::ByteSwap32(v);
    std::memcpy(dst, &v, 4);
  } else {
    static_assert(Width == 8);
    uint64_t v;
    std::memcpy(&v, src, 8);
    v = detail::ByteSwap64(v);
    std::memcpy(dst, &v, 8);
  }
}

// Stores a partly read element: the bytes read, zero-padded, in reverse order.
template <std::size_t Width>
inline void SwapPartial(std::byte* dst, const std::byte* src, uint64_t got) {
  std::byte temp[Width] = {};
  std::memcpy(temp, src, static_cast<size_t>(got));
  SwapElement<Width>(dst, temp);
}

constexpr std::size_t STAGE_BYTES = 4096;

}  // namespace

DataStream::DataStream(std::shared_ptr<DataSource> src)
    : source(std::move(src)),
      totalSize(source ? source->GetFileSize() : 0),
      srcEndianess(HostEndianess) {
  UpdateFastPath();
}

DataStream::DataStream(DataStream&& other) noexcept
    : source(std::move(other.source)),
      compressed(std::move(other.compressed)),
      bytesRead(other.bytesRead),
      totalSize(other.totalSize),
      srcEndianess(other.srcEndianess),
      memory(other.memory),
      stagedReads(other.stagedReads) {
  other.memory = nullptr;
}

DataStream& DataStream::operator=(DataStream&& other) noexcept {
  if (this != &other) {
    source = std::move(other.source);
    compressed = std::move(other.compressed);
    bytesRead = other.bytesRead;
    totalSize = other.totalSize;
    srcEndianess = other.srcEndianess;
    memory = other.memory;
    stagedReads = other.stagedReads;
    other.memory = nullptr;
  }
  return *this;
}

DataStream::~DataStream() = default;

void DataStream::UpdateFastPath() {
  // Only the library's own source kinds qualify: a class derived by a user
  // may override the reads, so it goes through the virtual calls.
  DataSource* active = compressed ? compressed.get() : source.get();
  memory = nullptr;
  stagedReads = false;
  if (active == nullptr) return;
  const std::type_info& kind = typeid(*active);
  if (kind == typeid(make_shared_enabler<InMemoryDataSource>)) {
    memory = static_cast<InMemoryDataSource*>(active);
  } else {
    // These deliver short counts only at the end of their data (or, sparse,
    // at a gap, where the next read throws), so reading many elements in one
    // call gives the same results as reading them one by one.
    stagedReads = kind == typeid(make_shared_enabler<FileDataSource>) ||
                  kind == typeid(make_shared_enabler<CompressedFileDataSource>) ||
                  kind == typeid(make_shared_enabler<CompressedInMemoryDataSource>) ||
                  kind == typeid(make_shared_enabler<SparseDataSource>);
  }
}

uint64_t DataStream::GetBytes(std::byte* dst, uint64_t count) {
  uint64_t n;
  if (memory != nullptr) {
    const uint64_t avail = memory->size - memory->offset;
    n = count < avail ? count : avail;
    if (n != 0) std::memcpy(dst, memory->data + memory->offset, static_cast<size_t>(n));
    memory->offset += n;
  } else {
    n = ActiveBuffer().GetBytes(dst, count);
  }
  bytesRead += n;
  return n;
}

const std::byte* DataStream::TakeDirect(uint64_t count, uint64_t* got) {
  if (memory == nullptr) return nullptr;
  const uint64_t avail = memory->size - memory->offset;
  const uint64_t n = count < avail ? count : avail;
  const std::byte* at = memory->data + memory->offset;
  memory->offset += n;
  bytesRead += n;
  *got = n;
  return at;
}

uint64_t DataStream::FillBuffer(std::byte* dst, uint64_t count) {
  return GetBytes(dst, count);
}

bool DataStream::ReadByteArray(std::byte* dst, uint64_t count) {
  return GetBytes(dst, count) != 0;
}

bool DataStream::ReadScalarOutOfLine(void* value, std::size_t width) {
  switch (width) {
    case 2:
      return ReadArray<2>(value, 1);
    case 4:
      return ReadArray<4>(value, 1);
    default:
      return ReadArray<8>(value, 1);
  }
}

template <std::size_t Width>
bool DataStream::ReadArray(void* values, uint64_t count) {
  auto* out = static_cast<std::byte*>(values);
  if (srcEndianess == HostEndianess) {
    // Lenient: any delivered byte counts as success (format readers check GetBytesRead).
    return GetBytes(out, count * Width) != 0;
  }
  return ReadSwapped<Width>(out, count);
}

template <std::size_t Width>
bool DataStream::ReadSwapped(std::byte* out, uint64_t count) {
  // Observably the same as reading element by element: a zero-padded partial
  // element is stored, and the read fails at the first element of which no
  // byte arrives.
  if (memory != nullptr) {
    const std::byte* src = memory->data + memory->offset;
    const uint64_t avail = memory->size - memory->offset;
    const uint64_t full = std::min(count, avail / Width);
    for (uint64_t i = 0; i < full; ++i) SwapElement<Width>(out + i * Width, src + i * Width);
    memory->offset += full * Width;
    bytesRead += full * Width;
    if (full == count) return true;
    const uint64_t rest = avail - full * Width;
    if (rest == 0) return false;
    SwapPartial<Width>(out + full * Width, src + full * Width, rest);
    memory->offset += rest;
    bytesRead += rest;
    return full + 1 == count;
  }

  if (!stagedReads) {
    // Any other source: one read per element, as the rules are written.
    for (uint64_t i = 0; i < count; ++i) {
      std::byte temp[Width] = {};
      const uint64_t got = ActiveBuffer().GetBytes(temp, Width);
      if (got == 0) return false;
      bytesRead += got;
      SwapElement<Width>(out + i * Width, temp);
    }
    return true;
  }

  alignas(8) std::byte stage[STAGE_BYTES];
  uint64_t done = 0;
  while (done < count) {
    const uint64_t want = std::min<uint64_t>(count - done, STAGE_BYTES / Width) * Width;
    const uint64_t got = ActiveBuffer().GetBytes(stage, want);
    bytesRead += got;
    if (got == 0) return false;
    const uint64_t whole = got / Width;
    for (uint64_t i = 0; i < whole; ++i)
      SwapElement<Width>(out + (done + i) * Width, stage + i * Width);
    done += whole;
    if (got % Width != 0) {
      SwapPartial<Width>(out + done * Width, stage + whole * Width, got % Width);
      ++done;
    }
  }
  return true;
}

bool DataStream::Read(char& value) {
  return ReadByteArray(reinterpret_cast<std::byte*>(&value), 1);
}
bool DataStream::Read(unsigned char& value) {
  return ReadByteArray(reinterpret_cast<std::byte*>(&value), 1);
}
bool DataStream::Read(bool& value) {
  std::byte b{0};
  if (!ReadByteArray(&b, 1)) return false;
  value = b != std::byte{0};
  return true;
}

bool DataStream::Read(char* values, uint64_t count) {
  return ReadByteArray(reinterpret_cast<std::byte*>(values), count);
}
bool DataStream::Read(unsigned char* values, uint64_t count) {
  return ReadByteArray(reinterpret_cast<std::byte*>(values), count);
}
bool DataStream::Read(short* values, uint64_t count) {
  return ReadArray<2>(values, count);
}
bool DataStream::Read(unsigned short* values, uint64_t count) {
  return ReadArray<2>(values, count);
}
bool DataStream::Read(int* values, uint64_t count) {
  return ReadArray<4>(values, count);
}
bool DataStream::Read(unsigned int* values, uint64_t count) {
  return ReadArray<4>(values, count);
}
bool DataStream::Read(float* values, uint64_t count) {
  return ReadArray<4>(values, count);
}
bool DataStream::Read(double* values, uint64_t count) {
  return ReadArray<8>(values, count);
}
bool DataStream::Read(int64_t* values, uint64_t count) {
  return ReadArray<8>(values, count);
}
bool DataStream::Read(uint64_t* values, uint64_t count) {
  return ReadArray<8>(values, count);
}

bool DataStream::ReadLineFromMemory(std::string* line) {
  const std::byte* base = memory->data;
  const uint64_t size = memory->size;
  uint64_t pos = memory->offset;
  if (pos == size) return false;
  const char* p = reinterpret_cast<const char*>(base + pos);
  const char* end = reinterpret_cast<const char*>(base + size);
  const char* stop = detail::FindLineEnd(p, end);
  line->assign(p, stop);
  const char* next = stop;
  if (stop != end) {
    // A line end was found; its partner (CR after LF, LF after CR) is taken too.
    const char partner = *stop == '\n' ? '\r' : '\n';
    ++next;
    if (next != end && *next == partner) ++next;
  }
  const auto consumed = static_cast<uint64_t>(next - p);
  memory->offset = pos + consumed;
  bytesRead += consumed;
  return true;
}

bool DataStream::Read(std::string* line) {
  if (memory != nullptr) return ReadLineFromMemory(line);
  DataSource& active = ActiveBuffer();
  if (active.IsEndOfBuffer()) return false;
  const uint64_t start = active.GetOffset();
  std::string text;
  int partner = 0;
  for (;;) {
    const int c = active.GetByte();
    // The end of the data ends the line: nothing is appended or given back
    // (a file reports its end only after a failed read).
    if (c < 0) break;
    if (partner != 0) {
      if (c != partner) active.Seek(-1, DS_SEEK_CUR);
      break;
    }
    if (c == '\n') {
      partner = '\r';
    } else if (c == '\r') {
      partner = '\n';
    } else {
      text.push_back(static_cast<char>(c));
    }
    if (active.IsEndOfBuffer()) break;
  }
  *line = std::move(text);
  bytesRead += active.GetOffset() - start;
  return true;
}

bool DataStream::Rewind() {
  return ActiveBuffer().Seek(0, DS_SEEK_SET) == 0;
}

bool DataStream::SetPosition(uint64_t position) {
  return ActiveBuffer().Seek(static_cast<int64_t>(position), DS_SEEK_SET) == 0;
}

uint64_t DataStream::GetPosition() const {
  return ActiveBuffer().GetOffset();
}

bool DataStream::Skip(uint64_t bytes) {
  if (ActiveBuffer().Seek(static_cast<int64_t>(bytes), DS_SEEK_CUR) != 0) return false;
  bytesRead += bytes;
  return true;
}

bool DataStream::SkipBytes(uint64_t count) {
  return Skip(count);
}
bool DataStream::SkipUInt16s(uint64_t count) {
  return Skip(2 * count);
}
bool DataStream::SkipUInt32s(uint64_t count) {
  return Skip(4 * count);
}
bool DataStream::SkipFloats(uint64_t count) {
  return Skip(4 * count);
}
bool DataStream::SkipDoubles(uint64_t count) {
  return Skip(8 * count);
}

bool DataStream::IsEOF() {
  return ActiveBuffer().IsEndOfBuffer();
}

unsigned char DataStream::GetProgress() const {
  if (totalSize == 0) return 100;
  const uint64_t pos =
      compressed ? static_cast<const CompressedDataSource&>(*compressed).GetCompressedOffset()
                 : source->GetOffset();
  const double p = std::floor(static_cast<double>(pos) / static_cast<double>(totalSize) * 100.0);
  // Only the low byte of the truncated value is looked at (positions past
  // the end can wrap; kept: hosts' progress displays show these numbers).
  const auto low = static_cast<unsigned char>(std::fmod(p, 256.0));
  return low > 100 ? 100 : low;
}

bool DataStream::StartCompressedSection() {
  return StartCompressedSection(0);
}

bool DataStream::StartCompressedSection(uint64_t n) {
  compressed = source->CompressedDataSourceFromThis(n);
  UpdateFastPath();
  return compressed != nullptr;
}

bool DataStream::EndCompressedSection() {
  compressed.reset();
  UpdateFastPath();
  return true;
}

std::shared_ptr<DataSource> DataStream::ActiveDataSource() {
  return compressed ? compressed : source;
}

void DataStream::RelinquishSystemResources() {
  source->RelinquishSystemResources();
}

}  // namespace oru
