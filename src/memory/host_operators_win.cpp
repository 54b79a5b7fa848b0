// The blocks of the library's operator new and delete in oru.dll: malloc and
// free. A DLL cannot see a program's replacement operators (each module binds
// its own), so blocks that cross between oru.dll and a program are safe as
// long as the program's operators use the C runtime's heap, as the default
// ones do.
#include <cstdlib>
#include <new>

#include "memory/allocation_path.h"

namespace oru::detail {

void* HostNew(std::size_t size, bool) {
  return MallocOrThrow(size);
}

void* HostNewNothrow(std::size_t size, bool) noexcept {
  try {
    return MallocOrThrow(size);
  } catch (...) {
    return nullptr;
  }
}

void HostDelete(void* block, bool) noexcept {
  std::free(block);
}

void HostSizedDelete(void* block, std::size_t, bool) noexcept {
  std::free(block);
}

}  // namespace oru::detail
