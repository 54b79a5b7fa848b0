// Internal: whole-member compression for ZIP archives. A member is inflated
// into a buffer of its declared size and deflated from a buffer holding all
// of it, which is the job libdeflate does at about twice zlib's speed. Where
// libdeflate is not built in (the Windows build), zlib does it all.
//
// The verdicts are zlib's, byte for byte: the fast path is taken only when it
// decodes the stream exactly to its end into exactly `size` bytes; anything
// else (short, corrupt, or longer than declared) is decided again by zlib,
// which may for example accept a stream that goes on past the declared size.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

namespace oru::detail {

/// Inflates the raw deflate data `in[0, packed)` into exactly `size` bytes at
/// `out`; false when the data is corrupt or ends before filling them.
bool InflateMember(const unsigned char* in, uint64_t packed, unsigned char* out, uint64_t size);

/// The same, by zlib alone: the reference InflateMember answers like.
bool InflateMemberZlib(const unsigned char* in, uint64_t packed, unsigned char* out, uint64_t size);

/// Gives the next piece of a stream: true with `n` = 0 at its end, false
/// when the piece cannot be read.
using InputPieces = std::function<bool(const unsigned char*& piece, uint64_t& n)>;

/// zlib over a stream that arrives in pieces, so that it is never held whole.
bool InflateMemberZlib(const InputPieces& next, unsigned char* out, uint64_t size);

/// The ZIP CRC-32 of `size` bytes.
uint32_t Crc32(const unsigned char* data, uint64_t size);

/// Raw deflate of `in[0, size)` at zlib's `level` (1..9; -1 for 6) appended
/// to `out`; false when out of memory or the compressor fails.
bool DeflateMember(const unsigned char* in, uint64_t size, int level, std::string* out);

}  // namespace oru::detail
