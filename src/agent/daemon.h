// Detaching from the terminal, and the one way the running agent ends.
#pragma once

#include <string>

namespace kova {

// Detaches the process (two forks, a new session, the priority applied),
// moves to `directory`, closes every inherited descriptor above the
// standard three and opens /dev/null on any standard descriptor that is
// closed. Returns 1, or -1 when the first fork fails.
int make_daemon(const std::string& directory, int priority);

// Records what TerminateAgent must undo: the calling process's listening
// socket and, while use_lock is 1, the lock file to remove. Call again
// whenever either changes. Request children inherit the record as it is
// (writing it would cost each child a copy of its page); TerminateAgent
// closes the socket only in the process that recorded it.
void set_terminate_state(int listen_fd, int use_lock, const std::string& lock_path);

// Closes the listening socket, removes the lock file when use_lock was 1,
// and ends the process with status 0. Also the handler of the terminating
// signals; it does only async-signal-safe work.
[[noreturn]] void TerminateAgent(int signal);

// SIGHUP, SIGINT, SIGQUIT, SIGABRT and SIGTERM end the agent; SIGCHLD is
// ignored with SA_NOCLDWAIT so request children are reaped by the system.
// With count_children (hardened mode) the agent reaps them itself instead,
// to know how many run: SIGCHLD then only interrupts its wait.
void install_signal_dispositions(bool count_children = false);

}  // namespace kova
