#include "wire/socket_io.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "wire/wire_fixture.h"

namespace kova {
namespace {

using test::SocketPair;
using test::WaitCounter;

class SocketIo : public test::WireTest {};

TEST_F(SocketIo, ReadStopsShortWhenThePeerCloses) {
  SocketPair pair;
  const std::string sent(20, 'r');
  ASSERT_EQ(::write(pair.peer.get(), sent.data(), sent.size()), 20);
  pair.peer.reset();
  char buf[40] = {};
  EXPECT_EQ(Socket_readn(pair.agent.get(), buf, sizeof buf, 1), 20);
  EXPECT_EQ(std::string(buf, 20), sent);
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
  WaitCounter::on_wait = [](int count) {
    if (count % 50 == 0) {
      ASSERT_EQ(::write(peer_fd, "x", 1), 1);
    }
  };
  char buf[3];
  EXPECT_EQ(Socket_readn(pair.agent.get(), buf, sizeof buf, 0), 3);
  EXPECT_EQ(WaitCounter::waits, 150);
}

TEST_F(SocketIo, OtherReceiveErrorsFailAtOnce) {
  int fds[2];
  ASSERT_EQ(::pipe(fds), 0);
  UniqueFd r(fds[0]), w(fds[1]);
  char buf[4];
  EXPECT_EQ(Socket_readn(r.get(), buf, sizeof buf, 0), -1);  // ENOTSOCK
  EXPECT_EQ(WaitCounter::waits, 0);
}

TEST_F(SocketIo, WriteToAClosedPeerFailsWithoutSignal) {
  SocketPair pair;
  pair.peer.reset();
  const std::string data(1 << 16, 'w');
  size_t written = 99;
  EXPECT_EQ(Socket_writen_counted(pair.agent.get(), data.data(), data.size(), written), -1);
  EXPECT_EQ(written, 0u);
  EXPECT_EQ(count_in_log("KOVAAGENT-E-WRITE,"), 1);
  EXPECT_NE(log_text().find("write to socket failed Broken pipe"), std::string::npos);
}

TEST_F(SocketIo, WriteDeliversEveryByteOfALargeBuffer) {
  SocketPair pair;
  std::string data(1 << 20, '\0');
  for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>(i * 7);
  // The reader runs in a child so the writer can fill the socket buffer.
  pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    pair.agent.reset();
    std::string got(data.size(), '\0');
    size_t n = 0;
    while (n < got.size()) {
      ssize_t k = ::read(pair.peer.get(), got.data() + n, got.size() - n);
      if (k <= 0) break;
      n += static_cast<size_t>(k);
    }
    ::_exit(n == data.size() && got == data ? 0 : 1);
  }
  pair.peer.reset();
  EXPECT_EQ(Socket_writen(pair.agent.get(), data.data(), data.size()), static_cast<ssize_t>(data.size()));
  pair.agent.reset();
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

TEST_F(SocketIo, BindingAHeldPortFailsWithTheLogAndStderrLines) {
  // Hold a loopback port; binding every address on it then fails, so the
  // test never listens beyond loopback.
  UniqueFd holder(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(::bind(holder.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
  ASSERT_EQ(::listen(holder.get(), 1), 0);
  socklen_t len = sizeof addr;
  ASSERT_EQ(::getsockname(holder.get(), reinterpret_cast<sockaddr*>(&addr), &len), 0);
  int port = ntohs(addr.sin_port);

  testing::internal::CaptureStderr();
  int fd = Socket_Create(port);
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_EQ(fd, -1);
  if (fd >= 0) ::close(fd);
  std::string message = "Error binding socket (port " + std::to_string(port) + ") : Address already in use\n";
  EXPECT_EQ(err, "KOVA-E-SOCK:  " + message + "KOVA-E-NOTSTARTED: KOVA Agent not started\n");
  EXPECT_EQ(count_in_log("KOVAAGENT-I-SOCK,"), 1);
  EXPECT_EQ(count_in_log("KOVAAGENT-I-BINDING,"), 1);
  EXPECT_NE(log_text().find("KOVAAGENT-E-BIND,"), std::string::npos);
}

}  // namespace
}  // namespace kova
