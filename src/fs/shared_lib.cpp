#include "oru/shared_lib.h"

#include "fs/shared_lib_platform.h"

namespace oru {

std::shared_ptr<SharedLib> SharedLib::Load(std::string_view name, std::string* error) {
  std::string errors;
  if (!name.empty()) {
    for (const std::string& candidate : detail::LibraryCandidates(std::string(name))) {
      std::string why;
      if (void* handle = detail::OpenLibrary(candidate, why)) {
        return std::shared_ptr<SharedLib>(
            new SharedLib(handle, detail::LibraryPath(handle, candidate)));
      }
      if (!errors.empty()) errors += "; ";
      errors += why;
    }
  } else {
    errors = "no library name given";
  }
  if (error != nullptr) *error = errors;
  return nullptr;
}

SharedLib::SharedLib(void* handle, std::string path) : m_handle(handle), m_path(std::move(path)) {}

SharedLib::~SharedLib() {
  detail::CloseLibrary(m_handle);
}

void* SharedLib::GetSymbol(const char* symbol) const {
  return symbol != nullptr ? detail::LibrarySymbol(m_handle, symbol) : nullptr;
}

}  // namespace oru
