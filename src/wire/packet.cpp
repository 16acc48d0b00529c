#include "wire/packet.h"

#include <algorithm>
#include <cstring>

#include "base/log.h"
#include "wire/socket_io.h"
#include "base/codes.h"

namespace kova {

void put_short(std::span<unsigned char> buffer, size_t offset, int value) {
  if (offset > buffer.size() || buffer.size() - offset < 2) return;
  auto v = static_cast<uint16_t>(value);
  buffer[offset] = static_cast<unsigned char>(v & 0xff);
  buffer[offset + 1] = static_cast<unsigned char>(v >> 8);
}

void put_long(std::span<unsigned char> buffer, size_t offset, int64_t value) {
  if (offset > buffer.size() || buffer.size() - offset < 4) return;
  auto v = static_cast<uint32_t>(value);
  for (size_t i = 0; i < 4; ++i) buffer[offset + i] = static_cast<unsigned char>((v >> (8 * i)) & 0xff);
}

void Packet_CreateShort(PacketBuffer& buffer, int value) { put_short(buffer, 0, value); }

void Packet_CreateERR(int code, PacketBuffer& buffer) {
  buffer.fill(0);
  put_short(buffer, 0, kPacketErr);
  put_short(buffer, 2, code);
}

void Packet_CreateERR2(PacketBuffer& buffer, int a, int b) {
  buffer.fill(0);
  put_short(buffer, 0, kPacketErr);
  put_short(buffer, 2, a);
  put_short(buffer, 4, b);
}

void Packet_CreateINF(int64_t a, int64_t b, PacketBuffer& buffer) {
  put_short(buffer, 0, kPacketInf);
  put_long(buffer, 2, a);
  put_long(buffer, 6, b);
}

int Packet_CreateSTARTSTOP(int status, PacketBuffer& buffer) {
  put_short(buffer, 0, kPacketStartStop);
  put_short(buffer, 2, status);
  return static_cast<int>(kStartStopSize);
}

void Packet_CreateMEMACK(int value, PacketBuffer& buffer) {
  // The one packet whose fields the server reads most significant byte first.
  buffer.fill(0);
  buffer[0] = 0;
  buffer[1] = static_cast<unsigned char>(kPacketMemAck);
  buffer[2] = static_cast<unsigned char>((value >> 8) & 0xff);
  buffer[3] = static_cast<unsigned char>(value & 0xff);
}

[[gnu::hot]] int Packet_CreateVERS(int major, int minor, PacketBuffer& buffer) {
  buffer.fill(0);
  put_short(buffer, 0, kPacketVers);
  put_short(buffer, 2, major);
  put_short(buffer, 4, minor);
  return 1;
}

int Packet_CreateDCSTAT(int dc_status, int dc_interval, int rta_status, int peak_seconds, PacketBuffer& buffer) {
  put_short(buffer, 0, kPacketDcStat);
  put_short(buffer, 2, dc_status);
  put_short(buffer, 4, dc_interval);
  put_short(buffer, 6, rta_status);
  put_short(buffer, 8, peak_seconds);
  return static_cast<int>(kDcStatSize);
}

int Packet_CreateString(PacketBuffer& buffer, std::string_view text) {
  size_t n = std::min(text.size(), kStringMax);
  put_short(buffer, 0, kPacketString);
  put_short(buffer, 2, static_cast<int>(n));
  put_long(buffer, 4, 0);
  std::memcpy(buffer.data() + kStringHeaderSize, text.data(), n);
  return static_cast<int>(kStringHeaderSize + n);
}

[[gnu::hot]] int Packet_CreateOS(PacketBuffer& buffer, int64_t id) {
  buffer.fill(0);
  put_long(buffer, 0, id);
  return 1;
}

void Packet_CreateRAWData(int a, int64_t b, int c, int d, PacketBuffer& buffer) {
  put_short(buffer, 0, a);
  put_long(buffer, 2, b);
  put_short(buffer, 6, c);
  put_short(buffer, 8, d);
}

void CreateZUDData(int a, int64_t b, int c, int d, PacketBuffer& buffer, int /*flag*/) {
  Packet_CreateRAWData(a, b, c, d, buffer);
}

[[gnu::hot]] int16_t Packet_CheckOPCODE(std::span<const unsigned char> bytes, size_t offset) {
  if (offset > bytes.size() || bytes.size() - offset < 2) return 0;
  return static_cast<int16_t>(static_cast<uint16_t>(bytes[offset] | (bytes[offset + 1] << 8)));
}

int32_t Packet_CheckLONG(std::span<const unsigned char> bytes, size_t offset) {
  if (offset > bytes.size() || bytes.size() - offset < 4) return 0;
  uint32_t v = 0;
  for (size_t i = 0; i < 4; ++i) v |= static_cast<uint32_t>(bytes[offset + i]) << (8 * i);
  return static_cast<int32_t>(v);
}

int Packet_CheckString(std::span<const unsigned char> source, std::span<char> destination, size_t length) {
  std::fill(destination.begin(), destination.end(), '\0');
  size_t n = std::min({length, source.size(), destination.size()});
  std::memcpy(destination.data(), source.data(), n);
  return 1;
}

int socketsend_char_status(int fd, int code) {
  PacketBuffer buffer{};
  Packet_CreateShort(buffer, code);
  return Socket_writen(fd, buffer.data(), kStatusSize) == static_cast<ssize_t>(kStatusSize) ? 1 : 0;
}

int socketsend_int_status(int fd, int code, const char* what, int log) {
  PacketBuffer buffer{};
  Packet_CreateERR(code, buffer);
  // A failed send is already logged by the socket layer; the caller's
  // request is over either way.
  (void)Socket_writen(fd, buffer.data(), kErrSize);
  if (log != 0) log_printf("E-SEND", "Problem sending request for %s,  %s\n", what, result_text(code));
  return 1;
}

}  // namespace kova
