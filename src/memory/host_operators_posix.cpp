// The blocks of the library's operator new and delete on ELF systems: the
// process's global operators, looked up once at run time. The library's own
// operators are local to liboru.so (see cmake/oru_local_operators.map), so
// the lookup finds what the rest of the program uses: the program's
// replacement when it has one, else the C++ runtime's. Blocks allocated by
// the library may then be released by the program and the other way round.
#include <dlfcn.h>

#include <cstdlib>
#include <new>

#include "memory/allocation_path.h"

namespace oru::detail {

namespace {

struct Operators {
  void* (*newPlain)(std::size_t);
  void* (*newArray)(std::size_t);
  void* (*newPlainNothrow)(std::size_t, const std::nothrow_t&) noexcept;
  void* (*newArrayNothrow)(std::size_t, const std::nothrow_t&) noexcept;
  void (*deletePlain)(void*) noexcept;
  void (*deleteArray)(void*) noexcept;
  void (*deletePlainSized)(void*, std::size_t) noexcept;
  void (*deleteArraySized)(void*, std::size_t) noexcept;
};

void* MallocNothrow(std::size_t size, const std::nothrow_t&) noexcept {
  try {
    return MallocOrThrow(size);
  } catch (...) {
    return nullptr;
  }
}
void Free(void* p) noexcept {
  std::free(p);
}
void FreeSized(void* p, std::size_t) noexcept {
  std::free(p);
}

// The global definition of `symbol`, or `fallback` when there is none (a
// process without the C++ runtime's operators cannot exist while liboru is
// loaded, but a missing symbol must not become a null call).
template <class F>
F Lookup(const char* symbol, F fallback) {
  void* found = dlsym(RTLD_DEFAULT, symbol);
  return found != nullptr ? reinterpret_cast<F>(found) : fallback;
}

const Operators& Global() noexcept {
  static const Operators operators{
      Lookup("_Znwm", &MallocOrThrow),
      Lookup("_Znam", &MallocOrThrow),
      Lookup("_ZnwmRKSt9nothrow_t", &MallocNothrow),
      Lookup("_ZnamRKSt9nothrow_t", &MallocNothrow),
      Lookup("_ZdlPv", &Free),
      Lookup("_ZdaPv", &Free),
      Lookup("_ZdlPvm", &FreeSized),
      Lookup("_ZdaPvm", &FreeSized),
  };
  return operators;
}

}  // namespace

void* HostNew(std::size_t size, bool array) {
  return array ? Global().newArray(size) : Global().newPlain(size);
}

void* HostNewNothrow(std::size_t size, bool array) noexcept {
  return array ? Global().newArrayNothrow(size, std::nothrow)
               : Global().newPlainNothrow(size, std::nothrow);
}

void HostDelete(void* block, bool array) noexcept {
  array ? Global().deleteArray(block) : Global().deletePlain(block);
}

void HostSizedDelete(void* block, std::size_t size, bool array) noexcept {
  array ? Global().deleteArraySized(block, size) : Global().deletePlainSized(block, size);
}

}  // namespace oru::detail
