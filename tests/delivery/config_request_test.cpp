#include "delivery/config_request.h"

#include <gtest/gtest.h>

#include "components/dc_settings.h"
#include "delivery/file_transfer.h"
#include "wire/wire_fixture.h"

namespace kova::test {
namespace {

class ConfigRequest : public WireTest {
 protected:
  void SetUp() override {
    WireTest::SetUp();
    DcSettings dc;  // the host name the settings readers form, so their files are found
    dc_init_command_line(dc);
    s_.install_root = dir_.path(), s_.rootdir_given = 1, s_.data_dir = dir_ / "data", s_.tmp_dir = dir_ / "tmp";
    s_.hostname = dc.hostname;
    for (const char* d : {"data", "tmp", "settings"}) make_dirs(dir_ / d);
    // The collector's settings under this install tree, not the process's.
    write_file(dir_ / "settings/vorn_" + s_.hostname + ".config", "SCAN_RATE~4321\n");
  }
  // The bytes sent for a SYSCONFIG_NODE request naming `host`, and the result.
  std::pair<std::string, int> serve(const std::string& host) {
    SocketPair pair;
    const int result = process_config_node_request(pair.agent.get(), s_, "127.0.0.9",
                                                   reinterpret_cast<const unsigned char*>(host.data()),
                                                   static_cast<int>(host.size()), buffer_);
    return {pair.drain(), result};
  }

  AgentSettings s_;
  PacketBuffer buffer_{};
};

// The plain request (write, send, delete) is checked against the real binary.
TEST_F(ConfigRequest, NodeRegeneratesOwnHostAndSendsOtherHostsFileAsItIs) {
  const std::string own = s_.tmp_dir + "/kova_sysconf_" + s_.hostname + ".dat";
  write_file(own, "stale\n");
  const auto sent = serve(s_.hostname);
  EXPECT_EQ(sent, std::pair(transfer_of(read_file(own)), int{kTransferOk}));
  EXPECT_NE(read_file(own).find("\nCollectorScan:4321\n"), std::string::npos);  // fresh, and kept

  const std::string esx(1300, 'e');  // a virtual host's report, as its collector wrote it
  write_file(s_.tmp_dir + "/kova_sysconf_esx01.dat", esx);
  EXPECT_EQ(serve(std::string("esx01\0zz", 8)), std::pair(transfer_of(esx), int{kTransferOk}));
  const auto refused = std::pair(transfer_of(""), int{kTransferReadFailed});
  EXPECT_EQ(serve("esx02"), refused);
  make_dirs(s_.tmp_dir + "/kova_sysconf_x");
  write_file(dir_ / "secret.dat", "secret");
  EXPECT_EQ(serve("x/../../secret"), refused);  // would leave the tmp directory
}

}  // namespace
}  // namespace kova::test
