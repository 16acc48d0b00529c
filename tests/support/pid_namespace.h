// A private PID namespace for one test: the agent, its children and every
// one-shot run of the same test live in it, see only each other in their
// own /proc, and end with it. A name lookup made inside can find nothing of
// the host's.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <map>
#include <string>
#include <vector>

namespace kova::test {

// What to start inside the namespace.
struct Spawn {
  std::vector<std::string> argv;         // argv[0] is the program's path
  std::vector<std::string> env;          // "KEY=value", added to the test's environment
  std::string out_path, err_path;        // files for standard output and error (truncated)
  int uid = -1;                          // run under this user and group id (root only)
};

// A child of the test process creates the namespace; inside it, below init,
// a nursery starts programs when asked, reaps every process of the
// namespace (daemons' orphans included) and reports their exit statuses.
// Destroying the object ends the nursery and init, and with them every
// process inside. Pids are the namespace's own, as the agent writes them
// into its lock file and prints them.
class PidNamespace {
 public:
  PidNamespace();
  ~PidNamespace();
  PidNamespace(const PidNamespace&) = delete;
  PidNamespace& operator=(const PidNamespace&) = delete;

  // False when the host cannot give the test a namespace; why() says why.
  bool ok() const { return channel_ >= 0; }
  const std::string& why() const { return why_; }

  // The namespace of the test that is running, or nullptr.
  static PidNamespace* current();

  // Starts a program; its pid inside, or -1.
  pid_t spawn(const Spawn& spec);
  // The exit status of `pid` (128 + the signal for one killed), waiting up
  // to `limit` for it to end; -1 when it still runs.
  int wait(pid_t pid, std::chrono::milliseconds limit);
  // True while `pid` runs in this namespace.
  bool running(pid_t pid);
  // Sends `signal` to `pid` of this namespace; false when no such process
  // runs in it, so that a stale pid can never reach a process of the host.
  bool kill(pid_t pid, int signal);
  // The pid the test process sees for `pid`, or -1 when no such process of
  // this namespace exists.
  pid_t host_pid(pid_t pid) const;

 private:
  void take_reports(std::chrono::milliseconds limit);

  int channel_ = -1;         // to the nursery; closing it ends the namespace
  pid_t launcher_ = -1;      // the test's child that created the namespace
  unsigned long long inode_ = 0;  // the namespace's identity in /proc/<pid>/ns/pid
  std::string why_;
  std::map<pid_t, int> exited_;  // reported by the nursery
  pid_t last_spawned_ = -1;
};

}  // namespace kova::test
