#include "oru/sha1.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <cstdint>
#include <fstream>
#include <iterator>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "support/test_util.h"
#include "text/sha1_engine.h"

namespace {

using oru::Sha1Digest;
using oru::Sha1Hasher;
using oru::detail::Sha1Engine;

// Every compression engine this CPU can run, the portable one first.
std::vector<Sha1Engine> Engines() {
  const Sha1Engine before = oru::detail::CurrentSha1Engine();
  std::vector<Sha1Engine> engines{Sha1Engine::Portable};
  if (oru::detail::UseSha1Engine(Sha1Engine::ShaExtensions) == Sha1Engine::ShaExtensions)
    engines.push_back(Sha1Engine::ShaExtensions);
  oru::detail::UseSha1Engine(before);
  return engines;
}

// Pins one engine for the scope, then restores the one in use before.
struct EngineScope {
  explicit EngineScope(Sha1Engine engine) { EXPECT_EQ(oru::detail::UseSha1Engine(engine), engine); }
  ~EngineScope() { oru::detail::UseSha1Engine(before); }
  Sha1Engine before = oru::detail::CurrentSha1Engine();
};

enum Way { BULK, BYTEWISE, PIECES };

// PIECES: random sizes up to 300 bytes, every third piece byte by byte.
std::string Hash(const std::string& data, Way way, std::mt19937& rng) {
  Sha1Hasher h;
  std::size_t at = 0;
  for (int piece = 0; at < data.size(); ++piece) {
    const std::size_t n = way == BULK ? data.size() : way == BYTEWISE ? 1 : rng() % 301;
    const std::size_t take = std::min(n, data.size() - at);
    if (way == BYTEWISE || piece % 3 == 2) {
      for (std::size_t i = 0; i < take; ++i) h.Append(static_cast<std::byte>(data[at + i]));
    } else {
      h.Append(data.data() + at, take);
    }
    at += take;
  }
  return oru::HexForm(h.Finalize());
}

TEST(Sha1Test, StandardVectorsOnEveryEngine) {
  const struct {
    std::string message, digest;
  } vectors[] = {
      {"", "da39a3ee5e6b4b0d3255bfef95601890afd80709"},
      {"abc", "a9993e364706816aba3e25717850c26c9cd0d89d"},
      {"abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq",
       "84983e441c3bd26ebaae4aa1f95129e5e54670f1"},
      {"abcdefghbcdefghicdefghijdefghijkefghijklfghijklmghijklmnhijklmnoijklmnopjklmnopqklmnopqrlm"
       "nopqrsmnopqrstnopqrstu",
       "a49b2446a02c645bf419f995b67091253a04a259"},
      {std::string(1000000, 'a'), "34aa973cd4c4daa4f61eeb2bdbad27316534016f"},
  };
  // The other ways of appending are held to these digests by the next test.
  for (Sha1Engine engine : Engines()) {
    EngineScope scope(engine);
    for (const auto& v : vectors)
      EXPECT_EQ(oru::Sha1FromString(v.message), v.digest) << int(engine) << ", " << v.digest;
  }
}

// hashlib judges every prefix length from 0 to 1000 (all the padding cases,
// several blocks) and a message of a few MiB, hashed on every engine in one
// call, byte by byte and in random pieces. Without Python (under wine) the
// portable engine's one-call digests are the reference the rest must match.
TEST(Sha1Test, EveryEngineAndWayOfAppendingMatchesHashlib) {
  oru::test::TempDir dir;
  const std::string data = oru::test::RandomBytes((3 << 20) + 37, 3);
  std::vector<std::size_t> lengths;
  for (std::size_t n = 0; n <= 1000; ++n) lengths.push_back(n);
  lengths.push_back(data.size());
  std::vector<std::string> expected;
  if (oru::test::HaveTool("python3")) {
    oru::test::WriteFile(dir.File("data.bin"), data);
    ASSERT_EQ(oru::test::Run("python3 -c \"import hashlib,sys\n"
                             "d=open(sys.argv[1],'rb').read()\n"
                             "out=[hashlib.sha1(d[:n]).hexdigest() for n in range(1001)]\n"
                             "out.append(hashlib.sha1(d).hexdigest())\n"
                             "open(sys.argv[2],'w').write(' '.join(out))\" '" +
                             dir.File("data.bin") + "' '" + dir.File("digests.txt") + "'"),
              0);
    std::istringstream in(oru::test::ReadFile(dir.File("digests.txt")));
    expected.assign(std::istream_iterator<std::string>(in), {});
    ASSERT_EQ(expected.size(), lengths.size());
  } else {
    EngineScope scope(Sha1Engine::Portable);
    std::mt19937 rng(0);
    for (std::size_t n : lengths) expected.push_back(Hash(data.substr(0, n), BULK, rng));
  }
  for (Sha1Engine engine : Engines()) {
    EngineScope scope(engine);
    std::mt19937 rng(5);
    for (std::size_t i = 0; i < lengths.size(); ++i) {
      const std::string message = data.substr(0, lengths[i]);
      for (Way way : {BULK, BYTEWISE, PIECES})
        ASSERT_EQ(Hash(message, way, rng), expected[i])
            << "engine " << int(engine) << ", way " << way << ", length " << lengths[i];
    }
  }
}

TEST(Sha1Test, HasherStartsOverAfterFinalizeAndCopiesContinueApart) {
  Sha1Hasher h;
  h.Append("abc", 3);
  EXPECT_EQ(oru::HexForm(h.Finalize()), "a9993e364706816aba3e25717850c26c9cd0d89d");
  h.Append(nullptr, 0);
  EXPECT_EQ(oru::HexForm(h.Finalize()), "da39a3ee5e6b4b0d3255bfef95601890afd80709");
  // A copy taken mid-block carries the buffered bytes and the length.
  const std::string prefix = oru::test::RandomBytes(100, 1);
  Sha1Hasher a;
  a.Append(prefix.data(), prefix.size());
  Sha1Hasher b = a;
  a.Append("x", 1);
  b.Append("yy", 2);
  EXPECT_EQ(oru::HexForm(a.Finalize()), oru::Sha1FromString(prefix + "x"));
  EXPECT_EQ(oru::HexForm(b.Finalize()), oru::Sha1FromString(prefix + "yy"));
}

TEST(Sha1DigestTest, TextFormsRoundTripAndRejectWhatTheyCannotRead) {
  const std::string hex = "a9993e364706816aba3e25717850c26c9cd0d89d";
  const Sha1Digest abc{{0xa9993e36, 0x4706816a, 0xba3e2571, 0x7850c26c, 0x9cd0d89d}};
  const Sha1Digest zero{};
  std::string upper = hex;
  for (char& ch : upper) ch = static_cast<char>(std::toupper(static_cast<unsigned char>(ch)));
  for (const std::string& text : {hex, upper, hex + " and more"})
    EXPECT_EQ(oru::FromHexForm(text), abc) << text;
  EXPECT_EQ(oru::FromHexForm(hex.substr(0, 39)), zero);
  EXPECT_EQ(oru::FromHexForm(oru::BasicStringSpan<char const>(nullptr)), zero);
  for (std::size_t i = 0; i < 40; ++i) {
    for (char bad : {'g', 'G', ' ', '/', ':', '@', '`', '\0'}) {
      std::string text = hex;
      text[i] = bad;
      ASSERT_EQ(oru::FromHexForm(text), zero) << "'" << bad << "' at " << i;
    }
  }
  // Words least significant byte first; texts from Python's base64 of
  // struct.pack('<5I', *words). Read as Base64::Decode reads: padding may be
  // missing or followed by anything; 18, 19 or 21 bytes, or 8 cut short by a
  // character outside the alphabet, are no digest.
  EXPECT_EQ(oru::Base64Form(abc), "Nj6ZqWqBBkdxJT66bMJQeJ3Y0Jw=");
  EXPECT_EQ(oru::Base64Form(oru::FromHexForm(oru::Sha1FromString(""))),
            "7qM52g1La17vv1UykBhglQkH2K8=");
  for (const char* text : {"Nj6ZqWqBBkdxJT66bMJQeJ3Y0Jw=", "Nj6ZqWqBBkdxJT66bMJQeJ3Y0Jw",
                           "Nj6ZqWqBBkdxJT66bMJQeJ3Y0Jw=AA"})
    EXPECT_EQ(oru::FromBase64Form(text), abc) << text;
  for (const char* text : {"", "Nj6ZqWqBBkdxJT66bMJQeJ3Y", "Nj6ZqWqBBkdxJT66bMJQeJ3Y0J==",
                           "Nj6ZqWqBBkdxJT66bMJQeJ3Y0JwA", "Nj6ZqWqBBkd!JT66bMJQeJ3Y0Jw="})
    EXPECT_EQ(oru::FromBase64Form(text), zero) << text;

  std::mt19937 rng(9);
  for (int i = 0; i < 1000; ++i) {
    Sha1Digest d;
    for (uint32_t& word : d.words) word = static_cast<uint32_t>(rng());
    ASSERT_EQ(oru::FromHexForm(oru::HexForm(d)), d);
    ASSERT_EQ(oru::FromBase64Form(oru::Base64Form(d)), d);
  }
}

// The engine picked by default is the fastest the CPU offers.
TEST(Sha1Test, DefaultEngineFollowsTheCpu) {
  std::ifstream cpuinfo("/proc/cpuinfo");
  if (!cpuinfo) GTEST_SKIP() << "no /proc/cpuinfo to compare with";
  bool sha = false;
  for (std::string word; cpuinfo >> word && word != "bogomips";) sha = sha || word == "sha_ni";
  EXPECT_EQ(Engines().size(), sha ? 2u : 1u);
  EXPECT_EQ(oru::detail::CurrentSha1Engine(),
            sha ? Sha1Engine::ShaExtensions : Sha1Engine::Portable);
}

}  // namespace
