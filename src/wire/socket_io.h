// Socket I/O: the listening socket and the loops that move whole buffers
// across a connection. Neither direction blocks in the kernel for long: a
// receive that finds no data waits for readability up to a bounded number
// of times, a send that finds the connection full waits a bounded time for
// the peer to take more.
#pragma once

#include <sys/socket.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace kova {

// How long one wait for data may last, and how many consecutive failed
// receives a read survives (the next one ends it): at most 60 waits of 2 s
// between two pieces of data.
inline constexpr int kReadWaitMs = 2000;
inline constexpr int kReadRetryLimit = 60;

// Hardened mode's bound on one whole read in a request child, however its
// bytes trickle in.
inline constexpr int kHardenedReadTotalMs = 120000;

// The address the agent listens on unless told otherwise: every IPv4 one.
inline constexpr const char* kListenAnyIPv4 = "0.0.0.0";

// How long a send waits for a peer that takes no data: as long as a read
// waits for a peer that sends none.
inline constexpr int kWriteWaitMs = kReadRetryLimit * kReadWaitMs;

// The wire layer's one process-wide setting: how reads and writes wait.
// Tests replace wait_readable to count the waits without waiting, and
// wait_writable to shorten the send bound.
struct WireHooks {
  // Waits until fd is readable or timeout_ms passes; the result is ignored
  // (the next receive decides), so an interrupted wait simply counts as one.
  int (*wait_readable)(int fd, int timeout_ms);
  // Milliseconds of a monotonic clock, for read_total_ms.
  int64_t (*now_ms)();
  // The most one whole read may take, in milliseconds; past it the read
  // fails with ETIMEDOUT. 0 (the start) leaves only the retry bound.
  int read_total_ms;
  // Waits until fd can take data or timeout_ms passes: above 0 when it can
  // (or has failed, which the next send reports), 0 when the time passed,
  // below 0 when interrupted (the wait goes on for the time that is left).
  int (*wait_writable)(int fd, int timeout_ms);
};

// The process-wide hooks; start with poll(2) on the descriptor (both
// ways), the monotonic clock and no total bound.
WireHooks& wire_hooks();

// Creates a stream socket bound to `address` (an IPv4 or IPv6 literal;
// every IPv4 address by default) on `port`, with SO_REUSEADDR and
// SO_KEEPALIVE. An IPv6 socket also takes IPv4 peers, as mapped addresses.
// Returns the descriptor (the caller owns it and calls listen), or -1 after
// logging and printing to stderr, with errno still telling the caller why.
// A port outside 0..65535 fails as the socket call would, with EINVAL.
[[nodiscard]] int Socket_Create(int port, const std::string& address = kListenAnyIPv4);

// A peer's address as logs and server lists show it: dotted for IPv4,
// including IPv4 peers of an IPv6 socket; IPv6 text otherwise.
std::string Socket_peer_text(const sockaddr_storage& peer);

// One send that never waits, for a peer the agent will not wait on.
// Returns the bytes the kernel took (perhaps fewer than n) or -1. Never
// raises SIGPIPE.
[[nodiscard]] ssize_t Socket_send_nowait(int fd, const void* buffer, size_t n);

// Writes all n bytes. Returns n, or the failing write's result (0 or -1)
// after logging "E-WRITE"; an interrupted write is not retried. Never
// raises SIGPIPE. A peer that takes no data for kWriteWaitMs fails the
// write as one that went away does (errno ETIMEDOUT; see
// Socket_wait_writable).
[[nodiscard]] ssize_t Socket_writen(int fd, const void* buffer, size_t n);

// As Socket_writen; `written` receives the bytes written before a failure
// (n on success), so a caller can say how far a stream got.
[[nodiscard]] ssize_t Socket_writen_counted(int fd, const void* buffer, size_t n, size_t& written);

// Waits until the connection `fd` can take more data, at most kWriteWaitMs
// (through wire_hooks().wait_writable). True when it can; false, with errno
// ETIMEDOUT, when the peer took nothing meanwhile. The connection is then
// shut down for sending, so that whatever the request still sends (an error
// reply) fails at once instead of waiting the bound again. For writers
// that do not go through Socket_writen (sendfile).
[[nodiscard]] bool Socket_wait_writable(int fd);

// Reads n bytes. Returns n, fewer when the peer closed the connection, or
// -1 when a receive fails with anything but EAGAIN, when 61 consecutive
// receives found no data, or when read_total_ms has passed. verbose != 0
// logs every failed receive.
[[nodiscard]] ssize_t Socket_readn(int fd, void* buffer, size_t n, int verbose);

// The same read, used for the first bytes of a connection.
[[nodiscard]] ssize_t Socket_readn_nonblock(int fd, void* buffer, size_t n, int verbose);

}  // namespace kova
