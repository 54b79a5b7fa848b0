// InMemoryDataSource: the five ways of making one, reading, the exact seek
// rules (unsigned arithmetic with wrap-around) beside those of a file,
// clones and ExtractBuffer.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "oru/data_source.h"
#include "oru/file_data_source.h"
#include "support/test_util.h"

namespace oru::test {
namespace {

std::string Contents(const InMemoryDataSource& src) {
  return std::string(reinterpret_cast<const char*>(src.GetDataBuffer()),
                     static_cast<size_t>(src.GetFileSize()));
}

// ---- creation ---------------------------------------------------------------

TEST(InMemoryDataSourceCreate, TakesContainersOverAndCopiesPointers) {
  std::string text(1000, 'x');  // long enough to live on the heap
  std::vector<char> chars = {'q', '\0', 'r', '\xFF'};
  std::vector<unsigned char> bytes = {0x00, 0x80, 0xFF};
  const void* blocks[] = {text.data(), chars.data(), bytes.data()};
  const std::shared_ptr<InMemoryDataSource> taken[] = {
      InMemoryDataSource::Create(std::move(text), false),
      InMemoryDataSource::Create(std::move(chars), false),
      InMemoryDataSource::Create(std::move(bytes), false)};
  for (int i = 0; i < 3; ++i)
    EXPECT_EQ(static_cast<const void*>(taken[i]->GetDataBuffer()), blocks[i]) << "not copied";
  EXPECT_EQ(Contents(*taken[0]), std::string(1000, 'x'));
  EXPECT_EQ(Contents(*taken[1]), std::string("q\0r\xFF", 4));
  // Bytes above 0x7F come back as 128..255, never negative.
  for (int want : {0x00, 0x80, 0xFF, -1}) EXPECT_EQ(taken[2]->GetByte(), want);

  char hello[] = "hello";
  auto copied = InMemoryDataSource::Create(hello, 5, false);
  hello[0] = 'J';  // the source has its own copy
  EXPECT_EQ(Contents(*copied), "hello");
  EXPECT_EQ(Contents(*InMemoryDataSource::Create("z", 1, false)), "z");

  auto zeros = InMemoryDataSource::Create(uint64_t{16}, false);
  EXPECT_EQ(Contents(*zeros), std::string(16, '\0'));
  std::memcpy(const_cast<std::byte*>(zeros->GetDataBuffer()), "0123456789abcdef", 16);
  EXPECT_EQ(Read(*zeros, 16), "0123456789abcdef");
}

TEST(InMemoryDataSourceCreate, UnallocatableBlockReadsAsEmpty) {
  // (Under the sanitizers this needs allocator_may_return_null=1, which
  // scripts/sanitize sets.)
  // No machine can provide 2^62 bytes: the block cannot be allocated, and
  // the source must then neither throw nor hand out a null block to read.
  auto src = InMemoryDataSource::Create(uint64_t{1} << 62, false);
  ASSERT_NE(src, nullptr);
  if (src->GetDataBuffer() == nullptr) {
    EXPECT_EQ(src->GetFileSize(), 0u);
    EXPECT_EQ(src->GetByte(), -1);
    std::byte b[4];
    EXPECT_EQ(src->GetBytes(b, 4), 0u);
    EXPECT_TRUE(src->IsEndOfBuffer());
  }
}

// ---- reading ------------------------------------------------------------------

TEST(InMemoryDataSourceRead, ByteAndBlockReadsInterleaveUpToTheEnd) {
  auto src = InMemoryDataSource::Create(std::string("abcdefghij"), false);
  std::byte b{};
  EXPECT_EQ(src->GetBytes(&b, 0), 0u);
  EXPECT_EQ(src->GetByte(), 'a');
  EXPECT_EQ(Read(*src, 3), "bcd");
  EXPECT_EQ(src->GetByte(), 'e');
  EXPECT_EQ(src->GetCurrentDataBuffer(), src->GetDataBuffer() + 5);
  EXPECT_EQ(Read(*src, 100), "fghij");
  EXPECT_TRUE(src->IsEndOfBuffer());
  EXPECT_EQ(Read(*src, 100), "");
  EXPECT_EQ(src->GetByte(), -1);
  EXPECT_EQ(src->GetOffset(), 10u);

  auto empty = InMemoryDataSource::Create(std::string(), false);
  EXPECT_TRUE(empty->IsEndOfBuffer());
  EXPECT_EQ(empty->GetByte(), -1);
  EXPECT_EQ(Read(*empty, 4), "");
  EXPECT_EQ(empty->Seek(0, DataSource::DS_SEEK_END), 0);
  EXPECT_EQ(empty->Seek(1, DataSource::DS_SEEK_SET), -1);
}

// ---- seeking --------------------------------------------------------------------

// Memory stays inside its bytes; a file also goes past its end, with 64-bit
// offsets, and reading there finds the end.
TEST(SeekRules, EveryOriginAndItsLimitsInMemoryAndInAFile) {
  constexpr int64_t kMin = std::numeric_limits<int64_t>::min();
  constexpr int64_t kMax = std::numeric_limits<int64_t>::max();
  constexpr int64_t kFar = (int64_t{5} << 30) + 3;  // past 4 GiB, where 32-bit offsets wrap
  constexpr SeekOrigin SET = DataSource::DS_SEEK_SET, CUR = DataSource::DS_SEEK_CUR,
                       END = DataSource::DS_SEEK_END, BAD = SeekOrigin(3), NEG = SeekOrigin(-1);
  constexpr int64_t kSkip = -2;
  struct Case {
    uint64_t from;
    int64_t offset;
    SeekOrigin origin;
    int64_t memory, file;  // where each ends up; -1: refused, the position stays
  };
  const Case cases[] = {
      {7, 4, SET, 4, 4},         {2, 10, SET, 10, 10},   {2, 0, SET, 0, 0},
      {2, 11, SET, -1, 11},      {2, 100, SET, -1, 100}, {2, kFar, SET, -1, kFar},
      {2, -1, SET, -1, -1},      {2, kMin, SET, -1, -1}, {2, kMax, SET, -1, kSkip},
      {0, 4, CUR, 4, 4},         {4, -3, CUR, 1, 1},     {2, 8, CUR, 10, 10},
      {10, 1, CUR, -1, 11},      {10, -10, CUR, 0, 0},   {0, -1, CUR, -1, -1},
      {5, -6, CUR, -1, -1},      {5, kMin, CUR, -1, -1}, {5, kMax, CUR, -1, kSkip},
      {0, -3, END, 7, 7},        {0, -10, END, 0, 0},    {0, 0, END, 10, 10},
      {2, -11, END, -1, -1},     {2, 1, END, -1, 11},    {2, kMin, END, -1, -1},
      {2, kMax, END, -1, kSkip}, {3, 0, BAD, -1, -1},    {3, 1, NEG, -1, -1}};
  TempDir dir;
  WriteFile(dir.File("ten.bin"), "0123456789");
  const std::shared_ptr<DataSource> sources[] = {
      InMemoryDataSource::Create(std::string("0123456789"), false),
      FileDataSource::Create(dir.File("ten.bin"))};
  for (const Case& c : cases) {
    for (const auto& src : sources) {
      const bool file = src == sources[1];
      const int64_t to = file ? c.file : c.memory;
      if (to == kSkip) continue;
      SCOPED_TRACE(testing::Message() << (file ? "file" : "memory") << " from " << c.from
                                      << " offset " << c.offset << " origin " << c.origin);
      ASSERT_EQ(src->Seek(static_cast<int64_t>(c.from), SET), 0);
      EXPECT_EQ(src->Seek(c.offset, c.origin) == 0, to >= 0);
      const uint64_t at = to < 0 ? c.from : static_cast<uint64_t>(to);
      EXPECT_EQ(src->GetOffset(), at);
      if (!file) EXPECT_EQ(src->IsEndOfBuffer(), at == 10);
      EXPECT_EQ(src->GetByte(), at < 10 ? '0' + static_cast<int>(at) : -1);
      if (file) EXPECT_EQ(src->IsEndOfBuffer(), at >= 10);
    }
  }
}

// ---- clones and buffers -------------------------------------------------------------

TEST(InMemoryDataSourceClone, SharesBytesButNotThePositionOrFlags) {
  auto src = InMemoryDataSource::Create(std::string("0123456789"), true);
  src->SetTimeStamp("1234567890");
  ASSERT_EQ(src->Seek(5, DataSource::DS_SEEK_SET), 0);
  src->RelinquishSystemResources();  // nothing to give up: the position stays
  EXPECT_FALSE(src->IsHoldingSystemResources());

  auto clone = std::dynamic_pointer_cast<InMemoryDataSource>(src->Clone());
  ASSERT_NE(clone, nullptr);
  EXPECT_EQ(clone->GetDataBuffer(), src->GetDataBuffer());  // no copy
  EXPECT_EQ(Read(*clone, 3), "567");
  EXPECT_EQ(src->GetByte(), '5');

  // Later changes to either do not reach the other, and the clone outlives
  // the original.
  src->SetTimeStamp("1");
  src->SetIsTempFile(false);
  src.reset();
  EXPECT_EQ(clone->GetTimeStamp(), "1234567890");
  EXPECT_TRUE(clone->IsTempFile());
  ASSERT_EQ(clone->Seek(0, DataSource::DS_SEEK_SET), 0);
  EXPECT_EQ(Read(*clone, 100), "0123456789");
}

TEST(InMemoryDataSourceExtractBuffer, HandsOutTheSameBytesWithoutCopying) {
  auto src = InMemoryDataSource::Create(std::string("extract me"), false);
  ASSERT_EQ(src->Seek(3, DataSource::DS_SEEK_SET), 0);
  auto buffer = src->ExtractBuffer();
  ASSERT_NE(buffer, nullptr);
  EXPECT_EQ(buffer->GetData(), src->GetDataBuffer());
  EXPECT_EQ(buffer->GetSize(), 10u);
  // The source is not emptied and keeps its position.
  EXPECT_EQ(Read(*src, 100), "ract me");
  // The bytes live on after the source has gone.
  src.reset();
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(buffer->GetData()), 10), "extract me");
}

}  // namespace
}  // namespace oru::test
