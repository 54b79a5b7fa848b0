#include "oru/compressed_data_source.h"

#include "data/unzipper.h"
#include "oru/file_data_source.h"
#include "oru/make_shared_enabler.h"

namespace oru {

namespace {
constexpr uint64_t FILE_INPUT_BLOCK = 65536;
}

std::shared_ptr<CompressedDataSource> CompressedDataSource::CompressedDataSourceFromThis(uint64_t) {
  return {};
}

// ---- file kind: pulls its input in 64 KiB blocks ---------------------------

class ORU_LOCAL CompressedFileDataSource::Impl final : public detail::Unzipper {
public:
  Impl(std::shared_ptr<FileDataSource> src, uint64_t n)
      : Unzipper(n, Available(*src)), input(FILE_INPUT_BLOCK), source(std::move(src)) {
    Start(*source);
    Refill();
  }

  void Refill() override {
    const uint64_t got = source->GetBytes(input.data(), FILE_INPUT_BLOCK);
    Feed(input.data(), got);
  }

  void RestartInput() override {
    if (source->Seek(static_cast<int64_t>(startOffset), DS_SEEK_SET) != 0) return;
    Refill();
  }

  std::vector<std::byte> input;
  std::shared_ptr<FileDataSource> source;

private:
  static uint64_t Available(const FileDataSource& src) {
    const uint64_t size = src.GetFileSize();
    const uint64_t pos = src.GetOffset();
    return size == UINT64_MAX || pos > size ? UINT64_MAX : size - pos;
  }
};

std::shared_ptr<CompressedFileDataSource> CompressedFileDataSource::Create(
    std::shared_ptr<FileDataSource> source, uint64_t n) {
  return std::make_shared<make_shared_enabler<CompressedFileDataSource>>(std::move(source), n);
}

CompressedFileDataSource::CompressedFileDataSource(std::shared_ptr<FileDataSource> source,
                                                   uint64_t n)
    : impl(std::make_unique<Impl>(std::move(source), n)) {}

CompressedFileDataSource::~CompressedFileDataSource() = default;

uint64_t CompressedFileDataSource::GetBufferSize() const {
  return UINT64_MAX;
}
uint64_t CompressedFileDataSource::GetBytes(std::byte* dst, uint64_t count) {
  return impl->GetBytes(dst, count);
}
int CompressedFileDataSource::GetByte() {
  return impl->GetByte();
}
uint64_t CompressedFileDataSource::GetOffset() const {
  return impl->GetOffset();
}
int CompressedFileDataSource::Seek(int64_t offset, SeekOrigin origin) {
  return impl->Seek(offset, origin);
}
bool CompressedFileDataSource::IsEndOfBuffer() const {
  return impl->IsEndOfBuffer();
}
uint64_t CompressedFileDataSource::GetFileSize() const {
  return 0;
}
std::string CompressedFileDataSource::GetTimeStamp() const {
  return impl->source->GetTimeStamp();
}
bool CompressedFileDataSource::IsTempFile() const {
  return impl->source->IsTempFile();
}
void CompressedFileDataSource::SetIsTempFile(bool temp) {
  impl->source->SetIsTempFile(temp);
}
uint64_t CompressedFileDataSource::GetCompressedOffset() const {
  return impl->GetCompressedOffset();
}
void CompressedFileDataSource::SetMemoryLimit(uint64_t bytes) {
  impl->SetMemoryLimit(bytes);
}

// ---- memory kind: inflates the block in place ------------------------------

class ORU_LOCAL CompressedInMemoryDataSource::Impl final : public detail::Unzipper {
public:
  Impl(std::shared_ptr<InMemoryDataSource> src, uint64_t n)
      : Unzipper(n, src->GetFileSize() - src->GetOffset()), source(std::move(src)) {
    Start(*source);
    // The whole rest of the block is offered at once; only the bytes up to
    // the block's end, never past it.
    Feed(source->GetCurrentDataBuffer(), source->GetFileSize() - source->GetOffset());
  }

  // Everything was offered up front; there is nothing more to give.
  void Refill() override {}

  void RestartInput() override {
    Feed(source->GetDataBuffer() + startOffset, source->GetFileSize() - startOffset);
  }

  std::shared_ptr<InMemoryDataSource> source;
};

std::shared_ptr<CompressedInMemoryDataSource> CompressedInMemoryDataSource::Create(
    std::shared_ptr<InMemoryDataSource> source, uint64_t n) {
  return std::make_shared<make_shared_enabler<CompressedInMemoryDataSource>>(std::move(source), n);
}

CompressedInMemoryDataSource::CompressedInMemoryDataSource(
    std::shared_ptr<InMemoryDataSource> source, uint64_t n)
    : impl(std::make_unique<Impl>(std::move(source), n)) {}

CompressedInMemoryDataSource::~CompressedInMemoryDataSource() = default;

uint64_t CompressedInMemoryDataSource::GetBufferSize() const {
  return UINT64_MAX;
}
uint64_t CompressedInMemoryDataSource::GetBytes(std::byte* dst, uint64_t count) {
  return impl->GetBytes(dst, count);
}
int CompressedInMemoryDataSource::GetByte() {
  return impl->GetByte();
}
uint64_t CompressedInMemoryDataSource::GetOffset() const {
  return impl->GetOffset();
}
int CompressedInMemoryDataSource::Seek(int64_t offset, SeekOrigin origin) {
  return impl->Seek(offset, origin);
}
bool CompressedInMemoryDataSource::IsEndOfBuffer() const {
  return impl->IsEndOfBuffer();
}
uint64_t CompressedInMemoryDataSource::GetFileSize() const {
  return 0;
}
std::string CompressedInMemoryDataSource::GetTimeStamp() const {
  return impl->source->GetTimeStamp();
}
bool CompressedInMemoryDataSource::IsTempFile() const {
  return impl->source->IsTempFile();
}
void CompressedInMemoryDataSource::SetIsTempFile(bool temp) {
  impl->source->SetIsTempFile(temp);
}
uint64_t CompressedInMemoryDataSource::GetCompressedOffset() const {
  return impl->GetCompressedOffset();
}
void CompressedInMemoryDataSource::SetMemoryLimit(uint64_t bytes) {
  impl->SetMemoryLimit(bytes);
}

}  // namespace oru
