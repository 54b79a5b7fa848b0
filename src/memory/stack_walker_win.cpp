// StackWalker on Windows: the stack is captured with RtlCaptureStackBackTrace
// and described by dbghelp.dll, which is loaded at run time (never linked) so
// that programs using liboru start without it.
//
// dbghelp keeps one symbol session per process handle, and every walker uses
// the pseudo handle of the current process, so the walkers of a process share
// that session: the first SymInitialize opens it and SymCleanup closes it.
#define WIN32_LEAN_AND_MEAN
#define NOMINMAX
#include <windows.h>

#include <dbghelp.h>
#include <psapi.h>
#include <tlhelp32.h>

#include <cxxabi.h>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <new>
#include <stdexcept>
#include <string>
#include <vector>

#include "oru/memory.h"
#include "oru/stack_walker.h"

namespace oru {

namespace {

// The entry points of dbghelp.dll, looked up by name. The record types come
// from the mingw-w64 headers; their sizes are checked below.
using SymInitializeFn = BOOL(WINAPI*)(HANDLE process, PCSTR searchPath, BOOL invadeProcess);
using SymCleanupFn = BOOL(WINAPI*)(HANDLE process);
using SymGetOptionsFn = DWORD(WINAPI*)();
using SymSetOptionsFn = DWORD(WINAPI*)(DWORD options);
using SymFunctionTableAccess64Fn = PVOID(WINAPI*)(HANDLE process, DWORD64 address);
using SymGetLineFromAddr64Fn = BOOL(WINAPI*)(HANDLE process, DWORD64 address, PDWORD displacement,
                                             IMAGEHLP_LINE64* line);
using SymGetModuleBase64Fn = DWORD64(WINAPI*)(HANDLE process, DWORD64 address);
using SymGetModuleInfo64Fn = BOOL(WINAPI*)(HANDLE process, DWORD64 address,
                                           IMAGEHLP_MODULE64* info);
using SymGetSymFromAddr64Fn = BOOL(WINAPI*)(HANDLE process, DWORD64 address, PDWORD64 displacement,
                                            IMAGEHLP_SYMBOL64* symbol);
using UnDecorateSymbolNameFn = DWORD(WINAPI*)(PCSTR name, PSTR out, DWORD outSize, DWORD flags);
using SymLoadModule64Fn = DWORD64(WINAPI*)(HANDLE process, HANDLE file, PCSTR imageName,
                                           PCSTR moduleName, DWORD64 base, DWORD size);
using SymGetSearchPathFn = BOOL(WINAPI*)(HANDLE process, PSTR out, DWORD outSize);

// Tool Help (kernel32.dll, on old systems tlhelp32.dll), ANSI forms.
using CreateToolhelp32SnapshotFn = HANDLE(WINAPI*)(DWORD flags, DWORD processId);
using Module32FirstFn = BOOL(WINAPI*)(HANDLE snapshot, MODULEENTRY32* entry);
using Module32NextFn = BOOL(WINAPI*)(HANDLE snapshot, MODULEENTRY32* entry);

// psapi.dll, the fallback when Tool Help finds nothing.
using EnumProcessModulesFn = BOOL(WINAPI*)(HANDLE process, HMODULE* modules, DWORD size,
                                           LPDWORD needed);
using GetModuleFileNameExAFn = DWORD(WINAPI*)(HANDLE process, HMODULE module, LPSTR out,
                                              DWORD size);
using GetModuleBaseNameAFn = DWORD(WINAPI*)(HANDLE process, HMODULE module, LPSTR out, DWORD size);
using GetModuleInformationFn = BOOL(WINAPI*)(HANDLE process, HMODULE module, MODULEINFO* info,
                                             DWORD size);

// Symbol options: load line numbers, and let dbghelp show no error boxes.
constexpr DWORD SYMOPT_LOAD_LINES_FLAG = 0x10;
constexpr DWORD SYMOPT_FAIL_CRITICAL_ERRORS_FLAG = 0x200;
// UnDecorateSymbolName flags: the complete declaration, or the name alone.
constexpr DWORD UNDNAME_COMPLETE_FLAG = 0;
constexpr DWORD UNDNAME_NAME_ONLY_FLAG = 0x1000;

constexpr DWORD ERROR_DLL_INIT_FAILED_CODE = 1114;
constexpr DWORD ERROR_NOT_ENOUGH_MEMORY_CODE = 8;

constexpr DWORD EXE_PATH_SIZE = 4096;              // the executable's name for the ".local" test
constexpr DWORD SEARCH_ELEMENT_SIZE = 1024;        // each queried part of the search path
constexpr DWORD SEARCH_PATH_SIZE = 8192;           // the search path read back from dbghelp
constexpr DWORD MAX_FRAMES = 1024;                 // frames captured by CurrentCallstack
constexpr DWORD MAX_SYMBOL_NAME = 8192;            // decorated and undecorated names
constexpr std::size_t MODULE_SCRATCH_SIZE = 4096;  // room for any module record

// The symbol record is the fixed part followed by the name; we pass the
// fixed part's size and give the name MAX_SYMBOL_NAME bytes after it.
constexpr DWORD SYMBOL_RECORD_SIZE = 32;
static_assert(sizeof(IMAGEHLP_SYMBOL64) == SYMBOL_RECORD_SIZE);
constexpr DWORD LINE_RECORD_SIZE = 40;
static_assert(sizeof(IMAGEHLP_LINE64) == LINE_RECORD_SIZE);

// The module record has grown over dbghelp versions; a version accepts the
// sizes it knows. We ask first with the record that ends after Publics (the
// fields after it came later), then with the original one that ends after
// LoadedImageName, rounded up to the record's 8-byte alignment. ModuleName
// sits at the same place in both.
constexpr DWORD MODULE_RECORD_SIZE = 1672;
constexpr DWORD OLD_MODULE_RECORD_SIZE = 584;
static_assert(offsetof(IMAGEHLP_MODULE64, MachineType) == MODULE_RECORD_SIZE);
static_assert(offsetof(IMAGEHLP_MODULE64, LoadedPdbName) == OLD_MODULE_RECORD_SIZE - 4);
static_assert(offsetof(IMAGEHLP_MODULE64, ModuleName) == 36);
static_assert(sizeof(IMAGEHLP_MODULE64::ModuleName) == 32);
static_assert(MODULE_RECORD_SIZE <= MODULE_SCRATCH_SIZE);

// Whether this process's dbghelp accepts the larger module record. Cleared
// for good by the first refusal, so that later lookups go straight to the
// older record. Shared by all walkers, as the dbghelp session is.
bool s_largeModuleRecordAccepted = true;

// The function named `name` in `library`, as a pointer of type Fn, or null.
template <typename Fn>
Fn Resolve(HMODULE library, const char* name) {
  if (library == nullptr) return nullptr;
  // A detour through void(*)() converts the FARPROC without a warning about
  // incompatible function types.
  return reinterpret_cast<Fn>(reinterpret_cast<void (*)()>(GetProcAddress(library, name)));
}

// A reference to a library, released when it goes out of scope; the handle
// may be null.
struct LibraryReference {
  explicit LibraryReference(HMODULE h) : handle(h) {}
  ~LibraryReference() {
    if (handle != nullptr) FreeLibrary(handle);
  }
  LibraryReference(const LibraryReference&) = delete;
  LibraryReference& operator=(const LibraryReference&) = delete;
  const HMODULE handle;
};

bool FileExists(const std::string& path) {
  return GetFileAttributesA(path.c_str()) != INVALID_FILE_ATTRIBUTES;
}

// The value of an environment variable; false when it is not set or longer
// than SEARCH_ELEMENT_SIZE allows.
bool ReadEnvironment(const char* name, std::string& out) {
  char buffer[SEARCH_ELEMENT_SIZE];
  const DWORD n = GetEnvironmentVariableA(name, buffer, SEARCH_ELEMENT_SIZE);
  if (n == 0 || n >= SEARCH_ELEMENT_SIZE) return false;
  out.assign(buffer, n);
  return true;
}

// The executable's full path; false when it does not fit `size` bytes.
bool ExecutablePath(DWORD size, std::string& out) {
  out.assign(size, '\0');
  const DWORD n = GetModuleFileNameA(nullptr, out.data(), size);
  if (n == 0 || n >= size) return false;
  out.resize(n);
  return true;
}

// dbghelp.dll from an installed "Debugging Tools for Windows", unless the
// program has an application-local redirection ("<program>.exe.local"), in
// which case the copy the loader picks is wanted. Null when none is loaded.
HMODULE LoadInstalledDbgHelp() {
  std::string local;
  if (ExecutablePath(EXE_PATH_SIZE, local) && FileExists(local + ".local")) return nullptr;
  std::string programFiles;
  if (!ReadEnvironment("ProgramFiles", programFiles)) return nullptr;
  static const char* const s_folders[] = {
      "\\Debugging Tools for Windows (x64)\\dbghelp.dll",
      "\\Debugging Tools for Windows\\dbghelp.dll",
      "\\Debugging Tools for Windows 64-Bit\\dbghelp.dll",
  };
  for (const char* folder : s_folders) {
    const std::string candidate = programFiles + folder;
    // The first copy that exists is the one: should it fail to load, the
    // system's copy is taken rather than an older installation.
    if (FileExists(candidate)) return LoadLibraryA(candidate.c_str());
  }
  return nullptr;
}

// Where dbghelp looks for symbol files: the program's surroundings, the
// user's symbol paths, the system folders and the public symbol server with
// a cache on the system drive. Each element ends with ';'; one that cannot
// be queried is left out.
std::string SymbolSearchPath() {
  std::string path = ".;";
  char buffer[SEARCH_ELEMENT_SIZE];
  const DWORD n = GetCurrentDirectoryA(SEARCH_ELEMENT_SIZE, buffer);
  if (n != 0 && n < SEARCH_ELEMENT_SIZE) path.append(buffer, n).append(";");

  std::string exe;
  if (ExecutablePath(SEARCH_ELEMENT_SIZE, exe)) {
    const std::size_t cut = exe.find_last_of("\\/:");
    if (cut != std::string::npos) path.append(exe, 0, cut).append(";");
  }

  std::string value;
  if (ReadEnvironment("_NT_SYMBOL_PATH", value)) path.append(value).append(";");
  if (ReadEnvironment("_NT_ALTERNATE_SYMBOL_PATH", value)) path.append(value).append(";");
  if (ReadEnvironment("SYSTEMROOT", value)) {
    path.append(value).append(";");
    path.append(value).append("\\system32;");
  }
  if (ReadEnvironment("SYSTEMDRIVE", value)) {
    path.append("SRV*").append(value).append("\\websymbols*");
    path.append("https://msdl.microsoft.com/download/symbols;");
  } else {
    path.append("SRV*c:\\websymbols*https://msdl.microsoft.com/download/symbols;");
  }
  return path;
}

}  // namespace

struct ORU_LOCAL StackWalker::Impl {
  std::string searchPath;
  HANDLE process = GetCurrentProcess();
  HMODULE dbgHelp = nullptr;
  SymInitializeFn symInitialize = nullptr;
  SymCleanupFn symCleanup = nullptr;
  SymGetOptionsFn symGetOptions = nullptr;
  SymSetOptionsFn symSetOptions = nullptr;
  // SymFunctionTableAccess64 and SymGetModuleBase64 serve walking the stack
  // with dbghelp; they are resolved with the others but not called, as
  // RtlCaptureStackBackTrace unwinds without dbghelp's help.
  SymFunctionTableAccess64Fn symFunctionTableAccess64 = nullptr;
  SymGetLineFromAddr64Fn symGetLineFromAddr64 = nullptr;
  SymGetModuleBase64Fn symGetModuleBase64 = nullptr;
  SymGetModuleInfo64Fn symGetModuleInfo64 = nullptr;
  SymGetSymFromAddr64Fn symGetSymFromAddr64 = nullptr;
  UnDecorateSymbolNameFn unDecorateSymbolName = nullptr;
  SymLoadModule64Fn symLoadModule64 = nullptr;
  SymGetSearchPathFn symGetSearchPath = nullptr;

