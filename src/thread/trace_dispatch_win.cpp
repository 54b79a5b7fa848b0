// The debugger line of TraceInfoDispatcher on Windows: OutputDebugStringA,
// which an attached debugger (or a tool such as DebugView) displays.
#define WIN32_LEAN_AND_MEAN
#define NOMINMAX
#include <windows.h>

#include "thread/debugger_output.h"

namespace oru::detail {

void WriteDebuggerLine(const char* line) noexcept {
  OutputDebugStringA(line);
}

}  // namespace oru::detail
