// Internal: the ZIP container read straight from a DataSource: the end
// record (with its Zip64 form), the central directory, and the checks that
// decide whether a member's bytes can be trusted.
//
// Everything here is bounds-checked against the archive's size; no field of
// the archive is trusted to fit. A source that fails or throws mid-read
// counts as a failed read.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "oru/data_source.h"

namespace oru::detail {

// Random reads from an archive's source. Sources of the library's own
// in-memory kind are read in place; every other source (a class derived by a
// user included) goes through its virtual reads.
class ZipSourceReader {
public:
  explicit ZipSourceReader(const std::shared_ptr<DataSource>& source);

  // The archive's length in bytes (0 when it cannot be told).
  uint64_t Size() const { return m_size; }
  // Exactly `count` bytes at `offset` into `dst`; false when they are not all
  // there or the source fails.
  bool ReadAt(uint64_t offset, void* dst, uint64_t count);
  // The bytes at `offset` where they lie in memory, or null when the source
  // is not read in place (or the range is not inside it).
  const unsigned char* InPlace(uint64_t offset, uint64_t count) const;

private:
  DataSource* m_source;
  const unsigned char* m_memory = nullptr;
  uint64_t m_size = 0;
};

constexpr std::size_t MAX_NAME = 2048;

struct ZipEntry {
  std::string name;           // as stored, cut at MAX_NAME bytes
  uint64_t headerOffset = 0;  // of the local header, from the start of the source
  uint64_t compressedSize = 0;
  uint64_t size = 0;  // inflated
  uint32_t crc = 0;
  uint16_t method = 0;
  uint16_t flags = 0;
  uint16_t nameLength = 0;  // as stored, before any cut
  // Why the entry cannot be trusted whatever its bytes, or null: its Zip64
  // extra field lacks a value it must hold, or its local header lies inside
  // the bytes of another member or of the directory.
  const char* defect = nullptr;
};

// Where the central directory lies, from the end record.
struct ZipDirectoryBounds {
  uint64_t start = 0;   // first byte of the directory in the source
  uint64_t size = 0;    // its length
  uint64_t prefix = 0;  // bytes before the archive proper (a self-extractor's program)
};

// Finds the end record (searching back over a comment of up to 65,535
// bytes, or over padding after the record) and, through the Zip64 locator,
// the Zip64 end record. False when the source holds no plausible archive.
bool FindZipDirectory(ZipSourceReader& reader, ZipDirectoryBounds* bounds);

// Reads every entry of the directory in order, stopping at the first record
// that is cut off or malformed. Sizes and offsets come from the Zip64 extra
// field where the 32-bit fields say so. Then marks the entries whose local
// header lies inside the bytes of a member located before it, or inside the
// directory: no stretch of the archive is ever inflated for two members.
std::vector<ZipEntry> ReadZipDirectory(ZipSourceReader& reader, const ZipDirectoryBounds& bounds);

// The first byte of the entry's data, from its local header; false when the
// header is missing or malformed.
bool FindZipEntryData(ZipSourceReader& reader, const ZipEntry& entry, uint64_t* dataStart);

}  // namespace oru::detail
