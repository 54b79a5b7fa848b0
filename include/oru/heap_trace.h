// HeapTrace: records allocations and releases, each with the call stack of
// its allocation, into a text trace file that heaptrack_print (and the
// heaptrack GUI) can read.
//
//   {
//     oru::HeapTrace trace("app.heaptrace");  // empty name: no tracing
//     ... run the workload ...
//   }                                          // drains and closes the file
//   $ heaptrack_print app.heaptrace
//
// Where the events come from: a tracer installs itself with
// SetAllocationEventHandler (oru/memory.h). In the default build that hook
// is inert, so the file gets its header and nothing else unless the host
// feeds the tracer itself: Handler() gives the tracer's MemoryEventHandler,
// and a host with allocation hooks of its own calls OnAllocate / OnFree on
// it. Built with the CMake option ORU_LIVE_ALLOCATION_HOOK=ON, the hook is
// live and every allocation of the library's own code reaches the tracer
// (IsAllocationEventHookLive() tells which build this is).
//
// What the file holds: the header line "v 10150 2", then per event a time
// record and an allocation ("+") or release ("-") record, with allocation
// sites ("a": size and stack), stack nodes ("t"), described instruction
// addresses ("i": module, function, file, line) and strings ("s") each
// written once, when first used, and referred to by number afterwards. A
// release of an address that is not live is written as a comment line
// "#Unmatched free <address>". Stacks are cleaned before they are written:
// the frames of the allocation machinery at their inner end are dropped (the
// stack walker's own, "operator new"/"operator delete" and the tracer's
// handlers), everything beyond the program's "main" is cut off, and each run
// of consecutive "std::" frames is reduced to its outermost frame.
//
// Cost: the allocating thread captures the raw stack, reads the clock and
// appends to a queue under a lock; symbolising, numbering and writing
// happen on the tracer's own worker thread, which owns the file. The worker
// takes the queue in batches, at most about 10 ms after an event was queued.
//
// Failure: a file that cannot be created is reported on standard error as
// "Could not create trace file \"<name>\"" and the object then traces
// nothing; the constructor does not throw for it. It throws
// std::runtime_error when no stack walker can be made (see
// oru/stack_walker.h) and std::system_error when the worker thread cannot
// be started. An error on the worker thread is reported on standard error
// and ends the tracing.
//
// Ownership: HeapTrace owns its tracer, the worker thread and the file.
//
// Threading: OnAllocate and OnFree may be called from any number of threads
// at once. Construct and destroy a HeapTrace on one thread; destruction
// waits until every event queued before it has been written.
#pragma once

#include <cstdint>
#include <memory>

#include "oru/export.h"
#include "oru/memory.h"
#include "oru/string_span.h"

namespace oru {

class ORU_API HeapTrace {
public:
  /// Starts tracing into `traceFileName` (created or truncated). An empty
  /// name means no tracing: no file, no thread.
  explicit HeapTrace(BasicStringSpan<char const> traceFileName);
  /// Puts the previous allocation event handler back, writes every queued
  /// event, closes the file and joins the worker.
  ~HeapTrace();
  HeapTrace(const HeapTrace&) = delete;
  HeapTrace& operator=(const HeapTrace&) = delete;

  /// The receiver of allocation events, or null when not tracing. Valid as
  /// long as this object; callers must stop calling it before destroying
  /// the HeapTrace.
  MemoryEventHandler* Handler() const;

  class Tracer;

private:
  std::unique_ptr<Tracer> m_tracer;
};

}  // namespace oru
