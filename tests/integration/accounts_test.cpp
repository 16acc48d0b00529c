// Who may start the agent, and what it holds once it runs. Needs root.
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <tuple>

#include "support/agent_process.h"

namespace kova::test {
namespace {

constexpr const char* kServiceAccount = "kovasvc";

// The capability bits the agent keeps: DAC_OVERRIDE, DAC_READ_SEARCH,
// FOWNER, KILL, SETGID, SETUID and SYS_PTRACE.
constexpr unsigned long long kKept = (1ull << 1) | (1ull << 2) | (1ull << 3) | (1ull << 5) | (1ull << 6) |
                                     (1ull << 7) | (1ull << 19);

// "Key:\tvalue" of /proc/<pid>/status.
std::string status_field(pid_t pid, const std::string& key) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(in, line);)
    if (line.rfind(key + ":", 0) == 0) return line.substr(key.size() + 2);
  return {};
}

class Accounts : public AgentTest {
 protected:
  void SetUp() override {
    AgentTest::SetUp();
    if (IsSkipped()) return;
    if (::getpwnam(kServiceAccount) == nullptr &&
        std::system("useradd --system --no-create-home --shell /usr/sbin/nologin kovasvc >/dev/null 2>&1") != 0)
      GTEST_SKIP() << "cannot create the service account";
    passwd* pw = ::getpwnam(kServiceAccount);
    ASSERT_NE(pw, nullptr);
    uid_ = pw->pw_uid;
    // The tree is the service account's, and every account may look into it.
    ::chmod(tree_.root().c_str(), 0755);
    for (const auto& e : std::filesystem::recursive_directory_iterator(tree_.root()))
      ::chown(e.path().c_str(), pw->pw_uid, pw->pw_gid);
    ::chown(tree_.root().c_str(), pw->pw_uid, pw->pw_gid);
  }
  InstallTree tree_;
  uid_t uid_ = 0;
};

TEST_F(Accounts, OnlyRootOrTheServiceAccountMayStartOrStopItAndItKeepsOnlyItsCapabilities) {
  passwd* nobody = ::getpwnam("nobody");
  ASSERT_NE(nobody, nullptr);
  RunResult refused = run_agent({"-rootdir", tree_.root(), "-user", kServiceAccount, "-port",
                                 std::to_string(free_port())},
                                {}, std::chrono::seconds(20), static_cast<int>(nobody->pw_uid));
  EXPECT_EQ(refused.status, 0);
  EXPECT_EQ(refused.err, "kovaagent can be started or stopped only by an authorized account.\n");

  // Started by root, it runs as the service account.
  RunningAgent agent(tree_, free_port(), {"-user", kServiceAccount});
  ASSERT_TRUE(agent.started()) << agent.launch().err;
  std::string uid = std::to_string(uid_);
  EXPECT_EQ(status_field(agent.host_pid(), "Uid"), uid + "\t" + uid + "\t" + uid + "\t" + uid);
  const auto caps = [&](const char* set) { return std::stoull(status_field(agent.host_pid(), set), nullptr, 16); };
  for (const char* set : {"CapInh", "CapBnd", "CapAmb"}) EXPECT_EQ(caps(set) & ~kKept, 0u) << set;
  // Between requests only file_dac_write (DAC_OVERRIDE, FOWNER) of the kept set is in effect.
  EXPECT_EQ(std::tuple(caps("CapPrm"), caps("CapEff")), std::tuple(kKept, (1ull << 1) | (1ull << 3)));
  EXPECT_NE(read_file(tree_.lock_path()).find(std::string("USER~") + kServiceAccount + "\n"), std::string::npos);
  EXPECT_EQ(hex(round_trip(agent.port(), request_packet(14))), "0a00060000000000");

  // The service account may also stop it.
  RunResult stop = run_agent({"-rootdir", tree_.root(), "-user", kServiceAccount, "-stop"}, {},
                             std::chrono::seconds(20), static_cast<int>(uid_));
  EXPECT_NE(stop.out.find("Stopping kovaagent (pid " + std::to_string(agent.pid()) + ")"), std::string::npos)
      << stop.out << stop.err;
  EXPECT_TRUE(eventually([&] { return !agent.alive(); }));
}

}  // namespace
}  // namespace kova::test
