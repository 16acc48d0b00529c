#include "platform/system_facts.h"

#include <gtest/gtest.h>
#include <sys/utsname.h>

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

TEST(SystemFacts, PlatformIsProductNameElseMachine) {
  test::TempDir dir;
  utsname uts;
  ASSERT_EQ(::uname(&uts), 0);
  test::write_file(dir / "product", "Standard PC (Q35 + ICH9, 2009)\n");
  test::write_file(dir / "blank", " \n");
  EXPECT_EQ(platform_name((dir / "product").c_str()), "Standard PC (Q35 + ICH9, 2009)");
  EXPECT_EQ(platform_name((dir / "blank").c_str()), uts.machine);
  EXPECT_EQ(platform_name((dir / "missing").c_str()), uts.machine);
}

TEST(SystemFacts, MemoryMatchesTheKernelsTotal) {
  std::string meminfo = test::read_file("/proc/meminfo");
  long long kb = std::stoll(meminfo.substr(meminfo.find(':') + 1));
  EXPECT_EQ(physical_memory_bytes(), kb * 1024);
  EXPECT_GE(processor_count(), 1);
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
