#include "oru/sparse_data_source.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <vector>

#include "data/data_source_buffers.h"
#include "oru/make_shared_enabler.h"

namespace oru {

const char* DataUnavailable::what() const noexcept {
  return "Requested data is not loaded into SparseDataSource.";
}

namespace {
constexpr uint64_t NO_SECTION = UINT64_MAX;
}

struct SparseDataSource::State {
  struct Stored {
    uint64_t offset;
    std::vector<std::byte> data;
    uint64_t End() const { return offset + data.size(); }
  };

  std::vector<Stored> sections;
  uint64_t fileSize;
  uint64_t position = 0;
  uint64_t currentSection = NO_SECTION;
  bool isTempFile = false;

  // The first section whose end is not below `offset`.
  std::vector<Stored>::iterator FirstEndingAtOrAfter(uint64_t offset) {
    return std::lower_bound(sections.begin(), sections.end(), offset,
                            [](const Stored& s, uint64_t o) { return s.End() < o; });
  }

  bool Holds(uint64_t index) const {
    return index < sections.size() && sections[index].offset <= position &&
           position < sections[index].End();
  }

  // Called when `position` has reached the end of the current section: the
  // next section goes on only if it holds the position (no gap).
  void AdvanceSection() {
    ++currentSection;
    if (!Holds(currentSection)) currentSection = NO_SECTION;
  }

