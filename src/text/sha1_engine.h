// Internal: the SHA-1 compression functions and the choice between them.
//
// Sha1Hasher hashes whole 64-byte blocks through Sha1Compress, which runs
// the x86 SHA extensions (sha1rnds4, sha1nexte, sha1msg1, sha1msg2) when the
// CPU has them and the portable C++ rounds otherwise. The choice is made
// from cpuid when the first block is hashed.
//
// The tests, benchmarks and fuzz targets pin one engine or the other to check
// and time each; the two functions they use are exported for that purpose
// only and are not part of the installed headers.
#pragma once

#include <cstddef>
#include <cstdint>

#include "oru/export.h"

#if defined(__x86_64__) || defined(__i386__)
#define ORU_SHA1_X86 1
#endif

namespace oru::detail {

enum class Sha1Engine {
  Portable,       // plain C++ rounds
  ShaExtensions,  // x86 SHA extensions
};

/// Runs the SHA-1 compression over `blocks` consecutive 64-byte blocks at
/// `data`, updating `state` (H0..H4), with the engine currently in use.
void Sha1Compress(uint32_t state[5], const unsigned char* data, std::size_t blocks);

void Sha1CompressPortable(uint32_t state[5], const unsigned char* data, std::size_t blocks);
#if defined(ORU_SHA1_X86)
/// True when the CPU has the SHA extensions and SSSE3/SSE4.1 beside them.
bool CpuHasSha1Extensions();
/// Only to be called when CpuHasSha1Extensions() is true.
void Sha1CompressShaExtensions(uint32_t state[5], const unsigned char* data, std::size_t blocks);
#endif

/// The engine Sha1Hasher uses now.
ORU_API Sha1Engine CurrentSha1Engine();
/// Makes every Sha1Hasher in the process use `wanted` from its next block
/// on, or the portable engine when the CPU cannot run `wanted`; returns the
/// engine now in use. Safe to call from any thread at any time.
ORU_API Sha1Engine UseSha1Engine(Sha1Engine wanted);

}  // namespace oru::detail
