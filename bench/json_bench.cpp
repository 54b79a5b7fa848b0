// JsonFormatter against RapidJSON's writer.
//
// - BM_JsonWrite: one array of a million small objects
//     {"id": <int>, "name": "<short text>", "value": <double>, "ok": <bool>}
//   pretty-printed with 4 spaces per level into a fresh std::ostringstream.
//   Peer: rapidjson::PrettyWriter (4 spaces, its default) over a
//   rapidjson::OStreamWrapper on the same kind of stream, which is what a
//   user of RapidJSON writing to a std::ostream would pick.
//
// The two outputs differ in small ways (" : " against ": ", number forms),
// so each side's throughput is the bytes of its own output per second.
// Names are BM_<job>/ours and BM_<job>/peer so that scripts/bench can pair
// them.
#include <benchmark/benchmark.h>
#include <rapidjson/ostreamwrapper.h>
#include <rapidjson/prettywriter.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "oru/json_formatter.h"

namespace {

constexpr std::size_t OBJECT_COUNT = 1000000;
constexpr unsigned INDENT = 4;

struct Item {
  int64_t id;
  std::string name;
  double value;
  bool ok;
};

// The same items for both sides: names of 3 to 14 letters and digits, one in
// 64 with a quotation mark or a tab to escape; values with up to two
// decimals, as prices or measurements would have.
const std::vector<Item>& Items() {
  static const std::vector<Item> items = [] {
    std::mt19937_64 rng(1234);
    std::vector<Item> v(OBJECT_COUNT);
    static const char LETTERS[] = "abcdefghijklmnopqrstuvwxyz0123456789";
    for (std::size_t i = 0; i < v.size(); ++i) {
      Item& item = v[i];
      item.id = static_cast<int64_t>(i * 7919 % OBJECT_COUNT);
      for (std::size_t n = 3 + rng() % 12; n > 0; --n) item.name += LETTERS[rng() % 36];
      if (rng() % 64 == 0) item.name.insert(item.name.size() / 2, rng() % 2 ? "\"" : "\t");
      item.value = std::round(static_cast<double>(rng() % 20000000) - 10000000.0) / 100.0;
      item.ok = rng() % 2 != 0;
    }
    return v;
  }();
  return items;
}

void WriteOurs(std::ostream& out) {
  oru::JsonFormatter json(out, INDENT);
  json.StartArray();
  bool first = true;
  for (const Item& item : Items()) {
    if (!first) json.ItemSeparator();
    first = false;
    json.StartObject();
    json.FormatString("id");
    json.NameValueSeparator();
    json.FormatSigned(item.id);
    json.ItemSeparator();
    json.FormatString("name");
    json.NameValueSeparator();
    json.FormatString(item.name);
    json.ItemSeparator();
    json.FormatString("value");
    json.NameValueSeparator();
    json.FormatFloating(item.value);
    json.ItemSeparator();
    json.FormatString("ok");
    json.NameValueSeparator();
    json.FormatBoolean(item.ok);
    json.FinishObject();
  }
  json.FinishArray();
}

void WritePeer(std::ostream& out) {
  rapidjson::OStreamWrapper stream(out);
  rapidjson::PrettyWriter<rapidjson::OStreamWrapper> json(stream);
  json.SetIndent(' ', INDENT);
  json.StartArray();
  for (const Item& item : Items()) {
    json.StartObject();
    json.Key("id");
    json.Int64(item.id);
    json.Key("name");
    json.String(item.name.data(), static_cast<rapidjson::SizeType>(item.name.size()));
    json.Key("value");
    json.Double(item.value);
    json.Key("ok");
    json.Bool(item.ok);
    json.EndObject();
  }
  json.EndArray();
}

// Outside the timed loop: both writers lay the document out on the same
// lines (array brackets, then six lines per object).
bool SameLayout() {
  std::ostringstream ours, peer;
  WriteOurs(ours);
  WritePeer(peer);
  const std::string a = ours.str(), b = peer.str();
  const auto lines = static_cast<std::ptrdiff_t>(2 + 6 * OBJECT_COUNT);
  return std::count(a.begin(), a.end(), '\n') + 1 == lines &&
         std::count(b.begin(), b.end(), '\n') + 1 == lines && a.front() == '[' && b.back() == ']';
}

template <void (*Write)(std::ostream&)>
void BM_JsonWrite(benchmark::State& state) {
  static const bool sameLayout = SameLayout();
  if (!sameLayout) {
    state.SkipWithError("the two writers laid the document out differently");
    return;
  }
  int64_t bytes = 0;
  for (auto _ : state) {
    std::ostringstream out;
    Write(out);
    bytes += static_cast<int64_t>(out.tellp());
    benchmark::DoNotOptimize(out);
  }
  state.SetBytesProcessed(bytes);
}

BENCHMARK(BM_JsonWrite<WriteOurs>)->Name("BM_JsonWrite/ours")->Unit(benchmark::kMillisecond);
BENCHMARK(BM_JsonWrite<WritePeer>)->Name("BM_JsonWrite/peer")->Unit(benchmark::kMillisecond);

}  // namespace
