// The debugging console on Windows: a console of the process's own, with
// the C and C++ standard streams routed to it.
#define WIN32_LEAN_AND_MEAN
#define NOMINMAX
#include <windows.h>

#include <io.h>

#include <cstdio>
#include <iostream>
#include <string>

#include "oru/debugging_console.h"
#include "oru/encoding.h"

namespace oru {

namespace {

struct Saved {
  int in = -1, out = -1, err = -1;
  bool allocated = false;
};
Saved s_saved;

void FlushAll() {
  std::fflush(stdout);
  std::fflush(stderr);
  std::cout.flush();
  std::cerr.flush();
}

}  // namespace

bool CreateDebuggingConsole(const char* title) {
  if (s_saved.allocated || GetConsoleWindow() != nullptr) return true;
  if (!AllocConsole()) return false;
  s_saved.allocated = true;
  if (title != nullptr) SetConsoleTitleW(Utf8ToWideStr(title).c_str());
  FlushAll();
  s_saved.in = _dup(0);
  s_saved.out = _dup(1);
  s_saved.err = _dup(2);
  FILE* f = nullptr;
  freopen_s(&f, "CONIN$", "r", stdin);
  freopen_s(&f, "CONOUT$", "w", stdout);
  freopen_s(&f, "CONOUT$", "w", stderr);
  // The C++ streams share the C streams' buffers; clear any error state
  // left from writing to no console.
  std::cin.clear();
  std::cout.clear();
  std::cerr.clear();
  return true;
}

void StopDebuggingConsole() {
  if (!s_saved.allocated) return;
  FlushAll();
  int* saved[] = {&s_saved.in, &s_saved.out, &s_saved.err};
  for (int fd = 0; fd < 3; ++fd) {
    if (*saved[fd] >= 0) {
      _dup2(*saved[fd], fd);
      _close(*saved[fd]);
      *saved[fd] = -1;
    }
  }
  FreeConsole();
  s_saved.allocated = false;
}

}  // namespace oru
