// StackWalker on Linux: backtrace() for capture, elfutils' libdw for names,
// lines and modules.
//
// libdw is opened with dlopen, never linked, so liboru runs without it and
// only a walker's construction fails. Its few functions and types are
// declared here by hand: they are part of libdw's stable ABI (the "dwfl"
// interface of libdwfl.h), and declaring them keeps the development package
// out of the build.
#include <cxxabi.h>
#include <dlfcn.h>
#include <execinfo.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>
#include <stdexcept>
#include <string>

#include "oru/memory.h"
#include "oru/stack_walker.h"

namespace oru {

namespace {

// ---- the parts of libdwfl.h we use ----------------------------------------
struct Dwfl;
struct Dwfl_Module;
struct Dwfl_Line;
using Dwarf_Addr = uint64_t;
using Dwarf_Word = uint64_t;

// Layout of Dwfl_Callbacks: four pointers. The two callbacks we use are
// libdw's own (dwfl_linux_proc_find_elf, dwfl_standard_find_debuginfo), so
// their exact signatures never matter here.
using DwflCallback = void (*)();
struct DwflCallbacks {
  DwflCallback findElf;
  DwflCallback findDebuginfo;
  DwflCallback sectionAddress;
  char** debuginfoPath;
};

using DwflBeginFn = Dwfl* (*)(const DwflCallbacks*);
using DwflEndFn = void (*)(Dwfl*);
using DwflReportBeginFn = void (*)(Dwfl*);
using DwflReportEndFn = int (*)(Dwfl*, int (*)(Dwfl_Module*, void*, const char*, Dwarf_Addr, void*),
                                void*);
using DwflLinuxProcReportFn = int (*)(Dwfl*, pid_t);
using DwflAddrModuleFn = Dwfl_Module* (*)(Dwfl*, Dwarf_Addr);
using DwflModuleAddrNameFn = const char* (*)(Dwfl_Module*, Dwarf_Addr);
using DwflModuleGetSrcFn = Dwfl_Line* (*)(Dwfl_Module*, Dwarf_Addr);
using DwflLineInfoFn = const char* (*)(Dwfl_Line*, Dwarf_Addr*, int*, int*, Dwarf_Word*,
                                       Dwarf_Word*);
using DwflModuleInfoFn = const char* (*)(Dwfl_Module*, void***, Dwarf_Addr*, Dwarf_Addr*,
                                         Dwarf_Addr*, Dwarf_Addr*, const char**, const char**);

constexpr int kMaxFrames = 1024;

template <typename Fn>
Fn Resolve(void* library, const char* name) {
  return reinterpret_cast<Fn>(dlsym(library, name));
}

// The text after the last '/', or the whole text.
std::string ShortName(const char* path) {
  const char* slash = std::strrchr(path, '/');
  return slash != nullptr ? std::string(slash + 1) : std::string(path);
}

// Walkers made and destroyed on several threads at once load and unload
// libdw at the same time. The loader serialises that under a lock of its own,
// which ThreadSanitizer cannot see; taking this one as well makes the order
// visible to it (and costs nothing beside a dlopen).
std::mutex& LoaderMutex() {
  static std::mutex s_mutex;
  return s_mutex;
}

}  // namespace

struct ORU_LOCAL StackWalker::Impl {
  void* libdw = nullptr;
  Dwfl* dwfl = nullptr;
  char* debuginfoPath = nullptr;  // null: libdw's default search for separate debug files
  DwflCallbacks callbacks{};

  DwflBeginFn begin = nullptr;
  DwflEndFn end = nullptr;
  DwflReportBeginFn reportBegin = nullptr;
  DwflReportEndFn reportEnd = nullptr;
  DwflLinuxProcReportFn linuxProcReport = nullptr;
  DwflAddrModuleFn addrModule = nullptr;
  DwflModuleAddrNameFn moduleAddrName = nullptr;
  DwflModuleGetSrcFn moduleGetSrc = nullptr;
  DwflLineInfoFn lineInfo = nullptr;
  DwflModuleInfoFn moduleInfo = nullptr;

