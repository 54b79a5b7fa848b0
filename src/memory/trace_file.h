// Internal: a heap trace's output file, written through a buffer of 256 KiB.
// Binary mode: every line ends in a bare "\n" on every platform, as
// heaptrack's readers expect. Used by the tracer's worker thread only.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>

namespace oru::detail {

class TraceFile {
public:
  // Throws std::runtime_error when the file cannot be created.
  explicit TraceFile(const std::string& fileName);
  ~TraceFile();
  TraceFile(const TraceFile&) = delete;
  TraceFile& operator=(const TraceFile&) = delete;

  void Put(char c) { m_buffer.push_back(c); }
  void Put(std::string_view text) { m_buffer.append(text); }
  // Lower-case hex digits, no leading zeros.
  void PutHex(uint64_t value);
  // `text` with its line ends ('\n', '\r') written as spaces.
  void PutOneLine(std::string_view text);

  // Writes the buffer out once it is full; throws when it cannot.
  void FlushWhenFull();
  // Writes what is buffered and closes the file; throws when the file could
  // not be written in full.
  void Close();

private:
  bool Flush();

  std::FILE* m_file;
  std::string m_buffer;
};

}  // namespace oru::detail
