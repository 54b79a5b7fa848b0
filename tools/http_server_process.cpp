#include "http_server_process.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

namespace oru::tools {

HttpServerProcess::HttpServerProcess(std::string const& script, std::string const& dir) {
  int in[2], out[2];
  if (pipe2(in, O_CLOEXEC) != 0) return;
  if (pipe2(out, O_CLOEXEC) != 0) {
    close(in[0]);
    close(in[1]);
    return;
  }
  pid = fork();
  if (pid == 0) {
    dup2(in[0], 0);
    dup2(out[1], 1);
    execlp("python3", "python3", script.c_str(), dir.c_str(), static_cast<char*>(nullptr));
    _exit(127);
  }
  close(in[0]);
  close(out[1]);
  input = in[1];
  // The first line is the port; nothing else is printed.
  std::string line;
  char c;
  while (pid > 0 && read(out[0], &c, 1) == 1 && c != '\n') line += c;
  close(out[0]);
  port = std::atoi(line.c_str());
}

HttpServerProcess::~HttpServerProcess() {
  if (input >= 0) close(input);
  if (pid > 0) waitpid(pid, nullptr, 0);
}

std::string HttpServerProcess::Base() const {
  return "http://127.0.0.1:" + std::to_string(port);
}

}  // namespace oru::tools
