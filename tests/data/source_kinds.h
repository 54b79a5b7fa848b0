// The kinds of source that the DataStream and LineReader suites run their
// cases over. DataStream reads an InMemoryDataSource straight from its memory
// and every other source through the virtual operations, so each behavioural
// case has to hold on both roads: memory, a file, the inflated view of zlib
// data, and a user's own source that hands out only a few bytes per call.
// The suites include this header for gtest, the source kinds and the test
// helpers.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "oru/compressed_data_source.h"
#include "oru/data_source.h"
#include "oru/data_stream.h"
#include "oru/file_data_source.h"
#include "support/test_util.h"

namespace oru::test {

// A user's class derived from InMemoryDataSource that hands out at most
// `cap` bytes per GetBytes call even when more are there. The stream must
// honour the override rather than read the memory block behind its back.
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
  static constexpr uint64_t kCap = UINT64_MAX;
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