  // The recorded current section is not shifted when sections are inserted
  // or removed before it (kept: owners' loading code was written against the
  // reads this gives), so it may name a section that no
  // longer holds the position. Reading from that one would take bytes from
  // the wrong place or outside its memory; it is treated as no section.
  bool HasCurrent() const { return Holds(currentSection); }
};

std::shared_ptr<SparseDataSource> SparseDataSource::Create(uint64_t fileSize) {
  return std::make_shared<make_shared_enabler<SparseDataSource>>(fileSize);
}

SparseDataSource::SparseDataSource(uint64_t fileSize) : state(std::make_unique<State>()) {
  state->fileSize = fileSize;
}

SparseDataSource::~SparseDataSource() = default;

uint64_t SparseDataSource::AddSection(uint64_t offset, uint64_t size) {
  if (size > static_cast<uint64_t>(INT64_MAX) || size > SIZE_MAX)
    throw std::length_error("SparseDataSource section too long");
  State& s = *state;
  // A section starting exactly at an existing section's end goes after it,
  // so sections stay in ascending order across seams.
  auto it = std::lower_bound(s.sections.begin(), s.sections.end(), offset,
                             [](const State::Stored& st, uint64_t o) { return st.End() <= o; });
  const auto index = static_cast<uint64_t>(it - s.sections.begin());
  s.sections.insert(it, State::Stored{offset, std::vector<std::byte>(static_cast<size_t>(size))});
  // An existing currentSection at or after the insertion point is not
  // shifted (kept, as above).
  if (offset <= s.position && s.position - offset < size) s.currentSection = index;
  return index;
}

void SparseDataSource::RemoveSection(uint64_t index) {
  State& s = *state;
  if (index >= s.sections.size()) return;
  const auto& sec = s.sections[index];
  if (sec.offset <= s.position && s.position < sec.End()) s.currentSection = NO_SECTION;
  s.sections.erase(s.sections.begin() + static_cast<ptrdiff_t>(index));
}

SparseDataSource::Section SparseDataSource::GetSection(uint64_t index) {
  auto& sec = state->sections[index];
  return Section{sec.offset, sec.data.size(), sec.data.data()};
}

uint64_t SparseDataSource::GetSectionCount() const {
  return state->sections.size();
}

bool SparseDataSource::RangeIsValid(uint64_t begin, uint64_t end) {
  if (begin >= end) return false;
  State& s = *state;
  uint64_t reached = begin;
  for (auto it = s.FirstEndingAtOrAfter(begin); it != s.sections.end(); ++it) {
    if (it->offset > reached) return false;  // a gap
    reached = std::max(reached, it->End());
    if (reached >= end) return true;
  }
  return false;
}

int SparseDataSource::GetByte() {
  State& s = *state;
  if (s.position >= s.fileSize) return -1;
  if (!s.HasCurrent()) throw DataUnavailable();
  const auto& sec = s.sections[s.currentSection];
  const int c = static_cast<int>(sec.data[static_cast<size_t>(s.position - sec.offset)]);
  ++s.position;
  if (s.position >= sec.End()) s.AdvanceSection();
  return c;
}

uint64_t SparseDataSource::GetBytes(std::byte* dst, uint64_t count) {
  State& s = *state;
  if (s.position >= s.fileSize) return 0;
  if (!s.HasCurrent()) throw DataUnavailable();
  uint64_t copied = 0;
  while (copied < count) {
    const auto& sec = s.sections[s.currentSection];
    const uint64_t at = s.position - sec.offset;
    const uint64_t n = std::min<uint64_t>(sec.data.size() - at, count - copied);
    std::memcpy(dst + copied, sec.data.data() + at, static_cast<size_t>(n));
    copied += n;
    s.position += n;
    if (s.position >= sec.End()) {
      s.AdvanceSection();
      if (!s.HasCurrent()) break;  // a short read at a gap
    }
  }
  return copied;
}

uint64_t SparseDataSource::GetOffset() const {
  return state->position;
}

int SparseDataSource::Seek(int64_t offset, SeekOrigin origin) {
  State& s = *state;
  const uint64_t raw = static_cast<uint64_t>(offset);
  switch (origin) {
    case DS_SEEK_SET:
      if (offset < 0 || raw > s.fileSize) return -1;
      break;
    case DS_SEEK_CUR:
      if (s.position + raw > s.fileSize) return -1;
      break;
    case DS_SEEK_END:
      if (offset > 0 || s.fileSize + raw > s.fileSize) return -1;
      break;
    default:
      return -1;
  }
  // The relative forms check the target they describe but store the raw
  // argument (kept: owners read GetOffset back after such seeks).
  s.position = raw;
  s.currentSection = NO_SECTION;
  return 0;
}

bool SparseDataSource::IsEndOfBuffer() const {
  return state->position == state->fileSize;
}
uint64_t SparseDataSource::GetFileSize() const {
  return state->fileSize;
}
uint64_t SparseDataSource::GetBufferSize() const {
  return state->fileSize;
}
std::string SparseDataSource::GetTimeStamp() const {
  return {};
}
bool SparseDataSource::IsTempFile() const {
  return state->isTempFile;
}
void SparseDataSource::SetIsTempFile(bool temp) {
  state->isTempFile = temp;
}

std::shared_ptr<CompressedDataSource> SparseDataSource::CompressedDataSourceFromThis(uint64_t) {
  return {};
}

std::shared_ptr<DataSource::Buffer> SparseDataSource::ExtractBuffer() {
  // Copies straight from the sections: going through Seek would forget the
  // current section and make every read throw. Overlapping sections may be
  // stored out of offset order, so they are visited by offset.
  State& s = *state;
  auto buffer = std::make_shared<BasicDataSourceBuffer>(s.fileSize);
  std::vector<const State::Stored*> byOffset;
  byOffset.reserve(s.sections.size());
  for (const auto& sec : s.sections) byOffset.push_back(&sec);
  std::stable_sort(
      byOffset.begin(), byOffset.end(),
      [](const State::Stored* a, const State::Stored* b) { return a->offset < b->offset; });
  std::byte* out = buffer->MutableData();
  uint64_t reached = 0;
  for (const State::Stored* sec : byOffset) {
    if (reached >= s.fileSize) break;
    if (sec->End() <= reached) continue;
    if (sec->offset > reached) throw DataUnavailable();
    const uint64_t to = std::min(sec->End(), s.fileSize);
    std::memcpy(out + reached, sec->data.data() + (reached - sec->offset),
                static_cast<size_t>(to - reached));
    reached = to;
  }
  if (reached < s.fileSize) throw DataUnavailable();
  return buffer;
}

}  // namespace oru
