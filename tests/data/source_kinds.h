// The kinds of source that the DataStream and LineReader suites run their
// cases over. DataStream reads an InMemoryDataSource straight from its memory
// and every other source through the virtual operations, so each behavioural
// case has to hold on both roads: memory, a file, the inflated view of zlib
// data, and sources of a user's own that hand out only a few bytes per call.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>

#include "oru/compressed_data_source.h"
#include "oru/data_source.h"
#include "oru/data_stream.h"
#include "oru/file_data_source.h"
#include "support/test_util.h"

namespace oru::test {

constexpr uint64_t kUnlimited = UINT64_MAX;

// A user's own source over a string that hands out at most `cap` bytes per
// GetBytes call even when more are there. Seeks follow the in-memory rules;
// it has no compressed view.
class TrickleSource : public DataSource {
public:
  TrickleSource(std::string bytes, uint64_t cap) : bytes_(std::move(bytes)), cap_(cap) {}

  uint64_t GetBufferSize() const override { return bytes_.size(); }
  uint64_t GetBytes(std::byte* dst, uint64_t count) override {
    const uint64_t n = std::min<uint64_t>({count, cap_, bytes_.size() - pos_});
    std::memcpy(dst, bytes_.data() + pos_, static_cast<size_t>(n));
    pos_ += n;
    return n;
  }
  int GetByte() override {
    return pos_ < bytes_.size() ? static_cast<unsigned char>(bytes_[pos_++]) : -1;
  }
  uint64_t GetOffset() const override { return pos_; }
  int Seek(int64_t offset, SeekOrigin origin) override {
    const auto size = static_cast<int64_t>(bytes_.size());
    if (origin < DS_SEEK_SET || origin > DS_SEEK_END) return -1;
    const int64_t base[] = {0, static_cast<int64_t>(pos_), size};
    const int64_t target = base[origin - DS_SEEK_SET] + offset;
    if (target < 0 || target > size) return -1;
    pos_ = static_cast<uint64_t>(target);
    return 0;
  }
  bool IsEndOfBuffer() const override { return pos_ == bytes_.size(); }
  uint64_t GetFileSize() const override { return bytes_.size(); }
  std::string GetTimeStamp() const override { return {}; }
  bool IsTempFile() const override { return false; }
  void SetIsTempFile(bool) override {}
  std::shared_ptr<CompressedDataSource> CompressedDataSourceFromThis(uint64_t) override {
    return {};
  }

private:
  std::string bytes_;
  uint64_t cap_;
  uint64_t pos_ = 0;
};

// A user's class derived from InMemoryDataSource that caps each GetBytes
// call. The stream must honour the override rather than read the memory
// block behind its back.
class CappedMemorySource : public InMemoryDataSource {
public:
  CappedMemorySource(std::string bytes, uint64_t cap)
      : InMemoryDataSource(std::move(bytes), false), cap_(cap) {}
  uint64_t GetBytes(std::byte* dst, uint64_t count) override {
    return InMemoryDataSource::GetBytes(dst, std::min(count, cap_));
  }

private:
  uint64_t cap_;
};

// What distinguishes the kinds, as far as the stream's results go.
struct KindTraits {
  // Most bytes one GetBytes call hands out.
  static constexpr uint64_t kCap = kUnlimited;
  // IsEndOfBuffer() turns true only after a read has failed (a file).
  static constexpr bool kEndSeenLate = false;
  // IsEndOfBuffer() is false before the first read, even with no data
  // (inflated data: the end is known once inflate has reached it).
  static constexpr bool kEndUnknownUntilRead = false;
  // SetPosition(size) is accepted / SetPosition(size + 1) is accepted.
  static constexpr bool kSeekToEnd = true;
  static constexpr bool kSeekPastEnd = false;
};

struct MemoryKind : KindTraits {
  static constexpr const char* kName = "Memory";
  static DataStream Make(const TempDir&, int, const std::string& bytes) {
    return DataStream(InMemoryDataSource::Create(std::string(bytes), false));
  }
};

struct FileKind : KindTraits {
  static constexpr const char* kName = "File";
  static constexpr bool kEndSeenLate = true;
  static constexpr bool kSeekPastEnd = true;
  static DataStream Make(const TempDir& dir, int serial, const std::string& bytes) {
    const std::string path = dir.File("data" + std::to_string(serial) + ".bin");
    WriteFile(path, bytes);
    auto source = FileDataSource::Create(path);
    EXPECT_NE(source, nullptr);
    return DataStream(std::move(source));
  }
};

// The bytes are zlib-compressed into memory and read inside a compressed
// section. Seeks work only inside what has been inflated so far.
struct CompressedKind : KindTraits {
  static constexpr const char* kName = "Compressed";
  static constexpr bool kEndUnknownUntilRead = true;
  static constexpr bool kSeekToEnd = false;
  static DataStream Make(const TempDir&, int, const std::string& bytes) {
    DataStream stream(InMemoryDataSource::Create(Deflate(bytes, 'z'), false));
    EXPECT_TRUE(stream.StartCompressedSection());
    return stream;
  }
};

template <uint64_t Cap>
struct TrickleKind : KindTraits {
  static constexpr const char* kName = "Trickle";
  static constexpr uint64_t kCap = Cap;
  static DataStream Make(const TempDir&, int, const std::string& bytes) {
    return DataStream(std::make_shared<TrickleSource>(bytes, Cap));
  }
};

template <uint64_t Cap>
struct CappedMemoryKind : KindTraits {
  static constexpr const char* kName = "CappedMemory";
  static constexpr uint64_t kCap = Cap;
  static DataStream Make(const TempDir&, int, const std::string& bytes) {
    return DataStream(std::make_shared<CappedMemorySource>(bytes, Cap));
  }
};

// Base fixture: makes a stream of the kind over the given bytes.
template <typename Kind>
class SourceKindTest : public ::testing::Test {
protected:
  DataStream Make(const std::string& bytes) { return Kind::Make(dir_, ++made_, bytes); }

private:
  TempDir dir_;
  int made_ = 0;
};

struct KindName {
  template <typename Kind>
  static std::string GetName(int) {
    return Kind::kName;
  }
};

}  // namespace oru::test
