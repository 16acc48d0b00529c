// Running the real kovaagent binary against a temporary install tree, and
// talking to it on loopback as the server would.
#pragma once

#include <gtest/gtest.h>
#include <sys/types.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "support/pid_namespace.h"
#include "support/temp_dir.h"

namespace kova::test {

// A temporary install tree: bin, data, logs, tmp, tmp/update, outgoing,
// settings, update, mwa.
class InstallTree {
 public:
  InstallTree();
  const std::string& root() const { return dir_.path(); }
  std::string operator/(const std::string& name) const { return dir_ / name; }
  std::string hostname() const;
  std::string lock_path() const { return dir_ / ("tmp/" + hostname() + "_kova.lock"); }
  // Today's agent log, or "" when there is none yet.
  std::string log() const;

 private:
  TempDir dir_;
};

struct RunResult {
  int status = -1;  // exit status, or -1 when it did not end in time
  std::string out, err;
};

// The base of every test that runs the agent: skipped where the suite has
// no PID namespace (see pid_namespace.h); whatever the test started and left
// running ends with it.
class AgentTest : public testing::Test {
 protected:
  void SetUp() override {
    if (!pid_namespace_problem().empty()) GTEST_SKIP() << pid_namespace_problem();
  }
  void TearDown() override { end_leftovers(); }
};

// Runs `program` with `args`, waits for it (at most `limit`, then kills it)
// and returns its exit status and output. Safe from several threads at once.
RunResult run_program(const std::string& program, const std::vector<std::string>& args,
                      std::chrono::milliseconds limit = std::chrono::seconds(20));

// The same for the agent, in the namespace only; with `uid` set (and the
// test running as root) under that account.
RunResult run_agent(const std::vector<std::string>& args, const std::vector<std::string>& env = {},
                    std::chrono::milliseconds limit = std::chrono::seconds(20), int uid = -1);

// A TCP port on 127.0.0.1 that nothing listens on right now.
int free_port();

// A socket connected to `port` on 127.0.0.1, or -1.
int connect_loopback(int port);

// A socket connected to `port` on the IPv4 or IPv6 literal `host`, from the
// local address `source` when one is given, or -1.
int connect_to(const std::string& host, int port, const std::string& source = "");

// A started agent; a daemonised one is this process's child once its
// launcher has ended. `program` is the agent binary to start; empty: the
// real one.
class RunningAgent {
 public:
  RunningAgent(const InstallTree& tree, int port, std::vector<std::string> extra = {},
               std::vector<std::string> env = {}, const std::string& program = {});
  ~RunningAgent();  // ends the agent (SIGTERM, then SIGKILL) if it still runs
  RunningAgent(const RunningAgent&) = delete;
  RunningAgent& operator=(const RunningAgent&) = delete;

  bool started() const { return pid_ > 0 && !ended_; }
  // The agent's pid: what its lock file, -status and -stop show.
  pid_t pid() const { return pid_; }
  // The same: the tests run in the agent's namespace.
  pid_t host_pid() const { return pid_; }
  int port() const { return port_; }
  const RunResult& launch() const { return launch_; }
  // Its standard output so far (the launcher's and the agent's alike).
  std::string out() const { return read_file(io_ / "out"); }
  // Sends `signal` (0: none) and waits for the agent to end; its exit
  // status, or -1.
  int stop(int signal);
  // Sends `signal` without waiting; false when the agent no longer runs.
  bool signal(int signal);
  // True while the agent's process exists.
  bool alive();

 private:
  TempDir io_;  // its standard output and error
  pid_t pid_ = -1;
  bool ended_ = false;
  int port_;
  RunResult launch_;
};

// One connection: sends `request` and closes its sending side, reads until the agent closes or
// `limit` passes, returns what arrived.
std::string round_trip(int port, const std::string& request,
                       std::chrono::milliseconds limit = std::chrono::seconds(10));

// The same over a connection already made, which it closes; "" when fd < 0.
std::string round_trip_on(int fd, const std::string& request,
                          std::chrono::milliseconds limit = std::chrono::seconds(10));

// A 40-byte request with `opcode` and optional argument bytes at offset 2.
std::string request_packet(int opcode, const std::string& args = {});

// An extended request: opcode 254 with the tag, then length and payload.
std::string extended_packet(const std::string& tag, const std::string& payload);

// Two bytes, least significant first, as the protocol's short fields.
inline std::string le16(int v) { return {static_cast<char>(v & 0xff), static_cast<char>((v >> 8) & 0xff)}; }

// `text` padded with NULs to a fixed field of `width` bytes.
inline std::string padded(const std::string& text, size_t width) {
  return text + std::string(width - text.size(), '\0');
}

// The bytes as lower-case hex digits, two each.
inline std::string hex(const std::string& bytes) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string out;
  for (unsigned char c : bytes) out += {kDigits[c >> 4], kDigits[c & 15]};
  return out;
}

// How often `needle` occurs in `text`.
size_t occurrences(const std::string& text, const std::string& needle);

// Waits until `predicate` holds, polling every 20 ms, at most `limit`.
template <typename Predicate>
bool eventually(Predicate predicate, std::chrono::milliseconds limit = std::chrono::seconds(10)) {
  for (auto deadline = std::chrono::steady_clock::now() + limit; std::chrono::steady_clock::now() < deadline;) {
    if (predicate()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return predicate();
}

}  // namespace kova::test
