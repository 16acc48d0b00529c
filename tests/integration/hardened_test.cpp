// Hardened mode against the real binary.
#include <dirent.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "support/agent_process.h"

namespace kova::test {
namespace {

const std::string kVersionReply = "0a00060000000000";
const std::string kUnregistered = "05000a0000000000";

std::string version_from(const std::string& source, int port) {
  return hex(round_trip_on(connect_to("127.0.0.1", port, source), request_packet(14)));
}

// What the agent sends on `fd` before it closes, without the peer sending
// anything; whether it closed within `limit`.
std::pair<std::string, bool> sent_to_silent_peer(int fd, std::chrono::milliseconds limit = std::chrono::seconds(10)) {
  std::string got;
  for (auto deadline = std::chrono::steady_clock::now() + limit;;) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now()).count();
    pollfd p{fd, POLLIN, 0};
    if (left <= 0 || ::poll(&p, 1, static_cast<int>(left)) <= 0) return {got, false};
    char buf[64];
    const ssize_t n = ::recv(fd, buf, sizeof buf, 0);
    if (n <= 0) return {got, true};
    got.append(buf, static_cast<size_t>(n));
  }
}

// The processes whose parent is `pid`, zombies included.
int children_of(pid_t pid) {
  int count = 0;
  DIR* proc = ::opendir("/proc");
  for (dirent* e; proc != nullptr && (e = ::readdir(proc)) != nullptr;) {
    const std::string stat = read_file(std::string("/proc/") + e->d_name + "/stat");
    const size_t paren = stat.rfind(')');
    int ppid = 0;
    if (paren != std::string::npos && std::sscanf(stat.c_str() + paren + 1, " %*c %d", &ppid) == 1 && ppid == pid)
      ++count;
  }
  if (proc != nullptr) ::closedir(proc);
  return count;
}

TEST(Hardened, UnregisteredPeersAreRefusedAtOnceAndNeitherStallNorEndTheAgent) {
  InstallTree tree;
  RunningAgent agent(tree, free_port(), {"-harden", "-server", "127.0.0.2/31"});
  ASSERT_TRUE(agent.started()) << agent.launch().err;
  const int port = agent.port();
  EXPECT_EQ(version_from("127.0.0.2", port), kVersionReply);
  EXPECT_EQ(version_from("127.0.0.3", port), kVersionReply);

  // The refused peer sends nothing; the agent answers and closes without
  // reading (the legacy agent waits up to 120 s for the request first).
  const auto asked = std::chrono::steady_clock::now();
  const int silent = connect_to("127.0.0.1", port);
  const auto [refusal, closed] = sent_to_silent_peer(silent);
  const auto took = std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - asked);
  ::close(silent);
  EXPECT_EQ(std::pair(hex(refusal), closed), std::pair(kUnregistered, true));
  RecordProperty("refusal_us", std::to_string(took.count()));

  // Peers that reset their connections at once, before the agent answers.
  for (int i = 0; i < 20; ++i) {
    const int fd = connect_to("127.0.0.1", port);
    const linger reset{1, 0};
    ASSERT_EQ(::setsockopt(fd, SOL_SOCKET, SO_LINGER, &reset, sizeof reset), 0);
    ::close(fd);
  }
  EXPECT_TRUE(agent.alive());
  EXPECT_EQ(version_from("127.0.0.2", port), kVersionReply);
  const std::string log = tree.log();
  EXPECT_NE(log.find("I-HARDENED,    Hardened mode: registered servers 127.0.0.2/31, at most 32 requests at once, "
                     "updates refused\n"),
            std::string::npos)
      << log;
  // The readiness probe, the silent peer and twenty resets: one line a minute.
  EXPECT_EQ(occurrences(log, "W-UNREG_SERV,  Request from unregistered server 127.0.0.1\n"), 1u) << log;

  InstallTree tree2;
  RunningAgent listed(tree2, free_port(), {"-harden", "-server", "127.0.0.10"});
  ASSERT_TRUE(listed.started());
  EXPECT_EQ(hex(round_trip(listed.port(), request_packet(14))), kUnregistered);  // no substring match
}

TEST(Hardened, ConnectionsBeyondTheLimitAreClosedAtOnceUntilAChildEnds) {
  InstallTree tree;
  write_file(tree / ("settings/kova_" + tree.hostname() + ".config"),
             "KOVASERVER~127.0.0.1\nHARDEN~1\nMAX_REQUESTS~4\n");
  RunningAgent agent(tree, free_port());
  ASSERT_TRUE(agent.started()) << agent.launch().err;
  ASSERT_TRUE(eventually([&] { return children_of(agent.pid()) == 0; }));  // the probe's child is gone

  std::vector<int> silent;
  for (int i = 0; i < 6; ++i) silent.push_back(connect_to("127.0.0.1", agent.port()));
  ASSERT_TRUE(eventually([&] { return children_of(agent.pid()) == 4; }));
  for (int i : {4, 5}) EXPECT_EQ(sent_to_silent_peer(silent[i]), std::pair(std::string(), true)) << i;
  for (int i : {0, 1, 2, 3}) {
    pollfd p{silent[i], POLLIN, 0};
    EXPECT_EQ(::poll(&p, 1, 0), 0) << i;  // served, waiting for their requests
  }
  EXPECT_EQ(round_trip(agent.port(), request_packet(14)), "");

  ::close(silent[0]);  // its child reads the end of the request and ends
  EXPECT_TRUE(eventually([&] { return hex(round_trip(agent.port(), request_packet(14))) == kVersionReply; }));
  for (int fd : silent) ::close(fd);
  EXPECT_EQ(occurrences(tree.log(), "KOVAAGENT-W-REQ_LIMIT,   4 requests running, the most at once"), 1u)
      << tree.log();
  EXPECT_TRUE(eventually([&] { return children_of(agent.pid()) == 0; }));  // none left a zombie
}

