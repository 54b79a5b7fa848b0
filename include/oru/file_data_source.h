// FileDataSource: the DataSource over a file on a local disk.
//
// The file is opened lazily, on first use, and read through the C runtime's
// buffered streams. RelinquishSystemResources() closes the handle so that a
// holder of many sources (the data cache) does not run out of handles; the
// next operation reopens the file at offset 0, so a holder that relinquishes
// a source in the middle of reading seeks again before it goes on.
//
//   auto src = oru::FileDataSource::Create("model.bin");  // null if unreadable
//   if (src) {
//     oru::DataStream in(src);
//     uint32_t magic;
//     in.Read(magic);
//   }
//
// Names are UTF-8; on Windows they are converted to UTF-16 for the wide
// runtime calls. Failures are reported by result (-1, 0, UINT64_MAX, an
// empty string, true for IsEndOfBuffer) and one line on the standard error
// stream; nothing is thrown.
//
// IsEndOfBuffer() is the stream's end-of-file indicator: it becomes true only
// after a read has tried to go past the end, so a reader sees one extra read
// that delivers nothing. A successful seek clears it.
//
// Threading: one thread at a time. A clone has its own stream and may be read
// from another thread.
#pragma once

#include <cstdio>

#include "oru/data_source.h"
#include "oru/string_span.h"

namespace oru {

class ORU_API FileDataSource : public DataSource {
public:
  /// A source for `fileName`, or an empty pointer when the name is empty
  /// (silently) or the file is not readable (with a line on stderr). The
  /// file is only tested for read access here, not opened.
  static std::shared_ptr<FileDataSource> Create(BasicStringSpan<const char> fileName);

  const std::string& GetFileName() const { return fileName; }

  /// A new source on the same file at the same position; empty if the file
  /// is no longer readable.
  std::shared_ptr<DataSource> Clone() const override;
  ~FileDataSource() override;
  /// UINT64_MAX: a file has no bound on what one read may deliver.
  uint64_t GetBufferSize() const override;
  uint64_t GetBytes(std::byte* dst, uint64_t count) override;
  int GetByte() override;
  /// UINT64_MAX when the file cannot be opened.
  uint64_t GetOffset() const override;
  /// Seeking past the end is allowed, as the C runtime allows it.
  int Seek(int64_t offset, SeekOrigin origin) override;
  bool IsEndOfBuffer() const override;
  /// The size from a stat of the file (0 if the stat fails, UINT64_MAX if
  /// the file cannot be opened).
  uint64_t GetFileSize() const override;
  /// The modification time in seconds since 1970-01-01 UTC, as a decimal.
  std::string GetTimeStamp() const override;
  bool IsTempFile() const override;
  void SetIsTempFile(bool isTempFile) override;
  std::shared_ptr<CompressedDataSource> CompressedDataSourceFromThis(uint64_t n) override;
  void RelinquishSystemResources() override;
  bool IsHoldingSystemResources() const override;

protected:
  explicit FileDataSource(BasicStringSpan<const char> fileName);

private:
  bool EnsureFd() const;

  mutable std::FILE* fd;
  std::string fileName;
  bool isTempFile;
};

}  // namespace oru
