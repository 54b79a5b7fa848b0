// apitrace::Range: ranges from several threads captured into a trace file
// that Python's json reads, nested per thread as they were opened.
#include "oru/api_trace.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "support/test_util.h"

namespace oru {
namespace {

void Work(int depth) {
  apitrace::Range range(depth % 2 ? "odd" : "even");
  if (depth > 0) {
    Work(depth - 1);
    Work(depth - 1);
  }
}

TEST(ApiTrace, NestedRangesFromSeveralThreads) {
  test::TempDir dir;
  const std::string path = dir.File("trace.json");
  apitrace::Range before("before");  // started outside the capture: left out
  ASSERT_TRUE(apitrace::StartCapture(path));
  EXPECT_FALSE(apitrace::StartCapture(dir.File("second.json")));  // one at a time
  std::atomic<bool> release{false};
  std::thread open([&release] {
    apitrace::Range still("still-open");  // open when the capture stops: left out
    while (!release) std::this_thread::yield();
  });
  std::vector<std::thread> threads;
  for (int t = 0; t < 3; ++t) threads.emplace_back([] { Work(6); });
  for (auto& t : threads) t.join();
  { apitrace::Range last("last"); }
  apitrace::StopCapture();
  release = true;
  open.join();
  apitrace::StopCapture();  // none runs: nothing happens
  { apitrace::Range after("after"); }

  const std::string text = test::ReadFile(path);
  EXPECT_EQ(text.rfind("{\"traceEvents\":[", 0), 0u);
  EXPECT_EQ(text.find("before"), std::string::npos);
  EXPECT_EQ(text.find("still-open"), std::string::npos);
  if (!test::HaveTool("python3")) GTEST_SKIP() << "needs python3 to read the trace";
  EXPECT_EQ(test::RunPython(R"(import json, sys
events = json.load(open(sys.argv[1]))['traceEvents']
names = sorted({e['name'] for e in events})
assert names == ['even', 'last', 'odd'], names
assert all(e['ph'] == 'X' and e['dur'] >= 0 and e['pid'] > 0 for e in events)
threads = {}
for e in events:
    threads.setdefault(e['tid'], []).append(e)
assert len(threads) == 4, len(threads)
for tid, evs in threads.items():
    evs.sort(key=lambda e: (e['ts'], -e['dur']))
    open_ = []
    for e in evs:
        while open_ and open_[-1]['ts'] + open_[-1]['dur'] <= e['ts']:
            open_.pop()
        if open_:
            p = open_[-1]
            assert p['ts'] <= e['ts'] and e['ts'] + e['dur'] <= p['ts'] + p['dur'], (p, e)
        open_.append(e)
assert len(events) == 3 * 127 + 1, len(events)
)",
                            {path}),
            0);
}

}  // namespace
}  // namespace oru
