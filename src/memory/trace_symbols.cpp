#include "memory/trace_symbols.h"

namespace oru::detail {

namespace {
constexpr std::string_view kNoFunction = "(function-name not available)";
constexpr std::string_view kNoFile = "(filename not available)";
constexpr std::string_view kNoModule = "(module-name not available)";
}  // namespace

TraceSymbols::TraceSymbols(TraceRecords& records, const StackPolicy& policy)
    : m_records(records), m_policy(policy) {}

uint32_t TraceSymbols::Intern(std::string_view text) {
  const auto found = m_strings.find(text);
  if (found != m_strings.end()) return found->second;
  const uint32_t id = m_nextString++;
  m_strings.emplace(std::string(text), id);
  m_records.String(text);
  return id;
}

TraceFrame TraceSymbols::Describe(void* returnAddress) {
  const auto address = reinterpret_cast<uintptr_t>(returnAddress);
  const auto found = m_frames.find(address);
  if (found != m_frames.end()) return found->second;

  // The description is that of the call instruction, one byte before the
  // address it returns to.
  void* call = reinterpret_cast<void*>(address - (address != 0 ? 1 : 0));
  std::string function = m_walker.FunctionForAddress(call);
  auto [file, line] = m_walker.FileAndLineNoForAddress(call);
  std::string module = m_walker.ModuleForAddress(call);
  if (function.empty()) function = kNoFunction;
  if (file.empty()) file = kNoFile;
  if (module.empty()) module = kNoModule;

  const TraceFrame frame{m_nextInstruction++, m_policy.RoleOf(function)};
  const uint32_t moduleId = Intern(module);
  const uint32_t functionId = Intern(function);
  const uint32_t fileId = Intern(file);
  m_records.Instruction(address, moduleId, functionId, fileId, line);
  m_frames.emplace(address, frame);
  return frame;
}

}  // namespace oru::detail
