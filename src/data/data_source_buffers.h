// Internal: the concrete DataSource::Buffer kinds.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "oru/data_source.h"

namespace oru {

template <class T>
class DataSourceRep;

// A zero-filled block allocated without throwing. When the allocation fails
// the pointer is null and the recorded length keeps the requested value;
// every user of this kind checks GetData() before touching the bytes.
template <>
class DataSourceRep<void*> final : public DataSource::Buffer {
public:
  explicit DataSourceRep(uint64_t length) noexcept
      : m_size(length),
        m_data(length <= SIZE_MAX ? std::calloc(static_cast<size_t>(length ? length : 1), 1)
                                  : nullptr) {}
  ~DataSourceRep() override { std::free(m_data); }
  uint64_t GetSize() const override { return m_size; }
  const std::byte* GetData() const override { return static_cast<const std::byte*>(m_data); }
  std::byte* MutableData() { return static_cast<std::byte*>(m_data); }

private:
  uint64_t m_size;
  void* m_data;
};

// A container moved in: std::string, std::vector<char> or
// std::vector<unsigned char>.
template <class Container>
class DataSourceRep final : public DataSource::Buffer {
public:
  explicit DataSourceRep(Container&& bytes) noexcept : m_bytes(std::move(bytes)) {}
  uint64_t GetSize() const override { return m_bytes.size(); }
  const std::byte* GetData() const override {
    return reinterpret_cast<const std::byte*>(m_bytes.data());
  }

private:
  Container m_bytes;
};

// The copy that DataSource::ExtractBuffer makes: a zero-filled byte vector.
class BasicDataSourceBuffer final : public DataSource::Buffer {
public:
  explicit BasicDataSourceBuffer(uint64_t length) : m_bytes(CheckedLength(length)) {}
  uint64_t GetSize() const override {
    return static_cast<uint64_t>(m_bytes.end() - m_bytes.begin());
  }
  const std::byte* GetData() const override { return m_bytes.data(); }
  std::byte* MutableData() { return m_bytes.data(); }

private:
  static size_t CheckedLength(uint64_t length) {
    if (length > static_cast<uint64_t>(INT64_MAX) || length > SIZE_MAX)
      throw std::length_error("DataSource buffer too long");
    return static_cast<size_t>(length);
  }
  std::vector<std::byte> m_bytes;
};

}  // namespace oru
