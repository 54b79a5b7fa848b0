// Arbitrary bytes as a gzip or zlib stream, inflated to the end through the
// in-memory compressed source. The first byte picks a compressed-length
// limit and a read size, so limits and odd read patterns are covered too.
#include <oru/compressed_data_source.h>
#include <oru/data_source.h>

#include <cstddef>
#include <cstdint>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  const uint8_t control = data[0];
  auto source = oru::InMemoryDataSource::Create(data + 1, size - 1, false);
  const uint64_t limit = (control & 0x80) ? (control & 0x7F) * 7u : 0;
  const uint64_t readSize = 1u + (control & 0x0F) * 997u;
  try {
    auto inflated = oru::CompressedInMemoryDataSource::Create(source, limit);
    std::vector<std::byte> buffer(readSize);
    uint64_t total = 0;
    while (uint64_t n = inflated->GetBytes(buffer.data(), readSize)) {
      total += n;
      if (total > (64u << 20)) break;  // a bomb: enough has been shown
      if ((total & 3) == 0) {
        // Move around in what has been inflated and keep going.
        inflated->Seek(-static_cast<int64_t>(n / 2), oru::DS_SEEK_CUR);
        inflated->GetByte();
      }
      (void)inflated->GetCompressedOffset();
    }
    (void)inflated->IsEndOfBuffer();
  } catch (const oru::UnrecognizedCompressedFormat&) {
  }
  return 0;
}
