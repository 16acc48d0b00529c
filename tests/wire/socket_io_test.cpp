#include "wire/socket_io.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
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

// What the peer does at each wait of a 100-byte read, and how the read ends.
TEST_F(SocketIo, AReadFailsOnTheSixtyFirstFruitlessAttemptInARowOrOnceItsTotalBoundHasPassed) {
  static int peer_fd = -1;
  static int64_t now_ms = 0;
  wire_hooks().now_ms = [] { return now_ms; };
  const struct {
    void (*on_wait)(int count);
    int total_ms;
    std::tuple<ssize_t, int, int> ends;  // bytes read, waits, errno of a failure
  } cases[] = {
      {nullptr, 0, {-1, kReadRetryLimit, EAGAIN}},
      // A byte after every 60 waits: each arrival starts the count afresh, and no bound is set.
      {[](int n) { now_ms += kReadWaitMs, (void)!(n % 60 == 0 && ::write(peer_fd, "x", 1)); }, 0, {100, 6000, 0}},
      // A byte after every wait: only the bound on the whole read ends it.
      {[](int) { now_ms += kReadWaitMs, (void)!::write(peer_fd, "x", 1); }, kHardenedReadTotalMs,
       {-1, kHardenedReadTotalMs / kReadWaitMs, ETIMEDOUT}},
  };
  for (const auto& c : cases) {
    SocketPair pair;
    peer_fd = pair.peer.get(), now_ms = 1, WaitCounter::waits = 0, WaitCounter::on_wait = c.on_wait;
    wire_hooks().read_total_ms = c.total_ms;
    char buf[100];
    const ssize_t got = Socket_readn(pair.agent.get(), buf, sizeof buf, 0);
    EXPECT_EQ(std::tuple(got, WaitCounter::waits, got < 0 ? errno : 0), c.ends) << c.total_ms;
  }
}

TEST_F(SocketIo, AVerboseReadLogsEachFailedReceiveCountingFromZero) {
  SocketPair pair;
  char buf[40];
  EXPECT_EQ(Socket_readn_nonblock(pair.agent.get(), buf, sizeof buf, 1), -1);
  EXPECT_EQ(count_in_log("KOVAAGENT-E-SOCKR,"), kReadRetryLimit + 1);
  EXPECT_NE(log_text().find("recv failed,  ntrys: 0   errno: 11:  err: "), std::string::npos);
  EXPECT_NE(log_text().find("recv failed,  ntrys: 60   errno: 11:"), std::string::npos);
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

// IPv4 peers read as the C library writes them, also when an IPv6 socket
// took them as mapped addresses.
TEST(PeerAddress, ReadsAsTheCLibraryWritesItForEveryOctetInEveryPlace) {
  for (uint32_t v = 0; v < 256; ++v)
    for (uint32_t host : {v << 24 | 1u, 10u << 24 | v << 16 | 255u, 127u << 24 | v << 8, v * 0x01010101u}) {
      sockaddr_storage plain{}, mapped{};
      auto& v4 = reinterpret_cast<sockaddr_in&>(plain);
      v4.sin_family = AF_INET;
      v4.sin_addr.s_addr = htonl(host);
      auto& v6 = reinterpret_cast<sockaddr_in6&>(mapped);
      v6.sin6_family = AF_INET6;
      v6.sin6_addr.s6_addr[10] = v6.sin6_addr.s6_addr[11] = 0xff;
      std::memcpy(v6.sin6_addr.s6_addr + 12, &v4.sin_addr, 4);
      char expected[INET_ADDRSTRLEN] = {};
      ::inet_ntop(AF_INET, &v4.sin_addr, expected, sizeof expected);
      ASSERT_EQ(Socket_peer_text(plain), expected);
      ASSERT_EQ(Socket_peer_text(mapped), expected);
    }
  sockaddr_storage other{};
  auto& v6 = reinterpret_cast<sockaddr_in6&>(other);
  v6.sin6_family = AF_INET6;
  ::inet_pton(AF_INET6, "2001:db8::5", &v6.sin6_addr);
  EXPECT_EQ(Socket_peer_text(other), "2001:db8::5");
}

}  // namespace
}  // namespace kova::test
