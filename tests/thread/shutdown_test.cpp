// A process that has used the task pool, remote-call threads, counters and
// symbols must exit cleanly, with and without SetDoingShutdown(): no hang,
// no crash in static destruction. The process is a child run of this test
// program, so a failure cannot take the other tests with it.
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "oru/memory.h"
#include "oru/performance_counter.h"
#include "oru/remote_call.h"
#include "oru/symbol.h"
#include "oru/task.h"
#include "support/test_util.h"

namespace oru {
namespace {

class SleepyTask : public Task {
public:
  explicit SleepyTask(int ms) : m_ms(ms) {}
  void Run() override {
    static const Symbol name("task symbol");  // made on a pool thread, released at exit
    std::this_thread::sleep_for(std::chrono::milliseconds(m_ms));
  }

private:
  int m_ms;
};

TEST(ProcessShutdown, DISABLED_UseEverythingThenExit) {
  Symbol::EnableLocking();
  static const Symbol kept("kept until exit");
  static PerformanceCounter counter("Shutdown test counter", 0);
  static RemoteCall_thread worker;  // never terminated by hand
  static RemoteCall_messenger messenger;
  for (int i = 0; i < 100; ++i) {
    worker.Post([] { Symbol local("posted symbol"); });
    ++counter;
  }
  worker.AddIntervalCallback(1, [](std::chrono::milliseconds) { Symbol tick("tick"); });
  worker.EnableTimer();
  std::thread([] { messenger.Post([] {}); }).join();  // left queued
  for (int i = 0; i < 50; ++i)
    std::make_shared<SleepyTask>(i % 5 == 0 ? 50 : 1)->Execute(i % 2 == 0);
  if (test::GetEnv("ORU_SHUTDOWN_MODE") == "flag") SetDoingShutdown();
  // Return with tasks running and waiting, the timer ticking, calls queued.
}

TEST(ProcessShutdown, ExitsCleanlyWithAndWithoutTheShutdownFlag) {
  for (const char* mode : {"plain", "flag"}) {
    test::SetEnv("ORU_SHUTDOWN_MODE", mode);
    test::ChildProcess child("ProcessShutdown.DISABLED_UseEverythingThenExit");
    EXPECT_EQ(0, child.WaitFor(120)) << mode << " (-2: it hung)";
  }
  test::SetEnv("ORU_SHUTDOWN_MODE", "");
}

}  // namespace
}  // namespace oru
