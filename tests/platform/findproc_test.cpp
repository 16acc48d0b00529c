#include "platform/findproc.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <tuple>
#include <vector>

#include "base/log.h"
#include "support/temp_dir.h"

namespace kova::test {
namespace {

// A process whose short name is its program's file name, killed and reaped by its pid; in a new PID
// namespace it lies in another zone. Construction returns once the child has run exec or failed to.
class Started {
 public:
  Started(const std::string& program, const std::string& arg, bool other_zone = false)
      : argv_{program.c_str(), arg.c_str(), nullptr} {
    std::vector<char> stack(256 * 1024);
    const int flags = SIGCHLD | CLONE_VM | CLONE_VFORK | (other_zone ? CLONE_NEWPID : 0);
    pid_ = ::clone(&Started::run, stack.data() + stack.size(), flags, this);
    if (err_ != 0) stop();
  }
  ~Started() { stop(); }
  int pid() const { return pid_; }
  void stop() {
    if (pid_ > 0 && ::kill(pid_, SIGKILL) == 0) ::waitpid(pid_, nullptr, 0);
    pid_ = -1;
  }

 private:
  static int run(void* self) {
    auto* started = static_cast<Started*>(self);
    ::execv(started->argv_[0], const_cast<char* const*>(started->argv_));
    started->err_ = errno;
    return 127;
  }
  const char* argv_[3];
  int err_ = 0;
  int pid_ = -1;
};

std::string sleeper(const TempDir& dir, const std::string& name) {
  EXPECT_EQ(::symlink("/bin/sleep", (dir / name).c_str()), 0);
  return dir / name;
}

TEST(Findproc, ShortNameMustOccurInsideTheGivenNameOrMatchItWhole) {
  TempDir dir;
  Started monitor(sleeper(dir, "vorn_monitor"), "60");
  ASSERT_GT(monitor.pid(), 0);
  const int absent = std::stoi(read_file("/proc/sys/kernel/pid_max")) + 1;
  const std::tuple<const char*, int, int> cases[] = {
      {"vorn_monitor", monitor.pid(), 1}, {"vorn_monitor_es", monitor.pid(), 1}, {"bin/vorn_monitor", monitor.pid(), 1},
      {"vorn_monito", monitor.pid(), 0},  {"kovarta", monitor.pid(), 0},         {"vorn_monitor", absent, 0}};
  for (auto [name, pid, expected] : cases) EXPECT_EQ(findproc(name, pid, 0), expected) << name << ":" << pid;

  // By name: whole short names, the given pid skipped, and a sixteen-character name never found.
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

  const std::string long_name = string_printf("longname_%07d", static_cast<int>(::getpid()));
  write_file(dir / long_name, "#!/bin/sh\nread line < \"$1\"\n");
  ASSERT_EQ(::chmod((dir / long_name).c_str(), 0755), 0);
  ASSERT_EQ(::mkfifo((dir / "fifo").c_str(), 0600), 0);
  Started script(dir / long_name, dir / "fifo");  // it blocks in the shell's own read, with no child
  ASSERT_GT(script.pid(), 0);
  EXPECT_EQ(find_process_by_name(long_name, ::getpid(), 0), -1);
  EXPECT_EQ(findproc_nopid(long_name, 0), -1);
  EXPECT_EQ(findproc_nopid(long_name.substr(0, 15), 0), script.pid());
  EXPECT_EQ(findproc(long_name, script.pid(), 0), 1);
}

TEST(FindProcessByName, IgnoresProcessesOfAnotherZone) {
  if (::geteuid() != 0) GTEST_SKIP() << "a new PID namespace needs root";
  TempDir dir;
  const std::string name = string_printf("kz%d", static_cast<int>(::getpid()));
  Started outside(sleeper(dir, name), "60", true);
  ASSERT_GT(outside.pid(), 0);
  EXPECT_EQ(findproc(name, outside.pid(), 0), 0);
  EXPECT_EQ(findproc_nopid(name, 0), -1);
  Started inside(dir / name, "60");
  EXPECT_EQ(findproc_nopid(name, 0), inside.pid());
}

}  // namespace
}  // namespace kova::test
