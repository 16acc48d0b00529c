#include "platform/system_facts.h"

#include <gtest/gtest.h>

#include <cstdio>

#include "support/temp_dir.h"

namespace kova::test {
namespace {

TEST(SystemFacts, CountsOnlyWholeDisks) {
  TempDir dir;
  for (const char* name : {"vda", "sda", "nvme0n1", "loop0", "ram1", "zram0", "dm-0", "md0"})
    make_dirs(dir / name);
  EXPECT_EQ(disk_count(dir.path().c_str()), 4);
  EXPECT_EQ(disk_count((dir / "missing").c_str()), 0);
}

// The memory size is checked against the kernel's with the configuration report.
TEST(SystemFacts, HostIdAgreesWithHostid) {
  if (file_exists("/usr/bin/hostid")) {
    std::FILE* out = ::popen("/usr/bin/hostid", "r");
    char line[64] = {};
    ASSERT_NE(std::fgets(line, sizeof line, out), nullptr);
    ::pclose(out);
    EXPECT_EQ(host_serial() + "\n", line);
  }
}

}  // namespace
}  // namespace kova::test
