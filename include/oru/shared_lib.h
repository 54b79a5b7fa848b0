// SharedLib: a dynamic library loaded at run time, and the symbols in it.
//
//   std::string error;
//   if (auto lib = oru::SharedLib::Load("texturecodec", &error)) {
//     using Decode = int(const void*, size_t, void*);
//     if (auto* decode = lib->GetFunction<Decode>("codec_decode")) decode(data, size, out);
//   } else {
//     log(error);                          // the system's text: why nothing loaded
//   }
//
// A name with a directory in it is loaded as given. A bare name is looked up
// the way the platform names libraries, in the platform's search order
// (LD_LIBRARY_PATH and the like on Linux, the program's directory and PATH
// on Windows):
// - Windows: name + "_vs16.dll" (the toolset suffix of our builds), then
//   name + ".dll";
// - elsewhere: "lib" + name + ".so", then name + ".so", then the name as
//   given.
//
// Ownership: the library stays loaded while any std::shared_ptr to its
// SharedLib lives; the last one unloads it, after which pointers obtained
// from GetSymbol must not be used.
//
// Threading: Load may be called from any thread; a SharedLib may be used
// from several threads at once (it does not change after loading).
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "oru/export.h"

namespace oru {

class ORU_API SharedLib {
public:
  /// The loaded library, or null with the system's error text (of every name
  /// tried, joined by "; ") in `*error` when nothing loads.
  static std::shared_ptr<SharedLib> Load(std::string_view name, std::string* error = nullptr);
  ~SharedLib();
  SharedLib(const SharedLib&) = delete;
  SharedLib& operator=(const SharedLib&) = delete;

  /// The address of `symbol`, or null when the library has none.
  void* GetSymbol(const char* symbol) const;
  /// GetSymbol as a pointer to a function of type F.
  template <class F>
  F* GetFunction(const char* symbol) const {
    return reinterpret_cast<F*>(GetSymbol(symbol));
  }
  /// The file that was loaded, as the system reports it (a full path when it
  /// was found by searching).
  const std::string& GetPath() const { return m_path; }

private:
  SharedLib(void* handle, std::string path);

  void* m_handle;
  std::string m_path;
};

}  // namespace oru
