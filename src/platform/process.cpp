#include "platform/process.h"

#include <fcntl.h>
#include <poll.h>
#include <stdio_ext.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "platform/unique.h"

namespace kova {
namespace {

// In the child between fork and exec: default signal handling, nothing
// blocked, and every descriptor from `first` on closed. Async-signal-safe.
void reset_child(int first, int fd_limit) {
  for (int sig = 1; sig < NSIG; ++sig) (void)std::signal(sig, SIG_DFL);
  sigset_t none;
  sigemptyset(&none);
  (void)::sigprocmask(SIG_SETMASK, &none, nullptr);
  close_descriptors_from(first, fd_limit);
}

// Moves a descriptor above 9, so that none the child rearranges can be
// clobbered by dup2 onto 0, 1 or 3.
UniqueFd moved_high(int fd) {
  if (fd < 0) return UniqueFd();
  UniqueFd moved(::fcntl(fd, F_DUPFD_CLOEXEC, 10));
  ::close(fd);
  return moved;
}

// Milliseconds from now to `deadline`, 0 once it has passed.
int ms_until(std::chrono::steady_clock::time_point deadline) {
  const auto left =
      std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now()).count();
  return static_cast<int>(std::clamp<long long>(left, 0, INT_MAX));
}

}  // namespace

int descriptor_limit() {
  const long open_max = ::sysconf(_SC_OPEN_MAX);
  return open_max > 0 && open_max < 65536 ? static_cast<int>(open_max) : 65536;
}

void close_descriptors_from(int first, int fd_limit) {
  if (::close_range(static_cast<unsigned>(first), ~0U, 0) != 0)
    for (int fd = first; fd < fd_limit; ++fd) (void)::close(fd);
}

[[gnu::hot]] void flush_standard_streams() {
  for (std::FILE* stream : {stdout, stderr})
    if (__fpending(stream) > 0) (void)std::fflush(stream);
}

ProgramLimits& program_limits() {
  static ProgramLimits limits;
  return limits;
}

int program_deadline_seconds() { return (program_limits().deadline_ms + 999) / 1000; }

ChildProcess& ChildProcess::operator=(ChildProcess&& other) noexcept {
  if (this != &other) {
    (void)wait();
    pid_ = other.pid_;
    other.pid_ = -1;
  }
  return *this;
}

int ChildProcess::wait() {
  if (pid_ < 0) return -1;
  int status = 0;
  pid_t r;
  while ((r = ::waitpid(pid_, &status, 0)) == -1 && errno == EINTR) {
  }
  pid_ = -1;
  // With SIGCHLD ignored waitpid returns ECHILD, but only once the child
  // has gone; the caller has still waited for it.
  return r == -1 ? -1 : status;
}

int run_shell_command(const std::string& command_line) {
  // Everything the child needs is ready before fork: it may not allocate.
  const char* argv[] = {"sh", "-c", command_line.c_str(), nullptr};
  const int fd_limit = descriptor_limit();

  const pid_t pid = ::fork();
  if (pid < 0) return -1;
  if (pid == 0) {
    // ---- child: a collector runs for months; the listening socket and the
    // log must not live on in it.
    reset_child(3, fd_limit);
    ::execv("/bin/sh", const_cast<char* const*>(argv));
    ::_exit(127);
  }
  // ---- parent
  ChildProcess child(pid);
  return child.wait();
}

std::string find_program(const std::string& name) {
  if (name.empty() || name.find('/') != std::string::npos) return name;
  std::string path;
  if (const char* env = std::getenv("PATH"); env != nullptr) {
    path = env;
  } else {
    std::vector<char> standard(::confstr(_CS_PATH, nullptr, 0) + 1, '\0');
    (void)::confstr(_CS_PATH, standard.data(), standard.size());
    path = standard.data();
  }
  for (size_t start = 0;;) {
    const size_t end = path.find(':', start);
    const std::string_view dir =
        std::string_view(path).substr(start, end == std::string::npos ? std::string::npos : end - start);
    const std::string candidate = std::string(dir.empty() ? "." : dir) + "/" + name;
    struct stat st;
    if (::stat(candidate.c_str(), &st) == 0 && S_ISREG(st.st_mode) && ::access(candidate.c_str(), X_OK) == 0)
      return candidate;
    if (end == std::string::npos) return name;
    start = end + 1;
  }
}

ProgramRun run_program(const std::vector<std::string>& argv, std::string& output) {
  return run_program_in(std::string(), argv, output);
}

