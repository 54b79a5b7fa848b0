// SparseDataSource: the order of sections, reads that throw at missing data
// and stop short at gaps, seams between adjacent sections, the current
// section after sections are removed, inserted or loaded again, RangeIsValid,
// the seek rules (the relative forms store their raw argument, and every
// accepted seek forgets the current section) and ExtractBuffer.
#include "oru/sparse_data_source.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <limits>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "support/test_util.h"

namespace oru::test {
namespace {

// The byte that the whole content holds at `offset` in these tests, so that
// any section can be filled and any read checked independently.
char ByteAt(uint64_t offset) {
  return static_cast<char>('A' + offset % 26);
}

std::string Expected(uint64_t begin, uint64_t end) {
  std::string s;
  for (uint64_t i = begin; i < end; ++i) s += ByteAt(i);
  return s;
}

class SparseDataSourceTest : public testing::Test {
protected:
  // Adds the section [offset, offset + size) filled with its proper bytes.
  uint64_t Add(uint64_t offset, uint64_t size) {
    const uint64_t index = src->AddSection(offset, size);
    for (uint64_t i = 0; i < size; ++i)
      src->GetSection(index).data[i] = static_cast<std::byte>(ByteAt(offset + i));
    return index;
  }

  std::shared_ptr<SparseDataSource> src = SparseDataSource::Create(100);
};

// ---- sections -------------------------------------------------------------------------

TEST_F(SparseDataSourceTest, SectionsAreKeptInOrderOfOffset) {
  EXPECT_EQ(Add(50, 10), 0u);
  EXPECT_EQ(Add(0, 10), 0u);   // before 50
  EXPECT_EQ(Add(20, 5), 1u);   // between
  EXPECT_EQ(Add(60, 5), 3u);   // starts at the end of 50..59: after it
  EXPECT_EQ(Add(10, 10), 1u);  // starts at the end of 0..9: after it
  src->RemoveSection(2);       // 20..24; the later ones move down
  std::vector<uint64_t> offsets;
  for (uint64_t i = 0; i < src->GetSectionCount(); ++i)
    offsets.push_back(src->GetSection(i).offset);
  EXPECT_EQ(offsets, (std::vector<uint64_t>{0, 10, 50, 60}));

  EXPECT_THROW(src->AddSection(0, uint64_t{1} << 63), std::length_error);
  EXPECT_THROW(src->AddSection(0, UINT64_MAX), std::length_error);
  EXPECT_EQ(src->GetSectionCount(), 4u);
}

// ---- reading ----------------------------------------------------------------------------

TEST_F(SparseDataSourceTest, ReadsThrowAtMissingDataAndStopShortAtAGap) {
  std::byte b[4];
  EXPECT_THROW(src->GetByte(), DataUnavailable);
  EXPECT_THROW(src->GetBytes(b, 0), DataUnavailable);  // even for nothing
  Add(0, 10);
  Add(20, 10);
  EXPECT_EQ(Read(*src, 30), Expected(0, 10));
  EXPECT_EQ(src->GetOffset(), 10u);
  EXPECT_THROW(src->GetBytes(b, 4), DataUnavailable);
  EXPECT_EQ(src->GetOffset(), 10u);
  // A section added later at the position is read.
  Add(10, 5);
  EXPECT_EQ(Read(*src, 10), Expected(10, 15));
  EXPECT_THROW(src->GetByte(), DataUnavailable);

  // At the end there is nothing to miss: reads report the end.
  ASSERT_EQ(src->Seek(100, DataSource::DS_SEEK_SET), 0);
  EXPECT_EQ(src->GetByte(), -1);
  EXPECT_EQ(src->GetBytes(b, 4), 0u);
  EXPECT_TRUE(src->IsEndOfBuffer());
}

TEST_F(SparseDataSourceTest, SeamWorksWhicheverSectionCameFirst) {
  Add(10, 10);
  Add(0, 10);
  Add(20, 80);
  EXPECT_EQ(Read(*src, 15), Expected(0, 15));  // across the seam at 10
  for (uint64_t i = 15; i < 25; ++i) EXPECT_EQ(src->GetByte(), ByteAt(i)) << i;  // and at 20
  EXPECT_EQ(Read(*src, 1000), Expected(25, 100));
  EXPECT_TRUE(src->IsEndOfBuffer());
}

TEST_F(SparseDataSourceTest, RemovingTheCurrentSectionMakesReadsThrow) {
  Add(0, 10);
  ASSERT_EQ(src->GetByte(), 'A');
  src->RemoveSection(0);
  EXPECT_THROW(src->GetByte(), DataUnavailable);
  EXPECT_EQ(src->GetOffset(), 1u);
  // Removing another section does not disturb the reader.
  Add(20, 10);
  ASSERT_EQ(src->Seek(1, DataSource::DS_SEEK_SET), 0);
  Add(0, 10);
  src->RemoveSection(1);
  EXPECT_EQ(Read(*src, 9), Expected(1, 10));
}

TEST_F(SparseDataSourceTest, SectionInsertedBeforeTheCurrentOneDoesNotMisdirectReads) {
  // Reading at 20 from the section 20..29, then a section is added before it.
  ASSERT_EQ(src->Seek(20, DataSource::DS_SEEK_SET), 0);
  Add(20, 10);
  ASSERT_EQ(src->GetByte(), ByteAt(20));
  Add(0, 10);
  // The byte at 21 is present; whatever the source does about its idea of
  // the current section, it must not read another section's memory.
  int c = -2;
  try {
    c = src->GetByte();
  } catch (const DataUnavailable&) {
    return;
  }
  EXPECT_EQ(c, ByteAt(21));
}

TEST_F(SparseDataSourceTest, ReloadedRangeDoesNotLeadReadsIntoAnOlderSection) {
  // The usual recovery: seek (which forgets the current section even where
  // the data is there), reload the range, read on. The old copy of the range
  // stays as a second section.
  Add(0, 10);
  ASSERT_EQ(src->Seek(5, DataSource::DS_SEEK_SET), 0);
  EXPECT_THROW(src->GetByte(), DataUnavailable);
  EXPECT_TRUE(src->RangeIsValid(0, 10));
  Add(0, 10);
  EXPECT_EQ(Read(*src, 5), Expected(5, 10));
  // Nothing holds byte 10, so the next read must throw; it must not take a
  // byte from beyond the older section 0..9.
  EXPECT_THROW(src->GetByte(), DataUnavailable);
}

// ---- RangeIsValid ---------------------------------------------------------------------------

TEST_F(SparseDataSourceTest, RangeIsValid) {
  EXPECT_FALSE(src->RangeIsValid(0, 1));
  Add(0, 10);
  Add(10, 10);
  Add(30, 10);
  // Sections 0..9, 10..19 and 30..39: one section, inside one, across the
  // seam, the last byte before the gap; into the gap, the gap, from it into a
  // section, past the last one, across the gap; empty and reversed ranges.
  const struct {
    uint64_t begin, end;
    bool valid;
  } cases[] = {{0, 10, true},   {2, 8, true},    {5, 15, true},   {0, 20, true},   {19, 20, true},
               {30, 40, true},  {15, 25, false}, {20, 30, false}, {25, 35, false}, {35, 41, false},
               {40, 50, false}, {0, 40, false},  {5, 5, false},   {6, 5, false},   {0, 0, false}};
  for (const auto& c : cases)
    EXPECT_EQ(src->RangeIsValid(c.begin, c.end), c.valid) << c.begin << ".." << c.end;
}

// ---- seeking --------------------------------------------------------------------------------

// The relative forms check the target but store their raw argument.
TEST_F(SparseDataSourceTest, SeekRules) {
  constexpr int64_t kMin = std::numeric_limits<int64_t>::min();
  constexpr SeekOrigin SET = DataSource::DS_SEEK_SET, CUR = DataSource::DS_SEEK_CUR,
                       END = DataSource::DS_SEEK_END, BAD = SeekOrigin(3);
  constexpr uint64_t kHuge = UINT64_MAX;
  const struct {
    uint64_t from;
    int64_t offset;
    SeekOrigin origin;
    bool accepted;
    uint64_t to;
  } cases[] = {
      {0, 40, SET, true, 40},         {0, 100, SET, true, 100},        {40, 101, SET, false, 40},
      {40, -1, SET, false, 40},       {40, kMin, SET, false, 40},      {40, 0, BAD, false, 40},
      {10, -11, CUR, false, 10},      {10, 3, CUR, true, 3},           {3, 98, CUR, false, 3},
      {3, 97, CUR, true, 97},         {3, -1, CUR, true, kHuge},       {50, 1, END, false, 50},
      {50, -101, END, false, 50},     {50, kMin, END, false, 50},      {50, 0, END, true, 0},
      {50, -5, END, true, kHuge - 4}, {9, -100, END, true, kHuge - 99}};
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message()
                 << "from " << c.from << " offset " << c.offset << " origin " << c.origin);
    ASSERT_EQ(src->Seek(static_cast<int64_t>(c.from), SET), 0);
    EXPECT_EQ(src->Seek(c.offset, c.origin), c.accepted ? 0 : -1);
    EXPECT_EQ(src->GetOffset(), c.to);
    EXPECT_EQ(src->IsEndOfBuffer(), c.to == 100);
    if (c.to > 100) {
      // A position past the end: reads report the end, though it is not the end.
      EXPECT_EQ(src->GetByte(), -1);
      EXPECT_EQ(Read(*src, 4), "");
    }
  }
  // A positive offset from the end is refused even where the sum wraps.
  EXPECT_EQ(SparseDataSource::Create(UINT64_MAX)->Seek(1, END), -1);
}

