// A host program that replaces the global operator new and delete with an
// allocator whose blocks free() cannot release: every block has a header in
// front, which delete checks. Blocks cross between liboru and this program
// both ways, and each must go back to the allocator that made it. Exits 0
// when they do; a block released by the wrong allocator aborts.
#include <oru/data_source.h>
#include <oru/data_stream.h>
#include <oru/line_reader.h>
#include <oru/memory.h>
#include <oru/sha1.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <vector>

namespace {

constexpr std::size_t HEADER = 16;
// Blocks of new and of new[] are marked apart: each must come back through
// the matching delete.
constexpr uint64_t MAGIC = 0x74736f685f75726fu;
constexpr uint64_t ARRAY_MAGIC = MAGIC + 1;

void* HostAllocate(std::size_t size, uint64_t mark = MAGIC) {
  auto* raw = static_cast<unsigned char*>(std::malloc(size + HEADER));
  if (raw == nullptr) throw std::bad_alloc();
  std::memcpy(raw, &mark, sizeof mark);
  return raw + HEADER;
}

void HostRelease(void* p, uint64_t mark = MAGIC) noexcept {
  if (p == nullptr) return;
  unsigned char* raw = static_cast<unsigned char*>(p) - HEADER;
  uint64_t magic;
  std::memcpy(&magic, raw, sizeof magic);
  if (magic != mark) {
    std::fputs("a block this program did not allocate came back to it\n", stderr);
    std::abort();
  }
  std::memset(raw, 0, sizeof magic);
  std::free(raw);
}

int Fail(const char* what) {
  std::fprintf(stderr, "FAILED: %s\n", what);
  return 1;
}

}  // namespace

void* operator new(std::size_t size) {
  return HostAllocate(size);
}
void* operator new[](std::size_t size) {
  return HostAllocate(size, ARRAY_MAGIC);
}
void operator delete(void* p) noexcept {
  HostRelease(p);
}
void operator delete[](void* p) noexcept {
  HostRelease(p, ARRAY_MAGIC);
}
void operator delete(void* p, std::size_t) noexcept {
  HostRelease(p);
}
void operator delete[](void* p, std::size_t) noexcept {
  HostRelease(p, ARRAY_MAGIC);
}

int main() {
  const uint64_t calls = oru::counters::CallsToNew();
  const uint64_t deletes = oru::counters::CallsToDelete();
  {
    // This program's blocks, adopted by the library and released there.
    auto text = oru::InMemoryDataSource::Create(std::string(4096, 't'), false);
    auto bytes = oru::InMemoryDataSource::Create(std::vector<char>(4096, 'v'), false);
    if (text->GetFileSize() != 4096 || bytes->GetFileSize() != 4096) return Fail("sizes");
  }
  {
    // The library's own new[] and delete[] (the line reader's buffers) go
    // to this program's array operators.
    oru::DataStream in(oru::InMemoryDataSource::Create(std::string("one\ntwo\n"), false));
    oru::LineReader lines(&in, 0);
    if (!lines.ReadLine() || lines.GetString() != "one") return Fail("lines");
  }
  // The library's blocks, released here.
  std::string digest = oru::Sha1FromString("abc");
  if (digest != "a9993e364706816aba3e25717850c26c9cd0d89d") return Fail("digest");
  digest = std::string();
  // The library still counts its own calls.
  if (oru::counters::CallsToNew() == calls) return Fail("allocations not counted");
  if (oru::counters::CallsToDelete() == deletes) return Fail("releases not counted");
  std::puts("blocks went back to the allocator that made them");
  return 0;
}
