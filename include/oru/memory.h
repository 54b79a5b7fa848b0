// The library's allocation path, its counters, memory resources, the memory
// usage account and the shutdown flag.
//
// All heap traffic of the library's own code goes through one pair of
// functions, DoAllocation and DoSizedFree / DoUnsizedFree, which add two
// atomic counter updates to malloc and free and nothing else (no lock, no
// header per block, and no hook unless the build enables it; see
// SetAllocationEventHandler). The counters are PerformanceCounters (see
// oru/performance_counter.h), visible by their tags and readable here:
//
//   const uint64_t before = oru::counters::CallsToNew();
//   auto zip = oru::ZipDataStream::Create(source);
//   std::printf("opening took %llu allocations\n",
//               static_cast<unsigned long long>(oru::counters::CallsToNew() - before));
//
//   void* block = oru::DoAllocation(64);          // never null; throws instead
//   oru::DoSizedFree(block, 64);
//
//   oru::memory_resource* r = oru::s_defaultMemResource.load();
//   void* p = r->allocate(32);
//   r->deallocate(p, 32);
//
// What is counted:
// - Shared library (the default). liboru replaces the global operator new
//   and operator delete (plain, array, nothrow and sized forms) for its own
//   code only, so every new, delete, container and make_shared compiled into
//   the library is counted, and the application's own allocations are not.
//   On Linux the replacements are bound inside liboru.so and not exported.
//   Not counted there: allocations that libstdc++.so makes on the library's
//   behalf in its own compiled code (for example the out-of-line members of
//   std::string and the streams), which use libstdc++'s operator new; direct
//   malloc/calloc calls (zlib, minizip, raw buffers); and over-aligned new
//   (alignment above 16 bytes), which stays with the C++ runtime. On Windows
//   oru.dll carries its own copy of the C++ runtime, so the runtime's code
//   inside the DLL is counted too.
// - Static library. The global operators are not replaced: that would take
//   over every allocation of the whole program. Only direct calls of
//   DoAllocation, DoSizedFree, DoUnsizedFree and of new_delete_mem_resource
//   are counted.
// Blocks cross the boundary (a string moved into a data source, a string
// handed back), so each side must be able to release the other's blocks.
// On Linux the library's operators count and then hand the block to the
// process's global operators, found at run time: the program's own
// replacements when it has them (an allocator library, a checking
// allocator), else the C++ runtime's. A program that replaces operator new
// and delete, and programs built with AddressSanitizer, need nothing special.
// oru.dll cannot see a program's operators (each Windows module binds its
// own) and uses malloc and free, as the C++ runtime's default operators do:
// a Windows program that replaces operator new and delete must not release
// blocks the library allocated, nor hand the library blocks to adopt. Each
// side counts only its own calls, so CallsToNew() - CallsToDelete() is not a
// count of live blocks.
//
// The new-handler that DoAllocation calls when malloc fails is the one of the
// C++ runtime the library is linked with. On Windows oru.dll has its own
// runtime, so std::set_new_handler in the application does not reach it. A
// failed operator new inside the library is the program's operator new
// failing on Linux (its new-handler, its exception).
//
// Ownership: DoAllocation's blocks belong to the caller until released with
// DoSizedFree (giving the same size) or DoUnsizedFree. The two built-in
// memory resources and s_defaultMemResource are never destroyed, so they may
// be used during static destruction.
//
// Threading: every function here may be called from any thread. Each counter
// update is one atomic read-modify-write; the two updates of one call are not
// atomic as a pair, so a reader may see CallsToNew raised before
// CumulativeAllocations.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "oru/export.h"
#include "oru/performance_counter.h"

namespace oru {

/// Allocates `size` bytes with malloc (0 included: a unique non-null block).
/// When malloc fails, calls the current std::new_handler and tries again,
/// as long as there is one; without one, throws std::bad_alloc whose what()
/// is "bad allocation". Never returns null. On success adds 1 to CallsToNew
/// and `size` to CumulativeAllocations; a failure counts nothing.
ORU_API void* DoAllocation(uint64_t size);
/// Frees a block of DoAllocation whose size the caller knows (the size is
/// trusted, not checked) and adds `size` to CumulativeDeallocations and 1 to
/// CallsToDelete. Null is ignored and not counted.
ORU_API void DoSizedFree(void* p, uint64_t size) noexcept;
/// Frees a block of DoAllocation whose size is not known and adds 1 to
/// CallsToDelete and to UnsizedDeallocations, nothing to
/// CumulativeDeallocations, so allocated minus deallocated bytes is only an
/// upper bound of the live bytes (kept: hosts' memory reports are read that
/// way). Null is ignored.
ORU_API void DoUnsizedFree(void* p) noexcept;

/// Current values of the allocation counters. They only grow (modulo 2^64).
namespace counters {
ORU_API uint64_t CallsToNew() noexcept;               ///< successful allocations
ORU_API uint64_t CumulativeAllocations() noexcept;    ///< bytes ever allocated
ORU_API uint64_t CallsToDelete() noexcept;            ///< releases of non-null blocks
ORU_API uint64_t CumulativeDeallocations() noexcept;  ///< bytes released with a size
ORU_API uint64_t UnsizedDeallocations() noexcept;     ///< releases without a size
}  // namespace counters

/// A minimal polymorphic allocator interface. Users call the non-virtual
/// allocate / deallocate / is_equal; resources implement the do_ functions.
class ORU_API memory_resource {
public:
  virtual ~memory_resource();