  ~Impl() {
    if (symCleanup != nullptr) symCleanup(process);
    if (dbgHelp != nullptr) FreeLibrary(dbgHelp);
  }

  void LoadDbgHelp() {
    dbgHelp = LoadInstalledDbgHelp();
    if (dbgHelp == nullptr) dbgHelp = LoadLibraryA("dbghelp.dll");
    if (dbgHelp == nullptr) {
      SetLastError(ERROR_DLL_INIT_FAILED_CODE);
      throw std::runtime_error("Error while loading dbghelp.dll");
    }
    symInitialize = Resolve<SymInitializeFn>(dbgHelp, "SymInitialize");
    symCleanup = Resolve<SymCleanupFn>(dbgHelp, "SymCleanup");
    symGetOptions = Resolve<SymGetOptionsFn>(dbgHelp, "SymGetOptions");
    symSetOptions = Resolve<SymSetOptionsFn>(dbgHelp, "SymSetOptions");
    symFunctionTableAccess64 =
        Resolve<SymFunctionTableAccess64Fn>(dbgHelp, "SymFunctionTableAccess64");
    symGetLineFromAddr64 = Resolve<SymGetLineFromAddr64Fn>(dbgHelp, "SymGetLineFromAddr64");
    symGetModuleBase64 = Resolve<SymGetModuleBase64Fn>(dbgHelp, "SymGetModuleBase64");
    symGetModuleInfo64 = Resolve<SymGetModuleInfo64Fn>(dbgHelp, "SymGetModuleInfo64");
    symGetSymFromAddr64 = Resolve<SymGetSymFromAddr64Fn>(dbgHelp, "SymGetSymFromAddr64");
    unDecorateSymbolName = Resolve<UnDecorateSymbolNameFn>(dbgHelp, "UnDecorateSymbolName");
    symLoadModule64 = Resolve<SymLoadModule64Fn>(dbgHelp, "SymLoadModule64");
    symGetSearchPath = Resolve<SymGetSearchPathFn>(dbgHelp, "SymGetSearchPath");

    searchPath = SymbolSearchPath();
    // Modules are loaded one by one afterwards (LoadModules), not by
    // SymInitialize itself.
    if (symInitialize == nullptr || !symInitialize(process, searchPath.c_str(), FALSE)) {
      // No session was opened, so none may be closed: forget the entry
      // points along with the library.
      ForgetDbgHelp();
      // The double space is kept: callers match this text.
      throw std::runtime_error("Failed to load symbols from  the dbghelp.dll");
    }

    if (symGetOptions != nullptr && symSetOptions != nullptr) {
      symSetOptions(symGetOptions() | SYMOPT_LOAD_LINES_FLAG | SYMOPT_FAIL_CRITICAL_ERRORS_FLAG);
    }
    if (symGetSearchPath != nullptr) {
      char buffer[SEARCH_PATH_SIZE] = {};
      if (symGetSearchPath(process, buffer, SEARCH_PATH_SIZE)) searchPath = buffer;
    }
  }

