// SparseDataSource: a DataSource of known total length of which only some
// byte ranges, its sections, are held in memory. For content that arrives
// piecemeal, such as ranges fetched on demand.
//
// Reading a byte that no section holds throws DataUnavailable; the owner
// catches it, loads the missing range with AddSection, and reads again.
// RangeIsValid asks beforehand whether a range is fully present.
//
//   auto src = oru::SparseDataSource::Create(1000);
//   auto i = src->AddSection(0, 100);
//   std::memcpy(src->GetSection(i).data, first100, 100);
//   src->RangeIsValid(0, 100);   // true
//
// Rules a caller must know, kept exactly as they are:
// - Every accepted Seek forgets the current section, so the next read throws
//   DataUnavailable until an AddSection covers the position, even when a
//   section there already exists. Position with DS_SEEK_SET and re-add.
// - DS_SEEK_CUR and DS_SEEK_END check the target they describe but store the
//   raw argument as the new position (a negative one becomes a huge position
//   past the end, where reads report the end).
// - A read that starts inside a section and runs into a gap returns short.
// - Sections are not merged; overlaps are neither detected nor refused. A
//   section whose offset equals an existing section's end goes after it.
// - ExtractBuffer copies the whole content from the sections and throws
//   DataUnavailable when any byte is missing; the position is unchanged.
//
// Threading: none. The owner that adds sections and the reader must be the
// same thread, or the owner must serialise them.
#pragma once

#include <exception>
#include <memory>

#include "oru/data_source.h"

namespace oru {

struct ORU_API DataUnavailable : public std::exception {
  const char* what() const noexcept override;
};

class ORU_API SparseDataSource : public DataSource {
public:
  struct Section {
    uint64_t offset;  // position of its first byte in the whole
    uint64_t size;
    std::byte* data;  // its bytes, writable by the owner
  };

  static std::shared_ptr<SparseDataSource> Create(uint64_t fileSize);
  ~SparseDataSource() override;

  /// Adds a zero-filled section of `size` bytes at `offset` and returns its
  /// index; the owner fills it through GetSection(index).data.
  uint64_t AddSection(uint64_t offset, uint64_t size);
  void RemoveSection(uint64_t index);
  /// No bounds check: `index` must be below GetSectionCount().
  Section GetSection(uint64_t index);
  uint64_t GetSectionCount() const;
  /// Whether every byte of [begin, end) is present; false for an empty range.
  bool RangeIsValid(uint64_t begin, uint64_t end);

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
  /// Always empty: a sparse source has no compressed view.
  std::shared_ptr<CompressedDataSource> CompressedDataSourceFromThis(uint64_t n) override;
  std::shared_ptr<Buffer> ExtractBuffer() override;

protected:
  explicit SparseDataSource(uint64_t fileSize);

private:
  struct State;
  std::unique_ptr<State> state;
};

}  // namespace oru
