// Starting other programs: the controlled components through a shell
// command line, the data tools from an argument vector. Either way the
// child starts with default signal handling and none of this process's
// descriptors beyond the ones it is given, so no program holds a server's
// connection or the listening port.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>
#include <vector>

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
// quoted every value in it. Only descriptors 0-2 are inherited. Returns the
// shell's wait status, or -1 when it could not be started or its status
// cannot be collected; callers decide by a status check afterwards.
int run_shell_command(const std::string& command_line);

// The most of a program's standard output that run_program keeps.
inline constexpr size_t kCommandOutputMax = 1024;

// How long a data tool may run. A tool that runs on past it is hung, not
// slow: the request it serves would otherwise hold its connection for ever.
inline constexpr int kProgramDeadlineMs = 30 * 60 * 1000;

// The program starter's one process-wide setting; tests shorten the
// deadline.
struct ProgramLimits {
  int deadline_ms = kProgramDeadlineMs;
};

ProgramLimits& program_limits();

// How run_program ended.
enum class ProgramRun {
  kNotStarted,  // fork or exec failed
  kFinished,    // the program ended by itself (its exit status is not examined)
  kKilled,      // still running at the deadline: it and its process group were killed
};

// Runs argv[0] with the arguments that follow, without a shell, in a
// process group of its own: standard input from /dev/null, standard output
// captured (up to kCommandOutputMax bytes into `output`, the rest read and
// dropped), standard error inherited. An argv[0] without a "/" is looked up
// in PATH, as a shell would. Waits for the program to end, at most
// program_limits().deadline_ms; then kills its whole process group
// (whatever the program started, unless it left the group) and waits for
// the program itself. errno is set when it was not started. Logs nothing:
// the caller knows what the tool was for.
[[nodiscard]] ProgramRun run_program(const std::vector<std::string>& argv, std::string& output);

// The deadline in whole seconds, rounded up, as log lines give it.
int program_deadline_seconds();

// As run_program, with the program started in `directory` (the caller's
// working directory stays as it is); not started also when it cannot be
// entered.
[[nodiscard]] ProgramRun run_program_in(const std::string& directory, const std::vector<std::string>& argv,
                                        std::string& output);

// The file a program name runs: `name` itself when it holds a "/", else the
// first executable "<dir>/<name>" of PATH (the system's default search path
// when PATH is unset); `name` when none is found.
std::string find_program(const std::string& name);

// Closes every descriptor from `first` on. `fd_limit` (descriptor_limit(),
// read beforehand) bounds the loop used where close_range(2) is missing.
// Async-signal-safe, so a child may call it between fork and exec.
void close_descriptors_from(int first, int fd_limit);
int descriptor_limit();

// Writes out what standard output and standard error still hold, as
// fflush would, before a fork (so a child does not write it again) or an
// _exit (which would drop it). Streams with nothing pending are left
// untouched, not even locked: the listening process forks for every
// request and should write to nothing it shares with its children. Other
// streams are the callers' own and closed before either point.
void flush_standard_streams();

// argv joined by blanks, as the command line reads in the log. No shell
// ever sees it: the program is started from the argument vector itself.
std::string command_text(const std::vector<std::string>& argv);

}  // namespace kova
