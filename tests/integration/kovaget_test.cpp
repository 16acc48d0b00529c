// kovaget as scripts run it: --json output for every command, and exit
// statuses that tell a done request from no reply, a refusal and a status
// nobody knows.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <nlohmann/json.hpp>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <future>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "support/agent_process.h"

#ifndef KOVA_KOVAGET_BIN
#define KOVA_KOVAGET_BIN "kovaget"
#endif

namespace kova::test {
namespace {

using nlohmann::json;

// kovaget's output with --json: exactly one object whose command and exit
// status are the run's. The parsed object, or null when it is not that.
json one_object(const std::vector<std::string>& args, const RunResult& r) {
  const json j = json::parse(r.out, nullptr, false);
  EXPECT_TRUE(!j.is_discarded() && j.is_object()) << args[0] << ": " << r.out;
  if (j.is_discarded() || !j.is_object()) return nullptr;
  EXPECT_EQ(j.value("exit_status", -1), r.status) << r.out;
  EXPECT_EQ(j.value("ok", false), r.status == 0) << r.out;
  return j;
}

// A stand-in agent on loopback: answers one connection's request with
// `reply` and closes; `port` is where it listens.
std::jthread canned_agent(const std::string& reply, int& port) {
  sockaddr_in addr{.sin_family = AF_INET, .sin_port = 0, .sin_addr = {htonl(INADDR_LOOPBACK)}, .sin_zero = {}};
  socklen_t len = sizeof addr;
  const int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  EXPECT_EQ(::bind(listener, reinterpret_cast<sockaddr*>(&addr), len), 0);
  EXPECT_EQ(::listen(listener, 1), 0);
  EXPECT_EQ(::getsockname(listener, reinterpret_cast<sockaddr*>(&addr), &len), 0);
  port = ntohs(addr.sin_port);
  return std::jthread([listener, reply] {
    char request[40];
    pollfd p{listener, POLLIN, 0};
    const int fd = ::poll(&p, 1, 30000) == 1 ? ::accept(listener, nullptr, nullptr) : -1;
    if (fd >= 0 && ::recv(fd, request, sizeof request, MSG_WAITALL) == static_cast<ssize_t>(sizeof request)) {
      EXPECT_EQ(::send(fd, reply.data(), reply.size(), MSG_NOSIGNAL), static_cast<ssize_t>(reply.size()));
    }
    ::close(fd);
    ::close(listener);
  });
}

using Kovaget = AgentTest;

TEST_F(Kovaget, EveryCommandsJsonParsesAndItsExitStatusSaysHowItWent) {
  InstallTree tree;
  RunningAgent agent(tree, free_port(), {}, {"SORLEX_LIBRARY=" + tree.root()});
  ASSERT_TRUE(agent.started()) << agent.launch().err;
  write_file(tree / "memory.txt", "memory\n");

  constexpr int kAny = -1;  // requests other work serves or reshapes
  const struct {
    std::vector<std::string> args;
    int status;
    json expected;                        // fields the object must hold
    std::optional<std::string> canned{};  // the reply of a stand-in agent, for what the real one never says
  } runs[] = {
      {{"version"}, 0, {{"command", "version"}, {"major", 6}, {"minor", 0}}},
      {{"os"}, 0, {{"os_id", 4}}},
      {{"status"}, 0, {{"collector_state", "down"}, {"rta_state", "not found"}}},
      {{"dcstart", "60", "0"}, 0, {{"component", "data collector"}, {"state", "down"}}},
      {{"dcstop"}, 0, {}},
      {{"rtastart", "1", "5001", "30"}, 0, {{"state", "not found"}}},
      {{"rtastop"}, 0, {}},
      {{"sorlexstatus"}, 0, {{"status", 5}}},
      {{"memory", tree / "memory.txt"}, 0, {{"bytes", 7}}},
      {{"config"}, 0, {{"what", "configuration report"}}},
      {{"agentversion"}, 0, {{"text", "V10.0-001"}}},
      {{"release"}, 0, {}},
      {{"agentos"}, 0, {{"text", "Sun Solaris X86"}}},
      {{"diskspace", tree / "data"}, 0, {}},
      {{"memorynode"}, 0, {{"status", 20}}},
      {{"opcode", "14"}, 0, {{"reply_hex", "0a00060000000000"}}},
      {{"opcode", "5"}, 1, {{"error", "short_reply"}}},  // accepted and never answered
      {{"ext", "GET_AGENT_OS"}, 0, {{"status", 0}, {"rest_bytes", 32}}},
      {{"ext", "NO_SUCH_TAG"}, 3, {{"status", 8}, {"agent_code", 8}}},
      {{"perf"}, 3, {{"error", "refused"}}},  // no collector data today
      {{"raw", "qdtsx_none"}, kAny, {}},
      {{"merge"}, kAny, {}},
      {{"sysconfig", tree.hostname()}, kAny, {}},
      {{"perfnode", "node1"}, kAny, {}},
      {{"dcstatnode", "node1", "SunOS", "node1.example"}, 0, {{"collector_status", 4}, {"collector_interval_s", 0}}},
      {{"dcstopnode", "node1", "SunOS"}, 0, {{"collector_status", 4}}},
      {{"dcstartnode", "node1/x", "SunOS", "192.0.2.1", "60", "0"}, 3, {{"agent_code", 9}}},  // no file name
      {{"appdata", "-d", "05-Mar-2024", "/nowhere/app*"}, kAny, {}},
      {{"update", tree / "memory.txt", tree / "incoming"}, kAny, {}},
      {{"checksum", tree / "memory.txt"}, 0, {{"file", tree / "memory.txt"}}},
      {{"terminate"}, 0, {{"closed", true}}},
      {{"no_such_command"}, 2, {{"error", "usage"}}},
      {{"dcstart", "sixty", "0"}, 2, {{"error", "usage"}}},
      {{"-p", std::to_string(free_port()), "version"}, 1, {{"error", "connection_refused"}}},
      {{"dcstop"}, 4, {{"state", "unknown"}, {"error", "unknown_status"}}, std::string("\x08\x00\x63\x00", 4)},
      {{"status"}, 4, {{"collector_status", 7}}, std::string("\x0b\x00\x07\x00\x3c\x00\x04\x00\x00\x00", 10)},
  };
  // The agent's fixed pauses (10 s before data, 2 s in extended requests)
  // run side by side.
  std::vector<std::future<RunResult>> results;
  std::vector<std::jthread> stand_ins;
  for (const auto& run : runs) {
    std::vector<std::string> args = {"--json", "-t", "30"};
    args.insert(args.end(), run.args.begin(), run.args.end());
    int to = agent.port();
    if (run.canned) stand_ins.push_back(canned_agent(*run.canned, to));
    // Options anywhere: the port after the command.
    if (run.args[0] != "-p") args.insert(args.end(), {"-p", std::to_string(to)});
    results.push_back(std::async(std::launch::async, [args] {
      return run_program(KOVA_KOVAGET_BIN, args, std::chrono::seconds(60));
    }));
  }
  for (size_t i = 0; i < std::size(runs); ++i) {
    const RunResult r = results[i].get();
    const json j = one_object(runs[i].args, r);
    if (runs[i].status != kAny) {
      EXPECT_EQ(r.status, runs[i].status) << runs[i].args[0] << ": " << r.out << r.err;
    }
    for (const auto& [key, value] : runs[i].expected.items())
      EXPECT_EQ(j.value(key, json()), value) << runs[i].args[0] << " " << key << ": " << r.out;
  }

  // Without --json the words stay as they were.
  const RunResult words = run_program(KOVA_KOVAGET_BIN, {"-p", std::to_string(agent.port()), "version"});
  EXPECT_EQ(std::tuple(words.status, words.out), std::tuple(0, std::string("agent protocol version 6.0\n")));
}

}  // namespace
}  // namespace kova::test
