#include "settings/settings_file.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <tuple>

#include "settings/command_line.h"
#include "support/temp_dir.h"

namespace kova::test {
namespace {

class SettingsFile : public testing::Test {
 protected:
  void SetUp() override {
    unsetenv("KOVA_KEEP_PERF");
    kova_init_command_line(s);
    kova_adjust_path_settings(s, root.path());
    make_dirs(s.settings_dir);
  }
  int read(const std::string& content) {
    write_file(s.settings_file_path, content);
    return kova_parse_startup_file(s);
  }
  TempDir root;
  AgentSettings s;
};

TEST_F(SettingsFile, WrittenSettingsReadBackWithTheGrowthQuirk) {
  s.priority = 5, s.verbose = 1, s.user = "kova", s.port = 1700, s.server = "10.1.1.1,10.1.1.2";
  s.settings_server = "10.1.1.1", s.keep_perf = 1, s.app_data_dir = "/apps", s.compression_command = "gzip -c * > *.gz";
  s.measureware_source = 1, s.check_growth = 0, s.growth_interval = 300;
  testing::internal::CaptureStdout();
  ASSERT_EQ(kova_write_settings_file(s), 1);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "Writing config file " + s.settings_file_path + " \n");
  EXPECT_EQ(read_file(s.settings_file_path),
            "PRIORITY~5\nVERBOSE~1\nUSER~kova\nKOVAAGENT_PORT~1700\nKOVASERVER~10.1.1.1,10.1.1.2\n"
            "SETTINGS_SERVER~10.1.1.1\nKEEP_PERF~1\nAPP_DATA_DIR~/apps\nCOMPRESSION_COMMAND~gzip -c * > *.gz\n"
            "DATA_SOURCE~Measureware\nCHECK_GROWTH~0\nGROWTH_INTERVAL~300\n");

  AgentSettings back;
  kova_init_command_line(back);
  back.settings_file_path = s.settings_file_path;
  ASSERT_EQ(kova_parse_startup_file(back), 1);
  EXPECT_EQ(std::tie(back.priority, back.verbose, back.user, back.port, back.server, back.settings_server,
                     back.app_data_dir, back.compression_command, back.measureware_source),
            std::tie(s.priority, s.verbose, s.user, s.port, s.server, s.settings_server, s.app_data_dir,
                     s.compression_command, s.measureware_source));
  // KEEP_PERF~ is written, never read back; CHECK_GROWTH~ takes the growth interval's number.
  EXPECT_EQ(std::tuple(back.keep_perf, back.check_growth, back.growth_interval), std::tuple(0, 900, 300));
}

// Written after the others only when they differ from their defaults (the
// test above shows a default file); the real binary reads them.
TEST_F(SettingsFile, HardenedModeKeysFollowTheOthers) {
  s.harden = 1, s.allow_update = 1, s.max_requests = 4, s.listen_address = "::";
  testing::internal::CaptureStdout();
  ASSERT_EQ(kova_write_settings_file(s), 1);
  testing::internal::GetCapturedStdout();
  EXPECT_TRUE(read_file(s.settings_file_path)
                  .ends_with("GROWTH_INTERVAL~900\nHARDEN~1\nALLOW_UPDATE~1\nMAX_REQUESTS~4\nLISTEN_ADDRESS~::\n"));
  EXPECT_EQ(read("HARDEN~2\nALLOW_UPDATE~0\nLISTEN_ADDRESS~::1"), 1);  // any number but 0 switches on
  EXPECT_EQ(std::tuple(s.harden, s.allow_update, s.listen_address), std::tuple(1, 0, "::1"));
}

TEST_F(SettingsFile, DirectoryKeysNeedAnExistingPathAndDataDirMustBeginTheLine) {
  make_dirs(root / "d1");
  const std::string original = s.data_dir, d1 = root / "d1";
  EXPECT_EQ(read("DATA_DIR~" + root / "missing" + "\n"), 1);  // still counts as matched
  EXPECT_EQ(std::tuple(s.data_dir, s.datadir_given), std::tuple(original, 0));
  EXPECT_EQ(read(" DATA_DIR~" + d1 + "\n"), 0);
  EXPECT_EQ(s.data_dir, original);
  EXPECT_EQ(read("APP_DATA_DIR~" + d1 + "\n"), 1);
  EXPECT_EQ(std::tuple(s.data_dir, s.app_data_dir), std::tuple(original, d1));
  EXPECT_EQ(read("DATA_DIR~" + d1 + "\nLOG_DIR~" + d1 + "\n"), 1);
  EXPECT_EQ(std::tuple(s.data_dir, s.datadir_given, s.log_dir), std::tuple(d1, 1, d1));
}

TEST_F(SettingsFile, ValueQuirksAreKept) {
  EXPECT_EQ(read("USER~  capuser  \nKOVASERVER~10.0.0.9"), 1);
  // A last line without line feed loses a character.
  EXPECT_EQ(std::tuple(s.user, s.server), std::tuple("capuser", "10.0.0."));
  EXPECT_EQ(read("CHECK_GROWTH~7\nDATA_SOURCE~vORN Monitor\n"), 1);
  EXPECT_EQ(std::tuple(s.check_growth, s.measureware_source), std::tuple(1, 0));
  const std::string data_dir = s.data_dir;
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
  // What reading `path` returned and said on stderr.
  const auto parse = [&](const std::string& path) {
    s.settings_file_path = path;
    testing::internal::CaptureStderr();
    const int result = kova_parse_startup_file(s);
    return std::pair(result, testing::internal::GetCapturedStderr());
  };
  write_file(s.settings_file_path, "KOVASERVER~" + std::string(600, '1') + "\nKOVAAGENT_PORT~1800\n");
  const auto [result, err] = parse(s.settings_file_path);
  EXPECT_EQ(result, 1);
  EXPECT_NE(err.find("line 1 is longer than 511 characters, ignored"), std::string::npos) << err;
  EXPECT_EQ(std::tuple(s.server, s.port), std::tuple("0.0.0.0", 1800));
  EXPECT_EQ(parse(root / "missing.config"), std::pair(0, std::string()));  // a missing file is normal
  EXPECT_EQ(parse(root.path()),
            std::pair(0, "kovaagent, unable to read settings file " + root.path() + ", Is a directory\n"));
}

}  // namespace
}  // namespace kova::test
