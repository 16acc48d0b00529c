#include "wire/socket_io.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "base/log.h"
#include "platform/unique.h"

namespace kova {
namespace {

[[gnu::hot]] int poll_readable(int fd, int timeout_ms) {
  pollfd p{fd, POLLIN, 0};
  return ::poll(&p, 1, timeout_ms);
}

int64_t steady_now_ms() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

// The dotted decimal text of an IPv4 address, as inet_ntoa(3) writes it.
// Built here rather than by the C library's formatter, which would take the
// listening process, which formats every peer, a page deeper into a stack
// that each fork makes it copy again.
[[gnu::hot]] std::string dotted_ipv4(in_addr address) {
  const uint32_t host = ntohl(address.s_addr);
  char text[16];
  char* out = text;
  for (int shift = 24; shift >= 0; shift -= 8) {
    const unsigned octet = (host >> shift) & 0xffu;
    if (octet >= 100) *out++ = static_cast<char>('0' + octet / 100);
    if (octet >= 10) *out++ = static_cast<char>('0' + octet / 10 % 10);
    *out++ = static_cast<char>('0' + octet % 10);
    if (shift > 0) *out++ = '.';
  }
  return std::string(text, out);
}

int poll_writable(int fd, int timeout_ms) {
  pollfd p{fd, POLLOUT, 0};
  return ::poll(&p, 1, timeout_ms);
}

[[gnu::hot]] ssize_t write_some(int fd, const unsigned char* data, size_t n) {
  // The agent does not ignore SIGPIPE, and a server that hangs up mid-reply
  // must cost a log line, not the request process. A full connection is
  // waited for outside the kernel, where the wait has a bound.
  ssize_t k = ::send(fd, data, n, MSG_NOSIGNAL | MSG_DONTWAIT);
  if (k < 0 && errno == ENOTSOCK) k = ::write(fd, data, n);
  return k;
}

[[gnu::hot]] ssize_t read_loop(int fd, void* buffer, size_t n, int verbose) {
  auto* out = static_cast<unsigned char*>(buffer);
  size_t got = 0;
  int failures = 0;
  const WireHooks& hooks = wire_hooks();
  const int64_t deadline = hooks.read_total_ms > 0 ? hooks.now_ms() + hooks.read_total_ms : 0;
  while (got < n) {
    ssize_t k = ::recv(fd, out + got, n - got, MSG_DONTWAIT);
    if (k == 0) break;  // the peer closed: a short read, not a failure
    if (k < 0) {
      int err = errno;
      if (verbose != 0)
        log_printf("E-SOCKR", "recv failed,  ntrys: %d   errno: %d:  err: %s\n", failures, err,
                   std::strerror(err));
      ++failures;
      if ((err != EAGAIN && err != EWOULDBLOCK) || failures > kReadRetryLimit) return -1;
      // Waiting for readability rather than sleeping serves the request as
      // soon as its bytes arrive; the bound on failures stays the same.
      int wait_ms = kReadWaitMs;
      if (deadline != 0) {
        // A peer that sends a byte now and then resets the failure count;
        // the total bound ends such a read all the same.
        const int64_t left = deadline - hooks.now_ms();
        if (left <= 0) {
          errno = ETIMEDOUT;
          return -1;
        }
        wait_ms = static_cast<int>(std::min<int64_t>(wait_ms, left));
      }
      hooks.wait_readable(fd, wait_ms);
      continue;
    }
    failures = 0;
    got += static_cast<size_t>(k);
  }
  return static_cast<ssize_t>(got);
}

}  // namespace

WireHooks& wire_hooks() {
  static WireHooks hooks{poll_readable, steady_now_ms, 0, poll_writable};
  return hooks;
}

bool Socket_wait_writable(int fd) {
  const WireHooks& hooks = wire_hooks();
  const int64_t deadline = hooks.now_ms() + kWriteWaitMs;
  for (int64_t left; (left = deadline - hooks.now_ms()) > 0;) {
    const int ready = hooks.wait_writable(fd, static_cast<int>(left));
    if (ready > 0) return true;
    if (ready == 0) break;
  }
  (void)::shutdown(fd, SHUT_WR);
  errno = ETIMEDOUT;
  return false;
}

int Socket_Create(int port, const std::string& address) {
  log_printf("I-SOCK", "Creating socket port %d", port);
  sockaddr_storage addr{};
  socklen_t addr_len;
  auto* v4 = reinterpret_cast<sockaddr_in*>(&addr);
  auto* v6 = reinterpret_cast<sockaddr_in6*>(&addr);
  if (::inet_pton(AF_INET, address.c_str(), &v4->sin_addr) == 1) {
    v4->sin_family = AF_INET;
    v4->sin_port = htons(static_cast<uint16_t>(port));
    addr_len = sizeof *v4;
  } else if (::inet_pton(AF_INET6, address.c_str(), &v6->sin6_addr) == 1) {
    v6->sin6_family = AF_INET6;
    v6->sin6_port = htons(static_cast<uint16_t>(port));
    addr_len = sizeof *v6;
  } else {
    log_printf("E-SOCKET", "Listen address %s is not an IPv4 or IPv6 address", address.c_str());
    std::fprintf(stderr, "KOVA-E-SOCK:  listen address %s is not an IPv4 or IPv6 address\n", address.c_str());
    std::fprintf(stderr, "%s-E-NOTSTARTED: KOVA Agent not started\n", "KOVA");
    errno = EINVAL;
    return -1;
  }
  // A port beyond 16 bits would be cut to another one; no socket is made
  // for it at all.
  const bool port_valid = port >= 0 && port <= 65535;
  UniqueFd sock(port_valid ? ::socket(addr.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0) : -1);
  if (!sock) {
    int err = port_valid ? errno : EINVAL;
    log_printf("E-SOCKET", "error socket() call failed:  %s", std::strerror(err));
    std::fprintf(stderr, "%s-E-SOCKERR: ERROR creating socket: %s\n", "KOVA", std::strerror(err));
    std::fprintf(stderr, "%s-E-NOTSTARTED: %s agent not started\n", "KOVA", "KOVA");
    errno = err;
    return -1;
  }
  int on = 1;
  if (::setsockopt(sock.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0)
    log_printf("E-SOCKOPT", "Error setting socket option (SO_REUSEADDR) %s", std::strerror(errno));
  if (::setsockopt(sock.get(), SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on) != 0)
    log_printf("E-SOCKOPT", "Error setting socket option (SO_KEEPALIVE): %s", std::strerror(errno));
  // IPv4 peers too, whatever the system's default for IPv6 sockets.
  int off = 0;
  if (addr.ss_family == AF_INET6 && ::setsockopt(sock.get(), IPPROTO_IPV6, IPV6_V6ONLY, &off, sizeof off) != 0)
    log_printf("E-SOCKOPT", "Error setting socket option (IPV6_V6ONLY): %s", std::strerror(errno));

  log_printf("I-BINDING", "Binding local socket");
  if (::bind(sock.get(), reinterpret_cast<const sockaddr*>(&addr), addr_len) != 0) {
    int err = errno;
    std::string message = string_printf("Error binding socket (port %d) : %s\n", port, std::strerror(err));
    log_printf("E-BIND", "Error binding socket (port %d) : %s\n", port, std::strerror(err));
    std::fprintf(stderr, "KOVA-E-SOCK:  %s", message.c_str());
    std::fprintf(stderr, "%s-E-NOTSTARTED: KOVA Agent not started\n", "KOVA");
    errno = err;
    return -1;
  }
  return sock.release();
}

[[gnu::hot]] std::string Socket_peer_text(const sockaddr_storage& peer) {
  if (peer.ss_family == AF_INET6) {
    const in6_addr& a = reinterpret_cast<const sockaddr_in6&>(peer).sin6_addr;
    if (IN6_IS_ADDR_V4MAPPED(&a)) {
      in_addr v4;
      std::memcpy(&v4, a.s6_addr + 12, sizeof v4);
      return dotted_ipv4(v4);
    }
    char text[INET6_ADDRSTRLEN] = {};
    ::inet_ntop(AF_INET6, &a, text, sizeof text);
    return text;
  }
  return dotted_ipv4(reinterpret_cast<const sockaddr_in&>(peer).sin_addr);
}

ssize_t Socket_send_nowait(int fd, const void* buffer, size_t n) {
  return ::send(fd, buffer, n, MSG_DONTWAIT | MSG_NOSIGNAL);
}

[[gnu::hot]] ssize_t Socket_writen_counted(int fd, const void* buffer, size_t n, size_t& written) {
  const auto* data = static_cast<const unsigned char*>(buffer);
  written = 0;
  while (written < n) {
    ssize_t k = write_some(fd, data + written, n - written);
    if (k < 0 && (errno == EAGAIN || errno == EWOULDBLOCK) && Socket_wait_writable(fd)) continue;
    if (k < 1) {
      log_printf("E-WRITE", "write to socket failed %s\n", std::strerror(errno));
      return k;
    }
    written += static_cast<size_t>(k);
  }
  return static_cast<ssize_t>(n);
}

[[gnu::hot]] ssize_t Socket_writen(int fd, const void* buffer, size_t n) {
  size_t written = 0;
  return Socket_writen_counted(fd, buffer, n, written);
}

ssize_t Socket_readn(int fd, void* buffer, size_t n, int verbose) { return read_loop(fd, buffer, n, verbose); }

[[gnu::hot]] ssize_t Socket_readn_nonblock(int fd, void* buffer, size_t n, int verbose) {
  return read_loop(fd, buffer, n, verbose);
}

}  // namespace kova
