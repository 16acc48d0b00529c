#include "wire/request.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "support/agent_process.h"
#include "wire/wire_fixture.h"

namespace kova::test {
namespace {

// Each tag alone is checked against the real binary.
TEST(ExtendedTag, FirstRowInTableOrderWinsWhereverItsTextStands) {
  const std::pair<const char*, ExtendedTag> cases[] = {
      {"PERF_NODE<MERG>", ExtendedTag::kMerg}, {"<APPDATA>PERF_NODE", ExtendedTag::kAppData},
      {"DCSTAT_NODEPERF_NODE", ExtendedTag::kPerfNode}, {"xDCSTOP_NODEx", ExtendedTag::kDcStopNode},
      {"MERG", ExtendedTag::kUnknown}, {"get_agent_os", ExtendedTag::kUnknown},
  };
  for (const auto& [tag, expected] : cases) EXPECT_EQ(match_extended_tag(tag), expected) << tag;
  EXPECT_EQ(match_extended_tag(nullptr), ExtendedTag::kUnknown);
}

class ExtendedFraming : public WireTest {};

// The real binary answers every length from -1 to 65535 and reads payloads; here, the bad packets' log lines.
TEST_F(ExtendedFraming, BadPacketsAreLoggedAndTheTagIsCutTo37Bytes) {
  PacketBuffer request{};
  std::fill(request.begin() + 2, request.begin() + 40, 'T');
  ExtendedRequest out;
  out.tag.fill('#');
  read_extended_tag(request, out);
  EXPECT_EQ(std::string(out.tag.data()), std::string(37, 'T'));

  const struct { std::string sent; FrameStatus status; const char* log_line; } cases[] = {
      {le16(2049) + std::string(2049, 'p'), FrameStatus::kLengthTooLarge,
       "KOVAAGENT-I-BADPACKET,   Failed to read packet: length 2049 exceeds the limit of 2048 "},
      {le16(10) + "4byt", FrameStatus::kPayloadShort,
       "KOVAAGENT-I-BADPACKET,   Failed to read packet: length read 4 of  10 "},
      {"", FrameStatus::kLengthNotRead, "KOVAAGENT-W-BADPACKET,   Failed to read extended packet length"},
  };
  for (const auto& c : cases) {
    const std::string before = log_text();
    SocketPair pair;
    pair.from_peer(c.sent);
    EXPECT_EQ(read_extended_payload(pair.agent.get(), out, 0), c.status) << c.log_line;
    EXPECT_EQ(out.length, 0);
    EXPECT_NE(log_text().find(c.log_line, before.size()), std::string::npos) << log_text();
  }
  EXPECT_EQ(slept, std::size(cases) * kExtendedPause);
}

}  // namespace
}  // namespace kova::test
