#include "delivery/config_request.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <optional>

#include "components/dc_settings.h"
#include "delivery/file_transfer.h"
#include "wire/wire_fixture.h"

namespace kova {
namespace {

std::string inf_header(size_t size) {
  PacketBuffer b{};
  Packet_CreateINF(static_cast<int64_t>(size / 522), static_cast<int64_t>(size % 522), b);
  return std::string(reinterpret_cast<const char*>(b.data()), kInfSize);
}

class ConfigRequest : public test::WireTest {
 protected:
  void SetUp() override {
    WireTest::SetUp();
    ::unsetenv(kKeepConfigEnv);
    DcSettings dc;  // the host name the settings readers form, so their files are found
    dc_init_command_line(dc);
    host_ = s_.hostname = dc.hostname;
    s_.install_root = dir_ / "root", s_.rootdir_given = 1;
    s_.data_dir = dir_ / "root/data", s_.tmp_dir = dir_ / "root/tmp";
    for (const char* d : {"data", "tmp", "settings"}) test::make_dirs(dir_ / "root/" + d);
    // The collector's settings under this install tree, not the process's.
    test::write_file(dir_ / "root/settings/vorn_" + host_ + ".config", "SCAN_RATE~4321\n");
    report_ = s_.tmp_dir + "/kova_sysconf_" + host_ + ".dat";
  }
  void TearDown() override {
    ::unsetenv(kKeepConfigEnv);
    WireTest::TearDown();
  }
  // The bytes sent for opcode 15, or for SYSCONFIG_NODE with `payload`.
  std::string serve(std::optional<std::string> payload = {}) {
    test::SocketPair pair;
    const int fd = pair.agent.get();
    result_ = payload ? process_config_node_request(fd, s_, "127.0.0.9", reinterpret_cast<const unsigned char*>(
                                                        payload->data()), static_cast<int>(payload->size()), buffer_)
                      : process_config_request(fd, s_, "127.0.0.1", request_, buffer_);
    pair.agent.reset();
    std::string all;
    char buf[4096];
    for (ssize_t k; (k = ::read(pair.peer.get(), buf, sizeof buf)) > 0;) all.append(buf, static_cast<size_t>(k));
    return all;
  }
  std::string sent_report() const { return inf_header(test::read_file(report_).size()) + test::read_file(report_); }

  std::string host_, report_;
  int result_ = -1;
  AgentSettings s_;
  PacketBuffer request_{}, buffer_{};
};

TEST_F(ConfigRequest, SendsAFreshReportThenDeletesItUnlessKept) {
  const std::string wire = serve();
  EXPECT_EQ(result_, kTransferOk);
  ASSERT_GT(wire.size(), kInfSize);
  EXPECT_EQ(wire.substr(0, kInfSize), inf_header(wire.size() - kInfSize));
  EXPECT_TRUE(wire.substr(kInfSize).starts_with("<CONFIG>\n") && wire.ends_with("<ENDCONFIG>\n"));
  EXPECT_NE(wire.find("\nCollectorScan:4321\n"), std::string::npos);
  EXPECT_FALSE(test::file_exists(report_));

  ::setenv(kKeepConfigEnv, "", 1);
  const std::string kept = serve();
  ASSERT_TRUE(test::file_exists(report_));
  EXPECT_EQ(kept, sent_report());
}

TEST_F(ConfigRequest, NodeRegeneratesOwnHostAndSendsOtherHostsFileAsItIs) {
  test::write_file(report_, "stale\n");
  const std::string wire = serve(host_);
  EXPECT_EQ(wire, sent_report());
  EXPECT_EQ(result_, kTransferOk);
  EXPECT_NE(test::read_file(report_).find("\nCollectorScan:4321\n"), std::string::npos);  // fresh, and kept
  EXPECT_EQ(logged("I-REQ_SYSSTAT_NODE", "SYSTAT NODE request from 127.0.0.9 for system " + host_ + " "), 1);

  const std::string esx(1300, 'e');  // a virtual host's report, as its collector wrote it
  test::write_file(s_.tmp_dir + "/kova_sysconf_esx01.dat", esx);
  EXPECT_EQ(serve(std::string("esx01\0zz", 8)), inf_header(esx.size()) + esx);
  EXPECT_EQ(logged("I-GET_CONFIG", "Use existing config file for esx01..."), 1);
  EXPECT_EQ(serve("esx02"), inf_header(0));
  EXPECT_EQ(result_, kTransferReadFailed);

  // A name that would lead out of the tmp directory names nothing.
  test::make_dirs(s_.tmp_dir + "/kova_sysconf_x");
  test::write_file(dir_ / "root/secret.dat", "secret");
  EXPECT_EQ(serve("x/../../secret"), inf_header(0));
}

}  // namespace
}  // namespace kova
