#include "platform/proc_table.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <tuple>

#include "platform/unique.h"

namespace kova::test {
namespace {

// A name cut to 15 characters is checked with the lookups by name.
TEST(ParseProcInfo, NameLiesBetweenFirstOpenAndLastClose) {
  const struct { const char* record; bool ok; int pid; const char* fname; } cases[] = {
      {"4711 (vorn_monitor) S 1 4711 4711 0 -1", true, 4711, "vorn_monitor"},
      {"12 (a) (b) R 1", true, 12, "a) (b"},
      {"x (name) S", false, 0, ""},
      {"9 name S", false, 0, ""},
      {"9 )name( S", false, 0, ""},
  };
  for (const auto& c : cases) {
    ProcInfo info;
    ASSERT_EQ(parse_proc_info(c.record, info), c.ok) << c.record;
    if (c.ok) { EXPECT_EQ(std::tuple(info.pid, info.fname), std::tuple(c.pid, c.fname)) << c.record; }
  }
}

TEST(ReadProcInfo, ReadsOwnRecordAndTellsEmptyFromFailed) {
  ProcInfo info;
  UniqueFd self(::open(proc_info_path("/proc/self").c_str(), O_RDONLY));
  ASSERT_EQ(read_proc_info(self.get(), "/proc/self", info), 1);
  EXPECT_EQ(std::tuple(info.pid, info.fname, info.zone), std::tuple(::getpid(), "test_platform", getzoneid()));

  UniqueFd empty(::open("/dev/null", O_RDONLY));
  EXPECT_EQ(read_proc_info(empty.get(), "/proc/self", info), 0);
  UniqueFd directory(::open("/proc/self", O_RDONLY | O_DIRECTORY));
  EXPECT_EQ(read_proc_info(directory.get(), "/proc/self", info), -1);
}

}  // namespace
}  // namespace kova::test
