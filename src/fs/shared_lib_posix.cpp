// The dynamic loader on ELF systems: dlopen, dlsym, dlclose.
#include <dlfcn.h>
#include <link.h>

#include "fs/shared_lib_platform.h"

namespace oru::detail {

std::vector<std::string> LibraryCandidates(const std::string& name) {
  if (name.find('/') != std::string::npos) return {name};
  return {"lib" + name + ".so", name + ".so", name};
}

void* OpenLibrary(const std::string& fileName, std::string& error) {
  void* handle = dlopen(fileName.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (handle == nullptr) {
    const char* text = dlerror();
    error = text != nullptr ? text : fileName + ": cannot be loaded";
  }
  return handle;
}

void* LibrarySymbol(void* handle, const char* symbol) {
  return dlsym(handle, symbol);
}

void CloseLibrary(void* handle) {
  dlclose(handle);
}

std::string LibraryPath(void* handle, const std::string& fallback) {
  link_map* map = nullptr;
  if (dlinfo(handle, RTLD_DI_LINKMAP, &map) == 0 && map != nullptr && map->l_name != nullptr &&
      map->l_name[0] != '\0')
    return map->l_name;
  return fallback;
}

}  // namespace oru::detail
