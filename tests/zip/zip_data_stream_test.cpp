// ZIP reading: archives made by the zip tool and Python's zipfile, the URL
// grammar, the registry, the lazy directory and hostile archives.
#include <oru/file_data_source.h>
#include <oru/zip_data_stream.h>
#include <oru/zip_writer.h>

#include <gtest/gtest.h>
#include <zlib.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstring>
#include <functional>
#include <map>
#include <stdexcept>
#include <thread>
#include <vector>

#include "support/test_util.h"

namespace oru::test {
namespace {

// An in-memory archive that counts the bytes read from it, to see how much
// of the directory a lookup touches, and fails by throwing once `budget`
// reads are used up.
class ProbeSource : public InMemoryDataSource {
public:
  explicit ProbeSource(std::string bytes, int budget = INT_MAX)
      : InMemoryDataSource(std::move(bytes), false), budget(budget) {}
  uint64_t GetBytes(std::byte* dst, uint64_t count) override {
    if (budget-- <= 0) throw std::runtime_error("device gone");
    const uint64_t got = InMemoryDataSource::GetBytes(dst, count);
    read += got;
    return got;
  }
  uint64_t read = 0;
  int budget;
};

// Builds an archive with our own writer; its correctness against outside
// tools is checked in the writer's tests.
std::string MakeArchive(const std::map<std::string, std::string>& members) {
  ZipWriter writer;
  for (const auto& [name, data] : members)
    EXPECT_TRUE(writer.AddFile(InMemoryDataSource::Create(std::string(data), false), name));
  return Contents(writer.GetDSForBuffer());
}

std::shared_ptr<ZipDataStream> Open(std::string bytes) {
  return ZipDataStream::Create(InMemoryDataSource::Create(std::move(bytes), false));
}

// Archive bytes with little-endian field access, to edit archives the way a
// hostile or foreign writer would.
struct ZipBytes {
  std::string bytes;

  uint32_t Get(size_t at, int width) const {
    uint32_t v = 0;
    for (int i = width; i-- > 0;) v = v << 8 | static_cast<unsigned char>(bytes.at(at + i));
    return v;
  }
  void Put(size_t at, uint32_t v, int width) {
    for (int i = 0; i < width; ++i) bytes.at(at + i) = static_cast<char>(v >> (8 * i));
  }
  // The central record that carries `name`, and its local header.
  size_t Central(const std::string& name) const {
    for (size_t at = 0; (at = bytes.find("PK\x01\x02", at)) != std::string::npos; ++at)
      if (Get(at + 28, 2) == name.size() && bytes.compare(at + 46, name.size(), name) == 0)
        return at;
    throw std::runtime_error("no entry " + name);
  }
  size_t Local(const std::string& name) const { return Get(Central(name) + 42, 4); }
  // Drops the zero padding ZipWriter leaves after the end record.
  ZipBytes& Trim() {
    bytes.resize(bytes.rfind("PK\x05\x06") + 22);
    return *this;
  }
};

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

TEST(ZipDataStreamTools, ArchivesFromPython) {
  if (!HaveTool("python3")) GTEST_SKIP() << "needs python3";
  TempDir dir;
  // many.zip: Zip64, for more than 65535 members. odd.zip: two names that
  // differ in case, and one longer than the name buffer. Then per method:
  // sizes in the local header's Zip64 field (zipfile's force_zip64), then
  // also in the central records' (as streaming writers do), then a central
  // record that declares 5 GiB for 120 bytes.
  ASSERT_EQ(RunPython(R"(import io, struct, sys, zipfile
def at(name): return sys.argv[1] + '/' + name
with zipfile.ZipFile(at('many.zip'), 'w', zipfile.ZIP_STORED) as z:
    for i in range(70000): z.writestr('m/%d.txt' % i, 'member %d' % i)
with zipfile.ZipFile(at('odd.zip'), 'w', zipfile.ZIP_DEFLATED) as z:
    z.writestr('dup.txt', 'first'); z.writestr('DUP.txt', 'second'); z.writestr('n' * 3000, 'long')
def zip64_central(data, declared):
    end = data.rfind(b'PK\x05\x06')
    start = p = struct.unpack_from('<I', data, end + 16)[0]
    out = b''
    while data[p:p + 4] == b'PK\x01\x02':
        head = bytearray(data[p:p + 46])
        packed, size, n, e, c = struct.unpack_from('<IIHHH', head, 20)
        struct.pack_into('<IIHH', head, 20, 0xFFFFFFFF, 0xFFFFFFFF, n, e + 20)
        body, comment = data[p + 46:p + 46 + n + e], data[p + 46 + n + e:p + 46 + n + e + c]
        out += bytes(head) + body + struct.pack('<HHQQ', 1, 16, declared or size, packed) + comment
        p += 46 + n + e + c
    tail = bytearray(data[end:end + 22])
    struct.pack_into('<I', tail, 12, len(out))
    return data[:start] + out + bytes(tail)
for tag, method in (('s', zipfile.ZIP_STORED), ('d', zipfile.ZIP_DEFLATED)):
    b = io.BytesIO()
    with zipfile.ZipFile(b, 'w', method) as z:
        with z.open('a.txt', 'w', force_zip64=True) as f:
            f.write(b'y' * 120)
        z.writestr('b.txt', b'hello')
    for i, data in enumerate((b.getvalue(), zip64_central(b.getvalue(), 0),
                              zip64_central(b.getvalue(), 5 << 30))):
        open(at(tag + str(i) + '.zip'), 'wb').write(data)
)",
                      {dir.File("")}),
            0);
  auto open = [&](const std::string& name) {
    return ZipDataStream::Create(FileDataSource::Create(dir.File(name) + ".zip"));
  };
  auto archive = open("many");
  std::vector<std::string> names;
  ASSERT_TRUE(archive->ListContents(&names));
  EXPECT_EQ(names.size(), 70000u);
  for (int i : {0, 1, 65535, 65536, 69999})
    EXPECT_EQ(Contents(archive->GetDataSourceForFile("m/" + std::to_string(i) + ".txt")),
              "member " + std::to_string(i));
  EXPECT_EQ(archive->GetDataSourceForFile("m/70000.txt"), nullptr);

