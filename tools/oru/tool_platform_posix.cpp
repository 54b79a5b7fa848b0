// The oru command's few operating-system calls, POSIX side.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "oru_command.h"

namespace oru::tool {

bool StderrIsTerminal() {
  return isatty(STDERR_FILENO) == 1;
}

void UseBinaryStdio() {}

std::string PrivateDirProblem(std::string const& dir) {
  struct stat st;
  if (lstat(dir.c_str(), &st) != 0) return std::strerror(errno);
  if (S_ISLNK(st.st_mode)) return "is a symbolic link";
  if (!S_ISDIR(st.st_mode)) return "not a directory";
  if (st.st_uid != geteuid()) return "not owned by the current user";
  if ((st.st_mode & (S_IWGRP | S_IWOTH)) != 0) return "writable by group or others";
  return {};
}

bool MakePrivateDir(std::string const& dir) {
  return mkdir(dir.c_str(), 0700) == 0;
}

StderrCapture::StderrCapture() {
  std::fflush(stderr);
  m_scratch = std::tmpfile();
  if (m_scratch == nullptr) return;
  m_saved = dup(STDERR_FILENO);
  if (m_saved < 0 || dup2(fileno(m_scratch), STDERR_FILENO) < 0) {
    std::fclose(m_scratch);
    m_scratch = nullptr;
  }
}

StderrCapture::~StderrCapture() {
  if (m_scratch == nullptr) return;
  std::fflush(stderr);
  dup2(m_saved, STDERR_FILENO);
  close(m_saved);
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
