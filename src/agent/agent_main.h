// The agent's start-up, from the first instruction to the request loop.
#pragma once

namespace kova {

// Runs the agent; returns the process's exit status for the one-shot modes
// (a started agent never returns).
int agent_main(int argc, char** argv);

}  // namespace kova
