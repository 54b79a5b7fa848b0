// Internal: the pieces of the counted allocation path that DoAllocation and
// the library's own operator new and delete share.
#pragma once

#include <cstddef>
#include <cstdint>

namespace oru::detail {

// malloc, retried through the current new-handler while there is one;
// throws BadAllocation ("bad allocation") when there is none.
void* MallocOrThrow(std::size_t bytes);

// Counts a successful allocation (and tells the live hook, in builds that
// have one).
void CountAllocation(void* block, uint64_t size) noexcept;
// Tells the live hook of a release, before the block is released, so that
// the event is queued before any allocation that might reuse the address.
void AnnounceRelease(void* block) noexcept;
// Count a release after it happened.
void CountSizedRelease(uint64_t size) noexcept;
void CountUnsizedRelease() noexcept;

// Where the library's operator new and delete take their blocks from (see
// operator_new.cpp): the process's global operators on Linux, so that a
// block can be released on either side of the library's boundary whatever
// allocator the program installed; malloc and free in oru.dll, whose
// operators no other module can see. `array` selects the new[]/delete[]
// forms.
void* HostNew(std::size_t size, bool array);
void* HostNewNothrow(std::size_t size, bool array) noexcept;
void HostDelete(void* block, bool array) noexcept;
void HostSizedDelete(void* block, std::size_t size, bool array) noexcept;

}  // namespace oru::detail
