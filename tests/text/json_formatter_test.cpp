// JsonFormatter: exact texts for layout, numbers and escapes, and a random
// document written on one line and pretty, read back by Python's json.
#include "oru/json_formatter.h"
#include "oru/symbol.h"

#include <gtest/gtest.h>

#include <bit>
#include <cfloat>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <random>

#include "support/test_util.h"

namespace oru::test {
namespace {

// The stream is set up to print numbers its own way: the formatter must
// neither use nor change those settings.
void Prepare(std::ostream& out) {
  out << std::hex << std::showpos << std::scientific << std::setprecision(2);
}

std::string Json(unsigned indentStep, const std::function<void(JsonFormatter&)>& calls) {
  std::ostringstream out;
  Prepare(out);
  const auto flags = out.flags();
  JsonFormatter json(out, indentStep);
  calls(json);
  EXPECT_EQ(out.flags(), flags);
  EXPECT_EQ(out.precision(), 2);
  return out.str();
}

// Plays a script of calls, one character each: brackets, ',' and ':' are
// themselves, a letter is that one-letter string, a digit that integer,
// 'N' null, 'T' true, 'C' and 'P' switch compact mode on and off.
std::string Json(unsigned indentStep, const std::string& script) {
  static const std::map<char, void (JsonFormatter::*)()> CALLS = {
      {'{', &JsonFormatter::StartObject},   {'}', &JsonFormatter::FinishObject},
      {'[', &JsonFormatter::StartArray},    {']', &JsonFormatter::FinishArray},
      {',', &JsonFormatter::ItemSeparator}, {':', &JsonFormatter::NameValueSeparator},
      {'N', &JsonFormatter::FormatNull}};
  return Json(indentStep, [&](JsonFormatter& j) {
    for (char c : script) {
      if (auto call = CALLS.find(c); call != CALLS.end())
        (j.*call->second)();
      else if (c == 'T')
        j.FormatBoolean(true);
      else if (c == 'C' || c == 'P')
        j.SetCompactPrettyPrint(c == 'C');
      else if (c >= '0' && c <= '9')
        j.FormatSigned(c - '0');
      else
        j.FormatString(std::string(1, c));
    }
  });
}

TEST(JsonFormatterTest, Layout) {
  const struct {
    unsigned indent;
    const char *script, *text;
  } cases[] = {
      {0, "{a:[1,2],b:{},c:[]}", R"({"a":[1,2],"b":{},"c":[]})"},
      // A bracket closed right after an empty compound stays on its line.
      {2, "{a:[1,2],b:{},c:[]}",
       "{\n  \"a\" : [\n    1,\n    2\n  ],\n  \"b\" : {},\n  \"c\" : []}"},
      {2, "[]", "[]"},
      // Closing more than was opened stays at column 0.
      {2, "}][T]", "\n}\n][\n  true\n]"},
      // Compact mode: items two spaces apart, and a line break due when it
      // starts is written first; nothing changes without indentation.
      {2, "{a:C[1,2]P,b:N}", "{\n  \"a\" : [ 1,  2 ],\n  \"b\" : null\n}"},
      {0, "{a:C[1,2]P,b:N}", R"({"a":[1,2],"b":null})"},
      {2, "[C1,2P]", "[\n  1,  2\n]"},
  };
  for (const auto& c : cases) EXPECT_EQ(Json(c.indent, c.script), c.text) << c.script;
  // Indentation deeper than one run of spaces.
  EXPECT_EQ(Json(150, "[[N"),
            "[\n" + std::string(150, ' ') + "[\n" + std::string(300, ' ') + "null");
  std::ostringstream out;
  JsonFormatter json(out, 2);
  EXPECT_FALSE(json.SetCompactPrettyPrint(true));
  EXPECT_TRUE(json.SetCompactPrettyPrint(false));
}

TEST(JsonFormatterTest, NumbersLiteralsAndPointers) {
  const double inf = std::numeric_limits<double>::infinity();
  EXPECT_EQ(Json(0,
                 [&](auto& j) {
                   for (double v : {0.0, -0.0, inf, -inf, std::nan(""), 2.0, -2.0, 0.1, 1e20, 1e-7,
                                    9.87654321e-8, -1.234567e-300, 0.5})
                     j.FormatFloating(v), j.ItemSeparator();
                   j.FormatFloating(0.1f), j.ItemSeparator(), j.FormatSigned(INT64_MIN);
                   j.FormatSigned(INT64_MAX), j.FormatSigned(-255), j.FormatUnsigned(0);
                   j.FormatUnsigned(UINT64_MAX), j.FormatBoolean(false), j.FormatNull();
                 }),
            "0.0,-0.0,null,null,null,2.0,-2.0,0.1,100000000000000000000.0,0.0000001,"
            "9.87654e-08,-1.23457e-300,0.5,0.10000000149011612,-9223372036854775808"
            "9223372036854775807-255018446744073709551615falsenull");
  EXPECT_EQ(Json(0, [](auto& j) { j.FormatFloating(DBL_MAX); }).size(), 309u + 2u);
  int x = 0;
  for (const void* p : {static_cast<const void*>(&x), static_cast<const void*>(nullptr)}) {
    std::ostringstream ref;
    Prepare(ref);
    ref << p;
    EXPECT_EQ(Json(0, [&](auto& j) { j.FormatPointer(p); }), "\"" + ref.str() + "\"");
  }
}

TEST(JsonFormatterTest, StringsPathsAndSymbols) {
  auto text = [](std::string s) { return Json(0, [&](auto& j) { j.FormatString(s); }); };
  EXPECT_EQ(text(std::string("\"\\\b\f\n\r\t\x01\x1f\0/\x7f \xC3\xA9", 15)),
            R"("\"\\\b\f\n\r\t\u0001\u001f\u0000/)"
            "\x7f \xC3\xA9\"");
  EXPECT_EQ(text(""), "\"\"");
  // Runs longer than the formatter's staging buffer, escapes at its edges.
  for (std::size_t n : {510u, 511u, 512u, 513u, 2000u}) {
    const std::string run(n, 'x');
    EXPECT_EQ(text(run + "\x02" + run), "\"" + run + "\\u0002" + run + "\"") << n;
  }
  // Paths as UTF-8 ("dir/grüß/€ 😀.txt"), symbols as their text.
  const std::string utf8 = "dir/gr\xC3\xBC\xC3\x9F/\xE2\x82\xAC \xF0\x9F\x98\x80.txt";
  const std::filesystem::path path(std::u8string(utf8.begin(), utf8.end()));
  EXPECT_EQ(Json(2,
                 [&](auto& j) {
                   j.StartArray(), GenerateJson(j, path), j.ItemSeparator();
                   GenerateJson(j, std::filesystem::path(u8"a\"b")), j.ItemSeparator();
                   GenerateJson(j, Symbol("a \"quoted\"\nname")), j.ItemSeparator();
                   GenerateJson(j, Symbol()), j.FinishArray();
                 }),
            "[\n  \"" + utf8 + "\",\n  \"a\\\"b\",\n  \"a \\\"quoted\\\"\\nname\",\n  \"\"\n]");
}

// ---- a random document read back by Python ---------------------------------

// Writes nested objects and arrays with random leaves through a formatter
// and, alongside, the same document as a Python expression: S('<hex UTF-8>')
// for a string, D('<hex bits>') for a finite double, ints, True/False/None.
class RandomDocument {
public:
  RandomDocument(JsonFormatter& json, bool toggleCompact)
      : m_json(json), m_toggleCompact(toggleCompact) {
    Compound(0, false, 60);
  }
  const std::string& Expected() const { return m_expected; }

private:
  unsigned Pick(unsigned n) { return static_cast<unsigned>(m_rng() % n); }

