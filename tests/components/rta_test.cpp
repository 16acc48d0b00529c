#include "components/rta.h"

#include <gtest/gtest.h>

#include <string>
#include <tuple>

#include "component_fixture.h"

namespace kova::test {
namespace {

TEST(RtaFiles, MergeWritesOnlyOnAChangeAlertsAreZeroOrOneAndALockWithoutKeysGoes) {
  TempDir dir;
  make_dirs(dir / "settings");
  RtaSettings r;
  r.hostname = "web1";
  rta_adjust_path_settings(r, dir.path());
  write_file(r.settings_file, "ALERTS~0\n");
  ASSERT_EQ(rta_parse_startup_file(r), 1);
  EXPECT_EQ(compare_rta_settings(r, 0, 0, 0), 0) << "port 0 and scan 0 keep the stored values";
  EXPECT_EQ(compare_rta_settings(r, 2101, 0, 2), 0);
  EXPECT_EQ(read_file(r.settings_file), "ALERTS~0\n");
  EXPECT_EQ(compare_rta_settings(r, 2200, 7, 0), 1);
  EXPECT_EQ(read_file(r.settings_file),
            "PRIORITY~0\nVERBOSE~0\nUSER~root\nRTA_PORT~2200\nSCAN_RATE~2\nALERTS~0\nPROCESSES~1\n");
  EXPECT_EQ(compare_rta_settings(r, 0, 0, 0), 1) << "processes back to 0 is a change";

  write_file(r.settings_file, "ALERTS~5\nPRIORITY~4\nUSER~ sam \nRTA_PORT~2300\nSCAN_RATE~5\nPORT~9\n");
  ASSERT_EQ(rta_parse_startup_file(r), 1);
  EXPECT_EQ(std::tie(r.alerts, r.priority, r.priority_given, r.user, r.port, r.scan_rate),
            std::tuple(1, 4, 1, "sam", 2300, 5));
  rta_adjust_path_settings(r, dir / "none");
  EXPECT_EQ(rta_parse_startup_file(r), 0);
  EXPECT_EQ(compare_rta_settings(r, 2201, 0, 0), 0);

  // kovarta's own lock file is read for the status, with the stand-in's.
  write_file(dir / "junk", "321@0@2101@now\n");
  RtaLockfile lock;
  EXPECT_EQ(rta_read_lockfile(dir / "junk", lock), 0);
  EXPECT_FALSE(file_exists(dir / "junk")) << "a lock file without keys is removed";
}

using Rta = ComponentTest;

// Starting and stopping on request are checked against the real binary.
TEST_F(Rta, OnlyAnAuthorisedRequesterChangesTheSettingsTheProgramRunsWith) {
  rta_cmdline() = RtaSettings{};
  rta_cmdline().hostname = settings_.hostname;
  rta_adjust_path_settings(rta_cmdline(), "/nonexistent");
  const std::string settings_file = root_ + "/settings/rta_" + settings_.hostname + ".config";
  settings_.settings_server = "10.1.1.1,10.1.1.2";
  ASSERT_EQ(StartRTA_UNIX("10.1.1.20", 0, 2300, 0, settings_), kStatusRunning) << log_text();
  int pid = rta_pid();
  EXPECT_NE(log_text().find("KOVA Realtime settings not saved, Unauthorized Request"), std::string::npos);
  EXPECT_FALSE(file_exists(settings_file));
  EXPECT_EQ(StopRTA_UNIX(settings_), kStatusNotRunning);
  EXPECT_TRUE(wait_for_exit(pid));

  ASSERT_EQ(StartRTA_UNIX("10.1.1.2", 1, 2200, 0, settings_), kStatusRunning) << log_text();
  EXPECT_NE(read_file(settings_file).find("RTA_PORT~2200\n"), std::string::npos);
  EXPECT_NE(read_file(settings_.rta_lock_path).find("@-1@2200@"), std::string::npos)
      << "kovarta ran with the merged settings";
  EXPECT_NE(log_text().find(root_ + "/bin/kovarta -stop -rootdir " + root_ + " > /dev/null 2>&1\n"), std::string::npos)
      << "logged as it reads, unquoted: " << log_text();
}

}  // namespace
}  // namespace kova::test
