// Symbol visibility for liboru.
//
// ORU_API marks every class and function that belongs to the library's
// exported interface. The library is built with hidden visibility, so names
// without ORU_API stay internal to the shared object / DLL.
//
// ORU_LOCAL marks the definition (in a .cpp file) of a class nested in an
// exported class but private to the library, such as an `Impl`: a nested class
// takes the visibility of its enclosing class, and would otherwise be exported
// with it.
//
// Users never define anything here: a shared build is the default, and the
// installed CMake package and oru.pc add ORU_STATIC for a static build.
#pragma once

#if defined(ORU_STATIC)
#define ORU_API
#elif defined(_WIN32)
#if defined(ORU_BUILDING_LIBRARY)
#define ORU_API __declspec(dllexport)
#else
#define ORU_API __declspec(dllimport)
#endif
#else
#define ORU_API __attribute__((visibility("default")))
#endif

#if defined(_WIN32) || defined(ORU_STATIC)
#define ORU_LOCAL
#else
#define ORU_LOCAL __attribute__((visibility("hidden")))
#endif