  archive = open("odd");
  EXPECT_EQ(Contents(archive->GetDataSourceForFile("dup.txt")), "first");
  names.clear();
  ASSERT_TRUE(archive->ListContents(&names));
  ASSERT_EQ(names.size(), 3u);
  EXPECT_EQ(names[2], std::string(2048, 'n'));  // cut at the name buffer
  EXPECT_EQ(Contents(archive->GetDataSourceForFile(std::string(2048, 'n'))), "long");

  for (const char* name : {"s0", "s1", "s2", "d0", "d1", "d2"}) {
    archive = open(name);
    const bool declaresTooMuch = name[1] == '2';
    testing::internal::CaptureStderr();
    EXPECT_EQ(Contents(archive->GetDataSourceForFile("a.txt")),
              declaresTooMuch ? "<null>" : std::string(120, 'y'))
        << name;
    EXPECT_EQ(testing::internal::GetCapturedStderr().empty(), !declaresTooMuch);
    if (!declaresTooMuch) EXPECT_EQ(Contents(archive->GetDataSourceForFile("b.txt")), "hello");
  }
}

TEST(ZipDataStreamUrl, LookupIsCaseInsensitiveAndTakesBackslashes) {
  // Not an archive's URL (or no member in it): the text comes back whole.
  for (auto [url, name] : {std::pair{"zipdatastream://7/a/b.txt", "a/b.txt"},
                           {"zipdatastream://7/", ""},
                           {"zipdatastream://7", "zipdatastream://7"},
                           {"zipdatastream:///x", "zipdatastream:///x"},
                           {"other://x/y", "other://x/y"},
                           {"", ""}})
    EXPECT_EQ(ZipDataStream::ExtractFileName(url), name) << url;
  auto source = InMemoryDataSource::Create(MakeArchive({{"A/B.TXT", "payload"}}), true);
  source->SetTimeStamp("stamp");
  auto archive = ZipDataStream::Create(source);
  ASSERT_TRUE(archive->IsValid());
  const std::string id = archive->GetUniqueId();
  EXPECT_EQ(id.rfind("zipdatastream://", 0), 0u);
  auto other = Open(Contents(source));
  EXPECT_NE(id, other->GetUniqueId());
  EXPECT_EQ(ZipDataStream::FindDataStream(id), archive);
  EXPECT_EQ(Contents(ZipDataStream::FindDataSource(id + "/a/b.txt")), "payload");
  auto m1 = archive->GetDataSourceForFile("A\\b.txt"),
       m2 = archive->GetDataSourceForFile("a/B.txt");
  EXPECT_EQ(Contents(m1), "payload");
  // Every request gets a copy of its own, with the archive source's flag
  // and time stamp.
  EXPECT_NE(static_cast<const InMemoryDataSource&>(*m1).GetDataBuffer(),
            static_cast<const InMemoryDataSource&>(*m2).GetDataBuffer());
  EXPECT_TRUE(m1->IsTempFile());
  EXPECT_FALSE(other->GetDataSourceForFile("a/b.txt")->IsTempFile());
  EXPECT_EQ(m1->GetTimeStamp(), "stamp");
  // No file name behind a memory source.
  EXPECT_EQ(archive->ComponentUrl("x"), "x");

  // No slash, no member, a missing member, an id never given out, no id.
  for (const std::string& url : std::vector<std::string>{
           id, id + "/", id + "/missing", "zipdatastream://999999999/a/b.txt", "short"})
    EXPECT_EQ(ZipDataStream::FindDataSource(url), nullptr) << url;
  EXPECT_EQ(ZipDataStream::FindDataStream(id + "/"), nullptr);  // exact ids only

  archive.reset();  // a destroyed archive's URLs yield null
  EXPECT_EQ(ZipDataStream::FindDataSource(id + "/a/b.txt"), nullptr);
  EXPECT_EQ(ZipDataStream::FindDataStream(id), nullptr);
}

TEST(ZipDataStreamDirectory, TheDirectoryIsReadOnce) {
  std::map<std::string, std::string> members;
  for (int i = 0; i < 500; ++i) members["f" + std::to_string(i)] = std::to_string(i);
  auto counting = std::make_shared<ProbeSource>(MakeArchive(members));
  auto archive = ZipDataStream::Create(counting);
  ASSERT_TRUE(archive->IsValid());

  uint64_t before = counting->read;
  ASSERT_NE(archive->GetDataSourceForFile("f99"), nullptr);
  const uint64_t first = counting->read - before;
  EXPECT_GT(first, 500u * 46) << "the first lookup reads the whole directory";

  before = counting->read;
  ASSERT_NE(archive->GetDataSourceForFile("F0"), nullptr);
  EXPECT_LT((counting->read - before) * 100, first) << "a later lookup must not reread it";
  before = counting->read;
  EXPECT_EQ(archive->GetDataSourceForFile("nope"), nullptr);
  EXPECT_EQ(counting->read, before) << "a miss must not read";
}

TEST(ZipDataStreamHostile, NotAnArchive) {
  auto archive = Open(RandomBytes(5000, 3));
  EXPECT_FALSE(archive->IsValid());
  EXPECT_EQ(archive->GetDataSourceForFile("a"), nullptr);
  std::vector<std::string> names;
  testing::internal::CaptureStderr();
  EXPECT_FALSE(archive->ListContents(&names));
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "Failed to get ToC for ZIP file \"" + archive->GetUniqueId() + "\"\n");
  EXPECT_FALSE(ZipDataStream::Create(nullptr)->IsValid());
  // An end record whose directory would run past the record itself.
  ZipBytes lying{std::string("PK\x05\x06", 4) + std::string(18, '\0')};
  lying.Put(12, 100, 4);
  EXPECT_FALSE(Open(std::move(lying.bytes))->IsValid());
}

