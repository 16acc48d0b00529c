// Drives the request side of a connection with arbitrary bytes: the fixed
// request, the extended framing and the tag match, through a real socket
// pair so the read loops run as they do in the agent.
//
// Input: one flags byte, then the bytes the "server" sends.
//   bit 0: keep the sending side open after the bytes (the read loops then
//          exhaust their retries instead of seeing the end of the stream)
//   bit 1: read the extended framing whatever the opcode
//   bit 2: verbose reads

#include <sys/socket.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "base/clock.h"
#include "platform/unique.h"
#include "wire/packet.h"
#include "wire/request.h"
#include "wire/socket_io.h"

namespace {

int no_wait(int, int) { return 0; }
void no_sleep(unsigned) {}

// Well below a socket pair's buffer, so writing never blocks.
constexpr size_t kMaxInput = 8192;

void check(bool ok) {
  if (!ok) __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool hooked = [] {
    kova::wire_hooks().wait_readable = no_wait;
    kova::process_clock().sleep = no_sleep;
    return true;
  }();
  (void)hooked;
  if (size < 1 || size > kMaxInput) return 0;
  const uint8_t flags = data[0];
  ++data;
  --size;

  int fds[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0) return 0;
  kova::UniqueFd agent(fds[0]), server(fds[1]);
  if (size > 0 && ::write(server.get(), data, size) != static_cast<ssize_t>(size)) return 0;
  if ((flags & 1) == 0) server.reset();
  const int verbose = (flags & 4) != 0 ? 1 : 0;

  kova::PacketBuffer request;
  const ssize_t n = kova::read_request(agent.get(), request, verbose);
  check(n <= static_cast<ssize_t>(kova::kRequestSize));
  if (n < 0) return 0;
  check(n == static_cast<ssize_t>(std::min(size, kova::kRequestSize)));
  if (kova::request_opcode(request) != kova::kOpExtended && (flags & 2) == 0) return 0;

  kova::ExtendedRequest ext;
  kova::read_extended_tag(request, ext);
  const kova::FrameStatus status = kova::read_extended_payload(agent.get(), ext, verbose);
  check(ext.tag.back() == '\0' && std::strlen(ext.tag.data()) <= kova::kExtendedTagLength);
  check(ext.length >= 0 && ext.length <= kova::kExtendedPayloadMax);
  if (status == kova::FrameStatus::kOk) {
    check(ext.declared <= 0 ? ext.length == 0 : ext.length == ext.declared);
    check(ext.length == 0 || std::memcmp(ext.payload.data(), data + kova::kRequestSize + 2,
                                         static_cast<size_t>(ext.length)) == 0);
  } else {
    check(ext.length == 0);
    if (status == kova::FrameStatus::kLengthTooLarge) check(ext.declared > kova::kExtendedPayloadMax);
  }
  const kova::ExtendedTag tag = kova::match_extended_tag(ext.tag.data());
  if (tag != kova::ExtendedTag::kUnknown) {
    bool found = false;
    for (const auto& row : kova::extended_tag_table()) found = found || row.tag == tag;
    check(found);
  }
  return 0;
}
