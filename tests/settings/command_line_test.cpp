#include "settings/command_line.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <initializer_list>
#include <string>
#include <vector>

#include "settings/settings_file.h"
#include "support/temp_dir.h"

namespace kova {
namespace {

struct Parsed {
  int result;
  AgentSettings settings;
  std::string err;
};

Parsed parse(std::initializer_list<const char*> args, AgentSettings base = {}) {
  std::vector<std::string> storage{"kovaagent"};
  for (const char* a : args) storage.emplace_back(a);
  std::vector<char*> argv;
  for (auto& s : storage) argv.push_back(s.data());
  Parsed p{0, base, {}};
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  p.result = kova_parse_command_line(argv.data(), static_cast<int>(argv.size()), p.settings);
  p.err = testing::internal::GetCapturedStderr();
  testing::internal::GetCapturedStdout();
  return p;
}

TEST(OptionTable, AbbreviationsSelectTheFirstMatchingOption) {
  EXPECT_TRUE(unix_option_compare("-stat", "-status", 4));
  EXPECT_FALSE(unix_option_compare("-sta", "-status", 4));
  EXPECT_FALSE(unix_option_compare("-statusx", "-status", 4));
  EXPECT_FALSE(unix_option_compare("", "-status", 0));

  EXPECT_EQ(parse({"-stat"}).settings.status, 1);
  EXPECT_EQ(parse({"-sta"}).settings.show_usage, 1);
  EXPECT_EQ(parse({"-statusx"}).settings.show_usage, 1);
  EXPECT_EQ(parse({"-sto"}).settings.stop, 1);
  EXPECT_EQ(parse({"-vers"}).settings.version, 1);
  EXPECT_EQ(parse({"-nofork"}).settings.fork, 0);
  EXPECT_EQ(parse({"-nofor"}).settings.show_usage, 1);  // whole word only
  EXPECT_EQ(parse({"-keepp"}).settings.keep_perf, 1);
  EXPECT_EQ(parse({"-nocheck_grow"}).settings.check_growth, 0);
  EXPECT_EQ(parse({"-appda", "/x"}).settings.app_data_dir, "/x");
  EXPECT_EQ(parse({"-noverb"}).settings.start, 1);

  Parsed none = parse({});
  EXPECT_EQ(none.result, 1);
  EXPECT_EQ(none.settings.start, 1);
}

TEST(OptionTable, NumericValuesOutOfRangeAreKeptOrRefused) {
  Parsed p = parse({"-port", "99999"});
  EXPECT_EQ(p.settings.port, 1661);
  EXPECT_EQ(p.settings.start, 0);
  EXPECT_EQ(parse({"-port", "0"}).settings.port, 1661);
  p = parse({"-port", "2000"});
  EXPECT_EQ(p.settings.port, 2000);
  EXPECT_EQ(p.settings.start, 1);

  EXPECT_EQ(parse({"-retain", "0"}).settings.retain_days, 30);
  EXPECT_EQ(parse({"-retain", "7"}).settings.retain_days, 7);

  p = parse({"-grow", "30"});
  EXPECT_EQ(p.result, 1);
  EXPECT_EQ(p.settings.growth_interval, 900);
  EXPECT_EQ(p.err, "growth_interval must be between 60 and 10800\n");
  EXPECT_EQ(parse({"-grow", "600"}).settings.growth_interval, 600);

  p = parse({"-purge", "7"});
  EXPECT_EQ(p.settings.purge, 1);
  EXPECT_EQ(p.settings.purge_days, 7);
  // These options take a following "-" word as their value.
  EXPECT_EQ(parse({"-user", "-x"}).settings.user, "-x");
  EXPECT_EQ(parse({"-priority", "-5"}).settings.priority, -5);
}

TEST(OptionTable, ValueErrorsEndTheParseWithTheirMessages) {
  struct Case {
    std::initializer_list<const char*> args;
    const char* err;
  };
  for (const Case& c : std::initializer_list<Case>{
           {{"-retain"}, "-retain option requires an argument\n"},
           {{"-schedule", "24:00", "-remote"},
            "-schedule option must be in format,  HH:MM \n HH is 0 - 23  and MM is 0 - 59  \n"},
           {{"-schedule", "-remote"}, "-schedule option requires an argument, HH:MM \n"},
           {{"-schedule", "2:30"}, "-schedule requires -remote qualifier\n"},
           {{"-server", "-nofork"}, "-server option requires an argument\n"},
           {{"-rootdir"}, "-rootdir option requires an argument\n"},
           {{"-datadir", "-x"}, "-datadir option requires an argument\n"},
           {{"-appdatadir"}, "-appdir option requires an argument\n"},
           {{"-port"}, "-port option requires an argument\n"},
       }) {
    Parsed p = parse(c.args);
    EXPECT_EQ(p.result, 0) << *c.args.begin();
    EXPECT_EQ(p.err, c.err) << *c.args.begin();
  }
  Parsed ok = parse({"-schedule", "2:30", "-remote"});
  EXPECT_EQ(ok.result, 1);
  EXPECT_EQ(ok.settings.schedule_hour, 2);
  EXPECT_EQ(ok.settings.schedule_minute, 30);

  Parsed mwa = parse({"-mwa"});
  EXPECT_EQ(mwa.result, kParseMeasureware);
  EXPECT_EQ(mwa.err, "kovaagent only supports measureware on HP-UX\n");
}

TEST(InstallTree, RootdirMovesTheTreeAndTheSettingsFile) {
  test::TempDir root;
  test::make_dirs(root / "settings");
  AgentSettings s;
  kova_init_command_line(s);
  std::string dir = root.path();
  std::vector<char*> argv{const_cast<char*>("kovaagent"), const_cast<char*>("-rootdir"), dir.data()};
  ASSERT_EQ(kova_parse_cmdline_for_rootdir(argv.data(), 3, s), 1);
  EXPECT_EQ(s.settings_file_path, dir + "/settings/kova_" + s.hostname + ".config");

  test::write_file(s.settings_file_path, "KOVAAGENT_PORT~1700\n");
  ASSERT_EQ(kova_parse_startup_file(s), 1);
  Parsed p = parse({"-rootdir", dir.c_str()}, s);
  EXPECT_EQ(p.settings.port, 1700);
  EXPECT_EQ(p.settings.data_dir, dir + "/data");
  EXPECT_EQ(p.settings.log_dir, dir + "/logs");
  EXPECT_EQ(p.settings.agent_lock_path, dir + "/tmp/" + s.hostname + "_kova.lock");

  p = parse({"-rootdir", dir.c_str(), "-datadir", "/elsewhere"}, s);
  EXPECT_EQ(p.settings.data_dir, "/elsewhere");
}

TEST(InstallTree, RelativePathsStayRelativeUnlessTheyClimb) {
  std::string out;
  ASSERT_EQ(set_path_variable(out, "data"), 1);
  EXPECT_EQ(out, "data");
  ASSERT_EQ(set_path_variable(out, "../data"), 1);
  char cwd[4096];
  ASSERT_NE(getcwd(cwd, sizeof cwd), nullptr);
  EXPECT_EQ(out, std::string(cwd) + "/../data");
  ASSERT_EQ(set_path_variable(out, "/a/../b"), 1);
  EXPECT_EQ(out, "/a/../b");
}

TEST(InstallTree, CheckPathsExplainsEachMissingDirectory) {
  test::TempDir root;
  AgentSettings s;
  kova_init_command_line(s);
  kova_adjust_path_settings(s, root.path());
  s.data_dir = root / "data";
  test::make_dirs(root / "tmp");
  testing::internal::CaptureStderr();
  EXPECT_EQ(kova_check_paths(s), 0);
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_NE(err.find("kovaagent, unable to access data directory, " + root / "data"), std::string::npos);
  EXPECT_NE(err.find("kovaagent, " + root.path() + "/data should be soft linked to a valid directory.\n"),
            std::string::npos);
  EXPECT_NE(err.find("unable to access log directory"), std::string::npos);
  EXPECT_EQ(err.find("tmp directory"), std::string::npos);

  s.install_root = root / "missing";
  testing::internal::CaptureStderr();
  EXPECT_EQ(kova_check_paths(s), 0);
  err = testing::internal::GetCapturedStderr();
  EXPECT_EQ(err.rfind("kovaagent, unable to access root directory, ", 0), 0u);
  EXPECT_EQ(err.find("data directory"), std::string::npos);
}

TEST(TextHelpers, TrimAndScheduleParse) {
  std::string s = " \t capuser  \r\n";
  EXPECT_EQ(LibTrim1(s), 7);
  EXPECT_EQ(s, "capuser");
  s = " \t\n";
  EXPECT_EQ(LibTrim1(s), 0);

  AgentSettings settings;
  EXPECT_EQ(parse_hour_min("23:59", settings), 1);
  EXPECT_EQ(settings.schedule_hour, 23);
  EXPECT_EQ(parse_hour_min("24:00", settings), 0);
  EXPECT_EQ(parse_hour_min("1200", settings), 0);
  EXPECT_EQ(settings.schedule_minute, 59);
}

TEST(InstallRoot, EnvironmentOverridesTheDefault) {
  std::string root;
  unsetenv("VANTREL_LIBRARY");
  EXPECT_EQ(get_vantrel_root(root), 2);
  EXPECT_EQ(root, "/opt/vantrel");
  setenv("VANTREL_LIBRARY", "/srv/kova/", 1);
  EXPECT_EQ(get_vantrel_root(root), 1);
  EXPECT_EQ(root, "/srv/kova");
  setenv("VANTREL_LIBRARY", "/", 1);  // one character: ignored
  EXPECT_EQ(get_vantrel_root(root), 2);
  unsetenv("VANTREL_LIBRARY");
}

}  // namespace
}  // namespace kova
