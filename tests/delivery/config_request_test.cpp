#include "delivery/config_request.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "components/dc_settings.h"
#include "delivery/file_transfer.h"
#include "wire/wire_fixture.h"

namespace kova {
namespace {

using test::SocketPair;

std::string drain(SocketPair& pair) {
  pair.agent.reset();
  std::string all;
  char buf[4096];
  ssize_t k = 0;
  while ((k = ::read(pair.peer.get(), buf, sizeof buf)) > 0) all.append(buf, static_cast<size_t>(k));
  return all;
}

std::string inf_header(size_t size) {
  PacketBuffer b{};
  Packet_CreateINF(static_cast<int64_t>(size / 522), static_cast<int64_t>(size % 522), b);
  return std::string(reinterpret_cast<const char*>(b.data()), kInfSize);
}

// The host name the settings readers form, so their files are found.
std::string short_hostname() {
  DcSettings dc;
  dc_init_command_line(dc);
  return dc.hostname;
}

class ConfigRequest : public test::WireTest {
 protected:
  void SetUp() override {
    WireTest::SetUp();
    ::unsetenv(kKeepConfigEnv);
    root_ = dir_ / "root";
    for (const char* d : {"data", "tmp", "settings", "logs"}) test::make_dirs(root_ + "/" + d);
    host_ = short_hostname();
    settings_.hostname = host_;
    settings_.install_root = root_;
    settings_.rootdir_given = 1;
    settings_.data_dir = root_ + "/data";
    settings_.tmp_dir = root_ + "/tmp";
    settings_.collector_lock_path = root_ + "/tmp/" + host_ + "_monitor.lock";
    // The collector's settings under this install tree, not the process's.
    test::write_file(root_ + "/settings/vorn_" + host_ + ".config", "SCAN_RATE~4321\nRETAIN~9\n");
    report_ = root_ + "/tmp/kova_sysconf_" + host_ + ".dat";
  }
  void TearDown() override {
    ::unsetenv(kKeepConfigEnv);
    WireTest::TearDown();
  }
  std::string root_, host_, report_;
  AgentSettings settings_;
  PacketBuffer request_{}, buffer_{};
};

TEST_F(ConfigRequest, SendsAFreshReportThenDeletesItUnlessKept) {
  SocketPair pair;
  ASSERT_EQ(process_config_request(pair.agent.get(), settings_, "127.0.0.1", request_, buffer_), kTransferOk);
  const std::string wire = drain(pair);
  ASSERT_GT(wire.size(), kInfSize);
  const std::string body = wire.substr(kInfSize);
  EXPECT_EQ(wire.substr(0, kInfSize), inf_header(body.size()));
  EXPECT_EQ(body.rfind("<CONFIG>\nConfigVersion:1\n<SYSTEM>\n", 0), 0u);
  EXPECT_EQ(body.substr(body.size() - 25), "<ENDVANTREL>\n<ENDCONFIG>\n");
  EXPECT_NE(body.find("\nCollectorScan:4321\n"), std::string::npos);
  EXPECT_NE(body.find("\nCollectorRetain:9\n"), std::string::npos);
  EXPECT_FALSE(test::file_exists(report_));

  ::setenv(kKeepConfigEnv, "", 1);
  SocketPair kept;
  ASSERT_EQ(process_config_request(kept.agent.get(), settings_, "127.0.0.1", request_, buffer_), kTransferOk);
  ASSERT_TRUE(test::file_exists(report_));
  const std::string file = test::read_file(report_);
  EXPECT_EQ(drain(kept), inf_header(file.size()) + file);
}

TEST_F(ConfigRequest, ReportThatCannotBeWrittenSendsTheEmptyHeader) {
  settings_.tmp_dir = root_ + "/no-tmp";
  SocketPair pair;
  EXPECT_EQ(process_config_request(pair.agent.get(), settings_, "127.0.0.1", request_, buffer_),
            kTransferReadFailed);
  EXPECT_EQ(drain(pair), inf_header(0));
}

TEST_F(ConfigRequest, NodeRegeneratesOwnHostAndSendsOtherHostsFileAsItIs) {
  auto node = [&](const std::string& payload, int& result) {
    SocketPair pair;
    result = process_config_node_request(pair.agent.get(), settings_, "127.0.0.9",
                                         reinterpret_cast<const unsigned char*>(payload.data()),
                                         static_cast<int>(payload.size()), buffer_);
    return drain(pair);
  };
  int result = -1;

  // Own host: a stale file is replaced, and kept afterwards.
  test::write_file(report_, "stale\n");
  std::string wire = node(host_, result);
  EXPECT_EQ(result, kTransferOk);
  ASSERT_TRUE(test::file_exists(report_));
  const std::string fresh = test::read_file(report_);
  EXPECT_NE(fresh.find("\nCollectorScan:4321\n"), std::string::npos);
  EXPECT_EQ(wire, inf_header(fresh.size()) + fresh);
  EXPECT_EQ(logged("I-REQ_SYSSTAT_NODE", "SYSTAT NODE request from 127.0.0.9 for system " + host_ + " "), 1);

  // A virtual host's file, written by its collector; the name ends at a NUL.
  const std::string esx = root_ + "/tmp/kova_sysconf_esx01.dat";
  const std::string content(1300, 'e');
  test::write_file(esx, content);
  wire = node(std::string("esx01\0zz", 8), result);
  EXPECT_EQ(result, kTransferOk);
  EXPECT_EQ(wire, inf_header(content.size()) + content);
  EXPECT_EQ(test::read_file(esx), content);
  EXPECT_EQ(logged("I-GET_CONFIG", "Use existing config file for esx01..."), 1);

  // No file for that host: the empty header.
  EXPECT_EQ(node("esx02", result), inf_header(0));
  EXPECT_EQ(result, kTransferReadFailed);

  // A name that would lead out of the tmp directory names nothing.
  test::make_dirs(root_ + "/tmp/kova_sysconf_x");
  test::write_file(root_ + "/secret.dat", "secret");
  EXPECT_EQ(node("x/../../secret", result), inf_header(0));
  EXPECT_EQ(result, kTransferReadFailed);

  // Verbose names the host once more.
  settings_.verbose = 1;
  (void)node("esx01", result);
  EXPECT_EQ(logged("I-PERF_VAL", "Get config file for : esx01"), 1);
}

}  // namespace
}  // namespace kova
