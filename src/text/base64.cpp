// Base64 encoding and decoding with lookup tables.
//
// Encoding turns each 12-bit half of a three-byte group into two characters
// with one lookup. Decoding maps each character through a table of its own
// position in the group, with the bits already where the output bytes want
// them, and ORs the four entries; a character outside the alphabet ('='
// included) sets bits that no valid group can have, so one test per group
// finds it and only that group takes the careful path.
#include <bit>
#include <cstdint>
#include <cstring>

#include "oru/sha1.h"
#include "oru/toolchain.h"

namespace oru {
namespace {

constexpr char ALPHABET[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr bool LITTLE_ENDIAN_HOST = std::endian::native == std::endian::little;

// ---- encoding -----------------------------------------------------------------

// The two characters for each 12-bit value, laid out in memory as they are
// written.
struct PairTable {
  uint16_t pairs[4096];
};

constexpr PairTable MakePairTable() {
  PairTable t{};
  for (unsigned i = 0; i < 4096; ++i) {
    const auto first = static_cast<uint16_t>(static_cast<unsigned char>(ALPHABET[i >> 6]));
    const auto second = static_cast<uint16_t>(static_cast<unsigned char>(ALPHABET[i & 63]));
    t.pairs[i] = LITTLE_ENDIAN_HOST ? static_cast<uint16_t>(first | second << 8)
                                    : static_cast<uint16_t>(first << 8 | second);
  }
  return t;
}

constexpr PairTable ENCODE = MakePairTable();

inline uint64_t LoadBigEndian64(const unsigned char* p) {
  uint64_t v;
  std::memcpy(&v, p, sizeof v);
  if constexpr (LITTLE_ENDIAN_HOST) v = detail::ByteSwap64(v);
  return v;
}

// Four 2-character pairs as one 8-character store.
inline void StorePairs(char* out, uint64_t a, uint64_t b, uint64_t c, uint64_t d) {
  const uint64_t v =
      LITTLE_ENDIAN_HOST ? a | b << 16 | c << 32 | d << 48 : a << 48 | b << 32 | c << 16 | d;
  std::memcpy(out, &v, sizeof v);
}

// ---- decoding -----------------------------------------------------------------

constexpr uint32_t NOT_IN_ALPHABET = 0xFF;

// 6-bit value of each character; NOT_IN_ALPHABET for '=' and everything else.
struct ValueTable {
  uint8_t values[256];
};

constexpr ValueTable MakeValueTable() {
  ValueTable t{};
  for (auto& v : t.values) v = NOT_IN_ALPHABET;
  for (unsigned i = 0; i < 64; ++i) t.values[static_cast<unsigned char>(ALPHABET[i])] = uint8_t(i);
  return t;
}

constexpr ValueTable VALUES = MakeValueTable();

// For character position k of a group, each character's bits placed so that
// the OR of the four entries, stored as a 32-bit word, puts the three output
// bytes first in memory. A character outside the alphabet sets every bit of
// the fourth byte, which valid characters never touch.
struct PlacedTable {
  uint32_t placed[4][256];
};

constexpr uint32_t BAD_BITS = LITTLE_ENDIAN_HOST ? 0xFF000000u : 0x000000FFu;

constexpr PlacedTable MakePlacedTable() {
  PlacedTable t{};
  for (int k = 0; k < 4; ++k) {
    for (int c = 0; c < 256; ++c) {
      const uint32_t v = VALUES.values[c];
      if (v == NOT_IN_ALPHABET) {
        t.placed[k][c] = BAD_BITS;
        continue;
      }
      const uint32_t group = v << (18 - 6 * k);  // the 24-bit group, first byte on top
      t.placed[k][c] = LITTLE_ENDIAN_HOST
                           ? (group >> 16 & 0xFF) | (group & 0xFF00) | (group & 0xFF) << 16
                           : group << 8;
    }
  }
  return t;
}

constexpr PlacedTable DECODE = MakePlacedTable();

inline uint32_t DecodeGroup(const unsigned char* p) {
  return DECODE.placed[0][p[0]] | DECODE.placed[1][p[1]] | DECODE.placed[2][p[2]] |
         DECODE.placed[3][p[3]];
}

}  // namespace

std::string Base64::Encode(const char* data, std::size_t length) {
  std::string out;
  if (length == 0) return out;
  out.resize((length + 2) / 3 * 4);
  auto* p = reinterpret_cast<const unsigned char*>(data);
  char* o = out.data();
  const uint16_t* pairs = ENCODE.pairs;

  // Six bytes per step, read as one 8-byte load (so at least 8 must remain).
  for (; length >= 8; p += 6, length -= 6, o += 8) {
    const uint64_t v = LoadBigEndian64(p);
    StorePairs(o, pairs[v >> 52], pairs[v >> 40 & 0xFFF], pairs[v >> 28 & 0xFFF],
               pairs[v >> 16 & 0xFFF]);
  }
  for (; length >= 3; p += 3, length -= 3, o += 4) {
    const uint32_t v = uint32_t{p[0]} << 16 | uint32_t{p[1]} << 8 | p[2];
    std::memcpy(o, &pairs[v >> 12], 2);
    std::memcpy(o + 2, &pairs[v & 0xFFF], 2);
  }
  if (length != 0) {
    const uint32_t v = uint32_t{p[0]} << 16 | (length == 2 ? uint32_t{p[1]} << 8 : 0);
    o[0] = ALPHABET[v >> 18];
    o[1] = ALPHABET[v >> 12 & 63];
    o[2] = length == 2 ? ALPHABET[v >> 6 & 63] : '=';
    o[3] = '=';
  }
  return out;
}

std::vector<char> Base64::Decode(const char* text, std::size_t length) {
  std::vector<char> out;
  if (length == 0) return out;
  // Room for every whole group, the bytes of an unfinished one, and the one
  // byte past the end that each group's 4-byte store touches.
  out.resize(length / 4 * 3 + 3);
  auto* p = reinterpret_cast<const unsigned char*>(text);
  const unsigned char* const end = p + length;
  char* o = out.data();

  for (; end - p >= 8; p += 8, o += 6) {
    const uint32_t a = DecodeGroup(p);
    const uint32_t b = DecodeGroup(p + 4);
    if ((a | b) & BAD_BITS) break;
    std::memcpy(o, &a, 4);
    std::memcpy(o + 3, &b, 4);
  }
  for (; end - p >= 4; p += 4, o += 3) {
    const uint32_t a = DecodeGroup(p);
    if (a & BAD_BITS) break;
    std::memcpy(o, &a, 4);
  }

  // Fewer than four characters left, or the group at p holds one outside
  // the alphabet: decoding ends there, after the whole bytes that the valid
  // characters before it carry (at most three of them).
  uint32_t bits = 0;
  int count = 0;
  for (; p < end && count < 3; ++p, ++count) {
    const uint32_t v = VALUES.values[*p];
    if (v == NOT_IN_ALPHABET) break;
    bits = bits << 6 | v;
  }
  if (count == 2) {
    *o++ = static_cast<char>(bits >> 4);
  } else if (count == 3) {
    *o++ = static_cast<char>(bits >> 10);
    *o++ = static_cast<char>(bits >> 2);
  }
  out.resize(static_cast<std::size_t>(o - out.data()));
  return out;
}

}  // namespace oru