ProgramRun run_program_in(const std::string& directory, const std::vector<std::string>& argv, std::string& output) {
  output.clear();
  if (argv.empty()) return ProgramRun::kNotStarted;
  // Everything the child needs is ready before fork: it may not allocate.
  const std::string program = find_program(argv[0]);
  std::vector<char*> args;
  for (const std::string& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
  args.push_back(nullptr);

  int out_pipe[2], exec_pipe[2];
  if (::pipe2(out_pipe, O_CLOEXEC) != 0) return ProgramRun::kNotStarted;
  UniqueFd out_read(moved_high(out_pipe[0])), out_write(moved_high(out_pipe[1]));
  if (::pipe2(exec_pipe, O_CLOEXEC) != 0) return ProgramRun::kNotStarted;
  UniqueFd exec_read(moved_high(exec_pipe[0])), exec_write(moved_high(exec_pipe[1]));
  UniqueFd null_in(moved_high(::open("/dev/null", O_RDONLY | O_CLOEXEC)));
  if (!out_read || !out_write || !exec_read || !exec_write || !null_in) return ProgramRun::kNotStarted;
  const int fd_limit = descriptor_limit();

  const pid_t pid = ::fork();
  if (pid < 0) return ProgramRun::kNotStarted;
  if (pid == 0) {
    // ---- child: a group of its own, so that a hung tool is killed with
    // whatever it started; descriptor 3 carries an exec failure back and
    // closes on exec.
    (void)::setpgid(0, 0);
    if (::dup2(null_in.get(), 0) < 0 || ::dup2(out_write.get(), 1) < 0 ||
        ::dup3(exec_write.get(), 3, O_CLOEXEC) < 0)
      ::_exit(127);
    reset_child(4, fd_limit);
    if (directory.empty() || ::chdir(directory.c_str()) == 0) ::execv(program.c_str(), args.data());
    const int err = errno;
    (void)!::write(3, &err, sizeof err);
    ::_exit(127);
  }
  // ---- parent: the group is set on both sides, so that it exists before
  // either goes on (the parent's call fails harmlessly once the child has
  // exec'd).
  (void)::setpgid(pid, pid);
  ChildProcess child(pid);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(program_limits().deadline_ms);
  out_write.reset();
  exec_write.reset();
  null_in.reset();

  int exec_error = 0;
  ssize_t n;
  while ((n = ::read(exec_read.get(), &exec_error, sizeof exec_error)) < 0 && errno == EINTR) {
  }
  if (n == static_cast<ssize_t>(sizeof exec_error)) {
    errno = exec_error;
    return ProgramRun::kNotStarted;
  }

  // Read to the end even past what is kept: the tool must not die of a
  // full pipe before it has written its file. The program's end is watched
  // as well, since one that closed its output can still hang. Without a
  // pidfd (kernels before 5.3) only the output is bounded.
  // (The system call directly: this C library's header lacks C linkage.)
  UniqueFd ended(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)));
  bool reading = true;
  bool running = ended.valid();
  char piece[4096];
  while (reading || running) {
    pollfd watched[2];
    nfds_t count = 0;
    if (reading) watched[count++] = {out_read.get(), POLLIN, 0};
    if (running) watched[count++] = {ended.get(), POLLIN, 0};
    const int left = ms_until(deadline);
    if (left == 0) {
      if (::kill(-pid, SIGKILL) != 0) (void)::kill(pid, SIGKILL);
      (void)child.wait();
      return ProgramRun::kKilled;
    }
    if (::poll(watched, count, left) <= 0) continue;  // the deadline is checked above
    for (nfds_t i = 0; i < count; ++i) {
      if (watched[i].revents == 0) continue;
      if (watched[i].fd == ended.get()) {
        running = false;
        continue;
      }
      const ssize_t k = ::read(out_read.get(), piece, sizeof piece);
      if (k < 0 && errno == EINTR) continue;
      if (k <= 0) {
        reading = false;
        continue;
      }
      const size_t room = kCommandOutputMax - std::min(output.size(), kCommandOutputMax);
      output.append(piece, std::min(static_cast<size_t>(k), room));
    }
  }
  (void)child.wait();
  return ProgramRun::kFinished;
}

std::string command_text(const std::vector<std::string>& argv) {
  std::string text;
  for (const std::string& arg : argv) {
    if (!text.empty()) text += ' ';
    text += arg;
  }
  return text;
}

}  // namespace kova
