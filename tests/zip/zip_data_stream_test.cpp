// ZIP reading: archives made by the zip tool and Python's zipfile, the URL
// grammar, the registry, the lazy directory and hostile archives.
#include <oru/file_data_source.h>
#include <oru/zip_data_stream.h>
#include <oru/zip_writer.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <map>
#include <stdexcept>
#include <thread>
#include <vector>

#include "support/test_util.h"

namespace oru::test {
namespace {

// An in-memory archive whose reads are counted, to see how much of the
// directory a lookup touches.
class CountingSource : public InMemoryDataSource {
public:
  explicit CountingSource(std::string bytes) : InMemoryDataSource(std::move(bytes), false) {}
  uint64_t GetBytes(std::byte* dst, uint64_t count) override {
    ++reads;
    return InMemoryDataSource::GetBytes(dst, count);
  }
  int reads = 0;
};

// Builds an archive with our own writer; its correctness against outside
// tools is checked in the writer's tests.
std::string MakeArchive(const std::map<std::string, std::string>& members) {
  ZipWriter writer;
  for (const auto& [name, data] : members)
    EXPECT_TRUE(writer.AddFile(InMemoryDataSource::Create(std::string(data), false), name));
  return Contents(writer.GetDSForBuffer());
}

TEST(ZipDataStreamTools, MembersMadeByTheZipToolReadBackExactly) {
  if (!HaveTool("zip")) GTEST_SKIP() << "needs the zip tool";
  TempDir dir;
  const std::map<std::string, std::string> files = {
      {"docs/readme.txt", std::string(2000, 'r') + "\nend\n"},
      {"data/blob.bin", RandomBytes(300 * 1024, 1)},
      {"data/empty.bin", ""},
      {"Mixed Case.TXT", "case"}};
  for (const auto& [name, data] : files) {
    std::filesystem::create_directories(std::filesystem::u8path(dir.File(name)).parent_path());
    WriteFile(dir.File(name), data);
  }
  const std::string zip = dir.File("a.zip");
  // Deflated members, one stored member (-0 for a second archive pass) and a
  // member from a pipe, which carries a data descriptor.
  ASSERT_EQ(oru::test::Run(
                "cd '" + dir.File("") + "' && zip -q -r a.zip docs data 'Mixed Case.TXT'" +
                " && printf 'from a pipe' | zip -q a.zip - && zip -q -0 a.zip docs/readme.txt"),
            0);
  auto archive = ZipDataStream::Create(FileDataSource::Create(zip));
  ASSERT_TRUE(archive->IsValid());
  EXPECT_EQ(archive->GetZipFileName(), zip);
  EXPECT_EQ(archive->ComponentUrl("x/y"), "_qd_zip://" + zip + "/x/y");

  std::vector<std::string> names;
  ASSERT_TRUE(archive->ListContents(&names));
  EXPECT_NE(std::find(names.begin(), names.end(), "data/"), names.end());  // a directory entry
  for (const auto& [name, data] : files)
    EXPECT_EQ(Contents(ZipDataStream::FindDataSource(archive->GetUniqueId() + "/" + name)), data)
        << name;
  EXPECT_EQ(Contents(archive->GetDataSourceForFile("-")), "from a pipe");
  EXPECT_EQ(Contents(archive->GetDataSourceForFile("mixed case.txt")), "case");
}

TEST(ZipDataStreamTools, PythonZip64WithMoreThan65535Members) {
  if (!HaveTool("python3")) GTEST_SKIP() << "needs python3";
  TempDir dir;
  const std::string zip = dir.File("many.zip");
  ASSERT_EQ(
      oru::test::Run("python3 -c \"import zipfile\n"
                     "with zipfile.ZipFile('" +
                     zip +
                     "', 'w', zipfile.ZIP_STORED) as z:\n"
                     "    for i in range(70000): z.writestr('m/%d.txt' % i, 'member %d' % i)\""),
      0);
  auto archive = ZipDataStream::Create(FileDataSource::Create(zip));
  ASSERT_TRUE(archive->IsValid());
  std::vector<std::string> names;
  ASSERT_TRUE(archive->ListContents(&names));
  EXPECT_EQ(names.size(), 70000u);
  for (int i : {0, 1, 65535, 65536, 69999})
    EXPECT_EQ(Contents(archive->GetDataSourceForFile("m/" + std::to_string(i) + ".txt")),
              "member " + std::to_string(i));
  EXPECT_EQ(archive->GetDataSourceForFile("m/70000.txt"), nullptr);
}

TEST(ZipDataStreamTools, DuplicateAndOverlongNames) {
  if (!HaveTool("python3")) GTEST_SKIP() << "needs python3";
  TempDir dir;
  const std::string zip = dir.File("odd.zip");
  ASSERT_EQ(oru::test::Run("python3 -W ignore -c \"import zipfile\n"
                           "with zipfile.ZipFile('" +
                           zip +
                           "', 'w', zipfile.ZIP_DEFLATED) as z:\n"
                           "    z.writestr('dup.txt', 'first'); z.writestr('DUP.txt', 'second')\n"
                           "    z.writestr('n' * 3000, 'long')\""),
            0);
  auto archive = ZipDataStream::Create(FileDataSource::Create(zip));
  EXPECT_EQ(Contents(archive->GetDataSourceForFile("dup.txt")), "first");
  std::vector<std::string> names;
  ASSERT_TRUE(archive->ListContents(&names));
  ASSERT_EQ(names.size(), 3u);
  EXPECT_EQ(names[2], std::string(2048, 'n'));  // cut at the name buffer
  EXPECT_EQ(Contents(archive->GetDataSourceForFile(std::string(2048, 'n'))), "long");
}

TEST(ZipDataStreamUrl, ExtractFileName) {
  EXPECT_EQ(ZipDataStream::ExtractFileName("zipdatastream://7/a/b.txt"), "a/b.txt");
  EXPECT_EQ(ZipDataStream::ExtractFileName("zipdatastream://7/"), "");
  EXPECT_EQ(ZipDataStream::ExtractFileName("zipdatastream://7"), "zipdatastream://7");
  EXPECT_EQ(ZipDataStream::ExtractFileName("zipdatastream:///x"), "zipdatastream:///x");
  EXPECT_EQ(ZipDataStream::ExtractFileName("other://x/y"), "other://x/y");
  EXPECT_EQ(ZipDataStream::ExtractFileName(""), "");
}

TEST(ZipDataStreamUrl, LookupIsCaseInsensitiveAndTakesBackslashes) {
  auto archive = ZipDataStream::Create(
      InMemoryDataSource::Create(MakeArchive({{"A/B.TXT", "payload"}}), false));
  ASSERT_TRUE(archive->IsValid());
  const std::string id = archive->GetUniqueId();
  EXPECT_EQ(id.rfind("zipdatastream://", 0), 0u);
  EXPECT_EQ(ZipDataStream::FindDataStream(id), archive);
  EXPECT_EQ(Contents(ZipDataStream::FindDataSource(id + "/a/b.txt")), "payload");
  EXPECT_EQ(Contents(archive->GetDataSourceForFile("A\\b.txt")), "payload");
  EXPECT_EQ(archive->ComponentUrl("x"), "x");  // no file name behind a memory source

  EXPECT_EQ(ZipDataStream::FindDataSource(id), nullptr);        // no slash
  EXPECT_EQ(ZipDataStream::FindDataSource(id + "/"), nullptr);  // no member
  EXPECT_EQ(ZipDataStream::FindDataSource(id + "/missing"), nullptr);
  EXPECT_EQ(ZipDataStream::FindDataSource("zipdatastream://999999999/a/b.txt"), nullptr);
  EXPECT_EQ(ZipDataStream::FindDataSource("short"), nullptr);
  EXPECT_EQ(ZipDataStream::FindDataStream(id + "/"), nullptr);  // exact ids only

  archive.reset();  // a destroyed archive's URLs yield null
  EXPECT_EQ(ZipDataStream::FindDataSource(id + "/a/b.txt"), nullptr);
  EXPECT_EQ(ZipDataStream::FindDataStream(id), nullptr);
}

TEST(ZipDataStreamUrl, IdsAreUniqueAndMembersAreIndependentCopies) {
  const std::string bytes = MakeArchive({{"m", "abc"}});
  auto a = ZipDataStream::Create(InMemoryDataSource::Create(std::string(bytes), true));
  auto b = ZipDataStream::Create(InMemoryDataSource::Create(std::string(bytes), false));
  EXPECT_NE(a->GetUniqueId(), b->GetUniqueId());
  auto m1 = a->GetDataSourceForFile("m");
  auto m2 = a->GetDataSourceForFile("m");
  ASSERT_TRUE(m1 && m2);
  EXPECT_NE(static_cast<const InMemoryDataSource&>(*m1).GetDataBuffer(),
            static_cast<const InMemoryDataSource&>(*m2).GetDataBuffer());
  EXPECT_TRUE(m1->IsTempFile());  // members inherit the archive source's flag
  EXPECT_FALSE(b->GetDataSourceForFile("m")->IsTempFile());
}

TEST(ZipDataStreamDirectory, EachEntryIsReadAtMostOnce) {
  std::map<std::string, std::string> members;
  for (int i = 0; i < 500; ++i) members["f" + std::to_string(i)] = std::to_string(i);
  auto counting = std::make_shared<CountingSource>(MakeArchive(members));
  auto archive = ZipDataStream::Create(counting);
  ASSERT_TRUE(archive->IsValid());

  int before = counting->reads;
  ASSERT_NE(archive->GetDataSourceForFile("f99"), nullptr);  // the last in name order
  const int fullScan = counting->reads - before;

  before = counting->reads;
  ASSERT_NE(archive->GetDataSourceForFile("F0"), nullptr);  // seen by the scan
  const int known = counting->reads - before;
  EXPECT_LT(known * 20, fullScan) << "a known member must not rescan the directory";

  before = counting->reads;
  EXPECT_EQ(archive->GetDataSourceForFile("nope"), nullptr);  // scans the rest once
  EXPECT_GT(counting->reads, before);
  before = counting->reads;
  EXPECT_EQ(archive->GetDataSourceForFile("nope2"), nullptr);
  EXPECT_EQ(counting->reads, before) << "a miss after a full scan must not read";
}

TEST(ZipDataStreamHostile, NotAnArchive) {
  auto archive = ZipDataStream::Create(InMemoryDataSource::Create(RandomBytes(5000, 3), false));
  EXPECT_FALSE(archive->IsValid());
  EXPECT_EQ(archive->GetDataSourceForFile("a"), nullptr);
  std::vector<std::string> names;
  testing::internal::CaptureStderr();
  EXPECT_FALSE(archive->ListContents(&names));
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "Failed to get ToC for ZIP file \"" + archive->GetUniqueId() + "\"\n");
  EXPECT_FALSE(ZipDataStream::Create(nullptr)->IsValid());
}

TEST(ZipDataStreamHostile, TruncatedAndCorruptArchives) {
  const std::string data = RandomBytes(100000, 4);
  const std::string good = MakeArchive({{"a.bin", data}, {"b.txt", "bbb"}});
  // Every cut: never a crash; a member is either absent or of full size.
  for (size_t cut = 0; cut < good.size(); cut += good.size() / 97 + 1) {
    auto archive = ZipDataStream::Create(InMemoryDataSource::Create(good.substr(0, cut), false));
    if (auto m = archive->GetDataSourceForFile("a.bin")) EXPECT_EQ(m->GetFileSize(), data.size());
  }
  // Flip bytes inside the compressed data: the member keeps its declared
  // size, the part that could not be inflated is zero.
  std::string corrupt = good;
  for (size_t i = 200; i < 220; ++i) corrupt[i] = static_cast<char>(corrupt[i] ^ 0x5A);
  auto archive = ZipDataStream::Create(InMemoryDataSource::Create(std::move(corrupt), false));
  ASSERT_TRUE(archive->IsValid());
  auto m = archive->GetDataSourceForFile("a.bin");
  ASSERT_NE(m, nullptr);
  EXPECT_EQ(m->GetFileSize(), data.size());
  EXPECT_NE(Contents(m), data);
  EXPECT_EQ(Contents(archive->GetDataSourceForFile("b.txt")), "bbb");
}

TEST(ZipDataStreamHostile, SizesThatCannotBeTrueGiveNull) {
  const std::string text(100000, 'a');  // deflates about 1000 to 1
  std::string zip = MakeArchive({{"big", text}, {"raw.png", "stored"}});
  auto patch = [&zip](const std::string& name, uint32_t size) {
    // The uncompressed size sits at offset 24 of the central directory
    // record (PK 1 2) that carries the name at offset 46.
    size_t at = 0;
    while ((at = zip.find("PK\x01\x02", at)) != std::string::npos &&
           zip.compare(at + 46, name.size(), name) != 0)
      ++at;
    ASSERT_NE(at, std::string::npos);
    for (int i = 0; i < 4; ++i) zip[at + 24 + i] = static_cast<char>(size >> (8 * i));
  };
  {
    auto archive = ZipDataStream::Create(InMemoryDataSource::Create(std::string(zip), false));
    EXPECT_EQ(Contents(archive->GetDataSourceForFile("big")), text);  // the honest ratio is fine
  }
  patch("big", 0xFFFF0000u);  // far beyond 1032 times its compressed bytes
  patch("raw.png", 7);        // a stored member cannot grow
  auto archive = ZipDataStream::Create(InMemoryDataSource::Create(std::move(zip), false));
  ASSERT_TRUE(archive->IsValid());
  EXPECT_EQ(archive->GetDataSourceForFile("big"), nullptr);
  EXPECT_EQ(archive->GetDataSourceForFile("raw.png"), nullptr);
}

// A source that fails by throwing after a given number of reads.
class FailingSource : public InMemoryDataSource {
public:
  FailingSource(std::string bytes, int budget)
      : InMemoryDataSource(std::move(bytes), false), m_budget(budget) {}
  uint64_t GetBytes(std::byte* dst, uint64_t count) override {
    if (m_budget-- <= 0) throw std::runtime_error("device gone");
    return InMemoryDataSource::GetBytes(dst, count);
  }

private:
  int m_budget;
};

TEST(ZipDataStreamHostile, SourceThatThrowsMidRead) {
  // The exception must come back as a failed read, never cross the ZIP
  // library's C code; whatever read fails, the result is null or full size.
  const std::string zip = MakeArchive({{"a.bin", RandomBytes(50000, 8)}, {"b.txt", "b"}});
  int valid = 0;
  for (int budget = 0; budget < 20000; budget = budget * 5 / 4 + 1) {
    auto archive = ZipDataStream::Create(std::make_shared<FailingSource>(zip, budget));
    valid += archive->IsValid();
    if (auto m = archive->GetDataSourceForFile("a.bin")) EXPECT_EQ(m->GetFileSize(), 50000u);
  }
  EXPECT_GT(valid, 0);  // some budgets let the directory be read
}

TEST(ZipDataStreamRegistry, ConcurrentCreateDestroyAndLookup) {
  const std::string bytes = MakeArchive({{"x.txt", "x"}});
  std::atomic<bool> stop{false};
  std::vector<std::string> ids;
  {
    auto seed = ZipDataStream::Create(InMemoryDataSource::Create(std::string(bytes), false));
    ids.push_back(seed->GetUniqueId());
  }
  std::vector<std::thread> threads;
  std::atomic<int> found{0};
  for (int t = 0; t < 2; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 300; ++i) {
        auto a = ZipDataStream::Create(InMemoryDataSource::Create(std::string(bytes), false));
        if (ZipDataStream::FindDataSource(a->GetUniqueId() + "/x.txt")) ++found;
      }
    });
  }
  // Lookups race with creation and destruction. They only promote (and drop)
  // archives: extracting a member would use an archive that its creator is
  // reading at the same time, and one archive is for one thread at a time.
  // Member lookups go to ids that are never given out, for the miss path.
  for (int t = 0; t < 2; ++t) {
    threads.emplace_back([&] {
      while (!stop) {
        for (int n = 0; n < 50; ++n) {
          ZipDataStream::FindDataStream("zipdatastream://" + std::to_string(n));
          ZipDataStream::FindDataSource("zipdatastream://" + std::to_string(1000000 + n) +
                                        "/x.txt");
        }
      }
    });
  }
  threads[0].join();
  threads[1].join();
  stop = true;
  threads[2].join();
  threads[3].join();
  EXPECT_EQ(found.load(), 600);
  EXPECT_EQ(ZipDataStream::FindDataStream(ids[0]), nullptr);
}

}  // namespace
}  // namespace oru::test
