// HttpServerProcess: tools/http_server.py run as a child process, serving a
// directory on 127.0.0.1 at a free port, for the demo and the HttpFileSystem
// tests. The server ends when the object goes away (its standard input is
// closed), or with this process. POSIX only, like liboru-net.
#pragma once

#include <string>

namespace oru::tools {

class HttpServerProcess {
public:
  /// Starts `python3 <script> <dir>` and reads the port it prints. Port() is
  /// 0 when it could not be started.
  HttpServerProcess(std::string const& script, std::string const& dir);
  ~HttpServerProcess();
  HttpServerProcess(const HttpServerProcess&) = delete;
  HttpServerProcess& operator=(const HttpServerProcess&) = delete;

  int Port() const { return port; }
  /// "http://127.0.0.1:<port>"
  std::string Base() const;

private:
  int pid = -1;
  int input = -1;  // the server's standard input
  int port = 0;
};

}  // namespace oru::tools
