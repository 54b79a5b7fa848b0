// Internal: the few runtime-library file calls that differ between Windows
// (wide-character forms on the UTF-16 name) and POSIX (narrow calls on the
// UTF-8 name). One implementation each in file_io_win.cpp / file_io_posix.cpp.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

namespace oru::detail {

// Opens `utf8Name` read-only in binary mode; null on failure with errno set.
std::FILE* OpenFileForReading(const std::string& utf8Name);
// Access test for read permission. On failure errno is set.
bool IsFileReadable(const std::string& utf8Name);
// 64-bit fseek/ftell: 0 on success / the offset, -1 on failure.
int SeekFile(std::FILE* f, int64_t offset, int origin);
int64_t TellFile(std::FILE* f);
// Size and modification time (seconds since 1970-01-01 UTC); false with errno
// set when the stat fails.
bool StatFile(const std::string& utf8Name, uint64_t* size, int64_t* modificationTime);
// The runtime library's text for an errno value.
std::string ErrnoText(int error);

}  // namespace oru::detail
