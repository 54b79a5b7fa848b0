#include "oru/data_source.h"

#include "data/data_source_buffers.h"

namespace oru {

DataSource::Buffer::~Buffer() = default;

DataSource::~DataSource() = default;

std::shared_ptr<DataSource> DataSource::Clone() const {
  return {};
}

std::shared_ptr<DataSource::Buffer> DataSource::ExtractBuffer() {
  const uint64_t length = GetFileSize();
  auto buffer = std::make_shared<BasicDataSourceBuffer>(length);
  if (length > 0) {
    // Results unchecked: a short read leaves the rest zero (callers size
    // their reads by GetFileSize and expect a buffer that long).
    const uint64_t remembered = GetOffset();
    Seek(0, DS_SEEK_SET);
    GetBytes(buffer->MutableData(), length);
    Seek(static_cast<int64_t>(remembered), DS_SEEK_SET);
  }
  return buffer;
}

void DataSource::RelinquishSystemResources() {}

bool DataSource::IsHoldingSystemResources() const {
  return false;
}

}  // namespace oru
