// FromHexForm over arbitrary text, checked against a plain reading of the
// first 40 characters; and the SHA-1 of the input, which must be the same on
// every compression engine and for every way of appending it.
#include <oru/sha1.h>

#include <cctype>
#include <cstddef>
#include <cstdint>
#include <string>

#include "../src/text/sha1_engine.h"

namespace {

void Check(bool ok) {
  if (!ok) __builtin_trap();
}

oru::Sha1Digest Hash(const uint8_t* data, size_t size, size_t split) {
  oru::Sha1Hasher hasher;
  hasher.Append(data, split);
  for (size_t i = split; i < size; ++i) hasher.Append(static_cast<std::byte>(data[i]));
  return hasher.Finalize();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const char* text = reinterpret_cast<const char*>(data);
  const oru::Sha1Digest digest = oru::FromHexForm(oru::BasicStringSpan<char const>(text, size));
  bool valid = size >= 40;
  for (size_t i = 0; valid && i < 40; ++i) valid = std::isxdigit(data[i]) != 0;
  if (!valid) {
    Check(digest == oru::Sha1Digest{});
  } else {
    std::string lower(text, 40);
    for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    Check(oru::HexForm(digest) == lower);
  }

  using oru::detail::Sha1Engine;
  const size_t split = size == 0 ? 0 : data[0] % (size + 1);
  oru::detail::UseSha1Engine(Sha1Engine::Portable);
  const oru::Sha1Digest portable = Hash(data, size, size);
  Check(Hash(data, size, split) == portable);
  if (oru::detail::UseSha1Engine(Sha1Engine::ShaExtensions) == Sha1Engine::ShaExtensions) {
    Check(Hash(data, size, split) == portable);
    Check(Hash(data, size, 0) == portable);
  }
  Check(oru::FromHexForm(oru::Sha1FromString(oru::BasicStringSpan<char const>(text, size))) ==
        portable);
  return 0;
}
