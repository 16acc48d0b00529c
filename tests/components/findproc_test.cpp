#include "components/findproc.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <vector>

#include "core/log.h"
#include "support/temp_dir.h"

namespace kova {
namespace {

// A process whose short name is its program's file name, killed and reaped
// by its pid. Started in a new PID namespace it lies in another zone.
class Started {
 public:
  Started(const std::string& program, const std::string& arg, bool other_zone = false) {
    int sync[2];
    if (::pipe2(sync, O_CLOEXEC) != 0) return;
    Exec exec{{program.c_str(), arg.c_str(), nullptr}, sync[1]};
    std::vector<char> stack(256 * 1024);
    pid_ = ::clone(&Started::run, stack.data() + stack.size(), SIGCHLD | (other_zone ? CLONE_NEWPID : 0), &exec);
    ::close(sync[1]);
    // The write end closes at exec, when the new short name is in place.
    int err = 0;
    if (pid_ > 0 && ::read(sync[0], &err, sizeof err) != 0) stop();
    ::close(sync[0]);
  }
  ~Started() { stop(); }
  int pid() const { return pid_; }
  void stop() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
    pid_ = -1;
  }

 private:
  struct Exec {
    const char* argv[3];
    int sync;
  };
  static int run(void* arg) {
    auto* exec = static_cast<Exec*>(arg);
    ::execv(exec->argv[0], const_cast<char* const*>(exec->argv));
    int err = errno;
    (void)!::write(exec->sync, &err, sizeof err);
    ::_exit(127);
  }
  int pid_ = -1;
};

std::string sleeper(const test::TempDir& dir, const std::string& name) {
  std::string path = dir / name;
  EXPECT_EQ(::symlink("/bin/sleep", path.c_str()), 0);
  return path;
}

int absent_pid() { return std::stoi(test::read_file("/proc/sys/kernel/pid_max")) + 1; }

TEST(Findproc, ShortNameMustOccurInsideTheGivenName) {
  test::TempDir dir;
  Started monitor(sleeper(dir, "vorn_monitor"), "60");
  ASSERT_GT(monitor.pid(), 0);
  struct Case {
    const char* name;
    int pid;
    int expected;
  } cases[] = {
      {"vorn_monitor", monitor.pid(), 1},     {"vorn_monitor_es", monitor.pid(), 1},
      {"bin/vorn_monitor", monitor.pid(), 1}, {"vorn_monito", monitor.pid(), 0},
      {"kovarta", monitor.pid(), 0},          {"vorn_monitor", absent_pid(), 0},
  };
  for (const Case& c : cases) EXPECT_EQ(findproc(c.name, c.pid, 0), c.expected) << c.name << ":" << c.pid;
}

TEST(Findproc, LogsMatchesOnlyAtLevelOneAndFailedProbesAtAnyLevel) {
  test::TempDir dir;
  Started monitor(sleeper(dir, "vorn_monitor"), "60");
  ASSERT_GT(monitor.pid(), 0);
  const std::string match =
      string_printf("  findproc : match vorn_monitor_es:%d  to  vorn_monitor:%d\n\n", monitor.pid(), monitor.pid());
  const std::string failed_open =
      string_printf("  findproc: failed to open /proc/%d/stat : No such file or directory, 2\n\n", absent_pid());
  for (int log : {0, 1, 2}) {
    log_state().logfile = dir / string_printf("agent%d.log", log);
    EXPECT_EQ(findproc("vorn_monitor_es", monitor.pid(), log), 1);
    EXPECT_EQ(findproc("vorn_monitor", absent_pid(), log), 0);
    std::string text = test::read_file(log_state().logfile);
    EXPECT_EQ(text.find(match) != std::string::npos, log == 1) << log << ": " << text;
    EXPECT_EQ(text.find(failed_open) != std::string::npos, log != 0) << log << ": " << text;
    EXPECT_EQ(text.find("KOVAAGENT-I-FINDPROC,") != std::string::npos, log != 0);
  }
  log_state().logfile.clear();
}

TEST(FindProcessByName, SkipsTheGivenPidAndComparesWholeShortNames) {
  test::TempDir dir;
  const std::string name = string_printf("kf%d", static_cast<int>(::getpid()));
  Started first(sleeper(dir, name), "60");
  Started second(dir / name, "60");
  ASSERT_GT(first.pid(), 0);
  ASSERT_GT(second.pid(), 0);
  EXPECT_EQ(find_process_by_name(name, first.pid(), 0), second.pid());
  EXPECT_EQ(find_process_by_name(name, second.pid(), 0), first.pid());
  EXPECT_EQ(find_process_by_name(name + "x", ::getpid(), 0), -1);
  EXPECT_EQ(find_process_by_name(name.substr(1), ::getpid(), 0), -1);
  second.stop();
  EXPECT_EQ(find_process_by_name(name, first.pid(), 0), -1);
  EXPECT_EQ(findproc_nopid(name, 0), first.pid());
}

TEST(FindProcessByName, FindsScriptsButNeverNamesOfSixteenCharacters) {
  test::TempDir dir;
  const std::string name = string_printf("longname_%07d", static_cast<int>(::getpid()));
  ASSERT_EQ(name.size(), 16u);
  // Blocks in the shell's own read, with no child to leave behind.
  test::write_file(dir / name, "#!/bin/sh\nread line < \"$1\"\n");
  ASSERT_EQ(::chmod((dir / name).c_str(), 0755), 0);
  ASSERT_EQ(::mkfifo((dir / "fifo").c_str(), 0600), 0);
  Started script(dir / name, dir / "fifo");
  ASSERT_GT(script.pid(), 0);
  EXPECT_EQ(find_process_by_name(name, ::getpid(), 0), -1);
  EXPECT_EQ(findproc_nopid(name, 0), -1);
  EXPECT_EQ(findproc_nopid(name.substr(0, 15), 0), script.pid());
  EXPECT_EQ(findproc(name, script.pid(), 0), 1);
}

TEST(FindProcessByName, IgnoresProcessesOfAnotherZone) {
  if (::geteuid() != 0) GTEST_SKIP() << "a new PID namespace needs root";
  test::TempDir dir;
  const std::string name = string_printf("kz%d", static_cast<int>(::getpid()));
  Started outside(sleeper(dir, name), "60", true);
  ASSERT_GT(outside.pid(), 0);
  EXPECT_EQ(findproc(name, outside.pid(), 0), 0);
  EXPECT_EQ(findproc_nopid(name, 0), -1);
  Started inside(dir / name, "60");
  EXPECT_EQ(findproc_nopid(name, 0), inside.pid());
}

}  // namespace
}  // namespace kova
