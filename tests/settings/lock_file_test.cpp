#include "settings/lock_file.h"

#include <gtest/gtest.h>

#include <string>
#include <tuple>

#include "support/temp_dir.h"

namespace kova::test {
namespace {

TEST(FreeSpace, UnitsFollowTheReportsThresholds) {
  const std::pair<float, const char*> cases[] = {
      {999, "    999 Kb"}, {1000, "  0.977 Mb"}, {500 * 1024, "500.000 Mb"}, {5 * 1024 * 1024, "  5.000 Gb"},
      {1000.0f * 1024 * 1024, "1048576000.000 Mb"},  // past 999 Gb the kilobytes stay, labelled Mb
  };
  const std::string label = "\nFree space on filesystem of\t:\t";
  for (const auto& [kb, figure] : cases) EXPECT_EQ(format_free_space(kb, 12.5f), label + figure + " ( 12.50% free).\n");
}

TEST(ReadLockfile, KeysAreFoundInTheirOrderAndAFileWithoutOneIsDeleted) {
  TempDir dir;
  const std::string path = dir / "host_kova.lock";
  write_file(path,
                   "PID~4711\nLOG_DIR~/l\nXDATA_DIR~/wrong\nDATA_DIR~/d\nAPP_DATA_DIR~/a\nPRIORITY~5\n"
                   "KOVASERVER~10.0.0.1\nSETTINGS_SERVER~0.0.0.0\nVERBOSE~1\nUSER~kova");
  AgentLockRecord record;
  ASSERT_EQ(kova_read_lockfile(path, record), 1);
  // DATA_DIR~ only at the start of a line; PRIORITY~ written, never read; the last character goes, line feed or not.
  EXPECT_EQ(std::tie(record.pid, record.log_dir, record.data_dir, record.app_data_dir, record.priority, record.server,
                     record.settings_server, record.verbose, record.user),
            std::tuple(4711, "/l", "/d", "/a", 0, "10.0.0.1", "0.0.0.0", 1, "kov"));

  for (const char* content : {"", "PRIORITY~5\nsomething else\n"}) {
    write_file(path, content);
    AgentLockRecord unknown;
    EXPECT_EQ(kova_read_lockfile(path, unknown), 0) << content;
    EXPECT_FALSE(file_exists(path)) << content;
  }
  AgentLockRecord none;
  EXPECT_EQ(kova_read_lockfile(path, none), -1);
}

}  // namespace
}  // namespace kova::test
