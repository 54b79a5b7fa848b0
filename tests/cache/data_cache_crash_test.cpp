// A cache killed at random points must never serve wrong bytes afterwards.
//
// A child process (this test program again, running only the disabled
// ChildWriter test) adds, replaces, evicts, removes and finalises files in a
// loop until the parent kills it. Each file's bytes begin with a header that
// names what was added (logical name, generation, length), and the rest is
// generated from it, so that the restarted cache's every answer can be
// checked against what was added under that name.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <sstream>
#include <string>
#include <thread>

#include "oru/data_cache.h"
#include "oru/file_system.h"
#include "support/test_util.h"

namespace oru {
namespace {

namespace stdfs = std::filesystem;

constexpr int NAMES = 12;
constexpr int ALTERNATIVES = 4;  // "a<k>" leads to "n<k>"
constexpr uint64_t LIMIT = 150000;

std::string Content(const std::string& name, uint64_t generation, size_t length) {
  std::string out = name + "|" + std::to_string(generation) + "|" + std::to_string(length) + "\n";
  uint64_t x = generation * 0x9E3779B97F4A7C15ull + name.size();
  while (out.size() < length) {
    x ^= x << 13, x ^= x >> 7, x ^= x << 17;
    out += static_cast<char>(x);
  }
  out.resize(std::max(length, out.size()));
  return out;
}

std::string ReadyMarker(const std::string& area, unsigned seed) {
  return area + "/ready-" + std::to_string(seed);
}

TEST(DataCacheCrash, DISABLED_ChildWriter) {
  const std::string area = test::GetEnv("ORU_CRASH_AREA");
  const unsigned seed = static_cast<unsigned>(std::atoi(test::GetEnv("ORU_CRASH_SEED").c_str()));
  ASSERT_FALSE(area.empty());
  auto cache = DataCache::Create(CreateNativeFileSystem(), LIMIT);
  cache->Initialize();
  ASSERT_TRUE(cache->Initialized());
  test::WriteFile(ReadyMarker(area, seed), "");

  std::mt19937 rng(seed);
  std::vector<std::shared_ptr<DataSource>> held;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  for (uint64_t generation = uint64_t(seed) * 1000000; std::chrono::steady_clock::now() < deadline;
       ++generation) {
    const int k = static_cast<int>(rng() % NAMES);
    const std::string name = "n" + std::to_string(k);
    const std::string bytes = Content(name, generation, 40 + rng() % 20000);
    cache->AddFile(
        name, InMemoryDataSource::Create(std::string(bytes), false), [](bool) {},
        "g" + std::to_string(generation));
    // Then, one time in 16 each unless said otherwise:
    const unsigned op = rng() % 16;
    if (op < 4) {  // four times in 16
      cache->FinaliseCache();
    } else if (op == 4) {
      cache->RemoveFile(name);
    } else if (op < 7) {  // twice in 16
      const std::string k2 = std::to_string(k % ALTERNATIVES);
      cache->AddAlternativeName("a" + k2, "n" + k2);
    } else if (op == 7 && rng() % 8 == 0) {
      cache->EmptyCache();
    } else if (op == 8) {
      held.push_back(cache->AddBuffer(std::string(bytes)));
    } else if (op == 9) {
      cache->GetFile(name, [&](auto const& src, std::string const&) { held.push_back(src); });
    } else if (op == 10) {
      held.clear();
    }
  }
}

TEST(DataCacheCrash, KilledWritersNeverLeadToWrongBytes) {
  test::TempDir tmp;
  const std::string area = tmp.File("crash-área");
  stdfs::create_directories(stdfs::u8path(area));
  test::ScopedTempArea scopedArea(area);
  test::SetEnv("ORU_CRASH_AREA", area);
  std::mt19937 rng(12345);
  int served = 0;
  constexpr unsigned KILLS = 200;
  for (unsigned round = 1; round <= KILLS; ++round) {
    test::SetEnv("ORU_CRASH_SEED", std::to_string(round));
    {
      test::ChildProcess child("DataCacheCrash.DISABLED_ChildWriter");
      const auto started = std::chrono::steady_clock::now();
      while (!stdfs::exists(stdfs::u8path(ReadyMarker(area, round)))) {
        ASSERT_TRUE(child.Running()) << "the writer ended before it was ready";
        ASSERT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(60));
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
      }
      std::this_thread::sleep_for(std::chrono::microseconds(rng() % 25000));
      child.Kill();
    }
    stdfs::remove(stdfs::u8path(ReadyMarker(area, round)));

    auto cache = DataCache::Create(CreateNativeFileSystem(), LIMIT);
    cache->Initialize();
    ASSERT_TRUE(cache->Initialized());
    for (int k = 0; k < NAMES + ALTERNATIVES; ++k) {
      const std::string asked = (k < NAMES ? "n" : "a") + std::to_string(k % NAMES);
      const std::string primary = "n" + std::to_string(k % NAMES);
      std::shared_ptr<DataSource> src;
      cache->GetFile(asked,
                     [&](std::shared_ptr<DataSource> const& s, std::string const&) { src = s; });
      if (!src) continue;
      ++served;
      SCOPED_TRACE("round " + std::to_string(round) + ": " + asked);
      const std::string got = test::Contents(src);
      std::istringstream header(got);
      std::string name;
      uint64_t generation = 0, length = 0;
      char bar = 0;
      ASSERT_TRUE(std::getline(header, name, '|') >> generation >> bar >> length && bar == '|');
      ASSERT_EQ(primary, name);
      ASSERT_EQ(Content(primary, generation, static_cast<size_t>(length)), got);
      ASSERT_EQ("g" + std::to_string(generation), cache->GetExtraData(asked));
      ASSERT_EQ(length, cache->GetFileSize(asked));
    }
    if (round % 3 == 0) cache->FinaliseCache();
  }
  // The check above only means something if the restarted caches served.
  EXPECT_GT(served, int(KILLS));
}

}  // namespace
}  // namespace oru
