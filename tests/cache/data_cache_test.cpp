// DataCache over the native file system (and over a wrapping one that can
// fail or defer), in a private working area whose path is not ASCII.
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <map>
#include <string>

#include "cache/wrapping_file_system.h"
#include "oru/data_cache.h"
#include "oru/file_system.h"
#include "support/test_util.h"

#ifndef _WIN32
#include <sys/stat.h>
#endif

namespace oru {
namespace {

namespace stdfs = std::filesystem;
using test::ReadFile;
using test::WriteFile;
using Names = std::unordered_set<std::string>;

#ifdef _WIN32
constexpr const char* NL = "\r\n";  // the info file is written in text mode
#else
constexpr const char* NL = "\n";
#endif

bool Exists(const std::string& path) {
  return stdfs::exists(stdfs::u8path(path));
}

// Moves a file's modification time `seconds` away from now.
void Shift(const std::string& path, int seconds) {
  stdfs::last_write_time(stdfs::u8path(path),
                         stdfs::file_time_type::clock::now() + std::chrono::seconds(seconds));
}

// Adds `bytes` (or `data`) under `name`; the callback must run at once.
bool Add(DataCache& cache, const std::string& name, const std::string& bytes,
         const std::string& extra = "", std::shared_ptr<DataSource> data = nullptr) {
  int calls = 0;
  bool result = false;
  cache.AddFile(
      name, data ? data : InMemoryDataSource::Create(std::string(bytes), false),
      [&](bool ok) { ++calls, result = ok; }, extra);
  EXPECT_EQ(1, calls);
  return result;
}

// A source that claims more bytes than it delivers.
class ShortSource : public InMemoryDataSource {
public:
  ShortSource() : InMemoryDataSource(std::string("abc"), false) {}
  uint64_t GetFileSize() const override { return 10; }
};

// The cached source for `name` (null when not served).
std::shared_ptr<DataSource> Source(DataCache& cache, const std::string& name) {
  std::shared_ptr<DataSource> got;
  int calls = 0;
  cache.GetFile(name, [&](std::shared_ptr<DataSource> const& src, std::string const& n) {
    ++calls, got = src;
    EXPECT_EQ(name, n);
  });
  EXPECT_EQ(1, calls);
  return got;
}

std::string Get(DataCache& cache, const std::string& name) {
  auto src = Source(cache, name);
  return src ? test::Contents(src) : "<none>";
}

std::string PathOf(DataCache& cache, const std::string& name) {
  return cache.LookupName(name)->second->path;
}

// Which of `names` the cache holds, in order, each followed by a space.
std::string Held(DataCache& cache, std::initializer_list<const char*> names) {
  std::string out;
  for (const char* name : names) out += cache.Contains(name) ? name + std::string(" ") : "";
  return out;
}

class DataCacheTest : public ::testing::Test {
protected:
  test::TempDir tmp;
  const std::string area = tmp.File("área-緩存");
  const bool areaMade = stdfs::create_directories(stdfs::u8path(area));
  test::ScopedTempArea scopedArea{area};
  std::shared_ptr<FileSystem> fs = CreateNativeFileSystem();
  const char sep = fs->GetDirSeparator();
  const std::string dir = area + sep + "QD_FileCache", info = dir + sep + "info.txt";

