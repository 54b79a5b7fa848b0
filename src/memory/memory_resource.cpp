// memory_resource, the two built-in resources and the default resource.
#include <atomic>
#include <cstddef>

#include "memory/bad_allocation.h"
#include "oru/memory.h"

namespace oru {

memory_resource::~memory_resource() = default;

namespace mem_resource_internals {

void* new_delete_mem_resource::do_allocate(std::size_t bytes, std::size_t /*alignment*/) {
  return DoAllocation(bytes);
}

void new_delete_mem_resource::do_deallocate(void* p, std::size_t bytes, std::size_t /*alignment*/) {
  DoSizedFree(p, bytes);
}

bool new_delete_mem_resource::do_is_equal(const memory_resource& /*other*/) const noexcept {
  return false;  // kept: see the header
}

void* null_mem_resource::do_allocate(std::size_t /*bytes*/, std::size_t /*alignment*/) {
  throw detail::BadAllocation();
}

void null_mem_resource::do_deallocate(void* /*p*/, std::size_t /*bytes*/,
                                      std::size_t /*alignment*/) {}

bool null_mem_resource::do_is_equal(const memory_resource& /*other*/) const noexcept {
  return false;  // kept: see the header
}

namespace {

// Holds a resource without ever destroying it: a destroyed resource would
// leave code that runs later during static destruction calling pure virtual
// functions through s_defaultMemResource. Constant-initialised, so the
// resources exist before any code of the process runs.
template <class Resource>
union Immortal {
  constexpr Immortal() : resource() {}
  constexpr ~Immortal() {}
  Resource resource;
};

constinit Immortal<new_delete_mem_resource> s_newDelete;
constinit Immortal<null_mem_resource> s_null;

}  // namespace

constinit new_delete_mem_resource& s_newDeleteMemResource = s_newDelete.resource;
constinit null_mem_resource& s_nullMemResource = s_null.resource;

}  // namespace mem_resource_internals

constinit std::atomic<memory_resource*> s_defaultMemResource{
    &mem_resource_internals::s_newDelete.resource};

}  // namespace oru
