// PerformanceCounter arithmetic and registry, and TraceInfoDispatcher.
#include "oru/performance_counter.h"

#include <gtest/gtest.h>

#include <optional>
#include <thread>
#include <vector>

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

TEST(PerformanceCounter, VisitingSeesLiveTaggedCountersInConstructionOrder) {
  EXPECT_EQ((Listing{{"pc-static", 7}}), Visible("pc-static"));
  // Counters without a tag are never visited.
  PerformanceCounter none(BasicStringSpan<char const>(), 1), empty("", 2);
  EXPECT_TRUE(none.Tag().empty() && empty.Tag().empty());
  for (const auto& [tag, value] : Visible("")) EXPECT_FALSE(tag.empty()) << value;

  // The tag is a private, terminated copy of the text (zero bytes included).
  std::string text("pc-order-a\0x", 12);
  std::optional<PerformanceCounter> a, b, c;
  a.emplace(text, 1);
  b.emplace("pc-order-b", 2);
  c.emplace(text, 3);  // tags may be shared
  text.assign(100, '#');
  const std::string tagA("pc-order-a\0x", 12);
  EXPECT_EQ(tagA, a->Tag().str());
  EXPECT_EQ('\0', a->Tag().data()[a->Tag().size()]);
  *b += 40;  // the visitor sees current values
  EXPECT_EQ((Listing{{tagA, 1}, {"pc-order-b", 42}, {tagA, 3}}), Visible("pc-order-"));
  b.reset();  // unlink from the middle, then the head, then the last one
  EXPECT_EQ((Listing{{tagA, 1}, {tagA, 3}}), Visible("pc-order-"));
  a.reset();
  EXPECT_EQ((Listing{{tagA, 3}}), Visible("pc-order-"));
  c.reset();
  EXPECT_TRUE(Visible("pc-order-").empty());
  b.emplace("pc-order-b", 4);  // the emptied list still links
  a.emplace("pc-order-a", 5);
  EXPECT_EQ((Listing{{"pc-order-b", 4}, {"pc-order-a", 5}}), Visible("pc-order-"));
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

#ifdef _WIN32
constexpr bool LINE_ON_STDERR = false;  // OutputDebugStringA, which a test cannot read back
#else
constexpr bool LINE_ON_STDERR = true;
#endif

struct RecordingSink : ITraceInfoHelper {
  void TraceInfo(const std::string& message) override { messages.push_back(message); }
  std::vector<std::string> messages;
};

class TraceInfoDispatcherTest : public ::testing::Test {
protected:
  void TearDown() override { TraceInfoDispatcher::SetHandler(nullptr); }
  // Traces a formatted message; what it wrote to the debugger line (stderr).
  template <class... Args>
  std::string Formatted(int line, const char* format, Args... args) {
    ::testing::internal::CaptureStderr();
    TraceInfoDispatcher::Trace(m_file, line, format, args...);
    return ::testing::internal::GetCapturedStderr();
  }
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

// The sink gets the message cut to 1023 characters; the debugger line, written
// with or without a sink, is cut to 1023 characters as a whole.
TEST_F(TraceInfoDispatcherTest, FormattedMessagesAreCutTo1023Characters) {
  RecordingSink sink;
  for (ITraceInfoHelper* helper :
       {static_cast<ITraceInfoHelper*>(nullptr), static_cast<ITraceInfoHelper*>(&sink)}) {
    TraceInfoDispatcher::SetHandler(helper);
    EXPECT_EQ(LINE_ON_STDERR ? "src/widget.cpp(42): info : x=-5, 002.5% \n" : "",
              Formatted(42, "%s=%d, %05.1f%%", "x", -5, 2.5));
  }
  const std::string head = "src/widget.cpp(9): info : ";
  for (const size_t length : {1022u, 1023u, 1024u, 5000u}) {
    EXPECT_EQ(LINE_ON_STDERR ? head + std::string(1023 - head.size(), 'a') : "",
              Formatted(9, "%s", std::string(length, 'a').c_str()));
  }
  EXPECT_EQ(
      (std::vector<std::string>{"x=-5, 002.5%", std::string(1022, 'a'), std::string(1023, 'a'),
                                std::string(1023, 'a'), std::string(1023, 'a')}),
      sink.messages);
}

}  // namespace
}  // namespace oru
