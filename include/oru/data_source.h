// DataSource: the library's one abstraction of a readable, seekable run of
// bytes, and InMemoryDataSource, the source over a block of memory.
//
// Files, memory blocks, inflated gzip/zlib streams, partly loaded (sparse)
// content and ZIP members are all handed around as
// std::shared_ptr<DataSource>. DataStream (data_stream.h) reads typed values
// from any of them.
//
//   auto src = oru::InMemoryDataSource::Create(std::string("hello"), false);
//   std::byte buf[3];
//   src->GetBytes(buf, 3);                        // "hel"
//   src->Seek(-1, oru::DataSource::DS_SEEK_END);  // position 4
//   int c = src->GetByte();                       // 'o'
//
// Ownership: every concrete source is made by a static Create that returns a
// std::shared_ptr (constructors are protected), so shared_from_this() works.
// An InMemoryDataSource shares its bytes (DataSource::Buffer) with its clones
// and with whoever called ExtractBuffer(); the bytes live as long as the last
// of them.
//
// Threading: a source is used by one thread at a time; its position is plain
// state. A source and its clone may be read from different threads at once:
// the bytes they share are never written after construction.
//
// Failures are reported by result: -1 from Seek and GetByte, a short count
// from GetBytes, all ones (UINT64_MAX) for a size that cannot be known.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "oru/export.h"

namespace oru {

class CompressedDataSource;
class DataStream;

// Seek origins; the values equal the C runtime's SEEK_SET, SEEK_CUR, SEEK_END.
enum SeekOrigin : int32_t {
  DS_SEEK_SET = 0,  // from the start
  DS_SEEK_CUR = 1,  // from the current offset
  DS_SEEK_END = 2,  // from the end
};

// The abstract byte source. The order of the virtual operations below is
// fixed (CompressedDataSource extends the table by one slot); keep it.
class ORU_API DataSource : public std::enable_shared_from_this<DataSource> {
public:
  static constexpr SeekOrigin DS_SEEK_SET = oru::DS_SEEK_SET;
  static constexpr SeekOrigin DS_SEEK_CUR = oru::DS_SEEK_CUR;
  static constexpr SeekOrigin DS_SEEK_END = oru::DS_SEEK_END;

  // An owned block of bytes, immutable once filled, shared by shared_ptr.
  class ORU_API Buffer {
  public:
    virtual ~Buffer();
    /// Length in bytes.
    virtual uint64_t GetSize() const = 0;
    /// First byte; may be null for a zero-filled block whose allocation
    /// failed (see InMemoryDataSource::Create).
    virtual const std::byte* GetData() const = 0;
  };

