// One request: read the 40-byte request packet, dispatch on its opcode (or
// on the tag of an extended request), reply, and report the result.
#pragma once

#include <string>

#include "agent/agent_state.h"

namespace kova {

// Serves the request on connection `fd` from `address`. `pid` is the
// request child's pid for the verbose log line (a child whose line is off
// may pass 0), 0 when the agent serves requests itself. Returns
// kDispatchTerminate for a terminate request; other values are informative.
int process_request(int fd, const std::string& address, AgentState& state, int pid);

}  // namespace kova
