#include "housekeeping/purge.h"

#include <gtest/gtest.h>

#include <string>

#include "base/log.h"
#include "support/fixed_clock.h"
#include "support/temp_dir.h"

namespace kova::test {
namespace {

class Purge : public testing::Test {
 protected:
  void SetUp() override { log_state().logfile = logs / "agent.log"; }
  void TearDown() override { log_state().logfile.clear(); }
  TempDir dir, logs;
  FixedClock clock{local_time(2012, 3, 2, 10, 0, 0)};
};

// Each file by its age against the cut-off, and whether it goes.
TEST_F(Purge, DeletesOnlyThisHostsOldDataAndLogFilesAndLogsEachDeletion) {
  const std::time_t cutoff = local_time(2012, 2, 24, 10, 0, 0);  // 7 calendar days back
  ASSERT_EQ(purge_cutoff(7), cutoff);
  const struct { const char* name; std::time_t age; bool deleted; } files[] = {
      {"qdtsx_myhost_2012Feb01.zud", 86400, true},     {"qdtsx_myhost_2012Feb24.zud-1", 0, true},  // at the cut-off
      {"qdtsx_myhost_2012Feb25.zud", -1, false},       {"qdtsx_otherhost_2012Feb01.zud", 86400, false},
      {"qdtsx_myhost_2012Feb01.zud.gz", 86400, false},  // ".zud" only in the middle
      {"qdtsx_myhost_2012Feb01.perf", 86400, false},   {".zud", 86400, false},  // dot first: no extension
      {"kova_myhost_2012Feb01.log", 86400, true},      {"rta_myhost_2012Feb01.log", 86400, true},
      {"kova_myhost_2012Mar01.log", -1, false},        {"kova_otherhost_2012Feb01.log", 86400, false},
  };
  for (const auto& f : files) {
    write_file(dir / f.name, "x");
    set_mtime(dir / f.name, cutoff - f.age);
  }
  EXPECT_EQ(purge_data_file(dir.path(), "myhost", ".zud", 0, 0), 0);  // 0 days: no purge
  ASSERT_EQ(purge_data_file(dir.path(), "myhost", ".zud", 7, 0), 1);
  ASSERT_EQ(purge_log_file(dir.path(), "myhost", ".log", 7, 0), 1);
  const std::string log = read_file(logs / "agent.log");
  for (const auto& f : files) {
    EXPECT_EQ(file_exists(dir / f.name), !f.deleted) << f.name;
    const std::string line = "KOVAAGENT-I-DEL_DATA,    Deleting data file " + std::string(f.name) + "\n";
    EXPECT_EQ(log.find(line) != std::string::npos, f.deleted) << f.name;
  }

  EXPECT_EQ(purge_data_file(dir / "nope", "myhost", ".zud", 3, 0), 0);
  EXPECT_NE(read_file(logs / "agent.log").find("E-PURGE,       Unable to change directory to " + dir / "nope"),
            std::string::npos);
}

}  // namespace
}  // namespace kova::test
