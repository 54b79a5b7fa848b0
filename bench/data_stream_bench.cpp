// DataStream and LineReader against the code a user would write by hand.
//
// Every job reads 64 MiB held in memory:
// - BM_U32ArrayOtherOrder: uint32_t arrays stored in the byte order that is
//   not the host's, read 4096 elements at a time into one destination block.
//   Peer: a plain loop over the same memory, memcpy + __builtin_bswap32 into
//   the same block.
// - BM_DoubleScalars: doubles in host order, one Read(double&) each. Peer: a
//   memcpy per double from the same memory.
// - BM_TextLines: text lines of 20..120 characters (LF, about one in eight
//   CR LF), read one line at a time by DataStream::Read(std::string*) and by
//   LineReader::ReadLine(). Peer: std::getline on a std::istringstream of
//   the same text.
//
// Names are BM_<job>/ours_<variant> and BM_<job>/peer so that scripts/bench
// can pair them. Throughput is bytes of source data per second.
#include <benchmark/benchmark.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "oru/data_source.h"
#include "oru/data_stream.h"
#include "oru/line_reader.h"

namespace {

constexpr std::size_t DATA_BYTES = std::size_t{64} << 20;
constexpr std::size_t ARRAY_CHUNK = 4096;  // elements per array read
constexpr std::size_t U32_COUNT = DATA_BYTES / sizeof(uint32_t);
constexpr std::size_t DOUBLE_COUNT = DATA_BYTES / sizeof(double);

oru::Endianess OtherEndianess() {
  return oru::HostEndianess == oru::LittleEndian ? oru::BigEndian : oru::LittleEndian;
}

// 64 MiB of pseudo-random bytes in one InMemoryDataSource; the peers read the
// source's own block, so both sides touch exactly the same memory.
const std::shared_ptr<oru::InMemoryDataSource>& BinarySource() {
  static const std::shared_ptr<oru::InMemoryDataSource> source = [] {
    auto src = oru::InMemoryDataSource::Create(static_cast<uint64_t>(DATA_BYTES), false);
    std::mt19937_64 rng(42);
    auto* bytes = const_cast<std::byte*>(src->GetDataBuffer());
    for (std::size_t i = 0; i < DATA_BYTES; i += sizeof(uint64_t)) {
      const uint64_t v = rng();
      std::memcpy(bytes + i, &v, sizeof v);
    }
    return src;
  }();
  return source;
}

// ---- uint32_t arrays in the other byte order --------------------------------

// The one destination block both sides write to, so that its placement
// relative to the source (cache sets, 4 KiB store/load aliasing) is the same.
uint32_t* ArrayDestination() {
  alignas(64) static uint32_t block[ARRAY_CHUNK];
  return block;
}

void BM_U32ArrayOtherOrder_ours(benchmark::State& state) {
  const auto& src = BinarySource();
  oru::DataStream in(src);
  in.SetSrcEndianess(OtherEndianess());
  uint32_t* dst = ArrayDestination();

  // Outside the timed loop: the result equals the hand-written conversion.
  in.SetPosition(0);
  in.Read(dst, ARRAY_CHUNK);
  for (std::size_t i = 0; i < ARRAY_CHUNK; ++i) {
    uint32_t v;
    std::memcpy(&v, src->GetDataBuffer() + i * sizeof v, sizeof v);
    if (dst[i] != __builtin_bswap32(v)) {
      state.SkipWithError("DataStream array read gave a different result");
      return;
    }
  }

  for (auto _ : state) {
    in.SetPosition(0);
    for (std::size_t done = 0; done < U32_COUNT; done += ARRAY_CHUNK) {
      if (!in.Read(dst, ARRAY_CHUNK)) {
        state.SkipWithError("short read");
        return;
      }
      benchmark::DoNotOptimize(dst);
      benchmark::ClobberMemory();
    }
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                          static_cast<int64_t>(DATA_BYTES));
}

void BM_U32ArrayOtherOrder_peer(benchmark::State& state) {
  const std::byte* bytes = BinarySource()->GetDataBuffer();
  uint32_t* dst = ArrayDestination();
  for (auto _ : state) {
    for (std::size_t done = 0; done < U32_COUNT; done += ARRAY_CHUNK) {
      const std::byte* p = bytes + done * sizeof(uint32_t);
      for (std::size_t i = 0; i < ARRAY_CHUNK; ++i) {
        uint32_t v;
        std::memcpy(&v, p + i * sizeof v, sizeof v);
        dst[i] = __builtin_bswap32(v);
      }
      benchmark::DoNotOptimize(dst);
      benchmark::ClobberMemory();
    }
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                          static_cast<int64_t>(DATA_BYTES));
}

BENCHMARK(BM_U32ArrayOtherOrder_ours)->Name("BM_U32ArrayOtherOrder/ours_datastream");
BENCHMARK(BM_U32ArrayOtherOrder_peer)->Name("BM_U32ArrayOtherOrder/peer");

// ---- double scalars in host order -------------------------------------------

void BM_DoubleScalars_ours(benchmark::State& state) {
  oru::DataStream in(BinarySource());
  in.SetSrcEndianess(oru::HostEndianess);
  for (auto _ : state) {
    in.SetPosition(0);
    for (std::size_t i = 0; i < DOUBLE_COUNT; ++i) {
      double d;
      in.Read(d);
      benchmark::DoNotOptimize(d);
    }
  }
  if (in.GetPosition() != DATA_BYTES) state.SkipWithError("DataStream stopped early");
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                          static_cast<int64_t>(DATA_BYTES));
}

