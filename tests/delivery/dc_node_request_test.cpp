#include "delivery/dc_node_request.h"

#include <gtest/gtest.h>

#include <string>

#include "base/codes.h"
#include "support/temp_dir.h"
#include "wire/wire_fixture.h"

namespace kova::test {
namespace {

enum class Node { kStat, kStop, kStart };

// A node payload: each text in its zero-padded 64-byte field.
std::string fields(std::initializer_list<std::string> texts) {
  std::string out;
  for (const std::string& t : texts) out += t + std::string(kNodeFieldSize - t.size(), '\0');
  return out;
}

std::string hex(const std::string& bytes) {
  std::string out;
  char piece[3];
  for (unsigned char c : bytes) std::snprintf(piece, sizeof piece, "%02x", c), out += piece;
  return out;
}

class DcNodeRequest : public WireTest {
 protected:
  void SetUp() override {
    WireTest::SetUp();
    for (const char* d : {"bin", "tmp", "settings"}) make_dirs(dir_ / d);
    s_.install_root = dir_.path(), s_.hostname = "self";
    s_.collector_lock_path = dir_ / "tmp/self_monitor.lock";
  }
  // What the handler sent, and its result.
  std::pair<std::string, int> serve(Node node, const std::string& payload) {
    SocketPair pair;
    const auto* bytes = reinterpret_cast<const unsigned char*>(payload.data());
    const int length = static_cast<int>(payload.size());
    const int fd = pair.agent.get();
    const int result = node == Node::kStat   ? process_dcstatus_node_request(fd, s_, "127.0.0.9", bytes, length, buffer_)
                       : node == Node::kStop ? process_dcstop_node_request(fd, s_, "127.0.0.9", bytes, length, buffer_)
                                             : process_dcstart_node_request(fd, s_, "127.0.0.9", bytes, length, buffer_, 14);
    return {hex(pair.drain()), result};
  }

  AgentSettings s_;
  PacketBuffer buffer_{};
};

TEST_F(DcNodeRequest, FieldsThatCannotBeReadEndTheRequestWithNothingSentOrWritten) {
  const std::string full(kNodeFieldSize, 'a');  // no room for the terminating NUL
  struct Case {
    Node node;
    std::string payload;
    const char* logged;
  };
  const Case cases[] = {
      {Node::kStat, "", "Failed to read hostname from packet"},
      {Node::kStat, fields({"esx1", "VMware ESX"}), "Failed to read dns from packet"},
      {Node::kStat, fields({"esx1"}) + full + fields({"dns"}), "Failed to read os from packet"},
      {Node::kStat, full + fields({"VMware ESX", "dns"}), "Failed to read hostname from packet"},
      {Node::kStop, fields({"a/b", "VMware ESX"}), "Failed to read hostname from packet"},
      {Node::kStop, fields({"esx1"}) + "VMware", "Failed to read os from packet"},
      {Node::kStart, fields({"..", "VMware ESX", "10.0.0.1", "300", "5"}), "Failed to read hostname from packet"},
      {Node::kStart, fields({".", "VMware ESX", "10.0.0.1", "300", "5"}), "Failed to read hostname from packet"},
      {Node::kStart, fields({"../../x", "VMware ESX", "10.0.0.1", "300", "5"}), "Failed to read hostname from packet"},
      {Node::kStart, fields({"esx1", "VMware ESX", "10.0.0.1"}), "Failed to read dump from packet"},
      {Node::kStart, fields({"esx1", "VMware ESX", "10.0.0.1", "300"}) + full, "Failed to read peak from packet"},
  };
  for (const Case& c : cases) {
    const int before = logged("W-PACKET", c.logged);
    EXPECT_EQ(serve(c.node, c.payload), std::pair(std::string(), int{kResultBadPacket})) << c.logged;
    EXPECT_EQ(logged("W-PACKET", c.logged), before + 1) << c.logged;
  }
  EXPECT_FALSE(file_exists(dir_ / "settings/vorn_esx.config"));
  EXPECT_EQ(logged("I-DC_STAT", "request"), 0);
}

TEST_F(DcNodeRequest, StatusTakesTheVirtualHostsRatesFromItsSettingsFile) {
  // Neither collector runs: this host's reply carries no rates, the
  // virtual host's those of its settings file.
  EXPECT_EQ(serve(Node::kStat, fields({"self", "Solaris", "self.example"})),
            std::pair(std::string("0b00040000000500") + "0000", 1));
  write_file(dir_ / "settings/vorn_esx.config", "HOSTNAME~esx1\nWRITE_RATE~600\nPEAK_RATE~7000\n");
  EXPECT_EQ(serve(Node::kStat, fields({"esx1", "VMware ESX", "esx1.example"})),
            std::pair(std::string("0b00040058020500") + "0700", 1));
  EXPECT_EQ(logged("I-DC_REMOTE_STAT", "for host esx1 from lockfile " + dir_.path() + "/tmp/esx1_monitor.lock "), 1);
  EXPECT_EQ(node_lock_path(s_, "self"), s_.collector_lock_path);
}

}  // namespace
}  // namespace kova::test
