// PerformanceCounter arithmetic and registry, and TraceInfoDispatcher.
#include <gtest/gtest.h>

#include <atomic>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "oru/performance_counter.h"

namespace oru {
namespace {

using Listing = std::vector<std::pair<std::string, uint64_t>>;

// The registered counters whose tag begins with `prefix`, in visiting order.
Listing Visible(const std::string& prefix) {
  Listing seen;
  PerformanceCounter::VisitAllCounters([&](BasicStringSpan<char const> tag, uint64_t value) {
    if (tag.str().compare(0, prefix.size(), prefix) == 0) seen.emplace_back(tag.str(), value);
  });
  return seen;
}

// Registered during static initialisation, unregistered during exit.
PerformanceCounter s_staticCounter("pc-static", 7);

TEST(PerformanceCounter, PrefixFormsReturnTheOldValueCompoundFormsTheNew) {
  PerformanceCounter c("", 5);
  EXPECT_EQ(5u, ++c);
  EXPECT_EQ(7u, c += 1);
  EXPECT_EQ(UINT64_MAX - 2, c -= 10);  // wraps modulo 2^64
  c.store(0);
  EXPECT_EQ(0u, --c);
  EXPECT_EQ(UINT64_MAX, ++c);
  EXPECT_EQ(0u, static_cast<uint64_t>(c));
}

TEST(PerformanceCounter, CountersWithoutATagAreNeverVisited) {
  constexpr uint64_t MARK = 0x5EC4E7C0FFEE1234u;
  PerformanceCounter none(BasicStringSpan<char const>(), MARK), empty("", MARK);
  EXPECT_TRUE(none.Tag().empty() && empty.Tag().empty());
  PerformanceCounter::VisitAllCounters([&](BasicStringSpan<char const> tag, uint64_t value) {
    EXPECT_FALSE(tag.empty());
    EXPECT_NE(MARK, value) << tag.str();
  });
}

TEST(PerformanceCounter, VisitingSeesLiveCountersInConstructionOrder) {
  EXPECT_EQ((Listing{{"pc-static", 7}}), Visible("pc-static"));
  std::optional<PerformanceCounter> a, b, c;
  a.emplace("pc-order-a", 1);
  b.emplace("pc-order-b", 2);
  c.emplace("pc-order-c", 3);
  *b += 40;  // the visitor sees current values
  EXPECT_EQ((Listing{{"pc-order-a", 1}, {"pc-order-b", 42}, {"pc-order-c", 3}}),
            Visible("pc-order-"));
  b.reset();  // unlink from the middle, then the head, then the last one
  EXPECT_EQ((Listing{{"pc-order-a", 1}, {"pc-order-c", 3}}), Visible("pc-order-"));
  a.reset();
  EXPECT_EQ((Listing{{"pc-order-c", 3}}), Visible("pc-order-"));
  c.reset();
  EXPECT_TRUE(Visible("pc-order-").empty());
  b.emplace("pc-order-b", 4);  // the emptied list still links
  a.emplace("pc-order-a", 5);
  EXPECT_EQ((Listing{{"pc-order-b", 4}, {"pc-order-a", 5}}), Visible("pc-order-"));
}

TEST(PerformanceCounter, TagIsAPrivateCopyAndMayBeShared) {
  const std::string original("pc-copy\0x", 9);
  std::string text = original;
  PerformanceCounter c(text, 1), twin(text, 2);
  text.assign(100, '#');
  EXPECT_EQ(original, c.Tag().str());
  EXPECT_EQ('\0', c.Tag().data()[c.Tag().size()]);
  EXPECT_EQ((Listing{{original, 1}, {original, 2}}), Visible("pc-copy"));
}

TEST(PerformanceCounter, ConcurrentChurnAndVisiting) {
  constexpr int THREADS = 4, ROUNDS = 2000;
  PerformanceCounter shared("", 0);
  std::atomic<bool> done{false};
  std::thread visitor([&] {
    while (!done) Visible("pc-churn-");
  });
  std::vector<std::thread> threads;
  for (int t = 0; t < THREADS; ++t) {
    threads.emplace_back([&shared, t] {
      for (int i = 0; i < ROUNDS; ++i) {
        PerformanceCounter mine("pc-churn-" + std::to_string(t), 0);
        ++shared;
      }
    });
  }
  for (auto& t : threads) t.join();
  done = true;
  visitor.join();
  EXPECT_EQ(uint64_t{THREADS} * ROUNDS, shared.load());
  EXPECT_TRUE(Visible("pc-churn-").empty());
}

// ---- trace dispatch -----------------------------------------------------------

struct RecordingSink : ITraceInfoHelper {
  void TraceInfo(const std::string& message) override { messages.push_back(message); }
  std::vector<std::string> messages;
};

class TraceInfoDispatcherTest : public ::testing::Test {
protected:
  void TearDown() override { TraceInfoDispatcher::SetHandler(nullptr); }
  char m_file[16] = "src/widget.cpp";
};

TEST_F(TraceInfoDispatcherTest, MessagesReachTheInstalledSinkOnly) {
  RecordingSink first, second;
  ::testing::internal::CaptureStderr();
  TraceInfoDispatcher::Trace("nobody listens");  // no sink: no effect at all
  TraceInfoDispatcher::SetHandler(&first);
  TraceInfoDispatcher::Trace("one");
  TraceInfoDispatcher::SetHandler(&second);  // replaces the first
  TraceInfoDispatcher::Trace("two");
  TraceInfoDispatcher::SetHandler(nullptr);
  TraceInfoDispatcher::Trace("three");
  EXPECT_EQ("", ::testing::internal::GetCapturedStderr());
  EXPECT_EQ((std::vector<std::string>{"one"}), first.messages);
  EXPECT_EQ((std::vector<std::string>{"two"}), second.messages);
}

TEST_F(TraceInfoDispatcherTest, FormattedMessagesAreCutTo1023Characters) {
  RecordingSink sink;
  TraceInfoDispatcher::SetHandler(&sink);
  ::testing::internal::CaptureStderr();
  TraceInfoDispatcher::Trace(m_file, 42, "%s=%d, %05.1f%%", "x", -5, 2.5);
  for (const size_t length : {1022u, 1023u, 1024u, 5000u}) {
    TraceInfoDispatcher::Trace(m_file, 1, "%s", std::string(length, 'a').c_str());
  }
  ::testing::internal::GetCapturedStderr();
  EXPECT_EQ(
      (std::vector<std::string>{"x=-5, 002.5%", std::string(1022, 'a'), std::string(1023, 'a'),
                                std::string(1023, 'a'), std::string(1023, 'a')}),
      sink.messages);
}

TEST_F(TraceInfoDispatcherTest, FormattedMessagesWriteTheDebuggerLine) {
#ifdef _WIN32
  GTEST_SKIP() << "on Windows the line goes to OutputDebugStringA, which a test cannot read back";
#endif
  RecordingSink sink;
  for (ITraceInfoHelper* helper :
       {static_cast<ITraceInfoHelper*>(nullptr), static_cast<ITraceInfoHelper*>(&sink)}) {
    TraceInfoDispatcher::SetHandler(helper);
    ::testing::internal::CaptureStderr();
    TraceInfoDispatcher::Trace(m_file, 42, "n=%d", 7);
    EXPECT_EQ("src/widget.cpp(42): info : n=7 \n", ::testing::internal::GetCapturedStderr());
  }
  // A long message fills the line's 1023 characters and loses the end.
  ::testing::internal::CaptureStderr();
  TraceInfoDispatcher::Trace(m_file, 9, "%s", std::string(2000, 'b').c_str());
  const std::string head = "src/widget.cpp(9): info : ";
  EXPECT_EQ(head + std::string(1023 - head.size(), 'b'), ::testing::internal::GetCapturedStderr());
}

}  // namespace
}  // namespace oru
