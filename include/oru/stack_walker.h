// StackWalker: the call stack of the calling thread, and names, source
// lines and modules for code addresses.
//
//   oru::StackWalker walker;                          // may throw
//   for (void* pc : walker.CurrentCallstack()) {      // innermost first
//     auto [file, line] = walker.FileAndLineNoForAddress(pc);
//     std::printf("%s  %s:%u  [%s]\n", walker.FunctionForAddress(pc).c_str(),
//                 file.c_str(), line, walker.ModuleForAddress(pc).c_str());
//   }
//
// The symbol libraries are loaded at run time and never linked, so a program
// that uses liboru runs without them; only constructing a walker then fails.
// - Windows: dbghelp.dll. A copy from an installed "Debugging Tools for
//   Windows" is preferred (under %ProgramFiles%) unless the program has an
//   application-local redirection ("<program>.exe.local" next to it), then
//   the system's copy. The symbol search path is ".", the current directory,
//   the program's directory, _NT_SYMBOL_PATH, _NT_ALTERNATE_SYMBOL_PATH,
//   %SYSTEMROOT% and its system32, and the public symbol server cached under
//   %SYSTEMDRIVE%\websymbols. The symbols of every module loaded at
//   construction are loaded then; modules loaded later are not described.
//   Function names come back undecorated; GCC and Clang (Itanium) names
//   are demangled. What there is to find depends on the debug information
//   the dbghelp.dll can read: Microsoft's reads PDB files and export tables,
//   not DWARF; wine's also reads DWARF up to version 4 (names without
//   parameter lists, not always qualified by their namespace or class).
// - Linux: the stack is captured with backtrace() and symbolised with
//   elfutils' libdw (libdw.so.1, Debian package libdw1) over the current
//   process. Function names come back demangled, with their parameter lists
//   ("ns::Class::Method(int) const"); modules loaded after construction are
//   found when first asked about.
//
// Return addresses point just past their call instruction. To get the line
// of the call itself, look up the address minus one.
//
// Failure: construction throws std::runtime_error when the symbol library
// cannot be loaded or brought up ("Error while loading dbghelp.dll", "Failed
// to load symbols from  the dbghelp.dll" on Windows; a text naming libdw on
// Linux). The lookups never throw: an address they cannot describe gives an
// empty string, or an empty file name and line 0.
//
// Ownership: a walker owns its symbol session and releases it on
// destruction; it cannot be copied.
//
// Threading: the symbol libraries are not safe to call from several threads
// at once, so the lookups of a walker belong to one thread at a time; on
// Linux, use one walker per thread. On Windows all walkers of a process share
// dbghelp's one symbol session, which the first walker destroyed closes for
// the others, and dbghelp is not safe to call from several threads even
// through different walkers: keep to one walker making lookups at a time per
// process (a HeapTrace makes lookups on its worker thread while it lives).
// CurrentCallstack uses no symbol library and may be called on one walker
// from any number of threads at once. Construction and destruction may
// happen on any thread.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "oru/export.h"

namespace oru {

class ORU_API StackWalker {
public:
  /// Loads the symbol library and opens a symbol session for this process.
  /// Throws std::runtime_error on failure; no half-made walker is left.
  StackWalker();
  ~StackWalker();
  StackWalker(const StackWalker&) = delete;
  StackWalker& operator=(const StackWalker&) = delete;

  /// The return addresses of the calling thread, innermost first, at most
  /// 1024 of them. Nothing is skipped: the first entries are the walker's
  /// own frames. Empty when nothing could be captured.
  std::vector<void*> CurrentCallstack();

  /// The name of the function that contains `address`, or empty.
  std::string FunctionForAddress(void* address);

  /// The source file and line of `address`, or an empty name and 0 when
  /// the debug information has none.
  std::pair<std::string, unsigned int> FileAndLineNoForAddress(void* address);

  /// The short name of the module (executable or shared library) that
  /// contains `address`, or empty.
  std::string ModuleForAddress(void* address);

private:
  struct Impl;
  Impl* m_impl;  // allocated through DoAllocation, zero-filled before construction
};

}  // namespace oru
