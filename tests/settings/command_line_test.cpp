#include "settings/command_line.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <tuple>
#include <vector>

#include "support/temp_dir.h"

namespace kova::test {
namespace {

using S = AgentSettings;

struct Parsed {
  int result;
  AgentSettings settings;
  std::string err;
};

Parsed parse(std::vector<const char*> args, AgentSettings base = {}) {
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

// An abbreviation must be longer than the option's fixed prefix and no longer
// than the option; options beyond the usage text are whole words. Numbers out
// of range leave the default (an out-of-range -port is kept by -write_config
// in the real binary).
TEST(OptionTable, AbbreviationsAndNumbersSetOnlyTheFieldTheyMean) {
  const struct { std::vector<const char*> args; int S::*field; int value; } cases[] = {
      {{}, &S::start, 1},                      {{"-stat"}, &S::status, 1},
      {{"-sta"}, &S::show_usage, 1},           {{"-statusx"}, &S::show_usage, 1},
      {{"-sto"}, &S::stop, 1},                 {{"-nofork"}, &S::fork, 0},
      {{"-nofor"}, &S::show_usage, 1},         {{"-nocheck_grow"}, &S::check_growth, 0},
      {{"-noverb"}, &S::start, 1},             {{"-harde"}, &S::show_usage, 1},
      {{"-allow_updat"}, &S::show_usage, 1},   {{"-liste"}, &S::show_usage, 1},
      {{"-allow_update"}, &S::allow_update, 1}, {{"-max_requests", "1024"}, &S::max_requests, 1024},
      {{"-port", "0"}, &S::port, 1661},        {{"-port", "0"}, &S::start, 0},
      {{"-port", "2000"}, &S::port, 2000},     {{"-port", "2000"}, &S::start, 1},
      {{"-retain", "0"}, &S::retain_days, 30}, {{"-retain", "7"}, &S::retain_days, 7},
      {{"-grow", "30"}, &S::growth_interval, 900}, {{"-grow", "600"}, &S::growth_interval, 600},
      {{"-purge", "7"}, &S::purge_days, 7},    {{"-priority", "-5"}, &S::priority, -5},  // "-" words are values here
      {{"-schedule", "23:59", "-remote"}, &S::schedule_minute, 59},
  };
  for (const auto& c : cases) EXPECT_EQ(parse(c.args).settings.*c.field, c.value) << (c.args.empty() ? "" : c.args[0]);
  EXPECT_EQ(parse({"-user", "-x"}).settings.user, "-x");
}

// -mwa and -schedule out of range are covered against the real binary.
TEST(OptionTable, ValueErrorsSayWhyAndMostEndTheParse) {
  const struct { std::vector<const char*> args; int result; const char* err; } cases[] = {
      {{"-retain"}, 0, "-retain option requires an argument\n"},
      {{"-grow", "30"}, 1, "growth_interval must be between 60 and 10800\n"},
      {{"-schedule", "-remote"}, 0, "-schedule option requires an argument, HH:MM \n"},
      {{"-schedule", "2:30"}, 0, "-schedule requires -remote qualifier\n"},
      {{"-server", "-nofork"}, 0, "-server option requires an argument\n"},
      {{"-datadir", "-x"}, 0, "-datadir option requires an argument\n"},
      {{"-appdatadir"}, 0, "-appdir option requires an argument\n"},
      {{"-max_requests", "4x"}, 0, "-max_requests must be between 1 and 1024\n"},
      {{"-listen", "10.0.0.0/8"}, 0, "-listen option requires an IPv4 or IPv6 address\n"},
  };
  for (const auto& c : cases) {
    const Parsed p = parse(c.args);
    EXPECT_EQ(std::tuple(p.result, p.err), std::tuple(c.result, c.err)) << c.args[0];
  }
}

// The real binary finds its settings file, log and lock file in the tree -rootdir names.
TEST(InstallTree, RootdirMovesTheTreeButNotADirectoryGivenApart) {
  AgentSettings s;
  kova_init_command_line(s);
  const std::string root = "/kova/root";
  const AgentSettings p = parse({"-datadir", "/elsewhere", "-rootdir", root.c_str()}, s).settings;
  EXPECT_EQ(std::tuple(p.data_dir, p.log_dir, p.settings_file_path),
            std::tuple("/elsewhere", root + "/logs", root + "/settings/kova_" + s.hostname + ".config"));

  // Relative paths stay relative unless they climb.
  const std::string cwd = std::filesystem::current_path();
  for (auto [given, taken] : {std::pair<std::string, std::string>{"data", "data"}, {"../data", cwd + "/../data"}}) {
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
  EXPECT_EQ(err, "kovaagent, unable to access data directory, " + root / "data" + ", No such file or directory\n" +
                     "kovaagent, " + root.path() + "/data should be soft linked to a valid directory.\n" +
                     "kovaagent, unable to access log directory, " + root / "logs" + ", No such file or directory\n");
}

}  // namespace
}  // namespace kova::test
