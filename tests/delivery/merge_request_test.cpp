#include "delivery/merge_request.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "delivery/perf_request.h"
#include "wire/status.h"
#include "wire/wire_fixture.h"

namespace kova {
namespace {

std::string demo_bin() {
#ifdef KOVA_DEMO_BIN_DIR
  return KOVA_DEMO_BIN_DIR;
#else
  const std::string agent = KOVA_AGENT_BIN;  // <build>/src/kovaagent
  return agent.substr(0, agent.rfind("/src/")) + "/demo/bin";
#endif
}

std::string field(const std::string& text, size_t width) { return text + std::string(width - text.size(), '\0'); }

class MergeRequest : public test::WireTest {
 protected:
  void SetUp() override {
    WireTest::SetUp();
    const std::string root = dir_ / "root";
    for (const char* d : {"bin", "data", "tmp", "settings"}) test::make_dirs(root + "/" + d);
    s_.bin_dir = root + "/bin";
    s_.data_dir = root + "/data";
    s_.tmp_dir = root + "/tmp";
    s_.hostname = "web1";
    s_.memory_file_path = root + "/settings/kova_web1.memory";
    test::write_file(s_.memory_file_path, "memory");
    test::write_file(s_.data_dir + "/qdtsx_web1_2024Mar05.zud-1",
                     "1709632800 2024-03-05 11:00:00 0.10 0.20 0.30 900000 200\n"
                     "1709636400 2024-03-05 12:00:00 0.40 0.30 0.30 812344 213\n"
                     "1709638200 2024-03-05 12:30:00 0.60 0.50 0.40 800000 215\n");
  }
  bool install_analyzer() {
    std::error_code ec;
    std::filesystem::copy_file(demo_bin() + "/vorn_analyze", s_.bin_dir + "/vorn_analyze", ec);
    return !ec;
  }
  int merge(const std::string& payload, std::string& wire) {
    test::SocketPair pair;
    const auto* bytes = reinterpret_cast<const unsigned char*>(payload.data());
    int result = process_merg_request(pair.agent.get(), s_, "127.0.0.1", bytes, static_cast<int>(payload.size()),
                                      buffer_);
    pair.agent.reset();
    wire.clear();
    char buf[4096];
    ssize_t k;
    while ((k = ::read(pair.peer.get(), buf, sizeof buf)) > 0) wire.append(buf, static_cast<size_t>(k));
    return result;
  }

  AgentSettings s_;
  PacketBuffer buffer_{};
  const std::string day_ = field("05-Mar-2024:00:00", 18) + field("05-Mar-2024:23:59", 18);
};

TEST_F(MergeRequest, SendsTheMergedRangeAndDeletesOrKeepsBothOutputs) {
  if (!install_analyzer()) GTEST_SKIP() << "stand-in vorn_analyze not built in " << demo_bin();
  const std::string merg = s_.tmp_dir + "/web1_2024Mar05_0000_127.0.0.1.merg";
  const std::string proc = s_.tmp_dir + "/web1_2024Mar05_0000.proc";
  const std::string expected = "2024-03-05 11:00 1 0.10 0.20 0.30 900000 200\n"
                               "2024-03-05 12:00 2 0.50 0.40 0.35 800000 215\n";
  for (int keep : {0, 1}) {
    s_.keep_perf = keep;
    slept = 0;
    std::string wire;
    ASSERT_EQ(merge(day_, wire), 0) << log_text();
    ASSERT_GE(wire.size(), kInfSize);
    EXPECT_EQ(Packet_CheckLONG(std::span(reinterpret_cast<const unsigned char*>(wire.data()), 8), 2), 0);
    EXPECT_EQ(wire.substr(kInfSize), expected);
    EXPECT_EQ(test::file_exists(merg), keep == 1);
    EXPECT_EQ(test::file_exists(proc), keep == 1);
    EXPECT_EQ(slept, kDataRequestPause);
  }
  EXPECT_NE(test::read_file(proc).find("samples 3\n"), std::string::npos);
  EXPECT_EQ(count_in_log("I-MERG_COMMAND"), 2);
}

TEST_F(MergeRequest, FailuresRunNothingAndSendNothing) {
  std::string wire;
  // No analysis tool installed.
  EXPECT_EQ(merge(day_, wire), kResultAnalyzeNotInstalled);
  EXPECT_EQ(wire, "");
  // No data file for the day, whether or not the tool is there.
  (void)install_analyzer();
  EXPECT_EQ(merge(field("06-Mar-2024:00:00", 18) + field("06-Mar-2024:23:59", 18), wire), kResultRawDataNotFound);
  EXPECT_EQ(wire, "");
  EXPECT_EQ(merge(day_.substr(0, 20), wire), kResultBadPacket);
  EXPECT_EQ(logged("I-MERG_BADPACKET", "Failed to read end_time from packet"), 1);
  EXPECT_EQ(count_in_log("I-MERG_COMMAND"), 0);
  ::unlink(s_.memory_file_path.c_str());
  EXPECT_EQ(merge(day_, wire), kResultMemoryFileNotFound);
  EXPECT_EQ(wire, "");

  // The node form needs its whole host field.
  test::SocketPair pair;
  const std::string node = day_ + "db7";
  EXPECT_EQ(process_merg_node_request(pair.agent.get(), s_, "127.0.0.1",
                                      reinterpret_cast<const unsigned char*>(node.data()),
                                      static_cast<int>(node.size()), buffer_),
            kResultBadPacket);
  EXPECT_EQ(logged("I_BADPACKET", "Failed to read hostname from packet"), 1);
}

}  // namespace
}  // namespace kova
