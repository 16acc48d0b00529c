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

std::string component_status_words(int status) {
  switch (status) {
    case kStatusNone: return "none (0)";
    case kStatusRunning: return "up (3)";
    case kStatusNotRunning: return "down (4)";
    case kStatusNotInstalled: return "not found (5)";
    case kStatusUnknown: return "unknown (99)";
    default: return "code " + std::to_string(status);
  }
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

}  // namespace kova::client
