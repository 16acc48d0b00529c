#include "settings/settings_file.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <tuple>
#include <vector>

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
  std::string write(const AgentSettings& settings) {
    testing::internal::CaptureStdout();
    EXPECT_EQ(kova_write_settings_file(settings), 1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Writing config file " + settings.settings_file_path + " \n");
    return read_file(settings.settings_file_path);
  }
  TempDir root;
  AgentSettings s;
};

// Hardened-mode keys follow the others only when they differ from their
// defaults; the real binary reads them.
TEST_F(SettingsFile, WrittenSettingsReadBackWithTheGrowthQuirk) {
  s.priority = 5, s.verbose = 1, s.user = "kova", s.port = 1700, s.server = "10.1.1.1,10.1.1.2";
  s.settings_server = "10.1.1.1", s.keep_perf = 1, s.app_data_dir = "/apps", s.compression_command = "gzip -c * > *.gz";
  s.measureware_source = 1, s.check_growth = 0, s.growth_interval = 300;
  const std::string head = "PRIORITY~5\nVERBOSE~1\nUSER~kova\nKOVAAGENT_PORT~1700\nKOVASERVER~10.1.1.1,10.1.1.2\n"
                           "SETTINGS_SERVER~10.1.1.1\n",
                    middle = "APP_DATA_DIR~/apps\nCOMPRESSION_COMMAND~gzip -c * > *.gz\nDATA_SOURCE~Measureware\n";
  EXPECT_EQ(write(s), head + "KEEP_PERF~1\n" + middle + "CHECK_GROWTH~0\nGROWTH_INTERVAL~300\n");

  // Read back and written again: KEEP_PERF~ is never read; CHECK_GROWTH~ takes the growth interval's number.
  AgentSettings back;
  kova_init_command_line(back);
  back.settings_file_path = s.settings_file_path;
  ASSERT_EQ(kova_parse_startup_file(back), 1);
  EXPECT_EQ(write(back), head + "KEEP_PERF~0\n" + middle + "CHECK_GROWTH~900\nGROWTH_INTERVAL~300\n");

  back.harden = 1, back.allow_update = 1, back.max_requests = 4, back.listen_address = "::";
  EXPECT_TRUE(
      write(back).ends_with("GROWTH_INTERVAL~300\nHARDEN~1\nALLOW_UPDATE~1\nMAX_REQUESTS~4\nLISTEN_ADDRESS~::\n"));
}

// Each file with whether a line matched and the fields it leaves, as
// "name=value" words of fields() below.
TEST_F(SettingsFile, EachKeyKeepsItsOwnQuirks) {
  const std::string d1 = root / "d1", data = "data=" + s.data_dir;
  make_dirs(d1);
  const auto fields = [](const AgentSettings& r) {
    const auto n = [](int v) { return std::to_string(v); };
    return " user=" + r.user + " server=" + r.server + " data=" + r.data_dir + " given=" + n(r.datadir_given) +
           " log=" + r.log_dir + " app=" + r.app_data_dir + " growth=" + n(r.check_growth) + " mwa=" +
           n(r.measureware_source) + " harden=" + n(r.harden) + " listen=" + r.listen_address + " keep_perf=" +
           n(r.keep_perf) + " ";
  };
  const struct { std::string file; int matched; std::vector<std::string> words; } cases[] = {
      // A last line without line feed loses a character, unless its value is trimmed.
      {"USER~  capuser  \nKOVASERVER~10.0.0.9", 1, {"user=capuser", "server=10.0.0."}},
      {"HARDEN~2\nLISTEN_ADDRESS~::1", 1, {"harden=1", "listen=::1"}},  // any number but 0 switches on
      {"CHECK_GROWTH~7\nDATA_SOURCE~vORN Monitor\n", 1, {"growth=1", "mwa=0"}},
      // Directories must exist; DATA_DIR~ must begin its line and alone may lack its "~".
      {"DATA_DIR~" + root / "missing" + "\n", 1, {data, "given=0"}},
      {" DATA_DIR~" + d1 + "\n", 0, {data}},
      {"DATA_DIR", 1, {data}},
      {"APP_DATA_DIR~" + d1 + "\n", 1, {data, "app=" + d1}},
      {"DATA_DIR~" + d1 + "\nLOG_DIR~" + d1 + "\n", 1, {"data=" + d1, "given=1", "log=" + d1}},
      // The environment's keep-perf switch counts only when a line matched.
      {"UNKNOWN~1\n# comment\n", 0, {"keep_perf=0"}},
      {"VERBOSE~1\n", 1, {"keep_perf=1"}},
  };
  setenv("KOVA_KEEP_PERF", "1", 1);
  for (const auto& c : cases) {
    AgentSettings r = s;
    write_file(r.settings_file_path, c.file);
    EXPECT_EQ(kova_parse_startup_file(r), c.matched) << c.file;
    for (const std::string& word : c.words)
      EXPECT_NE(fields(r).find(" " + word + " "), std::string::npos) << c.file << " wants " << word << fields(r);
  }
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
  const std::string path = s.settings_file_path;
  write_file(path, "KOVASERVER~" + std::string(600, '1') + "\nKOVAAGENT_PORT~1800\n");
  EXPECT_EQ(parse(path),
            std::pair(1, "kovaagent, settings file " + path + " line 1 is longer than 511 characters, ignored\n"));
  EXPECT_EQ(std::tuple(s.server, s.port), std::tuple("0.0.0.0", 1800));
  EXPECT_EQ(parse(root / "missing.config"), std::pair(0, std::string()));  // a missing file is normal
  EXPECT_EQ(parse(root.path()),
            std::pair(0, "kovaagent, unable to read settings file " + root.path() + ", Is a directory\n"));
}

}  // namespace
}  // namespace kova::test
