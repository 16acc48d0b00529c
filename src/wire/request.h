// The request side of a connection: the fixed 40-byte request that opens
// it and, for opcode 254, the extended request's tag, length and payload.
#pragma once

#include <sys/types.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include "base/codes.h"
#include "wire/packet.h"

namespace kova {

inline constexpr size_t kRequestSize = 40;

inline constexpr size_t kExtendedTagOffset = 2;
inline constexpr size_t kExtendedTagLength = 37;
inline constexpr size_t kExtendedTagField = 64;
inline constexpr int kExtendedPayloadMax = 2048;
// Seconds the agent pauses before reading the extended length, so that the
// server has sent the rest of its request.
inline constexpr unsigned kExtendedPause = 2;

// Zeroes `request` and reads the first kRequestSize bytes of a connection
// into it. Returns the bytes read (fewer when the peer closed early), or -1
// as Socket_readn_nonblock does.
[[nodiscard]] ssize_t read_request(int fd, PacketBuffer& request, int verbose);

// The opcode of a request: the signed short at offset 0.
inline int request_opcode(const PacketBuffer& request) { return Packet_CheckOPCODE(request, 0); }

// The tags of the extended request, in the order they are tested.
enum class ExtendedTag {
  kMerg,
  kAppData,
  kPerfNode,
  kSysConfigNode,
  kGetAgentVersion,
  kGetAgentRelease,
  kGetAgentOs,
  kDiskSpace,
  kUpdateData,
  kDcStatNode,
  kDcStopNode,
  kDcStartNode,
  kMemoryNode,
  kUnknown,
};

struct ExtendedTagRow {
  const char* substring;
  ExtendedTag tag;
};

// The matching table, first match wins; kUnknown has no row.
std::span<const ExtendedTagRow> extended_tag_table();

// The first row whose substring occurs anywhere in `tag`; kUnknown when
// none does or tag is null.
ExtendedTag match_extended_tag(const char* tag);

// An extended request after its framing has been read.
struct ExtendedRequest {
  std::array<char, kExtendedTagField> tag{};  // always terminated
  std::array<unsigned char, kExtendedPayloadMax> payload{};
  int declared = 0;  // the length field as sent (signed)
  int length = 0;    // payload bytes held: declared when positive, else 0
};

enum class FrameStatus {
  kOk,
  kLengthNotRead,  // fewer than 2 length bytes
  kLengthTooLarge, // declared length above kExtendedPayloadMax
  kPayloadShort,   // the payload ended before its declared length
};

// Copies the tag of the extended request in `request` (37 bytes from
// offset 2) into out.tag, always terminated.
void read_extended_tag(const PacketBuffer& request, ExtendedRequest& out);

// Reads the rest of an extended request: pauses kExtendedPause seconds
// (clock_sleep), reads the 2-byte length and, when it is positive, that many
// payload bytes. A length of 0 or below means no payload. Every status but
// kOk is a bad packet already logged here; the caller sends no reply.
[[nodiscard]] FrameStatus read_extended_payload(int fd, ExtendedRequest& out, int verbose);

}  // namespace kova
