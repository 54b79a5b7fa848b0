// Internal: the data cache's info file, "info.txt", read and written through
// a FileSystem. Line by line (each line ending in "\n"; CR LF on disk where
// the file system writes text mode):
//   Version 1.8
//   <file name> <extra data>        two lines per cached file, in the order
//   <logical name>                  of the cache's map
//   ---
//   <alternative><<>><logical name> one line per alternative name
// Sizes and times are not stored: they come from the files themselves.
#pragma once

#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "oru/data_cache.h"
#include "oru/file_system.h"

namespace oru::detail {

// Between an alternative name and its logical name; an alternative name may
// not hold it.
constexpr const char* ALTERNATIVE_MARK = "<<>>";

using AlternativeNames = std::unordered_map<std::string, std::string>;

// Reads the info file at `path` into `entries` (keyed by `dir` + separator +
// file name) and `alternatives` (both filled only when the file is one the
// cache wrote whole: its version line, "---" after the entries, and the last
// alternative's line end). A file of another version, over 64 MiB, or with a
// line over 64 KiB reads as nothing. A link, FIFO or device in its place is
// removed, never followed.
void ReadInfoFile(FileSystem& fs, const std::string& path, const std::string& dir,
                  DataCache::InfoMap& entries, AlternativeNames& alternatives);

// The whole text of the info file for `files` and `alternatives`. Entries
// whose path has no file name after its last `separator` are left out.
std::string InfoFileText(const DataCache::FileMap& files, const AlternativeNames& alternatives,
                         char separator);

}  // namespace oru::detail
