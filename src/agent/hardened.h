// The listening process and its request children in hardened mode: peers
// that are not registered are refused without a read, request children are
// counted and bounded, and each child's reads and life are bounded in time.
#pragma once

#include <signal.h>
#include <sys/socket.h>

#include <ctime>
#include <string>
#include <unordered_map>

#include "platform/unique.h"

namespace kova {

struct AgentState;

// The longest a request child may run in hardened mode, in seconds.
inline constexpr unsigned kRequestLifetimeSeconds = 30 * 60;
// "W-UNREG_SERV" is logged at most once per peer address in this many
// seconds, for at most kUnregisteredLogPeers addresses at once.
inline constexpr std::time_t kUnregisteredLogPeriod = 60;
inline constexpr size_t kUnregisteredLogPeers = 1024;

// What the listening process keeps in hardened mode.
struct HardenedState {
  int children = 0;            // request children started and not yet reaped
  bool limit_logged = false;   // the current burst over the limit has been logged
  std::unordered_map<std::string, std::time_t> refused_logged;  // peer -> its last "W-UNREG_SERV"
  sigset_t wait_mask{};        // the signal mask while waiting for a connection
};

// Before the first accept: SIGCHLD is blocked except while waiting for a
// connection, the listening socket stops blocking, reads get their total
// bound.
void prepare_hardened_loop(AgentState& state);

// Reaps finished request children, then waits for a connection with SIGCHLD
// let through, so that a child that ends wakes the wait. Returns the
// connection, or an empty handle with errno set: EINTR, EAGAIN and
// ECONNABORTED mean "wait again"; anything else is an accept error.
UniqueFd accept_hardened(AgentState& state, sockaddr_storage& peer);

// Collects every finished request child without waiting.
void reap_children(HardenedState& hardened);

// An unregistered peer: nothing is read from it; the 8-byte ERR packet with
// code 10 goes out in one send that never waits, the connection is closed,
// and "W-UNREG_SERV" is logged unless it was for this address within the
// last minute.
void refuse_unregistered_at_once(UniqueFd connection, const std::string& address, HardenedState& hardened);

// True when max_requests children run already: the caller closes the
// connection at once. The first refusal of a burst is logged.
[[nodiscard]] bool request_limit_reached(AgentState& state, const std::string& address);

// In a request child just forked: the signal mask and SIGCHLD as a program
// starter expects them, and the child's whole life bounded by
// arm_request_deadline(kRequestLifetimeSeconds).
void enter_hardened_child(const AgentState& state);

// Ends this process `seconds` from now with "E-REQ_TIMEOUT" in the agent log
// and exit status 1, whatever it is doing then. The line is made now; the
// alarm handler only writes it and exits.
void arm_request_deadline(unsigned seconds);

}  // namespace kova
