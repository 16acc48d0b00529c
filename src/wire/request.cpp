#include "wire/request.h"

#include <cstring>

#include "base/clock.h"
#include "base/log.h"
#include "wire/socket_io.h"

namespace kova {
namespace {

// The protocol's order: the first substring found wins, so a tag holding
// several of them goes to the earliest row.
constexpr ExtendedTagRow kTagTable[] = {
    {"<MERG>", ExtendedTag::kMerg},
    {"<APPDATA>", ExtendedTag::kAppData},
    {"PERF_NODE", ExtendedTag::kPerfNode},
    {"SYSCONFIG_NODE", ExtendedTag::kSysConfigNode},
    {"GET_AGENT_VERSION", ExtendedTag::kGetAgentVersion},
    {"GET_AGENT_RELEASE", ExtendedTag::kGetAgentRelease},
    {"GET_AGENT_OS", ExtendedTag::kGetAgentOs},
    {"<DISKSPACE>", ExtendedTag::kDiskSpace},
    {"<UPDATE_DATA>", ExtendedTag::kUpdateData},
    {"DCSTAT_NODE", ExtendedTag::kDcStatNode},
    {"DCSTOP_NODE", ExtendedTag::kDcStopNode},
    {"DCSTART_NODE", ExtendedTag::kDcStartNode},
    {"MEMORY_NODE", ExtendedTag::kMemoryNode},
};

}  // namespace

[[gnu::hot]] ssize_t read_request(int fd, PacketBuffer& request, int verbose) {
  request.fill(0);
  return Socket_readn_nonblock(fd, request.data(), kRequestSize, verbose);
}

std::span<const ExtendedTagRow> extended_tag_table() { return kTagTable; }

ExtendedTag match_extended_tag(const char* tag) {
  if (tag == nullptr) return ExtendedTag::kUnknown;
  for (const ExtendedTagRow& row : kTagTable)
    if (std::strstr(tag, row.substring) != nullptr) return row.tag;
  return ExtendedTag::kUnknown;
}

void read_extended_tag(const PacketBuffer& request, ExtendedRequest& out) {
  Packet_CheckString(std::span(request).subspan(kExtendedTagOffset), out.tag, kExtendedTagLength);
}

FrameStatus read_extended_payload(int fd, ExtendedRequest& out, int verbose) {
  out.payload.fill(0);
  out.declared = 0;
  out.length = 0;
  clock_sleep(kExtendedPause);

  std::array<unsigned char, 2> length_field{};
  if (Socket_readn(fd, length_field.data(), length_field.size(), verbose) != 2) {
    write_to_log("W-BADPACKET", "Failed to read extended packet length");
    return FrameStatus::kLengthNotRead;
  }
  out.declared = Packet_CheckOPCODE(length_field);
  if (out.declared <= 0) return FrameStatus::kOk;  // no payload follows
  if (out.declared > kExtendedPayloadMax) {
    // The payload area holds 2048 bytes; a longer request is refused unread.
    log_printf("I-BADPACKET", "Failed to read packet: length %d exceeds the limit of %d \n", out.declared,
               kExtendedPayloadMax);
    return FrameStatus::kLengthTooLarge;
  }
  ssize_t got = Socket_readn(fd, out.payload.data(), static_cast<size_t>(out.declared), verbose);
  if (got != out.declared) {
    log_printf("I-BADPACKET", "Failed to read packet: length read %d of  %d \n", static_cast<int>(got),
               out.declared);
    return FrameStatus::kPayloadShort;
  }
  out.length = out.declared;
  return FrameStatus::kOk;
}

}  // namespace kova
