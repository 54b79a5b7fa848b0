// Toolchain specifics behind portable names: the fast paths that a compiler
// or C++ library offers, with a standard fallback that compiles with any
// C++20 compiler and library.
//
// For the library's own headers and sources; applications have no use for
// it. Everything here may be called from any thread.
#pragma once

#include <cstdint>

#if defined(__GLIBCXX__)
#include <ext/atomicity.h>
#endif

// 1 when std::regex can follow all alternatives at once (libstdc++'s
// polynomial mode, std::regex_constants::__polynomial), so that no pattern
// takes time exponential in the text; 0 where the engine backtracks.
#if defined(__GLIBCXX__)
#define ORU_HAS_POLYNOMIAL_REGEX 1
#else
#define ORU_HAS_POLYNOMIAL_REGEX 0
#endif

namespace oru::detail {

// Whether the process is known to run one thread only (libstdc++ tracks it
// for std::shared_ptr; the first thread started ends it for good, and its
// start orders what came before). False where that cannot be told, so that
// callers take their thread-safe path.
inline bool ProcessIsSingleThreaded() noexcept {
#if defined(__GLIBCXX__)
  return __gnu_cxx::__is_single_threaded();
#else
  return false;
#endif
}

inline uint32_t ByteSwap32(uint32_t v) noexcept {
#if defined(__GNUC__) || defined(__clang__)
  return __builtin_bswap32(v);
#else
  return v >> 24 | (v >> 8 & 0xFF00u) | (v << 8 & 0xFF0000u) | v << 24;
#endif
}

inline uint64_t ByteSwap64(uint64_t v) noexcept {
#if defined(__GNUC__) || defined(__clang__)
  return __builtin_bswap64(v);
#else
  return uint64_t{ByteSwap32(static_cast<uint32_t>(v))} << 32 |
         ByteSwap32(static_cast<uint32_t>(v >> 32));
#endif
}

}  // namespace oru::detail
