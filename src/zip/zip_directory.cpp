#include "zip/zip_directory.h"

#include <algorithm>
#include <cstring>
#include <numeric>
#include <typeinfo>

#include "oru/make_shared_enabler.h"

namespace oru::detail {

namespace {

constexpr uint32_t END_SIGNATURE = 0x06054b50;            // "PK\5\6"
constexpr uint32_t ZIP64_END_SIGNATURE = 0x06064b50;      // "PK\6\6"
constexpr uint32_t ZIP64_LOCATOR_SIGNATURE = 0x07064b50;  // "PK\6\7"
constexpr uint32_t ENTRY_SIGNATURE = 0x02014b50;          // "PK\1\2"
constexpr uint32_t LOCAL_SIGNATURE = 0x04034b50;          // "PK\3\4"
constexpr uint64_t END_SIZE = 22;
constexpr uint64_t ZIP64_END_SIZE = 56;
constexpr uint64_t ZIP64_LOCATOR_SIZE = 20;
constexpr uint64_t ENTRY_SIZE = 46;
constexpr uint64_t LOCAL_HEADER_SIZE = 30;
constexpr uint64_t MAX_COMMENT = 65535;
constexpr uint64_t IN_ZIP64 = 0xFFFFFFFF;  // a 32-bit field whose value is in the Zip64 field
constexpr uint16_t ZIP64_EXTRA_ID = 1;
constexpr uint64_t DIRECTORY_CHUNK = 64 * 1024;

uint16_t Le16(const unsigned char* p) {
  return static_cast<uint16_t>(p[0] | p[1] << 8);
}
uint32_t Le32(const unsigned char* p) {
  return uint32_t{p[0]} | uint32_t{p[1]} << 8 | uint32_t{p[2]} << 16 | uint32_t{p[3]} << 24;
}
uint64_t Le64(const unsigned char* p) {
  return uint64_t{Le32(p)} | uint64_t{Le32(p + 4)} << 32;
}

uint64_t AddCapped(uint64_t a, uint64_t b) {
  return a > UINT64_MAX - b ? UINT64_MAX : a + b;
}

// Replaces the sizes and the header offset that the 32-bit fields mark as
// held elsewhere by the values of the Zip64 extra field, which holds exactly
// the marked ones, in this order. False when the field is missing or short.
bool ApplyZip64(const unsigned char* extra, uint64_t length, ZipEntry* entry, uint64_t* offset) {
  uint64_t* const wanted[] = {&entry->size, &entry->compressedSize, offset};
  if (std::none_of(std::begin(wanted), std::end(wanted),
                   [](uint64_t* v) { return *v == IN_ZIP64; }))
    return true;
  for (uint64_t at = 0; at + 4 <= length;) {
    const uint16_t id = Le16(extra + at);
    const uint64_t n = Le16(extra + at + 2);
    if (at + 4 + n > length) break;
    if (id == ZIP64_EXTRA_ID) {
      const unsigned char* field = extra + at + 4;
      uint64_t left = n;
      for (uint64_t* value : wanted) {
        if (*value != IN_ZIP64) continue;
        if (left < 8) return false;
        *value = Le64(field);
        field += 8;
        left -= 8;
      }
      return true;
    }
    at += 4 + n;
  }
  return false;
}

// Reads the directory through a window of the source: in place for memory
// sources, in chunks of 64 KiB (or one record, if larger) for the others.
class DirectoryCursor {
public:
  DirectoryCursor(ZipSourceReader& reader, uint64_t end) : m_reader(reader), m_end(end) {}