  // Releases the library and clears every entry point, so that the
  // destructor neither calls into the released library nor closes a session
  // that this walker did not open.
  void ForgetDbgHelp() {
    FreeLibrary(dbgHelp);
    dbgHelp = nullptr;
    symInitialize = nullptr;
    symCleanup = nullptr;
    symGetOptions = nullptr;
    symSetOptions = nullptr;
    symFunctionTableAccess64 = nullptr;
    symGetLineFromAddr64 = nullptr;
    symGetModuleBase64 = nullptr;
    symGetModuleInfo64 = nullptr;
    symGetSymFromAddr64 = nullptr;
    unDecorateSymbolName = nullptr;
    symLoadModule64 = nullptr;
    symGetSearchPath = nullptr;
  }

  void LoadModule(const char* imageName, const char* moduleName, DWORD64 base, DWORD size) {
    // A module whose symbols cannot be loaded is simply left undescribed.
    if (symLoadModule64 != nullptr) {
      symLoadModule64(process, nullptr, imageName, moduleName, base, size);
    }
  }

  // Loads the symbols of every module of the process through Tool Help;
  // returns how many modules it found (0 when Tool Help is unavailable).
  std::size_t LoadModulesWithToolHelp() {
    for (const char* libraryName : {"kernel32.dll", "tlhelp32.dll"}) {
      const LibraryReference library(LoadLibraryA(libraryName));
      const auto createSnapshot =
          Resolve<CreateToolhelp32SnapshotFn>(library.handle, "CreateToolhelp32Snapshot");
      const auto first = Resolve<Module32FirstFn>(library.handle, "Module32First");
      const auto next = Resolve<Module32NextFn>(library.handle, "Module32Next");
      if (createSnapshot == nullptr || first == nullptr || next == nullptr) continue;

      const HANDLE snapshot = createSnapshot(TH32CS_SNAPMODULE, GetCurrentProcessId());
      if (snapshot == INVALID_HANDLE_VALUE) return 0;
      std::size_t found = 0;
      MODULEENTRY32 entry;
      std::memset(&entry, 0, sizeof(entry));
      entry.dwSize = sizeof(entry);
      for (BOOL more = first(snapshot, &entry); more; more = next(snapshot, &entry)) {
        LoadModule(entry.szExePath, entry.szModule, reinterpret_cast<DWORD64>(entry.modBaseAddr),
                   entry.modBaseSize);
        ++found;
      }
      CloseHandle(snapshot);
      return found;
    }
    return 0;
  }

