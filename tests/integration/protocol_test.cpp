// The request protocol as the server speaks it, against the real binary.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <future>
#include <random>
#include <string>
#include <vector>

#include "kova_client.h"
#include "support/agent_process.h"

namespace kova::test {
namespace {

using Protocol = AgentTest;

constexpr const char* kForged = "X\nKOVAAGENT-E-FORGED,  \xff";

// Registered servers match by substring: 127.0.0.10 admits 127.0.0.1.
TEST_F(Protocol, RepliesAndTheMemoryFileAreByteExactAndHostileInputNeverEndsTheAgent) {
  InstallTree tree;
  const std::string report = tree / ("tmp/kova_sysconf_" + tree.hostname() + ".dat");
  RunningAgent agent(tree, free_port(), {"-verbose", "-server", "127.0.0.10"});
  ASSERT_TRUE(agent.started()) << agent.launch().err;
  const int port = agent.port();
  const std::string written = read_file(report);  // the configuration report, written at start
  ASSERT_FALSE(written.empty());

  const std::string tag = request_packet(254, "GET_AGENT_OS"), ack(8, '\0');
  const std::string os = hex(ack + padded("Sun Solaris X86", 32));
  // Each request with the reply it gets (hex). Extended requests pause two seconds each, so they go
  // several at once, but never more than the agent's listen queue of 5 holds.
  const std::pair<std::string, std::string> exchanges[] = {
      {request_packet(14), "0a00060000000000"}, {request_packet(16), "04000000"}, {request_packet(5), ""},
      {request_packet(17), ""}, {request_packet(-1), ""}, {extended_packet("GET_AGENT_OS_X", ""), os},
      {extended_packet("GET_AGENT_RELEASE", ""), hex(ack + padded("910", 32))},
      {extended_packet("GET_AGENT_VERSION", ""), hex(ack + padded("V10.0-001", 32))},
      {extended_packet("MEMORY_NODE", ""), "1400000000000000"},
      {extended_packet("NO_SUCH_TAG", "payload"), "0800000000000000"},
      {"", ""},                                              // connects and says nothing more
      {request_packet(14).substr(0, 20), "0a00060000000000"},  // a short request: the rest reads as zeros
      {tag + le16(65535), os},                               // reads as -1: no payload
      {tag + le16(0), os},
      {tag + le16(2048) + std::string(2048, 'p'), os},
      {tag + le16(2049) + std::string(2049, 'p'), ""},       // larger than any payload
      {tag.substr(0, 40) + "x", ""},                         // length field cut
      {extended_packet(kForged, ""), "0800000000000000"},      // a tag that would write a line of its own
  };
  constexpr size_t kWave = 5;
  for (size_t first = 0; first < std::size(exchanges); first += kWave) {
    std::vector<std::future<std::string>> replies;
    for (size_t i = first; i < std::min(first + kWave, std::size(exchanges)); ++i)
      replies.push_back(std::async(std::launch::async, [&, i] { return round_trip(port, exchanges[i].first); }));
    for (size_t i = first; i < first + replies.size(); ++i)
      EXPECT_EQ(hex(replies[i - first].get()), exchanges[i].second) << i;
  }

  std::mt19937 random(42);
  std::string noise(300, '\0');
  for (char& c : noise) c = static_cast<char>(random());
  round_trip(port, noise);
  EXPECT_TRUE(agent.alive());
  const std::string space = round_trip(port, extended_packet("<DISKSPACE>", tree.root()));
  ASSERT_EQ(space.size(), 40u);
  EXPECT_GT(std::stol(space.substr(8)), 0);  // free megabytes of the tree's file system
  // The configuration report, asked for eight times at once: each reply its header and the whole report;
  // afterwards the report is removed.
  std::vector<std::future<std::string>> reports;
  for (int i = 0; i < 8; ++i)
    reports.push_back(std::async(std::launch::async, [&] { return round_trip(port, request_packet(15)); }));
  for (auto& report_reply : reports) {
    const std::string sent = report_reply.get();
    ASSERT_GE(sent.size(), 8u);
    const int size = static_cast<int>(sent.size()) - 8;
    EXPECT_EQ(hex(sent.substr(0, 8)), hex(le16(6) + le16(size / 522) + le16(0) + le16(size % 522)));
    EXPECT_EQ(sent.substr(8, 40), written.substr(0, 40));
    EXPECT_TRUE(sent.ends_with("<ENDVANTREL>\n<ENDCONFIG>\n")) << sent;
  }
  EXPECT_FALSE(file_exists(report));
  // The memory file arrives byte for byte.
  const std::string memory = tree / ("settings/kova_" + tree.hostname() + ".memory");
  for (size_t size : {size_t{0}, size_t{522} * 3, size_t{100000}}) {
    std::vector<unsigned char> bytes(size);
    for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<unsigned char>(i * 7);
    client::Connection c;
    ASSERT_TRUE(client::Connection::open("127.0.0.1", port, c).ok());
    ASSERT_TRUE(c.send(client::Request(2)).ok());
    client::Status st = c.push_memory_file(bytes);
    ASSERT_TRUE(st.ok()) << st.message;
    EXPECT_TRUE(eventually([&] { return read_file(memory).size() == size; }));
    EXPECT_EQ(read_file(memory), std::string(bytes.begin(), bytes.end()));
  }
  // A connection cut mid-file leaves what arrived and is logged.
  const int fd = connect_loopback(port);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(::send(fd, request_packet(2).data(), 40, 0), 40);
  char go_ahead[10];
  ASSERT_EQ(::recv(fd, go_ahead, sizeof go_ahead, MSG_WAITALL), 10);
  EXPECT_EQ(hex(std::string(go_ahead, 10)), "00090009000000000000");
  const std::string partial = le16(6) + le16(5) + le16(0) + le16(0) + std::string(522 * 2, 'm');  // 5 blocks announced
  ASSERT_EQ(::send(fd, partial.data(), partial.size(), 0), static_cast<ssize_t>(partial.size()));
  ::close(fd);
  EXPECT_TRUE(eventually([&] { return tree.log().find("E-MEMF") != std::string::npos; }));
  EXPECT_EQ(read_file(memory), std::string(522 * 2, 'm'));
  EXPECT_EQ(hex(round_trip_on(connect_to("127.0.0.1", port, "127.0.0.2"), request_packet(14))), "05000a0000000000");

  const std::string log = tree.log();
  EXPECT_NE(log.find("E-UNKNOWN_CODE,  Unknown code from server, 127.0.0.1   code 17\n"), std::string::npos) << log;
  EXPECT_NE(log.find("code -1\n"), std::string::npos);
  EXPECT_NE(log.find("KOVAAGENT-W-UKNTAG,"), std::string::npos);
  EXPECT_NE(log.find("I-GET_OS,      Returning:  Sun Solaris X86\n"), std::string::npos);
  EXPECT_NE(log.find("I-REQ_EXTEND,  Extended Request MEMORY_NODE  from 127.0.0.1\n"), std::string::npos);
  EXPECT_NE(log.find("I-PERF,        Request CONFIG file.\n"), std::string::npos);
  EXPECT_NE(log.find("I-BADPACKET"), std::string::npos);
  EXPECT_NE(log.find("W-BADPACKET,   Failed to read extended packet length"), std::string::npos);
  // Every extended request is logged before its length is read, bad packets too.
  EXPECT_EQ(occurrences(log, "I-REQ_EXTEND,  Extended Request GET_AGENT_OS  from"), 5u);
  // The forged tag stays inside the lines that name it.
  EXPECT_NE(log.find("Extended Request X\\nKOVAAGENT-E-FORGED,  \\xff  from 127.0.0.1\n"), std::string::npos);
  EXPECT_NE(log.find("Unknown extended request X\\nKOVAAGENT-E-FORGED,  \\xff  from"), std::string::npos);
  EXPECT_EQ(occurrences(log, "FORGED"), 2u);
  EXPECT_NE(log.find("W-UNREG_SERV,  Request from unregistered server 127.0.0.2\n"), std::string::npos);
  EXPECT_EQ(agent.stop(SIGTERM), 0);
}

// KOVA_DEBUG shows each request child start and finish: the one ended by the terminate request never finishes.
// The collector state lines of a status request come on the first registered request after start (here the
// harness's readiness probe) and then once in every 61.
TEST_F(Protocol, RequestChildrenLogStatesOnceAPeriodAndTerminateEndsOnlyItsOwn) {
  InstallTree tree, foreground_tree;
  RunningAgent agent(tree, free_port(), {}, {"KOVA_DEBUG=1"});
  RunningAgent foreground(foreground_tree, free_port(), {"-nofork", "-nolock"});
  ASSERT_TRUE(agent.started() && foreground.started());
  for (int i = 0; i < 59; ++i) ASSERT_EQ(round_trip(agent.port(), request_packet(14)).size(), 8u);
  for (size_t expected : {0u, 1u, 1u}) {
    ASSERT_EQ(hex(round_trip(agent.port(), request_packet(6))).substr(0, 4), "0b00");
    EXPECT_EQ(occurrences(tree.log(), "KOVAAGENT-I_DC_STAT,"), expected);
    EXPECT_EQ(occurrences(tree.log(), "KOVAAGENT-I-RTA_STAT,"), expected) << tree.log();
  }

  EXPECT_EQ(round_trip(agent.port(), request_packet(7)), "");
  EXPECT_TRUE(agent.alive());
  EXPECT_EQ(hex(round_trip(agent.port(), request_packet(14))), "0a00060000000000");
  const std::string log = tree.log();
  EXPECT_EQ(occurrences(log, "Request started: pid "), 65u) << log;  // the probe, 59 + 3 + 2 requests
  EXPECT_EQ(occurrences(log, "Request from: 127.0.0.1\n"), 65u);
  EXPECT_EQ(occurrences(log, "Request finished: pid "), 64u);

  EXPECT_EQ(round_trip(foreground.port(), request_packet(7)), "");
  EXPECT_TRUE(eventually([&] { return !foreground.alive(); }));
}

}  // namespace
}  // namespace kova::test
