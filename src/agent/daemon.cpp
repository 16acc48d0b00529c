#include "agent/daemon.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>

#include "base/log.h"
#include "platform/process.h"

namespace kova {
namespace {

// What the terminating signal handler needs, kept where a handler can read
// it without allocating.
struct TerminateState {
  volatile sig_atomic_t listen_fd = -1;
  volatile sig_atomic_t listen_fd_owner = -1;  // the process that listens on it
  volatile sig_atomic_t use_lock = 0;
  char lock_path[4096] = {};
};

TerminateState g_terminate;

void on_terminate(int signal) { TerminateAgent(signal); }

void on_child_ended(int /*signal*/) {}

}  // namespace

void set_terminate_state(int listen_fd, int use_lock, const std::string& lock_path) {
  g_terminate.use_lock = 0;
  size_t n = std::min(lock_path.size(), sizeof g_terminate.lock_path - 1);
  std::memcpy(g_terminate.lock_path, lock_path.data(), n);
  g_terminate.lock_path[n] = '\0';
  g_terminate.listen_fd_owner = ::getpid();
  g_terminate.listen_fd = listen_fd;
  g_terminate.use_lock = use_lock;
}

void TerminateAgent(int /*signal*/) {
  // A request child closed its copy of the socket at once, and the number
  // may name another of its files by now.
  if (g_terminate.listen_fd >= 0 && g_terminate.listen_fd_owner == ::getpid()) ::close(g_terminate.listen_fd);
  if (g_terminate.use_lock == 1 && g_terminate.lock_path[0] != '\0') ::unlink(g_terminate.lock_path);
  ::_exit(0);
}

void install_signal_dispositions(bool count_children) {
  for (int sig : {SIGHUP, SIGINT, SIGQUIT, SIGABRT, SIGTERM}) std::signal(sig, on_terminate);
  struct sigaction children {};
  sigemptyset(&children.sa_mask);
  if (count_children) {
    children.sa_handler = on_child_ended;  // no SA_RESTART: the wait returns
  } else {
    children.sa_handler = SIG_IGN;
    children.sa_flags = SA_NOCLDWAIT;
  }
  ::sigaction(SIGCHLD, &children, nullptr);
}

int make_daemon(const std::string& directory, int priority) {
  if (::getppid() != 1) {
    std::signal(SIGTTOU, SIG_IGN);
    std::signal(SIGTTIN, SIG_IGN);
    std::signal(SIGTSTP, SIG_IGN);

    std::fflush(nullptr);  // nothing buffered may be written twice
    pid_t pid = ::fork();
    if (pid < 0) return -1;
    if (pid > 0) ::_exit(0);

    (void)::nice(priority);  // a priority the account may not take leaves the default
    // A new session as well as a new process group: the agent leaves the
    // terminal it was started from behind.
    if (::setsid() < 0) log_printf("E-SETPGRP", "start_daemon: setpgrp failed: %s", std::strerror(errno));

    std::signal(SIGHUP, SIG_IGN);  // a daemon is not ended by its terminal hanging up
    pid = ::fork();
    if (pid < 0)
      log_printf("E-FORK", "make_daemon: fork failed: %s", std::strerror(errno));
    else if (pid > 0)
      ::_exit(0);
  }
  (void)::chdir(directory.c_str());  // on failure it stays put: every path used is absolute
  ::umask(022);
  // Nothing above the standard three is the agent's own yet: whatever the
  // starting shell or program left open would otherwise stay open for the
  // daemon's life, and be copied into every request child.
  close_descriptors_from(STDERR_FILENO + 1, descriptor_limit());
  // Standard input, output and error stay where they were: the agent still
  // writes its start-up messages there, and admins' scripts read them. Only
  // one the agent was started without is filled with /dev/null, so that the
  // listening socket or a file can never take its place and receive what is
  // meant for the terminal. Copies above the standard three are not needed.
  int null_fds[3] = {::open("/dev/null", O_RDWR), -1, -1};
  if (null_fds[0] >= 0) {
    null_fds[1] = ::dup(null_fds[0]);
    null_fds[2] = ::dup(null_fds[0]);
  }
  for (int fd : null_fds)
    if (fd > STDERR_FILENO) ::close(fd);
  return 1;
}

}  // namespace kova
