// The library's global operator new and operator delete: every new and
// delete compiled into the library, its containers' and make_shared's
// included, is counted on the library's allocation path.
//
// Built into the shared library only (CMakeLists.txt leaves this file out of
// the static one, where it would replace the operators of the whole
// program). The replacements serve the library's own code and no one else's:
// on ELF systems the linker version script cmake/oru_local_operators.map
// keeps them out of the dynamic symbol table, and a DLL exports only what is
// marked ORU_API.
//
// Blocks cross the library's boundary both ways (a string moved into a data
// source, a string handed back), so the blocks themselves come from where the
// program's own operators take theirs (HostNew, see allocation_path.h): each
// side may release what the other allocated, whatever allocator the program
// installed. Only the counting is the library's own.
//
// Each operator calls the path's pieces itself, with no helper of its own,
// so that the frames a heap trace drops as machinery are just these names.
//
// The over-aligned forms (alignment above __STDCPP_DEFAULT_NEW_ALIGNMENT__)
// are left to the C++ runtime: the library allocates no
// over-aligned objects, and they are not counted.
#include <cstddef>
#include <new>

#include "memory/allocation_path.h"

using oru::detail::AnnounceRelease;
using oru::detail::CountAllocation;
using oru::detail::CountSizedRelease;
using oru::detail::CountUnsizedRelease;
using oru::detail::HostDelete;
using oru::detail::HostNew;
using oru::detail::HostNewNothrow;
using oru::detail::HostSizedDelete;

void* operator new(std::size_t size) {
  void* block = HostNew(size, false);
  CountAllocation(block, size);
  return block;
}

void* operator new[](std::size_t size) {
  void* block = HostNew(size, true);
  CountAllocation(block, size);
  return block;
}

void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  void* block = HostNewNothrow(size, false);
  if (block != nullptr) CountAllocation(block, size);
  return block;
}

void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
  void* block = HostNewNothrow(size, true);
  if (block != nullptr) CountAllocation(block, size);
  return block;
}

void operator delete(void* p) noexcept {
  if (p == nullptr) return;
  AnnounceRelease(p);
  HostDelete(p, false);
  CountUnsizedRelease();
}

void operator delete[](void* p) noexcept {
  if (p == nullptr) return;
  AnnounceRelease(p);
  HostDelete(p, true);
  CountUnsizedRelease();
}

void operator delete(void* p, std::size_t size) noexcept {
  if (p == nullptr) return;
  AnnounceRelease(p);
  HostSizedDelete(p, size, false);
  CountSizedRelease(size);
}

void operator delete[](void* p, std::size_t size) noexcept {
  if (p == nullptr) return;
  AnnounceRelease(p);
  HostSizedDelete(p, size, true);
  CountSizedRelease(size);
}

// Called only when a constructor throws after the matching nothrow new.
void operator delete(void* p, const std::nothrow_t&) noexcept {
  operator delete(p);
}

void operator delete[](void* p, const std::nothrow_t&) noexcept {
  operator delete[](p);
}
