// The listening process: accept, check the peer, fork one child a request.
#pragma once

#include <ctime>

#include "agent/agent_state.h"

namespace kova {

// How long the listening process pauses when accept fails for want of
// descriptors or buffers: the connection waits in the queue meanwhile, and
// the loop does not spin while the shortage lasts.
inline constexpr int kAcceptPauseMs = 100;

// What the loop does after accept failed with `err`.
struct AcceptFailure {
  bool log = true;     // write the "E-ACCEPT" line
  bool pause = false;  // wait kAcceptPauseMs before accepting again
};

// A shortage (EMFILE, ENFILE, ENOBUFS, ENOMEM) pauses the loop and is
// logged at most once a second: `last_logged` keeps the second it last was.
// Any other failure is logged each time, without a pause.
AcceptFailure judge_accept_failure(int err, std::time_t now, std::time_t& last_logged);

// Serves connections on state.listen_fd for the life of the agent.
[[noreturn]] void request_loop(AgentState& state);

}  // namespace kova
