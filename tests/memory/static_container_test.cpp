// StaticContainer: newest first, exactly once, from any thread, and at exit
// when the host never asks.
#include "oru/static_container.h"

#include <gtest/gtest.h>

#include <atomic>
#include <fstream>
#include <thread>

#include "support/test_util.h"

namespace oru {
namespace {

// Appends its name to a log when destroyed; may use an older object then.
struct Logged {
  Logged(std::vector<std::string>* log, std::string name, Logged* older = nullptr)
      : m_log(log), m_name(std::move(name)), m_older(older) {}
  ~Logged() { m_log->push_back(m_name + (m_older ? "<" + m_older->m_name : "")); }
  std::vector<std::string>* m_log;
  std::string m_name;
  Logged* m_older;
};

TEST(StaticContainer, DestroysNewestFirstExactlyOnce) {
  std::vector<std::string> log;
  Logged& a = StaticContainer::Make<Logged>(&log, "a");
  StaticContainer::Make<Logged>(&log, "b", &a);
  std::atomic<int> made{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&made] {
      for (int i = 0; i < 100; ++i, ++made) StaticContainer::Make<std::vector<int>>(64, 7);
    });
  for (auto& t : threads) t.join();
  EXPECT_EQ(made.load(), 400);
  StaticContainer::DestroyAll();
  StaticContainer::Make<Logged>(&log, "c");
  StaticContainer::DestroyAll();
  StaticContainer::DestroyAll();  // nothing left: nothing destroyed twice
  EXPECT_EQ(log, (std::vector<std::string>{"b<a", "a", "c"}));
}

// Writes its name to a file when destroyed.
struct Marker {
  explicit Marker(std::string n) : name(std::move(n)) {}
  ~Marker() { std::ofstream(test::GetEnv("ORU_STATIC_LOG"), std::ios::app) << name; }
  std::string name;
};

TEST(StaticContainer, DISABLED_ChildExitsWithoutDestroyAll) {
  for (const char* name : {"1", "2", "3"}) StaticContainer::Make<Marker>(name);
}

TEST(StaticContainer, DestroysAtExitWhenTheHostNeverDoes) {
  test::TempDir tmp;
  test::ScopedEnv log("ORU_STATIC_LOG", tmp.File("log"));
  EXPECT_EQ(test::ChildProcess("StaticContainer.DISABLED_ChildExitsWithoutDestroyAll").Wait(), 0);
  EXPECT_EQ(test::ReadFile(tmp.File("log")), "321");
}

}  // namespace
}  // namespace oru
