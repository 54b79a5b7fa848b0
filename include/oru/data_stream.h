// DataStream: the typed, byte-order-aware reader that format parsers put on
// top of a DataSource.
//
// It reads integers, floating-point values, arrays and text lines, converts
// from the byte order the data was written in to the host's, counts the bytes
// it consumes, reports progress in percent, and can switch into a zlib- or
// gzip-compressed section of the same source and back.
//
//   oru::DataStream in(oru::InMemoryDataSource::Create(std::move(bytes), false));
//   in.SetSrcEndianess(oru::Endianess(2));   // the file is big-endian
//   uint32_t count;
//   in.Read(count);
//   std::vector<float> values(count);
//   in.Read(values.data(), count);
//   in.StartCompressedSection();             // zlib data follows
//   std::string line;
//   while (in.Read(&line)) { ... }
//   in.EndCompressedSection();
//
// Results, kept exactly as they are (readers of existing file formats were
// written against them):
// - A multi-byte read in host byte order succeeds when at least one byte was
//   delivered, even if fewer than asked: compare GetBytesRead() or the
//   position when every byte must be there. So a zero-length array read
//   fails in host order and succeeds in the other order.
// - In the other byte order, elements are read one by one; the read stops
//   with false at the first element of which no byte could be read (the
//   elements stored so far stay). A partly read element is zero-padded.
// - Read(std::string*) ends a line at LF, CR, CR LF or LF CR (the line end is
//   not stored), or at the end of the data. Bytes are taken as they are.
//
// Speed: when the active source is an InMemoryDataSource, reads work on its
// memory block directly, with no virtual call per value or per byte (scalar
// reads are inline, so a value costs a bounds test and a memcpy); array
// reads in the other byte order swap in one tight loop, and line reads scan
// with memchr. The library's file, compressed and sparse sources are read in blocks
// of up to 4 KiB per call; any other source one element at a time.
//
// Ownership: the stream holds the source by shared_ptr. A copy shares the
// same sources and therefore the same read positions.
//
// Threading: one thread at a time; copies of a stream must not be read
// concurrently.
#pragma once

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>

#include "oru/data_source.h"

namespace oru {

class CompressedDataSource;
class LineReader;

// Byte order of data; spelled so (the binary interface). 1 little-endian, 2 big-endian.
enum Endianess : int32_t {
  LittleEndian = 1,
  BigEndian = 2,
};

/// The byte order of the machine the library runs on.
ORU_API extern const Endianess HostEndianess;

class ORU_API DataStream {
public:
  /// Takes the source over. A stream on an empty pointer must not be read.
  explicit DataStream(std::shared_ptr<DataSource> source);
  DataStream(const DataStream& other) = default;
  DataStream(DataStream&& other) noexcept;
  DataStream& operator=(const DataStream& other) = default;
  DataStream& operator=(DataStream&& other) noexcept;
  ~DataStream();

  void SetSrcEndianess(Endianess e) { srcEndianess = e; }
  Endianess SrcEndianess() const { return srcEndianess; }
  bool IsBigEndian() const { return srcEndianess == BigEndian; }
  bool IsLittleEndian() const { return srcEndianess == LittleEndian; }

  // Scalar reads: true when the value (or, in host order, part of it) was
  // read; on failure the value is left as it was.
  bool Read(char& value);
  bool Read(unsigned char& value);
  bool Read(bool& value);
  bool Read(short& value) { return ReadValue(value); }
  bool Read(unsigned short& value) { return ReadValue(value); }
  bool Read(int& value) { return ReadValue(value); }
  bool Read(unsigned int& value) { return ReadValue(value); }
  bool Read(float& value) { return ReadValue(value); }
  bool Read(double& value) { return ReadValue(value); }
  bool Read(int64_t& value) { return ReadValue(value); }
  bool Read(uint64_t& value) { return ReadValue(value); }

  // Array reads of `count` elements into `values`.
  bool Read(char* values, uint64_t count);
  bool Read(unsigned char* values, uint64_t count);
  bool Read(short* values, uint64_t count);
  bool Read(unsigned short* values, uint64_t count);
  bool Read(int* values, uint64_t count);
  bool Read(unsigned int* values, uint64_t count);
  bool Read(float* values, uint64_t count);
  bool Read(double* values, uint64_t count);
  bool Read(int64_t* values, uint64_t count);
  bool Read(uint64_t* values, uint64_t count);

