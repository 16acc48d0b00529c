// A temporary install tree with the stand-in programs, an agent settings
// record for it, and a test clock, for the component-control suites.
#pragma once

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cstdlib>
#include <ctime>
#include <string>

#include "components/dc_lockfile.h"
#include "platform/findproc.h"
#include "components/rta.h"
#include "base/clock.h"
#include "base/log.h"
#include "base/shell.h"
#include "settings/command_line.h"
#include "support/temp_dir.h"
#include "base/codes.h"

namespace kova::test {

// The test clock's time, which stands still until a test moves it.
inline std::time_t fake_now = 1700000000;

// Waits up to five seconds for `pid` to end; true when it did.
inline bool wait_for_exit(int pid) {
  for (int i = 0; i < 250 && ::kill(pid, 0) == 0; ++i) ::usleep(20000);
  return ::kill(pid, 0) != 0;
}

class ComponentTest : public ::testing::Test {
 protected:
  void SetUp() override {
    saved_clock_ = process_clock();
    // A fixed wait lasts a tenth, at most 0.5 s: a stopped program needs a moment.
    process_clock() = Clock{[] { return fake_now; }, [](unsigned s) { ::usleep(s < 5 ? s * 100000 : 500000); }};
    // A root that a shell would split, unquote or run if it were not quoted.
    root_ = tmp_ / "demo r'oot $(touch injected)";
    const std::string command = shell_quote(KOVA_SOURCE_DIR "/demo/make-install-tree.sh") + " " + shell_quote(root_) +
                                " " + shell_quote(KOVA_DEMO_BIN_DIR "/../..") + " > /dev/null";
    ASSERT_EQ(std::system(command.c_str()), 0) << command;
    log_state().logfile = root_ + "/logs/test.log";
    // The kernel reaps the stand-ins, as a host's init would: no zombie looks alive.
    ::prctl(PR_SET_CHILD_SUBREAPER, 1);
    saved_sigchld_ = ::signal(SIGCHLD, SIG_IGN);
    kova_init_command_line(settings_);  // the host name cut at its first "."
    kova_adjust_path_settings(settings_, root_);
    settings_.rootdir_given = 1;
  }

  void TearDown() override {
    // Stand-ins a failed test left running go by their recorded pids.
    stop_pid("vorn_monitor", collector_pid());
    stop_pid("kovarta", rta_pid());
    stop_pid("sorlexagent", std::atoi(read_file(root_ + "/tmp/sorlexagent.pid").c_str()));
    EXPECT_FALSE(file_exists("injected")) << "a command line ran part of the install root";
    process_clock() = saved_clock_;
    ::signal(SIGCHLD, saved_sigchld_);
  }

  static void stop_pid(const char* name, int pid) {
    if (pid > 0 && findproc(name, pid, 0) == 1 && ::kill(pid, SIGTERM) == 0) wait_for_exit(pid);
  }
  // The pid a running program's lock file names, 0 when there is none.
  int collector_pid() const {
    DcLockfile lock;
    return dc_read_lockfile(settings_.collector_lock_path, lock) == 1 ? lock.pid : 0;
  }
  int rta_pid() const {
    RtaLockfile lock;
    return rta_read_lockfile(settings_.rta_lock_path, lock) == 1 ? lock.pid : 0;
  }
  std::string log_text() const { return read_file(root_ + "/logs/test.log"); }

  TempDir tmp_;
  std::string root_;
  AgentSettings settings_;

  Clock saved_clock_{};
  sighandler_t saved_sigchld_ = SIG_DFL;
};

}  // namespace kova::test
