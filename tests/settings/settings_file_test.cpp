#include "settings/settings_file.h"

#include <gtest/gtest.h>

#include <cstdlib>

#include "settings/command_line.h"
#include "support/temp_dir.h"

namespace kova {
namespace {

class SettingsFile : public testing::Test {
 protected:
  void SetUp() override {
    unsetenv("KOVA_KEEP_PERF");
    kova_init_command_line(s);
    kova_adjust_path_settings(s, root.path());
    test::make_dirs(s.settings_dir);
  }
  int read(const std::string& content) {
    test::write_file(s.settings_file_path, content);
    return kova_parse_startup_file(s);
  }
  test::TempDir root;
  AgentSettings s;
};

TEST_F(SettingsFile, WrittenSettingsReadBackWithTheGrowthQuirk) {
  s.priority = 5;
  s.verbose = 1;
  s.user = "kova";
  s.port = 1700;
  s.server = "10.1.1.1,10.1.1.2";
  s.settings_server = "10.1.1.1";
  s.keep_perf = 1;
  s.app_data_dir = "/apps";
  s.compression_command = "gzip -c * > *.gz";
  s.measureware_source = 1;
  s.check_growth = 0;
  s.growth_interval = 300;
  testing::internal::CaptureStdout();
  ASSERT_EQ(kova_write_settings_file(s), 1);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "Writing config file " + s.settings_file_path + " \n");
  EXPECT_EQ(test::read_file(s.settings_file_path),
            "PRIORITY~5\nVERBOSE~1\nUSER~kova\nKOVAAGENT_PORT~1700\nKOVASERVER~10.1.1.1,10.1.1.2\n"
            "SETTINGS_SERVER~10.1.1.1\nKEEP_PERF~1\nAPP_DATA_DIR~/apps\nCOMPRESSION_COMMAND~gzip -c * > *.gz\n"
            "DATA_SOURCE~Measureware\nCHECK_GROWTH~0\nGROWTH_INTERVAL~300\n");

  AgentSettings back;
  kova_init_command_line(back);
  back.settings_file_path = s.settings_file_path;
  ASSERT_EQ(kova_parse_startup_file(back), 1);
  EXPECT_EQ(back.priority, 5);
  EXPECT_EQ(back.verbose, 1);
  EXPECT_EQ(back.user, "kova");
  EXPECT_EQ(back.port, 1700);
  EXPECT_EQ(back.server, "10.1.1.1,10.1.1.2");
  EXPECT_EQ(back.settings_server, "10.1.1.1");
  EXPECT_EQ(back.app_data_dir, "/apps");
  EXPECT_EQ(back.compression_command, "gzip -c * > *.gz");
  EXPECT_EQ(back.measureware_source, 1);
  EXPECT_EQ(back.keep_perf, 0);  // written, never read back
  EXPECT_EQ(back.check_growth, 900);
  EXPECT_EQ(back.growth_interval, 300);
}

TEST_F(SettingsFile, DirectoryKeysNeedAnExistingPathAndDataDirMustBeginTheLine) {
  test::make_dirs(root / "d1");
  std::string original = s.data_dir;
  EXPECT_EQ(read("DATA_DIR~" + root / "missing" + "\n"), 1);  // still counts as matched
  EXPECT_EQ(s.data_dir, original);
  EXPECT_EQ(s.datadir_given, 0);

  EXPECT_EQ(read(" DATA_DIR~" + root / "d1" + "\n"), 0);
  EXPECT_EQ(s.data_dir, original);

  EXPECT_EQ(read("APP_DATA_DIR~" + root / "d1" + "\n"), 1);
  EXPECT_EQ(s.data_dir, original);
  EXPECT_EQ(s.app_data_dir, root / "d1");

  EXPECT_EQ(read("DATA_DIR~" + root / "d1" + "\nLOG_DIR~" + root / "d1" + "\n"), 1);
  EXPECT_EQ(s.data_dir, root / "d1");
  EXPECT_EQ(s.datadir_given, 1);
  EXPECT_EQ(s.log_dir, root / "d1");
}

TEST_F(SettingsFile, ValueQuirksAreKept) {
  EXPECT_EQ(read("USER~  capuser  \nKOVASERVER~10.0.0.9"), 1);
  EXPECT_EQ(s.user, "capuser");
  EXPECT_EQ(s.server, "10.0.0.");  // a last line without line feed loses a character
  EXPECT_EQ(read("CHECK_GROWTH~7\n"), 1);
  EXPECT_EQ(s.check_growth, 1);
  EXPECT_EQ(read("DATA_SOURCE~vORN Monitor\n"), 1);
  EXPECT_EQ(s.measureware_source, 0);
  std::string data_dir = s.data_dir;
  EXPECT_EQ(read("DATA_DIR"), 1);  // the bare key on a last line without line feed
  EXPECT_EQ(s.data_dir, data_dir);
}

TEST_F(SettingsFile, KeepPerfFromTheEnvironmentOnlyWhenALineMatched) {
  setenv("KOVA_KEEP_PERF", "1", 1);
  EXPECT_EQ(read(""), 0);
  EXPECT_EQ(read("UNKNOWN~1\n# comment\n"), 0);
  EXPECT_EQ(s.keep_perf, 0);
  EXPECT_EQ(read("VERBOSE~1\n"), 1);
  EXPECT_EQ(s.keep_perf, 1);
  unsetenv("KOVA_KEEP_PERF");
}

TEST_F(SettingsFile, OverlongLinesAndUnreadableFilesAreReportedAndNeverFatal) {
  testing::internal::CaptureStderr();
  EXPECT_EQ(read("KOVASERVER~" + std::string(600, '1') + "\nKOVAAGENT_PORT~1800\n"), 1);
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_NE(err.find("line 1 is longer than 511 characters, ignored"), std::string::npos);
  EXPECT_EQ(s.server, "0.0.0.0");
  EXPECT_EQ(s.port, 1800);

  s.settings_file_path = root / "missing.config";
  testing::internal::CaptureStderr();
  EXPECT_EQ(kova_parse_startup_file(s), 0);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");  // a missing file is normal

  s.settings_file_path = root.path();
  testing::internal::CaptureStderr();
  EXPECT_EQ(kova_parse_startup_file(s), 0);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "kovaagent, unable to read settings file " + root.path() + ", Is a directory\n");
}

}  // namespace
}  // namespace kova