  // Control bytes, characters to escape, UTF-8 of one to four bytes; now and
  // then longer than the formatter's staging buffer; `tail` is appended.
  std::string Text(const std::string& tail = {}) {
    std::string s;
    for (unsigned n = Pick(10) == 0 ? 700 : Pick(24); n > 0; --n) {
      const char32_t c = Pick(4) == 0   ? Pick(0x20)
                         : Pick(3) == 0 ? "\"\\/"[Pick(3)]
                         : Pick(2) == 0 ? 0x20 + Pick(0x60)
                                        : 0x80 + Pick(0x10FF80);
      s += Utf8Of(c >= 0xD800 && c < 0xE000 ? c - 0x800 : c);
    }
    s += tail;
    std::string quoted = "S('";
    char hex[3];
    for (unsigned char b : s) std::snprintf(hex, sizeof hex, "%02x", b), quoted += hex;
    m_expected += quoted + "')";
    return s;
  }

  void Double() {
    static const double SPECIAL[] = {
        DBL_MAX, DBL_MIN, DBL_TRUE_MIN, 1e-7, std::nextafter(1e-7, 0.0),
        0.0,     12345.0, INFINITY,     NAN};
    double v = Pick(4) == 0
                   ? SPECIAL[Pick(9)]
                   : (1 + Pick(1u << 30) / double(1u << 30)) * std::pow(10.0, int(Pick(630)) - 322);
    if (Pick(2)) v = -v;
    if (Pick(8) == 0) v = static_cast<float>(v);
    m_json.FormatFloating(v);
    char text[32];
    std::snprintf(text, sizeof text, "D('%016" PRIx64 "')", std::bit_cast<uint64_t>(v));
    m_expected += std::isfinite(v) ? text : "None";
  }

