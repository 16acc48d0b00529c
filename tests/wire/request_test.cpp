#include "wire/request.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "wire/wire_fixture.h"

namespace kova {
namespace {

using test::SocketPair;

TEST(ExtendedTag, FirstRowInTableOrderWins) {
  const struct {
    const char* tag;
    ExtendedTag expected;
  } cases[] = {
      {"GET_AGENT_OS_X", ExtendedTag::kGetAgentOs},
      {"PERF_NODE<MERG>", ExtendedTag::kMerg},
      {"<APPDATA>PERF_NODE", ExtendedTag::kAppData},
      {"SYSCONFIG_NODE", ExtendedTag::kSysConfigNode},
      {"DCSTAT_NODEPERF_NODE", ExtendedTag::kPerfNode},
      {"GET_AGENT_VERSION", ExtendedTag::kGetAgentVersion},
      {"GET_AGENT_RELEASE", ExtendedTag::kGetAgentRelease},
      {"<DISKSPACE>", ExtendedTag::kDiskSpace},
      {"<UPDATE_DATA>", ExtendedTag::kUpdateData},
      {"xDCSTOP_NODEx", ExtendedTag::kDcStopNode},
      {"DCSTART_NODE", ExtendedTag::kDcStartNode},
      {"MEMORY_NODE", ExtendedTag::kMemoryNode},
      {"MERG", ExtendedTag::kUnknown},
      {"get_agent_os", ExtendedTag::kUnknown},
      {"", ExtendedTag::kUnknown},
  };
  for (const auto& c : cases) EXPECT_EQ(match_extended_tag(c.tag), c.expected) << c.tag;
  EXPECT_EQ(match_extended_tag(nullptr), ExtendedTag::kUnknown);
  EXPECT_EQ(extended_tag_table().size(), 13u);
}

class ExtendedFraming : public test::WireTest {
 protected:
  static PacketBuffer request_with_tag(const std::string& tag) {
    PacketBuffer request{};
    put_short(request, 0, kOpcodeExtended);
    for (size_t i = 0; i < tag.size() && i + 2 < kRequestSize; ++i) request[2 + i] = static_cast<unsigned char>(tag[i]);
    return request;
  }
};

TEST_F(ExtendedFraming, LengthDecidesPayloadOrBadPacket) {
  const struct {
    std::vector<unsigned char> length_field;
    size_t payload_sent;
    FrameStatus status;
    int length;
    const char* log_line;  // nullptr: no log line
  } cases[] = {
      {{0x00, 0x00}, 0, FrameStatus::kOk, 0, nullptr},
      {{0xFF, 0xFF}, 10, FrameStatus::kOk, 0, nullptr},  // -1 (also 65535): no payload
      {{0x00, 0x80}, 10, FrameStatus::kOk, 0, nullptr},  // -32768
      {{0x05, 0x00}, 5, FrameStatus::kOk, 5, nullptr},
      {{0x00, 0x08}, 2048, FrameStatus::kOk, 2048, nullptr},
      {{0x01, 0x08}, 2049, FrameStatus::kLengthTooLarge, 0,
       "KOVAAGENT-I-BADPACKET,   Failed to read packet: length 2049 exceeds the limit of 2048"},
      {{0xFF, 0x7F}, 100, FrameStatus::kLengthTooLarge, 0, "length 32767 exceeds"},
      {{0x0A, 0x00}, 4, FrameStatus::kPayloadShort, 0,
       "KOVAAGENT-I-BADPACKET,   Failed to read packet: length read 4 of  10 "},
      {{0x0A, 0x00}, 0, FrameStatus::kPayloadShort, 0, "length read 0 of  10 "},
      {{0x07}, 0, FrameStatus::kLengthNotRead, 0,
       "KOVAAGENT-W-BADPACKET,   Failed to read extended packet length"},
      {{}, 0, FrameStatus::kLengthNotRead, 0, "Failed to read extended packet length"},
  };
  for (const auto& c : cases) {
    const std::string before = log_text();
    slept = 0;
    SocketPair pair;
    std::vector<unsigned char> wire = c.length_field;
    for (size_t i = 0; i < c.payload_sent; ++i) wire.push_back(static_cast<unsigned char>('a' + i % 26));
    if (!wire.empty()) {
      ASSERT_EQ(::write(pair.peer.get(), wire.data(), wire.size()), static_cast<ssize_t>(wire.size()));
    }
    pair.peer.reset();

    ExtendedRequest out;
    PacketBuffer request = request_with_tag("<APPDATA>");
    FrameStatus status = read_extended_request(pair.agent.get(), request, out, 0);
    const std::string name = "declared bytes " + std::to_string(c.length_field.size()) + " sent " +
                             std::to_string(c.payload_sent);
    EXPECT_EQ(status, c.status) << name;
    EXPECT_EQ(out.length, c.length) << name;
    EXPECT_EQ(slept, kExtendedPause) << name;
    EXPECT_STREQ(out.tag.data(), "<APPDATA>") << name;
    if (c.length > 0) {
      EXPECT_EQ(out.payload[static_cast<size_t>(c.length) - 1], 'a' + (c.length - 1) % 26) << name;
    }
    const std::string added = log_text().substr(before.size());
    if (c.log_line == nullptr) {
      EXPECT_EQ(added, "") << name;
    } else {
      EXPECT_NE(added.find(c.log_line), std::string::npos) << name << ": " << added;
    }
  }
}

TEST_F(ExtendedFraming, TagIsThirtySevenBytesAlwaysTerminated) {
  SocketPair pair;
  ASSERT_EQ(::write(pair.peer.get(), "\0\0", 2), 2);
  PacketBuffer request = request_with_tag(std::string(38, 'T'));
  request[39] = 'Z';
  ExtendedRequest out;
  out.tag.fill('#');
  ASSERT_EQ(read_extended_request(pair.agent.get(), request, out, 0), FrameStatus::kOk);
  EXPECT_EQ(std::string(out.tag.data()), std::string(37, 'T'));
}

TEST_F(ExtendedFraming, RequestReadZeroesAndReportsShortReads) {
  SocketPair pair;
  ASSERT_EQ(::write(pair.peer.get(), "\xFE\x00GET_AGENT_OS", 14), 14);
  pair.peer.reset();
  PacketBuffer request;
  request.fill(0xAA);
  EXPECT_EQ(read_request(pair.agent.get(), request, 0), 14);
  EXPECT_EQ(request_opcode(request), kOpcodeExtended);
  EXPECT_EQ(request[14], 0);
  EXPECT_EQ(request[521], 0);
}

}  // namespace
}  // namespace kova
