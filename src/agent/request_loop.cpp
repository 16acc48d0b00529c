#include "agent/request_loop.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "agent/daemon.h"
#include "base/clock.h"
#include "agent/dispatch.h"
#include "agent/hardened.h"
#include "base/log.h"
#include "agent/log_day.h"
#include "platform/process.h"
#include "platform/self_memory.h"
#include "platform/unique.h"
#include "settings/hardening.h"
#include "wire/packet.h"
#include "wire/request.h"
#include "wire/socket_io.h"
#include "base/codes.h"

namespace kova {
namespace {

// A peer that is not a registered server gets its request drained and an
// error packet. The drain runs in the listening process itself, before any
// fork, so a failed drain ends the agent; that exit is kept as it always was.
void refuse_unregistered(UniqueFd connection, const std::string& address, const AgentState& state) {
  PacketBuffer request{};
  if (Socket_readn(connection.get(), request.data(), kRequestSize, state.detailed_logging) < 0) {
    if (state.detailed_logging == 1) write_to_log("E-READ", "Couldnt read socket, exiting child...");
    connection.reset();
    std::exit(0);
  }
  log_printf("W-UNREG_SERV", "Request from unregistered server %s", address.c_str());
  PacketBuffer reply{};
  Packet_CreateERR(kResultUnregisteredServer, reply);
  (void)Socket_writen(connection.get(), reply.data(), 8);
}

void pause_accepting() {
  timespec left{0, kAcceptPauseMs * 1000000L};
  while (::nanosleep(&left, &left) != 0 && errno == EINTR) {
  }
}

}  // namespace

AcceptFailure judge_accept_failure(int err, std::time_t now, std::time_t& last_logged) {
  if (err != EMFILE && err != ENFILE && err != ENOBUFS && err != ENOMEM) return {};
  AcceptFailure failure{now != last_logged, true};
  if (failure.log) last_logged = now;
  return failure;
}

// [[gnu::hot]] marks the code every request runs, here and in the layers
// below: the compiler places it in one stretch of the binary, so that the
// listening process, and each child, which faults in afresh every page of
// code it runs, touch a few pages of code rather than some in every part.
[[gnu::hot]] void request_loop(AgentState& state) {
  AgentSettings& settings = state.settings;
  // KOVA_DEBUG turns detailed logging on at the next connection. Nothing
  // in the agent changes its own environment, so one look serves every
  // connection and keeps the loop from reading it again for each.
  const bool debug_from_environment = std::getenv("KOVA_DEBUG") != nullptr;
  std::time_t shortage_logged = -1;
  const bool hardened = settings.harden == 1;
  // Hardened mode counts its request children only where it forks them.
  const bool counted = hardened && settings.fork != 0;
  if (hardened) prepare_hardened_loop(state);
  release_startup_memory();
  for (;;) {
    sockaddr_storage peer{};
    UniqueFd connection;
    if (hardened) {
      connection = accept_hardened(state, peer);
      if (!connection && (errno == EINTR || errno == EAGAIN || errno == EWOULDBLOCK || errno == ECONNABORTED))
        continue;  // a child ended, or the peer left before it was accepted
    } else {
      socklen_t peer_len = sizeof peer;
      connection.reset(::accept4(state.listen_fd, reinterpret_cast<sockaddr*>(&peer), &peer_len, SOCK_CLOEXEC));
    }
    if (!connection) {
      const int err = errno;
      const AcceptFailure failure = judge_accept_failure(err, clock_now(), shortage_logged);
      if (failure.log) log_printf("E-ACCEPT", "accept() error : %s", std::strerror(err));
      if (settings.use_lock == 1) ::unlink(settings.agent_lock_path.c_str());
      if (failure.pause) pause_accepting();
      continue;
    }
    const std::string address = Socket_peer_text(peer);

    if (debug_from_environment) state.detailed_logging = 1;
    if (state.detailed_logging == 1) log_printf("I-REQ", "Request from: %s", address.c_str());

    if (!server_admitted(settings, address, settings.server)) {
      if (hardened)
        refuse_unregistered_at_once(std::move(connection), address, state.hardened);
      else
        refuse_unregistered(std::move(connection), address, state);
      continue;
    }
    if (counted && request_limit_reached(state, address)) continue;  // closed at once

    if (++state.command_count > state.message_repeat) state.command_count = 0;
    if (get_log_file_name_unix(settings) == 1) write_log_header(settings);

    if (settings.fork == 0) {
      int result = process_request(connection.get(), address, state, 0);
      connection.reset();
      if (result == kDispatchTerminate) TerminateAgent(0);
      continue;
    }

    // Between forks the listening process writes as little memory as it
    // can: every page it writes after a fork is copied for it, and every
    // page a child writes is copied for the child.
    flush_standard_streams();  // nothing buffered may be written twice
    pid_t pid = ::fork();
    if (pid != 0) {  // the parent (or a failed fork) drops its copy
      if (pid > 0 && counted) ++state.hardened.children;
      continue;
    }

    // ---- the request child
    ::close(state.listen_fd);
    state.listen_fd = -1;
    if (hardened) enter_hardened_child(state);
    // The child's pid is wanted only by the detailed and verbose lines.
    const int child_pid = state.detailed_logging == 1 || settings.verbose != 0 ? ::getpid() : 0;
    if (state.detailed_logging == 1) log_printf("I-REQ_STR", "Request started: pid %d", child_pid);
    int result = process_request(connection.get(), address, state, child_pid);
    if (result == kDispatchTerminate) {
      connection.reset();
      TerminateAgent(0);  // ends this child only
    }
    if (state.detailed_logging == 1) log_printf("I-REQ_FIN", "Request finished: pid %d", child_pid);
    flush_standard_streams();
    ::_exit(0);  // closes the connection with every other descriptor; runs no exit handlers
  }
}

}  // namespace kova
