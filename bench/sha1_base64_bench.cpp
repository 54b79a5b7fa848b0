// SHA-1 and Base64 against OpenSSL's libcrypto.
//
// - BM_Sha1: the digest of one 256 MiB buffer of pseudo-random bytes, one
//   bulk Sha1Hasher::Append and Finalize. Variants: ours_shani pins the x86
//   SHA extensions engine (skipped with an error on a CPU without them),
//   ours_portable the plain C++ one. Peer: EVP_Digest with EVP_sha1(), which
//   uses the SHA extensions itself where the CPU has them.
// - BM_Base64Encode: 64 MiB of pseudo-random bytes to text with
//   Base64::Encode. Peer: EVP_EncodeBlock into a std::string of the right
//   size, made per pass as Encode makes its result.
// - BM_Base64Decode: that text back to bytes with Base64::Decode. Peer:
//   EVP_DecodeBlock into a std::vector<char> made per pass.
//
// Names are BM_<job>/ours_<variant> and BM_<job>/peer so that scripts/bench
// can pair them. Throughput is bytes of binary data per second: the hashed
// bytes, and for Base64 the 64 MiB on the binary side of both directions.
// Every job checks its result against the peer's once, outside the timing.
#include <benchmark/benchmark.h>
#include <openssl/evp.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "../src/text/sha1_engine.h"
#include "oru/sha1.h"

namespace {

constexpr std::size_t HASH_BYTES = std::size_t{256} << 20;
constexpr std::size_t BASE64_BYTES = std::size_t{64} << 20;

const std::vector<char>& HashData() {
  static const std::vector<char> data = [] {
    std::vector<char> bytes(HASH_BYTES);
    std::mt19937_64 rng(42);
    for (std::size_t i = 0; i < bytes.size(); i += sizeof(uint64_t)) {
      const uint64_t v = rng();
      std::memcpy(bytes.data() + i, &v, sizeof v);
    }
    return bytes;
  }();
  return data;
}

const std::vector<char>& Base64Input() {
  static const std::vector<char> data(
      HashData().begin(), HashData().begin() + static_cast<std::ptrdiff_t>(BASE64_BYTES));
  return data;
}

const std::string& Base64Text() {
  static const std::string text = oru::Base64::Encode(Base64Input().data(), Base64Input().size());
  return text;
}

void SetBytes(benchmark::State& state, std::size_t bytes) {
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(bytes));
}

// ---- SHA-1 ----------------------------------------------------------------------

std::string PeerSha1Hex(const std::vector<char>& data) {
  unsigned char md[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  if (!EVP_Digest(data.data(), data.size(), md, &length, EVP_sha1(), nullptr)) return "";
  static const char digits[] = "0123456789abcdef";
  std::string hex;
  for (unsigned int i = 0; i < length; ++i) {
    hex += digits[md[i] >> 4];
    hex += digits[md[i] & 15];
  }
  return hex;
}

void Sha1Ours(benchmark::State& state, oru::detail::Sha1Engine engine) {
  const std::vector<char>& data = HashData();
  const oru::detail::Sha1Engine before = oru::detail::CurrentSha1Engine();
  if (oru::detail::UseSha1Engine(engine) != engine) {
    oru::detail::UseSha1Engine(before);
    state.SkipWithError("this CPU has no SHA extensions");
    return;
  }
  oru::Sha1Hasher hasher;
  hasher.Append(data.data(), data.size());
  if (oru::HexForm(hasher.Finalize()) != PeerSha1Hex(data)) {
    oru::detail::UseSha1Engine(before);
    state.SkipWithError("digest differs from OpenSSL's");
    return;
  }
  for (auto _ : state) {
    hasher.Append(data.data(), data.size());
    oru::Sha1Digest digest = hasher.Finalize();
    benchmark::DoNotOptimize(digest);
  }
  oru::detail::UseSha1Engine(before);
  SetBytes(state, data.size());
}

void BM_Sha1_ours_shani(benchmark::State& state) {
  Sha1Ours(state, oru::detail::Sha1Engine::ShaExtensions);
}

void BM_Sha1_ours_portable(benchmark::State& state) {
  Sha1Ours(state, oru::detail::Sha1Engine::Portable);
}

void BM_Sha1_peer(benchmark::State& state) {
  const std::vector<char>& data = HashData();
  EVP_MD* sha1 = EVP_MD_fetch(nullptr, "SHA1", nullptr);  // fetched once, as a user would
  for (auto _ : state) {
    unsigned char md[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EVP_Digest(data.data(), data.size(), md, &length, sha1, nullptr);
    benchmark::DoNotOptimize(md);
  }
  EVP_MD_free(sha1);
  SetBytes(state, data.size());
}

BENCHMARK(BM_Sha1_ours_shani)->Name("BM_Sha1/ours_shani")->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Sha1_ours_portable)->Name("BM_Sha1/ours_portable")->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Sha1_peer)->Name("BM_Sha1/peer")->Unit(benchmark::kMillisecond);