  std::shared_ptr<DataCache> Open(uint64_t limit = 1 << 20,
                                  std::shared_ptr<FileSystem> over = nullptr) {
    auto cache = DataCache::Create(over ? over : fs, limit);
    cache->Initialize();
    return cache;
  }
  Names DirFiles() {
    Names out;
    fs->FilesInDir(dir.c_str(), out);
    return out;
  }
};

TEST_F(DataCacheTest, InfoFileRoundTripsByteForByte) {
  const std::string url = "https://host/modèle", extra = "etag with  spaces ";
  const std::string head = std::string("Version 1.8") + NL;
  {
    auto cache = Open();
    ASSERT_TRUE(cache->Initialized());
    cache->FinaliseCache();
    EXPECT_EQ(head + "---" + NL, ReadFile(info));
    ASSERT_TRUE(Add(*cache, url, "payload", extra));
    cache->AddAlternativeName("short-名", url);
    cache->FinaliseCache();
    EXPECT_EQ(dir + sep + "0", PathOf(*cache, url));
    EXPECT_EQ(head + "0 " + extra + NL + url + NL + "---" + NL + "short-名<<>>" + url + NL,
              ReadFile(info));
  }
  auto again = Open();
  EXPECT_EQ("payload", Get(*again, url));
  EXPECT_EQ("payload", Get(*again, "short-名"));
  EXPECT_EQ(extra, again->GetExtraData("short-名"));
  EXPECT_EQ(url, again->LookupPrimaryName("short-名"));
  EXPECT_EQ(7u, again->GetFileSize("short-名"));
  EXPECT_EQ(7u, again->GetTotalSize());
  std::vector<DataCache::InfoContent> content;
  ASSERT_TRUE(again->GetInfoFileContent(content));
  ASSERT_EQ(1u, content.size());
  EXPECT_EQ(url + "|" + extra, content[0].name + "|" + content[0].extraData);
  // New files never take a number the info file named.
  ASSERT_TRUE(Add(*again, "second", "2"));
  EXPECT_EQ(dir + sep + "1", PathOf(*again, "second"));

  // Alternative names that would break the info file's lines are refused.
  for (auto [alternative, name] : {std::pair{"a<<>>b", "second"},
                                   {"a\nb", "second"},
                                   {"ok", "na\nme"},
                                   {"", "second"},
                                   {"ok2", ""}}) {
    again->AddAlternativeName(alternative, name);
    EXPECT_EQ("", again->LookupPrimaryName(alternative)) << alternative;
  }
  EXPECT_EQ(nullptr, Source(*again, "unknown"));
  again->GetFile("unknown", nullptr);  // no callback, no call
  EXPECT_EQ(0u, again->GetOutstandingFileRequestCount());
}

TEST_F(DataCacheTest, ReadsHandWrittenInfoFilesAndDeletesWhatTheyDoNotName) {
  stdfs::create_directories(stdfs::u8path(dir));
  for (const char* f : {"12", "13", "14", "99", "other-program.tmp"}) WriteFile(dir + sep + f, f);
  WriteFile(info, std::string("Version 1.8\n") + "12 some extra text\nmodel-a\n" +
                      "13 x\n\n" +            // empty logical name: ignored
                      "14\nno-space\n" +      // no space: ignored
                      "info.txt x\nself\n" +  // never the info file itself
                      "---\nalias<<>>model-a\njunk line\n");
  Shift(info, 10);
  auto cache = Open();
  EXPECT_EQ("12", Get(*cache, "model-a"));
  EXPECT_EQ("some extra text", cache->GetExtraData("alias"));
  EXPECT_EQ("", Held(*cache, {"no-space", "self"}));
  EXPECT_EQ((Names{dir + sep + "12", info}), DirFiles());
  // A new file is numbered past the 12 named; "info.txt" is no number.
  ASSERT_TRUE(Add(*cache, "next", "n"));
  EXPECT_EQ(dir + sep + "13", PathOf(*cache, "next"));

  // Another version: nothing is trusted, everything but the info file goes.
  cache.reset();
  WriteFile(info, "Version 1.7\n12 x\nmodel-a\n---\n");
  EXPECT_EQ("", Held(*Open(), {"model-a"}));
  EXPECT_EQ(Names{info}, DirFiles());
}

TEST_F(DataCacheTest, HostileEntriesAreRemovedNotFollowedOrReadWhole) {
  // Start-ups over what another user might have planted: never a read or a
  // write through a link, never a wait on a FIFO, never a huge info file in
  // memory. The victim outside holds an info text naming the planted files.
  const std::string victim = tmp.File("victim");
  const std::string bait = "Version 1.8\n1 x\nlinked\n2 x\ndangling\n3 x\nfifo\n4 x\nreal\n---\n";
  WriteFile(victim, bait);
  stdfs::create_directories(stdfs::u8path(dir));
  std::error_code noLinks;
  stdfs::create_symlink(stdfs::u8path(victim), stdfs::u8path(info), noLinks);
  if (noLinks) GTEST_SKIP() << "no symbolic links here: " << noLinks.message();
  const auto link = [&](const std::string& to, const char* at) {
    stdfs::create_symlink(stdfs::u8path(to), stdfs::u8path(dir + sep + at));
  };
  const auto fifo = [&](const std::string& at) {
#ifndef _WIN32
    mkfifo(at.c_str(), 0600);
#endif
  };
  const std::function<void()> plants[] = {
      [] {},  // info.txt itself is the link
      [&] {
        WriteFile(info, bait), WriteFile(dir + sep + "4", "4"), Shift(info, 10);
        link(victim, "1"), link(tmp.File("nothing"), "2"), fifo(dir + sep + "3");
      },
      [&] { stdfs::remove(stdfs::u8path(info)), fifo(info); },
      [&] { WriteFile(info, "Version 1.8\n"), stdfs::resize_file(stdfs::u8path(info), 65u << 20); },
      [&] { WriteFile(info, "Version 1.8\n4 " + std::string(70000, 'x') + "\nreal\n---\n"); },
  };
  for (size_t round = 0; round < std::size(plants); ++round) {
    WriteFile(dir + sep + "4", "4");
    plants[round]();
    auto cache = Open();
    EXPECT_EQ(round == 1 ? "4" : "<none>", Get(*cache, "real")) << round;
    EXPECT_EQ("", Held(*cache, {"linked", "dangling", "fifo"}));
    EXPECT_EQ(DirFiles().count(dir + sep + "1") + DirFiles().count(dir + sep + "3"), 0u);
    link(victim, "info.txt.new");
    cache->FinaliseCache();
    EXPECT_FALSE(stdfs::is_symlink(stdfs::u8path(info)) || stdfs::is_fifo(stdfs::u8path(info)));
    EXPECT_EQ(bait, ReadFile(victim));
  }
}

TEST_F(DataCacheTest, FilesChangedOrRemovedBehindItsBackAreNotServed) {
  {
    auto cache = Open();
    for (const char* name : {"a", "b", "c"})
      ASSERT_TRUE(Add(*cache, name, name + std::string(100, '.')));
    cache->FinaliseCache();
    Shift(info, 10);
    stdfs::remove(stdfs::u8path(PathOf(*cache, "b")));
    WriteFile(dir + sep + "foreign", "not ours");
  }
  auto cache = Open();
  EXPECT_EQ("a" + std::string(100, '.'), Get(*cache, "a"));
  EXPECT_EQ("a c ", Held(*cache, {"a", "b", "c"}));
  EXPECT_EQ(202u, cache->GetTotalSize());
  EXPECT_FALSE(Exists(dir + sep + "foreign"));

  // An edit after the info file was written empties the whole cache.
  const std::string path = PathOf(*cache, "c");
  cache.reset();
  WriteFile(path, "edited");
  Shift(path, 20);
  cache = Open();
  EXPECT_EQ("", Held(*cache, {"a", "c"}));
  EXPECT_EQ(0u, cache->GetTotalSize());
  EXPECT_TRUE(DirFiles().empty());
}

TEST_F(DataCacheTest, AnInfoFileCutShortNeverLeadsToWrongBytes) {
  std::map<std::string, std::string> bytes = {{"model", "MODEL"}, {"model-2", "SECOND"}};
  {
    auto cache = Open();
    for (auto& [name, b] : bytes) ASSERT_TRUE(Add(*cache, name, b, "x y"));
    cache->AddAlternativeName("alias", "model-2");
    cache->FinaliseCache();
  }
  const std::string whole = ReadFile(info);
  const stdfs::path snapshot = tmp.path() / "snapshot";
  stdfs::copy(stdfs::u8path(dir), snapshot);
  int servedWhole = 0;
  for (size_t cut = 0; cut <= whole.size(); ++cut) {
    stdfs::remove_all(stdfs::u8path(dir));
    stdfs::copy(snapshot, stdfs::u8path(dir));
    WriteFile(info, whole.substr(0, cut));
    Shift(info, 10);
    auto cache = Open();
    int served = 0;
    for (const char* name : {"model", "model-2", "alias", "mode", "model-", "alia"}) {
      auto src = Source(*cache, name);
      if (!src) continue;
      ++served;
      std::string primary = cache->LookupPrimaryName(name);
      if (primary.empty()) primary = name;
      ASSERT_EQ(bytes.count(primary), 1u) << "cut " << cut << " name " << name;
      ASSERT_EQ(bytes[primary], test::Contents(src)) << "cut " << cut << " name " << name;
    }
    if (cut == whole.size()) servedWhole = served;
  }
  EXPECT_EQ(3, servedWhole);
}

TEST_F(DataCacheTest, EvictsTheOldestFilesFirstAndRefusesWhatCannotFit) {
  {
    auto cache = Open(100);
    int age = -400;
    for (const char* name : {"old", "mid", "new"}) {
      ASSERT_TRUE(Add(*cache, name, std::string(30, *name)));
      Shift(PathOf(*cache, name), age += 100);
    }
    cache->FinaliseCache();
  }
  auto cache = Open(100);
  EXPECT_EQ(90u, cache->GetTotalSize());
  ASSERT_TRUE(Add(*cache, "big", std::string(60, 'b')));
  EXPECT_EQ("new big ", Held(*cache, {"old", "mid", "new", "big"}));
  EXPECT_EQ(90u, cache->GetTotalSize());
  EXPECT_EQ(3u, DirFiles().size());  // "new", "big" and the info file

  // Equal times: exactly one of the two goes, whichever.
  cache->EmptyCache();
  for (auto [name, size] : {std::pair{"p", 40}, {"q", 50}, {"r", 30}})
    ASSERT_TRUE(Add(*cache, name, std::string(size, *name)));
  EXPECT_EQ(2u, Held(*cache, {"p", "q"}).size());
  EXPECT_LE(cache->GetTotalSize(), 100u);

  // Larger than the limit, empty, short of its size, or a line break where
  // the info file needs one line: refused, and nothing is left on disk.
  cache->EmptyCache();
  EXPECT_FALSE(Add(*cache, "short", "", "", std::make_shared<ShortSource>()));
  EXPECT_FALSE(Add(*cache, "huge", std::string(101, 'h')));
  EXPECT_FALSE(Add(*cache, "empty", ""));
  EXPECT_FALSE(Add(*cache, "two\nlines", "x"));
  EXPECT_FALSE(Add(*cache, "name", "x", "extra\r\n"));
  EXPECT_FALSE(Add(*cache, "", "x"));
  EXPECT_TRUE(DirFiles().empty());
}

TEST_F(DataCacheTest, FilesInUseOrPinnedSurviveEvictionAndReplacement) {
  auto cache = Open(100);
  ASSERT_TRUE(Add(*cache, "held", std::string(40, 'h')));
  Shift(PathOf(*cache, "held"), -100);
  ASSERT_TRUE(Add(*cache, "free", std::string(50, 'f')));
  auto reader = Source(*cache, "held");
  ASSERT_NE(nullptr, reader);
  EXPECT_TRUE(reader->IsTempFile() && cache->IsFileInUse("held"));

  ASSERT_TRUE(Add(*cache, "next", std::string(30, 'n')));  // evicts "free", though newer
  EXPECT_EQ("held next ", Held(*cache, {"held", "free", "next"}));
  // Room only by taking "held": "next" goes on the way, and the add fails.
  EXPECT_FALSE(Add(*cache, "too-much", std::string(61, 't')));
  EXPECT_EQ("held ", Held(*cache, {"held", "next", "too-much"}));

  // Replaced while read: the reader keeps the old bytes, from the buffer cache.
  const std::string oldPath = PathOf(*cache, "held");
  ASSERT_TRUE(Add(*cache, "held", std::string(20, 'H')));
  EXPECT_FALSE(cache->IsFileInUse("held"));
  EXPECT_EQ(std::string(40, 'h'), test::Contents(reader));
  EXPECT_EQ(std::string(20, 'H'), Get(*cache, "held"));
  EXPECT_EQ(60u, cache->GetTotalSize());
  cache->CleanupBufferCache();
  EXPECT_TRUE(Exists(oldPath));
  reader.reset();
  cache->CleanupBufferCache();
  EXPECT_FALSE(Exists(oldPath));
  EXPECT_EQ(20u, cache->GetTotalSize());

  // Emptying keeps a held file on disk until it is let go; the info file goes.
  cache->FinaliseCache();
  auto held = Source(*cache, "held");
  const std::string heldPath = PathOf(*cache, "held");
  cache->EmptyCache();
  EXPECT_EQ(Names{heldPath}, DirFiles());
  EXPECT_EQ(std::string(20, 'H'), test::Contents(held));
  held.reset();
  cache->CleanupBufferCache();
  EXPECT_TRUE(DirFiles().empty());
  EXPECT_EQ(0u, cache->GetTotalSize());

  // A pinned name is in use, though nobody reads it, until the last load
  // job ends; that one also writes the info file.
  ASSERT_TRUE(Add(*cache, "pinned", std::string(50, 'p')));
  Shift(PathOf(*cache, "pinned"), -100);
  ASSERT_TRUE(Add(*cache, "other", std::string(40, 'o')));
  cache->StartLoadJob(), cache->StartLoadJob(), cache->PinName("pinned");
  ASSERT_TRUE(Add(*cache, "new", std::string(30, 'n')));  // evicts "other"
  EXPECT_EQ("pinned new ", Held(*cache, {"pinned", "other", "new"}));
  cache->FinishLoadJob();
  EXPECT_TRUE(cache->IsFileInUse("pinned") && !Exists(info));
  cache->FinishLoadJob();
  EXPECT_TRUE(!cache->IsFileInUse("pinned") && Exists(info));
}

TEST_F(DataCacheTest, BuffersGoToDiskOrFallBackToMemory) {
  auto cache = Open(100);
  std::string block(60, 'b');
  auto src = cache->AddBuffer(block.data(), block.size());
  ASSERT_TRUE(src && src->IsTempFile());
  EXPECT_EQ(block, test::Contents(src));
  EXPECT_EQ(60u, cache->GetTotalSize());
  EXPECT_EQ(1u, DirFiles().size());
  cache->FinaliseCache();  // not named in the info file; kept while read
  EXPECT_EQ(std::string("Version 1.8") + NL + "---" + NL, ReadFile(info));
  EXPECT_EQ(2u, DirFiles().size());

  // No room while the block is read: served from memory, nothing written.
  auto fallback = cache->AddBuffer(std::string(50, 'm'));
  EXPECT_EQ(std::string(50, 'm'), test::Contents(fallback));
  EXPECT_EQ(2u, DirFiles().size());
  src.reset();
  cache->FinaliseCache();
  EXPECT_EQ(0u, cache->GetTotalSize());
  EXPECT_EQ(Names{info}, DirFiles());

  // A cache that is not ready, and a directory gone from under the cache.
  EXPECT_EQ("abc", test::Contents(DataCache::Create(fs, 100)->AddBuffer(std::string("abc"))));
  stdfs::remove_all(stdfs::u8path(dir));
  std::string gone = "xyz";
  EXPECT_EQ("xyz", test::Contents(cache->AddBuffer(gone.data(), gone.size())));
  EXPECT_EQ(0u, cache->GetTotalSize());
}

TEST_F(DataCacheTest, WithoutADirectoryItTouchesNoFile) {
  auto wrapper = std::make_shared<test::WrappingFileSystem>();
  wrapper->failInitDir = true;
  auto cache = Open(100, wrapper);
  EXPECT_FALSE(cache->Initialized());
  EXPECT_FALSE(Add(*cache, "a", "x"));
  EXPECT_EQ(nullptr, Source(*cache, "a"));
  EXPECT_EQ("mem", test::Contents(cache->AddBuffer(std::string("mem"))));
  DataCache::InfoMap map;
  cache->FinaliseCache(), cache->UpdateInfoFile(), cache->EmptyCache(), cache->WriteInfoFile();
  cache->ReadInfoFile(map), cache->SetupFileCache(map), cache->RemoveFile("a");
  cache->Initialize();  // a second start does nothing
  EXPECT_EQ(std::vector<std::string>{"InitDirToUse QD_FileCache"}, wrapper->calls);
  EXPECT_THROW(cache->AddFile("a", nullptr, nullptr, ""), std::bad_function_call);

  auto unowned = std::make_unique<DataCache>(*DataCache::Create(fs, 1));
  EXPECT_THROW(unowned->Initialize(), std::bad_weak_ptr);
}

TEST_F(DataCacheTest, WorksOverAnAsynchronousFileSystemWithoutReplaceFile) {
  auto wrapper = std::make_shared<test::WrappingFileSystem>();
  wrapper->deferCallbacks = true;
  wrapper->replaceSupported = false;
  auto cache = Open(1000, wrapper);
  // The chain moves one step per pump: directory, then info file. Until it
  // completes the cache answers as an empty one.
  EXPECT_EQ(1u, wrapper->Pending());
  EXPECT_EQ(nullptr, Source(*cache, "a"));  // pump 1: the directory is ready
  EXPECT_EQ(dir, cache->GetCacheDir());
  EXPECT_EQ(1u, wrapper->Pending());  // the info file is asked for
  // Pump 2: read, set up, ready; a ready cache no longer pumps.
  EXPECT_TRUE(cache->Initialized() && cache->Initialized());
  EXPECT_EQ(2, wrapper->pumps);

  int added = 0;
  cache->AddFile(
      "a", InMemoryDataSource::Create(std::string("async bytes"), false),
      [&](bool ok) { added += ok ? 1 : 100; }, "");
  EXPECT_TRUE(added == 0 && !cache->Contains("a"));
  wrapper->PumpCallbacks();
  EXPECT_EQ(1, added);
  EXPECT_EQ(11u, cache->GetTotalSize());

  std::vector<std::string> got;
  for (int i = 0; i < 3; ++i)
    cache->GetFile("a", [&](auto const& src, auto&) { got.push_back(test::Contents(src)); });
  EXPECT_TRUE(cache->GetOutstandingFileRequestCount() == 3 && got.empty());
  wrapper->PumpCallbacks();
  EXPECT_EQ(0u, cache->GetOutstandingFileRequestCount());
  EXPECT_EQ(std::vector<std::string>(3, "async bytes"), got);

  // The info file cannot be moved into place: it is written there directly.
  cache->FinaliseCache();
  EXPECT_FALSE(Exists(info + ".new"));
  EXPECT_EQ("async bytes", Get(*Open(), "a"));

  // A completion that arrives after the cache is gone does nothing.
  cache->GetFile("a", [&](auto&, auto&) { ADD_FAILURE(); });
  cache.reset();
  wrapper->PumpCallbacks();
}

}  // namespace
}  // namespace oru
