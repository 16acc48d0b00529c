// A temporary install tree with the stand-in programs, an agent settings
// record for it, and a test clock, for the component-control suites.
#pragma once

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <ctime>
#include <string>

#include "components/dc_lockfile.h"
#include "components/findproc.h"
#include "components/rta.h"
#include "wire/status.h"
#include "core/clock.h"
#include "core/log.h"
#include "core/shell.h"
#include "settings/agent_settings.h"
#include "support/temp_dir.h"

namespace kova::test {

// The test clock: time stands still until a test moves it. A fixed wait
// lasts a tenth of its length (a program told to stop still needs a moment
// to go), at most half a second.
inline std::time_t fake_now = 1700000000;
inline std::time_t fake_clock_now() { return fake_now; }
inline void short_sleep(unsigned seconds) { ::usleep(seconds < 5 ? seconds * 100000 : 500000); }

inline std::string short_host_name() {
  char name[256] = {};
  ::gethostname(name, sizeof name - 1);
  std::string host(name);
  if (auto dot = host.find('.'); dot != std::string::npos) host.resize(dot);
  return host;
}

// Waits up to five seconds for `pid` to end; true when it did.
inline bool wait_for_exit(int pid) {
  for (int i = 0; i < 250; ++i) {
    if (::kill(pid, 0) != 0) return true;
    ::usleep(20000);
  }
  return false;
}

class ComponentTest : public ::testing::Test {
 protected:
  void SetUp() override {
    saved_clock_ = process_clock();
    process_clock() = Clock{fake_clock_now, short_sleep};

    // A root that a shell would split, unquote or run if it were not quoted.
    root_ = tmp_ / "demo r'oot $(touch injected)";
    std::string command = shell_quote(std::string(KOVA_SOURCE_DIR) + "/demo/make-install-tree.sh") + " " +
                          shell_quote(root_) + " " + shell_quote(std::string(KOVA_DEMO_BIN_DIR) + "/../..") +
                          " > /dev/null";
    ASSERT_EQ(std::system(command.c_str()), 0) << command;
    log_state().logfile = root_ + "/logs/test.log";

    // The stand-ins detach; as their subreaper that ignores SIGCHLD this
    // process lets the kernel reap them when they end, as a host's init
    // would, so a stopped program is not left behind as a zombie.
    ::prctl(PR_SET_CHILD_SUBREAPER, 1);
    saved_sigchld_ = ::signal(SIGCHLD, SIG_IGN);

    settings_.hostname = short_host_name();
    settings_.install_root = root_;
    settings_.rootdir_given = 1;
    settings_.tmp_dir = root_ + "/tmp";
    settings_.data_dir = root_ + "/data";
    settings_.settings_dir = root_ + "/settings";
    settings_.bin_dir = root_ + "/bin";
    settings_.collector_lock_path = settings_.tmp_dir + "/" + settings_.hostname + "_monitor.lock";
    settings_.rta_lock_path = settings_.tmp_dir + "/" + settings_.hostname + "_rtdc.lock";
    settings_.search_agent_root = root_;
  }

  void TearDown() override {
    // A test that failed half-way may leave its stand-ins running: end
    // them by the pids they recorded, and only when the pid is still theirs.
    DcLockfile dc;
    if (dc_read_lockfile(settings_.collector_lock_path, dc) == 1) stop_pid("vorn_monitor", dc.pid);
    RtaLockfile rta;
    if (rta_read_lockfile(settings_.rta_lock_path, rta) == 1) stop_pid("kovarta", rta.pid);
    stop_pid("sorlexagent", std::atoi(read_file(root_ + "/tmp/sorlexagent.pid").c_str()));
    EXPECT_FALSE(file_exists("injected")) << "a command line ran part of the install root";
    process_clock() = saved_clock_;
    ::signal(SIGCHLD, saved_sigchld_);
  }

  static void stop_pid(const char* name, int pid) {
    if (pid > 0 && findproc(name, pid, 0) == 1) {
      ::kill(pid, SIGTERM);
      wait_for_exit(pid);
    }
  }

  std::string log_text() const { return read_file(root_ + "/logs/test.log"); }

  TempDir tmp_;
  std::string root_;
  AgentSettings settings_;

 private:
  Clock saved_clock_{};
  sighandler_t saved_sigchld_ = SIG_DFL;
};

}  // namespace kova::test
