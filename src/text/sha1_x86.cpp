// SHA-1 compression on the x86 SHA extensions, and the cpuid test for them.
//
// Only the function below is compiled for the SHA and SSE4.1 instruction
// sets (by attribute, not by a global flag), so the library runs on any
// x86-64 CPU; Sha1Compress calls it only when CpuHasSha1Extensions() says so.
#include "text/sha1_engine.h"

#if defined(ORU_SHA1_X86)

#include <cpuid.h>
#include <immintrin.h>

namespace oru::detail {

bool CpuHasSha1Extensions() {
  static const bool s_have = [] {
    unsigned eax, ebx, ecx, edx;
    if (!__get_cpuid(1, &eax, &ebx, &ecx, &edx)) return false;
    const bool ssse3 = (ecx & (1u << 9)) != 0;
    const bool sse41 = (ecx & (1u << 19)) != 0;
    if (!__get_cpuid_count(7, 0, &eax, &ebx, &ecx, &edx)) return false;
    const bool sha = (ebx & (1u << 29)) != 0;
    return ssse3 && sse41 && sha;
  }();
  return s_have;
}

// The SHA instructions keep the working variables A..D in one register, A
// in the top lane, and E in the top lane of another; message vectors hold
// four consecutive words, the earliest in the top lane.
//
// Four rounds on message vector W with round function F (0..3, one per 20
// rounds): sha1nexte derives E for these rounds from A as it was four
// rounds ago (kept in `prev`) and adds it to W's first word.
#define ORU_SHA1_FOUR_ROUNDS(F, W)                   \
  do {                                               \
    const __m128i ew = _mm_sha1nexte_epu32(prev, W); \
    prev = abcd;                                     \
    abcd = _mm_sha1rnds4_epu32(abcd, ew, F);         \
  } while (0)

// The next four message words, W[i..i+3] from W[i-16..i-1], in place of the
// vector that held W[i-16..i-13].
#define ORU_SHA1_NEXT_WORDS(M0, M1, M2, M3) \
  M0 = _mm_sha1msg2_epu32(_mm_xor_si128(_mm_sha1msg1_epu32(M0, M1), M2), M3)

__attribute__((target("sha,sse4.1"))) void Sha1CompressShaExtensions(uint32_t state[5],
                                                                     const unsigned char* data,
                                                                     std::size_t blocks) {
  // Reverses all 16 bytes: big-endian words come out in host order with the
  // first word in the top lane.
  const __m128i reverse = _mm_set_epi64x(0x0001020304050607LL, 0x08090a0b0c0d0e0fLL);
  __m128i abcd = _mm_shuffle_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(state)), 0x1B);
  // E alone in the top lane; the other lanes must stay zero, since round 0
  // adds this register to the first message vector as it is.
  __m128i e = _mm_set_epi32(static_cast<int>(state[4]), 0, 0, 0);

  for (; blocks != 0; --blocks, data += 64) {
    const __m128i abcdSaved = abcd;
    const __m128i eSaved = e;
    const auto* p = reinterpret_cast<const __m128i*>(data);
    __m128i m0 = _mm_shuffle_epi8(_mm_loadu_si128(p + 0), reverse);
    __m128i m1 = _mm_shuffle_epi8(_mm_loadu_si128(p + 1), reverse);
    __m128i m2 = _mm_shuffle_epi8(_mm_loadu_si128(p + 2), reverse);
    __m128i m3 = _mm_shuffle_epi8(_mm_loadu_si128(p + 3), reverse);

    __m128i prev = abcd;
    abcd = _mm_sha1rnds4_epu32(abcd, _mm_add_epi32(e, m0), 0);  // rounds 0-3
    ORU_SHA1_FOUR_ROUNDS(0, m1);
    ORU_SHA1_FOUR_ROUNDS(0, m2);
    ORU_SHA1_FOUR_ROUNDS(0, m3);
    ORU_SHA1_NEXT_WORDS(m0, m1, m2, m3);  // rounds 16-19
    ORU_SHA1_FOUR_ROUNDS(0, m0);
    ORU_SHA1_NEXT_WORDS(m1, m2, m3, m0);  // rounds 20-39
    ORU_SHA1_FOUR_ROUNDS(1, m1);
    ORU_SHA1_NEXT_WORDS(m2, m3, m0, m1);
    ORU_SHA1_FOUR_ROUNDS(1, m2);
    ORU_SHA1_NEXT_WORDS(m3, m0, m1, m2);
    ORU_SHA1_FOUR_ROUNDS(1, m3);
    ORU_SHA1_NEXT_WORDS(m0, m1, m2, m3);
    ORU_SHA1_FOUR_ROUNDS(1, m0);
    ORU_SHA1_NEXT_WORDS(m1, m2, m3, m0);
    ORU_SHA1_FOUR_ROUNDS(1, m1);
    ORU_SHA1_NEXT_WORDS(m2, m3, m0, m1);  // rounds 40-59
    ORU_SHA1_FOUR_ROUNDS(2, m2);
    ORU_SHA1_NEXT_WORDS(m3, m0, m1, m2);
    ORU_SHA1_FOUR_ROUNDS(2, m3);
    ORU_SHA1_NEXT_WORDS(m0, m1, m2, m3);
    ORU_SHA1_FOUR_ROUNDS(2, m0);
    ORU_SHA1_NEXT_WORDS(m1, m2, m3, m0);
    ORU_SHA1_FOUR_ROUNDS(2, m1);
    ORU_SHA1_NEXT_WORDS(m2, m3, m0, m1);
    ORU_SHA1_FOUR_ROUNDS(2, m2);
    ORU_SHA1_NEXT_WORDS(m3, m0, m1, m2);  // rounds 60-79
    ORU_SHA1_FOUR_ROUNDS(3, m3);
    ORU_SHA1_NEXT_WORDS(m0, m1, m2, m3);
    ORU_SHA1_FOUR_ROUNDS(3, m0);
    ORU_SHA1_NEXT_WORDS(m1, m2, m3, m0);
    ORU_SHA1_FOUR_ROUNDS(3, m1);
    ORU_SHA1_NEXT_WORDS(m2, m3, m0, m1);
    ORU_SHA1_FOUR_ROUNDS(3, m2);
    ORU_SHA1_NEXT_WORDS(m3, m0, m1, m2);
    ORU_SHA1_FOUR_ROUNDS(3, m3);

    // E after the last round is A from four rounds earlier, rotated: the
    // same sha1nexte adds it to the saved E.
    e = _mm_sha1nexte_epu32(prev, eSaved);
    abcd = _mm_add_epi32(abcd, abcdSaved);
  }

  _mm_storeu_si128(reinterpret_cast<__m128i*>(state), _mm_shuffle_epi32(abcd, 0x1B));
  state[4] = static_cast<uint32_t>(_mm_extract_epi32(e, 3));
}

#undef ORU_SHA1_FOUR_ROUNDS
#undef ORU_SHA1_NEXT_WORDS

}  // namespace oru::detail

#endif  // ORU_SHA1_X86
