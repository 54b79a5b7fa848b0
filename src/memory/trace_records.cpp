#include "memory/trace_records.h"

#include <chrono>

namespace oru::detail {

uint64_t MonotonicNanoseconds() noexcept {
  return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(
                                   std::chrono::steady_clock::now().time_since_epoch())
                                   .count());
}

TraceRecords::TraceRecords(const std::string& fileName) : m_file(fileName) {
  using namespace std::chrono;
  const auto wall = duration_cast<microseconds>(system_clock::now().time_since_epoch()).count();
  const auto mono = static_cast<int64_t>(MonotonicNanoseconds() / 1000);
  m_clockOffset = static_cast<uint64_t>(wall) - static_cast<uint64_t>(mono);
  m_file.Put("v 10150 2\n");
}

void TraceRecords::String(std::string_view text) {
  m_file.Put("s ");
  m_file.PutOneLine(text);
  m_file.Put('\n');
}

void TraceRecords::Instruction(uint64_t address, uint32_t module, uint32_t function, uint32_t file,
                               uint64_t line) {
  m_file.Put("i ");
  for (const uint64_t number : {address, uint64_t{module}, uint64_t{function}, uint64_t{file}}) {
    m_file.PutHex(number);
    m_file.Put(' ');
  }
  m_file.PutHex(line);
  m_file.Put('\n');
}

void TraceRecords::Node(uint32_t instruction, uint32_t parent) {
  m_file.Put("t ");
  m_file.PutHex(instruction);
  m_file.Put(' ');
  m_file.PutHex(parent);
  m_file.Put('\n');
}

void TraceRecords::Site(uint64_t size, uint32_t stack) {
  m_file.Put("a ");
  m_file.PutHex(size);
  m_file.Put(' ');
  m_file.PutHex(stack);
  m_file.Put('\n');
}

void TraceRecords::Clock(uint64_t monotonicNanoseconds) {
  m_file.Put("c ");
  m_file.PutHex(m_clockOffset + monotonicNanoseconds / 1000);
  m_file.Put('\n');
}

void TraceRecords::Allocation(uint32_t site, uint64_t address) {
  m_file.Put("+ ");
  m_file.PutHex(site);
  m_file.Put(' ');
  m_file.PutHex(address);
  m_file.Put('\n');
}

void TraceRecords::Release(uint32_t site, uint64_t address, uint32_t stack) {
  m_file.Put("- ");
  m_file.PutHex(site);
  m_file.Put(' ');
  m_file.PutHex(address);
  m_file.Put(' ');
  m_file.PutHex(stack);
  m_file.Put('\n');
}

void TraceRecords::UnmatchedRelease(uint64_t address) {
  m_file.Put("#Unmatched free ");
  m_file.PutHex(address);
  m_file.Put('\n');
}

}  // namespace oru::detail
