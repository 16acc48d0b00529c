#include "wire/socket_io.h"

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "base/log.h"
#include "platform/unique.h"

namespace kova {
namespace {

int poll_readable(int fd, int timeout_ms) {
  pollfd p{fd, POLLIN, 0};
  return ::poll(&p, 1, timeout_ms);
}

ssize_t write_some(int fd, const unsigned char* data, size_t n) {
  // The agent does not ignore SIGPIPE, and a server that hangs up mid-reply
  // must cost a log line, not the request process.
  ssize_t k = ::send(fd, data, n, MSG_NOSIGNAL);
  if (k < 0 && errno == ENOTSOCK) k = ::write(fd, data, n);
  return k;
}

ssize_t read_loop(int fd, void* buffer, size_t n, int verbose) {
  auto* out = static_cast<unsigned char*>(buffer);
  size_t got = 0;
  int failures = 0;
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
      wire_hooks().wait_readable(fd, kReadWaitMs);
      continue;
    }
    failures = 0;
    got += static_cast<size_t>(k);
  }
  return static_cast<ssize_t>(got);
}

}  // namespace

WireHooks& wire_hooks() {
  static WireHooks hooks{poll_readable};
  return hooks;
}

int Socket_Create(int port) {
  log_printf("I-SOCK", "Creating socket port %d", port);
  // A port beyond 16 bits would be cut to another one; no socket is made
  // for it at all.
  const bool port_valid = port >= 0 && port <= 65535;
  UniqueFd sock(port_valid ? ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0) : -1);
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

  log_printf("I-BINDING", "Binding local socket");
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_ANY);
  addr.sin_port = htons(static_cast<uint16_t>(port));
  if (::bind(sock.get(), reinterpret_cast<const sockaddr*>(&addr), sizeof addr) != 0) {
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

ssize_t Socket_writen_counted(int fd, const void* buffer, size_t n, size_t& written) {
  const auto* data = static_cast<const unsigned char*>(buffer);
  written = 0;
  while (written < n) {
    ssize_t k = write_some(fd, data + written, n - written);
    if (k < 1) {
      log_printf("E-WRITE", "write to socket failed %s\n", std::strerror(errno));
      return k;
    }
    written += static_cast<size_t>(k);
  }
  return static_cast<ssize_t>(n);
}

ssize_t Socket_writen(int fd, const void* buffer, size_t n) {
  size_t written = 0;
  return Socket_writen_counted(fd, buffer, n, written);
}

ssize_t Socket_readn(int fd, void* buffer, size_t n, int verbose) { return read_loop(fd, buffer, n, verbose); }

ssize_t Socket_readn_nonblock(int fd, void* buffer, size_t n, int verbose) {
  return read_loop(fd, buffer, n, verbose);
}

}  // namespace kova
