// Helpers for the suites that speak the wire protocol in-process: a
// connected socket pair, the agent log captured in a temporary file, and
// the wire wait replaced by a counter.
#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <string>
#include <vector>

#include "core/clock.h"
#include "core/log.h"
#include "platform/unique.h"
#include "support/temp_dir.h"
#include "wire/socket_io.h"

namespace kova::test {

struct SocketPair {
  UniqueFd agent;  // the side under test
  UniqueFd peer;   // the side the test plays
  SocketPair() {
    int fds[2];
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
    agent.reset(fds[0]);
    peer.reset(fds[1]);
  }
};

// Counts the waits of the read loops and may run a step on each one (for
// example, the peer sending more bytes); never waits.
struct WaitCounter {
  static inline int waits = 0;
  static inline void (*on_wait)(int count) = nullptr;
  static int wait(int, int) {
    ++waits;
    if (on_wait != nullptr) on_wait(waits);
    return 0;
  }
};

inline std::vector<std::string> split_lines(const std::string& text) {
  std::vector<std::string> lines;
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    lines.push_back(text.substr(start, end - start));
    start = end + 1;
  }
  return lines;
}

// The agent log in a temporary directory, the wire wait counted, the
// protocol's sleeps skipped; all restored afterwards.
class WireTest : public ::testing::Test {
 protected:
  void SetUp() override {
    saved_hooks_ = wire_hooks();
    saved_clock_ = process_clock();
    saved_log_ = log_state().logfile;
    wire_hooks().wait_readable = WaitCounter::wait;
    WaitCounter::waits = 0;
    WaitCounter::on_wait = nullptr;
    process_clock().sleep = [](unsigned seconds) { slept += seconds; };
    slept = 0;
    log_state().logfile = dir_ / "agent.log";
  }
  void TearDown() override {
    wire_hooks() = saved_hooks_;
    process_clock() = saved_clock_;
    log_state().logfile = saved_log_;
  }
  std::string log_text() const { return file_exists(dir_ / "agent.log") ? read_file(dir_ / "agent.log") : ""; }
  std::vector<std::string> log_lines() const { return split_lines(log_text()); }
  // Lines with this tag whose message contains `message`.
  int logged(const std::string& tag, const std::string& message) const {
    int n = 0;
    for (const auto& line : log_lines()) {
      size_t at = line.find("KOVAAGENT-" + tag + ",");
      n += at != std::string::npos && line.find(message, at) != std::string::npos ? 1 : 0;
    }
    return n;
  }
  int count_in_log(const std::string& needle) const {
    int n = 0;
    for (const auto& line : log_lines()) n += line.find(needle) != std::string::npos ? 1 : 0;
    return n;
  }

  static inline unsigned slept = 0;
  TempDir dir_;

 private:
  WireHooks saved_hooks_{};
  Clock saved_clock_{};
  std::string saved_log_;
};

}  // namespace kova::test
