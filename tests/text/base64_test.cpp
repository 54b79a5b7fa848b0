#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "oru/sha1.h"
#include "support/test_util.h"

namespace {

using oru::Base64;

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
  oru::test::TempDir dir;
  const std::string data = oru::test::RandomBytes((1 << 20) + 2, 8);
  std::vector<std::size_t> lengths;
  for (std::size_t n = 0; n <= 300; ++n) lengths.push_back(n);
  for (std::size_t n : {std::size_t{65536}, std::size_t{1} << 20})
    for (std::size_t k = 0; k < 3; ++k) lengths.push_back(n + k);
  std::vector<std::string> python;
  if (oru::test::HaveTool("python3")) {
    std::string list;
    for (std::size_t n : lengths) list += std::to_string(n) + " ";
    oru::test::WriteFile(dir.File("data.bin"), data);
    oru::test::WriteFile(dir.File("lengths.txt"), list);
    ASSERT_EQ(oru::test::Run("python3 -c \"import base64,sys\n"
                             "d=open(sys.argv[1],'rb').read()\n"
                             "ns=[int(n) for n in open(sys.argv[2]).read().split()]\n"
                             "out=[base64.b64encode(d[:n]).decode()+'.' for n in ns]\n"
                             "open(sys.argv[3],'w').write(' '.join(out))\" '" +
                             dir.File("data.bin") + "' '" + dir.File("lengths.txt") + "' '" +
                             dir.File("texts.txt") + "'"),
              0);
    std::istringstream in(oru::test::ReadFile(dir.File("texts.txt")));
    python.assign(std::istream_iterator<std::string>(in), {});
    ASSERT_EQ(python.size(), lengths.size());
    for (std::string& text : python) text.pop_back();  // the '.' that keeps "" a word
  }
  for (std::size_t i = 0; i < lengths.size(); ++i) {
    const std::size_t n = lengths[i];
    const std::string text = Encode(data.substr(0, n));
    ASSERT_EQ(text.size(), (n + 2) / 3 * 4) << n;
    ASSERT_EQ(text.find_first_not_of(ALPHABET),
              n % 3 == 0 ? std::string::npos : text.size() - 3 + n % 3)
        << n;
    ASSERT_TRUE(Decode(text) == data.substr(0, n)) << n;
    if (python.empty()) continue;
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
  const std::string data = oru::test::RandomBytes(48, 2);
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
