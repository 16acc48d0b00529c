#include "delivery/dc_node_request.h"

#include <gtest/gtest.h>

#include <string>

#include "base/codes.h"
#include "wire/wire_fixture.h"

namespace kova::test {
namespace {

// A node payload: each text in its zero-padded 64-byte field.
std::string fields(std::initializer_list<std::string> texts) {
  std::string out;
  for (const std::string& t : texts) out += t + std::string(kNodeFieldSize - t.size(), '\0');
  return out;
}

class DcNodeRequest : public WireTest {
 protected:
  void SetUp() override {
    WireTest::SetUp();
    for (const char* d : {"tmp", "settings"}) make_dirs(dir_ / d);
    s_.install_root = dir_.path(), s_.hostname = "self", s_.collector_lock_path = dir_ / "tmp/self_monitor.lock";
  }
  // What the handler sent, and its result.
  std::pair<std::string, int> serve(const char* tag, const std::string& payload) {
    SocketPair pair;
    const auto* p = reinterpret_cast<const unsigned char*>(payload.data());
    const int n = static_cast<int>(payload.size()), fd = pair.agent.get();
    PacketBuffer buffer{};
    const std::string t = tag;
    const int result = t == "stat"   ? process_dcstatus_node_request(fd, s_, "peer", p, n, buffer)
                       : t == "stop" ? process_dcstop_node_request(fd, s_, "peer", p, n, buffer)
                                     : process_dcstart_node_request(fd, s_, "peer", p, n, buffer, 14);
    return {pair.drain(), result};
  }
  AgentSettings s_;
};

TEST_F(DcNodeRequest, FieldsThatCannotBeReadEndTheRequestWithNothingSent) {
  const std::string full(kNodeFieldSize, 'a');  // no room for the terminating NUL
  // The host name's field filled or holding a "/", and a field missing, are checked against the real binary.
  const std::tuple<const char*, std::string, const char*> cases[] = {
      {"stat", fields({"esx1", "VMware ESX"}), "Failed to read dns from packet"},
      {"stop", fields({"esx1"}) + "VMware", "Failed to read os from packet"},
      {"start", fields({"..", "VMware ESX", "10.0.0.1", "300", "5"}), "Failed to read hostname from packet"},
      {"start", fields({"esx1", "VMware ESX", "10.0.0.1", "300"}) + full, "Failed to read peak from packet"},
  };
  for (const auto& [tag, payload, failure] : cases) {
    const int before = logged("W-PACKET", failure);
    EXPECT_EQ(serve(tag, payload), std::pair(std::string(), int{kResultBadPacket})) << failure;
    EXPECT_EQ(logged("W-PACKET", failure), before + 1) << failure;
  }
  EXPECT_FALSE(file_exists(dir_ / "settings/vorn_esx.config"));
}

TEST_F(DcNodeRequest, AVirtualHostsSettingsFileRatesStandOverItsLockFiles) {
  // Neither collector runs: this host's reply carries no rates.
  const std::string down = std::string("\x0b\0\x04\0", 4);
  EXPECT_EQ(serve("stat", fields({"self", "Solaris", "self"})),
            std::pair(down + std::string("\0\0\x05\0\0\0", 6), 1));
  write_file(dir_ / "settings/vorn_esx.config", "HOSTNAME~esx1\nWRITE_RATE~600\nPEAK_RATE~7000\n");
  EXPECT_EQ(serve("stat", fields({"esx1", "VMware ESX", "esx1"})),
            std::pair(down + std::string("\x58\x02\x05\0\x07\0", 6), 1));
}

}  // namespace
}  // namespace kova::test
