#include "zip_directory.h"

#include <algorithm>
#include <filesystem>
#include <fstream>

#include "oru_command.h"

namespace oru::tool {

namespace {

constexpr uint32_t END_SIGNATURE = 0x06054b50;
constexpr uint32_t ZIP64_END_SIGNATURE = 0x06064b50;
constexpr uint32_t ZIP64_LOCATOR_SIGNATURE = 0x07064b50;
constexpr uint32_t ENTRY_SIGNATURE = 0x02014b50;
constexpr std::size_t END_SIZE = 22;
constexpr std::size_t LOCATOR_SIZE = 20;
constexpr std::size_t ENTRY_SIZE = 46;
constexpr std::size_t MAX_COMMENT = 65535;

uint64_t Little(std::string const& bytes, std::size_t at, int width) {
  uint64_t value = 0;
  for (int i = width - 1; i >= 0; --i) {
    value = value << 8 | static_cast<unsigned char>(bytes[at + static_cast<std::size_t>(i)]);
  }
  return value;
}

class ArchiveFile {
public:
  explicit ArchiveFile(std::string const& path) : m_path(path) {
    if (path == "-") throw Failure("a ZIP archive must be a file, not standard input");
    std::fclose(OpenInput(path));  // the clear reasons for missing files and directories
    m_in.open(std::filesystem::u8path(path), std::ios::binary);
    std::error_code error;
    m_size = std::filesystem::file_size(std::filesystem::u8path(path), error);
    if (!m_in || error) throw Failure(path + ": cannot be read");
  }

  uint64_t Size() const { return m_size; }

  // `count` bytes at `offset`, or Failure naming what was being read.
  std::string Read(uint64_t offset, uint64_t count, char const* what) {
    if (offset > m_size || count > m_size - offset) Damaged(what);
    std::string bytes(static_cast<std::size_t>(count), '\0');
    m_in.seekg(static_cast<std::streamoff>(offset));
    m_in.read(bytes.data(), static_cast<std::streamsize>(count));
    if (!m_in) throw Failure(m_path + ": read error");
    return bytes;
  }

  [[noreturn]] void Damaged(char const* what) const {
    throw Failure(m_path + ": " + what + " (truncated or damaged archive)");
  }

