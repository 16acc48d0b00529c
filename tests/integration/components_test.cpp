// Starting, stopping and checking the collector, the real-time agent and
// the search agent through the real binary and the demo's stand-ins.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "support/agent_process.h"

#ifndef KOVA_DEMO_BIN_DIR
#define KOVA_DEMO_BIN_DIR "demo/bin"
#endif

namespace kova::test {
namespace {

using Components = AgentTest;

void install(const InstallTree& tree, const char* program) {
  std::filesystem::copy_file(std::string(KOVA_DEMO_BIN_DIR) + "/" + program, tree / (std::string("bin/") + program),
                             std::filesystem::copy_options::overwrite_existing);
}

std::string collector_settings(const InstallTree& tree) {
  return read_file(tree / ("settings/vorn_" + tree.hostname() + ".config"));
}

TEST_F(Components, CollectorStartsReportsAndStopsOnRequestAndKeepsAHandWrittenRate) {
  InstallTree tree;
  install(tree, "vorn_monitor");
  RunningAgent agent(tree, free_port(), {}, {"KOVA_STANDIN_FDS=" + tree.root()});
  ASSERT_TRUE(agent.started()) << agent.launch().err;
  int port = agent.port();
  std::string lock = tree / ("tmp/" + tree.hostname() + "_monitor.lock");

  EXPECT_EQ(hex(round_trip(port, request_packet(3, le16(300) + le16(0)))), "08000300");
  EXPECT_TRUE(file_exists(lock));
  EXPECT_EQ(read_file(tree / "vorn_monitor.fds"), "0 1 2");  // nothing of the agent's, nor what it inherited
  EXPECT_NE(collector_settings(tree).find("WRITE_RATE~300\n"), std::string::npos) << collector_settings(tree);
  EXPECT_TRUE(eventually([&] {
    for (const auto& e : std::filesystem::directory_iterator(tree / "data"))
      if (e.path().filename().string().find(".zud-1") != std::string::npos) return true;
    return false;
  }));

  // Collector up, its interval, the real-time agent not installed, no peak.
  std::string status = round_trip(port, request_packet(6));
  EXPECT_EQ(hex(status), "0b000300" + hex(le16(300)) + "05000000");

  // 30 s is below the shortest write rate: the stored rate stays.
  EXPECT_EQ(hex(round_trip(port, request_packet(3, le16(30) + le16(0)))), "08000300");
  EXPECT_NE(collector_settings(tree).find("WRITE_RATE~300\n"), std::string::npos);

  EXPECT_EQ(hex(round_trip(port, request_packet(4))), "08000400");
  EXPECT_FALSE(file_exists(lock));
  EXPECT_EQ(hex(round_trip(port, request_packet(6))).substr(0, 8), "0b000400");

  // A stored write rate below a minute was put there by hand: every change is refused.
  write_file(tree / ("settings/vorn_" + tree.hostname() + ".config"), "WRITE_RATE~45\n");
  EXPECT_EQ(hex(round_trip(port, request_packet(3, le16(600) + le16(5)))), "08000300");
  EXPECT_EQ(collector_settings(tree), "WRITE_RATE~45\n");
  EXPECT_EQ(hex(round_trip(port, request_packet(4))), "08000400");

  std::string log = tree.log();
  EXPECT_NE(log.find("I-DC_START,    Start DC request from 127.0.0.1:    dump interval 300  peak interval 0\n"),
            std::string::npos)
      << log;
  EXPECT_NE(log.find("I-DC_START,    Data Collector started\n"), std::string::npos);
  EXPECT_NE(log.find("I-DC_STOP,     Data Collector stopped\n"), std::string::npos);
  EXPECT_NE(log.find("I-SETERR"), std::string::npos);
}

TEST_F(Components, RealTimeAndSearchAgentsStartStopAndReport) {
  InstallTree tree;
  RunningAgent agent(tree, free_port(), {},
                     {"SORLEX_LIBRARY=" + tree.root(), "KOVA_STANDIN_FDS=" + tree.root()});
  ASSERT_TRUE(agent.started());
  int port = agent.port();
  // Not installed: every operation answers 5.
  for (int opcode : {9, 10, 18, 19, 20}) EXPECT_EQ(hex(round_trip(port, request_packet(opcode))), "08000500") << opcode;

  install(tree, "kovarta");
  install(tree, "sorlexagent");
  std::string rta_args = le16(1) + std::string("\x40\x1f\0\0", 4) + std::string("\xe8\x03\0\0", 4);  // port 8000, 1000 ms
  EXPECT_EQ(hex(round_trip(port, request_packet(9, rta_args))), "08000300");
  EXPECT_EQ(hex(round_trip(port, request_packet(6))).substr(8, 8), hex(le16(0)) + "0300");
  EXPECT_EQ(hex(round_trip(port, request_packet(10))), "08000400");

  EXPECT_EQ(hex(round_trip(port, request_packet(18))), "08000300");
  EXPECT_EQ(hex(round_trip(port, request_packet(20))), "08000300");
  EXPECT_EQ(hex(round_trip(port, request_packet(19))), "08000400");
  EXPECT_EQ(hex(round_trip(port, request_packet(20))), "08000400");
  for (const char* program : {"kovarta", "sorlexagent"})
    EXPECT_EQ(read_file(tree / (std::string(program) + ".fds")), "0 1 2") << program;
  std::string log = tree.log();
  EXPECT_NE(log.find("I-RTA_START,   Start KOVArta, Process: 1  Port: 8000   ScanRate: 1000\n"), std::string::npos)
      << log;
  EXPECT_NE(log.find("KOVAAGENT-I-SORLEX_STATUS,  SORLEX stopped\n"), std::string::npos);
}

}  // namespace
}  // namespace kova::test
