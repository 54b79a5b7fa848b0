// Compressed data sources: a DataSource whose bytes are the inflated form of
// a gzip (RFC 1952) or zlib (RFC 1950) stream that starts at the current
// position of another source.
//
// DataStream::StartCompressedSection() makes one through
// DataSource::CompressedDataSourceFromThis(); they can also be made directly:
//
//   auto file = oru::FileDataSource::Create("scene.gz");
//   auto gz = oru::CompressedFileDataSource::Create(file, 0);  // 0: to the end
//   std::byte buf[65536];
//   while (uint64_t n = gz->GetBytes(buf, sizeof buf)) consume(buf, n);
//
// The format is detected from the first two bytes: 1F 8B is gzip (the header
// is parsed by hand; the trailer's checksum and length are not checked),
// anything else is taken as a zlib stream. Raw deflate is not recognised.
// `n` is the compressed length in bytes, or 0 when the stream runs to the
// end of the source; bytes after `n` are never fed to inflate.
//
// By default every inflated byte is kept in memory (in chunks that start at
// three times the compressed length, or 64 KiB, and double), so seeking
// backwards never restarts the stream. Seek works only inside what has been
// inflated so far; to skip forward, read and discard. GetFileSize() is 0 (the
// inflated length is unknown) and GetBufferSize() UINT64_MAX.
//
// Reading a large stream once (a log, a mesh) need not hold all of it:
// SetMemoryLimit(bytes) keeps only about `bytes` of the most recently
// inflated data. Seeks back inside that stay free; a seek further back
// inflates the stream again from its start up to the target, with the same
// bytes as before (time proportional to the target's offset).
//
//   auto gz = oru::CompressedFileDataSource::Create(file, 0);
//   gz->SetMemoryLimit(16 << 20);   // a 2 GiB stream read in 16 MiB of memory
//
// Errors: a bad header throws UnrecognizedCompressedFormat from Create;
// corrupt deflate data throws it from GetBytes/GetByte. A truncated stream is
// not an error: the source simply ends with what could be inflated. Running
// out of memory throws std::bad_alloc.
//
// Ownership: the compressed source keeps the underlying source alive and owns
// its position until it is released (the file kind reads ahead in 64 KiB
// blocks, so afterwards the caller repositions the file). The memory kind
// inflates straight from the underlying block and leaves its position where
// the compressed data starts.
//
// Threading: one thread at a time, like every source.
#pragma once

#include <exception>
#include <memory>

#include "oru/data_source.h"

namespace oru {

class FileDataSource;

struct ORU_API UnrecognizedCompressedFormat : public std::exception {
  const char* what() const noexcept override;
};

class ORU_API CompressedDataSource : public DataSource {
public:
  /// A proportional estimate of where in the compressed bytes the reader
  /// stands (used for progress reports).
  virtual uint64_t GetCompressedOffset() const = 0;
  /// Compressed sources cannot be nested: always an empty pointer.
  std::shared_ptr<CompressedDataSource> CompressedDataSourceFromThis(uint64_t n) override;

protected:
  CompressedDataSource() = default;
};

class ORU_API CompressedFileDataSource : public CompressedDataSource {
public:
  /// Reads and checks the stream header at once (may throw).
  static std::shared_ptr<CompressedFileDataSource> Create(std::shared_ptr<FileDataSource> source,
                                                          uint64_t n);
  ~CompressedFileDataSource() override;

  uint64_t GetBufferSize() const override;
  uint64_t GetBytes(std::byte* dst, uint64_t count) override;
  int GetByte() override;
  uint64_t GetOffset() const override;
  int Seek(int64_t offset, SeekOrigin origin) override;
  bool IsEndOfBuffer() const override;
  uint64_t GetFileSize() const override;
  std::string GetTimeStamp() const override;
  bool IsTempFile() const override;
  void SetIsTempFile(bool isTempFile) override;
  uint64_t GetCompressedOffset() const override;
  /// Keeps at most about `bytes` of inflated data (0, the default: all of
  /// it); see the top of this header. May be called at any time.
  void SetMemoryLimit(uint64_t bytes);

  class Impl;

protected:
  CompressedFileDataSource(std::shared_ptr<FileDataSource> source, uint64_t n);

private:
  std::unique_ptr<Impl> impl;
};

class ORU_API CompressedInMemoryDataSource : public CompressedDataSource {
public:
  /// Reads and checks the stream header at once (may throw).
  static std::shared_ptr<CompressedInMemoryDataSource> Create(
      std::shared_ptr<InMemoryDataSource> source, uint64_t n);
  ~CompressedInMemoryDataSource() override;

  uint64_t GetBufferSize() const override;
  uint64_t GetBytes(std::byte* dst, uint64_t count) override;
  int GetByte() override;
  uint64_t GetOffset() const override;
  int Seek(int64_t offset, SeekOrigin origin) override;
  bool IsEndOfBuffer() const override;
  uint64_t GetFileSize() const override;
  std::string GetTimeStamp() const override;
  bool IsTempFile() const override;
  void SetIsTempFile(bool isTempFile) override;
  uint64_t GetCompressedOffset() const override;
  /// Keeps at most about `bytes` of inflated data (0, the default: all of
  /// it); see the top of this header. May be called at any time.
  void SetMemoryLimit(uint64_t bytes);

  class Impl;

protected:
  CompressedInMemoryDataSource(std::shared_ptr<InMemoryDataSource> source, uint64_t n);

private:
  std::unique_ptr<Impl> impl;
};

}  // namespace oru