  // The same through psapi; returns how many modules it found.
  std::size_t LoadModulesWithPsapi() {
    const LibraryReference library(LoadLibraryA("psapi.dll"));
    const auto enumModules = Resolve<EnumProcessModulesFn>(library.handle, "EnumProcessModules");
    const auto fileName = Resolve<GetModuleFileNameExAFn>(library.handle, "GetModuleFileNameExA");
    const auto baseName = Resolve<GetModuleBaseNameAFn>(library.handle, "GetModuleBaseNameA");
    const auto information =
        Resolve<GetModuleInformationFn>(library.handle, "GetModuleInformation");
    if (enumModules == nullptr || fileName == nullptr || baseName == nullptr ||
        information == nullptr) {
      return 0;
    }
    std::vector<HMODULE> modules(256);
    DWORD needed = 0;
    for (;;) {
      const auto bytes = static_cast<DWORD>(modules.size() * sizeof(HMODULE));
      if (!enumModules(process, modules.data(), bytes, &needed)) return 0;
      if (needed <= bytes) break;
      modules.resize(needed / sizeof(HMODULE));  // more modules than room: ask again
    }
    modules.resize(needed / sizeof(HMODULE));
    std::size_t found = 0;
    char image[EXE_PATH_SIZE];
    char name[EXE_PATH_SIZE];
    for (const HMODULE module : modules) {
      MODULEINFO info{};
      if (!information(process, module, &info, sizeof(info))) continue;
      image[0] = name[0] = '\0';
      fileName(process, module, image, EXE_PATH_SIZE);
      baseName(process, module, name, EXE_PATH_SIZE);
      LoadModule(image, name, reinterpret_cast<DWORD64>(info.lpBaseOfDll), info.SizeOfImage);
      ++found;
    }
    return found;
  }

