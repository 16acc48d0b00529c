#include "agent/hardened.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "base/log.h"
#include "support/temp_dir.h"

namespace kova::test {
namespace {

TEST(Hardened, ARequestChildPastItsDeadlineEndsItselfWithALogLine) {
  TempDir dir;
  log_state().logfile = dir / "agent.log";
  const pid_t child = ::fork();
  if (child == 0) {
    arm_request_deadline(1);
    for (;;) ::pause();
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  log_state() = LogState{};
  EXPECT_EQ(status, 1 << 8);  // exited with status 1
  EXPECT_NE(read_file(dir / "agent.log").find("E-REQ_TIMEOUT,  Request child pid " + std::to_string(child)),
            std::string::npos);
}

}  // namespace
}  // namespace kova::test
