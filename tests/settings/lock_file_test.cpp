#include "settings/lock_file.h"

#include <gtest/gtest.h>

#include <string>

#include "support/temp_dir.h"

namespace kova {
namespace {

TEST(FreeSpace, UnitsFollowTheReportsThresholds) {
  const struct {
    float kb;
    const char* figure;
  } cases[] = {
      {999, "    999 Kb"},
      {1000, "  0.977 Mb"},
      {500 * 1024, "500.000 Mb"},
      {5 * 1024 * 1024, "  5.000 Gb"},
      {1000.0f * 1024 * 1024, "1048576000.000 Mb"},  // past 999 Gb the kilobytes stay, labelled Mb
  };
  for (const auto& c : cases)
    EXPECT_EQ(format_free_space(c.kb, 12.5f),
              std::string("\nFree space on filesystem of\t:\t") + c.figure + " ( 12.50% free).\n")
        << c.kb;
}

TEST(ReadLockfile, KeysAreFoundInTheirOrderAndAFileWithoutOneIsDeleted) {
  test::TempDir dir;
  const std::string path = dir / "host_kova.lock";
  test::write_file(path,
                   "PID~4711\nLOG_DIR~/l\nXDATA_DIR~/wrong\nDATA_DIR~/d\nAPP_DATA_DIR~/a\nPRIORITY~5\n"
                   "KOVASERVER~10.0.0.1\nSETTINGS_SERVER~0.0.0.0\nVERBOSE~1\nUSER~kova");
  AgentLockRecord record;
  ASSERT_EQ(kova_read_lockfile(path, record), 1);
  EXPECT_EQ(record.pid, 4711);
  EXPECT_EQ(record.log_dir, "/l");
  EXPECT_EQ(record.data_dir, "/d");  // only at the start of a line
  EXPECT_EQ(record.app_data_dir, "/a");
  EXPECT_EQ(record.priority, 0);  // written, never read
  EXPECT_EQ(record.server, "10.0.0.1");
  EXPECT_EQ(record.settings_server, "0.0.0.0");
  EXPECT_EQ(record.verbose, 1);
  EXPECT_EQ(record.user, "kov");  // the last character goes, line feed or not

  for (const char* content : {"", "PRIORITY~5\nsomething else\n"}) {
    test::write_file(path, content);
    AgentLockRecord unknown;
    EXPECT_EQ(kova_read_lockfile(path, unknown), 0) << content;
    EXPECT_FALSE(test::file_exists(path)) << content;
  }
  AgentLockRecord none;
  EXPECT_EQ(kova_read_lockfile(path, none), -1);
}

}  // namespace
}  // namespace kova