  void LoadModules() {
    if (LoadModulesWithToolHelp() == 0) LoadModulesWithPsapi();
  }
};

// ---- the walker ----------------------------------------------------------------

StackWalker::StackWalker() {
  void* block = DoAllocation(sizeof(Impl));
  std::memset(block, 0, sizeof(Impl));
  Impl* impl = new (block) Impl();
  try {
    impl->LoadDbgHelp();
    impl->LoadModules();
  } catch (...) {
    // Whatever was done so far is undone: the session is closed only when
    // it was opened, the library released only when it was loaded.
    impl->~Impl();
    DoSizedFree(block, sizeof(Impl));
    throw;
  }
  m_impl = impl;
}

StackWalker::~StackWalker() {
  m_impl->~Impl();
  DoSizedFree(m_impl, sizeof(Impl));
}

std::vector<void*> StackWalker::CurrentCallstack() {
  void* frames[MAX_FRAMES];
  const USHORT n = RtlCaptureStackBackTrace(0, MAX_FRAMES, frames, nullptr);
  return std::vector<void*>(frames, frames + n);
}

std::string StackWalker::FunctionForAddress(void* address) {
  if (m_impl->symGetSymFromAddr64 == nullptr) return {};
  try {
    // The record and the room for its name in one zeroed block.
    alignas(IMAGEHLP_SYMBOL64) char block[sizeof(IMAGEHLP_SYMBOL64) + MAX_SYMBOL_NAME] = {};
    auto* symbol = reinterpret_cast<IMAGEHLP_SYMBOL64*>(block);
    symbol->SizeOfStruct = SYMBOL_RECORD_SIZE;
    symbol->MaxNameLength = MAX_SYMBOL_NAME;
    DWORD64 displacement = 0;
    // On failure dbghelp's reason stays in GetLastError for the caller.
    if (!m_impl->symGetSymFromAddr64(m_impl->process, reinterpret_cast<DWORD64>(address),
                                     &displacement, symbol)) {
      return {};
    }

    char undecorated[MAX_SYMBOL_NAME] = {};
    const UnDecorateSymbolNameFn undecorate = m_impl->unDecorateSymbolName;
    std::string name;
    if (undecorate != nullptr &&
        (undecorate(symbol->Name, undecorated, MAX_SYMBOL_NAME, UNDNAME_COMPLETE_FLAG) != 0 ||
         undecorate(symbol->Name, undecorated, MAX_SYMBOL_NAME, UNDNAME_NAME_ONLY_FLAG) != 0)) {
      name = undecorated;
    } else {
      name = symbol->Name;
    }

    // dbghelp undecorates only Microsoft's decoration. Code built by GCC or
    // Clang for Windows carries Itanium names ("_Z..."), which dbghelp hands
    // back unchanged or cannot undecorate; the C++ runtime demangles those.
    if (name.compare(0, 2, "_Z") == 0) {
      int status = 0;
      char* demangled = abi::__cxa_demangle(name.c_str(), nullptr, nullptr, &status);
      if (demangled != nullptr) {
        if (status == 0) name = demangled;
        std::free(demangled);
      }
    }
    return name;
  } catch (const std::bad_alloc&) {
    return {};
  }
}

std::pair<std::string, unsigned int> StackWalker::FileAndLineNoForAddress(void* address) {
  if (m_impl->symGetLineFromAddr64 == nullptr) return {std::string(), 0};
  IMAGEHLP_LINE64 line;
  std::memset(&line, 0, sizeof(line));
  line.SizeOfStruct = LINE_RECORD_SIZE;
  DWORD displacement = 0;
  // On failure dbghelp's reason stays in GetLastError for the caller.
  if (!m_impl->symGetLineFromAddr64(m_impl->process, reinterpret_cast<DWORD64>(address),
                                    &displacement, &line) ||
      line.FileName == nullptr) {
    return {std::string(), 0};
  }
  try {
    return {std::string(line.FileName), static_cast<unsigned int>(line.LineNumber)};
  } catch (const std::bad_alloc&) {
    return {std::string(), 0};
  }
}

std::string StackWalker::ModuleForAddress(void* address) {
  if (m_impl->symGetModuleInfo64 == nullptr) return {};
  // Room for the larger record and whatever a dbghelp version may add.
  auto* info = static_cast<IMAGEHLP_MODULE64*>(std::malloc(MODULE_SCRATCH_SIZE));
  if (info == nullptr) {
    SetLastError(ERROR_NOT_ENOUGH_MEMORY_CODE);
    return {};
  }
  const auto where = reinterpret_cast<DWORD64>(address);
  bool found = false;
  if (s_largeModuleRecordAccepted) {
    std::memset(info, 0, MODULE_SCRATCH_SIZE);
    info->SizeOfStruct = MODULE_RECORD_SIZE;
    found = m_impl->symGetModuleInfo64(m_impl->process, where, info) != FALSE;
    // A dbghelp that predates the larger record refuses it. Any refusal
    // counts, also one for an address outside every module: the older
    // record carries the name as well, and it is all we read.
    if (!found) s_largeModuleRecordAccepted = false;
  }
  if (!found) {
    std::memset(info, 0, MODULE_SCRATCH_SIZE);
    info->SizeOfStruct = OLD_MODULE_RECORD_SIZE;
    if (!m_impl->symGetModuleInfo64(m_impl->process, where, info)) {
      std::free(info);
      SetLastError(ERROR_DLL_INIT_FAILED_CODE);
      return {};
    }
  }
  // The name field need not be terminated when it is full.
  const std::size_t length = strnlen(info->ModuleName, sizeof(info->ModuleName));
  try {
    std::string name(info->ModuleName, length);
    std::free(info);
    return name;
  } catch (const std::bad_alloc&) {
    std::free(info);
    return {};
  }
}

}  // namespace oru
