// Hardened mode against the real binary.
#include <dirent.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "support/agent_process.h"

namespace kova::test {
namespace {

using Hardened = AgentTest;

const std::string kVersion = "0a00060000000000", kUnregistered = "05000a0000000000";

std::string version_from(const std::string& source, int port) {
  return hex(round_trip_on(connect_to("127.0.0.1", port, source), request_packet(14)));
}

// What the agent sends a peer that sends nothing, up to its close; "-" when
// it has not closed within 10 s.
std::string to_silent_peer(int fd) {
  std::string got;
  char buf[64];
  for (pollfd p{fd, POLLIN, 0}; ::poll(&p, 1, 10000) == 1;) {
    const ssize_t n = ::recv(fd, buf, sizeof buf, 0);
    if (n <= 0) return got;
    got.append(buf, static_cast<size_t>(n));
  }
  return "-";
}

// The processes whose parent is `pid`, zombies included.
int children_of(pid_t pid) {
  int count = 0, ppid = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
    const std::string stat = read_file(entry.path() / "stat");
    const size_t paren = stat.rfind(')');
    count += paren != std::string::npos && std::sscanf(stat.c_str() + paren + 1, " %*c %d", &ppid) == 1 && ppid == pid;
  }
  return count;
}

TEST_F(Hardened, ConnectionsBeyondTheLimitAreClosedAtOnceUntilAChildEnds) {
  InstallTree tree;
  write_file(tree / ("settings/kova_" + tree.hostname() + ".config"),
             "KOVASERVER~127.0.0.1\nHARDEN~1\nMAX_REQUESTS~4\n");
  RunningAgent agent(tree, free_port());
  ASSERT_TRUE(agent.started()) << agent.launch().err;
  ASSERT_TRUE(eventually([&] { return children_of(agent.host_pid()) == 0; }));  // the probe's child is gone
  std::vector<int> silent;
  for (int i = 0; i < 6; ++i) silent.push_back(connect_to("127.0.0.1", agent.port()));
  EXPECT_EQ(to_silent_peer(silent[4]) + to_silent_peer(silent[5]), "");  // closed, nothing sent
  EXPECT_EQ(children_of(agent.host_pid()), 4);
  ::close(silent[0]);  // its child reads the end of the request and ends
  EXPECT_TRUE(eventually([&] { return hex(round_trip(agent.port(), request_packet(14))) == kVersion; }));
  for (int fd : silent) ::close(fd);
  EXPECT_TRUE(eventually([&] { return children_of(agent.host_pid()) == 0; }));  // none left a zombie
  EXPECT_EQ(occurrences(tree.log(), "W-REQ_LIMIT,   4 requests running, the most at once"), 1u);
}

TEST_F(Hardened, RefusesToStartWithAServerListThatServesEveryoneOrNoOne) {
  InstallTree tree;
  for (const char* servers : {"0.0.0.0", ""}) {
    const RunResult r = run_agent(
        {"-rootdir", tree.root(), "-port", std::to_string(free_port()), "-nofork", "-harden", "-server", servers});
    EXPECT_EQ(r.status, 1) << servers;
    EXPECT_NE(r.err.find("kovaagent, hardened mode"), std::string::npos) << r.err;
  }
  EXPECT_FALSE(file_exists(tree.lock_path()));
}

TEST_F(Hardened, RefusesUnregisteredPeersAtOnceServesOverIPv6AndLeavesFilesAsTheyWere) {
  InstallTree tree;
  // 127.0.0.10 does not admit 127.0.0.1: no substring match.
  RunningAgent agent(tree, free_port(), {"-harden", "-server", "127.0.0.2/31,127.0.0.10,::1", "-listen", "::"},
                     {"KOVA_DEBUG=1"});
  ASSERT_TRUE(agent.started()) << agent.launch().err;
  const int port = agent.port();
  EXPECT_EQ(version_from("127.0.0.3", port), kVersion);
  EXPECT_EQ(hex(round_trip_on(connect_to("::1", port), request_packet(14))), kVersion);
  EXPECT_NE(tree.log().find("Request from: ::1\n"), std::string::npos);
  EXPECT_NE(tree.log().find("Request from: 127.0.0.3\n"), std::string::npos);  // dotted, as ever
  // Silent, the legacy agent would wait 120 s for the request before answering.
  const int silent = connect_to("127.0.0.1", port);
  EXPECT_EQ(hex(to_silent_peer(silent)), kUnregistered);
  ::close(silent);
  for (int i = 0; i < 20; ++i) {  // peers that reset before they are answered
    const int fd = connect_to("127.0.0.1", port);
    const linger reset{1, 0};
    ASSERT_EQ(::setsockopt(fd, SOL_SOCKET, SO_LINGER, &reset, sizeof reset), 0);
    ::close(fd);
  }
  EXPECT_EQ(version_from("127.0.0.2", port), kVersion);
  // The readiness probe, the silent peer and twenty resets: one line a minute.
  EXPECT_EQ(occurrences(tree.log(), "W-UNREG_SERV,  Request from unregistered server 127.0.0.1\n"), 1u);

  EXPECT_EQ(round_trip_on(connect_to("::1", port), extended_packet("<DISKSPACE>", tree / "no/such")),
            std::string(8, '\0') + padded("Unknown", 32));
  EXPECT_FALSE(file_exists(tree / "no"));
  const std::string update = extended_packet("<UPDATE_DATA>", "<UPDATE_DATA> u.tar 10 1 " + tree / "update");
  EXPECT_EQ(round_trip_on(connect_to("::1", port), update + "0123456789"),
            std::string(8, '\0') + "OK\r\nFAIL\r\n");  // the file unread
  EXPECT_TRUE(std::filesystem::is_empty(tree / "update"));

  // A memory file cut half-way leaves the old one, and nothing beside it.
  const std::string memory = tree / ("settings/kova_" + tree.hostname() + ".memory");
  write_file(memory, "old memory");
  const int fd = connect_to("::1", port);
  char ack[10];
  ASSERT_EQ(::send(fd, request_packet(2).data(), 40, 0), 40);
  ASSERT_EQ(::recv(fd, ack, sizeof ack, MSG_WAITALL), 10);
  EXPECT_EQ(hex(round_trip_on(fd, le16(6) + le16(4) + le16(0) + le16(0) + std::string(522 * 2, 'm'))),
            "0500010000000000");
  EXPECT_EQ(read_file(memory), "old memory");
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(tree / "settings"), {}), 1);

  InstallTree tree2;
  RunningAgent v6(tree2, free_port(), {"-harden", "-server", "::1", "-listen", "::1"});
  ASSERT_TRUE(v6.started()) << v6.launch().err;
  EXPECT_EQ(hex(round_trip_on(connect_to("::1", v6.port()), request_packet(14))), kVersion);
}

}  // namespace
}  // namespace kova::test
