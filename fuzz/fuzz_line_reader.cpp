// LineReader over arbitrary bytes with an arbitrary limit: lines, binary
// reads and rewinds to the buffer start, in whatever encoding the bytes
// announce.
#include <oru/data_source.h>
#include <oru/data_stream.h>
#include <oru/line_reader.h>

#include <cstdint>
#include <cstring>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 5) return 0;
  int32_t limit;
  std::memcpy(&limit, data, 4);
  const uint8_t mode = data[4];
  oru::DataStream in(oru::InMemoryDataSource::Create(data + 5, size - 5, false));
  oru::LineReader reader(&in, limit);
  size_t total = 0;
  for (int round = 0; round < 10000; ++round) {
    if (mode & 1 && round % 3 == 2) {
      const unsigned long n = reader.ReadBinary(mode * 13ul);
      if (n != 0 && reader.GetBinBuffer()[n] != 0) __builtin_trap();
      total += n;
      if (n == 0) break;
      continue;
    }
    if (!reader.ReadLine()) break;
    const std::string s = reader.GetString();
    total += s.size();
    if (mode & 2 && round == 1) reader.SeekToBufferStart();
  }
  (void)total;
  return 0;
}