  /// Reads one text line into `*line` (without the line end); false, with
  /// `*line` untouched, when the source is at its end.
  bool Read(std::string* line);

  bool Rewind();
  bool SetPosition(uint64_t position);
  uint64_t GetPosition() const;
  /// Skips forward; false (and nothing counted) when the source refuses.
  bool SkipBytes(uint64_t count);
  bool SkipUInt16s(uint64_t count);
  bool SkipUInt32s(uint64_t count);
  bool SkipFloats(uint64_t count);
  bool SkipDoubles(uint64_t count);
  bool IsEOF();

  uint64_t GetBytesRead() const { return bytesRead; }
  void ResetBytesRead() { bytesRead = 0; }
  /// 0..100: the position in the main source (or, inside a compressed
  /// section, in its compressed bytes) against the source's size.
  unsigned char GetProgress() const;

  /// Switches reading to the inflated view of the gzip/zlib data at the
  /// current position (`n`: compressed length, 0 = to the end). False when
  /// the source has no compressed view; throws UnrecognizedCompressedFormat
  /// on a bad header. A second start replaces an open section.
  bool StartCompressedSection();
  bool StartCompressedSection(uint64_t n);
  /// Returns to the main source, at whatever position the compressed source
  /// left it. Always true.
  bool EndCompressedSection();
  bool IsCompressed() const { return compressed != nullptr; }

  /// Reads up to `count` raw bytes from the active source; returns the count
  /// delivered (0 at the end) and adds it to GetBytesRead().
  uint64_t FillBuffer(std::byte* dst, uint64_t count);
  std::shared_ptr<DataSource> ActiveDataSource();
  /// Forwards to the main source (not the compressed view).
  void RelinquishSystemResources();

private:
  friend class LineReader;

  DataSource& ActiveBuffer() const { return compressed ? *compressed : *source; }
  uint64_t GetBytes(std::byte* dst, uint64_t count);
  // On the in-memory fast path: consumes up to `count` bytes as GetBytes
  // would and returns where they lie in the source's memory (*got set);
  // otherwise null and nothing consumed.
  const std::byte* TakeDirect(uint64_t count, uint64_t* got);
  bool ReadByteArray(std::byte* dst, uint64_t count);
  // Scalar reads are inline: a whole value from an in-memory source is taken
  // straight from its block in the caller's code; everything else (other
  // sources, the last few bytes) goes to ReadScalarOutOfLine.
  template <class T>
  bool ReadValue(T& value) {
    constexpr std::size_t width = sizeof(T);
    if (memory != nullptr && memory->size - memory->offset >= width) {
      const std::byte* src = memory->data + memory->offset;
      if (srcEndianess == (std::endian::native == std::endian::little ? LittleEndian : BigEndian)) {
        std::memcpy(&value, src, width);
      } else {
        std::memcpy(&value, SwappedBytes<width>(src).data(), width);
      }
      memory->offset += width;
      bytesRead += width;
      return true;
    }
    return ReadScalarOutOfLine(&value, width);
  }
  template <std::size_t Width>
  static std::array<std::byte, Width> SwappedBytes(const std::byte* src) {
    std::array<std::byte, Width> out;
    for (std::size_t i = 0; i < Width; ++i) out[i] = src[Width - 1 - i];
    return out;
  }
  bool ReadScalarOutOfLine(void* value, std::size_t width);
  template <std::size_t Width>
  bool ReadArray(void* values, uint64_t count);
  template <std::size_t Width>
  bool ReadSwapped(std::byte* out, uint64_t count);
  bool ReadLineFromMemory(std::string* line);
  bool Skip(uint64_t bytes);
  void UpdateFastPath();

  std::shared_ptr<DataSource> source;
  std::shared_ptr<DataSource> compressed;
  uint64_t bytesRead = 0;
  uint64_t totalSize = 0;
  Endianess srcEndianess;
  // The active source when it is exactly an InMemoryDataSource (read directly
  // on the fast path), else null.
  InMemoryDataSource* memory = nullptr;
  // True when the active source is one of the library's kinds that deliver
  // short counts only at their end, so swapped arrays may be read in blocks.
  bool stagedReads = false;
};

}  // namespace oru
