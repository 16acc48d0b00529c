#include "components/command.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

namespace kova {

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
  long open_max = ::sysconf(_SC_OPEN_MAX);
  const int fd_limit = open_max > 0 && open_max < 65536 ? static_cast<int>(open_max) : 65536;

  pid_t pid = ::fork();
  if (pid < 0) return -1;
  if (pid == 0) {
    // ---- child
    for (int sig = 1; sig < NSIG; ++sig) (void)std::signal(sig, SIG_DFL);
    sigset_t none;
    sigemptyset(&none);
    (void)::sigprocmask(SIG_SETMASK, &none, nullptr);
    // The listening socket and the log must not live on in a collector
    // that runs for months.
    if (::close_range(3, ~0U, 0) != 0)
      for (int fd = 3; fd < fd_limit; ++fd) (void)::close(fd);
    ::execv("/bin/sh", const_cast<char* const*>(argv));
    ::_exit(127);
  }
  // ---- parent
  ChildProcess child(pid);
  return child.wait();
}

}  // namespace kova
