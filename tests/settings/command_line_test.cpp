#include "settings/command_line.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <initializer_list>
#include <string>
#include <tuple>
#include <vector>

#include "settings/settings_file.h"
#include "support/temp_dir.h"

namespace kova::test {
namespace {

struct Parsed {
  int result;
  AgentSettings settings;
  std::string err;
};

Parsed parse(std::initializer_list<const char*> args, AgentSettings base = {}) {
  std::vector<std::string> storage{"kovaagent"};
  storage.insert(storage.end(), args.begin(), args.end());
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
  EXPECT_EQ(parse({"-stat"}).settings.status, 1);
  EXPECT_EQ(parse({"-sta"}).settings.show_usage, 1);  // no longer than the shortest abbreviation
  EXPECT_EQ(parse({"-statusx"}).settings.show_usage, 1);
  EXPECT_EQ(parse({"-sto"}).settings.stop, 1);
  EXPECT_EQ(parse({"-vers"}).settings.version, 1);
  EXPECT_EQ(parse({"-nofork"}).settings.fork, 0);
  EXPECT_EQ(parse({"-nofor"}).settings.show_usage, 1);  // whole word only
  EXPECT_EQ(parse({"-keepp"}).settings.keep_perf, 1);
  EXPECT_EQ(parse({"-nocheck_grow"}).settings.check_growth, 0);
  EXPECT_EQ(parse({"-appda", "/x"}).settings.app_data_dir, "/x");
  EXPECT_EQ(parse({"-noverb"}).settings.start, 1);
  EXPECT_EQ(std::tuple(parse({}).result, parse({}).settings.start), std::tuple(1, 1));
}

// Options beyond the usage text are whole words.
TEST(OptionTable, HardenedModeOptionsAreWholeWords) {
  const AgentSettings s = parse({"-allow_update", "-max_requests", "1024"}).settings;
  EXPECT_EQ(std::tuple(s.show_usage, s.allow_update, s.max_requests), std::tuple(0, 1, 1024));
  for (const char* cut : {"-harde", "-allow_updat", "-max_request", "-liste"})
    EXPECT_EQ(parse({cut}).settings.show_usage, 1) << cut;
}

// An out-of-range -port is kept by the real binary's -write_config run.
TEST(OptionTable, NumericValuesOutOfRangeAreKeptOrRefused) {
  const AgentSettings zero = parse({"-port", "0"}).settings, in_range = parse({"-port", "2000"}).settings;
  EXPECT_EQ(std::tuple(zero.port, zero.start, in_range.port, in_range.start), std::tuple(1661, 0, 2000, 1));
  EXPECT_EQ(parse({"-retain", "0"}).settings.retain_days, 30);
  EXPECT_EQ(parse({"-retain", "7"}).settings.retain_days, 7);

  const Parsed growth = parse({"-grow", "30"});
  EXPECT_EQ(std::tuple(growth.result, growth.settings.growth_interval, growth.err),
            std::tuple(1, 900, "growth_interval must be between 60 and 10800\n"));
  EXPECT_EQ(parse({"-grow", "600"}).settings.growth_interval, 600);

  const AgentSettings purge = parse({"-purge", "7"}).settings;
  EXPECT_EQ(std::tuple(purge.purge, purge.purge_days), std::tuple(1, 7));
  // These options take a following "-" word as their value.
  EXPECT_EQ(parse({"-user", "-x"}).settings.user, "-x");
  EXPECT_EQ(parse({"-priority", "-5"}).settings.priority, -5);
}

// -mwa and a -schedule out of range are covered against the real binary.
TEST(OptionTable, ValueErrorsEndTheParseWithTheirMessages) {
  struct Case {
    std::initializer_list<const char*> args;
    const char* err;
  };
  for (const Case& c : std::initializer_list<Case>{
           {{"-retain"}, "-retain option requires an argument\n"},
           {{"-schedule", "1200", "-remote"},
            "-schedule option must be in format,  HH:MM \n HH is 0 - 23  and MM is 0 - 59  \n"},
           {{"-schedule", "-remote"}, "-schedule option requires an argument, HH:MM \n"},
           {{"-schedule", "2:30"}, "-schedule requires -remote qualifier\n"},
           {{"-server", "-nofork"}, "-server option requires an argument\n"},
           {{"-rootdir"}, "-rootdir option requires an argument\n"},
           {{"-datadir", "-x"}, "-datadir option requires an argument\n"},
           {{"-appdatadir"}, "-appdir option requires an argument\n"},
           {{"-port"}, "-port option requires an argument\n"},
           {{"-max_requests", "4x"}, "-max_requests must be between 1 and 1024\n"},
           {{"-listen", "10.0.0.0/8"}, "-listen option requires an IPv4 or IPv6 address\n"},
       }) {
    Parsed p = parse(c.args);
    EXPECT_EQ(std::tuple(p.result, p.err), std::tuple(0, c.err)) << *c.args.begin();
  }
  const Parsed ok = parse({"-schedule", "23:59", "-remote"});
  EXPECT_EQ(std::tuple(ok.result, ok.settings.schedule_hour, ok.settings.schedule_minute), std::tuple(1, 23, 59));
}

TEST(InstallTree, RootdirMovesTheTreeAndTheSettingsFile) {
  TempDir root;
  make_dirs(root / "settings");
  AgentSettings s;
  kova_init_command_line(s);
  std::string dir = root.path();
  std::vector<char*> argv{const_cast<char*>("kovaagent"), const_cast<char*>("-rootdir"), dir.data()};
  ASSERT_EQ(kova_parse_cmdline_for_rootdir(argv.data(), 3, s), 1);
  EXPECT_EQ(s.settings_file_path, dir + "/settings/kova_" + s.hostname + ".config");

  write_file(s.settings_file_path, "KOVAAGENT_PORT~1700\n");
  ASSERT_EQ(kova_parse_startup_file(s), 1);
  const AgentSettings p = parse({"-rootdir", dir.c_str()}, s).settings;
  EXPECT_EQ(std::tuple(p.port, p.data_dir, p.log_dir, p.agent_lock_path),
            std::tuple(1700, dir + "/data", dir + "/logs", dir + "/tmp/" + s.hostname + "_kova.lock"));
  EXPECT_EQ(parse({"-rootdir", dir.c_str(), "-datadir", "/elsewhere"}, s).settings.data_dir, "/elsewhere");
}

TEST(InstallTree, RelativePathsStayRelativeUnlessTheyClimb) {
  char cwd[4096];
  ASSERT_NE(getcwd(cwd, sizeof cwd), nullptr);
  for (auto [given, taken] : {std::pair<std::string, std::string>{"data", "data"},
                              {"../data", std::string(cwd) + "/../data"}, {"/a/../b", "/a/../b"}}) {
    std::string out;
    ASSERT_EQ(set_path_variable(out, given), 1);
    EXPECT_EQ(out, taken);
  }
}

// A missing root alone is covered against the real binary.
TEST(InstallTree, CheckPathsExplainsEachMissingDirectory) {
  TempDir root;
  AgentSettings s;
  kova_init_command_line(s);
  kova_adjust_path_settings(s, root.path());
  s.data_dir = root / "data";
  make_dirs(root / "tmp");
  testing::internal::CaptureStderr();
  EXPECT_EQ(kova_check_paths(s), 0);
  const std::string err = testing::internal::GetCapturedStderr();
  EXPECT_NE(err.find("kovaagent, unable to access data directory, " + root / "data"), std::string::npos);
  EXPECT_NE(err.find("kovaagent, " + root.path() + "/data should be soft linked to a valid directory.\n"),
            std::string::npos);
  EXPECT_NE(err.find("unable to access log directory"), std::string::npos);
  EXPECT_EQ(err.find("tmp directory"), std::string::npos);
}

}  // namespace
}  // namespace kova::test
