// The integration suite runs in a private PID namespace. Before main, the
// test binary unshares a mount and a PID namespace; their init mounts a
// /proc of the namespace's own and starts the tests as its child (pid 2, a
// child subreaper), and the process that was started only waits and exits
// with the tests' status. So everything a test starts, the agent's name
// lookups and every pid the test signals stay inside, and all of it ends
// with the test binary. Under ctest each test is a binary run of its own.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

namespace kova::test {

// "" when this process runs the tests inside the namespace, else why not
// (the host cannot give it one: not root).
const std::string& pid_namespace_problem();

// What to start.
struct Spawn {
  std::vector<std::string> argv;   // argv[0] is the program's path
  std::vector<std::string> env;    // "KEY=value", added to the test's environment
  std::string out_path, err_path;  // files for standard output and error (truncated)
  int uid = -1;                    // run under this user and group id (root only)
};

// Starts a program with standard input from /dev/null and one stray
// inheritable descriptor (9), as from a careless parent; its pid, or -1.
pid_t spawn(const Spawn& spec);
// The exit status of `pid` (128 + the signal for one killed), waiting up to
// `limit` for it to end; -1 when it still runs or its status is not this
// process's to know. Orphans become this process's children, so a
// daemonised program's status is known too.
int wait_for(pid_t pid, std::chrono::milliseconds limit);
// True while `pid` runs.
bool running(pid_t pid);
// Sends `signal` to `pid` while it runs; never to init or this process.
bool send_signal(pid_t pid, int signal);
// Kills every process of the namespace but init and this one, and reaps
// them (at most 5 s): nothing a test started outlives it.
void end_leftovers();

}  // namespace kova::test
