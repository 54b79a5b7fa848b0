// The liboru demo: the data road from the download cache to typed reads.
//
// It packs a scene archive (a small gzip-compressed model file and a readme)
// and serves it from a local HTTP server on 127.0.0.1 at a free port, then
// asks the on-disk cache for it by its URL through FetchIntoCache. On the
// first run the cache does not have it: it is downloaded and added. A later
// run finds it in the cache, which survives the process, and the server
// confirms the cached copy with 304 Not Modified. (Built without liboru-net,
// the demo adds the archive to the cache directly instead.) Either way the archive is then read the
// way an application does: cached file source -> ZipDataStream -> member by "zipdatastream://" URL
// -> DataStream with a compressed section -> typed reads, and LineReader for the text. Finally it
// reads a partly loaded (sparse) source the way a viewer would that fetches byte ranges on demand.
// The cached file is opened again through its "file://" URL, and every stage is recorded as an
// apitrace::Range into a trace file (named at the end) that Perfetto's UI
// shows.
//
//   oru_demo            use the cache as it is
//   oru_demo --fresh    drop the scene from the cache first (as on a first run)
//   oru_demo --heap-trace FILE
//                       record the library's allocations into a heap trace
//                       for heaptrack_print (with the live allocation hook,
//                       CMake option ORU_LIVE_ALLOCATION_HOOK=ON)
#include <oru/oru.h>

#include <zlib.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <optional>
#include <string>
#include <vector>

#include "demo_fetch.h"

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

// gzip-compresses `data` in memory: the gzip header, then raw deflate and
// the trailer, all through zlib.
std::string Gzip(const std::string& data) {
  z_stream z{};
  deflateInit2(&z, 9, Z_DEFLATED, 31, 8, Z_DEFAULT_STRATEGY);
  std::string out(deflateBound(&z, static_cast<uLong>(data.size())) + 32, '\0');
  z.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(data.data()));
  z.avail_in = static_cast<uInt>(data.size());
  z.next_out = reinterpret_cast<Bytef*>(out.data());
  z.avail_out = static_cast<uInt>(out.size());
  deflate(&z, Z_FINISH);
  out.resize(z.total_out);
  deflateEnd(&z);
  return out;
}

// The scene archive: a gzip-compressed model file and a readme, packed in
// memory. Its bytes are the same on every run, so the server's ETag is too.
std::string PackScene() {
  oru::ZipWriter writer;
  writer.AddFile(oru::InMemoryDataSource::Create(Gzip(MakeModel()), false), "models/cube.bin.gz");
  writer.AddFile(
      oru::InMemoryDataSource::Create(
          std::string("\xEF\xBB\xBFScene of one cube.\r\nMade by the liboru demo.\n"), false),
      "README.txt");
  auto archiveBytes = writer.GetDSForBuffer();
  auto* block = static_cast<oru::InMemoryDataSource*>(archiveBytes.get())->GetDataBuffer();
  return std::string(reinterpret_cast<const char*>(block), archiveBytes->GetFileSize());
}

}  // namespace

int RunDemo(bool fresh) {
  // 1. Ask the download cache for the scene; fetch and add it when missing.
  std::optional<oru::apitrace::Range> stage;
  stage.emplace("cache");
  std::string sceneUrl;
  auto file = FetchScene(fresh, PackScene(), sceneUrl);
  if (!file) return 1;

  // 2. Open it as an archive of members addressed by URL, reached again by
  // the cached file's own "file://" URL.
  stage.emplace("archive");
  auto* cached = dynamic_cast<oru::FileDataSource*>(file.get());
  if (cached == nullptr) return 1;
  const std::string fileUrl = oru::GetURLForFileSource(cached->GetFileName());
  std::cout << "the cached copy is " << fileUrl << " (a ." << oru::FindURLFileExtension(sceneUrl)
            << " file by its URL)\n";
  file = oru::GetFileSourceForURL(fileUrl);
  if (!file) return 1;
  auto zip = oru::ZipDataStream::Create(file);
  std::vector<std::string> members;
  if (!zip->IsValid() || !zip->ListContents(&members)) return 1;
  std::cout << "archive (" << file->GetFileSize() << " bytes) is " << zip->GetUniqueId() << ":\n";
  for (const auto& m : members) std::cout << "  " << m << "\n";

  const std::string url = zip->GetUniqueId() + "/Models/CUBE.bin.gz";  // any case
  auto member = oru::ZipDataStream::FindDataSource(url);
  if (!member) return 1;
  std::cout << "member " << url << ": " << member->GetFileSize() << " bytes\n";

  // 3. Typed reads: big-endian header and floats inside a gzip section.
  stage.emplace("typed reads");
  oru::DataStream in(member);
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
  std::cout << "inflated " << in.GetBytesRead() << " bytes\n";
  in.EndCompressedSection();

  // 4. Text lines, with the byte-order mark recognised.
  stage.emplace("text lines");
  oru::DataStream readme(oru::ZipDataStream::FindDataSource(zip->GetUniqueId() + "/readme.txt"));
  oru::LineReader reader(&readme, 0);
  while (reader.ReadLine()) std::cout << "  readme: " << reader.GetString() << "\n";

  // 5. A sparse source: 1 MiB announced, two ranges loaded so far.
  stage.emplace("sparse reads");
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
  return 0;
}

int main(int argc, char** argv) {
  bool fresh = false;
  std::string traceFile;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--fresh") {
      fresh = true;
    } else if (arg == "--heap-trace" && i + 1 < argc) {
      traceFile = argv[++i];
    } else {
      std::cerr << "usage: oru_demo [--fresh] [--heap-trace FILE]\n";
      return 2;
    }
  }
  int status = 0;
  const std::string stages =
      (std::filesystem::temp_directory_path() / "oru_demo_stages.json").string();
  const bool recording = oru::apitrace::StartCapture(stages);
  {
    // Traces the whole run; the file is complete when the object goes away.
    oru::HeapTrace trace(traceFile);
    status = RunDemo(fresh);
  }
  oru::apitrace::StopCapture();
  if (recording) {
    std::cout << "stages recorded in " << stages << " (open it in ui.perfetto.dev)\n";
  }
  if (!traceFile.empty()) {
    std::cout << "heap trace written to " << traceFile
              << (oru::IsAllocationEventHookLive()
                      ? "\n"
                      : " (header only: this build's allocation hook is inert)\n");
  }
  return status;
}
