// Whole-member inflation of ZIP members against zlib: arbitrary bytes as a
// raw deflate stream and a declared size must get the same verdict and the
// same bytes from the fast path as from zlib alone, and what DeflateMember
// makes of them must inflate back through zlib.
//
// Input: three bytes of declared size (little-endian, 20 bits: at most 1 MiB), then
// the stream.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "zip/member_codec.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 3) return 0;
  const uint64_t declared = data[0] | data[1] << 8 | uint64_t{data[2] & 0x0Fu} << 16;
  const unsigned char* stream = data + 3;
  const uint64_t packed = size - 3;

  std::vector<unsigned char> fast(declared), slow(declared);
  const bool fastOk = oru::detail::InflateMember(stream, packed, fast.data(), declared);
  const bool slowOk = oru::detail::InflateMemberZlib(stream, packed, slow.data(), declared);
  if (fastOk != slowOk || (fastOk && fast != slow)) std::abort();

  std::string deflated;
  if (!oru::detail::DeflateMember(stream, packed, 1 + data[0] % 9, &deflated)) std::abort();
  std::vector<unsigned char> back(packed);
  const auto* in = reinterpret_cast<const unsigned char*>(deflated.data());
  if (!oru::detail::InflateMemberZlib(in, deflated.size(), back.data(), packed) ||
      (packed != 0 && std::memcmp(back.data(), stream, packed) != 0) ||
      oru::detail::Crc32(back.data(), packed) != oru::detail::Crc32(stream, packed))
    std::abort();
  return 0;
}
