// Internal: the records of a heap trace in heaptrack's text format, version
// 2, so that heaptrack_print and the heaptrack GUI read it. Numbers are
// lower-case hex:
//   v 10150 2                header
//   s <text>                 string; numbered from 1 in order of appearance
//   i <pc> <module> <function> <file> <line>
//                            a return address and its description (string
//                            numbers and the line); numbered from 1
//   t <instruction> <parent> stack node: one frame and the node of the
//                            frame that called it (0: outermost frame);
//                            numbered from 1, and a stack is named by the
//                            node of its innermost frame (0: empty stack)
//   a <size> <stack>         allocation site; numbered from 0
//   c <microseconds>         wall-clock time of the next record
//   + <site> <address>       allocation
//   - <site> <address> <stack>
//                            release of a live block: the site of its
//                            allocation, and the stack that released it
//   #Unmatched free <address>
//                            release of a block that is not live (a comment
//                            line for readers)
// Numbering is the caller's: these only format. Worker thread only.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "memory/trace_file.h"

namespace oru::detail {

class TraceRecords {
public:
  // Creates the file and writes the header; throws when it cannot.
  explicit TraceRecords(const std::string& fileName);

  // Line ends inside the text would break the file's lines: they become
  // spaces.
  void String(std::string_view text);
  void Instruction(uint64_t address, uint32_t module, uint32_t function, uint32_t file,
                   uint64_t line);
  void Node(uint32_t instruction, uint32_t parent);
  void Site(uint64_t size, uint32_t stack);
  // The wall-clock time of a monotonic time stamp, in microseconds.
  void Clock(uint64_t monotonicNanoseconds);
  void Allocation(uint32_t site, uint64_t address);
  void Release(uint32_t site, uint64_t address, uint32_t stack);
  void UnmatchedRelease(uint64_t address);

  // After each event: writes the buffer out when it is full.
  void EndEvent() { m_file.FlushWhenFull(); }
  void Close() { m_file.Close(); }

private:
  TraceFile m_file;
  uint64_t m_clockOffset = 0;  // wall-clock minus monotonic microseconds
};

// The monotonic clock the tracer stamps its events with.
uint64_t MonotonicNanoseconds() noexcept;

}  // namespace oru::detail
