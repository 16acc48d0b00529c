#include "platform/privileges.h"

#include <gtest/gtest.h>
#include <linux/securebits.h>
#include <sys/capability.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "support/temp_dir.h"

namespace kova {
namespace {

constexpr unsigned long long bit(int cap) { return 1ULL << cap; }

constexpr unsigned long long kKept = bit(CAP_DAC_READ_SEARCH) | bit(CAP_DAC_OVERRIDE) | bit(CAP_FOWNER) |
                                     bit(CAP_KILL) | bit(CAP_SYS_PTRACE) | bit(CAP_SETUID) | bit(CAP_SETGID);
constexpr uid_t kNobody = 65534;

// One capability set of the calling process as the kernel reports it ("CapPrm", "CapEff", "CapInh", ...).
unsigned long long caps(const char* set) {
  const std::string status = test::read_file("/proc/self/status");
  return std::strtoull(status.c_str() + status.find(std::string(set) + ":") + 7, nullptr, 16);
}

// Checks in a forked child end it with status 1 and say which one failed.
#define CHILD_CHECK(condition) \
  do { if (!(condition)) { std::fprintf(stderr, "line %d: %s\n", __LINE__, #condition); ::_exit(1); } } while (0)

// The running agent's kept set is checked end to end; here, the inherited sets and turning the set off and on.
TEST(Privileges, RootTurnsTheKeptSetOffAndOnAfterTheSwitchAndSetuidAddsNothing) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root";
  test::TempDir dir;
  const std::string root_only = dir / "root_only";  // in a directory only root may enter
  test::write_file(root_only, "x");
  EXPECT_EXIT(
      {
        CHILD_CHECK(!priv_kept_only());
        CHILD_CHECK(priv_init(1) == 0 && caps("CapInh") == kKept && caps("CapAmb") == kKept);
        CHILD_CHECK(priv_on() == 0 && ::setuid(kNobody) == 0 && ::setgid(kNobody) == 0);  // as the agent switches
        CHILD_CHECK(caps("CapEff") == kKept && priv_kept_only() && test::read_file(root_only) == "x");
        priv_off();
        CHILD_CHECK(caps("CapEff") == 0 && test::read_file(root_only).empty());
        CHILD_CHECK(priv_on() == 0 && caps("CapEff") == kKept);
        // The kept CAP_SETUID brings uid 0 back, but not one capability more.
        CHILD_CHECK(::setuid(0) == 0 && caps("CapPrm") == kKept && priv_kept_only());
        ::_exit(0);
      },
      ::testing::ExitedWithCode(0), "^$");
}

// A service account that holds nothing can still start the agent.
TEST(Privileges, AnAccountWithoutCapabilitiesStarts) {
  EXPECT_EXIT(
      {
        if (::geteuid() == 0) CHILD_CHECK(::setgid(kNobody) == 0 && ::setuid(kNobody) == 0);
        CHILD_CHECK(priv_init(1) == 0 && caps("CapPrm") == 0 && prctl(PR_GET_KEEPCAPS) == 1);
        CHILD_CHECK(priv_on() == 0);
        priv_off();
        ::_exit(0);
      },
      ::testing::ExitedWithCode(0), "^$");
}

TEST(Privileges, FailureExitsOneAndSpeaksOnlyWhenVerbose) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root";
  const auto init_with_the_set_locked_off = [](int verbose) {
    prctl(PR_SET_SECUREBITS, SECBIT_KEEP_CAPS_LOCKED | SECBIT_NO_SETUID_FIXUP_LOCKED);
    priv_init(verbose);
    ::_exit(0);
  };
  EXPECT_EXIT(init_with_the_set_locked_off(0), ::testing::ExitedWithCode(1), "^$");
  EXPECT_EXIT(init_with_the_set_locked_off(1), ::testing::ExitedWithCode(1),
              "^kovaagent: set PRIV_PERMITTED failed: Operation not permitted\n$");
}

}  // namespace
}  // namespace kova