  /// `bytes` bytes aligned as the resource can; throws std::bad_alloc on
  /// failure.
  void* allocate(std::size_t bytes, std::size_t alignment = alignof(std::max_align_t)) {
    return do_allocate(bytes, alignment);
  }
  /// Releases a block of this resource, with the size it was allocated with.
  void deallocate(void* p, std::size_t bytes, std::size_t alignment = alignof(std::max_align_t)) {
    do_deallocate(p, bytes, alignment);
  }
  /// Whether blocks of one resource may be released through the other.
  bool is_equal(const memory_resource& other) const noexcept { return do_is_equal(other); }

private:
  virtual void* do_allocate(std::size_t bytes, std::size_t alignment) = 0;
  virtual void do_deallocate(void* p, std::size_t bytes, std::size_t alignment) = 0;
  virtual bool do_is_equal(const memory_resource& other) const noexcept = 0;
};

/// Two resources are equal when they are the same object or say so.
inline bool operator==(const memory_resource& a, const memory_resource& b) noexcept {
  return &a == &b || a.is_equal(b);
}

namespace mem_resource_internals {

/// Allocates with DoAllocation and releases with DoSizedFree; the alignment
/// is ignored (malloc's alignment is what it gets).
class ORU_API new_delete_mem_resource final : public memory_resource {
private:
  void* do_allocate(std::size_t bytes, std::size_t alignment) override;
  void do_deallocate(void* p, std::size_t bytes, std::size_t alignment) override;
  // False for every resource, this one included (kept: callers compare
  // resources with operator==, which tests identity first).
  bool do_is_equal(const memory_resource& other) const noexcept override;
};

/// Never allocates: allocate throws std::bad_alloc ("bad allocation");
/// deallocate does nothing.
class ORU_API null_mem_resource final : public memory_resource {
private:
  void* do_allocate(std::size_t bytes, std::size_t alignment) override;
  void do_deallocate(void* p, std::size_t bytes, std::size_t alignment) override;
  // False for every resource, this one included (kept, as above).
  bool do_is_equal(const memory_resource& other) const noexcept override;
};

/// The one instance of each (never destroyed).
ORU_API extern new_delete_mem_resource& s_newDeleteMemResource;
ORU_API extern null_mem_resource& s_nullMemResource;

}  // namespace mem_resource_internals

/// The process-wide default resource; &s_newDeleteMemResource from the
/// moment the library is loaded. Read with load(), replace with exchange().
ORU_API extern std::atomic<memory_resource*> s_defaultMemResource;

/// A receiver of allocation events (allocation and release of blocks).
class ORU_API MemoryEventHandler {
public:
  virtual ~MemoryEventHandler();
  virtual void OnAllocate(void* block, uint64_t size) = 0;
  virtual void OnFree(void* block) = 0;
};

/// Installs `handler` as the receiver of the events of the allocation path
/// and returns the one it replaces; null removes the handler.
///
/// Inert in the default build (kept: hosts call it unconditionally and rely
/// on getting null back and no calls): it stores nothing, never calls
/// `handler` and returns null.
///
/// Built with the CMake option ORU_LIVE_ALLOCATION_HOOK=ON, the hook is
/// live: DoAllocation calls OnAllocate(block, size) after each successful
/// allocation, and DoSizedFree / DoUnsizedFree call OnFree(block) before
/// releasing a non-null block, on the allocating thread. An exception from
/// the handler is swallowed (the allocation stands). When this function
/// returns, no thread is still inside a call of the replaced handler, so it
/// may be destroyed (unless the replacement is made from inside a handler
/// call, which does not wait for itself). A handler that allocates through
/// the library is called again from inside itself and must guard against
/// that. With no handler installed, the hook costs one atomic load.
ORU_API MemoryEventHandler* SetAllocationEventHandler(MemoryEventHandler* handler) noexcept;

/// Whether this build has the live hook (see SetAllocationEventHandler).
ORU_API bool IsAllocationEventHookLive() noexcept;

/// An account of memory use that callers keep by hand (the allocation
/// functions do not feed it), with a high-water threshold and a total of
/// time spent measuring. Once SetDoingShutdown() has been called the account
/// ignores changes and reads as empty. All members are thread-safe.
class ORU_API RecordMemoryUsage {
public:
  /// Adds / subtracts `bytes` (0 does nothing; nothing after shutdown). The
  /// subtraction is not checked: it wraps below zero.
  static void Add(uint64_t bytes) noexcept;
  static void Remove(uint64_t bytes) noexcept;
  /// Bytes in use; 0 after shutdown.
  static uint64_t Used() noexcept;
  // The setter takes mebibytes, the getter gives bytes (kept: hosts compare
  // the getter's value with Used()).
  /// Sets the threshold to `megabytes` MiB; 0 means no threshold.
  static void SetHighUsageValue(uint64_t megabytes) noexcept;
  /// The threshold in bytes; 0 after shutdown.
  static uint64_t GetHighUsageValue() noexcept;
  /// True when a threshold is set and the bytes in use exceed it; false
  /// after shutdown.
  static bool PassedHighUsage() noexcept;
  /// Adds to / clears the recorded time in milliseconds (a signed 32-bit
  /// total, kept also after shutdown).
  static void AddRecordUsageTime(int milliseconds) noexcept;
  static void ResetRecordUsageTime() noexcept;
  /// Prints "Total Memory Usage Time: <seconds>s\n" (printf's %f of the
  /// time in seconds, computed in single precision) to standard output;
  /// prints nothing while the recorded time is 0.
  static void PrintfRecordUsageTime();
};

/// Whether the host has announced the end of the process. One-way: once set,
/// it stays set. Code that may run during teardown asks and then does
/// nothing. The library never sets it itself.
ORU_API bool IsDoingShutdown() noexcept;
ORU_API void SetDoingShutdown() noexcept;

}  // namespace oru
