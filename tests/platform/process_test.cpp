#include "platform/process.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <tuple>
#include <vector>

#include "support/agent_process.h"
#include "support/temp_dir.h"

namespace kova::test {
namespace {

// A forked child writes to a pipe through stdout, forks again and both
// leave with _exit: each byte arrives once, in order.
TEST(StandardStreams, PendingOutputIsWrittenOnceBeforeForkAndBeforeExit) {
  int pipe_fds[2];
  ASSERT_EQ(::pipe(pipe_fds), 0);
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    ::dup2(pipe_fds[1], STDOUT_FILENO);
    std::setvbuf(stdout, nullptr, _IOFBF, 4096);
    std::printf("a");
    flush_standard_streams();
    const pid_t grandchild = ::fork();
    if (grandchild == 0) {
      std::printf("b");
      flush_standard_streams();
      ::_exit(0);
    }
    ::waitpid(grandchild, nullptr, 0);
    std::printf("c");
    flush_standard_streams();
    ::_exit(0);
  }
  ::close(pipe_fds[1]);
  ::waitpid(child, nullptr, 0);
  std::string got;
  char buffer[64];
  for (ssize_t n; (n = ::read(pipe_fds[0], buffer, sizeof buffer)) > 0;) got.append(buffer, static_cast<size_t>(n));
  ::close(pipe_fds[0]);
  EXPECT_EQ(got, "abc");
}

// True once `pid` has ended (gone, or a zombie nobody reaped yet).
bool ended(pid_t pid) {
  const std::string stat = read_file("/proc/" + std::to_string(pid) + "/stat");
  const size_t close = stat.rfind(") ");
  return close == std::string::npos || stat.compare(close + 2, 1, "Z") == 0;
}

TEST(RunProgram, EndsAtTheDeadlineWithEverythingTheProgramStartedInItsGroup) {
  const int saved = program_limits().deadline_ms;
  program_limits().deadline_ms = 300;
  TempDir dir;
  const std::string helper = dir / "helper.pid";
  const struct {
    std::vector<std::string> argv;
    ProgramRun run;
    std::string output;
  } cases[] = {
      {{"/bin/echo", "done"}, ProgramRun::kFinished, "done\n"},
      {{"/bin/sh", "-c", "head -c 5000 /dev/zero | tr '\\0' x"}, ProgramRun::kFinished, std::string(1024, 'x')},
      {{dir / "absent"}, ProgramRun::kNotStarted, ""},
      // Hangs with its output open, or after closing it; the helper it
      // started in the background holds the output too.
      {{"/bin/sh", "-c", "echo early; sleep 600"}, ProgramRun::kKilled, "early\n"},
      {{"/bin/sh", "-c", "exec >&-; sleep 600"}, ProgramRun::kKilled, ""},
      {{"/bin/sh", "-c", "sleep 600 & echo $! > " + helper + "; wait"}, ProgramRun::kKilled, ""},
  };
  for (const auto& c : cases) {
    std::string output = "stale";
    EXPECT_EQ(std::tuple(kova::run_program(c.argv, output), output), std::tuple(c.run, c.output)) << command_text(c.argv);
  }
  const pid_t started = std::atoi(read_file(helper).c_str());
  ASSERT_GT(started, 0);
  EXPECT_TRUE(eventually([&] { return ended(started); }, std::chrono::seconds(5)));
  EXPECT_EQ(program_deadline_seconds(), 1);  // rounded up, as log lines give it
  program_limits().deadline_ms = saved;
}

}  // namespace
}  // namespace kova::test
