#include "oru/line_reader.h"

#include <algorithm>
#include <cstring>

#include "oru/data_stream.h"
#include "oru/encoding.h"

namespace oru {

namespace {

constexpr uint32_t BLOCK_SIZE = 4096;
constexpr uint64_t INITIAL_LINE_CAPACITY = 1024;
constexpr uint64_t SHRINK_ABOVE = 4096;

enum Encoding { PLAIN = 0, UTF8_BOM = 1, UTF16_LE = 2, UTF16_BE = 3 };

}  // namespace

struct LineReader::State {
  DataStream* stream;
  const char* line = nullptr;
  unsigned char* binary = nullptr;
  uint32_t blockSize = BLOCK_SIZE;
  std::unique_ptr<unsigned char[]> block{new unsigned char[BLOCK_SIZE]()};
  // The bytes of the current block: `block`, or, when the stream reads an
  // in-memory source directly, the source's own memory (no copy), kept
  // alive by `blockOwner`.
  const unsigned char* blockData = block.get();
  std::shared_ptr<DataSource> blockOwner;
  uint32_t blockNext = 0;
  uint32_t blockEnd = 0;
  std::unique_ptr<char[]> lineBuffer{new char[INITIAL_LINE_CAPACITY]()};
  uint64_t lineCapacity = INITIAL_LINE_CAPACITY;
  uint64_t lineEnd = 0;
  int limit;
  uint32_t consumed = 0;
  uint64_t blockStart = 0;
  int encoding = PLAIN;

  State(DataStream* s, int l) : stream(s), limit(l) {}

  uint32_t Available() const { return blockEnd - blockNext; }

  // Reads the next block; false when nothing more could be had.
  bool Refill() {
    // The block starts where the stream stands even when nothing more comes:
    // at the end of the data, SeekToBufferStart must leave the stream there.
    blockNext = blockEnd = 0;
    blockStart = stream->GetPosition();
    if (stream->IsEOF()) return false;
    uint32_t want = blockSize;
    if (limit != 0) {
      const auto cap = static_cast<uint32_t>(limit);
      if (consumed >= cap) return false;
      want = std::min(cap - consumed, blockSize);
    }
    uint64_t got = 0;
    if (const std::byte* direct = stream->TakeDirect(want, &got)) {
      blockData = reinterpret_cast<const unsigned char*>(direct);
      blockOwner = stream->ActiveDataSource();
    } else {
      got = stream->GetBytes(reinterpret_cast<std::byte*>(block.get()), want);
      blockData = block.get();
      blockOwner.reset();
    }
    consumed += static_cast<uint32_t>(got);
    blockEnd = static_cast<uint32_t>(got);
    return got != 0;
  }

  bool EnsureData() { return Available() != 0 || Refill(); }

  void ShrinkLineBuffer() {
    if (lineCapacity > SHRINK_ABOVE) {
      lineBuffer.reset(new char[INITIAL_LINE_CAPACITY]());
      lineCapacity = INITIAL_LINE_CAPACITY;
      line = nullptr;
      binary = nullptr;
    }
  }

  // Makes room for `extra` more bytes behind lineEnd, doubling the buffer.
  void Reserve(uint64_t extra) {
    if (lineEnd + extra <= lineCapacity) return;
    uint64_t capacity = lineCapacity;
    while (lineEnd + extra > capacity) capacity *= 2;
    std::unique_ptr<char[]> bigger(new char[capacity]());
    std::memcpy(bigger.get(), lineBuffer.get(), static_cast<size_t>(lineEnd));
    lineBuffer = std::move(bigger);
    lineCapacity = capacity;
  }

  void Append(const void* bytes, uint64_t n) {
    Reserve(n + 2);  // room for a 16-bit terminator as well
    std::memcpy(lineBuffer.get() + lineEnd, bytes, static_cast<size_t>(n));
    lineEnd += n;
  }

  void DetectMark() {
    if (blockStart + blockNext != 0 || Available() < 4) return;
    const unsigned char* b = blockData + blockNext;
    if (b[0] == 0xEF && b[1] == 0xBB && b[2] == 0xBF) {
      encoding = UTF8_BOM;
      blockNext += 3;
    } else if (b[0] == 0xFF && b[1] == 0xFE) {
      encoding = UTF16_LE;
      blockNext += 2;
    } else if (b[0] == 0xFE && b[1] == 0xFF) {
      encoding = UTF16_BE;
      blockNext += 2;
    }
  }

  bool FinishLine(uint64_t terminatorBytes) {
    Reserve(terminatorBytes);
    std::memset(lineBuffer.get() + lineEnd, 0, static_cast<size_t>(terminatorBytes));
    line = lineBuffer.get();
    return true;
  }