TEST(ZipDataStreamHostile, CutShortOrFailingSourcesGiveNullOrExactMembers) {
  const std::string data = RandomBytes(100000, 4);
  const std::string good = MakeArchive({{"a.bin", data}, {"b.txt", "bbb"}});
  testing::internal::CaptureStderr();
  // Every cut: never a crash; a member is either refused or exact.
  for (size_t cut = 0; cut < good.size(); cut += good.size() / 97 + 1)
    if (auto m = Open(good.substr(0, cut))->GetDataSourceForFile("a.bin"))
      EXPECT_EQ(Contents(m), data);
  // A source that throws: the exception must come back as a failed read,
  // never escape (it would cross zlib's C frames).
  int valid = 0;
  for (int budget = 0; budget < 20000; budget = budget * 5 / 4 + 1) {
    auto archive = ZipDataStream::Create(std::make_shared<ProbeSource>(good, budget));
    valid += archive->IsValid();
    if (auto m = archive->GetDataSourceForFile("a.bin")) EXPECT_EQ(Contents(m), data);
  }
  testing::internal::GetCapturedStderr();
  EXPECT_GT(valid, 0);  // some budgets let the directory be read
}

TEST(ZipDataStreamHostile, UnreadableMembersAreRefusedWithOneLine) {
  const std::string data = RandomBytes(5000, 9) + std::string(50000, 'z');
  const char* impossible = "declared size impossible for its compressed data";
  struct Case {
    const char *member, *reason;
    std::function<void(ZipBytes&, size_t central, size_t local)> edit;
  };
  const Case cases[] = {
      {"m.bin", "encrypted",
       [](auto& z, auto c, auto l) { z.Put(c + 8, 1, 2), z.Put(l + 6, 1, 2); }},
      {"m.bin", "compression method 12",
       [](auto& z, auto c, auto l) { z.Put(c + 10, 12, 2), z.Put(l + 8, 12, 2); }},
      {"m.bin", "compression method 14",
       [](auto& z, auto c, auto l) { z.Put(c + 10, 14, 2), z.Put(l + 8, 14, 2); }},
      {"m.bin", "CRC-32 mismatch",
       [](auto& z, auto c, auto) { z.Put(c + 16, z.Get(c + 16, 4) ^ 1, 4); }},
      {"s.png", "CRC-32 mismatch", [](auto& z, auto, auto l) { z.bytes[l + 40] ^= 1; }},
      {"m.bin", "corrupt data", [](auto& z, auto, auto l) { z.bytes[l + 60] ^= 0x5A; }},
      {"m.bin", impossible, [](auto& z, auto c, auto) { z.Put(c + 24, 0xFFFF0000u, 4); }},
      {"s.png", impossible, [](auto& z, auto c, auto) { z.Put(c + 24, z.Get(c + 20, 4) + 1, 4); }},
      {"m.bin", "sizes missing from its Zip64 extra field",
       [](auto& z, auto c, auto) { z.Put(c + 24, 0xFFFFFFFFu, 4); }},
      {"m.bin", "no local header", [](auto& z, auto, auto l) { z.bytes[l] = 'X'; }},
  };
  for (const Case& c : cases) {
    ZipBytes zip{MakeArchive({{"m.bin", data}, {"s.png", data}, {"ok.txt", "fine"}})};
    c.edit(zip, zip.Central(c.member), zip.Local(c.member));
    auto archive = Open(std::move(zip.bytes));
    testing::internal::CaptureStderr();
    EXPECT_EQ(archive->GetDataSourceForFile(c.member), nullptr) << c.reason;
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              std::string("Cannot read ZIP member \"") + c.member + "\" of \"" +
                  archive->GetUniqueId() + "\" (" + c.reason + ").\n");
    std::vector<std::string> names;
    EXPECT_TRUE(archive->ListContents(&names));
    EXPECT_EQ(names.size(), 3u);  // still listed
    EXPECT_EQ(Contents(archive->GetDataSourceForFile("ok.txt")), "fine");
  }
}

