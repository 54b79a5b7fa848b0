// Arbitrary bytes as a ZIP archive held in memory: the archive is listed,
// every listed member is read directly and through its URL, a few made-up
// names are looked up, and a second archive over the same bytes is reached
// through the process-wide registry while the first one is alive.
#include <oru/data_source.h>
#include <oru/zip_data_stream.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace {

// Reads a member through both access paths the source offers.
void Drain(const std::shared_ptr<oru::DataSource>& member) {
  if (!member) return;
  std::vector<std::byte> buffer(4096);
  uint64_t total = 0;
  while (uint64_t n = member->GetBytes(buffer.data(), buffer.size())) {
    total += n;
    if (total > (64u << 20)) break;
  }
  (void)member->GetFileSize();
  (void)member->IsEndOfBuffer();
  if (member->Seek(0, oru::DS_SEEK_SET) == 0) (void)member->GetByte();
}

const char* const MADE_UP[] = {
    "", "/", "a", "A.TXT", "dir/", "dir\\file.bin", "../escape", "a/b/c/d/e/f.txt", "\xff\xfe",
};

void Exercise(const std::shared_ptr<oru::ZipDataStream>& zip, bool viaUrl) {
  (void)zip->GetZipFileName();
  std::vector<std::string> names;
  // An invalid archive's listing only prints a line; skip it to keep the
  // fuzzer's output readable (lookups still run against it).
  if (zip->IsValid()) zip->ListContents(&names);
  const std::string& id = zip->GetUniqueId();
  std::size_t count = 0;
  for (const std::string& name : names) {
    if (++count > 256) break;  // enough to cover the reader; keeps runs short
    Drain(viaUrl ? oru::ZipDataStream::FindDataSource(id + "/" + name)
                 : zip->GetDataSourceForFile(name));
    (void)zip->ComponentUrl(name);
    (void)zip->GetTimeStamp(name);
  }
  for (const char* name : MADE_UP) {
    Drain(viaUrl ? oru::ZipDataStream::FindDataSource(id + "/" + name)
                 : zip->GetDataSourceForFile(name));
  }
  if (!names.empty()) {
    // Upper-cased and backslashed variants of a real name.
    std::string variant = names.front();
    for (char& c : variant) {
      if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
      if (c == '/') c = '\\';
    }
    Drain(oru::ZipDataStream::FindDataSource(id + "/" + variant));
  }
  (void)oru::ZipDataStream::FindDataStream(id);
  (void)oru::ZipDataStream::ExtractFileName(id + "/x");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  auto source = oru::InMemoryDataSource::Create(data, size, false);
  auto first = oru::ZipDataStream::Create(source);
  Exercise(first, false);
  // A second archive over a copy of the same bytes, read through URLs while
  // the first is still registered.
  auto second = oru::ZipDataStream::Create(oru::InMemoryDataSource::Create(data, size, false));
  Exercise(second, true);
  Exercise(first, true);
  const std::string firstId = first->GetUniqueId();
  first.reset();
  if (oru::ZipDataStream::FindDataStream(firstId)) __builtin_trap();  // must be gone
  (void)oru::ZipDataStream::FindDataSource(firstId + "/a");
  return 0;
}
