// The listening process: accept, check the peer, fork one child a request.
#pragma once

#include "agent/agent_state.h"

namespace kova {

// Serves connections on state.listen_fd for the life of the agent.
[[noreturn]] void request_loop(AgentState& state);

}  // namespace kova
