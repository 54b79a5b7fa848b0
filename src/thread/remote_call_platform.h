// Internal: what the remote-call loop asks of the operating system.
// One implementation each in remote_call_win.cpp / remote_call_posix.cpp.
#pragma once

#include <cstdint>

namespace oru::detail {

// Dispatches the calling thread's pending window messages (Windows only).
void PumpThreadMessages();
// The operating system's id of the calling thread.
uint64_t CurrentThreadId();

}  // namespace oru::detail
