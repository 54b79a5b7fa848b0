// The oru command's few operating-system calls, Windows side.
#include <direct.h>
#include <fcntl.h>
#include <io.h>

#include <filesystem>
#include <system_error>

#include "oru_command.h"

namespace oru::tool {

bool StderrIsTerminal() {
  return _isatty(_fileno(stderr)) != 0;
}

void UseBinaryStdio() {
  _setmode(_fileno(stdin), _O_BINARY);
  _setmode(_fileno(stdout), _O_BINARY);
}

// The user's temporary directory is private on Windows; what is checked here
// is that the directory is a real one, not a reparse point.
std::string PrivateDirProblem(std::string const& dir) {
  std::error_code error;
  const auto status = std::filesystem::symlink_status(std::filesystem::u8path(dir), error);
  if (error) return error.message();
  if (std::filesystem::is_symlink(status)) return "is a symbolic link";
  if (!std::filesystem::is_directory(status)) return "not a directory";
  return {};
}

bool MakePrivateDir(std::string const& dir) {
  std::error_code error;
  return std::filesystem::create_directory(std::filesystem::u8path(dir), error);
}

StderrCapture::StderrCapture() {
  std::fflush(stderr);
  m_scratch = std::tmpfile();
  if (m_scratch == nullptr) return;
  m_saved = _dup(_fileno(stderr));
  if (m_saved < 0 || _dup2(_fileno(m_scratch), _fileno(stderr)) < 0) {
    std::fclose(m_scratch);
    m_scratch = nullptr;
  }
}

StderrCapture::~StderrCapture() {
  if (m_scratch == nullptr) return;
  std::fflush(stderr);
  _dup2(m_saved, _fileno(stderr));
  _close(m_saved);
  std::fclose(m_scratch);
}

std::string StderrCapture::Text() {
  if (m_scratch == nullptr) return {};
  std::fflush(stderr);
  std::string text;
  std::rewind(m_scratch);
  char buffer[4096];
  std::size_t n;
  while ((n = std::fread(buffer, 1, sizeof buffer, m_scratch)) > 0) text.append(buffer, n);
  std::fseek(m_scratch, 0, SEEK_END);
  return text;
}

}  // namespace oru::tool