  Impl() {
    {
      std::lock_guard<std::mutex> lock(LoaderMutex());
      libdw = dlopen("libdw.so.1", RTLD_NOW | RTLD_LOCAL);
    }
    if (libdw == nullptr) {
      const char* why = dlerror();
      throw std::runtime_error(std::string("Error while loading libdw.so.1 (package libdw1): ") +
                               (why != nullptr ? why : "not found"));
    }
    begin = Resolve<DwflBeginFn>(libdw, "dwfl_begin");
    end = Resolve<DwflEndFn>(libdw, "dwfl_end");
    reportBegin = Resolve<DwflReportBeginFn>(libdw, "dwfl_report_begin");
    reportEnd = Resolve<DwflReportEndFn>(libdw, "dwfl_report_end");
    linuxProcReport = Resolve<DwflLinuxProcReportFn>(libdw, "dwfl_linux_proc_report");
    addrModule = Resolve<DwflAddrModuleFn>(libdw, "dwfl_addrmodule");
    moduleAddrName = Resolve<DwflModuleAddrNameFn>(libdw, "dwfl_module_addrname");
    moduleGetSrc = Resolve<DwflModuleGetSrcFn>(libdw, "dwfl_module_getsrc");
    lineInfo = Resolve<DwflLineInfoFn>(libdw, "dwfl_lineinfo");
    moduleInfo = Resolve<DwflModuleInfoFn>(libdw, "dwfl_module_info");
    callbacks.findElf = Resolve<DwflCallback>(libdw, "dwfl_linux_proc_find_elf");
    callbacks.findDebuginfo = Resolve<DwflCallback>(libdw, "dwfl_standard_find_debuginfo");
    callbacks.debuginfoPath = &debuginfoPath;

    const bool complete = begin && end && reportBegin && reportEnd && linuxProcReport &&
                          addrModule && moduleAddrName && moduleGetSrc && lineInfo && moduleInfo &&
                          callbacks.findElf && callbacks.findDebuginfo;
    if (complete) dwfl = begin(&callbacks);
    if (dwfl == nullptr || !ReportModules()) {
      Close();
      throw std::runtime_error("Failed to open a symbol session with libdw.so.1");
    }
    // glibc's backtrace() loads the unwinder on its first call, which takes
    // the loader's lock and allocates; do that now rather than on the first
    // capture, which may happen inside an allocation.
    void* frames[4];
    (void)backtrace(frames, 4);
  }

  ~Impl() { Close(); }

  void Close() noexcept {
    if (dwfl != nullptr) end(dwfl);
    dwfl = nullptr;
    if (libdw != nullptr) {
      std::lock_guard<std::mutex> lock(LoaderMutex());
      dlclose(libdw);
    }
    libdw = nullptr;
  }

  // (Re)reads the modules mapped into the process; modules that are gone
  // are dropped, new ones added.
  bool ReportModules() noexcept {
    reportBegin(dwfl);
    const int failed = linuxProcReport(dwfl, getpid());
    return reportEnd(dwfl, nullptr, nullptr) == 0 && failed == 0;
  }

  // The module holding `address`. A miss re-reads the process's modules
  // once, so that libraries loaded after construction are found.
  Dwfl_Module* ModuleOf(void* address) noexcept {
    const auto pc = reinterpret_cast<Dwarf_Addr>(address);
    Dwfl_Module* module = addrModule(dwfl, pc);
    if (module == nullptr && ReportModules()) module = addrModule(dwfl, pc);
    return module;
  }
};

StackWalker::StackWalker() : m_impl(nullptr) {
  void* block = DoAllocation(sizeof(Impl));
  std::memset(block, 0, sizeof(Impl));
  try {
    m_impl = new (block) Impl();
  } catch (...) {
    DoSizedFree(block, sizeof(Impl));
    throw;
  }
}

StackWalker::~StackWalker() {
  m_impl->~Impl();
  DoSizedFree(m_impl, sizeof(Impl));
}

std::vector<void*> StackWalker::CurrentCallstack() {
  void* frames[kMaxFrames];
  const int count = backtrace(frames, kMaxFrames);
  if (count <= 0) return {};
  return std::vector<void*>(frames, frames + count);
}

std::string StackWalker::FunctionForAddress(void* address) {
  Dwfl_Module* module = m_impl->ModuleOf(address);
  if (module == nullptr) return {};
  const char* name = m_impl->moduleAddrName(module, reinterpret_cast<Dwarf_Addr>(address));
  if (name == nullptr) return {};
  int status = -1;
  char* demangled = abi::__cxa_demangle(name, nullptr, nullptr, &status);
  if (status != 0 || demangled == nullptr) {
    std::free(demangled);
    return name;  // a C name, or one the demangler does not know
  }
  std::string result(demangled);
  std::free(demangled);
  return result;
}

std::pair<std::string, unsigned int> StackWalker::FileAndLineNoForAddress(void* address) {
  Dwfl_Module* module = m_impl->ModuleOf(address);
  if (module == nullptr) return {};
  Dwfl_Line* line = m_impl->moduleGetSrc(module, reinterpret_cast<Dwarf_Addr>(address));
  if (line == nullptr) return {};
  int lineNo = 0;
  const char* file = m_impl->lineInfo(line, nullptr, &lineNo, nullptr, nullptr, nullptr);
  if (file == nullptr) return {};
  return {file, lineNo > 0 ? static_cast<unsigned int>(lineNo) : 0u};
}

std::string StackWalker::ModuleForAddress(void* address) {
  Dwfl_Module* module = m_impl->ModuleOf(address);
  if (module == nullptr) return {};
  const char* name =
      m_impl->moduleInfo(module, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
  return name != nullptr ? ShortName(name) : std::string();
}

}  // namespace oru
