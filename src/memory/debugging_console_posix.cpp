// The debugging console without Windows: stdout and stderr to a private log
// file when stderr is not a terminal.
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <string>
#include <vector>

#include "oru/debugging_console.h"

namespace oru {

namespace {

struct Saved {
  int out = -1;
  int err = -1;
};
Saved s_saved;  // the original descriptors while a log file is in their place

}  // namespace

bool CreateDebuggingConsole(const char* /*title*/) {
  if (s_saved.out >= 0 || isatty(STDERR_FILENO)) return true;
  const char* tmp = std::getenv("TMPDIR");
  std::string pattern = (tmp != nullptr && *tmp != '\0') ? tmp : "/tmp";
  if (pattern.back() != '/') pattern += '/';
  pattern += "oru-console-" + std::to_string(getpid()) + "-XXXXXX.log";
  std::vector<char> name(pattern.begin(), pattern.end());
  name.push_back('\0');
  // mkstemps: a fresh name, created exclusively with mode 0600, so nothing
  // another user planted in the shared directory is written through.
  const int log = mkstemps(name.data(), 4);
  if (log < 0) return false;
  std::fprintf(stderr, "Debugging console: output goes to %s\n", name.data());
  std::fflush(stdout);
  std::fflush(stderr);
  std::cout.flush();
  std::cerr.flush();
  s_saved.out = dup(STDOUT_FILENO);
  s_saved.err = dup(STDERR_FILENO);
  const bool routed = s_saved.out >= 0 && s_saved.err >= 0 && dup2(log, STDOUT_FILENO) >= 0 &&
                      dup2(log, STDERR_FILENO) >= 0;
  close(log);
  if (!routed) {
    StopDebuggingConsole();
    return false;
  }
  return true;
}

void StopDebuggingConsole() {
  if (s_saved.out < 0 && s_saved.err < 0) return;
  std::fflush(stdout);
  std::fflush(stderr);
  std::cout.flush();
  std::cerr.flush();
  for (auto [saved, target] :
       {std::pair{&s_saved.out, STDOUT_FILENO}, std::pair{&s_saved.err, STDERR_FILENO}}) {
    if (*saved >= 0) {
      dup2(*saved, target);
      close(*saved);
      *saved = -1;
    }
  }
}

}  // namespace oru