  // `count` bytes at `at`, or null when they run past the directory's end or
  // cannot be read.
  const unsigned char* View(uint64_t at, uint64_t count) {
    if (at > m_end || count > m_end - at) return nullptr;
    if (const unsigned char* direct = m_reader.InPlace(at, count)) return direct;
    if (at < m_start || at + count > m_start + m_window.size()) {
      m_window.resize(std::min(m_end - at, std::max(count, DIRECTORY_CHUNK)));
      m_start = at;
      if (!m_reader.ReadAt(at, m_window.data(), m_window.size())) {
        m_window.clear();
        return nullptr;
      }
    }
    return m_window.data() + (at - m_start);
  }

private:
  ZipSourceReader& m_reader;
  uint64_t m_end;
  uint64_t m_start = 0;
  std::vector<unsigned char> m_window;
};

// Marks entries whose local header lies inside the bytes of a member located
// before it (the first in directory order wins among equal offsets), or that
// do not lie wholly before the directory. A member's bytes are taken as at
// least its local header with the directory's name length plus its
// compressed data. Marked entries claim no bytes of their own, so a lying
// entry cannot shadow the honest members after it.
void MarkOverlaps(std::vector<ZipEntry>& entries, const ZipDirectoryBounds& bounds) {
  std::vector<size_t> order(entries.size());
  std::iota(order.begin(), order.end(), size_t{0});
  std::stable_sort(order.begin(), order.end(), [&entries](size_t a, size_t b) {
    return entries[a].headerOffset < entries[b].headerOffset;
  });
  uint64_t reach = 0;
  for (size_t index : order) {
    ZipEntry& entry = entries[index];
    if (entry.defect != nullptr) continue;
    const uint64_t end =
        AddCapped(entry.headerOffset + LOCAL_HEADER_SIZE + entry.nameLength, entry.compressedSize);
    if (entry.headerOffset < reach) {
      entry.defect = "overlaps another member";
    } else if (end > bounds.start) {
      entry.defect = "overlaps the central directory";
    } else {
      reach = end;
    }
  }
}

}  // namespace

ZipSourceReader::ZipSourceReader(const std::shared_ptr<DataSource>& source)
    : m_source(source.get()) {
  if (m_source == nullptr) return;
  // Only the library's own kind is read in place: a class derived by a user
  // may override the reads.
  if (typeid(*m_source) == typeid(make_shared_enabler<InMemoryDataSource>)) {
    const auto* memory = static_cast<const InMemoryDataSource*>(m_source);
    m_memory = reinterpret_cast<const unsigned char*>(memory->GetDataBuffer());
    m_size = m_memory != nullptr ? memory->GetFileSize() : 0;
    return;
  }
  try {
    if (m_source->Seek(0, DS_SEEK_END) == 0) {
      const uint64_t end = m_source->GetOffset();
      if (end != UINT64_MAX) m_size = end;
    }
  } catch (...) {
    m_size = 0;  // a source that cannot even be measured holds no archive
  }
}

bool ZipSourceReader::ReadAt(uint64_t offset, void* dst, uint64_t count) {
  if (offset > m_size || count > m_size - offset) return false;
  if (count == 0) return true;
  if (m_memory != nullptr) {
    std::memcpy(dst, m_memory + offset, static_cast<size_t>(count));
    return true;
  }
  try {
    if (m_source->Seek(static_cast<int64_t>(offset), DS_SEEK_SET) != 0) return false;
    auto* out = static_cast<std::byte*>(dst);
    for (uint64_t done = 0; done < count;) {
      const uint64_t got = m_source->GetBytes(out + done, count - done);
      if (got == 0) return false;
      done += got;
    }
    return true;
  } catch (...) {
    // An exception must not leave the reader: a failed read is reported as
    // such.
    return false;
  }
}

const unsigned char* ZipSourceReader::InPlace(uint64_t offset, uint64_t count) const {
  if (m_memory == nullptr || offset > m_size || count > m_size - offset) return nullptr;
  return m_memory + offset;
}

bool FindZipDirectory(ZipSourceReader& reader, ZipDirectoryBounds* bounds) {
  const uint64_t size = reader.Size();
  if (size < END_SIZE) return false;
  const uint64_t tailSize = std::min(size, END_SIZE + MAX_COMMENT);
  const uint64_t tailStart = size - tailSize;
  std::vector<unsigned char> copy;
  const unsigned char* tail = reader.InPlace(tailStart, tailSize);
  if (tail == nullptr) {
    copy.resize(tailSize);
    if (!reader.ReadAt(tailStart, copy.data(), tailSize)) return false;
    tail = copy.data();
  }
  // The record whose comment ends exactly at the end of the source is the
  // one; failing that, the last record (padding may follow it: ZipWriter
  // pads its archives with zeros).
  uint64_t found = UINT64_MAX;
  for (uint64_t i = tailSize - END_SIZE + 1; i-- > 0;) {
    if (Le32(tail + i) != END_SIGNATURE) continue;
    if (found == UINT64_MAX) found = i;
    if (i + END_SIZE + Le16(tail + i + 20) == tailSize) {
      found = i;
      break;
    }
  }
  if (found == UINT64_MAX) return false;
  const unsigned char* end = tail + found;
  const uint64_t endPos = tailStart + found;
  uint64_t directorySize = Le32(end + 12);
  uint64_t directoryOffset = Le32(end + 16);
  uint64_t directoryEnd = endPos;

  unsigned char locator[ZIP64_LOCATOR_SIZE];
  if (endPos >= ZIP64_LOCATOR_SIZE &&
      reader.ReadAt(endPos - ZIP64_LOCATOR_SIZE, locator, ZIP64_LOCATOR_SIZE) &&
      Le32(locator) == ZIP64_LOCATOR_SIGNATURE) {
    // The Zip64 end record lies where the locator says, or, in an archive
    // with bytes in front of it, right before the locator.
    const uint64_t before = endPos - ZIP64_LOCATOR_SIZE;
    const uint64_t candidates[] = {Le64(locator + 8),
                                   before >= ZIP64_END_SIZE ? before - ZIP64_END_SIZE : UINT64_MAX};
    for (uint64_t at : candidates) {
      unsigned char record[ZIP64_END_SIZE];
      if (at > before || !reader.ReadAt(at, record, ZIP64_END_SIZE) ||
          Le32(record) != ZIP64_END_SIGNATURE)
        continue;
      directorySize = Le64(record + 40);
      directoryOffset = Le64(record + 48);
      directoryEnd = at;
      break;
    }
  }
  if (directoryOffset > directoryEnd || directorySize > directoryEnd - directoryOffset)
    return false;
  bounds->size = directorySize;
  bounds->start = directoryEnd - directorySize;
  bounds->prefix = bounds->start - directoryOffset;
  return true;
}

std::vector<ZipEntry> ReadZipDirectory(ZipSourceReader& reader, const ZipDirectoryBounds& bounds) {
  std::vector<ZipEntry> entries;
  const uint64_t end = bounds.start + bounds.size;
  DirectoryCursor cursor(reader, end);
  for (uint64_t at = bounds.start; at < end;) {
    const unsigned char* fixed = cursor.View(at, ENTRY_SIZE);
    if (fixed == nullptr || Le32(fixed) != ENTRY_SIGNATURE) break;
    const uint64_t nameLength = Le16(fixed + 28);
    const uint64_t extraLength = Le16(fixed + 30);
    const uint64_t recordSize = ENTRY_SIZE + nameLength + extraLength + Le16(fixed + 32);
    const unsigned char* record = cursor.View(at, recordSize);
    if (record == nullptr) break;
    ZipEntry& entry = entries.emplace_back();
    entry.flags = Le16(record + 8);
    entry.method = Le16(record + 10);
    entry.crc = Le32(record + 16);
    entry.compressedSize = Le32(record + 20);
    entry.size = Le32(record + 24);
    entry.nameLength = static_cast<uint16_t>(nameLength);
    entry.name.assign(reinterpret_cast<const char*>(record + ENTRY_SIZE),
                      std::min<size_t>(nameLength, MAX_NAME));
    uint64_t offset = Le32(record + 42);
    if (!ApplyZip64(record + ENTRY_SIZE + nameLength, extraLength, &entry, &offset)) {
      entry.defect = "sizes missing from its Zip64 extra field";
    } else if (offset > UINT64_MAX - bounds.prefix - LOCAL_HEADER_SIZE - MAX_COMMENT * 2) {
      entry.defect = "local header beyond the archive";
    }
    entry.headerOffset = offset + bounds.prefix;
    at += recordSize;
  }
  MarkOverlaps(entries, bounds);
  return entries;
}

bool FindZipEntryData(ZipSourceReader& reader, const ZipEntry& entry, uint64_t* dataStart) {
  unsigned char header[LOCAL_HEADER_SIZE];
  if (!reader.ReadAt(entry.headerOffset, header, LOCAL_HEADER_SIZE) ||
      Le32(header) != LOCAL_SIGNATURE)
    return false;
  *dataStart = entry.headerOffset + LOCAL_HEADER_SIZE + Le16(header + 26) + Le16(header + 28);
  return true;
}

}  // namespace oru::detail
