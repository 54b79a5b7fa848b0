// Internal: the operating-system calls under StdioFileSystem. Paths are
// UTF-8; the Windows implementation converts them to UTF-16 for the wide
// runtime calls, the POSIX one passes them on as they stand.
// One implementation each in file_system_win.cpp / file_system_posix.cpp.
#pragma once

#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>

#include "oru/file_system.h"

namespace oru::detail {

// fopen with a C runtime mode; null on failure.
std::FILE* OpenFile(const std::string& path, const std::string& mode);
// stat; false (and `out` untouched) on failure.
bool StatPath(const std::string& path, FileStat& out);
// Sets the access and modification times (seconds since 1970).
bool SetFileTimes(const std::string& path, int64_t accessTime, int64_t modifyTime);
// The current time in seconds since 1970.
int64_t CurrentTime();
// unlink: 0 or -1.
int UnlinkPath(const std::string& path);
// Whether anything exists under `path`.
bool PathExists(const std::string& path);
// Creates one directory level; true on success.
bool MakeDirectory(const std::string& path);
// The user's temporary directory with a trailing separator; false when the
// system cannot name one.
bool TemporaryDirectory(std::string& out);
// Calls `entry` with the name (not the path) of every entry of `dir`,
// "." and ".." included; false when the directory cannot be listed.
// `separator` is the one the caller's paths use.
bool ListDirectory(const std::string& dir, char separator,
                   const std::function<void(const std::string&)>& entry);
// Appends the bytes up to the next '\n' (consumed, not appended) or the end
// of the file to `line`, as one-byte freads would, but under one lock of
// the stream instead of one per byte.
void ReadLineFromFile(std::FILE* f, std::string& line);
// Renames `from` to `to`, replacing `to` when it exists, in one step.
bool RenameReplacing(const std::string& from, const std::string& to);

}  // namespace oru::detail