TEST(ZipDataStreamHostile, OverlappingMembersAreRefused) {
  // Three hundred directory entries that name the one local entry of a
  // deflated member: reading them all must not inflate it 300 times.
  ZipBytes zip{MakeArchive({{"big.bin", std::string(1 << 20, 'a')}, {"next", "n"}})};
  zip.Trim();
  const size_t record = zip.Central("big.bin");
  const size_t recordSize = zip.Central("next") - record;
  std::string clones;
  for (int i = 0; i < 300; ++i) {
    std::string clone = zip.bytes.substr(record, recordSize);
    clone.replace(46, 7, "c" + std::to_string(100000 + i));
    clones += clone;
  }
  zip.bytes.insert(zip.bytes.size() - 22, clones);
  const size_t endRecord = zip.bytes.size() - 22;
  zip.Put(endRecord + 8, 302, 2), zip.Put(endRecord + 10, 302, 2);
  zip.Put(endRecord + 12, zip.Get(endRecord + 12, 4) + static_cast<uint32_t>(clones.size()), 4);
  // One entry whose header lies inside big.bin's data, one inside the
  // directory.
  zip.Put(zip.Central("c100001") + 42, static_cast<uint32_t>(zip.Local("big.bin") + 500), 4);
  zip.Put(zip.Central("c100002") + 42, static_cast<uint32_t>(record), 4);

  auto archive = Open(std::move(zip.bytes));
  EXPECT_EQ(Contents(archive->GetDataSourceForFile("big.bin")), std::string(1 << 20, 'a'));
  EXPECT_EQ(Contents(archive->GetDataSourceForFile("next")), "n");  // adjacent, not overlapping
  testing::internal::CaptureStderr();
  for (int i = 0; i < 300; ++i)
    EXPECT_EQ(archive->GetDataSourceForFile("c" + std::to_string(100000 + i)), nullptr);
  const std::string lines = testing::internal::GetCapturedStderr();
  EXPECT_EQ(std::count(lines.begin(), lines.end(), '\n'), 300);
  const std::string of = "\" of \"" + archive->GetUniqueId() + "\" (overlaps ";
  EXPECT_NE(lines.find("\"c100001" + of + "another member)"), std::string::npos);
  EXPECT_NE(lines.find("\"c100002" + of + "the central directory)"), std::string::npos);
}

