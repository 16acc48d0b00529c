// The reply packets the agent sends and the readers for the fields of the
// packets it receives. Every multi-byte field is little-endian on the wire,
// whatever the host, except the two fields of the memory acknowledgement.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

namespace kova {

// The request and reply buffer: one block of the file transfer, too.
inline constexpr size_t kPacketSize = 522;
using PacketBuffer = std::array<unsigned char, kPacketSize>;

// Packet codes at offset 0 of the replies.
inline constexpr int kPacketErr = 5;
inline constexpr int kPacketInf = 6;
inline constexpr int kPacketStartStop = 8;
inline constexpr int kPacketMemAck = 9;
inline constexpr int kPacketVers = 10;
inline constexpr int kPacketDcStat = 11;
inline constexpr int kPacketString = 12;

// Bytes of each reply that go on the wire.
inline constexpr size_t kStatusSize = 8;     // Packet_CreateShort
inline constexpr size_t kErrSize = 8;        // Packet_CreateERR, Packet_CreateERR2
inline constexpr size_t kInfSize = 8;        // Packet_CreateINF: only 2 bytes of its value B
inline constexpr size_t kStartStopSize = 4;
inline constexpr size_t kMemAckSize = 10;
inline constexpr size_t kVersSize = 8;
inline constexpr size_t kDcStatSize = 10;
inline constexpr size_t kStringHeaderSize = 8;
inline constexpr size_t kStringMax = kPacketSize - kStringHeaderSize;
inline constexpr size_t kOsSize = 4;
inline constexpr size_t kZudDataSize = 10;
// The node collector stop and start replies: the status as a long, then
// four zero bytes.
inline constexpr size_t kNodeStatusSize = 8;

// Field stores: little-endian, bounded by the buffer (a field that would
// not fit is not written).
void put_short(std::span<unsigned char> buffer, size_t offset, int value);
void put_long(std::span<unsigned char> buffer, size_t offset, int64_t value);

// Status reply: the value itself as the packet code. Writes 2 bytes only;
// the caller clears the buffer and sends kStatusSize bytes.
void Packet_CreateShort(PacketBuffer& buffer, int value);
// ERR: clears the buffer; code 5, the error code at 2.
void Packet_CreateERR(int code, PacketBuffer& buffer);
// ERR with two values: clears the buffer; code 5, a at 2, b at 4. The
// application-data request's file count (a 0, b the count).
void Packet_CreateERR2(PacketBuffer& buffer, int a, int b);
// INF, the file-transfer header: code 6, long a at 2, long b at 6. Writes
// only its fields. Only kInfSize bytes are sent, so b travels as its low
// 2 bytes.
void Packet_CreateINF(int64_t a, int64_t b, PacketBuffer& buffer);
// STARTSTOP: code 8, status at 2. Writes only its fields; returns 4.
int Packet_CreateSTARTSTOP(int status, PacketBuffer& buffer);
// Memory acknowledgement: clears the buffer; bytes 00 09, then the value
// most significant byte first. kMemAckSize bytes are sent.
void Packet_CreateMEMACK(int value, PacketBuffer& buffer);
// VERS: clears the buffer; code 10, major at 2, minor at 4. Returns 1.
int Packet_CreateVERS(int major, int minor, PacketBuffer& buffer);
// DCSTAT: code 11, collector status at 2, collector interval at 4,
// real-time agent status at 6, peak interval in seconds at 8 (the caller
// divides its millisecond value by 1000). Writes only its fields; returns 10.
int Packet_CreateDCSTAT(int dc_status, int dc_interval, int rta_status, int peak_seconds, PacketBuffer& buffer);
// STRING: code 12, text length at 2, long 0 at 4, the text (no terminator)
// at 8, cut to kStringMax bytes. Returns the bytes to send, 8 + length.
int Packet_CreateString(PacketBuffer& buffer, std::string_view text);
// OS: clears the buffer; the id as a long at 0, no packet code. Returns 1.
int Packet_CreateOS(PacketBuffer& buffer, int64_t id);
// Data item: short a at 0, long b at 2, short c at 6, short d at 8.
void Packet_CreateRAWData(int a, int64_t b, int c, int d, PacketBuffer& buffer);
// The same layout, whatever `flag`; kZudDataSize bytes are sent.
void CreateZUDData(int a, int64_t b, int c, int d, PacketBuffer& buffer, int flag);

// The signed 16-bit field at `offset` (an opcode, a status, a length);
// 0 when the field lies beyond the bytes.
int16_t Packet_CheckOPCODE(std::span<const unsigned char> bytes, size_t offset = 0);
// The signed 32-bit field at `offset`; 0 when it lies beyond the bytes.
int32_t Packet_CheckLONG(std::span<const unsigned char> bytes, size_t offset = 0);
// Zeroes the whole destination, then copies `length` bytes of the source
// (no more than either holds). The copy is terminated when the destination
// is longer than `length`. Returns 1.
int Packet_CheckString(std::span<const unsigned char> source, std::span<char> destination, size_t length);

// Sends the 8-byte status reply for `code`; 1 when all 8 went out, else 0.
[[nodiscard]] int socketsend_char_status(int fd, int code);
// Sends the 8-byte ERR packet for `code`; with log != 0 also logs "E-SEND"
// naming `what` and the code's text. Returns 1.
int socketsend_int_status(int fd, int code, const char* what, int log);

}  // namespace kova
