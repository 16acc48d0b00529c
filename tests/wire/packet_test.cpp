#include "wire/packet.h"

#include <gtest/gtest.h>

#include <functional>
#include <tuple>
#include <vector>

#include "wire/wire_fixture.h"

namespace kova::test {
namespace {

using Bytes = std::vector<unsigned char>;

// Builds into a 0xEE-filled buffer: a builder that clears it and one that writes only its fields differ.
Bytes build(const std::function<void(PacketBuffer&)>& builder, size_t sent) {
  PacketBuffer buffer;
  buffer.fill(0xEE);
  builder(buffer);
  return Bytes(buffer.begin(), buffer.begin() + static_cast<long>(sent));
}

// The memory file's acknowledgement and the status reply are checked against the real binary.
TEST(Packet, RepliesAreByteExact) {
  EXPECT_EQ(build([](auto& b) { Packet_CreateERR(-2, b); }, kErrSize), (Bytes{5, 0, 0xFE, 0xFF, 0, 0, 0, 0}));
  // 0x01020304 blocks and a last block of 0x0A0B0C0D: only the low two bytes of the second reach the wire.
  EXPECT_EQ(build([](auto& b) { Packet_CreateINF(0x01020304, 0x0A0B0C0D, b); }, kInfSize),
            (Bytes{6, 0, 4, 3, 2, 1, 0x0D, 0x0C}));
  EXPECT_EQ(build([](auto& b) { CreateZUDData(4, 0, 0, 0, b, 1); }, kZudDataSize),
            (Bytes{4, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
  EXPECT_EQ(build([](auto& b) { CreateZUDData(3, 70000, 522, -1, b, 0); }, kZudDataSize),
            (Bytes{3, 0, 0x70, 0x11, 0x01, 0, 0x0A, 0x02, 0xFF, 0xFF}));
}

TEST(Packet, ReadersAreLittleEndianSignedAndBounded) {
  const Bytes bytes{0xFE, 0xFF, 0x04, 0x03, 0x02, 0x81};
  EXPECT_EQ(std::tuple(Packet_CheckOPCODE(bytes), Packet_CheckOPCODE(bytes, 2), Packet_CheckLONG(bytes, 2)),
            std::tuple(-2, 0x0304, static_cast<int32_t>(0x81020304u)));
  // A field that does not fit in what is left reads as 0.
  EXPECT_EQ(std::tuple(Packet_CheckOPCODE(bytes, 5), Packet_CheckLONG(bytes, 3), Packet_CheckOPCODE(bytes, 100)),
            std::tuple(0, 0, 0));

  const unsigned char source[40] = {'G', 'E', 'T', 'X', 'X', 'X'};
  std::array<char, 8> small;
  small.fill('#');
  EXPECT_EQ(Packet_CheckString(source, small, 37), 1);  // cut to the destination
  EXPECT_EQ(std::string(small.data(), 6), "GETXXX");
}

class StatusSend : public WireTest {};

TEST_F(StatusSend, StatusAndErrorRepliesGoOutAsEightBytes) {
  SocketPair pair;
  EXPECT_EQ(socketsend_char_status(pair.agent.get(), 20), 1);
  EXPECT_EQ(socketsend_int_status(pair.agent.get(), 15, "<MERG>", 1), 1);
  EXPECT_EQ(socketsend_int_status(pair.agent.get(), 4, "<APPDATA>", 0), 1);
  unsigned char got[24] = {};
  ASSERT_EQ(Socket_readn(pair.peer.get(), got, sizeof got, 0), 24);
  EXPECT_EQ(Bytes(got, got + 24), (Bytes{20, 0, 0, 0, 0, 0, 0, 0, 5, 0, 15, 0, 0, 0, 0, 0, 5, 0, 4, 0, 0, 0, 0, 0}));
  EXPECT_EQ(count_in_log("KOVAAGENT-E-SEND,"), 1);
  EXPECT_NE(log_text().find("Problem sending request for <MERG>,  .MERG file not found"), std::string::npos);

  pair.peer.reset();
  EXPECT_EQ(socketsend_char_status(pair.agent.get(), 0), 0);
}

}  // namespace
}  // namespace kova::test
