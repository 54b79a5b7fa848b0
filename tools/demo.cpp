// The liboru demo: the data road from a file on disk to typed reads.
//
// It writes a small gzip file with a binary header and a text body, then
// reads it back through FileDataSource -> compressed section -> DataStream,
// and finally reads a partly loaded (sparse) source the way a viewer would
// that fetches byte ranges on demand.
#include <oru/oru.h>

#include <zlib.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <string>
#include <vector>

namespace {

// A tiny "model file": big-endian magic and counts, then float vertices,
// then three lines of text, all gzip-compressed on disk.
std::string MakeModel() {
  std::string raw;
  auto put32 = [&raw](uint32_t v) {
    for (int shift = 24; shift >= 0; shift -= 8) raw.push_back(static_cast<char>(v >> shift));
  };
  put32(0x4F525530);  // "ORU0"
  put32(3);           // vertex count
  const float vertices[] = {0.5f, 1.25f, -2.0f};
  for (float f : vertices) {
    uint32_t bits;
    std::memcpy(&bits, &f, 4);
    put32(bits);
  }
  raw += "name: demo triangle\r\nauthor: liboru\nunits: metres\n";
  return raw;
}

bool WriteGzip(const std::string& path, const std::string& data) {
  gzFile f = gzopen(path.c_str(), "wb9");
  if (f == nullptr) return false;
  const bool ok =
      gzwrite(f, data.data(), static_cast<unsigned>(data.size())) == static_cast<int>(data.size());
  return gzclose(f) == Z_OK && ok;
}

}  // namespace

int main() {
  namespace fs = std::filesystem;
  const fs::path dir = fs::temp_directory_path() / "oru_demo";
  fs::create_directories(dir);
  const std::string path = (dir / "model.bin.gz").string();
  if (!WriteGzip(path, MakeModel())) {
    std::cerr << "cannot write " << path << "\n";
    return 1;
  }

  // 1. A file source, opened lazily; the whole file is one gzip stream.
  auto file = oru::FileDataSource::Create(path);
  if (!file) return 1;
  std::cout << "file " << path << ": " << file->GetFileSize() << " bytes on disk\n";

  oru::DataStream in(file);
  in.SetSrcEndianess(oru::BigEndian);
  if (!in.StartCompressedSection()) return 1;

  uint32_t magic = 0, count = 0;
  in.Read(magic);
  in.Read(count);
  std::vector<float> vertices(count);
  in.Read(vertices.data(), count);
  std::printf("magic %08X, %u vertices:", magic, count);
  for (float v : vertices) std::printf(" %g", v);
  std::printf("\n");

  std::string line;
  while (in.Read(&line)) std::cout << "  text: " << line << "\n";
  std::cout << "inflated " << in.GetBytesRead() << " bytes, progress " << int(in.GetProgress())
            << "%\n";
  in.EndCompressedSection();

  // 2. A sparse source: 1 MiB announced, two ranges loaded so far.
  auto sparse = oru::SparseDataSource::Create(1 << 20);
  auto head = sparse->AddSection(0, 16);
  std::memcpy(sparse->GetSection(head).data, "HEADER-LOADED...", 16);
  auto tail = sparse->AddSection(4096, 8);
  std::memcpy(sparse->GetSection(tail).data, "TAILDATA", 8);
  std::cout << "sparse: [0,16) loaded " << sparse->RangeIsValid(0, 16) << ", [0,4104) loaded "
            << sparse->RangeIsValid(0, 4104) << "\n";

  oru::DataStream s(sparse);
  char text[17] = {};
  s.Read(text, 16);
  std::cout << "sparse read: " << text << "\n";
  try {
    char c;
    s.Read(c);
  } catch (const oru::DataUnavailable& e) {
    std::cout << "reading byte 16: " << e.what() << " -> fetch it and retry\n";
  }
  s.SetPosition(4096);
  // A seek forgets the current section: the fetcher delivers the range again.
  auto again = sparse->AddSection(4096, 8);
  std::memcpy(sparse->GetSection(again).data, "TAILDATA", 8);
  char tailText[9] = {};
  s.Read(tailText, 8);
  std::cout << "sparse read at 4096: " << tailText << "\n";

  fs::remove_all(dir);
  return 0;
}
