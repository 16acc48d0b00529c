// kovaget as scripts run it: --json output for every command, and exit
// statuses that tell a done request from no reply, a refusal and a status
// nobody knows.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <nlohmann/json.hpp>
#include <sys/socket.h>
#include <unistd.h>

#include <future>
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

class Kovaget : public AgentTest {};

TEST_F(Kovaget, EveryCommandsJsonParsesAndItsExitStatusSaysHowItWent) {
  InstallTree tree;
  RunningAgent agent(tree, free_port(), {}, {"SORLEX_LIBRARY=" + tree.root()});
  ASSERT_TRUE(agent.started()) << agent.launch().err;
  write_file(tree / "memory.txt", "memory\n");
  const std::string port = std::to_string(agent.port());

  constexpr int kAny = -1;  // requests other work serves or reshapes
  const struct {
    std::vector<std::string> args;
    int status;
    json expected;  // fields the object must hold
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
  };
  // The agent's fixed pauses (10 s before data, 2 s in extended requests)
  // run side by side.
  std::vector<std::future<RunResult>> results;
  for (const auto& run : runs) {
    std::vector<std::string> args = {"--json", "-t", "30"};
    args.insert(args.end(), run.args.begin(), run.args.end());
    // Options anywhere: the port after the command.
    if (run.args[0] != "-p") args.insert(args.end(), {"-p", port});
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
  const RunResult words = run_program(KOVA_KOVAGET_BIN, {"-p", port, "version"});
  EXPECT_EQ(std::tuple(words.status, words.out), std::tuple(0, std::string("agent protocol version 6.0\n")));
}

// A stand-in agent on loopback: answers each connection's request with the
// next canned reply and closes.
class CannedAgent {
 public:
  explicit CannedAgent(std::vector<std::string> replies) {
    listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET, addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof addr;
    EXPECT_EQ(::bind(listener_, reinterpret_cast<sockaddr*>(&addr), len), 0);
    EXPECT_EQ(::listen(listener_, 4), 0);
    EXPECT_EQ(::getsockname(listener_, reinterpret_cast<sockaddr*>(&addr), &len), 0);
    port_ = ntohs(addr.sin_port);
    thread_ = std::jthread([this, replies = std::move(replies)] {
      for (const std::string& reply : replies) {
        const int fd = ::accept(listener_, nullptr, nullptr);
        if (fd < 0) return;
        char request[40];
        for (size_t got = 0; got < sizeof request;) {
          const ssize_t k = ::read(fd, request + got, sizeof request - got);
          if (k <= 0) break;
          got += static_cast<size_t>(k);
        }
        EXPECT_EQ(::write(fd, reply.data(), reply.size()), static_cast<ssize_t>(reply.size()));
        ::close(fd);
      }
    });
  }
  ~CannedAgent() {
    thread_.join();
    ::close(listener_);
  }
  std::string port() const { return std::to_string(port_); }

 private:
  int listener_ = -1;
  int port_ = 0;
  std::jthread thread_;
};

TEST(KovagetAlone, UnknownStatusesRefusalsAndSilenceFail) {
  const struct {
    std::vector<std::string> args;
    std::string reply;
    int status;
    json expected;
  } cases[] = {
      {{"dcstop"}, std::string("\x08\x00\x63\x00", 4), 4, {{"state", "unknown"}, {"error", "unknown_status"}}},
      {{"status"}, std::string("\x0b\x00\x07\x00\x3c\x00\x04\x00\x00\x00", 10), 4, {{"collector_status", 7}}},
      {{"version"}, std::string("\x05\x00\x0a\x00\x00\x00\x00\x00", 8), 3, {{"agent_code", 10}}},
      {{"version"}, "", 1, {{"error", "short_reply"}}},
  };
  std::vector<std::string> replies;
  for (const auto& c : cases) replies.push_back(c.reply);
  CannedAgent canned(replies);
  for (const auto& c : cases) {
    std::vector<std::string> args = {"-p", canned.port(), "-t", "10", "--json"};
    args.insert(args.end(), c.args.begin(), c.args.end());
    const RunResult r = run_program(KOVA_KOVAGET_BIN, args);
    EXPECT_EQ(r.status, c.status) << c.args[0] << ": " << r.out << r.err;
    const json j = one_object(c.args, r);
    for (const auto& [key, value] : c.expected.items())
      EXPECT_EQ(j.value(key, json()), value) << c.args[0] << " " << key << ": " << r.out;
  }
}

}  // namespace
}  // namespace kova::test
