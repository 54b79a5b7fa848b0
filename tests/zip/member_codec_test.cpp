// The whole-member codec against zlib: every cut, every flipped bit and every
// declared size near the truth must get zlib's verdict and zlib's bytes.
#include "zip/member_codec.h"

#include <gtest/gtest.h>

#include <zlib.h>

#include "support/test_util.h"

namespace oru::detail {
namespace {

using Bytes = std::string;

const unsigned char* U(const Bytes& b) {
  return reinterpret_cast<const unsigned char*>(b.data());
}

// InflateMember and zlib agree on `stream` declared as `size` bytes.
::testing::AssertionResult SameVerdict(const Bytes& stream, uint64_t size) {
  Bytes fast(size, '\0'), slow(size, '\0');
  const bool a =
      InflateMember(U(stream), stream.size(), reinterpret_cast<unsigned char*>(fast.data()), size);
  const bool b = InflateMemberZlib(U(stream), stream.size(),
                                   reinterpret_cast<unsigned char*>(slow.data()), size);
  if (a != b) return ::testing::AssertionFailure() << "verdicts " << a << " and " << b;
  if (a && fast != slow) return ::testing::AssertionFailure() << "bytes differ";
  return ::testing::AssertionSuccess();
}

TEST(MemberCodec, AgreesWithZlibOnEveryDamagedStream) {
  const Bytes text = test::RandomBytes(200, 3) + Bytes(3000, 'a') + "tail of the member";
  for (int level : {0, 1, 6, 9}) {
    Bytes packed;
    ASSERT_TRUE(DeflateMember(U(text), text.size(), level, &packed));
    Bytes back(text.size(), '\0');
    ASSERT_TRUE(InflateMemberZlib(U(packed), packed.size(),
                                  reinterpret_cast<unsigned char*>(back.data()), back.size()));
    ASSERT_EQ(text, back) << "level " << level;
    EXPECT_EQ(crc32_z(0, U(text), text.size()), Crc32(U(text), text.size()));
    for (uint64_t size : {uint64_t{0}, text.size() - 1, text.size(), text.size() + 1})
      EXPECT_TRUE(SameVerdict(packed, size)) << "level " << level << " size " << size;
    for (size_t cut = 0; cut < packed.size(); ++cut)
      ASSERT_TRUE(SameVerdict(packed.substr(0, cut), text.size())) << "cut " << cut;
    for (size_t bit = 0; bit < 8 * std::min<size_t>(packed.size(), 64); ++bit) {
      Bytes flipped = packed;
      flipped[bit / 8] = static_cast<char>(flipped[bit / 8] ^ (1 << bit % 8));
      ASSERT_TRUE(SameVerdict(flipped, text.size())) << "level " << level << " bit " << bit;
    }
  }
}

}  // namespace
}  // namespace oru::detail
