// Internal: which frames of a captured stack a heap trace records. The
// stack walker's capture and the allocation machinery at the inner end are
// dropped, a stack is cut after the frame that starts the program or a
// thread, and runs of "std::" frames shrink to their outermost frame.
#pragma once

#include <cstdint>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "memory/trace_hash.h"

namespace oru::detail {

// What a frame is to the policy.
enum class FrameRole : uint8_t { kPlain, kCapture, kSkip, kStop, kStd };

// A described frame: the number of its return address's "i" record, and its
// role.
struct TraceFrame {
  uint32_t id;
  FrameRole role;
};

// The name a function is compared by: without its parameter list, and
// without the return type that demangled names of function templates (and
// undecorated Windows names) carry in front. Views into `name`.
std::string_view ComparisonName(std::string_view name);

class StackPolicy {
public:
  StackPolicy();

  // The role of a frame in the function named `name` (as the symbol library
  // gives it, parameters and all).
  FrameRole RoleOf(std::string_view name) const;

  // Appends to `kept` the ids of the frames to record, innermost first, from
  // the frames of a captured stack, innermost first.
  static void Clean(const std::vector<TraceFrame>& frames, std::vector<uint32_t>& kept);

private:
  // Compared once per distinct return address, when it is described.
  std::unordered_set<std::string_view, TraceTextHash> m_skip;
  std::unordered_set<std::string_view, TraceTextHash> m_stop;
};

}  // namespace oru::detail
