// SHA-1 digests and Base64 text.
//
// Sha1Hasher computes the SHA-1 digest (FIPS 180-4) of a message given in
// pieces; Sha1Digest holds the result as the five state words H0..H4 and has
// two text forms, 40 hexadecimal digits (HexForm) and 28 Base64 characters
// (Base64Form). Base64 encodes and decodes arbitrary bytes with the standard
// alphabet (A-Z a-z 0-9 + /), '=' padding and no line breaks.
//
//   oru::Sha1Hasher hasher;
//   hasher.Append(header.data(), header.size());
//   hasher.Append(std::byte{0});
//   hasher.Append(body.data(), body.size());
//   oru::Sha1Digest digest = hasher.Finalize();
//   std::string hex = oru::HexForm(digest);           // "a9993e36..."
//   oru::Sha1Digest same = oru::FromHexForm(hex);      // == digest
//   std::string quick = oru::Sha1FromString("abc");    // the same hex text
//
//   std::string text = oru::Base64::Encode("Man", 3);  // "TWFu"
//   std::vector<char> bytes = oru::Base64::Decode(text.data(), text.size());
//
// An all-zero Sha1Digest means "no digest": the text-form parsers return it
// for text they cannot read.
//
// Ownership: everything here is a plain value. Sha1Hasher is copyable and
// movable; a copy continues independently from the same point, which gives
// the digests of several messages sharing a prefix. Functions return new
// strings and vectors owned by the caller, and read the characters of a
// BasicStringSpan only during the call.
//
// Threading: a Sha1Hasher is used by one thread at a time; different hashers
// and all the free and static functions may be used from any thread at once.
// On x86-64 CPUs with the SHA extensions the compression runs on them
// (chosen at run time); the digests are the same either way.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "oru/export.h"
#include "oru/string_span.h"

namespace oru {

/// A SHA-1 digest: the state words H0..H4 in order. All zero means no digest.
struct Sha1Digest {
  uint32_t words[5] = {};

  friend bool operator==(const Sha1Digest&, const Sha1Digest&) = default;
};

/// Incremental SHA-1 of a message appended in pieces of any size.
class ORU_API Sha1Hasher {
public:
  static constexpr std::size_t BLOCK_SIZE = 64;

  /// The initial SHA-1 state: an empty message.
  Sha1Hasher();

  /// Appends one byte.
  void Append(std::byte b) {
    m_block[m_fill++] = static_cast<unsigned char>(b);
    ++m_length;
    if (m_fill == BLOCK_SIZE) ProcessBlock();
  }
  /// Appends `size` bytes from `data` (which may be null when `size` is 0).
  /// Gives the same digest as appending the bytes one at a time; whole
  /// blocks are hashed straight from `data`.
  void Append(const void* data, std::size_t size);

  /// Pads the message, hashes the last blocks and returns the digest. The
  /// hasher then starts again with an empty message.
  Sha1Digest Finalize();

private:
  /// Hashes the full block buffer and empties it.
  void ProcessBlock();

  uint32_t m_state[5];
  unsigned char m_block[BLOCK_SIZE];
  std::size_t m_fill = 0;  // bytes in m_block, always below BLOCK_SIZE between calls
  uint64_t m_length = 0;   // message bytes appended so far
};

/// The digest as 40 lower-case hexadecimal digits: H0 first, each word most
/// significant nibble first (the usual way SHA-1 digests are written).
ORU_API std::string HexForm(const Sha1Digest& digest);
/// Reads five words of eight hexadecimal digits (either case) from the first
/// 40 characters; anything after them is ignored. The all-zero digest when
/// the text is shorter or one of the 40 is not a hexadecimal digit.
ORU_API Sha1Digest FromHexForm(BasicStringSpan<char const> text);

/// The Base64 text (28 characters, ending in one '=') of the digest's 20
/// bytes laid out word by word, H0 first, each word least significant byte
/// first. This byte order differs from HexForm's and from the usual
/// big-endian digest bytes; it is kept because stored Base64 digests depend
/// on it.
ORU_API std::string Base64Form(const Sha1Digest& digest);
/// The inverse of Base64Form: the all-zero digest unless the text decodes
/// (as Base64::Decode reads it) to exactly 20 bytes.
ORU_API Sha1Digest FromBase64Form(BasicStringSpan<char const> text);

/// HexForm of the SHA-1 digest of the bytes of `text`.
ORU_API std::string Sha1FromString(BasicStringSpan<char const> text);

/// Base64 with the standard alphabet and '=' padding, no line breaks.
/// Stateless: the members are static, and may also be called on an object.
class ORU_API Base64 {
public:
  /// Four characters for every three bytes; a last group of one byte gives
  /// two characters and "==", of two bytes three characters and "=". Empty
  /// input gives an empty string.
  static std::string Encode(const char* data, std::size_t length);

  /// Decodes groups of four characters into three bytes each. Decoding ends
  /// at the first character outside the alphabet, be it '=' padding, a line
  /// break or anything else, or at the end of the text; what follows it is
  /// ignored. The characters of an unfinished last group give the whole
  /// bytes they carry: two characters one byte, three characters two bytes,
  /// one character none; leftover low bits are dropped. So "TWE=", "TWE"
  /// and "TWE=junk" all decode to "Ma", and "TWFu\nTWFu" to "Man".
  static std::vector<char> Decode(const char* text, std::size_t length);
};

}  // namespace oru
