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
// namespace it lies in another zone. Construction returns once the child's program runs, or failed to.
struct Started {
  Started(const std::string& program, const std::string& arg, bool other_zone = false, const std::string& dir = ".")
      : argv{program.c_str(), arg.c_str(), nullptr}, cwd(dir) {
    std::vector<char> stack(256 * 1024);
    const auto run = [](void* self) {
      auto* s = static_cast<Started*>(self);
      if (::chdir(s->cwd.c_str()) == 0) ::execv(s->argv[0], const_cast<char* const*>(s->argv));
      s->failed = true;
      return 127;
    };
    pid = ::clone(run, stack.data() + stack.size(), SIGCHLD | CLONE_VM | CLONE_VFORK | (other_zone ? CLONE_NEWPID : 0),
                  this);
    if (failed) stop();
    // The parent of a vfork wakes before the new program's arguments show.
    for (int i = 0; i < 400 && pid > 0 && read_file(string_printf("/proc/%d/cmdline", pid)).empty(); ++i) ::usleep(5000);
  }
  ~Started() { stop(); }
  void stop() {
    if (pid > 0 && ::kill(pid, SIGKILL) == 0) ::waitpid(pid, nullptr, 0);
    pid = -1;
  }
  const char* argv[3];
  std::string cwd;
  bool failed = false;
  int pid = -1;
};

std::string sleeper(const TempDir& dir, const std::string& name) {
  EXPECT_EQ(::symlink("/bin/sleep", (dir / name).c_str()), 0);
  return dir / name;
}

TEST(Findproc, ShortNameMustOccurInsideTheGivenNameOrMatchItWhole) {
  TempDir dir;
  Started monitor(sleeper(dir, "vorn_monitor"), "60");
  ASSERT_GT(monitor.pid, 0);
  const int absent = std::stoi(read_file("/proc/sys/kernel/pid_max")) + 1;
  const std::tuple<const char*, int, int> cases[] = {
      {"vorn_monitor", monitor.pid, 1}, {"vorn_monitor_es", monitor.pid, 1}, {"bin/vorn_monitor", monitor.pid, 1},
      {"vorn_monito", monitor.pid, 0},  {"kovarta", monitor.pid, 0},         {"vorn_monitor", absent, 0}};
  for (auto [name, pid, expected] : cases) EXPECT_EQ(findproc(name, pid, 0), expected) << name << ":" << pid;

  // By name: whole short names, the given pid skipped, and a sixteen-character name never found.
  const std::string name = string_printf("kf%d", static_cast<int>(::getpid()));
  const std::string& root = dir.path();
  Started first(sleeper(dir, name), "60");
  Started second(dir / name, "60");
  ASSERT_TRUE(first.pid > 0 && second.pid > 0);
  EXPECT_EQ(find_process_by_name(name, root, first.pid, 0), second.pid);
  EXPECT_EQ(find_process_by_name(name + "x", root, ::getpid(), 0), -1);
  EXPECT_EQ(find_process_by_name(name.substr(1), root, ::getpid(), 0), -1);
  second.stop();
  EXPECT_EQ(find_process_by_name(name, root, first.pid, 0), -1);
  EXPECT_EQ(findproc_nopid(name, root, 0), first.pid);

  const std::string long_name = string_printf("longname_%07d", static_cast<int>(::getpid()));
  write_file(dir / long_name, "#!/bin/sh\nread line < \"$1\"\n");
  ASSERT_EQ(::chmod((dir / long_name).c_str(), 0755), 0);
  ASSERT_EQ(::mkfifo((dir / "fifo").c_str(), 0600), 0);
  Started script(dir / long_name, dir / "fifo");  // it blocks in the shell's own read, with no child
  ASSERT_GT(script.pid, 0);
  EXPECT_EQ(findproc_nopid(long_name, root, 0), -1);
  EXPECT_EQ(findproc_nopid(long_name.substr(0, 15), root, 0), script.pid);  // the script counts, not its shell
  EXPECT_EQ(findproc(long_name, script.pid, 0), 1);
}

TEST(FindProcessByName, IgnoresProcessesOfAnotherZone) {
  if (::geteuid() != 0) GTEST_SKIP() << "a new PID namespace needs root";
  TempDir dir;
  const std::string name = string_printf("kz%d", static_cast<int>(::getpid()));
  Started outside(sleeper(dir, name), "60", true);
  ASSERT_GT(outside.pid, 0);
  EXPECT_EQ(findproc(name, outside.pid, 0), 0);
  EXPECT_EQ(findproc_nopid(name, "", 0), -1);
  Started inside(dir / name, "60");
  EXPECT_EQ(findproc_nopid(name, "", 0), inside.pid);
}

// A process counts for a tree when its program lies in it or it runs in it; another tree's is never found.
TEST(FindProcessByName, FindsOnlyProcessesOfTheInstallTreeAskedAbout) {
  TempDir tree, other;
  make_dirs(tree / "bin");
  make_dirs(tree / "tmp");
  const std::string name = string_printf("kt%d", static_cast<int>(::getpid()));
  Started program(sleeper(tree, "bin/" + name), "60", false, "/");
  ASSERT_GT(program.pid, 0);
  for (const std::string& root : {tree.path(), tree / "bin/", tree / "bin/../bin", std::string()})
    EXPECT_EQ(findproc_nopid(name, root, 0), program.pid) << root;
  EXPECT_EQ(findproc_nopid(name, other.path(), 0), -1);
  EXPECT_EQ(findproc_nopid(name, tree / "tmp", 0), -1);
  program.stop();

  Started working(sleeper(other, name), "60", false, tree / "tmp");  // a program from elsewhere, run in the tree
  ASSERT_GT(working.pid, 0);
  EXPECT_EQ(findproc_nopid(name, tree.path(), 0), working.pid);
  EXPECT_EQ(findproc_nopid(name, other.path(), 0), working.pid);
  EXPECT_EQ(findproc_nopid(name, other / "x", 0), -1);
}

}  // namespace
}  // namespace kova::test
