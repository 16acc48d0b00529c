#include "agent/hardened.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "base/log.h"
#include "support/fixed_clock.h"
#include "support/temp_dir.h"

namespace kova::test {
namespace {

class Hardened : public testing::Test {
 protected:
  void SetUp() override { log_state().logfile = dir_ / "agent.log"; }
  void TearDown() override { log_state() = LogState{}; }
  std::string log() const { return read_file(dir_ / "agent.log"); }
  TempDir dir_;
};

// A peer refused in hardened mode gets the error packet at once, whether or
// not it sent anything; its address is logged once a minute at most.
TEST_F(Hardened, RefusedPeersGetTheErrorAtOnceAndAreLoggedOnceAMinute) {
  FixedClock clock(local_time(2024, 5, 1));
  HardenedState state;
  const std::pair<const char*, int> refusals[] = {
      {"10.0.0.1", 0}, {"10.0.0.1", 59}, {"10.0.0.2", 0}, {"10.0.0.1", 1}, {"10.0.0.1", 120},
  };
  for (const auto& [peer, later] : refusals) {
    clock.advance(later);
    int fds[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
    refuse_unregistered_at_once(UniqueFd(fds[0]), peer, state);
    char reply[16];
    EXPECT_EQ(std::string(reply, static_cast<size_t>(::read(fds[1], reply, sizeof reply))),
              std::string("\x05\x00\x0a\x00\x00\x00\x00\x00", 8));
    ::close(fds[1]);
  }
  const std::string text = log();
  size_t first = 0, second = 0;
  for (size_t at = 0; (at = text.find("W-UNREG_SERV,  Request from unregistered server ", at)) != std::string::npos; ++at)
    (text.compare(at + 48, 9, "10.0.0.1\n") == 0 ? first : second)++;
  EXPECT_EQ(std::pair(first, second), std::pair(size_t{3}, size_t{1})) << text;
}

TEST_F(Hardened, ARequestChildPastItsDeadlineEndsItselfWithALogLine) {
  const pid_t child = ::fork();
  if (child == 0) {
    arm_request_deadline(1);
    for (;;) ::pause();
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 1) << status;
  EXPECT_NE(log().find("KOVAAGENT-E-REQ_TIMEOUT,  Request child pid " + std::to_string(child) +
                       " still running after 1 seconds, ending\n"),
            std::string::npos)
      << log();
}

}  // namespace
}  // namespace kova::test
