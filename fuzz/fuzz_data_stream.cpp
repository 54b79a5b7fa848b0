// DataStream line and array reads over arbitrary bytes, both on the direct
// in-memory path and on the generic path (a source that hands out a few bytes
// per call), in both byte orders, with skips and seeks mixed in. The two
// paths must agree on everything they report.
#include <oru/data_source.h>
#include <oru/data_stream.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

// A memory source that delivers at most `step` bytes per GetBytes call.
class TrickleSource : public oru::InMemoryDataSource {
public:
  TrickleSource(const uint8_t* p, size_t n, uint64_t step)
      : InMemoryDataSource(p, n, false), m_step(step) {}
  uint64_t GetBytes(std::byte* dst, uint64_t count) override {
    return InMemoryDataSource::GetBytes(dst, count < m_step ? count : m_step);
  }

private:
  uint64_t m_step;
};

struct Trace {
  std::vector<std::string> events;
  void Add(const std::string& s) { events.push_back(s); }
};

void Exercise(oru::DataStream& in, const uint8_t* ops, size_t nops, Trace& trace) {
  std::vector<uint64_t> u64(64);
  std::vector<uint32_t> u32(64);
  std::vector<uint16_t> u16(64);
  std::string line;
  for (size_t i = 0; i < nops; ++i) {
    const uint8_t op = ops[i];
    const uint64_t count = op >> 3;
    bool ok = false;
    switch (op & 7) {
      case 0:
        ok = in.Read(&line);
        trace.Add(ok ? "L" + line : "L-");
        continue;
      case 1:
        ok = in.Read(u16.data(), count);
        break;
      case 2:
        ok = in.Read(u32.data(), count);
        break;
      case 3:
        ok = in.Read(u64.data(), count);
        break;
      case 4: {
        double d = 0;
        ok = in.Read(d);
        break;
      }
      case 5:
        ok = in.SkipBytes(count);
        break;
      case 6:
        ok = in.SetPosition(count * 3);
        break;
      case 7:
        in.SetSrcEndianess(in.IsBigEndian() ? oru::LittleEndian : oru::BigEndian);
        break;
    }
    trace.Add(std::to_string(op) + (ok ? "+" : "-") + std::to_string(in.GetPosition()) + "/" +
              std::to_string(in.GetBytesRead()) + "/" + std::to_string(in.GetProgress()));
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2) return 0;
  const size_t nops = data[0] % 32;
  const uint64_t step = 1 + data[1] % 7;
  if (size < 2 + nops) return 0;
  const uint8_t* ops = data + 2;
  const uint8_t* body = data + 2 + nops;
  const size_t bodySize = size - 2 - nops;

  oru::DataStream fast(oru::InMemoryDataSource::Create(body, bodySize, false));
  oru::DataStream slow(std::make_shared<TrickleSource>(body, bodySize, UINT64_MAX));
  oru::DataStream trickle(std::make_shared<TrickleSource>(body, bodySize, step));
  Trace a, b, c;
  Exercise(fast, ops, nops, a);
  Exercise(slow, ops, nops, b);
  Exercise(trickle, ops, nops, c);
  if (a.events != b.events) std::abort();  // the two read paths disagree
  // Drain the rest as lines.
  std::string line;
  while (fast.Read(&line)) {
  }
  return 0;
}