void BM_DoubleScalars_peer(benchmark::State& state) {
  const std::byte* bytes = BinarySource()->GetDataBuffer();
  for (auto _ : state) {
    for (std::size_t i = 0; i < DOUBLE_COUNT; ++i) {
      double d;
      std::memcpy(&d, bytes + i * sizeof d, sizeof d);
      benchmark::DoNotOptimize(d);
    }
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                          static_cast<int64_t>(DATA_BYTES));
}

BENCHMARK(BM_DoubleScalars_ours)->Name("BM_DoubleScalars/ours_datastream");
BENCHMARK(BM_DoubleScalars_peer)->Name("BM_DoubleScalars/peer");

// ---- text lines --------------------------------------------------------------

struct Text {
  std::string bytes;
  std::size_t lines = 0;
};

// About 64 MiB of English-like text: words and numbers, lines of 20..120
// characters, LF endings with roughly one line in eight ending in CR LF.
const Text& TextData() {
  static const Text text = [] {
    static const char* const WORDS[] = {
        "the",    "stream", "reads",  "a",     "line",   "of",        "text",  "from",
        "memory", "and",    "hands",  "it",    "to",     "parser",    "which", "splits",
        "values", "into",   "fields", "count", "vertex", "normal",    "index", "buffer",
        "file",   "header", "block",  "size",  "offset", "compressed"};
    constexpr std::size_t WORD_COUNT = sizeof WORDS / sizeof WORDS[0];
    std::mt19937 rng(7);
    std::uniform_int_distribution<int> length(20, 120);
    std::uniform_int_distribution<std::size_t> word(0, WORD_COUNT - 1);
    std::uniform_int_distribution<int> number(0, 99999);
    std::uniform_int_distribution<int> eighth(0, 7);
    Text t;
    t.bytes.reserve(DATA_BYTES + 256);
    std::string line;
    while (t.bytes.size() < DATA_BYTES) {
      const auto want = static_cast<std::size_t>(length(rng));
      line.clear();
      while (line.size() < want) {
        if (!line.empty()) line += ' ';
        if (eighth(rng) == 0) {
          line += std::to_string(number(rng));
        } else {
          line += WORDS[word(rng)];
        }
      }
      line.resize(want);
      if (line.back() == ' ') line.back() = '.';
      t.bytes += line;
      if (eighth(rng) == 0) t.bytes += '\r';
      t.bytes += '\n';
      ++t.lines;
    }
    return t;
  }();
  return text;
}

std::shared_ptr<oru::InMemoryDataSource> TextSource() {
  const std::string& bytes = TextData().bytes;
  return oru::InMemoryDataSource::Create(bytes.data(), bytes.size(), false);
}

void FinishLines(benchmark::State& state, std::size_t lines) {
  if (lines != TextData().lines) state.SkipWithError("wrong number of lines");
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                          static_cast<int64_t>(TextData().bytes.size()));
  state.counters["lines"] = static_cast<double>(lines);
}

void BM_TextLines_ours_datastream(benchmark::State& state) {
  oru::DataStream in(TextSource());
  std::string line;
  std::size_t lines = 0;
  for (auto _ : state) {
    in.SetPosition(0);
    lines = 0;
    while (in.Read(&line)) {
      benchmark::DoNotOptimize(line.data());
      ++lines;
    }
  }
  FinishLines(state, lines);
}

void BM_TextLines_ours_linereader(benchmark::State& state) {
  oru::DataStream in(TextSource());
  std::size_t lines = 0;
  for (auto _ : state) {
    in.SetPosition(0);
    lines = 0;
    oru::LineReader reader(&in, 0);
    while (reader.ReadLine()) {
      benchmark::DoNotOptimize(reader.GetBuffer());
      ++lines;
    }
  }
  FinishLines(state, lines);
}

void BM_TextLines_peer(benchmark::State& state) {
  // The stream is built once, like the DataStream above; each pass rewinds it.
  std::istringstream in(TextData().bytes);
  std::string line;
  std::size_t lines = 0;
  for (auto _ : state) {
    in.clear();
    in.seekg(0);
    lines = 0;
    while (std::getline(in, line)) {
      benchmark::DoNotOptimize(line.data());
      ++lines;
    }
  }
  FinishLines(state, lines);
}

BENCHMARK(BM_TextLines_ours_datastream)->Name("BM_TextLines/ours_datastream");
BENCHMARK(BM_TextLines_ours_linereader)->Name("BM_TextLines/ours_linereader");
BENCHMARK(BM_TextLines_peer)->Name("BM_TextLines/peer");

}  // namespace
