// For the suites that speak the wire protocol in-process: a socket pair, the
// agent log in a temporary file, and the wire wait replaced by a counter.
#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <sstream>
#include <string>

#include "base/clock.h"
#include "base/log.h"
#include "platform/unique.h"
#include "support/temp_dir.h"
#include "wire/packet.h"
#include "wire/socket_io.h"

namespace kova::test {

struct SocketPair {
  UniqueFd agent;  // the side under test
  UniqueFd peer;   // the side the test plays
  SocketPair() {
    int fds[2];
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
    agent.reset(fds[0]), peer.reset(fds[1]);
  }
  // The peer sends `bytes`, then closes its end unless told to stay.
  void from_peer(const std::string& bytes, bool close = true) {
    EXPECT_EQ(::write(peer.get(), bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    if (close) peer.reset();
  }
  // Everything the agent side wrote, once it has closed its end.
  std::string drain() {
    agent.reset();
    std::string all;
    char buf[4096];
    for (ssize_t k; (k = ::read(peer.get(), buf, sizeof buf)) > 0;) all.append(buf, static_cast<size_t>(k));
    return all;
  }
};

// The header a file transfer starts with: whole blocks, then the last block's size.
inline std::string inf_header(int64_t blocks, int64_t last) {
  PacketBuffer b{};
  Packet_CreateINF(blocks, last, b);
  return std::string(reinterpret_cast<const char*>(b.data()), kInfSize);
}

// A whole file transfer of `content`: its header, then the bytes.
inline std::string transfer_of(const std::string& content) {
  return inf_header(content.size() / kPacketSize, content.size() % kPacketSize) + content;
}

// Counts the waits of the read loops, running an optional step on each; never waits.
struct WaitCounter {
  static inline int waits = 0;
  static inline void (*on_wait)(int count) = nullptr;
  static int wait(int, int) {
    ++waits;
    if (on_wait != nullptr) on_wait(waits);
    return 0;
  }
};

// The agent log in a temporary directory, the wire wait counted, sleeps skipped; all restored afterwards.
class WireTest : public ::testing::Test {
 protected:
  void SetUp() override {
    saved_hooks_ = wire_hooks(), saved_clock_ = process_clock(), saved_log_ = log_state().logfile;
    wire_hooks().wait_readable = WaitCounter::wait;
    WaitCounter::waits = 0;
    WaitCounter::on_wait = nullptr;
    process_clock().sleep = [](unsigned seconds) { slept += seconds; };
    slept = 0;
    log_state().logfile = dir_ / "agent.log";
  }
  void TearDown() override {
    wire_hooks() = saved_hooks_, process_clock() = saved_clock_, log_state().logfile = saved_log_;
  }
  std::string log_text() const { return read_file(dir_ / "agent.log"); }
  // Log lines holding `needle`, with `message` after it.
  int count_in_log(const std::string& needle, const std::string& message = "") const {
    std::istringstream in(log_text());
    int n = 0;
    for (std::string line; std::getline(in, line);)
      n += line.find(needle) != std::string::npos && line.find(message, line.find(needle)) != std::string::npos;
    return n;
  }
  // Log lines with this tag whose message contains `message`.
  int logged(const std::string& tag, const std::string& message) const {
    return count_in_log("KOVAAGENT-" + tag + ",", message);
  }

  static inline unsigned slept = 0;
  TempDir dir_;

 private:
  WireHooks saved_hooks_{};
  Clock saved_clock_{};
  std::string saved_log_;
};

}  // namespace kova::test