// ---- Base64 ---------------------------------------------------------------------

std::string PeerEncode(const std::vector<char>& data) {
  std::string text((data.size() + 2) / 3 * 4 + 1, '\0');  // + the NUL it writes
  const int n = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()),
                                reinterpret_cast<const unsigned char*>(data.data()),
                                static_cast<int>(data.size()));
  text.resize(static_cast<std::size_t>(n));
  return text;
}

// EVP_DecodeBlock counts the zero bytes that padding stands for; the caller
// drops them.
std::vector<char> PeerDecode(const std::string& text) {
  std::vector<char> bytes(text.size() / 4 * 3);
  const int n = EVP_DecodeBlock(reinterpret_cast<unsigned char*>(bytes.data()),
                                reinterpret_cast<const unsigned char*>(text.data()),
                                static_cast<int>(text.size()));
  std::size_t padding = 0;
  for (std::size_t i = text.size(); i > 0 && text[i - 1] == '='; --i) ++padding;
  bytes.resize(n < 0 ? 0 : static_cast<std::size_t>(n) - padding);
  return bytes;
}

void BM_Base64Encode_ours(benchmark::State& state) {
  const std::vector<char>& data = Base64Input();
  if (Base64Text() != PeerEncode(data)) {
    state.SkipWithError("text differs from OpenSSL's");
    return;
  }
  for (auto _ : state) {
    std::string text = oru::Base64::Encode(data.data(), data.size());
    benchmark::DoNotOptimize(text.data());
  }
  SetBytes(state, data.size());
}

void BM_Base64Encode_peer(benchmark::State& state) {
  const std::vector<char>& data = Base64Input();
  for (auto _ : state) {
    std::string text = PeerEncode(data);
    benchmark::DoNotOptimize(text.data());
  }
  SetBytes(state, data.size());
}

void BM_Base64Decode_ours(benchmark::State& state) {
  const std::string& text = Base64Text();
  if (oru::Base64::Decode(text.data(), text.size()) != Base64Input() ||
      PeerDecode(text) != Base64Input()) {
    state.SkipWithError("decoded bytes differ from the input");
    return;
  }
  for (auto _ : state) {
    std::vector<char> bytes = oru::Base64::Decode(text.data(), text.size());
    benchmark::DoNotOptimize(bytes.data());
  }
  SetBytes(state, Base64Input().size());
}

void BM_Base64Decode_peer(benchmark::State& state) {
  const std::string& text = Base64Text();
  for (auto _ : state) {
    std::vector<char> bytes = PeerDecode(text);
    benchmark::DoNotOptimize(bytes.data());
  }
  SetBytes(state, Base64Input().size());
}

BENCHMARK(BM_Base64Encode_ours)->Name("BM_Base64Encode/ours")->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Base64Encode_peer)->Name("BM_Base64Encode/peer")->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Base64Decode_ours)->Name("BM_Base64Decode/ours")->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Base64Decode_peer)->Name("BM_Base64Decode/peer")->Unit(benchmark::kMillisecond);

}  // namespace
