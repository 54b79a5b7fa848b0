// Sha1Hasher, the digest's text forms, the portable SHA-1 compression and the
// choice of compression engine.
#include "oru/sha1.h"

#include <algorithm>
#include <atomic>
#include <bit>
#include <cstring>
#include <utility>

#include "text/sha1_engine.h"

namespace oru {
namespace detail {
namespace {

constexpr uint32_t SHA1_INITIAL_STATE[5] = {0x67452301, 0xEFCDAB89, 0x98BADCFE, 0x10325476,
                                            0xC3D2E1F0};

inline uint32_t LoadBigEndian32(const unsigned char* p) {
  return uint32_t{p[0]} << 24 | uint32_t{p[1]} << 16 | uint32_t{p[2]} << 8 | uint32_t{p[3]};
}

// Message word I of the block. The schedule is kept as a ring of 16 words:
// from word 16 on, each one replaces the word 16 places before it.
template <int I>
inline uint32_t MessageWord(uint32_t* w) {
  if constexpr (I < 16) {
    return w[I];
  } else {
    w[I & 15] = std::rotl(w[(I + 13) & 15] ^ w[(I + 8) & 15] ^ w[(I + 2) & 15] ^ w[I & 15], 1);
    return w[I & 15];
  }
}

// Round I: the round function and constant change every 20 rounds. Instead
// of shifting the five working variables along, callers rotate their roles.
template <int I>
inline void Round(uint32_t a, uint32_t& b, uint32_t c, uint32_t d, uint32_t& e, uint32_t* w) {
  uint32_t f, k;
  if constexpr (I < 20) {
    f = d ^ (b & (c ^ d));
    k = 0x5A827999;
  } else if constexpr (I < 40) {
    f = b ^ c ^ d;
    k = 0x6ED9EBA1;
  } else if constexpr (I < 60) {
    f = (b & c) + (d & (b ^ c));  // majority; the two terms share no bits
    k = 0x8F1BBCDC;
  } else {
    f = b ^ c ^ d;
    k = 0xCA62C1D6;
  }
  e += std::rotl(a, 5) + f + k + MessageWord<I>(w);
  b = std::rotl(b, 30);
}

template <int I>
inline void FiveRounds(uint32_t& a, uint32_t& b, uint32_t& c, uint32_t& d, uint32_t& e,
                       uint32_t* w) {
  Round<I>(a, b, c, d, e, w);
  Round<I + 1>(e, a, b, c, d, w);
  Round<I + 2>(d, e, a, b, c, w);
  Round<I + 3>(c, d, e, a, b, w);
  Round<I + 4>(b, c, d, e, a, w);
}

template <std::size_t... G>
inline void AllRounds(uint32_t& a, uint32_t& b, uint32_t& c, uint32_t& d, uint32_t& e, uint32_t* w,
                      std::index_sequence<G...>) {
  (FiveRounds<static_cast<int>(G * 5)>(a, b, c, d, e, w), ...);
}

using CompressFunction = void (*)(uint32_t*, const unsigned char*, std::size_t);

CompressFunction Fastest() {
#if defined(ORU_SHA1_X86)
  if (CpuHasSha1Extensions()) return &Sha1CompressShaExtensions;
#endif
  return &Sha1CompressPortable;
}

void SelectAndCompress(uint32_t* state, const unsigned char* data, std::size_t blocks);

// Starts as a trampoline that picks the engine on first use, so a hasher
// running during another file's static initialisation still finds one.
std::atomic<CompressFunction> s_compress{&SelectAndCompress};

void SelectAndCompress(uint32_t* state, const unsigned char* data, std::size_t blocks) {
  CompressFunction expected = &SelectAndCompress;
  s_compress.compare_exchange_strong(expected, Fastest(), std::memory_order_relaxed);
  s_compress.load(std::memory_order_relaxed)(state, data, blocks);
}

}  // namespace

void Sha1CompressPortable(uint32_t state[5], const unsigned char* data, std::size_t blocks) {
  for (; blocks != 0; --blocks, data += Sha1Hasher::BLOCK_SIZE) {
    uint32_t w[16];
    for (int i = 0; i < 16; ++i) w[i] = LoadBigEndian32(data + 4 * i);
    uint32_t a = state[0], b = state[1], c = state[2], d = state[3], e = state[4];
    AllRounds(a, b, c, d, e, w, std::make_index_sequence<16>{});
    state[0] += a;
    state[1] += b;
    state[2] += c;
    state[3] += d;
    state[4] += e;
  }
}

void Sha1Compress(uint32_t state[5], const unsigned char* data, std::size_t blocks) {
  s_compress.load(std::memory_order_relaxed)(state, data, blocks);
}

Sha1Engine CurrentSha1Engine() {
  CompressFunction f = s_compress.load(std::memory_order_relaxed);
  if (f == &SelectAndCompress) f = Fastest();
  return f == &Sha1CompressPortable ? Sha1Engine::Portable : Sha1Engine::ShaExtensions;
}

Sha1Engine UseSha1Engine(Sha1Engine wanted) {
  CompressFunction f = &Sha1CompressPortable;
#if defined(ORU_SHA1_X86)
  if (wanted == Sha1Engine::ShaExtensions && CpuHasSha1Extensions()) f = &Sha1CompressShaExtensions;
#endif
  s_compress.store(f, std::memory_order_relaxed);
  return CurrentSha1Engine();
}

}  // namespace detail

// ---- Sha1Hasher ---------------------------------------------------------------

Sha1Hasher::Sha1Hasher() {
  std::memcpy(m_state, detail::SHA1_INITIAL_STATE, sizeof m_state);
}

void Sha1Hasher::ProcessBlock() {
  detail::Sha1Compress(m_state, m_block, 1);
  m_fill = 0;
}

void Sha1Hasher::Append(const void* data, std::size_t size) {
  if (size == 0) return;
  auto* p = static_cast<const unsigned char*>(data);
  m_length += size;
  if (m_fill != 0) {
    const std::size_t take = std::min(size, BLOCK_SIZE - m_fill);
    std::memcpy(m_block + m_fill, p, take);
    m_fill += take;
    p += take;
    size -= take;
    if (m_fill < BLOCK_SIZE) return;
    ProcessBlock();
  }
  if (const std::size_t blocks = size / BLOCK_SIZE; blocks != 0) {
    detail::Sha1Compress(m_state, p, blocks);
    p += blocks * BLOCK_SIZE;
    size -= blocks * BLOCK_SIZE;
  }
  std::memcpy(m_block, p, size);
  m_fill = size;
}

Sha1Digest Sha1Hasher::Finalize() {
  const uint64_t bits = m_length * 8;  // the length field is the bit count modulo 2^64
  m_block[m_fill++] = 0x80;
  if (m_fill > BLOCK_SIZE - 8) {
    std::memset(m_block + m_fill, 0, BLOCK_SIZE - m_fill);
    ProcessBlock();
  }
  std::memset(m_block + m_fill, 0, BLOCK_SIZE - 8 - m_fill);
  for (int i = 0; i < 8; ++i)
    m_block[BLOCK_SIZE - 1 - i] = static_cast<unsigned char>(bits >> 8 * i);
  ProcessBlock();

  Sha1Digest digest;
  std::memcpy(digest.words, m_state, sizeof digest.words);
  *this = Sha1Hasher();
  return digest;
}

// ---- text forms ---------------------------------------------------------------

namespace {

constexpr char HEX_DIGITS[] = "0123456789abcdef";

// 0..15 for a hexadecimal digit of either case, -1 otherwise.
int HexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

std::string HexForm(const Sha1Digest& digest) {
  std::string text(40, '\0');
  for (int i = 0; i < 40; ++i) {
    const uint32_t word = digest.words[i / 8];
    text[i] = HEX_DIGITS[(word >> (28 - 4 * (i % 8))) & 15];
  }
  return text;
}

Sha1Digest FromHexForm(BasicStringSpan<char const> text) {
  Sha1Digest digest;
  if (text.size() < 40) return digest;
  for (int i = 0; i < 40; ++i) {
    const int v = HexValue(text[i]);
    if (v < 0) return Sha1Digest{};
    digest.words[i / 8] = digest.words[i / 8] << 4 | static_cast<uint32_t>(v);
  }
  return digest;
}

std::string Base64Form(const Sha1Digest& digest) {
  // Each word least significant byte first: kept, stored digests depend on it.
  char bytes[20];
  for (int i = 0; i < 20; ++i) bytes[i] = static_cast<char>(digest.words[i / 4] >> 8 * (i % 4));
  return Base64::Encode(bytes, sizeof bytes);
}

Sha1Digest FromBase64Form(BasicStringSpan<char const> text) {
  const std::vector<char> bytes = Base64::Decode(text.data(), text.size());
  Sha1Digest digest;
  if (bytes.size() != 20) return digest;
  for (int i = 0; i < 20; ++i)
    digest.words[i / 4] |= uint32_t{static_cast<unsigned char>(bytes[i])} << 8 * (i % 4);
  return digest;
}

std::string Sha1FromString(BasicStringSpan<char const> text) {
  Sha1Hasher hasher;
  hasher.Append(text.data(), text.size());
  return HexForm(hasher.Finalize());
}

}  // namespace oru
