// The library's global operator new and operator delete: every new and
// delete compiled into the library, its containers' and make_shared's
// included, goes through the counted allocation path.
//
// Built into the shared library only (CMakeLists.txt leaves this file out of
// the static one, where it would replace the operators of the whole
// program). The replacements serve the library's own code and no one else's:
// on ELF systems the linker version script cmake/oru_local_operators.map
// keeps them out of the dynamic symbol table, and a DLL exports only what is
// marked ORU_API.
//
// The over-aligned forms (alignment above __STDCPP_DEFAULT_NEW_ALIGNMENT__)
// are deliberately left to the C++ runtime: its aligned new and delete use an
// aligned allocator of their own that the application's aligned delete must
// be able to release, so they cannot go through malloc and free here. They
// are not counted; the library allocates no over-aligned objects.
#include <cstddef>
#include <new>

#include "oru/memory.h"

void* operator new(std::size_t size) {
  return oru::DoAllocation(size);
}

void* operator new[](std::size_t size) {
  return oru::DoAllocation(size);
}

void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  try {
    return oru::DoAllocation(size);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
  try {
    return oru::DoAllocation(size);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

void operator delete(void* p) noexcept {
  oru::DoUnsizedFree(p);
}

void operator delete[](void* p) noexcept {
  oru::DoUnsizedFree(p);
}

void operator delete(void* p, std::size_t size) noexcept {
  oru::DoSizedFree(p, size);
}

void operator delete[](void* p, std::size_t size) noexcept {
  oru::DoSizedFree(p, size);
}

void operator delete(void* p, const std::nothrow_t&) noexcept {
  oru::DoUnsizedFree(p);
}

void operator delete[](void* p, const std::nothrow_t&) noexcept {
  oru::DoUnsizedFree(p);
}
