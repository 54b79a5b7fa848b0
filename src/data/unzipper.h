// Internal: the inflate machinery shared by the two compressed source kinds.
//
// Unzipper parses the gzip header (or recognises a zlib stream), feeds
// inflate from whatever input its kind supplies through Refill(), and keeps
// every inflated byte in a list of chunks that start at `chunkSize` bytes and
// double. A read cursor hands bytes out; a write cursor marks how far inflate
// has got. Seeking moves only the read cursor, inside what is inflated.
// With a memory limit, chunks stop growing at a quarter of the limit and the
// oldest ones behind the reader are freed; a seek back to a freed chunk
// inflates again from the start of the stream.
#pragma once

#include <zlib.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "oru/data_source.h"

namespace oru::detail {

class Unzipper {
public:
  // `n`: the compressed length, 0 for "to the end of the source".
  // `available`: how many bytes the source can still deliver (UINT64_MAX if
  // unknown); it bounds the first chunk so a hostile `n` cannot make us
  // allocate more than the data could ever fill.
  Unzipper(uint64_t n, uint64_t available);
  virtual ~Unzipper();
  Unzipper(const Unzipper&) = delete;
  Unzipper& operator=(const Unzipper&) = delete;

  // Supplies the next piece of input when the stream's input is exhausted.
  virtual void Refill() = 0;
  // Offers the input again from where the stream's data starts (startOffset),
  // for a fresh pass of inflate.
  virtual void RestartInput() = 0;

  // Keeps at most about `bytes` of inflated data (0: everything). See
  // CompressedFileDataSource::SetMemoryLimit.
  void SetMemoryLimit(uint64_t bytes);

  // Reads the stream header from `source` at its position and initialises
  // inflate; throws UnrecognizedCompressedFormat. Sets startOffset.
  void Start(DataSource& source);

  uint64_t GetBytes(std::byte* dst, uint64_t count);
  int GetByte();
  int Seek(int64_t offset, SeekOrigin origin);
  uint64_t GetOffset() const { return chunks[readChunk].start + readOffset; }
  bool IsEndOfBuffer() const { return ended && GetOffset() == Inflated(); }
  uint64_t GetCompressedOffset() const;

protected:
  // Offers input to inflate, honouring the compressed-length limit.
  void Feed(const std::byte* data, uint64_t length);

  uint64_t startOffset = 0;

private:
  struct FreeDeleter {
    void operator()(std::byte* p) const noexcept;
  };
  struct Chunk {
    uint64_t size;
    std::unique_ptr<std::byte, FreeDeleter> data;
    uint64_t start;
  };

  void AddChunk();
  // Frees the oldest chunks, behind the read cursor, past the memory limit.
  void DropOldChunks();
  uint64_t Inflated() const { return chunks[writeChunk].start + writeOffset; }
  uint64_t CopyOut(std::byte* dst, uint64_t count);
  void TopUpInput();
  // Starts inflating anew from the beginning of the stream.
  void Restart();
  // Moves the read cursor to `target`, below what was ever inflated,
  // inflating again from the start when the chunk that held it was freed.
  int Reposition(uint64_t target);

  std::unique_ptr<z_stream, std::function<void(z_stream*)>> stream;
  std::vector<Chunk> chunks;
  uint64_t chunkSize;
  uint64_t readChunk = 0, readOffset = 0;
  uint64_t writeChunk = 0, writeOffset = 0;
  uint64_t inputLeft;
  bool inputLimited;
  const uint64_t compressedLength;
  bool ended = false;
  // Bounded mode: the limit (0: keep everything), the first chunk that still
  // holds its bytes, the bytes held, and the furthest point ever inflated.
  uint64_t memoryLimit = 0;
  uint64_t firstKept = 0;
  uint64_t keptBytes = 0;
  uint64_t highWater = 0;
  // Input offered but not yet handed to zlib, whose avail_in is 32 bits.
  const std::byte* pending = nullptr;
  uint64_t pendingLength = 0;
  // Compressed bytes handed to zlib in all (64-bit, unlike total_in on Windows).
  uint64_t fedTotal = 0;
};

}  // namespace oru::detail
