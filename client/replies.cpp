#include "replies.h"

#include <cstdio>

#include "wire/packet.h"
#include "base/codes.h"

namespace kova::client {

bool decode_version(std::span<const unsigned char> bytes, Version& out) {
  if (bytes.size() < kVersSize || Packet_CheckOPCODE(bytes) != kPacketVers) return false;
  out = Version{Packet_CheckOPCODE(bytes, 2), Packet_CheckOPCODE(bytes, 4)};
  return true;
}

bool decode_dcstat(std::span<const unsigned char> bytes, DcStat& out) {
  if (bytes.size() < kDcStatSize || Packet_CheckOPCODE(bytes) != kPacketDcStat) return false;
  out = DcStat{Packet_CheckOPCODE(bytes, 2), Packet_CheckOPCODE(bytes, 4), Packet_CheckOPCODE(bytes, 6),
               Packet_CheckOPCODE(bytes, 8)};
  return true;
}

bool decode_startstop(std::span<const unsigned char> bytes, int& status) {
  if (bytes.size() < kStartStopSize || Packet_CheckOPCODE(bytes) != kPacketStartStop) return false;
  status = Packet_CheckOPCODE(bytes, 2);
  return true;
}

bool decode_os(std::span<const unsigned char> bytes, int32_t& id) {
  if (bytes.size() < kOsSize) return false;
  id = Packet_CheckLONG(bytes);
  return true;
}

std::string component_state_name(int status) {
  switch (status) {
    case kStatusNone: return "none";
    case kStatusRunning: return "up";
    case kStatusNotRunning: return "down";
    case kStatusNotInstalled: return "not found";
    case kStatusUnknown: return "unknown";
    default: return "";
  }
}

bool component_state_known(int status) {
  return status == kStatusNone || status == kStatusRunning || status == kStatusNotRunning ||
         status == kStatusNotInstalled;
}

std::string component_status_words(int status) {
  const std::string name = component_state_name(status);
  return name.empty() ? "code " + std::to_string(status) : name + " (" + std::to_string(status) + ")";
}

std::string extended_status_words(int status) {
  if (status == kResultOk) return "accepted (0)";
  if (status == kResultMemoryNode) return "memory node (20)";
  return std::string(result_text(status)) + " (" + std::to_string(status) + ")";
}

std::string hex_dump(std::span<const unsigned char> bytes) {
  std::string out;
  char piece[32];
  for (size_t line = 0; line < bytes.size(); line += 16) {
    std::snprintf(piece, sizeof piece, "%08zx ", line);
    out += piece;
    for (size_t i = line; i < line + 16; ++i) {
      if (i < bytes.size()) {
        std::snprintf(piece, sizeof piece, " %02x", bytes[i]);
        out += piece;
      } else {
        out += "   ";
      }
    }
    out += "  |";
    for (size_t i = line; i < line + 16 && i < bytes.size(); ++i)
      out += bytes[i] >= 0x20 && bytes[i] < 0x7f ? static_cast<char>(bytes[i]) : '.';
    out += "|\n";
  }
  return out;
}

std::string hex_string(std::span<const unsigned char> bytes) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string out;
  out.reserve(bytes.size() * 2);
  for (unsigned char b : bytes) {
    out += kDigits[b >> 4];
    out += kDigits[b & 0x0f];
  }
  return out;
}

}  // namespace kova::client
