#include "delivery/config_request.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include "components/dc_settings.h"
#include "delivery/file_transfer.h"
#include "wire/wire_fixture.h"

namespace kova {
namespace {

std::string transfer(const std::string& content) {
  PacketBuffer b{};
  Packet_CreateINF(static_cast<int64_t>(content.size() / 522), static_cast<int64_t>(content.size() % 522), b);
  return std::string(reinterpret_cast<const char*>(b.data()), kInfSize) + content;
}

class ConfigRequest : public test::WireTest {
 protected:
  void SetUp() override {
    WireTest::SetUp();
    DcSettings dc;  // the host name the settings readers form, so their files are found
    dc_init_command_line(dc);
    s_.install_root = dir_.path(), s_.rootdir_given = 1, s_.data_dir = dir_ / "data", s_.tmp_dir = dir_ / "tmp";
    s_.hostname = dc.hostname, report_ = s_.tmp_dir + "/kova_sysconf_" + dc.hostname + ".dat";
    for (const char* d : {"data", "tmp", "settings"}) test::make_dirs(dir_ / d);
    // The collector's settings under this install tree, not the process's.
    test::write_file(dir_ / "settings/vorn_" + s_.hostname + ".config", "SCAN_RATE~4321\n");
  }
  // The bytes sent for a SYSCONFIG_NODE request naming `host`.
  std::string serve(const std::string& host) {
    test::SocketPair pair;
    result_ = process_config_node_request(pair.agent.get(), s_, "127.0.0.9",
                                          reinterpret_cast<const unsigned char*>(host.data()),
                                          static_cast<int>(host.size()), buffer_);
    pair.agent.reset();
    std::string all;
    char buf[4096];
    for (ssize_t k; (k = ::read(pair.peer.get(), buf, sizeof buf)) > 0;) all.append(buf, static_cast<size_t>(k));
    return all;
  }

  AgentSettings s_;
  std::string report_;
  int result_ = -1;
  PacketBuffer buffer_{};
};

// The plain request (write, send, delete) is covered against the real binary.
TEST_F(ConfigRequest, NodeRegeneratesOwnHostAndSendsOtherHostsFileAsItIs) {
  test::write_file(report_, "stale\n");
  const std::string wire = serve(s_.hostname);
  EXPECT_EQ(wire, transfer(test::read_file(report_)));
  EXPECT_EQ(result_, kTransferOk);
  EXPECT_NE(test::read_file(report_).find("\nCollectorScan:4321\n"), std::string::npos);  // fresh, and kept

  const std::string esx(1300, 'e');  // a virtual host's report, as its collector wrote it
  test::write_file(s_.tmp_dir + "/kova_sysconf_esx01.dat", esx);
  EXPECT_EQ(serve(std::string("esx01\0zz", 8)), transfer(esx));
  EXPECT_EQ(serve("esx02"), transfer(""));
  EXPECT_EQ(result_, kTransferReadFailed);

  test::make_dirs(s_.tmp_dir + "/kova_sysconf_x");
  test::write_file(dir_ / "secret.dat", "secret");
  EXPECT_EQ(serve("x/../../secret"), transfer(""));  // would lead out of the tmp directory: names nothing
}

}  // namespace
}  // namespace kova
