#include "wire/request.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <tuple>

#include "support/agent_process.h"
#include "wire/wire_fixture.h"

namespace kova::test {
namespace {

TEST(ExtendedTag, FirstRowInTableOrderWins) {
  const std::pair<const char*, ExtendedTag> cases[] = {
      {"PERF_NODE<MERG>", ExtendedTag::kMerg},          {"<APPDATA>PERF_NODE", ExtendedTag::kAppData},
      {"DCSTAT_NODEPERF_NODE", ExtendedTag::kPerfNode}, {"SYSCONFIG_NODE", ExtendedTag::kSysConfigNode},
      {"<UPDATE_DATA>", ExtendedTag::kUpdateData},      {"xDCSTOP_NODEx", ExtendedTag::kDcStopNode},
      {"DCSTART_NODE", ExtendedTag::kDcStartNode},      {"MERG", ExtendedTag::kUnknown},
      {"get_agent_os", ExtendedTag::kUnknown},          {"", ExtendedTag::kUnknown},
  };
  for (const auto& [tag, expected] : cases) EXPECT_EQ(match_extended_tag(tag), expected) << tag;
  EXPECT_EQ(match_extended_tag(nullptr), ExtendedTag::kUnknown);
}

class ExtendedFraming : public WireTest {};

// The real binary answers each length from -1 to 65535; here, what is read and the bad packets' log lines.
TEST_F(ExtendedFraming, LengthDecidesPayloadOrBadPacketAndTheTagIsCutTo37Bytes) {
  PacketBuffer request{};
  std::fill(request.begin() + 2, request.begin() + 40, 'T');
  ExtendedRequest out;
  out.tag.fill('#');
  read_extended_tag(request, out);
  EXPECT_EQ(std::string(out.tag.data()), std::string(37, 'T'));

  const struct {
    std::string length_field;
    size_t sent;
    FrameStatus status;
    int length;
    const char* log_line;  // "": no log line
  } cases[] = {
      {le16(-32768), 10, FrameStatus::kOk, 0, ""},  // no payload
      {le16(5), 5, FrameStatus::kOk, 5, ""},
      {le16(2049), 2049, FrameStatus::kLengthTooLarge, 0,
       "KOVAAGENT-I-BADPACKET,   Failed to read packet: length 2049 exceeds the limit of 2048"},
      {le16(10), 4, FrameStatus::kPayloadShort, 0,
       "KOVAAGENT-I-BADPACKET,   Failed to read packet: length read 4 of  10 "},
      {"", 0, FrameStatus::kLengthNotRead, 0, "KOVAAGENT-W-BADPACKET,   Failed to read extended packet length"},
  };
  for (const auto& c : cases) {
    const std::string before = log_text();
    std::string payload;
    for (size_t i = 0; i < c.sent; ++i) payload += static_cast<char>('a' + i % 26);
    SocketPair pair;
    pair.from_peer(c.length_field + payload);
    EXPECT_EQ(read_extended_payload(pair.agent.get(), out, 0), c.status) << c.sent;
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(out.payload.data()), static_cast<size_t>(out.length)),
              payload.substr(0, static_cast<size_t>(c.length)));
    const std::string added = log_text().substr(before.size());
    EXPECT_TRUE(*c.log_line == '\0' ? added.empty() : added.find(c.log_line) != std::string::npos) << added;
  }
  EXPECT_EQ(slept, std::size(cases) * kExtendedPause);
}

}  // namespace
}  // namespace kova::test
