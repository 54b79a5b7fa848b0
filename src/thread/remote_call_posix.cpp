// POSIX: no window messages to pump; thread ids from gettid().
#include <sys/syscall.h>
#include <unistd.h>

#include "thread/remote_call_platform.h"

namespace oru::detail {

void PumpThreadMessages() {}

bool JoinThreadsAtExit() {
  return true;
}

uint64_t CurrentThreadId() {
  return static_cast<uint64_t>(syscall(SYS_gettid));
}

uint64_t CurrentProcessId() {
  return static_cast<uint64_t>(getpid());
}

}  // namespace oru::detail
