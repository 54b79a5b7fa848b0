// Internal: what the remote-call loop asks of the operating system.
// One implementation each in remote_call_win.cpp / remote_call_posix.cpp.
#pragma once

#include <cstdint>

namespace oru::detail {

// Dispatches the calling thread's pending window messages (Windows only).
void PumpThreadMessages();
// Whether an object that owns threads may be torn down while the process
// exits. Not on Windows: by the time a DLL's static objects are destroyed,
// every other thread has been stopped, and tearing down what they waited on
// (joining them, destroying their condition variables) never ends.
bool JoinThreadsAtExit();
// The operating system's id of the calling thread, and of the process.
uint64_t CurrentThreadId();
uint64_t CurrentProcessId();

}  // namespace oru::detail
