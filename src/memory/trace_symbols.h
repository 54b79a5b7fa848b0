// Internal: a heap trace's cache of return addresses. Each address is
// described once, through the StackWalker (module, function, file, line of
// the call instruction), its strings and its "i" record are written once,
// and its role for the stack policy is decided once. Worker thread only.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>

#include "memory/trace_hash.h"
#include "memory/trace_records.h"
#include "memory/trace_stack_policy.h"
#include "oru/stack_walker.h"

namespace oru::detail {

class TraceSymbols {
public:
  // Both must outlive the cache.
  TraceSymbols(TraceRecords& records, const StackPolicy& policy);

  // The frame of a return address, writing the records of what is new.
  TraceFrame Describe(void* returnAddress);

private:
  // The number of `text`, writing an "s" record when it is new.
  uint32_t Intern(std::string_view text);

  StackWalker m_walker;
  TraceRecords& m_records;
  const StackPolicy& m_policy;
  std::unordered_map<std::string, uint32_t, TraceTextHash, std::equal_to<>> m_strings;
  std::unordered_map<uint64_t, TraceFrame, TraceKeyHash> m_frames;
  // Strings and instructions are numbered from 1: 0 is "none".
  uint32_t m_nextString = 1;
  uint32_t m_nextInstruction = 1;
};

}  // namespace oru::detail
