// InMemoryDataSource: the five ways of making one, reading, the exact seek
// rules (unsigned arithmetic with wrap-around), clones, ExtractBuffer, and the
// flags and time stamp it carries.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "oru/data_source.h"

namespace oru {
namespace {

std::string Read(DataSource& src, uint64_t count) {
  std::string out(static_cast<size_t>(count), '\0');
  const uint64_t got = src.GetBytes(reinterpret_cast<std::byte*>(out.data()), count);
  out.resize(static_cast<size_t>(got));
  return out;
}

std::string Contents(const InMemoryDataSource& src) {
  return std::string(reinterpret_cast<const char*>(src.GetDataBuffer()),
                     static_cast<size_t>(src.GetFileSize()));
}

// ---- creation ---------------------------------------------------------------

TEST(InMemoryDataSourceCreate, FromStringTakesTheStorageOver) {
  // Long enough to live on the heap, so taking it over keeps the same block.
  std::string bytes(1000, 'x');
  bytes[0] = 'a';
  bytes[999] = 'z';
  const char* block = bytes.data();
  auto src = InMemoryDataSource::Create(std::move(bytes), false);
  EXPECT_TRUE(bytes.empty());
  EXPECT_EQ(reinterpret_cast<const char*>(src->GetDataBuffer()), block);
  EXPECT_EQ(src->GetFileSize(), 1000u);
  EXPECT_EQ(src->GetOffset(), 0u);
  EXPECT_EQ(src->GetByte(), 'a');
  ASSERT_EQ(src->Seek(-1, DataSource::DS_SEEK_END), 0);
  EXPECT_EQ(src->GetByte(), 'z');
}

TEST(InMemoryDataSourceCreate, FromShortStringLeavesCallersStringEmpty) {
  std::string bytes("abc");
  auto src = InMemoryDataSource::Create(std::move(bytes), false);
  EXPECT_TRUE(bytes.empty());
  EXPECT_EQ(Contents(*src), "abc");
}

TEST(InMemoryDataSourceCreate, FromCharVectorTakesTheStorageOver) {
  std::vector<char> bytes = {'q', '\0', 'r', '\xFF'};
  const char* block = bytes.data();
  auto src = InMemoryDataSource::Create(std::move(bytes), true);
  EXPECT_TRUE(bytes.empty());
  EXPECT_EQ(reinterpret_cast<const char*>(src->GetDataBuffer()), block);
  EXPECT_EQ(Contents(*src), std::string("q\0r\xFF", 4));
  EXPECT_TRUE(src->IsTempFile());
}

TEST(InMemoryDataSourceCreate, FromUnsignedCharVectorTakesTheStorageOver) {
  std::vector<unsigned char> bytes = {0x00, 0x80, 0xFF};
  const unsigned char* block = bytes.data();
  auto src = InMemoryDataSource::Create(std::move(bytes), false);
  EXPECT_TRUE(bytes.empty());
  EXPECT_EQ(reinterpret_cast<const unsigned char*>(src->GetDataBuffer()), block);
  // Bytes above 0x7F come back as 128..255, never negative.
  EXPECT_EQ(src->GetByte(), 0x00);
  EXPECT_EQ(src->GetByte(), 0x80);
  EXPECT_EQ(src->GetByte(), 0xFF);
  EXPECT_EQ(src->GetByte(), -1);
}

TEST(InMemoryDataSourceCreate, FromPointerCopiesAndCallerKeepsItsMemory) {
  char bytes[] = "hello";
  auto src = InMemoryDataSource::Create(bytes, 5, false);
  EXPECT_NE(reinterpret_cast<const char*>(src->GetDataBuffer()), bytes);
  bytes[0] = 'J';  // the source has its own copy
  EXPECT_EQ(Contents(*src), "hello");
  EXPECT_EQ(std::string(bytes), "Jello");
}

TEST(InMemoryDataSourceCreate, FromLengthIsZeroFilledAndFilledByTheOwner) {
  auto src = InMemoryDataSource::Create(uint64_t{16}, false);
  ASSERT_NE(src->GetDataBuffer(), nullptr);
  EXPECT_EQ(src->GetFileSize(), 16u);
  EXPECT_EQ(Contents(*src), std::string(16, '\0'));
  std::memcpy(const_cast<std::byte*>(src->GetDataBuffer()), "0123456789abcdef", 16);
  EXPECT_EQ(Read(*src, 16), "0123456789abcdef");
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

TEST(InMemoryDataSourceRead, EmptySource) {
  auto src = InMemoryDataSource::Create(std::string(), false);
  EXPECT_EQ(src->GetFileSize(), 0u);
  EXPECT_EQ(src->GetBufferSize(), 0u);
  EXPECT_TRUE(src->IsEndOfBuffer());
  EXPECT_EQ(src->GetByte(), -1);
  std::byte b[4];
  EXPECT_EQ(src->GetBytes(b, 4), 0u);
  EXPECT_EQ(src->Seek(0, DataSource::DS_SEEK_SET), 0);
  EXPECT_EQ(src->Seek(0, DataSource::DS_SEEK_END), 0);
  EXPECT_EQ(src->Seek(0, DataSource::DS_SEEK_CUR), 0);
  EXPECT_EQ(src->Seek(1, DataSource::DS_SEEK_SET), -1);
  EXPECT_EQ(src->GetOffset(), 0u);
}

TEST(InMemoryDataSourceRead, GetBytesIsShortAtTheEndThenZero) {
  auto src = InMemoryDataSource::Create(std::string("0123456789ABCDEFGHIJ"), false);
  ASSERT_EQ(src->Seek(10, DataSource::DS_SEEK_SET), 0);
  EXPECT_EQ(Read(*src, 100), "ABCDEFGHIJ");
  EXPECT_EQ(src->GetOffset(), 20u);
  EXPECT_TRUE(src->IsEndOfBuffer());
  EXPECT_EQ(Read(*src, 100), "");
  EXPECT_EQ(src->GetOffset(), 20u);
}

TEST(InMemoryDataSourceRead, ZeroCountReadsNothing) {
  auto src = InMemoryDataSource::Create(std::string("abc"), false);
  std::byte b{};
  EXPECT_EQ(src->GetBytes(&b, 0), 0u);
  EXPECT_EQ(src->GetOffset(), 0u);
}

TEST(InMemoryDataSourceRead, ByteAndBlockReadsInterleave) {
  auto src = InMemoryDataSource::Create(std::string("abcdef"), false);
  EXPECT_EQ(src->GetByte(), 'a');
  EXPECT_EQ(Read(*src, 3), "bcd");
  EXPECT_EQ(src->GetByte(), 'e');
  EXPECT_EQ(reinterpret_cast<const char*>(src->GetCurrentDataBuffer()),
            reinterpret_cast<const char*>(src->GetDataBuffer()) + 5);
  EXPECT_FALSE(src->IsEndOfBuffer());
  EXPECT_EQ(src->GetByte(), 'f');
  EXPECT_TRUE(src->IsEndOfBuffer());
  EXPECT_EQ(src->GetByte(), -1);
  EXPECT_EQ(src->GetOffset(), 6u);
}

// ---- seeking --------------------------------------------------------------------

class InMemoryDataSourceSeek : public testing::Test {
protected:
  // Ten bytes, so that every offset equals its digit.
  std::shared_ptr<InMemoryDataSource> src =
      InMemoryDataSource::Create(std::string("0123456789"), false);

  // A refused seek must leave the position where it was.
  void ExpectRefused(int64_t offset, SeekOrigin origin) {
    const uint64_t before = src->GetOffset();
    EXPECT_EQ(src->Seek(offset, origin), -1) << "offset " << offset << " origin " << origin;
    EXPECT_EQ(src->GetOffset(), before);
  }
};

TEST_F(InMemoryDataSourceSeek, FromStart) {
  ASSERT_EQ(src->Seek(4, DataSource::DS_SEEK_SET), 0);
  EXPECT_EQ(src->GetByte(), '4');
  ASSERT_EQ(src->Seek(10, DataSource::DS_SEEK_SET), 0);  // exactly the size
  EXPECT_TRUE(src->IsEndOfBuffer());
  EXPECT_EQ(src->GetByte(), -1);
  ASSERT_EQ(src->Seek(0, DataSource::DS_SEEK_SET), 0);
  EXPECT_FALSE(src->IsEndOfBuffer());
  EXPECT_EQ(src->GetByte(), '0');

  ExpectRefused(11, DataSource::DS_SEEK_SET);
  ExpectRefused(-1, DataSource::DS_SEEK_SET);
  ExpectRefused(std::numeric_limits<int64_t>::min(), DataSource::DS_SEEK_SET);
  ExpectRefused(std::numeric_limits<int64_t>::max(), DataSource::DS_SEEK_SET);
}

TEST_F(InMemoryDataSourceSeek, FromCurrent) {
  ASSERT_EQ(src->Seek(4, DataSource::DS_SEEK_CUR), 0);
  EXPECT_EQ(src->GetOffset(), 4u);
  ASSERT_EQ(src->Seek(-3, DataSource::DS_SEEK_CUR), 0);
  EXPECT_EQ(src->GetByte(), '1');
  ASSERT_EQ(src->Seek(8, DataSource::DS_SEEK_CUR), 0);  // 2 + 8: the end
  EXPECT_TRUE(src->IsEndOfBuffer());

  ExpectRefused(1, DataSource::DS_SEEK_CUR);
  ASSERT_EQ(src->Seek(-10, DataSource::DS_SEEK_CUR), 0);  // back to exactly 0
  EXPECT_EQ(src->GetOffset(), 0u);
}

TEST_F(InMemoryDataSourceSeek, FromCurrentBeforeTheStartWrapsAndIsRefused) {
  ExpectRefused(-1, DataSource::DS_SEEK_CUR);
  ASSERT_EQ(src->Seek(5, DataSource::DS_SEEK_SET), 0);
  ExpectRefused(-6, DataSource::DS_SEEK_CUR);
  ExpectRefused(std::numeric_limits<int64_t>::min(), DataSource::DS_SEEK_CUR);
  ExpectRefused(std::numeric_limits<int64_t>::max(), DataSource::DS_SEEK_CUR);
  EXPECT_EQ(src->GetByte(), '5');
}

TEST_F(InMemoryDataSourceSeek, FromEnd) {
  ASSERT_EQ(src->Seek(-3, DataSource::DS_SEEK_END), 0);
  EXPECT_EQ(src->GetOffset(), 7u);
  EXPECT_EQ(src->GetByte(), '7');
  ASSERT_EQ(src->Seek(-10, DataSource::DS_SEEK_END), 0);
  EXPECT_EQ(src->GetOffset(), 0u);
  ASSERT_EQ(src->Seek(0, DataSource::DS_SEEK_END), 0);
  EXPECT_EQ(src->GetOffset(), 10u);
  EXPECT_TRUE(src->IsEndOfBuffer());

  ASSERT_EQ(src->Seek(2, DataSource::DS_SEEK_SET), 0);
  ExpectRefused(-11, DataSource::DS_SEEK_END);
  // A positive offset from the end is refused, even the one that would land
  // exactly at the end after a move back.
  ExpectRefused(1, DataSource::DS_SEEK_END);
  ExpectRefused(std::numeric_limits<int64_t>::min(), DataSource::DS_SEEK_END);
  ExpectRefused(std::numeric_limits<int64_t>::max(), DataSource::DS_SEEK_END);
}

TEST_F(InMemoryDataSourceSeek, UnknownOriginIsRefused) {
  ASSERT_EQ(src->Seek(3, DataSource::DS_SEEK_SET), 0);
  ExpectRefused(0, static_cast<SeekOrigin>(3));
  ExpectRefused(1, static_cast<SeekOrigin>(-1));
  ExpectRefused(0, static_cast<SeekOrigin>(1000));
  EXPECT_EQ(src->GetByte(), '3');
}

TEST(InMemoryDataSourceSeekOrigin, ValuesMatchTheRuntimeLibrary) {
  EXPECT_EQ(static_cast<int>(DataSource::DS_SEEK_SET), SEEK_SET);
  EXPECT_EQ(static_cast<int>(DataSource::DS_SEEK_CUR), SEEK_CUR);
  EXPECT_EQ(static_cast<int>(DataSource::DS_SEEK_END), SEEK_END);
}

// ---- clones, buffers, flags ---------------------------------------------------------

TEST(InMemoryDataSourceClone, SharesBytesButNotThePosition) {
  auto src = InMemoryDataSource::Create(std::string("0123456789"), true);
  src->SetTimeStamp("1234567890");
  ASSERT_EQ(src->Seek(5, DataSource::DS_SEEK_SET), 0);

  auto clone = std::dynamic_pointer_cast<InMemoryDataSource>(src->Clone());
  ASSERT_NE(clone, nullptr);
  EXPECT_NE(clone.get(), src.get());
  EXPECT_EQ(clone->GetDataBuffer(), src->GetDataBuffer());  // no copy
  EXPECT_EQ(clone->GetOffset(), 5u);
  EXPECT_EQ(clone->GetTimeStamp(), "1234567890");
  EXPECT_TRUE(clone->IsTempFile());

  EXPECT_EQ(Read(*clone, 3), "567");
  EXPECT_EQ(src->GetOffset(), 5u);
  EXPECT_EQ(src->GetByte(), '5');
  ASSERT_EQ(src->Seek(0, DataSource::DS_SEEK_SET), 0);
  EXPECT_EQ(clone->GetOffset(), 8u);

  // Later changes to either do not reach the other.
  src->SetTimeStamp("1");
  src->SetIsTempFile(false);
  EXPECT_EQ(clone->GetTimeStamp(), "1234567890");
  EXPECT_TRUE(clone->IsTempFile());
}

TEST(InMemoryDataSourceClone, OutlivesTheOriginal) {
  auto src = InMemoryDataSource::Create(std::string(300, 'k'), false);
  std::shared_ptr<DataSource> clone = src->Clone();
  src.reset();
  EXPECT_EQ(clone->GetFileSize(), 300u);
  EXPECT_EQ(Read(*clone, 1000), std::string(300, 'k'));
}

TEST(InMemoryDataSourceExtractBuffer, HandsOutTheSameBytesWithoutCopying) {
  auto src = InMemoryDataSource::Create(std::string("extract me"), false);
  ASSERT_EQ(src->Seek(3, DataSource::DS_SEEK_SET), 0);
  auto buffer = src->ExtractBuffer();
  ASSERT_NE(buffer, nullptr);
  EXPECT_EQ(buffer->GetData(), src->GetDataBuffer());
  EXPECT_EQ(buffer->GetSize(), 10u);
  EXPECT_EQ(src->ExtractBuffer(), buffer);

  // The source is not emptied and keeps its position.
  EXPECT_EQ(src->GetOffset(), 3u);
  EXPECT_EQ(Read(*src, 100), "ract me");

  // The bytes live on after the source has gone.
  src.reset();
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(buffer->GetData()),
                        static_cast<size_t>(buffer->GetSize())),
            "extract me");
}

TEST(InMemoryDataSourceProperties, SizesFlagsAndTimeStamp) {
  auto src = InMemoryDataSource::Create(std::string("abcd"), false);
  EXPECT_EQ(src->GetFileSize(), 4u);
  EXPECT_EQ(src->GetBufferSize(), 4u);
  EXPECT_EQ(src->GetTimeStamp(), "");
  src->SetTimeStamp("1609459200");
  EXPECT_EQ(src->GetTimeStamp(), "1609459200");
  src->SetTimeStamp(src->GetTimeStamp());
  EXPECT_EQ(src->GetTimeStamp(), "1609459200");

  EXPECT_FALSE(src->IsTempFile());
  src->SetIsTempFile(true);
  EXPECT_TRUE(src->IsTempFile());
  src->SetIsTempFile(false);
  EXPECT_FALSE(src->IsTempFile());
}

TEST(InMemoryDataSourceProperties, HoldsNoSystemResources) {
  auto src = InMemoryDataSource::Create(std::string("abcd"), false);
  ASSERT_EQ(src->Seek(2, DataSource::DS_SEEK_SET), 0);
  EXPECT_FALSE(src->IsHoldingSystemResources());
  src->RelinquishSystemResources();
  EXPECT_FALSE(src->IsHoldingSystemResources());
  EXPECT_EQ(src->GetOffset(), 2u);
  EXPECT_EQ(src->GetByte(), 'c');
}

}  // namespace
}  // namespace oru
