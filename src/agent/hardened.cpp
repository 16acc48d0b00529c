#include "agent/hardened.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cerrno>
#include <cstring>

#include "agent/agent_state.h"
#include "base/clock.h"
#include "base/codes.h"
#include "base/log.h"
#include "wire/packet.h"
#include "wire/socket_io.h"

namespace kova {
namespace {

// The line a request child leaves when its time is up, made when the alarm
// is set, so that the handler does nothing but write it and exit.
struct DeadlineLine {
  char log_path[4096] = {};
  char line[1024] = {};
  size_t length = 0;
};

DeadlineLine g_deadline;

void on_deadline(int /*signal*/) {
  if (g_deadline.log_path[0] != '\0') {
    const int fd = ::open(g_deadline.log_path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    if (fd >= 0) {
      (void)!::write(fd, g_deadline.line, g_deadline.length);
      ::close(fd);
    }
  }
  ::_exit(1);
}

// Copies `text` into a fixed buffer, cut to fit and always terminated.
template <size_t N>
size_t copy_cut(char (&out)[N], const std::string& text) {
  const size_t n = std::min(text.size(), N - 1);
  std::memcpy(out, text.data(), n);
  out[n] = '\0';
  return n;
}

}  // namespace

void prepare_hardened_loop(AgentState& state) {
  sigset_t child;
  sigemptyset(&child);
  sigaddset(&child, SIGCHLD);
  // Fails only for a bad argument: these are fixed.
  (void)::sigprocmask(SIG_BLOCK, &child, &state.hardened.wait_mask);
  sigdelset(&state.hardened.wait_mask, SIGCHLD);
  // A connection reset between the wait and accept must not block the loop.
  const int flags = ::fcntl(state.listen_fd, F_GETFL);
  if (flags >= 0) (void)::fcntl(state.listen_fd, F_SETFL, flags | O_NONBLOCK);
  wire_hooks().read_total_ms = kHardenedReadTotalMs;
}

void reap_children(HardenedState& hardened) {
  int status;
  while (::waitpid(-1, &status, WNOHANG) > 0)
    if (hardened.children > 0) --hardened.children;
}

UniqueFd accept_hardened(AgentState& state, sockaddr_storage& peer) {
  reap_children(state.hardened);
  pollfd listening{state.listen_fd, POLLIN, 0};
  // SIGCHLD is let through only inside the wait, so a child that ends
  // between the reap above and the wait still wakes it.
  if (::ppoll(&listening, 1, nullptr, &state.hardened.wait_mask) < 0) return UniqueFd();
  socklen_t peer_len = sizeof peer;
  return UniqueFd(::accept4(state.listen_fd, reinterpret_cast<sockaddr*>(&peer), &peer_len, SOCK_CLOEXEC));
}

void refuse_unregistered_at_once(UniqueFd connection, const std::string& address, HardenedState& hardened) {
  PacketBuffer reply{};
  Packet_CreateERR(kResultUnregisteredServer, reply);
  // A fresh connection's send buffer always has room for 8 bytes; a peer
  // that has gone already costs nothing.
  (void)Socket_send_nowait(connection.get(), reply.data(), 8);
  connection.reset();

  const std::time_t now = clock_now();
  auto& seen = hardened.refused_logged;
  if (auto at = seen.find(address); at != seen.end()) {
    if (now >= at->second && now - at->second < kUnregisteredLogPeriod) return;
    at->second = now;
  } else {
    if (seen.size() >= kUnregisteredLogPeers)
      std::erase_if(seen, [&](const auto& entry) {
        return now < entry.second || now - entry.second >= kUnregisteredLogPeriod;
      });
    // A flood from more addresses than that within a minute is not logged
    // address by address: the log is no place for it.
    if (seen.size() >= kUnregisteredLogPeers) return;
    seen.emplace(address, now);
  }
  log_printf("W-UNREG_SERV", "Request from unregistered server %s", address.c_str());
}

bool request_limit_reached(AgentState& state, const std::string& address) {
  HardenedState& hardened = state.hardened;
  if (hardened.children < state.settings.max_requests) {
    hardened.limit_logged = false;
    return false;
  }
  if (!hardened.limit_logged)
    log_printf("W-REQ_LIMIT", "%d requests running, the most at once: connection from %s closed",
               hardened.children, address.c_str());
  hardened.limit_logged = true;
  return true;
}

void enter_hardened_child(const AgentState& state) {
  std::signal(SIGCHLD, SIG_DFL);  // the programs a request starts are waited for
  (void)::sigprocmask(SIG_SETMASK, &state.hardened.wait_mask, nullptr);
  arm_request_deadline(kRequestLifetimeSeconds);
}

void arm_request_deadline(unsigned seconds) {
  const std::time_t at = clock_now() + static_cast<std::time_t>(seconds);
  char stamp[64] = {};
  if (ctime_r(&at, stamp) != nullptr) stamp[std::strcspn(stamp, "\n")] = '\0';
  copy_cut(g_deadline.log_path, log_state().logfile);
  const std::string message =
      string_printf("Request child pid %d still running after %u seconds, ending", ::getpid(), seconds);
  g_deadline.length = copy_cut(g_deadline.line, format_log_line(stamp, "E-REQ_TIMEOUT", message));
  struct sigaction expire {};
  expire.sa_handler = on_deadline;
  sigemptyset(&expire.sa_mask);
  ::sigaction(SIGALRM, &expire, nullptr);
  ::alarm(seconds);
}

}  // namespace kova