  std::string const& Path() const { return m_path; }

private:
  std::string m_path;
  std::ifstream m_in;
  uint64_t m_size = 0;
};

// Applies the Zip64 extra field (id 1) to the fields that overflowed.
void ApplyZip64(std::string const& extra, ZipEntry& entry, bool sizeOverflow,
                bool compressedOverflow) {
  for (std::size_t at = 0; at + 4 <= extra.size();) {
    const auto id = Little(extra, at, 2);
    const auto length = static_cast<std::size_t>(Little(extra, at + 2, 2));
    const std::size_t end = std::min(extra.size(), at + 4 + length);
    if (id == 1) {
      std::size_t field = at + 4;
      if (sizeOverflow && field + 8 <= end) {
        entry.size = Little(extra, field, 8);
        field += 8;
      }
      if (compressedOverflow && field + 8 <= end) entry.compressedSize = Little(extra, field, 8);
      return;
    }
    at = at + 4 + length;
  }
}

}  // namespace

ZipDirectory ReadZipDirectory(std::string const& path) {
  ArchiveFile file(path);
  if (file.Size() < END_SIZE) throw Failure(path + ": not a ZIP archive (too short)");

  // The end record, searched backwards over a possible comment.
  const uint64_t tailSize = std::min<uint64_t>(file.Size(), END_SIZE + MAX_COMMENT);
  const std::string tail = file.Read(file.Size() - tailSize, tailSize, "no end record");
  std::size_t end = std::string::npos;
  for (std::size_t at = tail.size() - END_SIZE + 1; at-- > 0;) {
    if (Little(tail, at, 4) == END_SIGNATURE) {
      end = at;
      break;
    }
  }
  if (end == std::string::npos) {
    throw Failure(path + ": not a ZIP archive (no end of central directory; truncated?)");
  }
  const uint64_t endOffset = file.Size() - tailSize + end;
  uint64_t count = Little(tail, end + 10, 2);
  uint64_t directorySize = Little(tail, end + 12, 4);
  uint64_t directoryOffset = Little(tail, end + 16, 4);
  uint64_t directoryEnd = endOffset;

  if ((count == 0xFFFF || directorySize == 0xFFFFFFFF || directoryOffset == 0xFFFFFFFF) &&
      endOffset >= LOCATOR_SIZE) {
    const std::string locator =
        file.Read(endOffset - LOCATOR_SIZE, LOCATOR_SIZE, "Zip64 locator cut short");
    if (Little(locator, 0, 4) == ZIP64_LOCATOR_SIGNATURE) {
      const uint64_t at = Little(locator, 8, 8);
      const std::string record = file.Read(at, 56, "Zip64 end record outside the file");
      if (Little(record, 0, 4) != ZIP64_END_SIGNATURE) file.Damaged("bad Zip64 end record");
      count = Little(record, 32, 8);
      directorySize = Little(record, 40, 8);
      directoryOffset = Little(record, 48, 8);
      directoryEnd = at;
    }
  }
  // Bytes in front of the archive shift every offset; the directory ends
  // where the end records begin.
  if (directorySize > directoryEnd) file.Damaged("central directory larger than the file");
  const uint64_t directoryStart = directoryEnd - directorySize;
  (void)directoryOffset;
  const std::string bytes = file.Read(directoryStart, directorySize, "central directory");

  ZipDirectory directory;
  std::size_t at = 0;
  for (uint64_t i = 0; i < count; ++i) {
    if (at + ENTRY_SIZE > bytes.size() || Little(bytes, at, 4) != ENTRY_SIGNATURE) {
      file.Damaged("central directory damaged");
    }
    ZipEntry entry;
    entry.flags = static_cast<uint16_t>(Little(bytes, at + 8, 2));
    entry.method = static_cast<uint16_t>(Little(bytes, at + 10, 2));
    entry.dosTime = static_cast<uint16_t>(Little(bytes, at + 12, 2));
    entry.dosDate = static_cast<uint16_t>(Little(bytes, at + 14, 2));
    entry.crc = static_cast<uint32_t>(Little(bytes, at + 16, 4));
    entry.compressedSize = Little(bytes, at + 20, 4);
    entry.size = Little(bytes, at + 24, 4);
    const auto nameLength = static_cast<std::size_t>(Little(bytes, at + 28, 2));
    const auto extraLength = static_cast<std::size_t>(Little(bytes, at + 30, 2));
    const auto commentLength = static_cast<std::size_t>(Little(bytes, at + 32, 2));
    const std::size_t next = at + ENTRY_SIZE + nameLength + extraLength + commentLength;
    if (next > bytes.size()) file.Damaged("central directory damaged");
    entry.name = bytes.substr(at + ENTRY_SIZE, nameLength);
    ApplyZip64(bytes.substr(at + ENTRY_SIZE + nameLength, extraLength), entry,
               entry.size == 0xFFFFFFFF, entry.compressedSize == 0xFFFFFFFF);
    directory.entries.push_back(std::move(entry));
    at = next;
  }
  return directory;
}

std::string MethodName(ZipEntry const& entry) {
  switch (entry.method) {
    case 0:
      return "Stored";
    case 8:
      return std::string("Defl:") + "NXFS"[(entry.flags >> 1) & 3];
    case 9:
      return "Def64#";
    case 12:
      return "BZip2";
    case 14:
      return "LZMA";
    default: {
      char text[16];
      std::snprintf(text, sizeof text, "Unk:%03u", static_cast<unsigned>(entry.method));
      return text;
    }
  }
}

}  // namespace oru::tool
