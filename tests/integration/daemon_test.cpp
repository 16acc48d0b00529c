// The real binary's command line, start-up, status, stop and signals.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "support/agent_process.h"

namespace kova::test {
namespace {

using CommandLine = AgentTest;
using Daemon = AgentTest;

const std::string kBanner = "KOVAagent Copyright (c) KOVA Systems. All rights reserved.\nBuild: V10.0-001 (Feb 23 2012)\n";

TEST_F(CommandLine, OneShotModesPrintAndExitAsAdminsExpect) {
  InstallTree tree;
  RunResult usage = run_agent({"-sta"});
  EXPECT_EQ(usage.status, 0);
  EXPECT_EQ(usage.out.rfind(kBanner + "\nUsage\t:\n\nkovaagent [-start|", 0), 0u) << usage.out;
  EXPECT_NE(usage.out.find("\t-write_config\n\t\tWrite a configuration file to the settings directory\n\n"),
            std::string::npos);

  // The banner, why on stderr, and the exit status admins' scripts test.
  const std::tuple<std::vector<std::string>, int, std::string> modes[] = {
      {{"-version"}, 1, ""},
      {{"-mwa"}, 1, "kovaagent only supports measureware on HP-UX\n"},
      {{"-schedule", "24:00", "-remote"}, 0,
       "-schedule option must be in format,  HH:MM \n HH is 0 - 23  and MM is 0 - 59  \n"},
      {{"-rootdir", tree / "nowhere", "-nofork"}, 0,  // and nothing about the directories below it
       "kovaagent, unable to access root directory, " + tree / "nowhere" + ", No such file or directory\n"},
  };
  for (const auto& [args, status, err] : modes) {
    const RunResult r = run_agent(args);
    EXPECT_EQ(std::tie(r.status, r.out, r.err), std::tie(status, kBanner, err)) << args[0];
  }

  RunResult written = run_agent({"-rootdir", tree.root(), "-port", "99999", "-write_config"});
  EXPECT_EQ(written.status, 0);
  std::string config = read_file(tree / ("settings/kova_" + tree.hostname() + ".config"));
  EXPECT_NE(config.find("KOVAAGENT_PORT~1661\n"), std::string::npos);

  // What -write_config wrote passes the check; serving everyone only warns.
  RunResult checked = run_agent({"-rootdir", tree.root(), "-check_config"});
  EXPECT_EQ(checked.status, 0) << checked.out;
  EXPECT_NE(checked.out.find(": warning: registered servers: 0.0.0.0"), std::string::npos) << checked.out;
}

TEST_F(CommandLine, PurgeDeletesThisHostsOldDataFilesAndExitsOne) {
  // Which files the cut-off and the host prefix select is covered with a fixed clock.
  InstallTree tree;
  const std::string own = tree / ("data/qdtsx_" + tree.hostname() + "_2012Feb01.zud"),
                    other = tree / "data/qdtsx_otherhost_2012Feb01.zud";
  for (const std::string& path : {own, other}) {
    write_file(path, "x");
    set_mtime(path, std::time(nullptr) - 10 * 86400);
  }
  RunResult purge = run_agent({"-rootdir", tree.root(), "-purge", "7"});
  EXPECT_EQ(purge.status, 1);
  EXPECT_FALSE(file_exists(own));
  EXPECT_TRUE(file_exists(other));
  EXPECT_EQ(occurrences(tree.log(), "KOVAAGENT-I-DEL_DATA,"), 1u) << tree.log();
}

// Children of `pid` that are zombies, from the process table.
int zombie_children(pid_t pid) {
  const std::string task = "/proc/" + std::to_string(pid) + "/task/" + std::to_string(pid) + "/children";
  std::istringstream children(read_file(task));
  int zombies = 0;
  for (pid_t child; children >> child;)
    zombies += read_file("/proc/" + std::to_string(child) + "/stat").find(") Z ") != std::string::npos;
  return zombies;
}

// What each descriptor of `pid` above the standard three refers to.
std::vector<std::string> descriptors_above_stderr(pid_t pid) {
  std::vector<std::string> targets;
  std::error_code ec;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/fd", ec))
    if (std::stoi(entry.path().filename().string()) > STDERR_FILENO)
      targets.push_back(std::filesystem::read_symlink(entry.path(), ec).string());
  return targets;
}

// SIGTERM ending the agent with status 0 is covered with the registered servers.
TEST_F(Daemon, RunsOnceOverAStaleLockReportsStatusAndStopsOnRequest) {
  InstallTree tree;
  write_file(tree.lock_path(), "PID~999999\nUSER~root\n");
  int port = free_port();
  // A descriptor the starting program leaves open, as a shell's redirection would.
  int inherited[2];
  ASSERT_EQ(::pipe(inherited), 0);
  RunningAgent agent(tree, port);
  ::close(inherited[0]);
  ::close(inherited[1]);
  ASSERT_TRUE(agent.started()) << agent.launch().err;
  // The listening socket, and nothing inherited (once the harness's
  // readiness probe has been passed on to a request child).
  std::vector<std::string> held;
  EXPECT_TRUE(eventually([&] { return (held = descriptors_above_stderr(agent.host_pid())).size() == 1; }));
  ASSERT_FALSE(held.empty());
  EXPECT_EQ(held[0].rfind("socket:", 0), 0u) << held[0];
  EXPECT_EQ(agent.launch().out, kBanner + "kovaagent started.\n");
  EXPECT_NE(tree.log().find("KOVAAGENT-I-STARTED,     Agent started\n"), std::string::npos);
  EXPECT_NE(::getsid(agent.host_pid()), ::getsid(0));  // detached from the starter's terminal session

  RunResult status = run_agent({"-rootdir", tree.root(), "-status"});
  EXPECT_EQ(status.status, 0);
  EXPECT_NE(status.out.find("\nStatus\t\t\t\t:\tRunning \nPid\t\t\t\t:\t" + std::to_string(agent.pid()) + "\n"),
            std::string::npos)
      << status.out;
  EXPECT_NE(status.out.find("Port\t\t\t\t:\t" + std::to_string(port) + "\n"), std::string::npos);
  EXPECT_NE(status.out.find("\nFree space on filesystem of\t:\t"), std::string::npos);

  RunResult second = run_agent({"-rootdir", tree.root(), "-port", std::to_string(free_port())});
  EXPECT_EQ(second.status, 0);
  EXPECT_EQ(second.err, "\nkovaagent already running: pid (" + std::to_string(agent.pid()) + ")\n");

  for (int i = 0; i < 20; ++i) EXPECT_EQ(hex(round_trip(port, request_packet(14))), std::string("0a00060000000000"));
  EXPECT_TRUE(eventually([&] { return zombie_children(agent.host_pid()) == 0; }));

  EXPECT_TRUE(agent.alive());
  EXPECT_TRUE(agent.signal(SIGHUP));  // a daemon ignores its terminal hanging up
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  EXPECT_TRUE(agent.alive());

  pid_t pid = agent.pid();
  RunResult stop = run_agent({"-rootdir", tree.root(), "-stop"});
  EXPECT_EQ(stop.out, kBanner + "\nStopping kovaagent (pid " + std::to_string(pid) + ")\n");
  EXPECT_EQ(stop.status, 1);
  EXPECT_TRUE(eventually([&] { return !agent.alive(); }));

  // The stopped agent leaves its lock file; -status clears it.
  ASSERT_TRUE(file_exists(tree.lock_path()));
  RunResult after = run_agent({"-rootdir", tree.root(), "-status"});
  EXPECT_EQ(after.out, kBanner + "kovaagent is not running.\n") << after.err << after.status;
  EXPECT_FALSE(file_exists(tree.lock_path()));
}

TEST_F(Daemon, WithoutALockFileStatusAndStopFindTheAgentOfTheirOwnTreeByName) {
  InstallTree tree, other;
  RunningAgent agent(tree, free_port(), {"-nofork", "-nolock"});
  ASSERT_TRUE(agent.started()) << agent.launch().err;
  const std::string pid = std::to_string(agent.pid());

  // Asked about another tree, they see no agent and leave this one alone.
  EXPECT_EQ(run_agent({"-rootdir", other.root(), "-status"}).out, kBanner + "kovaagent is not running.\n");
  EXPECT_EQ(run_agent({"-rootdir", other.root(), "-stop"}).out, kBanner + "\nkovaagent is not running\n");
  EXPECT_TRUE(agent.alive());

  RunResult status = run_agent({"-rootdir", tree.root(), "-status"});
  EXPECT_EQ(status.status, 0);
  EXPECT_EQ(status.out, kBanner);
  EXPECT_EQ(status.err, "kovaagent: unable to open lockfile, " + tree.lock_path() + "\nkovaagent: running as pid " +
                            pid + " \n");

  RunResult stop = run_agent({"-rootdir", tree.root(), "-stop"});
  EXPECT_EQ(stop.out, kBanner + "\nStopping kovaagent (pid " + pid + ")\n");
  EXPECT_EQ(agent.stop(0), 0);  // SIGINT from -stop ended it with status 0
}

// Each ends without serving, says why on stderr and in the log, and exits as admins' scripts expect.
TEST_F(Daemon, AStartThatCannotServeSaysWhyAndEnds) {
  // Held on every address, as another daemon would hold it.
  int holder = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in addr{.sin_family = AF_INET, .sin_port = 0, .sin_addr = {htonl(INADDR_ANY)}, .sin_zero = {}};
  socklen_t len = sizeof addr;
  ASSERT_EQ(::bind(holder, reinterpret_cast<sockaddr*>(&addr), len), 0);
  ASSERT_EQ(::listen(holder, 1), 0);
  ASSERT_EQ(::getsockname(holder, reinterpret_cast<sockaddr*>(&addr), &len), 0);
  const std::string held = std::to_string(ntohs(addr.sin_port));
  const std::string bind_error = "Error binding socket (port " + held + ") : Address already in use\n";

  const struct {
    std::vector<std::string> args;
    int status;
    std::string err, log;
  } cases[] = {
      {{"-port", held}, 0,
       "KOVA-E-SOCK:  " + bind_error + "KOVA-E-NOTSTARTED: KOVA Agent not started\n" +
           "kovaagent: Socket create failed!, Address already in use \n",
       "KOVAAGENT-E-BIND,        " + bind_error},
      // Beyond 16 bits: no socket at all, rather than one on the port's low 16 bits.
      {{"-port", "70000"}, 0,
       "KOVA-E-SOCKERR: ERROR creating socket: Invalid argument\nKOVA-E-NOTSTARTED: KOVA agent not started\n"
       "kovaagent: Socket create failed!, Invalid argument \n",
       "KOVAAGENT-E-SOCKET,      error socket() call failed:  Invalid argument\n"},
      // Never on as root in place of an account that is not there.
      {{"-port", std::to_string(free_port()), "-user", "kova_no_account"}, 1,
       "kovaagent not started: unable to run as account kova_no_account\n", ""},
  };
  for (const auto& c : cases) {
    InstallTree tree;
    std::vector<std::string> args{"-rootdir", tree.root(), "-nofork", "-nolock"};
    args.insert(args.end(), c.args.begin(), c.args.end());
    const RunResult run = run_agent(args);
    EXPECT_EQ(run.status, c.status) << c.args[1];
    EXPECT_NE(run.err.find(c.err), std::string::npos) << run.err;
    EXPECT_NE(tree.log().find(c.log), std::string::npos) << tree.log();
    EXPECT_EQ(tree.log().find("I-STARTED"), std::string::npos) << c.args[1];
  }
  ::close(holder);
}

// Its standard output is a file that no one flushes for it when it ends.
TEST_F(Daemon, AForegroundAgentsMessagesReachItsOutputBeforeItEnds) {
  InstallTree tree;
  RunningAgent agent(tree, free_port(), {"-nofork", "-nolock", "-verbose"});
  ASSERT_TRUE(agent.started()) << agent.launch().err;
  std::filesystem::remove_all(tree / "logs");
  EXPECT_EQ(hex(round_trip(agent.port(), request_packet(14))), "0a00060000000000");
  EXPECT_EQ(agent.stop(SIGTERM), 0);
  EXPECT_NE(agent.out().find("KOVAAGENT-E-OPEN: Unable to open log " + tree.root() + "/logs/"), std::string::npos)
      << agent.out();
}

}  // namespace
}  // namespace kova::test