  void Compound(int depth, bool object, unsigned count) {
    object ? m_json.StartObject() : m_json.StartArray();
    m_expected += object ? "{" : "[";
    for (unsigned i = 0; i < count; ++i) {
      if (i > 0) m_json.ItemSeparator(), m_expected += ", ";
      if (m_toggleCompact && Pick(8) == 0) m_json.SetCompactPrettyPrint(Pick(2) != 0);
      if (object) {
        m_json.FormatString(Text(std::to_string(i)));  // unique names
        m_json.NameValueSeparator(), m_expected += ": ";
      }
      Value(depth + 1);
    }
    object ? m_json.FinishObject() : m_json.FinishArray();
    m_expected += object ? "}" : "]";
  }

  void Value(int depth) {
    static const int64_t LIMITS[] = {INT64_MIN, INT64_MAX, -1, 0};
    const unsigned kind = Pick(depth < 4 ? 9 : 7);
    if (kind == 0) m_json.FormatString(Text());
    if (kind == 1) {
      const int64_t v = Pick(2) ? LIMITS[Pick(4)] : static_cast<int64_t>(m_rng());
      m_json.FormatSigned(v), m_expected += std::to_string(v);
    }
    if (kind == 2) {
      const uint64_t v = Pick(2) ? UINT64_MAX : m_rng();
      m_json.FormatUnsigned(v), m_expected += std::to_string(v);
    }
    if (kind == 3 || kind == 4) Double();
    if (kind == 5) {
      const bool b = Pick(2);
      m_json.FormatBoolean(b), m_expected += b ? "True" : "False";
    }
    if (kind == 6) m_json.FormatNull(), m_expected += "None";
    if (kind > 6) Compound(depth, Pick(2) != 0, Pick(6));
  }

  JsonFormatter& m_json;
  bool m_toggleCompact;
  std::mt19937_64 m_rng{7};
  std::string m_expected;
};

// Parses argv[1] strictly (UTF-8, no bare NaN or Infinity) and compares it
// with the expression in argv[2]; doubles by their bits, so that -0.0 counts.
// Below 1e-7 the writer keeps 5 decimals: Python's own "%.5e" says what
// those must read back as.
constexpr const char* READ_BACK = R"(import json, struct, sys
def D(bits):
    v = struct.unpack('>d', bytes.fromhex(bits))[0]
    return float('%.5e' % v) if 0 < abs(v) < 1e-7 else v
def S(hex): return bytes.fromhex(hex).decode('utf-8')
def canon(v):
    if isinstance(v, float): return ('float', struct.pack('>d', v).hex())
    if isinstance(v, list): return [canon(x) for x in v]
    if isinstance(v, dict): return [(k, canon(x)) for k, x in v.items()]
    return (type(v).__name__, v)
def bare(name): raise ValueError(name)
got = json.loads(open(sys.argv[1], 'rb').read().decode('utf-8'), parse_constant=bare)
want = eval(open(sys.argv[2]).read())
sys.exit(0 if canon(got) == canon(want) else 'the document reads back differently')
)";

TEST(JsonFormatterTest, RandomDocumentReadsBackInPython) {
  if (!HaveTool("python3")) GTEST_SKIP() << "needs python3";
  TempDir dir;
  for (unsigned indentStep : {0u, 3u}) {
    std::ostringstream out;
    Prepare(out);
    JsonFormatter json(out, indentStep);
    RandomDocument doc(json, indentStep != 0);
    EXPECT_EQ(out.str().find('\n') == std::string::npos, indentStep == 0);
    WriteFile(dir.File("doc.json"), out.str());
    WriteFile(dir.File("expected.py"), doc.Expected());
    EXPECT_EQ(RunPython(READ_BACK, {dir.File("doc.json"), dir.File("expected.py")}), 0)
        << "indent step " << indentStep;
  }
}

}  // namespace
}  // namespace oru::test
