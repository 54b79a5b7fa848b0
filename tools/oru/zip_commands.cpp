// oru zip list|cat|test|create: ZIP archives, read through ZipDataStream and
// written through ZipWriter. `list` and `test` print what unzip -lv and
// unzip -t print, so that their outputs can be compared line by line.
#include <oru/data_source.h>
#include <oru/file_data_source.h>
#include <oru/zip_data_stream.h>
#include <oru/zip_writer.h>

#include <zlib.h>

#include <cinttypes>
#include <cstdio>

#include "oru_command.h"
#include "progress.h"
#include "zip_directory.h"

namespace oru::tool {

namespace {

constexpr std::size_t CHUNK = 1 << 16;

// unzip's compression factor: per mille saved, rounded to whole per cent,
// with its sign in front ("53%", "-2%", "0%").
std::string CompressionFactor(uint64_t size, uint64_t compressed) {
  int64_t perMille = 0;
  if (size != 0) {
    const uint64_t denominator = size > 2000000 ? size / 1000 : size;
    const uint64_t scale = size > 2000000 ? 1 : 1000;
    const uint64_t saved = size >= compressed ? size - compressed : compressed - size;
    perMille = static_cast<int64_t>((scale * saved + denominator / 2) / denominator);
    if (size < compressed) perMille = -perMille;
  }
  const int64_t percent = perMille < 0 ? -((-perMille + 5) / 10) : (perMille + 5) / 10;
  return std::to_string(percent) + "%";
}

std::shared_ptr<ZipDataStream> OpenArchive(std::string const& path) {
  auto source = FileDataSource::Create(path);
  if (!source) throw Failure(path + ": cannot be read");
  auto zip = ZipDataStream::Create(source);
  if (!zip->IsValid()) throw Failure(path + ": not a ZIP archive");
  return zip;
}

// The member as the library serves it, or null with `reason` set to why it
// was refused (the library says so on stderr; that line is taken in here).
std::shared_ptr<DataSource> ReadMember(ZipDataStream& zip, std::string const& name,
                                       std::string& reason) {
  std::shared_ptr<DataSource> member;
  std::string said;
  {
    StderrCapture capture;
    member = zip.GetDataSourceForFile(name);
    said = capture.Text();
  }
  reason.clear();
  if (member) return member;
  // "Cannot read ZIP member "<name>" of "<id>" (<reason>)."
  const auto open = said.rfind(" (");
  const auto close = said.rfind(").");
  if (open != std::string::npos && close != std::string::npos && close > open) {
    reason = said.substr(open + 2, close - open - 2);
  } else {
    reason = "no such member";
  }
  return nullptr;
}

int List(std::string const& path) {
  const ZipDirectory directory = ReadZipDirectory(path);
  std::printf("Archive:  %s\n", path.c_str());
  std::printf(" Length   Method    Size  Cmpr    Date    Time   CRC-32   Name\n");
  std::printf("--------  ------  ------- ---- ---------- ----- --------  ----\n");
  uint64_t size = 0;
  uint64_t compressed = 0;
  for (ZipEntry const& e : directory.entries) {
    std::printf("%8" PRIu64 "  %-7s%8" PRIu64 " %4s %04u-%02u-%02u %02u:%02u %08" PRIx32 "  %s\n",
                e.size, MethodName(e).c_str(), e.compressedSize,
                CompressionFactor(e.size, e.compressedSize).c_str(), 1980u + (e.dosDate >> 9),
                (e.dosDate >> 5) & 15u, e.dosDate & 31u, e.dosTime >> 11, (e.dosTime >> 5) & 63u,
                e.crc, e.name.c_str());
    size += e.size;
    compressed += e.compressedSize;
  }
  const std::size_t n = directory.entries.size();
  std::printf("--------          -------  ---                            -------\n");
  std::printf("%8" PRIu64 "         %8" PRIu64 " %4s                            %zu file%s\n", size,
              compressed, CompressionFactor(size, compressed).c_str(), n, n == 1 ? "" : "s");
  return 0;
}

int Cat(std::string const& path, std::string const& name) {
  ReadZipDirectory(path);  // the precise reason when the archive is damaged
  auto zip = OpenArchive(path);
  std::string reason;
  auto member = ReadMember(*zip, name, reason);
  if (!member) throw Failure(path + ": " + Printable(name) + ": " + reason);
  std::vector<std::byte> buffer(CHUNK);
  uint64_t n;
  while ((n = member->GetBytes(buffer.data(), buffer.size())) > 0) {
    WriteOut(buffer.data(), static_cast<std::size_t>(n));
  }
  return 0;
}

int Test(std::string const& path, bool quiet) {
  const ZipDirectory directory = ReadZipDirectory(path);
  auto zip = OpenArchive(path);
  uint64_t total = 0;
  for (ZipEntry const& e : directory.entries) total += e.size;
  Progress progress("testing " + path, total, quiet);
  uint64_t done = 0;
  std::size_t failed = 0;
  std::printf("Archive:  %s\n", path.c_str());
  std::vector<std::byte> buffer(CHUNK);
  for (ZipEntry const& e : directory.entries) {
    std::string verdict = "OK";
    std::string reason;
    auto member = ReadMember(*zip, e.name, reason);
    if (!member) {
      verdict = "FAILED (" + reason + ")";
    } else {
      // The library checked the CRC-32 already; counted again here, beside
      // the size, against what the directory says.
      uLong crc = crc32(0, nullptr, 0);
      uint64_t size = 0;
      uint64_t n;
      while ((n = member->GetBytes(buffer.data(), buffer.size())) > 0) {
        crc = crc32(crc, reinterpret_cast<Bytef const*>(buffer.data()), static_cast<uInt>(n));
        size += n;
        progress.Update(done + size);
      }
      char text[64];
      if (crc != e.crc) {
        std::snprintf(text, sizeof text, "bad CRC %08lx  (should be %08" PRIx32 ")", crc, e.crc);
        verdict = text;
      } else if (size != e.size) {
        verdict =
            "bad length " + std::to_string(size) + "  (should be " + std::to_string(e.size) + ")";
      }
    }
    done += e.size;
    if (verdict != "OK") ++failed;
    std::printf("    testing: %-22s   %s\n", e.name.c_str(), verdict.c_str());
  }
  if (failed == 0) {
    std::printf("No errors detected in compressed data of %s.\n", path.c_str());
    return 0;
  }
  std::printf("At least one error was detected in %s.\n", path.c_str());
  Complain(path + ": " + std::to_string(failed) + " of " +
           std::to_string(directory.entries.size()) + " members failed the test");
  return 1;
}

// The name a file is stored under: the path as given, without a leading
// "/" or "./" (as zip stores it).
std::string MemberName(std::string path) {
  for (;;) {
    if (path.rfind("./", 0) == 0) {
      path.erase(0, 2);
    } else if (!path.empty() && path[0] == '/') {
      path.erase(0, 1);
    } else {
      return path;
    }
  }
}

int Create(std::string const& archive, std::vector<std::string> const& files) {
  ZipWriter writer;
  for (std::string const& file : files) {
    if (file == "-") throw Failure("-: members must be files, not standard input");
    std::fclose(OpenInput(file));  // the clear reasons for missing files and directories
    auto source = FileDataSource::Create(file);
    const std::string name = MemberName(file);
    if (!source || name.empty() || !writer.AddFile(source, name)) {
      throw Failure(file + ": cannot be added to the archive");
    }
  }
  auto zip = writer.GetDSForBuffer();
  std::string bytes(static_cast<std::size_t>(zip ? zip->GetFileSize() : 0), '\0');
  if (zip &&
      zip->GetBytes(reinterpret_cast<std::byte*>(bytes.data()), bytes.size()) != bytes.size()) {
    throw Failure(archive + ": the archive could not be built");
  }
  WriteFileAtomically(archive, bytes);
  return 0;
}

}  // namespace

void AddZipCommands(CLI::App& app, Context& ctx) {
  auto* zip = app.add_subcommand("zip", "ZIP archives: list, cat, test, create");
  zip->require_subcommand(1, 1);

  struct Args {
    std::string archive;
    std::string member;
    std::vector<std::string> files;
  };
  auto args = std::make_shared<Args>();

  auto* list = zip->add_subcommand("list", "Lists the members like unzip -lv");
  list->add_option("ARCHIVE", args->archive, "The ZIP archive")->required();
  list->callback([&ctx, args] { ctx.run = [args] { return List(args->archive); }; });

  auto* cat = zip->add_subcommand("cat", "Writes one member to standard output");
  cat->add_option("ARCHIVE", args->archive, "The ZIP archive")->required();
  cat->add_option("MEMBER", args->member, "The member's path in the archive")->required();
  cat->callback([&ctx, args] { ctx.run = [args] { return Cat(args->archive, args->member); }; });

  auto* test = zip->add_subcommand(
      "test", "Reads every member and checks its CRC-32 and size, like unzip -t");
  test->add_option("ARCHIVE", args->archive, "The ZIP archive")->required();
  test->callback(
      [&ctx, args] { ctx.run = [args, &ctx] { return Test(args->archive, ctx.quiet); }; });

  auto* create = zip->add_subcommand(
      "create", "Writes a new archive of the files (written whole or not at all)");
  create->add_option("ARCHIVE", args->archive, "The archive to write")->required();
  create->add_option("FILE", args->files, "Files to store, under the names given")->required();
  create->callback(
      [&ctx, args] { ctx.run = [args] { return Create(args->archive, args->files); }; });
}

}  // namespace oru::tool
