// The dynamic loader on Windows: LoadLibraryExW on the UTF-16 name,
// GetProcAddress, FreeLibrary.
#define WIN32_LEAN_AND_MEAN
#define NOMINMAX
#include <windows.h>

#include "fs/shared_lib_platform.h"
#include "oru/encoding.h"

namespace oru::detail {

namespace {

std::string SystemMessage(DWORD code) {
  wchar_t* text = nullptr;
  const DWORD n = FormatMessageW(
      FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS,
      nullptr, code, 0, reinterpret_cast<wchar_t*>(&text), 0, nullptr);
  std::string message = n != 0 ? WideStrToUtf8(BasicStringSpan<wchar_t const>(text, n))
                               : "error " + std::to_string(code);
  if (text != nullptr) LocalFree(text);
  while (!message.empty() && (message.back() == '\n' || message.back() == '\r')) message.pop_back();
  return message;
}

}  // namespace

std::vector<std::string> LibraryCandidates(const std::string& name) {
  if (name.find_first_of("/\\") != std::string::npos) return {name};
  return {name + "_vs16.dll", name + ".dll"};
}

void* OpenLibrary(const std::string& fileName, std::string& error) {
  HMODULE module = LoadLibraryExW(Utf8ToWideStr(fileName).c_str(), nullptr, 0);
  if (module == nullptr) error = fileName + ": " + SystemMessage(GetLastError());
  return reinterpret_cast<void*>(module);
}

void* LibrarySymbol(void* handle, const char* symbol) {
  return reinterpret_cast<void*>(GetProcAddress(static_cast<HMODULE>(handle), symbol));
}

void CloseLibrary(void* handle) {
  FreeLibrary(static_cast<HMODULE>(handle));
}

std::string LibraryPath(void* handle, const std::string& fallback) {
  wchar_t buffer[32768];
  const DWORD n = GetModuleFileNameW(static_cast<HMODULE>(handle), buffer, 32768);
  if (n == 0 || n >= 32768) return fallback;
  return WideStrToUtf8(BasicStringSpan<wchar_t const>(buffer, n));
}

}  // namespace oru::detail