// ---- ExtractBuffer ------------------------------------------------------------------------------

// The whole content is copied straight from the sections, visited by offset;
// a missing byte throws. Either way the reader goes on where it was, with no
// section to reload.
TEST_F(SparseDataSourceTest, ExtractBufferCopiesTheSectionsOrThrows) {
  // `reads`: whether the reader stands in a section (a section inserted
  // before the current one loses it).
  const struct {
    const char* name;
    uint64_t size;
    std::vector<std::pair<uint64_t, uint64_t>> sections;  // offset, size
    bool complete, reads;
  } cases[] = {
      {"added out of order", 100, {{40, 60}, {0, 20}, {20, 20}}, true, true},
      {"a range loaded again inside a larger one", 100, {{0, 100}, {30, 10}}, true, false},
      {"one byte missing in the middle", 100, {{0, 50}, {51, 48}, {99, 1}}, false, true},
      {"the last byte missing", 100, {{0, 50}, {51, 48}, {50, 1}}, false, true},
      {"nothing at all", 0, {}, true, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    src = SparseDataSource::Create(c.size);
    for (const auto& [offset, size] : c.sections) Add(offset, size);
    if (c.reads) ASSERT_EQ(Read(*src, 7), Expected(0, 7));
    if (!c.complete) {
      EXPECT_THROW(src->ExtractBuffer(), DataUnavailable);
    } else {
      auto buffer = src->ExtractBuffer();
      if (c.size > 0) src->GetSection(0).data[0] = std::byte{0x23};  // a copy, not the sections
      EXPECT_EQ(std::string(reinterpret_cast<const char*>(buffer->GetData()),
                            static_cast<size_t>(buffer->GetSize())),
                Expected(0, c.size));
    }
    if (c.reads) EXPECT_EQ(Read(*src, 3), Expected(7, 10));
  }
}

}  // namespace
}  // namespace oru::test
