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
  void SetUp() override {
    make_dirs(dir.path());
    log_state().logfile = logs / "agent.log";
  }
  void TearDown() override { log_state().logfile.clear(); }
  void file(const std::string& name, std::time_t mtime) {
    write_file(dir / name, "x");
    set_mtime(dir / name, mtime);
  }
  TempDir dir, logs;
  FixedClock clock{local_time(2012, 3, 2, 10, 0, 0)};
};

TEST_F(Purge, DeletesOnlyThisHostsOldDataFilesAndLogsEachDeletion) {
  std::time_t cutoff = local_time(2012, 2, 24, 10, 0, 0);  // 7 calendar days back
  ASSERT_EQ(purge_cutoff(7), cutoff);
  file("qdtsx_myhost_2012Feb01.zud", cutoff - 86400);
  file("qdtsx_myhost_2012Feb24.zud-1", cutoff);              // exactly at the cut-off
  file("qdtsx_myhost_2012Feb25.zud", cutoff + 1);            // too young
  file("qdtsx_otherhost_2012Feb01.zud", cutoff - 86400);     // another host
  file("qdtsx_myhost_2012Feb01.zud.gz", cutoff - 86400);     // ".zud" only in the middle
  file("qdtsx_myhost_2012Feb01.perf", cutoff - 86400);
  file(".zud", cutoff - 86400);                              // dot first: no extension
  make_dirs(dir / "sub");

  ASSERT_EQ(purge_data_file(dir.path(), "myhost", ".zud", 7, 0), 1);

  EXPECT_FALSE(file_exists(dir / "qdtsx_myhost_2012Feb01.zud"));
  EXPECT_FALSE(file_exists(dir / "qdtsx_myhost_2012Feb24.zud-1"));
  for (const char* kept : {"qdtsx_myhost_2012Feb25.zud", "qdtsx_otherhost_2012Feb01.zud",
                           "qdtsx_myhost_2012Feb01.zud.gz", "qdtsx_myhost_2012Feb01.perf", ".zud"})
    EXPECT_TRUE(file_exists(dir / kept)) << kept;

  std::string log = read_file(logs / "agent.log");
  EXPECT_NE(log.find("KOVAAGENT-I-DEL_DATA,    Deleting data file qdtsx_myhost_2012Feb01.zud\n"), std::string::npos);
  EXPECT_NE(log.find("Deleting data file qdtsx_myhost_2012Feb24.zud-1\n"), std::string::npos);
  EXPECT_EQ(log.find("otherhost"), std::string::npos);
}

TEST_F(Purge, AgeRulesOfTheWrappersAndAMissingDirectory) {
  std::time_t now = clock_now();
  file("qdtsx_h_old.zud", now - 30 * 86400);
  EXPECT_EQ(purge_data_file(dir.path(), "h", ".zud", 0, 0), 0);
  EXPECT_TRUE(file_exists(dir / "qdtsx_h_old.zud"));

  file("kova_h_2012Feb01.log", now - 10 * 86400);
  file("rta_h_2012Feb01.log", now - 10 * 86400);
  file("kova_h_2012Mar01.log", now - 86400);
  EXPECT_EQ(purge_log_file(dir.path(), "h", ".log", 5, 0), 1);
  EXPECT_FALSE(file_exists(dir / "kova_h_2012Feb01.log"));
  EXPECT_FALSE(file_exists(dir / "rta_h_2012Feb01.log"));
  EXPECT_TRUE(file_exists(dir / "kova_h_2012Mar01.log"));

  EXPECT_EQ(purge_data_file(dir / "nope", "h", ".zud", 3, 0), 0);
  EXPECT_NE(read_file(logs / "agent.log").find("E-PURGE,       Unable to change directory to " + dir / "nope"),
            std::string::npos);
}

}  // namespace
}  // namespace kova::test
