// The debugging console without a terminal: output goes to a private log
// file whose path is announced, and comes back on stop.
#include "oru/debugging_console.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <iostream>

#include "support/test_util.h"

#ifndef _WIN32
#include <sys/stat.h>
#include <unistd.h>
#endif

namespace oru {
namespace {

TEST(DebuggingConsole, RoutesOutputToAPrivateLogAndBack) {
#ifdef _WIN32
  GTEST_SKIP() << "a Windows console is not observable from the test";
#else
  testing::internal::CaptureStderr();  // not a terminal now
  ASSERT_TRUE(CreateDebuggingConsole("title"));
  EXPECT_TRUE(CreateDebuggingConsole("again"));  // harmless
  std::printf("from printf\n");
  std::cerr << "from cerr\n";
  StopDebuggingConsole();
  StopDebuggingConsole();
  std::fprintf(stderr, "after\n");
  const std::string err = testing::internal::GetCapturedStderr();
  const std::string prefix = "Debugging console: output goes to ";
  ASSERT_EQ(err.rfind(prefix, 0), 0u) << err;
  const std::string log = err.substr(prefix.size(), err.find('\n') - prefix.size());
  EXPECT_EQ(err.substr(err.find('\n') + 1), "after\n");
  EXPECT_EQ(test::ReadFile(log), "from printf\nfrom cerr\n");
  struct stat st {};
  ASSERT_EQ(stat(log.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  unlink(log.c_str());
#endif
}

}  // namespace
}  // namespace oru
