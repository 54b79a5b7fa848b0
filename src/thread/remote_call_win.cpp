// Windows: the loop thread pumps its window messages between jobs, so that
// objects with thread affinity (COM, hidden windows) created on it work.
#define WIN32_LEAN_AND_MEAN
#define NOMINMAX
#include <windows.h>

#include "thread/remote_call_platform.h"

namespace oru::detail {

void PumpThreadMessages() {
  MSG msg;
  while (PeekMessageA(&msg, nullptr, 0, 0, PM_REMOVE | PM_NOYIELD)) {
    TranslateMessage(&msg);
    DispatchMessageA(&msg);
  }
}

bool JoinThreadsAtExit() {
  return false;
}

uint64_t CurrentThreadId() {
  return static_cast<uint64_t>(GetCurrentThreadId());
}

uint64_t CurrentProcessId() {
  return static_cast<uint64_t>(GetCurrentProcessId());
}

}  // namespace oru::detail
