#include "wire/socket_io.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <tuple>

#include "wire/wire_fixture.h"

namespace kova::test {
namespace {

class SocketIo : public WireTest {};

TEST_F(SocketIo, ReadEndsWithoutWaitingWhenThePeerClosesOrOnAnyOtherError) {
  SocketPair pair;
  pair.from_peer(std::string(20, 'r'));
  char buf[40] = {};
  EXPECT_EQ(Socket_readn(pair.agent.get(), buf, sizeof buf, 1), 20);  // a short read, not a failure

  int fds[2];
  ASSERT_EQ(::pipe(fds), 0);
  UniqueFd r(fds[0]), w(fds[1]);
  EXPECT_EQ(Socket_readn(r.get(), buf, sizeof buf, 0), -1);  // ENOTSOCK is not retried
  EXPECT_EQ(WaitCounter::waits, 0);
}

TEST_F(SocketIo, SilentPeerFailsOnTheSixtyFirstAttempt) {
  for (int verbose : {0, 1}) {
    SocketPair pair;
    WaitCounter::waits = 0;
    char buf[40];
    EXPECT_EQ(Socket_readn_nonblock(pair.agent.get(), buf, sizeof buf, verbose), -1);
    EXPECT_EQ(WaitCounter::waits, kReadRetryLimit) << "verbose " << verbose;
  }
  // Only the verbose read logged, once per failed receive, counting from 0.
  EXPECT_EQ(count_in_log("KOVAAGENT-E-SOCKR,"), kReadRetryLimit + 1);
  EXPECT_NE(log_text().find("recv failed,  ntrys: 0   errno: 11:  err: "), std::string::npos);
  EXPECT_NE(log_text().find("recv failed,  ntrys: 60   errno: 11:"), std::string::npos);
  EXPECT_EQ(log_text().find("ntrys: 61"), std::string::npos);
}

TEST_F(SocketIo, EachArrivalResetsTheFailureCount) {
  // The peer sends one byte after every 50 waits: 50 < 61, so three pieces
  // separated by 100 waits in all still make a complete read.
  static int peer_fd = -1;
  SocketPair pair;
  peer_fd = pair.peer.get();
  WaitCounter::on_wait = [](int count) { ASSERT_TRUE(count % 50 != 0 || ::write(peer_fd, "x", 1) == 1); };
  char buf[3];
  EXPECT_EQ(Socket_readn(pair.agent.get(), buf, sizeof buf, 0), 3);
  EXPECT_EQ(WaitCounter::waits, 150);
}

// A byte arrives after every wait, so the failure count never grows: only a
// bound on the whole read ends it.
TEST_F(SocketIo, ATotalBoundEndsAReadThatTricklesIn) {
  static int peer_fd = -1;
  static int64_t now_ms = 0;
  wire_hooks().now_ms = [] { return now_ms; };
  WaitCounter::on_wait = [](int) { now_ms += kReadWaitMs, (void)!::write(peer_fd, "x", 1); };
  for (int total_ms : {0, kHardenedReadTotalMs}) {
    SocketPair pair;
    peer_fd = pair.peer.get(), now_ms = 0, WaitCounter::waits = 0, wire_hooks().read_total_ms = total_ms;
    char buf[100];
    const ssize_t got = Socket_readn(pair.agent.get(), buf, sizeof buf, 0);
    EXPECT_EQ(std::tuple(got, WaitCounter::waits, errno),
              total_ms == 0 ? std::tuple(100l, 100, errno) : std::tuple(-1l, total_ms / kReadWaitMs, ETIMEDOUT));
  }
}

// Large replies, written in parts, are checked against the real binary.
TEST_F(SocketIo, AWriteToAClosedPeerFailsWithoutASignal) {
  SocketPair pair;
  pair.peer.reset();
  size_t written = 99;
  EXPECT_EQ(Socket_writen_counted(pair.agent.get(), "data", 4, written), -1);
  EXPECT_EQ(written, 0u);
  EXPECT_EQ(logged("E-WRITE", "write to socket failed Broken pipe"), 1);
}

}  // namespace
}  // namespace kova::test