TEST(Hardened, RefusesToStartWithoutAServerListThatServesSomeone) {
  InstallTree tree;
  const std::pair<std::vector<std::string>, std::string> cases[] = {
      {{}, "instead of \"0.0.0.0\""},
      {{"-server", "10.0.0.1, 0.0.0.0"}, "instead of \"0.0.0.0\""},
      {{"-server", ""}, "the list is empty"},
      {{"-server", "10.0.0.1,,bogus"}, "registered server \"bogus\" is not an address or a CIDR block"},
  };
  for (const auto& [extra, err] : cases) {
    std::vector<std::string> args{"-rootdir", tree.root(), "-port", std::to_string(free_port()), "-nofork", "-harden"};
    args.insert(args.end(), extra.begin(), extra.end());
    const RunResult r = run_agent(args);
    EXPECT_EQ(r.status, 1) << err;
    EXPECT_NE(r.err.find(err), std::string::npos) << r.err;
  }
  EXPECT_FALSE(file_exists(tree.lock_path()));
  EXPECT_EQ(tree.log().find("Agent started"), std::string::npos);
}

TEST(Hardened, ServesOverIPv6AndLeavesFilesAsTheyWere) {
  InstallTree tree;
  RunningAgent agent(tree, free_port(), {"-harden", "-server", "127.0.0.1,::1", "-listen", "::"}, {"KOVA_DEBUG=1"});
  ASSERT_TRUE(agent.started()) << agent.launch().err;
  const int port = agent.port();
  EXPECT_EQ(hex(round_trip_on(connect_to("::1", port), request_packet(14))), kVersionReply);
  EXPECT_EQ(hex(round_trip(port, request_packet(14))), kVersionReply);
  const std::string log = tree.log();
  EXPECT_NE(log.find("I-REQ,         Request from: ::1\n"), std::string::npos) << log;
  EXPECT_NE(log.find("I-REQ,         Request from: 127.0.0.1\n"), std::string::npos);  // dotted, as ever

  // A disk-space query never creates the directory it is asked about.
  const std::string missing = tree / "no/such/dir";
  EXPECT_EQ(round_trip(port, extended_packet("<DISKSPACE>", missing)), std::string(8, '\0') + padded("Unknown", 32));
  EXPECT_FALSE(file_exists(tree / "no"));

  // An update while updates are not allowed: the answers of a failed one, its file not read.
  const std::string update = extended_packet("<UPDATE_DATA>", "<UPDATE_DATA> u.tar 10 1 " + tree / "update");
  EXPECT_EQ(round_trip(port, update + "0123456789"), std::string(8, '\0') + "OK\r\nFAIL\r\n");
  EXPECT_TRUE(std::filesystem::is_empty(tree / "update"));
  EXPECT_NE(tree.log().find("W-HARDENED,    Hardened mode: update from 127.0.0.1 refused, updates are disabled"),
            std::string::npos);

  // A memory file cut half-way, then one announced too large: the old file stays.
  const std::string memory = tree / ("settings/kova_" + tree.hostname() + ".memory");
  write_file(memory, "old memory");
  const std::pair<std::string, std::string> pushes[] = {
      {le16(6) + le16(4) + le16(0) + le16(0) + std::string(522 * 2, 'm'), "0500010000000000"},
      {le16(6) + le16(0) + le16(2) + le16(0), "0500090000000000"},  // 131072 blocks of 522 bytes
  };
  for (const auto& [push, reply] : pushes) {
    const int fd = connect_loopback(port);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(::send(fd, request_packet(2).data(), 40, 0), 40);
    char ack[10];
    ASSERT_EQ(::recv(fd, ack, sizeof ack, MSG_WAITALL), 10);
    ASSERT_EQ(::send(fd, push.data(), push.size(), 0), static_cast<ssize_t>(push.size()));
    ::shutdown(fd, SHUT_WR);
    EXPECT_EQ(hex(sent_to_silent_peer(fd).first), reply);
    ::close(fd);
  }
  EXPECT_TRUE(eventually([&] { return occurrences(tree.log(), "E-MEMF") == 2; })) << tree.log();
  EXPECT_EQ(read_file(memory), "old memory");
  std::vector<std::string> names;
  DIR* dir = ::opendir((tree / "settings").c_str());
  for (dirent* e; dir != nullptr && (e = ::readdir(dir)) != nullptr;)
    if (e->d_name[0] != '.') names.push_back(e->d_name);
  if (dir != nullptr) ::closedir(dir);
  EXPECT_EQ(names, std::vector<std::string>{"kova_" + tree.hostname() + ".memory"});

  InstallTree tree2;
  RunningAgent v6_only(tree2, free_port(), {"-harden", "-server", "::1", "-listen", "::1"});
  ASSERT_TRUE(v6_only.started()) << v6_only.launch().err;
  EXPECT_EQ(hex(round_trip_on(connect_to("::1", v6_only.port()), request_packet(14))), kVersionReply);
  EXPECT_EQ(connect_to("127.0.0.1", v6_only.port()), -1);
}

}  // namespace
}  // namespace kova::test
