// Internal: finding the end of a text line in a block of bytes.
#pragma once

#include <cstdint>
#include <cstring>

// The vector scans use GCC and Clang built-ins; other compilers scan bytewise.
#if (defined(__x86_64__) || defined(_M_X64)) && (defined(__GNUC__) || defined(__clang__))
#include <immintrin.h>
#define ORU_LINE_SCAN_X86 1
#endif

namespace oru::detail {

inline const char* FindLineEndBytewise(const char* p, const char* end) {
  while (p < end && *p != '\n' && *p != '\r') ++p;
  return p;
}

#if defined(ORU_LINE_SCAN_X86)
// 32 bytes at a time; only called when the CPU has AVX2.
__attribute__((target("avx2"))) inline const char* FindLineEndAvx2(const char* p, const char* end) {
  const __m256i lf = _mm256_set1_epi8('\n');
  const __m256i cr = _mm256_set1_epi8('\r');
  while (end - p >= 32) {
    const __m256i v = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p));
    const auto mask = static_cast<unsigned>(
        _mm256_movemask_epi8(_mm256_or_si256(_mm256_cmpeq_epi8(v, lf), _mm256_cmpeq_epi8(v, cr))));
    if (mask != 0) return p + __builtin_ctz(mask);
    p += 32;
  }
  return FindLineEndBytewise(p, end);
}

// 16 bytes at a time with SSE2, which every x86-64 CPU has.
inline const char* FindLineEndSse2(const char* p, const char* end) {
  const __m128i lf = _mm_set1_epi8('\n');
  const __m128i cr = _mm_set1_epi8('\r');
  while (end - p >= 16) {
    const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
    const auto mask = static_cast<unsigned>(
        _mm_movemask_epi8(_mm_or_si128(_mm_cmpeq_epi8(v, lf), _mm_cmpeq_epi8(v, cr))));
    if (mask != 0) return p + __builtin_ctz(mask);
    p += 16;
  }
  return FindLineEndBytewise(p, end);
}
#endif

// The first CR or LF in [p, end), or `end`, in one pass.
inline const char* FindLineEnd(const char* p, const char* end) {
#if defined(ORU_LINE_SCAN_X86)
  static const bool s_haveAvx2 = __builtin_cpu_supports("avx2");
  return s_haveAvx2 ? FindLineEndAvx2(p, end) : FindLineEndSse2(p, end);
#else
  return FindLineEndBytewise(p, end);
#endif
}

}  // namespace oru::detail
