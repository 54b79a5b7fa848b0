#include "memory/trace_file.h"

#include <stdexcept>

#include "fs/file_system_platform.h"

namespace oru::detail {

namespace {
constexpr size_t kBufferSize = 256 * 1024;
}

TraceFile::TraceFile(const std::string& fileName) : m_file(OpenFile(fileName, "wb")) {
  if (m_file == nullptr) throw std::runtime_error("Could not open trace file \"" + fileName + "\"");
  m_buffer.reserve(kBufferSize + 4096);
}

TraceFile::~TraceFile() {
  if (m_file != nullptr) std::fclose(m_file);
}

void TraceFile::PutHex(uint64_t value) {
  char digits[16];
  int n = 0;
  do {
    digits[n++] = "0123456789abcdef"[value & 15];
    value >>= 4;
  } while (value != 0);
  while (n > 0) m_buffer.push_back(digits[--n]);
}

void TraceFile::PutOneLine(std::string_view text) {
  for (const char c : text) m_buffer.push_back(c == '\n' || c == '\r' ? ' ' : c);
}

void TraceFile::FlushWhenFull() {
  if (m_buffer.size() >= kBufferSize && !Flush())
    throw std::runtime_error("Could not write the trace file");
}

void TraceFile::Close() {
  const bool written = Flush();
  const bool closed = std::fclose(m_file) == 0;
  m_file = nullptr;
  if (!written || !closed) throw std::runtime_error("Could not write the trace file");
}

bool TraceFile::Flush() {
  const bool ok = std::fwrite(m_buffer.data(), 1, m_buffer.size(), m_file) == m_buffer.size() &&
                  std::fflush(m_file) == 0;
  m_buffer.clear();
  return ok;
}

}  // namespace oru::detail
