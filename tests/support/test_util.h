// Helpers shared by the test suites: a private temporary directory per test,
// whole-file I/O, and running the independent tools (gzip, python3, zip) that
// make reference data for us.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>

#include "oru/data_source.h"

namespace oru::test {

// A fresh directory under the system temporary directory, removed with
// everything in it when the object goes away.
class TempDir {
public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::filesystem::path& path() const { return m_path; }
  // Path of `name` inside the directory, as a UTF-8 string.
  std::string File(const std::string& name) const;

private:
  std::filesystem::path m_path;
};

void WriteFile(const std::string& path, const std::string& bytes);
std::string ReadFile(const std::string& path);

// Runs a shell command; returns its exit status (or -1 when it cannot run).
int Run(const std::string& command);
// True when `tool` can be found on PATH. Tests that need an outside tool
// (gzip, python3, zip) skip with a message when it is missing, e.g. under
// wine, where there is no shell.
bool HaveTool(const std::string& tool);

// One GetBytes call for up to `count` bytes; everything the source delivers,
// `step` bytes per call.
std::string Read(DataSource& src, uint64_t count);
std::string ReadAll(DataSource& src, uint64_t step);
// The whole content of a source from its start; "<null>" for a null pointer.
std::string Contents(const std::shared_ptr<DataSource>& src);

// The directory of the running test program, UTF-8.
std::string ExecutableDirectory();

// Deterministic pseudo-random bytes for test data.
std::string RandomBytes(std::size_t n, unsigned seed);

// The UTF-8 form of one code point, written independently of the library: the
// lead byte marker comes from shifting 0xFF00, continuation bytes are peeled
// off the low end.
std::string Utf8Of(char32_t c);

// Compresses with zlib itself: format 'z' (zlib wrapper), 'g' (gzip wrapper)
// or 'r' (raw deflate).
std::string Deflate(const std::string& data, char format, int level = 6);

// Sets (or, with an empty value, removes) an environment variable of this
// process; child processes started afterwards inherit it.
void SetEnv(const std::string& name, const std::string& value);
// The variable's value, empty when it is not set.
std::string GetEnv(const std::string& name);

// Sets (or, with an empty value, removes) an environment variable for the
// lifetime of the object, then restores what was there.
class ScopedEnv {
public:
  ScopedEnv(std::string name, const std::string& value);
  ~ScopedEnv() { SetEnv(m_name, m_saved); }
  ScopedEnv(const ScopedEnv&) = delete;
  ScopedEnv& operator=(const ScopedEnv&) = delete;

private:
  std::string m_name, m_saved;
};

// Runs a Python 3 `script` with `args` (each passed as one argument) and
// returns its exit status; its standard output goes to `*output` when given.
// Tests check HaveTool("python3") first.
int RunPython(const std::string& script, const std::vector<std::string>& args,
              std::string* output = nullptr);

// Points the file systems' working area (XDG_CACHE_HOME, or TMP on Windows) at `dir`
// for the lifetime of the object, then restores what was there.
class ScopedTempArea {
public:
  explicit ScopedTempArea(const std::string& dir);

private:
  ScopedEnv m_env;
};

// Another run of this test program that runs only the tests matching
// `filter` (disabled ones included), for tests that kill a process on
// purpose.
class ChildProcess {
public:
  explicit ChildProcess(const std::string& filter);
  ~ChildProcess() { Kill(); }
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  // Ends the process at once, with no chance to clean up, and reaps it.
  void Kill();
  // False once the process has ended (by itself or killed).
  bool Running();
  // Waits for a normal end; the exit status (-1 when it did not exit
  // normally).
  int Wait() { return WaitFor(-1); }
  // As Wait, but kills the process after `seconds` and returns -2.
  int WaitFor(int seconds);

private:
  intptr_t m_handle = -1;
  int m_status = -1;  // once reaped
};

}  // namespace oru::test
