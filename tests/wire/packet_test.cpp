#include "wire/packet.h"

#include <gtest/gtest.h>

#include <functional>
#include <vector>

#include "wire/wire_fixture.h"

namespace kova {
namespace {

using Bytes = std::vector<unsigned char>;

// Builds into a buffer pre-filled with 0xEE, so a builder that clears the
// buffer and one that writes only its own fields can be told apart.
Bytes build(const std::function<void(PacketBuffer&)>& builder, size_t sent) {
  PacketBuffer buffer;
  buffer.fill(0xEE);
  builder(buffer);
  return Bytes(buffer.begin(), buffer.begin() + static_cast<long>(sent));
}

TEST(Packet, RepliesAreByteExact) {
  struct Case {
    const char* name;
    std::function<void(PacketBuffer&)> builder;
    size_t sent;
    Bytes expected;
  };
  const Case cases[] = {
      {"version 6.0", [](PacketBuffer& b) { Packet_CreateVERS(6, 0, b); }, kVersSize,
       {0x0A, 0, 0x06, 0, 0, 0, 0, 0}},
      {"os id 4", [](PacketBuffer& b) { Packet_CreateOS(b, 4); }, kOsSize, {0x04, 0, 0, 0}},
      {"startstop 3", [](PacketBuffer& b) { Packet_CreateSTARTSTOP(3, b); }, kStartStopSize, {0x08, 0, 0x03, 0}},
      {"err 10 clears", [](PacketBuffer& b) { Packet_CreateERR(10, b); }, kErrSize, {5, 0, 10, 0, 0, 0, 0, 0}},
      {"err negative", [](PacketBuffer& b) { Packet_CreateERR(-2, b); }, kErrSize,
       {5, 0, 0xFE, 0xFF, 0, 0, 0, 0}},
      {"err2", [](PacketBuffer& b) { Packet_CreateERR2(b, 0, 0x0102); }, kErrSize, {5, 0, 0, 0, 2, 1, 0, 0}},
      // A file of 0x01020304 blocks and a last block of 0x0A0B0C0D: only the
      // low two bytes of the second value reach the wire.
      {"inf", [](PacketBuffer& b) { Packet_CreateINF(0x01020304, 0x0A0B0C0D, b); }, kInfSize,
       {6, 0, 4, 3, 2, 1, 0x0D, 0x0C}},
      {"memack 0x1234", [](PacketBuffer& b) { Packet_CreateMEMACK(0x1234, b); }, kMemAckSize,
       {0, 9, 0x12, 0x34, 0, 0, 0, 0, 0, 0}},
      {"memack 9", [](PacketBuffer& b) { Packet_CreateMEMACK(9, b); }, kMemAckSize, {0, 9, 0, 9, 0, 0, 0, 0, 0, 0}},
      {"dcstat", [](PacketBuffer& b) { Packet_CreateDCSTAT(3, 120, 99, 300, b); }, kDcStatSize,
       {11, 0, 3, 0, 120, 0, 99, 0, 0x2C, 0x01}},
      {"zud close", [](PacketBuffer& b) { CreateZUDData(4, 0, 0, 0, b, 1); }, kZudDataSize,
       {4, 0, 0, 0, 0, 0, 0, 0, 0, 0}},
      {"zud item", [](PacketBuffer& b) { CreateZUDData(3, 70000, 522, -1, b, 0); }, kZudDataSize,
       {3, 0, 0x70, 0x11, 0x01, 0, 0x0A, 0x02, 0xFF, 0xFF}},
      {"inf1 leaves 8-9", [](PacketBuffer& b) { Packet_CreateINF1(7, 8, 9, b); }, 14,
       {6, 0, 8, 0, 0, 0, 9, 0, 0xEE, 0xEE, 7, 0, 0, 0}},
      {"status 0 in a cleared buffer", [](PacketBuffer& b) { b.fill(0); Packet_CreateShort(b, 0); }, kStatusSize,
       Bytes(8, 0)},
  };
  for (const Case& c : cases) EXPECT_EQ(build(c.builder, c.sent), c.expected) << c.name;
}

TEST(Packet, StringCarriesLengthAndIsBounded) {
  PacketBuffer b{};
  EXPECT_EQ(Packet_CreateString(b, "ab.log"), 14);
  EXPECT_EQ(Bytes(b.begin(), b.begin() + 14), (Bytes{12, 0, 6, 0, 0, 0, 0, 0, 'a', 'b', '.', 'l', 'o', 'g'}));

  std::string long_name(600, 'x');
  EXPECT_EQ(Packet_CreateString(b, long_name), static_cast<int>(kPacketSize));
  EXPECT_EQ(Packet_CheckOPCODE(b, 2), static_cast<int16_t>(kStringMax));
}

TEST(Packet, ReadersAreLittleEndianSignedAndBounded) {
  const Bytes bytes{0xFE, 0xFF, 0x04, 0x03, 0x02, 0x81};
  EXPECT_EQ(Packet_CheckOPCODE(bytes), -2);
  EXPECT_EQ(Packet_CheckOPCODE(bytes, 2), 0x0304);
  EXPECT_EQ(Packet_CheckLONG(bytes, 2), static_cast<int32_t>(0x81020304u));
  EXPECT_EQ(Packet_CheckOPCODE(bytes, 5), 0);  // one byte left
  EXPECT_EQ(Packet_CheckLONG(bytes, 3), 0);
  EXPECT_EQ(Packet_CheckOPCODE(bytes, 100), 0);

  const unsigned char source[40] = {'G', 'E', 'T', 'X', 'X', 'X'};
  std::array<char, 8> small;
  small.fill('#');
  EXPECT_EQ(Packet_CheckString(source, small, 37), 1);  // cut to the destination
  EXPECT_EQ(std::string(small.data(), 6), "GETXXX");
}

class StatusSend : public test::WireTest {};

TEST_F(StatusSend, StatusAndErrorRepliesGoOutAsEightBytes) {
  test::SocketPair pair;
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
}  // namespace kova
