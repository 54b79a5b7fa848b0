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

// fopen with a C runtime mode, on the UTF-8 path; null on failure.
std::FILE* OpenFile(const std::string& path, const std::string& mode);
// The same for the file systems' files: regular files only, and never
// through a symbolic link (a reparse point on Windows), so that whatever
// was planted in place of a file is refused; opening a FIFO does not wait
// for a writer.
std::FILE* OpenPlainFile(const std::string& path, const std::string& mode);
// stat of the path itself, not of what a link points to (a link, or a
// reparse point, reads as mode 0120000); false (and `out` untouched) on
// failure.
bool StatPath(const std::string& path, FileStat& out);
// Sets the access and modification times (seconds since 1970).
bool SetFileTimes(const std::string& path, int64_t accessTime, int64_t modifyTime);
// The current time in seconds since 1970.
int64_t CurrentTime();
// unlink: 0 or -1.
int UnlinkPath(const std::string& path);
// Whether anything exists under `path`, a dangling link included.
bool PathExists(const std::string& path);
// The directory `name` in the user's private working area, created when
// missing (its last level only) and checked to be private; false when it
// cannot be had. See PosixFileSystem and WinFileSystem for where it lies.
bool PrepareWorkingDirectory(const std::string& name, char separator, std::string& out);
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
