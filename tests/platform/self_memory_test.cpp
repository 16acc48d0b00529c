#include "platform/self_memory.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>

#include "support/temp_dir.h"

namespace kova::test {
namespace {

int g_initialised = 4711;  // .data
char g_zeroed[3 * 4096];   // .bss, spanning pages
const char kConstant[] = "read-only data stays readable";

// Resident kilobytes of this program's code, as the kernel counts them.
long resident_code_kb() {
  std::istringstream maps(read_file("/proc/self/smaps"));
  long total = 0;
  bool code = false;
  for (std::string line; std::getline(maps, line);) {
    if (line.find('-') < line.find(' '))  // a mapping's first line: "start-end perms ..."
      code = line.find(" r-xp ") != std::string::npos && line.find("/test_platform") != std::string::npos;
    else if (code && line.rfind("Rss:", 0) == 0)
      total += std::atol(line.c_str() + 4);
  }
  return total;
}

#define CHILD_CHECK(condition) \
  do { if (!(condition)) { std::fprintf(stderr, "line %d: %s\n", __LINE__, #condition); ::_exit(1); } } while (0)

TEST(SelfMemory, DropsCodePagesAndKeepsEveryWrittenByte) {
  EXPECT_EXIT(
      {
        g_initialised += 1;
        std::memset(g_zeroed, 'z', sizeof g_zeroed);
        std::string* heap = new std::string(100000, 'h');
        const long before = resident_code_kb();
        release_startup_memory();
        const long after = resident_code_kb();
        CHILD_CHECK(after < before);
        CHILD_CHECK(g_initialised == 4712);
        CHILD_CHECK(g_zeroed[0] == 'z' && g_zeroed[sizeof g_zeroed - 1] == 'z');
        CHILD_CHECK(*heap == std::string(100000, 'h'));
        CHILD_CHECK(std::strcmp(kConstant, "read-only data stays readable") == 0);
        delete heap;
        ::_exit(0);
      },
      ::testing::ExitedWithCode(0), "^$");
}

}  // namespace
}  // namespace kova::test
