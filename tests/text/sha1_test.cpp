// SHA-1 on every compression engine and every way of appending, against
// Python's hashlib; the digests' text forms; and Base64,
// against Python's base64 module.
#include "oru/sha1.h"

#include <gtest/gtest.h>

#include <fstream>
#include <numeric>
#include <random>

#include "support/test_util.h"
#include "text/sha1_engine.h"

namespace {

using oru::Base64;
using oru::Sha1Digest;
using oru::Sha1Hasher;
using oru::detail::Sha1Engine;
using namespace oru::test;

// Python's `expr` of the bytes d = data[:n] for each of `lengths`; nothing
// without Python (under wine).
std::vector<std::string> PythonOfPrefixes(const std::string& expr, const std::string& data,
                                          const std::vector<std::size_t>& lengths) {
  if (!HaveTool("python3")) return {};
  TempDir dir;
  std::vector<std::string> args = {dir.File("data.bin")}, words;
  WriteFile(args[0], data);
  for (std::size_t n : lengths) args.push_back(std::to_string(n));
  std::string out;
  EXPECT_EQ(RunPython("import base64, hashlib, sys\n"
                      "data = open(sys.argv[1], 'rb').read()\n"
                      "for n in sys.argv[2:]:\n"
                      "    d = data[:int(n)]\n"
                      "    print(" +
                          expr + " + '.')\n",  // the '.' keeps "" a word
                      args, &out),
            0);
  std::istringstream in(out);
  for (std::string word; in >> word;) words.push_back(word.substr(0, word.size() - 1));
  EXPECT_EQ(words.size(), lengths.size());
  return words;
}

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

// hashlib judges every prefix length from 0 to 1000 (all the padding cases,
// several blocks) and a message of a few MiB, hashed on every engine in one
// call, byte by byte and in random pieces. Without Python (under wine) the
// portable engine's one-call digests are the reference the rest must match;
// the next tests pin that engine to known digests.
TEST(Sha1Test, EveryEngineAndWayOfAppendingMatchesHashlib) {
  const std::string data = RandomBytes((3 << 20) + 37, 3);
  std::vector<std::size_t> lengths(1001);
  std::iota(lengths.begin(), lengths.end(), 0);
  lengths.push_back(data.size());
  std::vector<std::string> expected =
      PythonOfPrefixes("hashlib.sha1(d).hexdigest()", data, lengths);
  if (expected.empty()) {
    EngineScope scope(Sha1Engine::Portable);
    for (std::size_t n : lengths) expected.push_back(oru::Sha1FromString(data.substr(0, n)));
  }
  ASSERT_EQ(expected.size(), lengths.size());
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
  const std::string prefix = RandomBytes(100, 1);
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
  for (const std::string& text :
       {hex, std::string("A9993E364706816ABA3E25717850C26C9CD0D89D"), hex + " and more"})
    EXPECT_EQ(oru::FromHexForm(text), abc) << text;
  EXPECT_EQ(oru::FromHexForm(hex.substr(0, 39)), zero);
  EXPECT_EQ(oru::FromHexForm(oru::BasicStringSpan<char const>(nullptr)), zero);
  for (char bad : {'g', 'G', ' ', '/', ':', '@', '`', '\0'})
    for (std::size_t i = 0; i < 40; ++i)
      ASSERT_EQ(oru::FromHexForm(hex.substr(0, i) + bad + hex.substr(i + 1)), zero) << bad << i;
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

const std::string ALPHABET = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

std::string Decode(const std::string& text) {
  // An exact-size heap copy, so that a read past the end trips the sanitizers.
  std::vector<char> copy(text.begin(), text.end());
  const std::vector<char> bytes = Base64::Decode(copy.data(), copy.size());
  return std::string(bytes.begin(), bytes.end());
}

std::string Encode(const std::string& data) {
  std::vector<char> copy(data.begin(), data.end());
  return Base64::Encode(copy.data(), copy.size());
}

TEST(Base64Test, StandardVectors) {
  // Pairs of data and text.
  const char* vectors[] = {"",     "",     "f",        "Zg==",  "fo",       "Zm8=",   "foo",
                           "Zm9v", "foob", "Zm9vYg==", "fooba", "Zm9vYmE=", "foobar", "Zm9vYmFy"};
  for (std::size_t i = 0; i < std::size(vectors); i += 2) {
    EXPECT_EQ(Encode(vectors[i]), vectors[i + 1]);
    EXPECT_EQ(Decode(vectors[i + 1]), vectors[i]);
  }
  EXPECT_EQ(Base64::Encode(nullptr, 0), "");
  EXPECT_TRUE(Base64::Decode(nullptr, 0).empty());
}

// Random data of every length from 0 to 300 and a few long ones of each
// length modulo 3: the text has the right size and padding, equals Python's
// (where there is Python) and decodes back, Python's text too.
TEST(Base64Test, EncodesLikePythonAndDecodesBack) {
  const std::string data = RandomBytes((1 << 20) + 2, 8);
  std::vector<std::size_t> lengths(301);
  std::iota(lengths.begin(), lengths.end(), 0);
  for (std::size_t n : {std::size_t{65536}, std::size_t{1} << 20})
    lengths.insert(lengths.end(), {n, n + 1, n + 2});
  const std::vector<std::string> python =
      PythonOfPrefixes("base64.b64encode(d).decode()", data, lengths);
  for (std::size_t i = 0; i < lengths.size(); ++i) {
    const std::size_t n = lengths[i];
    const std::string text = Encode(data.substr(0, n));
    ASSERT_EQ(text.size(), (n + 2) / 3 * 4) << n;
    ASSERT_EQ(text.find_first_not_of(ALPHABET),
              n % 3 == 0 ? std::string::npos : text.size() - 3 + n % 3)
        << n;
    ASSERT_TRUE(Decode(text) == data.substr(0, n)) << n;
    if (python.size() != lengths.size()) continue;
    ASSERT_TRUE(text == python[i]) << n;
    ASSERT_TRUE(Decode(python[i]) == data.substr(0, n)) << n;
  }
}

TEST(Base64Test, DecodingEndsAtTheFirstCharacterOutsideTheAlphabet) {
  // Pairs of text and the bytes it decodes to. An unfinished group gives its
  // whole bytes; six bits make none. Padding ends the data, short or not;
  // nothing after it counts. So does any other character outside the
  // alphabet: line breaks, spaces, the URL-safe alphabet's '-'.
  const char* cases[] = {
      "TWE",          "Ma",  "TQ",        "M",   "T",        "",   "TWFuT", "Man",
      "TQ=",          "M",   "TQ==TWFu",  "M",   "TWE=TQ==", "Ma", "====",  "",
      "TWFu\r\nTWFu", "Man", "TWFu TWFu", "Man", "TW!u",     "M",  "T-Fu",  ""};
  for (std::size_t i = 0; i < std::size(cases); i += 2)
    EXPECT_EQ(Decode(cases[i]), cases[i + 1]) << cases[i];

  // Every character outside the alphabet, at every place of a text: the
  // result is the whole bytes of the characters before it.
  const std::string data = RandomBytes(48, 2);
  const std::string text = Encode(data);
  for (int bad = 0; bad < 256; ++bad) {
    if (ALPHABET.find(static_cast<char>(bad)) != std::string::npos) continue;
    for (std::size_t at = 0; at < text.size(); ++at) {
      std::string broken = text;
      broken[at] = static_cast<char>(bad);
      ASSERT_EQ(Decode(broken), data.substr(0, at * 6 / 8)) << bad << " at " << at;
    }
  }
}

}  // namespace