  bool ReadByteLine() {
    while (EnsureData()) {
      const unsigned char* p = blockData + blockNext;
      const auto* lf = static_cast<const unsigned char*>(std::memchr(p, '\n', Available()));
      const auto n = static_cast<uint32_t>(lf != nullptr ? lf - p : Available());
      if (lf == nullptr) {
        Append(p, n);
        blockNext += n;
        continue;
      }
      // A CR right before the LF is dropped. It is looked up in the block,
      // not read back from the line buffer just written.
      if (n > 0) {
        Append(p, p[n - 1] == '\r' ? n - 1 : n);
      } else if (lineEnd > 0 && lineBuffer[lineEnd - 1] == '\r') {
        --lineEnd;
      }
      blockNext += n + 1;
      return FinishLine(1);
    }
    Reserve(1);
    lineBuffer[lineEnd] = 0;
    if (lineEnd == 0) return false;
    line = lineBuffer.get();
    return true;
  }

  bool NextUnit(char16_t* unit) {
    unsigned char bytes[2];
    for (auto& b : bytes) {
      if (!EnsureData()) return false;  // a lone trailing byte is dropped
      b = blockData[blockNext++];
    }
    const unsigned char lo = encoding == UTF16_LE ? bytes[0] : bytes[1];
    const unsigned char hi = encoding == UTF16_LE ? bytes[1] : bytes[0];
    // Both bytes are widened as signed values before they are combined (a low
    // byte >= 0x80 forces the high byte to 0xFF; kept: text read so before must read the same).
    const int v = static_cast<int>(static_cast<signed char>(lo)) |
                  (static_cast<int>(static_cast<signed char>(hi)) * 256);
    *unit = static_cast<char16_t>(static_cast<uint16_t>(v));
    return true;
  }

  bool ReadUnitLine() {
    char16_t unit;
    while (NextUnit(&unit)) {
      if (unit == u'\n') {
        if (lineEnd >= 2) {
          char16_t last;
          std::memcpy(&last, lineBuffer.get() + lineEnd - 2, 2);
          if (last == u'\r') lineEnd -= 2;
        }
        return FinishLine(2);
      }
      Append(&unit, 2);
    }
    Reserve(2);
    std::memset(lineBuffer.get() + lineEnd, 0, 2);
    if (lineEnd == 0) return false;
    line = lineBuffer.get();
    return true;
  }
};

LineReader::LineReader(DataStream* stream, int limit)
    : state(std::make_unique<State>(stream, limit)) {}

LineReader::~LineReader() = default;

bool LineReader::ReadLine() {
  State& s = *state;
  s.ShrinkLineBuffer();
  s.line = nullptr;
  s.lineEnd = 0;
  s.EnsureData();
  s.DetectMark();
  return s.encoding == UTF16_LE || s.encoding == UTF16_BE ? s.ReadUnitLine() : s.ReadByteLine();
}

const char* LineReader::GetBuffer() const {
  return state->line;
}

std::string LineReader::GetString() const {
  const State& s = *state;
  if (s.line == nullptr) return {};
  if (s.encoding == UTF16_LE || s.encoding == UTF16_BE) {
    std::u16string units(s.lineEnd / 2, u'\0');
    std::memcpy(units.data(), s.line, units.size() * 2);
    units.resize(std::char_traits<char16_t>::length(units.c_str()));
    return Utf16ToUtf8(units);
  }
  return std::string(s.line);
}

unsigned long LineReader::ReadBinary(unsigned long count) {
  State& s = *state;
  s.ShrinkLineBuffer();
  s.lineEnd = 0;
  uint64_t copied = 0;
  while (copied < count && s.EnsureData()) {
    const uint64_t n = std::min<uint64_t>(count - copied, s.Available());
    s.Append(s.blockData + s.blockNext, n);
    s.blockNext += static_cast<uint32_t>(n);
    copied += n;
  }
  s.Reserve(1);
  s.lineBuffer[s.lineEnd] = 0;
  if (copied != 0) s.binary = reinterpret_cast<unsigned char*>(s.lineBuffer.get());
  return static_cast<unsigned long>(copied);
}

unsigned char* LineReader::GetBinBuffer() const {
  return state->binary;
}

bool LineReader::SeekToBufferStart() {
  State& s = *state;
  const uint64_t position = s.blockStart + s.blockNext;
  const uint32_t unconsumed = s.Available();
  // A stream already there is not asked to seek: a compressed source cannot
  // seek to the end of what it has inflated.
  if (s.stream->GetPosition() != position && !s.stream->SetPosition(position)) return false;
  // The bytes read ahead but not handed out are given back.
  s.consumed -= unconsumed;
  s.stream->bytesRead -= unconsumed;
  s.Refill();
  return true;
}

}  // namespace oru
