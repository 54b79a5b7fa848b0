#include "support/test_util.h"

#include <zlib.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <random>
#include <sstream>
#include <stdexcept>
#include <thread>

#ifndef _WIN32
#include <sys/wait.h>
#endif

namespace oru::test {

namespace fs = std::filesystem;

TempDir::TempDir() {
  static std::atomic<unsigned> counter{0};
  m_path = fs::temp_directory_path() /
           ("oru_test_" + std::to_string(std::random_device{}()) + "_" + std::to_string(counter++));
  if (!fs::create_directory(m_path)) throw std::runtime_error("cannot create " + m_path.string());
}

TempDir::~TempDir() {
  std::error_code ec;
  fs::remove_all(m_path, ec);
}

std::string TempDir::File(const std::string& name) const {
  auto p = m_path / fs::u8path(name);
  auto u8 = p.u8string();
  return std::string(u8.begin(), u8.end());
}

void WriteFile(const std::string& path, const std::string& bytes) {
  std::ofstream out(fs::u8path(path), std::ios::binary | std::ios::trunc);
  if (!out) throw std::runtime_error("cannot write " + path);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

std::string ReadFile(const std::string& path) {
  std::ifstream in(fs::u8path(path), std::ios::binary);
  if (!in) throw std::runtime_error("cannot read " + path);
  std::ostringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

int Run(const std::string& command) {
  int rc = std::system(command.c_str());
  if (rc == -1) return -1;
#ifdef _WIN32
  return rc;
#else
  return WIFEXITED(rc) ? WEXITSTATUS(rc) : -1;
#endif
}

bool HaveTool(const std::string& tool) {
#ifdef _WIN32
  (void)tool;
  return false;
#else
  return Run("command -v " + tool + " >/dev/null 2>&1") == 0;
#endif
}

std::string Read(DataSource& src, uint64_t count) {
  std::string out(static_cast<size_t>(count), '\0');
  out.resize(static_cast<size_t>(src.GetBytes(reinterpret_cast<std::byte*>(out.data()), count)));
  return out;
}

std::string ReadAll(DataSource& src, uint64_t step) {
  std::string out, piece;
  while (!(piece = Read(src, step)).empty()) out += piece;
  return out;
}

std::string Contents(const std::shared_ptr<DataSource>& src) {
  if (!src) return "<null>";
  std::string out(static_cast<size_t>(src->GetFileSize()), '\0');
  src->Seek(0, DS_SEEK_SET);
  out.resize(
      static_cast<size_t>(src->GetBytes(reinterpret_cast<std::byte*>(out.data()), out.size())));
  return out;
}

std::string RandomBytes(std::size_t n, unsigned seed) {
  std::mt19937 gen(seed);
  std::string s(n, '\0');
  for (auto& c : s) c = static_cast<char>(gen() & 0xFF);
  return s;
}

std::string Deflate(const std::string& data, char format, int level) {
  z_stream zs{};
  int bits = format == 'z' ? 15 : format == 'g' ? 31 : -15;
  if (deflateInit2(&zs, level, Z_DEFLATED, bits, 8, Z_DEFAULT_STRATEGY) != Z_OK)
    throw std::runtime_error("deflateInit2");
  std::string out(deflateBound(&zs, static_cast<uLong>(data.size())) + 64, '\0');
  zs.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(data.data()));
  zs.avail_in = static_cast<uInt>(data.size());
  zs.next_out = reinterpret_cast<Bytef*>(out.data());
  zs.avail_out = static_cast<uInt>(out.size());
  int rc = deflate(&zs, Z_FINISH);
  deflateEnd(&zs);
  if (rc != Z_STREAM_END) throw std::runtime_error("deflate");
  out.resize(zs.total_out);
  return out;
}

}  // namespace oru::test

#ifdef _WIN32
#define WIN32_LEAN_AND_MEAN
#define NOMINMAX
#include <process.h>
#include <windows.h>
#else
#include <signal.h>
#include <spawn.h>
#include <unistd.h>
extern char** environ;
#endif

namespace oru::test {

namespace {
#ifdef _WIN32
constexpr const char* TEMP_AREA_VARIABLE = "TMP";
#else
constexpr const char* TEMP_AREA_VARIABLE = "XDG_CACHE_HOME";
#endif
}  // namespace

void SetEnv(const std::string& name, const std::string& value) {
#ifdef _WIN32
  // _wputenv_s updates both the runtime's and the system's copy, which is
  // where GetTempPathW looks.
  _wputenv_s(std::filesystem::u8path(name).wstring().c_str(),
             std::filesystem::u8path(value).wstring().c_str());
#else
  if (value.empty()) {
    unsetenv(name.c_str());
  } else {
    setenv(name.c_str(), value.c_str(), 1);
  }
#endif
}

std::string GetEnv(const std::string& name) {
#ifdef _WIN32
  // The narrow environment is in the ANSI code page; ask for UTF-16.
  const wchar_t* v = _wgetenv(std::filesystem::u8path(name).wstring().c_str());
  if (v == nullptr) return "";
  auto u8 = std::filesystem::path(v).u8string();
  return std::string(u8.begin(), u8.end());
#else
  const char* v = std::getenv(name.c_str());
  return v != nullptr ? v : "";
#endif
}

ScopedEnv::ScopedEnv(std::string name, const std::string& value)
    : m_name(std::move(name)), m_saved(GetEnv(m_name)) {
  SetEnv(m_name, value);
}

ScopedEnv::~ScopedEnv() {
  SetEnv(m_name, m_saved);
}

int RunPython(const std::string& script, const std::vector<std::string>& args,
              std::string* output) {
  TempDir dir;
  WriteFile(dir.File("script.py"), script);
  std::string command = "python3 '" + dir.File("script.py") + "'";
  for (const std::string& arg : args) command += " '" + arg + "'";
  command += " > '" + dir.File("out") + "'";
  const int status = Run(command);
  if (output != nullptr) *output = ReadFile(dir.File("out"));
  return status;
}

ScopedTempArea::ScopedTempArea(const std::string& dir) : m_saved(GetEnv(TEMP_AREA_VARIABLE)) {
  SetEnv(TEMP_AREA_VARIABLE, dir);
}

ScopedTempArea::~ScopedTempArea() {
  SetEnv(TEMP_AREA_VARIABLE, m_saved);
}

ChildProcess::ChildProcess(const std::string& filter) {
  const std::string filterArg = "--gtest_filter=" + filter;
  const std::string disabledArg = "--gtest_also_run_disabled_tests";
#ifdef _WIN32
  wchar_t self[MAX_PATH];
  GetModuleFileNameW(nullptr, self, MAX_PATH);
  const std::wstring f = std::filesystem::u8path(filterArg).wstring();
  const std::wstring d = std::filesystem::u8path(disabledArg).wstring();
  const std::wstring quoted = L"\"" + std::wstring(self) + L"\"";
  m_handle = _wspawnl(_P_NOWAIT, self, quoted.c_str(), f.c_str(), d.c_str(), nullptr);
  if (m_handle == -1) throw std::runtime_error("cannot start the child process");
#else
  std::vector<char*> argv = {const_cast<char*>("oru_tests"), const_cast<char*>(filterArg.c_str()),
                             const_cast<char*>(disabledArg.c_str()), nullptr};
  pid_t pid = 0;
  if (posix_spawn(&pid, "/proc/self/exe", nullptr, nullptr, argv.data(), environ) != 0) {
    throw std::runtime_error("cannot start the child process");
  }
  m_handle = pid;
#endif
}

ChildProcess::~ChildProcess() {
  if (m_handle != -1) Kill();
}

void ChildProcess::Kill() {
  if (m_handle == -1) return;
#ifdef _WIN32
  TerminateProcess(reinterpret_cast<HANDLE>(m_handle), 1);
  WaitForSingleObject(reinterpret_cast<HANDLE>(m_handle), INFINITE);
  CloseHandle(reinterpret_cast<HANDLE>(m_handle));
#else
  kill(static_cast<pid_t>(m_handle), SIGKILL);
  int status = 0;
  waitpid(static_cast<pid_t>(m_handle), &status, 0);
#endif
  m_handle = -1;
}

bool ChildProcess::Running() {
  if (m_handle == -1) return false;
#ifdef _WIN32
  return WaitForSingleObject(reinterpret_cast<HANDLE>(m_handle), 0) == WAIT_TIMEOUT;
#else
  int raw = 0;
  if (waitpid(static_cast<pid_t>(m_handle), &raw, WNOHANG) == 0) return true;
  m_status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
  m_handle = -1;  // reaped
  return false;
#endif
}

int ChildProcess::WaitFor(int seconds) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
  while (Running()) {
    if (std::chrono::steady_clock::now() > end) {
      Kill();
      return -2;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return Wait();
}

int ChildProcess::Wait() {
  if (m_handle == -1) return m_status;
  int status = -1;
#ifdef _WIN32
  WaitForSingleObject(reinterpret_cast<HANDLE>(m_handle), INFINITE);
  DWORD code = 0;
  GetExitCodeProcess(reinterpret_cast<HANDLE>(m_handle), &code);
  CloseHandle(reinterpret_cast<HANDLE>(m_handle));
  status = static_cast<int>(code);
#else
  int raw = 0;
  waitpid(static_cast<pid_t>(m_handle), &raw, 0);
  status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
#endif
  m_handle = -1;
  return status;
}

std::string ExecutableDirectory() {
#ifdef _WIN32
  wchar_t self[MAX_PATH];
  const DWORD n = GetModuleFileNameW(nullptr, self, MAX_PATH);
  const auto u8 = fs::path(std::wstring(self, n)).parent_path().u8string();
#else
  const auto u8 = fs::read_symlink("/proc/self/exe").parent_path().u8string();
#endif
  return std::string(u8.begin(), u8.end());
}

}  // namespace oru::test
