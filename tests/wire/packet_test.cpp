#include "wire/packet.h"

#include <gtest/gtest.h>

#include <tuple>
#include <vector>

#include "wire/wire_fixture.h"

namespace kova::test {
namespace {

using Bytes = std::vector<unsigned char>;

// The status, error and acknowledgement replies are checked byte for byte against the real binary.
TEST(Packet, FieldsAreLittleEndianAndSignedAndOnlyWhatFitsIsRead) {
  PacketBuffer b{};
  // 0x01020304 blocks and a last block of 0x0A0B0C0D: only the low two bytes of the second reach the wire.
  Packet_CreateINF(0x01020304, 0x0A0B0C0D, b);
  EXPECT_EQ(Bytes(b.begin(), b.begin() + kInfSize), (Bytes{6, 0, 4, 3, 2, 1, 0x0D, 0x0C}));
  CreateZUDData(3, 70000, 522, -1, b, 0);
  EXPECT_EQ(Bytes(b.begin(), b.begin() + kZudDataSize), (Bytes{3, 0, 0x70, 0x11, 0x01, 0, 0x0A, 0x02, 0xFF, 0xFF}));

  const Bytes bytes{0xFE, 0xFF, 0x04, 0x03, 0x02, 0x81};
  EXPECT_EQ(std::tuple(Packet_CheckOPCODE(bytes), Packet_CheckOPCODE(bytes, 2), Packet_CheckLONG(bytes, 2)),
            std::tuple(-2, 0x0304, static_cast<int32_t>(0x81020304u)));
  // A field that does not fit in what is left reads as 0.
  EXPECT_EQ(std::tuple(Packet_CheckOPCODE(bytes, 5), Packet_CheckLONG(bytes, 3), Packet_CheckOPCODE(bytes, 100)),
            std::tuple(0, 0, 0));
}

class StatusSend : public WireTest {};

TEST_F(StatusSend, AnErrorStatusGoesOutAsEightBytesAndIsLoggedWhenAsked) {
  SocketPair pair;
  EXPECT_EQ(socketsend_int_status(pair.agent.get(), 15, "<MERG>", 1), 1);
  EXPECT_EQ(socketsend_int_status(pair.agent.get(), 4, "<APPDATA>", 0), 1);
  EXPECT_EQ(pair.drain(), std::string("\5\0\x0f\0\0\0\0\0\5\0\4\0\0\0\0\0", 16));
  EXPECT_EQ(count_in_log("KOVAAGENT-E-SEND,"), 1);
  EXPECT_EQ(logged("E-SEND", "Problem sending request for <MERG>,  .MERG file not found"), 1);
}

}  // namespace
}  // namespace kova::test
