#include "support/test_util.h"

#include <zlib.h>

#include <atomic>
#include <cstdlib>
#include <fstream>
#include <random>
#include <sstream>
#include <stdexcept>

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
