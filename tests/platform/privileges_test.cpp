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

namespace kova::test {
namespace {

constexpr unsigned long long bit(int cap) { return 1ULL << cap; }

constexpr unsigned long long kWrite = bit(CAP_DAC_OVERRIDE) | bit(CAP_FOWNER);
constexpr unsigned long long kKept =
    kWrite | bit(CAP_DAC_READ_SEARCH) | bit(CAP_KILL) | bit(CAP_SYS_PTRACE) | bit(CAP_SETUID) | bit(CAP_SETGID);
constexpr uid_t kNobody = 65534;

// One capability set of the calling process as the kernel reports it ("CapPrm", "CapEff", "CapInh", ...).
unsigned long long caps(const char* set) {
  const std::string status = read_file("/proc/self/status");
  return std::strtoull(status.c_str() + status.find(std::string(set) + ":") + 7, nullptr, 16);
}

// The test process stays root: only CAP_KILL lets the child that switched accounts signal it.
bool may_signal_root() { return ::kill(::getppid(), 0) == 0; }

// Checks in a forked child end it with status 1 and say which one failed.
#define CHILD_CHECK(condition) \
  do { if (!(condition)) { std::fprintf(stderr, "line %d: %s\n", __LINE__, #condition); ::_exit(1); } } while (0)

// The running agent's kept set is checked end to end; here, the inherited sets and turning the set off and on.
TEST(Privileges, RootTurnsTheKeptSetOffAndOnAfterTheSwitchAndSetuidAddsNothing) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root";
  TempDir dir;
  const std::string root_only = dir / "root_only";  // in a directory only root may enter
  write_file(root_only, "x");
  EXPECT_EXIT(
      {
        CHILD_CHECK(priv_init(1) == 0 && caps("CapInh") == kKept && caps("CapAmb") == kKept);
        CHILD_CHECK(priv_on() == 0 && ::setuid(kNobody) == 0 && ::setgid(kNobody) == 0);  // as the agent switches
        CHILD_CHECK(caps("CapEff") == kKept && may_signal_root());
        priv_off();
        // file_dac_write is never switched off: the agent writes where its account alone may not.
        CHILD_CHECK(caps("CapEff") == kWrite && !may_signal_root());
        CHILD_CHECK(::truncate(root_only.c_str(), 0) == 0);
        CHILD_CHECK(priv_on() == 0 && caps("CapEff") == kKept && may_signal_root());
        // The kept CAP_SETUID brings uid 0 back, but not one capability more.
        CHILD_CHECK(::setuid(0) == 0 && caps("CapPrm") == kKept && caps("CapEff") == kKept);
        ::_exit(0);
      },
      ::testing::ExitedWithCode(0), "^$");
  EXPECT_EQ(read_file(root_only), "");
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

// A set that cannot be kept across the switch is reported, verbose or not, and the agent goes on without it.
TEST(Privileges, ASetThatCannotBeKeptIsReportedAndTheSwitchLeavesNothing) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root";
  EXPECT_EXIT(
      {
        prctl(PR_SET_SECUREBITS, SECBIT_KEEP_CAPS_LOCKED | SECBIT_NO_SETUID_FIXUP_LOCKED);
        CHILD_CHECK(priv_init(0) == 0 && priv_on() == 0 && ::setgid(kNobody) == 0 && ::setuid(kNobody) == 0);
        CHILD_CHECK(caps("CapPrm") == 0 && caps("CapAmb") == 0);
        ::_exit(0);
      },
      ::testing::ExitedWithCode(0), "^kovaagent: set PRIV_PERMITTED failed: Operation not permitted\n$");
}

}  // namespace
}  // namespace kova::test
