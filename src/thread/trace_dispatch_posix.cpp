// The debugger line of TraceInfoDispatcher on POSIX systems: there is no
// debugger output channel, so the line goes to the standard error stream.
#include <cstdio>

#include "thread/debugger_output.h"

namespace oru::detail {

void WriteDebuggerLine(const char* line) noexcept {
  std::fputs(line, stderr);
}

}  // namespace oru::detail
