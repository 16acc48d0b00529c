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

// A node payload: each text in its zero-padded 64-byte field.
std::string node_fields(std::initializer_list<std::string> texts) {
  std::string out;
  for (const std::string& t : texts) out += padded(t, 64);
  return out;
}

std::string collector_settings(const InstallTree& tree) {
  return read_file(tree / ("settings/vorn_" + tree.hostname() + ".config"));
}

// This host's collector through its own requests and the node requests, and a virtual host's through the node
// requests, each judged by its own lock file; then the real-time and search agents.
TEST_F(Components, StartReportAndStopOnRequestAndKeepAHandWrittenCollectorRate) {
  InstallTree tree;
  install(tree, "vorn_monitor");
  install(tree, "vorn_monitor_esx");
  const std::string esx_config = tree / "settings/vorn_esx.config", esx_lock = tree / "tmp/esx1_monitor.lock";
  write_file(esx_config, "HOSTNAME~esx1\nHOST_IP~10.0.0.9\nUSERNAME~admin\nPASSWD~ ?o~+!\n");  // "s3cr~t"
  RunningAgent agent(tree, free_port(), {}, {"SORLEX_LIBRARY=" + tree.root(), "KOVA_STANDIN_FDS=" + tree.root()});
  ASSERT_TRUE(agent.started()) << agent.launch().err;
  const int port = agent.port();
  const std::string host = tree.hostname(), ack(16, '0'), lock = tree / ("tmp/" + host + "_monitor.lock");
  auto node = [&](const char* tag, std::initializer_list<std::string> fields) {
    return hex(round_trip(port, extended_packet(tag, node_fields(fields))));
  };

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
  EXPECT_EQ(hex(round_trip(port, request_packet(6))), "0b000300" + hex(le16(300)) + "05000000");
  EXPECT_EQ(node("DCSTAT_NODE", {host, "Solaris", host}), ack + "0b000300" + hex(le16(300)) + "05000000");
  EXPECT_EQ(node("DCSTAT_NODE", {"esx1", "VMware ESX", "esx1"}), ack + "0b00040000000500" + "0000");

  EXPECT_EQ(node("DCSTART_NODE", {"esx1", "VMware ESX", "10.0.0.9", "300", "5"}), ack + "0300000000000000");
  EXPECT_EQ(read_file(esx_config),
            "HOSTNAME~esx1\nHOST_IP~10.0.0.9\nWRITE_RATE~300\nPEAK_RATE~5000\nRETAIN~14\nPRIORITY~0\nVERBOSE~0\n"
            "USERNAME~admin\nPASSWD~ ?o~+!\nJAVAHOME~\nCLASSPATH~\n");
  EXPECT_NE(read_file(esx_lock).find("\nWRITE_RATE~300\nPEAK_RATE~5000\n"), std::string::npos);
  EXPECT_EQ(read_file(tree / "vorn_monitor_esx.fds"), "0 1 2");
  EXPECT_EQ(node("DCSTAT_NODE", {"esx1", "VMware ESX", "esx1"}), ack + "0b000300" + hex(le16(300)) + "05000500");
  // The reply is the status right after the signal: the collector may still be on its way out.
  const std::string stopped = node("DCSTOP_NODE", {"esx1", "VMware ESX"});
  EXPECT_TRUE(stopped == ack + "0300000000000000" || stopped == ack + "0400000000000000") << stopped;
  EXPECT_TRUE(eventually([&] { return !file_exists(esx_lock); }));
  EXPECT_EQ(node("DCSTAT_NODE", {"esx1", "VMware ESX", "esx1"}).substr(16, 8), "0b000400");
  // A host name filling its field or holding a "/", or a field missing after it, ends the request after its
  // acknowledgement.
  const std::string filled = extended_packet("DCSTAT_NODE", std::string(64, 'e') + node_fields({"VMware ESX", "dns"}));
  EXPECT_EQ(hex(round_trip(port, filled)), ack);
  EXPECT_EQ(node("DCSTART_NODE", {"../../escape", "VMware ESX", "10.0.0.9", "600", "0"}), ack);
  EXPECT_EQ(node("DCSTART_NODE", {"esx1", "VMware ESX"}), ack);
  EXPECT_FALSE(file_exists(esx_lock));
  EXPECT_NE(read_file(esx_config).find("WRITE_RATE~300\n"), std::string::npos);
  EXPECT_FALSE(file_exists(std::filesystem::path(tree.root()).parent_path().string() + "/escape_monitor.lock"));

  // 30 s is below the shortest write rate: the stored rate stays.
  EXPECT_EQ(hex(round_trip(port, request_packet(3, le16(30) + le16(0)))), "08000300");
  EXPECT_NE(collector_settings(tree).find("WRITE_RATE~300\n"), std::string::npos);

  EXPECT_EQ(hex(round_trip(port, request_packet(4))), "08000400");
  EXPECT_FALSE(file_exists(lock));
  EXPECT_EQ(hex(round_trip(port, request_packet(6))).substr(0, 8), "0b000400");

  // A stored write rate below a minute was put there by hand: every change is refused.
  write_file(tree / ("settings/vorn_" + host + ".config"), "WRITE_RATE~45\n");
  EXPECT_EQ(hex(round_trip(port, request_packet(3, le16(600) + le16(5)))), "08000300");
  EXPECT_EQ(collector_settings(tree), "WRITE_RATE~45\n");
  EXPECT_EQ(node("DCSTOP_NODE", {host, "Solaris"}), ack + "0400000000000000");

  // Not installed: every operation on the real-time and search agents answers 5.
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

  const std::string log = tree.log();
  EXPECT_NE(log.find("I-RTA_START,   Start KOVArta, Process: 1  Port: 8000   ScanRate: 1000\n"), std::string::npos);
  EXPECT_NE(log.find("KOVAAGENT-I-SORLEX_STATUS,  SORLEX stopped\n"), std::string::npos);
  EXPECT_NE(log.find("I-DC_START,    Start DC request from 127.0.0.1:    dump interval 300  peak interval 0\n"),
            std::string::npos)
      << log;
  EXPECT_NE(log.find("I-DC_START,    Data Collector started\n"), std::string::npos);
  EXPECT_NE(log.find("I-DC_STOP,     Data Collector stopped\n"), std::string::npos);
  EXPECT_NE(log.find("I-SETERR"), std::string::npos);
  EXPECT_EQ(occurrences(log, "KOVAAGENT-W-PACKET,      Failed to read hostname from packet\n"), 2u);
  EXPECT_EQ(occurrences(log, "KOVAAGENT-W-PACKET,      Failed to read host_ip from packet\n"), 1u);
  EXPECT_NE(log.find("I-STARTDC,     Start DC_ESX  : command " + tree.root() + "/bin/vorn_monitor_esx\n\n"),
            std::string::npos);
}

}  // namespace
}  // namespace kova::test
