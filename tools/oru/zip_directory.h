// Internal to the oru command: the central directory of a ZIP archive, read
// for what ZipDataStream does not tell (sizes, method, CRC-32, time stamp).
//
//   ZipDirectory dir = ReadZipDirectory("scene.zip");  // throws Failure
//   for (ZipEntry const& e : dir.entries) ...
//
// Zip64 archives and bytes in front of the archive are understood. Damage
// throws Failure with a one-line reason (the archive's name first).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace oru::tool {

struct ZipEntry {
  std::string name;
  uint16_t flags = 0;
  uint16_t method = 0;
  uint16_t dosTime = 0;
  uint16_t dosDate = 0;
  uint32_t crc = 0;
  uint64_t compressedSize = 0;
  uint64_t size = 0;
};

struct ZipDirectory {
  std::vector<ZipEntry> entries;
};

/// Reads the central directory of the archive `path`.
ZipDirectory ReadZipDirectory(std::string const& path);

/// unzip's name for a member's method ("Stored", "Defl:N", ...).
std::string MethodName(ZipEntry const& entry);

}  // namespace oru::tool