TEST(ZipDataStreamHostile, ValidArchivesOfOddShapesOpen) {
  // No members at all: just the end record.
  auto empty = Open(std::string("PK\x05\x06", 4) + std::string(18, '\0'));
  std::vector<std::string> names;
  EXPECT_TRUE(empty->ListContents(&names));
  EXPECT_TRUE(names.empty());
  EXPECT_EQ(empty->GetDataSourceForFile("a"), nullptr);

  // The longest comment, holding a decoy end record, and a member whose
  // stored name has a backslash: it opens by the name it is listed under.
  ZipBytes zip{MakeArchive({{"dir\\file.txt", "backslash"}})};
  zip.Trim();
  zip.Put(zip.bytes.size() - 2, 65535, 2);
  zip.bytes += std::string("PK\x05\x06", 4) + std::string(65531, 'c');
  auto archive = Open(std::move(zip.bytes));
  ASSERT_TRUE(archive->ListContents(&names));
  ASSERT_EQ(names, std::vector<std::string>{"dir\\file.txt"});
  EXPECT_EQ(Contents(archive->GetDataSourceForFile(names[0])), "backslash");
  EXPECT_EQ(Contents(archive->GetDataSourceForFile("DIR/file.txt")), "backslash");

  // A deflate stream far longer than its member (70,000 bytes of empty
  // stored blocks first), in a file: inflated in pieces, never held whole.
  const std::string member = "padded member";
  std::string stream;
  for (int i = 0; i < 14000; ++i) stream += std::string("\0\0\0\xFF\xFF", 5);
  stream += Deflate(member, 'r');
  ZipBytes padded{MakeArchive({{"p.png", stream}})};  // stored, then made deflated:
  // method, CRC-32 and size, 2 bytes further on in the central record
  const uint32_t crc = crc32(0, reinterpret_cast<const Bytef*>(member.data()), 13);
  for (size_t at : {padded.Local("p.png") - 2, padded.Central("p.png")}) {
    padded.Put(at + 10, 8, 2), padded.Put(at + 16, crc, 4), padded.Put(at + 24, 13, 4);
  }
  TempDir dir;
  WriteFile(dir.File("padded.zip"), padded.bytes);
  auto file = ZipDataStream::Create(FileDataSource::Create(dir.File("padded.zip")));
  EXPECT_EQ(Contents(file->GetDataSourceForFile("p.png")), member);
}

TEST(ZipDataStreamRegistry, ConcurrentCreateDestroyAndLookup) {
  const std::string bytes = MakeArchive({{"x.txt", "x"}});
  const std::string gone = Open(bytes)->GetUniqueId();
  std::atomic<bool> stop{false};
  std::atomic<int> found{0};
  std::vector<std::thread> creators, lookups;
  for (int t = 0; t < 2; ++t) {
    creators.emplace_back([&] {
      for (int i = 0; i < 300; ++i) {
        auto a = Open(bytes);
        found += ZipDataStream::FindDataSource(a->GetUniqueId() + "/x.txt") != nullptr;
      }
    });
    // Lookups race with creation and destruction. They only promote (and
    // drop) archives: extracting a member would use an archive that its
    // creator is reading at the same time, and one archive is for one thread
    // at a time. Member lookups go to ids that are never given out, for the
    // miss path.
    lookups.emplace_back([&] {
      while (!stop) {
        for (int n = 0; n < 50; ++n) {
          ZipDataStream::FindDataStream("zipdatastream://" + std::to_string(n));
          ZipDataStream::FindDataSource("zipdatastream://" + std::to_string(1000000 + n) +
                                        "/x.txt");
        }
      }
    });
  }
  for (auto& t : creators) t.join();
  stop = true;
  for (auto& t : lookups) t.join();
  EXPECT_EQ(found.load(), 600);
  EXPECT_EQ(ZipDataStream::FindDataStream(gone), nullptr);
}

}  // namespace
}  // namespace oru::test
