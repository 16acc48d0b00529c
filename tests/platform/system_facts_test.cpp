#include "platform/system_facts.h"

#include <gtest/gtest.h>

#include <cstdio>

#include "support/temp_dir.h"

namespace kova {
namespace {

TEST(SystemFacts, CountsOnlyWholeDisks) {
  test::TempDir dir;
  for (const char* name : {"vda", "sda", "nvme0n1", "loop0", "ram1", "zram0", "dm-0", "md0"})
    test::make_dirs(dir / name);
  EXPECT_EQ(disk_count(dir.path().c_str()), 4);
  EXPECT_EQ(disk_count((dir / "missing").c_str()), 0);
}

TEST(SystemFacts, MemoryAndHostIdAgreeWithTheKernelAndHostid) {
  std::string meminfo = test::read_file("/proc/meminfo");
  long long kb = std::stoll(meminfo.substr(meminfo.find(':') + 1));
  EXPECT_EQ(physical_memory_bytes(), kb * 1024);
  if (test::file_exists("/usr/bin/hostid")) {
    std::FILE* out = ::popen("/usr/bin/hostid", "r");
    char line[64] = {};
    ASSERT_NE(std::fgets(line, sizeof line, out), nullptr);
    ::pclose(out);
    EXPECT_EQ(host_serial() + "\n", line);
  }
}

}  // namespace
}  // namespace kova
