// Running the command lines that start and stop the controlled programs.
#pragma once

#include <sys/types.h>

#include <string>

namespace kova {

// A child process this process started; the destructor waits for it, so no
// child outlives its owner as a zombie.
class ChildProcess {
 public:
  ChildProcess() = default;
  explicit ChildProcess(pid_t pid) : pid_(pid) {}
  ChildProcess(ChildProcess&& other) noexcept : pid_(other.pid_) { other.pid_ = -1; }
  ChildProcess& operator=(ChildProcess&& other) noexcept;
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;
  ~ChildProcess() { (void)wait(); }

  pid_t pid() const { return pid_; }
  // Waits for the child; returns its wait status, or -1 when there is no
  // child or its status is not ours to collect (SIGCHLD ignored).
  int wait();

 private:
  pid_t pid_ = -1;
};

// Runs `command_line` with "/bin/sh -c", as system(3) does: the caller has
// quoted every value in it. The child starts with default signal handling
// and only descriptors 0-2. Returns the shell's wait status, or -1 when it
// could not be started or its status cannot be collected; the callers decide
// by a status check afterwards, not by this value.
int run_shell_command(const std::string& command_line);

}  // namespace kova
