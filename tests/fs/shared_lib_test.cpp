// SharedLib over a library the suite builds (tests/support/sample_library.cc).
#include "oru/shared_lib.h"

#include <gtest/gtest.h>

#include <string>

#include "support/test_util.h"

namespace oru {
namespace {

TEST(SharedLib, LoadsByPathAndByBareNameAndSaysWhyNot) {
  const std::string path = test::ExecutableDirectory() + "/" + ORU_TEST_SAMPLE_FILE;
  // A bare name is found the platform's way (here through the program's
  // directory on Windows, LD_LIBRARY_PATH elsewhere).
  for (const std::string& name : {path, std::string("oru_sample")}) {
    std::string error;
    auto lib = SharedLib::Load(name, &error);
    ASSERT_NE(lib, nullptr) << name << ": " << error;
    const std::string loaded = lib->GetPath();
    EXPECT_EQ(loaded.substr(loaded.size() - std::string(ORU_TEST_SAMPLE_FILE).size()),
              ORU_TEST_SAMPLE_FILE);
    auto* add = lib->GetFunction<int(int, int)>("oru_sample_add");
    ASSERT_NE(add, nullptr);
    EXPECT_EQ(add(2, 3), 5);
    EXPECT_EQ(lib->GetSymbol("no_such_symbol"), nullptr);
  }
  std::string error;
  EXPECT_EQ(SharedLib::Load("oru_no_such_library", &error), nullptr);
  EXPECT_NE(error.find("oru_no_such_library"), std::string::npos) << error;
  EXPECT_EQ(SharedLib::Load(""), nullptr);
}

}  // namespace
}  // namespace oru
