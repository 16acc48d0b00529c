// Socket I/O: the listening socket and the loops that move whole buffers
// across a connection. Reads never block in the kernel for long: a receive
// that finds no data waits for readability up to a bounded number of times.
#pragma once

#include <sys/types.h>

#include <cstddef>

namespace kova {

// How long one wait for data may last, and how many consecutive failed
// receives a read survives (the next one ends it): at most 60 waits of 2 s
// between two pieces of data.
inline constexpr int kReadWaitMs = 2000;
inline constexpr int kReadRetryLimit = 60;

// The wire layer's one process-wide setting: how a read waits for data.
// Tests replace wait_readable to count the waits without waiting.
struct WireHooks {
  // Waits until fd is readable or timeout_ms passes; the result is ignored
  // (the next receive decides), so an interrupted wait simply counts as one.
  int (*wait_readable)(int fd, int timeout_ms);
};

// The process-wide hooks; start with poll(2) on the descriptor.
WireHooks& wire_hooks();

// Creates an IPv4 stream socket bound to every local address on `port`,
// with SO_REUSEADDR and SO_KEEPALIVE. Returns the descriptor (the caller
// owns it and calls listen), or -1 after logging and printing to stderr,
// with errno still telling the caller why. A port outside 0..65535 fails as
// the socket call would, with EINVAL.
[[nodiscard]] int Socket_Create(int port);

// Writes all n bytes. Returns n, or the failing write's result (0 or -1)
// after logging "E-WRITE"; an interrupted write is not retried. Never
// raises SIGPIPE.
[[nodiscard]] ssize_t Socket_writen(int fd, const void* buffer, size_t n);

// As Socket_writen; `written` receives the bytes written before a failure
// (n on success), so a caller can say how far a stream got.
[[nodiscard]] ssize_t Socket_writen_counted(int fd, const void* buffer, size_t n, size_t& written);

// Reads n bytes. Returns n, fewer when the peer closed the connection, or
// -1 when a receive fails with anything but EAGAIN or when 61 consecutive
// receives found no data. verbose != 0 logs every failed receive.
[[nodiscard]] ssize_t Socket_readn(int fd, void* buffer, size_t n, int verbose);

// The same read, used for the first bytes of a connection.
[[nodiscard]] ssize_t Socket_readn_nonblock(int fd, void* buffer, size_t n, int verbose);

}  // namespace kova
