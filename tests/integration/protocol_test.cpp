// The request protocol as the server speaks it, against the real binary.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <future>
#include <random>
#include <string>
#include <vector>

#include "kova_client.h"
#include "support/agent_process.h"

namespace kova::test {
namespace {

const std::string kOsAnswer = std::string(8, '\0') + padded("Sun Solaris X86", 32);

// Runs the requests at once (extended ones pause two seconds each).
std::vector<std::string> round_trips(int port, const std::vector<std::string>& requests) {
  std::vector<std::future<std::string>> pending;
  for (const auto& r : requests) pending.push_back(std::async(std::launch::async, [=] { return round_trip(port, r); }));
  std::vector<std::string> replies;
  for (auto& p : pending) replies.push_back(p.get());
  return replies;
}

TEST(Protocol, RepliesAreByteExactAndUnknownRequestsAreLogged) {
  InstallTree tree;
  RunningAgent agent(tree, free_port());
  ASSERT_TRUE(agent.started()) << agent.launch().err;
  int port = agent.port();

  auto replies = round_trips(port, {
      request_packet(14), request_packet(16), request_packet(5), request_packet(17), request_packet(-1),
      extended_packet("GET_AGENT_OS_X", ""), extended_packet("GET_AGENT_RELEASE", ""),
      extended_packet("GET_AGENT_VERSION", ""), extended_packet("MEMORY_NODE", ""),
      extended_packet("NO_SUCH_TAG", "payload"), extended_packet("<DISKSPACE>", tree.root()),
  });
  EXPECT_EQ(hex(replies[0]), "0a00060000000000");
  EXPECT_EQ(hex(replies[1]), "04000000");
  for (int silent : {2, 3, 4}) EXPECT_EQ(replies[silent], "") << silent;
  EXPECT_EQ(replies[5], kOsAnswer);
  EXPECT_EQ(replies[6], std::string(8, '\0') + padded("910", 32));
  EXPECT_EQ(replies[7], std::string(8, '\0') + padded("V10.0-001", 32));
  EXPECT_EQ(hex(replies[8]), "1400000000000000");
  EXPECT_EQ(hex(replies[9]), "0800000000000000");
  ASSERT_EQ(replies[10].size(), 40u);
  EXPECT_GT(std::stol(replies[10].substr(8)), 0);  // free megabytes of the tree's file system

  std::string log = tree.log();
  EXPECT_NE(log.find("E-UNKNOWN_CODE,  Unknown code from server, 127.0.0.1   code 17\n"), std::string::npos) << log;
  EXPECT_NE(log.find("code -1\n"), std::string::npos);
  EXPECT_NE(log.find("KOVAAGENT-W-UKNTAG,"), std::string::npos);
  EXPECT_NE(log.find("I-GET_OS,      Returning:  Sun Solaris X86\n"), std::string::npos);
  EXPECT_NE(log.find("I-REQ_EXTEND,  Extended Request MEMORY_NODE  from 127.0.0.1\n"), std::string::npos);
}

TEST(Protocol, OnlyRegisteredServersAreServedBySubstring) {
  InstallTree tree;
  RunningAgent other(tree, free_port(), {"-server", "127.0.0.2"});
  ASSERT_TRUE(other.started()) << other.launch().err;
  EXPECT_EQ(hex(round_trip(other.port(), request_packet(14))), "05000a0000000000");
  EXPECT_NE(tree.log().find("W-UNREG_SERV,  Request from unregistered server 127.0.0.1\n"), std::string::npos);
  EXPECT_EQ(other.stop(SIGTERM), 0);

  InstallTree tree2;
  RunningAgent listed(tree2, free_port(), {"-server", "127.0.0.10"});
  ASSERT_TRUE(listed.started());
  EXPECT_EQ(hex(round_trip(listed.port(), request_packet(14))), "0a00060000000000");
}

// KOVA_DEBUG shows each request child start and finish: the one ended by
// the terminate request never finishes.
TEST(Protocol, TerminateEndsOnlyTheRequestChildOfAForkingAgent) {
  InstallTree forking_tree, foreground_tree;
  RunningAgent forking(forking_tree, free_port(), {}, {"KOVA_DEBUG=1"});
  RunningAgent foreground(foreground_tree, free_port(), {"-nofork", "-nolock"});
  ASSERT_TRUE(forking.started() && foreground.started());

  EXPECT_EQ(round_trip(forking.port(), request_packet(7)), "");
  EXPECT_TRUE(forking.alive());
  EXPECT_EQ(hex(round_trip(forking.port(), request_packet(14))), "0a00060000000000");
  const std::string log = forking_tree.log();
  const size_t started = occurrences(log, "Request started: pid ");
  EXPECT_GE(started, 2u) << log;  // and the harness's readiness probe
  EXPECT_EQ(occurrences(log, "Request from: 127.0.0.1\n"), started);
  EXPECT_EQ(occurrences(log, "Request finished: pid "), started - 1);

  EXPECT_EQ(round_trip(foreground.port(), request_packet(7)), "");
  EXPECT_TRUE(eventually([&] { return !foreground.alive(); }));
  EXPECT_EQ(occurrences(foreground_tree.log(), "Request from:"), 0u);  // no KOVA_DEBUG, no detail
}

// The collector state lines of a status request come on the first
// registered request after start (here the harness's readiness probe) and
// then once in every 61.
TEST(Protocol, StatusRequestsLogTheComponentStatesOnceAPeriod) {
  InstallTree tree;
  RunningAgent agent(tree, free_port());
  ASSERT_TRUE(agent.started());
  for (int i = 0; i < 59; ++i) ASSERT_EQ(round_trip(agent.port(), request_packet(14)).size(), 8u);
  for (size_t expected : {0u, 1u, 1u}) {
    ASSERT_EQ(hex(round_trip(agent.port(), request_packet(6))).substr(0, 4), "0b00");
    EXPECT_EQ(occurrences(tree.log(), "KOVAAGENT-I_DC_STAT,"), expected);
    EXPECT_EQ(occurrences(tree.log(), "KOVAAGENT-I-RTA_STAT,"), expected) << tree.log();
  }
}

TEST(Protocol, HostileInputNeverEndsTheAgent) {
  InstallTree tree;
  RunningAgent agent(tree, free_port(), {"-verbose"});
  ASSERT_TRUE(agent.started());
  int port = agent.port();

  std::mt19937 random(42);
  std::string noise(300, '\0');
  for (char& c : noise) c = static_cast<char>(random());
  std::string tag = request_packet(254, "GET_AGENT_OS");
  auto replies = round_trips(port, {
      "",                                   // connects and says nothing more
      request_packet(14).substr(0, 20),     // a short request
      tag + le16(-1),                       // no payload
      tag + le16(0),
      tag + le16(2048) + std::string(2048, 'p'),
      tag + le16(2049) + std::string(2049, 'p'),  // larger than any payload
      tag + le16(65535),
      tag + le16(100) + "short",            // payload ends early
      tag.substr(0, 40) + "x",              // length field cut
      noise,
  });
  EXPECT_EQ(hex(replies[1]), "0a00060000000000");  // the zero-filled rest of a short request
  for (int answered : {2, 3, 4, 6}) EXPECT_EQ(replies[answered], kOsAnswer) << answered;  // 6: -1, no payload
  for (int refused : {5, 7, 8}) EXPECT_EQ(replies[refused], "") << refused;

  EXPECT_TRUE(agent.alive());
  EXPECT_EQ(hex(round_trip(port, request_packet(14))), "0a00060000000000");
  std::string log = tree.log();
  EXPECT_NE(log.find("I-BADPACKET"), std::string::npos);
  EXPECT_NE(log.find("W-BADPACKET,   Failed to read extended packet length"), std::string::npos);
  // Every extended request is logged before its length is read, bad packets too.
  EXPECT_EQ(occurrences(log, "I-REQ_EXTEND,  Extended Request GET_AGENT_OS  from"), 7u);
}

TEST(Protocol, TheMemoryFileArrivesByteForByte) {
  InstallTree tree;
  RunningAgent agent(tree, free_port());
  ASSERT_TRUE(agent.started());
  std::string memory = tree / ("settings/kova_" + tree.hostname() + ".memory");

  for (size_t size : {size_t{0}, size_t{522} * 3, size_t{100000}}) {
    std::vector<unsigned char> bytes(size);
    for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<unsigned char>(i * 7);
    client::Connection c;
    ASSERT_TRUE(client::Connection::open("127.0.0.1", agent.port(), c).ok());
    ASSERT_TRUE(c.send(client::Request(2)).ok());
    client::Status st = c.push_memory_file(bytes);
    ASSERT_TRUE(st.ok()) << st.message;
    EXPECT_TRUE(eventually([&] { return read_file(memory).size() == size; }));
    EXPECT_EQ(read_file(memory), std::string(bytes.begin(), bytes.end()));
  }

  // A connection cut mid-file leaves what arrived and is logged.
  int fd = connect_loopback(agent.port());
  ASSERT_GE(fd, 0);
  ASSERT_EQ(::send(fd, request_packet(2).data(), 40, 0), 40);
  char ack[10];
  ASSERT_EQ(::recv(fd, ack, sizeof ack, MSG_WAITALL), 10);
  EXPECT_EQ(hex(std::string(ack, 10)), "00090009000000000000");
  const std::string partial = le16(6) + le16(5) + le16(0) + le16(0) + std::string(522 * 2, 'm');  // 5 blocks announced
  ASSERT_EQ(::send(fd, partial.data(), partial.size(), 0), static_cast<ssize_t>(partial.size()));
  ::close(fd);
  EXPECT_TRUE(eventually([&] { return tree.log().find("E-MEMF") != std::string::npos; }));
  EXPECT_EQ(read_file(memory), std::string(522 * 2, 'm'));
}

TEST(Protocol, TheConfigurationReportIsWrittenAtStartAndSentOnRequest) {
  InstallTree tree;
  std::string report = tree / ("tmp/kova_sysconf_" + tree.hostname() + ".dat");
  RunningAgent agent(tree, free_port());
  ASSERT_TRUE(agent.started());
  std::string written = read_file(report);
  ASSERT_FALSE(written.empty());

  std::string reply = round_trip(agent.port(), request_packet(15));
  ASSERT_GE(reply.size(), 8u);
  const int size = static_cast<int>(reply.size()) - 8;
  EXPECT_EQ(hex(reply.substr(0, 8)), hex(le16(6) + le16(size / 522) + le16(0) + le16(size % 522)));
  EXPECT_EQ(reply.substr(8, 40), written.substr(0, 40));
  EXPECT_FALSE(file_exists(report));  // sent, then removed
  EXPECT_NE(tree.log().find("I-PERF,        Request CONFIG file.\n"), std::string::npos);
}

}  // namespace
}  // namespace kova::test
