// Internal: where the formatted trace line for the debugger goes. One
// implementation each in trace_dispatch_posix.cpp and trace_dispatch_win.cpp.
#pragma once

namespace oru::detail {

// Writes `line` (NUL-terminated, already ending in a newline when it fits) to
// the platform's debugger output. Never fails visibly.
void WriteDebuggerLine(const char* line) noexcept;

}  // namespace oru::detail
