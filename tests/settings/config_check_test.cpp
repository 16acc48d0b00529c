#include "settings/config_check.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "settings/command_line.h"
#include "support/temp_dir.h"

namespace kova::test {
namespace {

// A clean file as -write_config writes it, registering one server.
const std::string kClean =
    "PRIORITY~0\nVERBOSE~0\nUSER~root\nKOVAAGENT_PORT~1661\nKOVASERVER~127.0.0.1\nSETTINGS_SERVER~0.0.0.0\n"
    "KEEP_PERF~0\nAPP_DATA_DIR~\nCOMPRESSION_COMMAND~\nDATA_SOURCE~vORN Monitor\nCHECK_GROWTH~1\n"
    "GROWTH_INTERVAL~900\n";

struct Outcome {
  std::string lines;  // formatted findings, one a line, the tree's path shown as TREE
  int errors = 0;
};

Outcome check(const std::string& root, std::vector<std::string> args) {
  args.insert(args.begin(), {"kovaagent", "-rootdir", root});
  args.push_back("-check_config");
  std::vector<char*> argv;
  for (std::string& a : args) argv.push_back(a.data());
  testing::internal::CaptureStdout();  // the start's banner
  const std::vector<ConfigFinding> found = kova_check_config(argv.data(), static_cast<int>(argv.size()));
  testing::internal::GetCapturedStdout();
  Outcome out;
  for (const ConfigFinding& f : found) {
    std::string line = format_finding(f) + "\n";
    for (size_t at; (at = line.find(root)) != std::string::npos;) line.replace(at, root.size(), "TREE");
    out.lines += line;
    if (f.severity == Severity::kError) ++out.errors;
  }
  return out;
}

TEST(ConfigCheck, ReportsEachFaultOnItsLineAndPassesACleanFile) {
  const struct {
    const char* name;
    std::string file;  // appended to the clean file when it starts with "+"
    std::vector<std::string> args;
    const char* remove;  // a directory of the tree to remove first
    int errors;
    std::vector<std::string> expected;
    bool needs_root = false;  // to name another account
  } cases[] = {
      {"clean", kClean, {}, nullptr, 0,
       {"SETTINGS:5: note: registered servers: 127.0.0.1", "SETTINGS:3: note: service account: root (uid 0)",
        "default: note: hardened mode: off"}},
      {"no file, default server", "", {}, nullptr, 0,
       {"default: warning: registered servers: 0.0.0.0: every peer is served; name the central server"}},
      {"misspelt key", "+KOVASERVR~10.0.0.1\n", {}, nullptr, 1,
       {"SETTINGS:13: error: unknown key \"KOVASERVR~\": a start ignores the line"}},
      {"port not a number", "KOVAAGENT_PORT~26611x\n", {}, nullptr, 1,
       {"SETTINGS:1: error: KOVAAGENT_PORT~ \"26611x\" is not a number: a start reads 26611"}},
      {"missing log directory", "VERBOSE~1\nLOG_DIR~/nonexistent/logs\n", {}, nullptr, 1,
       {"SETTINGS:2: error: LOG_DIR~ \"/nonexistent/logs\" does not exist: a start ignores the line"}},
      {"a key inside another", "MY_VERBOSE~1\n", {}, nullptr, 1,
       {"SETTINGS:1: error: unknown key \"MY_VERBOSE~\": a start reads it as VERBOSE~"}},
      {"last line cut", "KOVASERVER~10.0.0.12", {}, nullptr, 1,
       {"SETTINGS:1: error: no line feed at the end of the file: a start drops the value's last character and "
        "reads \"10.0.0.1\""}},
      {"repeated key and intervals", "GROWTH_INTERVAL~5\nGROWTH_INTERVAL~30\n", {}, nullptr, 2,
       {"SETTINGS:2: warning: GROWTH_INTERVAL~ also on line 1: the last line read wins",
        "SETTINGS:2: error: GROWTH_INTERVAL~30 is out of range 60-10800"}},
      {"tree directory gone", kClean, {}, "logs", 1, {"TREE/logs: error: log directory TREE/logs does not exist"}},
      {"command line", kClean, {"-port", "70000", "-logdir", "/nonexistent"}, nullptr, 2,
       {"command line: error: -port 70000 is out of range 1-65535",
        "command line: error: log directory /nonexistent does not exist"}},
      {"hardened", "+HARDEN~1\nMAX_REQUESTS~8\n", {"-server", "10.1.2.3/16, ::1"}, nullptr, 0,
       {"SETTINGS:13: note: hardened mode: on, at most 8 requests at once, updates refused",
        "command line: note: registered servers, exact or CIDR: 10.1.0.0/16,::1"}},
      {"hardened for everyone", "+HARDEN~1\nLISTEN_ADDRESS~localhost\n", {"-server", "0.0.0.0"}, nullptr, 2,
       {"SETTINGS:14: error: LISTEN_ADDRESS~ \"localhost\" is not an IPv4 or IPv6 address: a start fails",
        "command line: error: hardened mode never serves every server: name the registered servers with -server "
        "or KOVASERVER~ instead of \"0.0.0.0\": a start refuses it"}},
      {"account", kClean + "USER~no_such_account_here\n", {}, nullptr, 1,
       {"SETTINGS:13: error: service account \"no_such_account_here\" does not exist: a start fails"}},
      // Owned by root with mode 0755: all but the world-writable logs.
      {"another account", "", {"-user", "nobody"}, nullptr, 6,
       {"TREE/data: error: data directory TREE/data is not writable by the service account nobody"}, true},
  };
  for (const auto& c : cases) {
    if (c.needs_root && ::geteuid() != 0) continue;
    TempDir root;
    for (const char* dir : {"bin", "data", "logs", "tmp", "tmp/update", "outgoing", "settings", "update"})
      make_dirs(root / dir);
    ::chmod((root / "logs").c_str(), 0777);
    AgentSettings s;
    kova_init_command_line(s);
    kova_adjust_path_settings(s, root.path());
    if (!c.file.empty()) write_file(s.settings_file_path, c.file[0] == '+' ? kClean + c.file.substr(1) : c.file);
    if (c.remove != nullptr) std::filesystem::remove_all(root / c.remove);

    const Outcome out = check(root.path(), c.args);
    EXPECT_EQ(out.errors, c.errors) << c.name << "\n" << out.lines;
    for (std::string want : c.expected) {
      if (want.starts_with("SETTINGS")) want.replace(0, 8, "TREE/settings/kova_" + s.hostname + ".config");
      EXPECT_NE(out.lines.find(want + "\n"), std::string::npos) << c.name << ": " << want << "\n" << out.lines;
    }
  }
}

}  // namespace
}  // namespace kova::test
