#include "platform/process.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <string>

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

}  // namespace
}  // namespace kova::test
