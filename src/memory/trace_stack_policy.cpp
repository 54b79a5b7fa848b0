#include "memory/trace_stack_policy.h"

namespace oru::detail {

namespace {

// The stack walker's capture: it and every frame inside it are dropped.
// Usually it is the first frame, but an interposed backtrace() (as
// AddressSanitizer's) adds a frame of its own before it.
constexpr std::string_view kCaptureName = "oru::StackWalker::CurrentCallstack";

// Frames of the allocation machinery: dropped from the inner end of every
// stack, so that a stack starts where the program asked for memory.
const std::vector<std::string_view>& SkipNames() {
  static const std::vector<std::string_view> names{
      "operator new",
      "operator delete",
      "oru::HeapTrace::Tracer::OnAllocate",
      "oru::HeapTrace::Tracer::OnFree",
      // Also machinery: the array forms, the library's allocation path that
      // calls the tracer, and the stack walker's own capture.
      "operator new[]",
      "operator delete[]",
      "oru::DoAllocation",
      "oru::DoSizedFree",
      "oru::DoUnsizedFree",
      "oru::detail::NotifyAllocationEvent",
      "oru::detail::CountAllocation",
      "oru::detail::AnnounceRelease",
  };
  return names;
}

// Frames of program and thread start-up: a stack is cut off after them.
const std::vector<std::string_view>& StopNames() {
  static const std::vector<std::string_view> names{
      "AfxWinMain",
      "wWinMain",
      "wWinMainCRTStartup",
      "invoke_main",
      "__scrt_common_main_seh",
      "__scrt_common_main",
      // One name of two thread-start functions run together: it matches
      // neither, so worker-thread stacks run out to their last frame (kept:
      // traces compared across runs need the same cut).
      "BaseThreadInitThunkRtlUserThreadStart",
      "main",
  };
  return names;
}

}  // namespace

std::string_view ComparisonName(std::string_view name) {
  // The parameter list is the parenthesised group closed by the last ')',
  // when only qualifiers (const, &, noexcept, __ptr64) follow it.
  const size_t close = name.rfind(')');
  if (close != std::string_view::npos &&
      name.find_first_of(":<>()", close + 1) == std::string_view::npos) {
    int depth = 0;
    for (size_t i = close + 1; i-- > 0;) {
      if (name[i] == ')') {
        ++depth;
      } else if (name[i] == '(' && --depth == 0) {
        if (i > 0) name = name.substr(0, i);
        break;
      }
    }
  }
  // A return type ends at the last space outside brackets that does not
  // belong to an operator's name ("operator new", "operator<< <T>").
  int depth = 0;
  for (size_t i = name.size(); i-- > 0;) {
    const char c = name[i];
    if (c == '>' || c == ')' || c == ']') {
      ++depth;
    } else if (c == '<' || c == '(' || c == '[') {
      --depth;
    } else if (c == ' ' && depth == 0) {
      const std::string_view before = name.substr(0, i);
      const size_t tokenStart = before.find_last_of(": ");
      const std::string_view token =
          tokenStart == std::string_view::npos ? before : before.substr(tokenStart + 1);
      if (token.substr(0, 8) == "operator") continue;
      return name.substr(i + 1);
    }
  }
  return name;
}

StackPolicy::StackPolicy() {
  m_skip.insert(SkipNames().begin(), SkipNames().end());
  m_stop.insert(StopNames().begin(), StopNames().end());
}

FrameRole StackPolicy::RoleOf(std::string_view name) const {
  const std::string_view key = ComparisonName(name);
  if (key == kCaptureName) return FrameRole::kCapture;
  if (m_skip.count(key) != 0) return FrameRole::kSkip;
  if (m_stop.count(key) != 0) return FrameRole::kStop;
  if (key.substr(0, 5) == "std::") return FrameRole::kStd;
  return FrameRole::kPlain;
}

void StackPolicy::Clean(const std::vector<TraceFrame>& frames, std::vector<uint32_t>& kept) {
  // Drop the capture and the machinery at the inner end, cut after a
  // start-up frame.
  size_t first = 0;
  for (size_t i = 0; i < frames.size(); ++i) {
    if (frames[i].role == FrameRole::kCapture) {
      first = i + 1;
      break;
    }
  }
  while (first < frames.size() && frames[first].role == FrameRole::kSkip) ++first;
  size_t end = first;
  while (end < frames.size() && frames[end].role != FrameRole::kStop) ++end;
  if (end < frames.size()) ++end;  // the start-up frame itself stays

  // Each run of two or more "std::" frames keeps only its outermost frame,
  // unless the run reaches the outer end (kept whole: traces compared
  // across runs need the same frames).
  for (size_t i = first; i < end;) {
    size_t runEnd = i;
    while (runEnd < end && frames[runEnd].role == FrameRole::kStd) ++runEnd;
    if (runEnd - i >= 2 && runEnd < end) {
      kept.push_back(frames[runEnd - 1].id);
      i = runEnd;
    } else if (runEnd > i) {
      for (; i < runEnd; ++i) kept.push_back(frames[i].id);
    } else {
      kept.push_back(frames[i++].id);
    }
  }
}

}  // namespace oru::detail
