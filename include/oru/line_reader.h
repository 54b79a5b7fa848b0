// LineReader: reads text lines, or runs of raw bytes, from a DataStream
// through a 4 KiB read-ahead block.
//
// A byte-order mark at the start of the data selects the encoding: EF BB BF
// (UTF-8; skipped), FF FE (UTF-16 little-endian) or FE FF (UTF-16
// big-endian); without one the bytes are taken as they are. A line ends at
// LF; a CR right before the LF is dropped, a CR alone stays in the text.
//
//   oru::DataStream in(oru::FileDataSource::Create("notes.txt"));
//   oru::LineReader reader(&in, 0);          // 0: no byte limit
//   while (reader.ReadLine()) use(reader.GetString());  // always UTF-8
//
// GetBuffer() is the current line, NUL-terminated; for UTF-16 text it holds
// 16-bit units in host order ending in a 16-bit zero. Each byte of a UTF-16
// unit is widened as a signed value before the two are combined, so a
// low-order byte of 0x80 or more makes the unit's high byte 0xFF (E9 00 in
// little-endian order gives 0xFFE9; kept: text read so before must read the same). A
// lone trailing byte of UTF-16 data (an odd length) is dropped.
//
// `limit`, when non-zero, caps the total number of bytes the reader takes
// from the stream (taken as an unsigned 32-bit count).
//
// Ownership: the reader does not own the stream, which must outlive it.
// GetBuffer() and GetBinBuffer() point into the reader and stay valid until
// the next ReadLine/ReadBinary. The reader moves the stream's position ahead
// of what it has handed out; SeekToBufferStart() rewinds the stream to the
// first byte not handed out and reads the next block ahead from there.
//
// Threading: one thread at a time, together with its stream.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "oru/export.h"

namespace oru {

class DataStream;

class ORU_API LineReader {
public:
  LineReader(DataStream* stream, int limit);
  ~LineReader();
  LineReader(const LineReader&) = delete;
  LineReader& operator=(const LineReader&) = delete;

  /// Reads the next line; false at the end of the data.
  bool ReadLine();
  /// The current line, or null before a successful ReadLine.
  const char* GetBuffer() const;
  /// The current line as UTF-8 (UTF-16 text is converted).
  std::string GetString() const;
  /// Reads up to `count` bytes; returns how many (0 at the end).
  unsigned long ReadBinary(unsigned long count);
  /// The bytes of the last ReadBinary that delivered any, followed by a zero.
  unsigned char* GetBinBuffer() const;
  /// Moves the stream back to the first byte not yet handed out and reads
  /// ahead from there again; true when that seek succeeded. At the end of the
  /// data nothing is left unhanded: the stream stays at the end, and the
  /// next ReadLine() returns false.
  bool SeekToBufferStart();

private:
  struct State;
  std::unique_ptr<State> state;
};

}  // namespace oru
