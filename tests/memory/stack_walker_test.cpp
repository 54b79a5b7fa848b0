// StackWalker: capture, and names, lines and modules of addresses in this
// program, in the library and outside any module.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <fstream>
#include <stdexcept>
#include <thread>

#include "oru/heap_trace.h"
#include "oru/stack_walker.h"
#include "support/test_util.h"

namespace oru {
namespace {

using ::testing::HasSubstr;

#if defined(__GNUC__)
#define ORU_NOINLINE __attribute__((noinline))
#else
#define ORU_NOINLINE
#endif

// Keeps the compiler from turning calls into jumps (atomic: several threads
// run the probe).
std::atomic<int> g_sink{0};

struct Probe {
  std::vector<void*> stack;
  int callLine = 0;
};

ORU_NOINLINE Probe WalkerProbe(StackWalker& walker) {
  Probe probe;
  // clang-format off
  probe.callLine = __LINE__; probe.stack = walker.CurrentCallstack();
  // clang-format on
  g_sink.fetch_add(1, std::memory_order_relaxed);
  return probe;
}

ORU_NOINLINE size_t Recurse(StackWalker& walker, int depth) {
  if (depth == 0) return walker.CurrentCallstack().size();
  const size_t size = Recurse(walker, depth - 1);
  g_sink.fetch_add(1, std::memory_order_relaxed);
  return size;
}

// Index of the walker's own frame in a captured stack (the size when absent).
size_t OwnFrame(StackWalker& walker, const Probe& probe) {
  size_t i = 0;
  while (i < probe.stack.size() &&
         walker.FunctionForAddress(probe.stack[i]).find("StackWalker::CurrentCallstack") ==
             std::string::npos) {
    ++i;
  }
  return i;
}

// A return address points past its call; the call is one byte before.
void* CallSite(void* returnAddress) {
  return static_cast<char*>(returnAddress) - 1;
}

std::string FileName(const std::string& path) {
  const size_t cut = path.find_last_of("/\\");
  return cut == std::string::npos ? path : path.substr(cut + 1);
}

// One walker for the whole suite: making one loads the symbols of every
// module of the process, which takes seconds for a large test program. A
// failure to make it is reported for the suite, and every test then fails.
class StackWalkerTest : public ::testing::Test {
protected:
  static void SetUpTestSuite() { s_walker = new StackWalker(); }
  static void TearDownTestSuite() {
    delete s_walker;
    s_walker = nullptr;
  }
  void SetUp() override { ASSERT_NE(nullptr, walker) << "no stack walker"; }
  StackWalker* const walker = s_walker;

private:
  static inline StackWalker* s_walker = nullptr;
};

TEST_F(StackWalkerTest, CapturesInnermostFirstAndResolvesThisProgramsFrames) {
  const Probe probe = WalkerProbe(*walker);
  // Nothing is skipped: the capture's own frame comes first (second when a
  // sanitizer interposes backtrace() with a frame of its own), then the
  // probe, then the test body that called it.
  const size_t own = OwnFrame(*walker, probe);
  ASSERT_LE(own, 1u);
  ASSERT_GE(probe.stack.size(), own + 3);
  EXPECT_THAT(walker->FunctionForAddress(probe.stack[own + 1]), HasSubstr("WalkerProbe"));
  EXPECT_THAT(walker->FunctionForAddress(probe.stack[own + 2]), HasSubstr("StackWalkerTest"));

  void* call = CallSite(probe.stack[own + 1]);
  const auto [file, line] = walker->FileAndLineNoForAddress(call);
  EXPECT_EQ("stack_walker_test.cpp", FileName(file)) << file;
  EXPECT_EQ(static_cast<unsigned>(probe.callLine), line);
  // The module is this test program, not the library.
  EXPECT_EQ("oru_tests", walker->ModuleForAddress(call));
  const std::string libraryModule = walker->ModuleForAddress(probe.stack[own]);
  EXPECT_THAT(libraryModule, HasSubstr("oru"));
  EXPECT_NE("oru_tests", libraryModule);
}

TEST_F(StackWalkerTest, AddressesOutsideAnyModuleGiveEmptyResults) {
  std::unique_ptr<char[]> heap(new char[64]);
  for (void* address : {reinterpret_cast<void*>(uintptr_t{0x10}), static_cast<void*>(heap.get())}) {
    EXPECT_EQ("", walker->FunctionForAddress(address));
    const auto [file, line] = walker->FileAndLineNoForAddress(address);
    EXPECT_EQ("", file);
    EXPECT_EQ(0u, line);
    EXPECT_EQ("", walker->ModuleForAddress(address));
  }
}

TEST_F(StackWalkerTest, DeepRecursionGivesAtMost1024Frames) {
  EXPECT_EQ(1024u, Recurse(*walker, 2000));
  const size_t shallow = Recurse(*walker, 10);
  EXPECT_LT(shallow, 1024u);
  EXPECT_EQ(shallow + 10, Recurse(*walker, 20));
}

TEST(StackWalkerThreads, SeveralWalkersAtOnceOnSeveralThreads) {
#ifdef _WIN32
  GTEST_SKIP() << "dbghelp has one symbol session per process and serves one thread at a time";
#endif
  std::vector<std::string> names(4);
  std::vector<std::thread> threads;
  for (auto& name : names) {
    threads.emplace_back([&name] {
      StackWalker own;
      const Probe probe = WalkerProbe(own);
      const size_t self = OwnFrame(own, probe);
      if (self + 1 < probe.stack.size()) name = own.FunctionForAddress(probe.stack[self + 1]);
    });
  }
  for (auto& thread : threads) thread.join();
  for (const auto& name : names) EXPECT_THAT(name, HasSubstr("WalkerProbe"));
}

#if !defined(_WIN32)
// Run in a child process whose library path puts a library named libdw.so.1
// that is not libdw first.
TEST(StackWalkerWithoutLibdw, DISABLED_Child) {
  try {
    StackWalker walker;
    FAIL() << "a walker was made without libdw";
  } catch (const std::runtime_error& error) {
    EXPECT_THAT(error.what(), HasSubstr("libdw.so.1"));
  }
  // A heap trace needs a walker too, and says so the same way.
  test::TempDir dir;
  EXPECT_THROW(HeapTrace trace(dir.File("t.trace")), std::runtime_error);
}

TEST(StackWalkerWithoutLibdw, ConstructionThrowsAClearError) {
  // zlib is loaded in this process: a copy of it stands in for libdw.
  std::ifstream maps("/proc/self/maps");
  std::string zlib;
  for (std::string line; std::getline(maps, line);) {
    const size_t at = line.find('/');
    if (at != std::string::npos && line.find("/libz.so") != std::string::npos) {
      zlib = line.substr(at);
      break;
    }
  }
  ASSERT_FALSE(zlib.empty()) << "zlib is not mapped";
  test::TempDir dir;
  std::filesystem::copy_file(zlib, dir.path() / "libdw.so.1");
  test::ScopedEnv path("LD_LIBRARY_PATH", dir.path().string());
  EXPECT_EQ(0, test::ChildProcess("StackWalkerWithoutLibdw.DISABLED_Child").WaitFor(120));
}
#endif

}  // namespace
}  // namespace oru
