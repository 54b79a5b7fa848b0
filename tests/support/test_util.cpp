#include "support/test_util.h"

#include <zlib.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <random>
#include <thread>

#ifdef _WIN32
#define WIN32_LEAN_AND_MEAN
#ifndef NOMINMAX
#define NOMINMAX
#endif
#include <process.h>
#include <windows.h>
#else
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>
extern char** environ;
#endif

namespace oru::test {

namespace fs = std::filesystem;

namespace {
#ifdef _WIN32
constexpr const char* TEMP_AREA_VARIABLE = "TMP";
#else
constexpr const char* TEMP_AREA_VARIABLE = "XDG_CACHE_HOME";
#endif

std::string Utf8(const fs::path& path) {
  const auto u8 = path.u8string();
  return std::string(u8.begin(), u8.end());
}
}  // namespace

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
  return Utf8(m_path / fs::u8path(name));
}

void WriteFile(const std::string& path, const std::string& bytes) {
  std::ofstream out(fs::u8path(path), std::ios::binary | std::ios::trunc);
  if (!out) throw std::runtime_error("cannot write " + path);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

std::string ReadFile(const std::string& path) {
  std::ifstream in(fs::u8path(path), std::ios::binary);
  if (!in) throw std::runtime_error("cannot read " + path);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

int Run(const std::string& command) {
  const int rc = std::system(command.c_str());
#ifdef _WIN32
  return rc;
#else
  return rc != -1 && WIFEXITED(rc) ? WEXITSTATUS(rc) : -1;
#endif
}

bool HaveTool(const std::string& tool) {
#ifdef _WIN32
  (void)tool;  // no shell to look with
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
  src->Seek(0, DS_SEEK_SET);
  return Read(*src, src->GetFileSize());
}

std::string RandomBytes(std::size_t n, unsigned seed) {
  std::mt19937 gen(seed);
  std::string s(n, '\0');
  for (auto& c : s) c = static_cast<char>(gen() & 0xFF);
  return s;
}

std::string Utf8Of(char32_t c) {
  if (c < 0x80) return std::string(1, static_cast<char>(c));
  const int n = c < 0x800 ? 2 : c < 0x10000 ? 3 : 4;
  std::string s(static_cast<std::size_t>(n), '\0');
  for (int i = n - 1; i > 0; --i, c >>= 6) s[i] = static_cast<char>(0x80 | (c & 0x3F));
  s[0] = static_cast<char>(((0xFF00 >> n) & 0xFF) | c);
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
  const int rc = deflate(&zs, Z_FINISH);
  deflateEnd(&zs);
  if (rc != Z_STREAM_END) throw std::runtime_error("deflate");
  out.resize(zs.total_out);
  return out;
}

void SetEnv(const std::string& name, const std::string& value) {
#ifdef _WIN32
  // _wputenv_s updates both the runtime's and the system's copy, which is
  // where GetTempPathW looks.
  _wputenv_s(fs::u8path(name).wstring().c_str(), fs::u8path(value).wstring().c_str());
#else
  value.empty() ? unsetenv(name.c_str()) : setenv(name.c_str(), value.c_str(), 1);
#endif
}

std::string GetEnv(const std::string& name) {
#ifdef _WIN32
  // The narrow environment is in the ANSI code page; ask for UTF-16.
  const wchar_t* v = _wgetenv(fs::u8path(name).wstring().c_str());
  return v != nullptr ? Utf8(v) : "";
#else
  const char* v = std::getenv(name.c_str());
  return v != nullptr ? v : "";
#endif
}

ScopedEnv::ScopedEnv(std::string name, const std::string& value)
    : m_name(std::move(name)), m_saved(GetEnv(m_name)) {
  SetEnv(m_name, value);
}

int RunPython(const std::string& script, const std::vector<std::string>& args,
              std::string* output) {
  TempDir dir;
  WriteFile(dir.File("script.py"), script);
  std::string command = "python3 '" + dir.File("script.py") + "'";
  for (const std::string& arg : args) command += " '" + arg + "'";
  const int status = Run(command + " > '" + dir.File("out") + "'");
  if (output != nullptr) *output = ReadFile(dir.File("out"));
  return status;
}

ScopedTempArea::ScopedTempArea(const std::string& dir) : m_env(TEMP_AREA_VARIABLE, dir) {}

ChildProcess::ChildProcess(const std::string& filter) {
  const std::string filterArg = "--gtest_filter=" + filter;
  const std::string disabledArg = "--gtest_also_run_disabled_tests";
#ifdef _WIN32
  wchar_t self[MAX_PATH];
  GetModuleFileNameW(nullptr, self, MAX_PATH);
  const std::wstring quoted = L"\"" + std::wstring(self) + L"\"";
  m_handle = _wspawnl(_P_NOWAIT, self, quoted.c_str(), fs::u8path(filterArg).wstring().c_str(),
                      fs::u8path(disabledArg).wstring().c_str(), nullptr);
#else
  std::vector<char*> argv = {const_cast<char*>("oru_tests"), const_cast<char*>(filterArg.c_str()),
                             const_cast<char*>(disabledArg.c_str()), nullptr};
  pid_t pid = 0;
  m_handle =
      posix_spawn(&pid, "/proc/self/exe", nullptr, nullptr, argv.data(), environ) == 0 ? pid : -1;
#endif
  if (m_handle == -1) throw std::runtime_error("cannot start the child process");
}

void ChildProcess::Kill() {
  if (m_handle == -1) return;
#ifdef _WIN32
  TerminateProcess(reinterpret_cast<HANDLE>(m_handle), 1);
#else
  kill(static_cast<pid_t>(m_handle), SIGKILL);
#endif
  Wait();
  m_status = -1;  // not a normal end
}

// Reaps the process once it has ended, keeping its exit status.
bool ChildProcess::Running() {
  if (m_handle == -1) return false;
#ifdef _WIN32
  const HANDLE handle = reinterpret_cast<HANDLE>(m_handle);
  if (WaitForSingleObject(handle, 0) == WAIT_TIMEOUT) return true;
  DWORD code = 0;
  GetExitCodeProcess(handle, &code);
  CloseHandle(handle);
  m_status = static_cast<int>(code);
#else
  int raw = 0;
  if (waitpid(static_cast<pid_t>(m_handle), &raw, WNOHANG) == 0) return true;
  m_status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
#endif
  m_handle = -1;
  return false;
}

int ChildProcess::WaitFor(int seconds) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
  while (Running()) {
    if (seconds >= 0 && std::chrono::steady_clock::now() > end) {
      Kill();
      return -2;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return m_status;
}

std::string ExecutableDirectory() {
#ifdef _WIN32
  wchar_t self[MAX_PATH];
  const DWORD n = GetModuleFileNameW(nullptr, self, MAX_PATH);
  return Utf8(fs::path(std::wstring(self, n)).parent_path());
#else
  return Utf8(fs::read_symlink("/proc/self/exe").parent_path());
#endif
}

}  // namespace oru::test
