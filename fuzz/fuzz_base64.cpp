// Base64::Decode and FromBase64Form over arbitrary text, checked against the
// decoding rules: decoding ends at the first character outside the alphabet
// and gives the whole bytes of the characters before it; what it gives
// encodes and decodes back unchanged. The input is also encoded as bytes.
#include <oru/sha1.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

namespace {

bool InAlphabet(unsigned char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '+' ||
         c == '/';
}

void Check(bool ok) {
  if (!ok) __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const char* text = reinterpret_cast<const char*>(data);

  size_t valid = 0;
  while (valid < size && InAlphabet(data[valid])) ++valid;
  const std::vector<char> bytes = oru::Base64::Decode(text, size);
  Check(bytes.size() == valid * 6 / 8);
  const std::string again = oru::Base64::Encode(bytes.data(), bytes.size());
  Check(oru::Base64::Decode(again.data(), again.size()) == bytes);
  // A text of whole groups comes back exactly.
  if (valid % 4 == 0) Check(again.compare(0, std::string::npos, text, valid) == 0);

  const oru::Sha1Digest digest = oru::FromBase64Form(oru::BasicStringSpan<char const>(text, size));
  if (bytes.size() != 20) {
    Check(digest == oru::Sha1Digest{});
  } else {
    const std::string form = oru::Base64Form(digest);
    Check(form.size() == 28 && oru::Base64::Decode(form.data(), form.size()) == bytes);
  }

  const std::string encoded = oru::Base64::Encode(text, size);
  Check(encoded.size() == (size + 2) / 3 * 4);
  const std::vector<char> decoded = oru::Base64::Decode(encoded.data(), encoded.size());
  Check(decoded.size() == size && (size == 0 || std::memcmp(decoded.data(), data, size) == 0));
  return 0;
}