  /// A new, independent source over the same content with its own position,
  /// or an empty pointer when the source cannot be cloned (the default).
  virtual std::shared_ptr<DataSource> Clone() const;
  virtual ~DataSource();
  /// How much of the source is available without further work: the size
  /// for memory and sparse sources, UINT64_MAX for files and compressed data.
  virtual uint64_t GetBufferSize() const = 0;
  /// Copies up to `count` bytes to `dst`, advances, returns the count copied
  /// (short at the end; 0 once there is nothing left).
  virtual uint64_t GetBytes(std::byte* dst, uint64_t count) = 0;
  /// The next byte as 0..255, or -1 at the end.
  virtual int GetByte() = 0;
  /// The current read offset.
  virtual uint64_t GetOffset() const = 0;
  /// Moves the read offset; 0 on success, -1 (position unchanged) on refusal.
  virtual int Seek(int64_t offset, SeekOrigin origin) = 0;
  virtual bool IsEndOfBuffer() const = 0;
  /// Total length in bytes (see each kind for what it knows).
  virtual uint64_t GetFileSize() const = 0;
  /// A text identifying the version of the content; empty means unknown.
  virtual std::string GetTimeStamp() const = 0;
  /// A flag saying the content is a temporary copy. Sources only store it and
  /// pass it to their clones; the data cache decides what it means.
  virtual bool IsTempFile() const = 0;
  virtual void SetIsTempFile(bool isTempFile) = 0;
  /// A source that inflates the gzip or zlib stream starting at the current
  /// position (`n`: its compressed length, 0 = to the end), or an empty
  /// pointer for kinds that have no compressed view. Throws
  /// UnrecognizedCompressedFormat on a bad stream header.
  virtual std::shared_ptr<CompressedDataSource> CompressedDataSourceFromThis(uint64_t n) = 0;
  /// The whole content as a buffer. The default copies it into a new buffer
  /// and leaves the position as it was; a short read leaves zeros.
  virtual std::shared_ptr<Buffer> ExtractBuffer();
  /// Closes any operating-system handle; the next operation reopens it.
  virtual void RelinquishSystemResources();
  virtual bool IsHoldingSystemResources() const;

protected:
  DataSource() = default;
  DataSource(const DataSource&) = delete;
  DataSource& operator=(const DataSource&) = delete;
};

// A source over a block of memory.
//
// Every Create returns a source at offset 0 with an empty time stamp; the
// last argument is the temporary-copy flag. The `(const void*, length)` and
// `(length)` forms allocate a zero-filled block without throwing: if that
// allocation fails, the source is empty (GetDataBuffer() is null and the
// size is 0), so nothing ever writes or reads through a null block.
//
// DataStream reads an InMemoryDataSource without virtual calls (it is a
// friend and works on the block directly), so typed reads from memory run at
// close to memcpy speed.
class ORU_API InMemoryDataSource : public DataSource {
public:
  /// Takes the string's storage over; the caller's string is left empty.
  static std::shared_ptr<InMemoryDataSource> Create(std::string&& bytes, bool isTempFile);
  /// Take the vector's storage over.
  static std::shared_ptr<InMemoryDataSource> Create(std::vector<char>&& bytes, bool isTempFile);
  static std::shared_ptr<InMemoryDataSource> Create(std::vector<unsigned char>&& bytes,
                                                    bool isTempFile);
  /// Copies `length` bytes; the caller keeps its memory.
  static std::shared_ptr<InMemoryDataSource> Create(const void* bytes, uint64_t length,
                                                    bool isTempFile);
  /// A zero-filled block of `length` bytes for the owner to fill through
  /// GetDataBuffer() before anybody reads.
  static std::shared_ptr<InMemoryDataSource> Create(uint64_t length, bool isTempFile);

  /// The first byte of the block (null for an empty or failed block).
  const std::byte* GetDataBuffer() const { return data; }
  /// The byte at the current offset.
  const std::byte* GetCurrentDataBuffer() const { return data + offset; }
  void SetTimeStamp(const std::string& timeStamp);

  std::shared_ptr<DataSource> Clone() const override;
  ~InMemoryDataSource() override;
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
  std::shared_ptr<CompressedDataSource> CompressedDataSourceFromThis(uint64_t n) override;
  /// Hands out the source's own buffer (no copy); the source stays usable.
  std::shared_ptr<Buffer> ExtractBuffer() override;

protected:
  InMemoryDataSource(std::string&& bytes, bool isTempFile);
  InMemoryDataSource(std::vector<char>&& bytes, bool isTempFile);
  InMemoryDataSource(std::vector<unsigned char>&& bytes, bool isTempFile);
  InMemoryDataSource(const void* bytes, uint64_t length, bool isTempFile);
  InMemoryDataSource(uint64_t length, bool isTempFile);
  // Adopts an existing buffer at `offset`; used by Clone.
  InMemoryDataSource(std::shared_ptr<Buffer> buffer, uint64_t offset, const std::string& timeStamp,
                     bool isTempFile);

private:
  friend class DataStream;  // reads the block directly on its fast path
  explicit InMemoryDataSource(std::shared_ptr<Buffer> buffer, bool isTempFile);

  std::shared_ptr<Buffer> buffer;
  const std::byte* data;
  uint64_t offset;
  uint64_t size;
  std::string timeStamp;
  bool isTempFile;
};

}  // namespace oru
