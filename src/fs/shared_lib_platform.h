// Internal: the system's dynamic loader under SharedLib. One implementation
// each in shared_lib_posix.cpp (dlopen) and shared_lib_win.cpp
// (LoadLibraryExW).
#pragma once

#include <string>
#include <vector>

namespace oru::detail {

// The file names to try for `name`, in order.
std::vector<std::string> LibraryCandidates(const std::string& name);
// A handle, or null with the system's error text in `error`.
void* OpenLibrary(const std::string& fileName, std::string& error);
void* LibrarySymbol(void* handle, const char* symbol);
void CloseLibrary(void* handle);
// The path of the loaded file.
std::string LibraryPath(void* handle, const std::string& fallback);

}  // namespace oru::detail
