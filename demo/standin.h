// What the three stand-in programs of the demo install tree share: the
// command line, detaching with a ready signal to the starter, the stop flag
// and the lock-file discipline of the real programs.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <string>

namespace standin {

inline volatile sig_atomic_t stop_requested = 0;

inline void on_stop_signal(int) { stop_requested = 1; }

struct Options {
  std::string user;     // -user
  std::string rootdir;  // -rootdir
  bool stop = false;    // -stop
  bool bad = false;
};

inline Options parse_options(int argc, char** argv) {
  Options o;
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    if (arg == "-user" && i + 1 < argc)
      o.user = argv[++i];
    else if (arg == "-rootdir" && i + 1 < argc)
      o.rootdir = argv[++i];
    else if (arg == "-stop")
      o.stop = true;
    else if (arg == "-silent")
      continue;
    else
      o.bad = true;
  }
  return o;
}

// Catches SIGINT and SIGTERM into stop_requested, without SA_RESTART so
// that a sleep ends at once.
inline void catch_stop_signals() {
  struct sigaction sa {};
  sa.sa_handler = on_stop_signal;
  sigemptyset(&sa.sa_mask);
  sigaction(SIGINT, &sa, nullptr);
  sigaction(SIGTERM, &sa, nullptr);
}

// Sleeps up to `ms` milliseconds; false when a stop signal came.
inline bool nap(long ms) {
  timespec left{ms / 1000, (ms % 1000) * 1000000L};
  while (!stop_requested && nanosleep(&left, &left) == -1 && errno == EINTR) {
  }
  return !stop_requested;
}

// Detaches from the starter. The starter (the shell the agent ran) returns
// only when the detached copy reports ready, so that the agent's status
// check right after the start finds the lock file. Returns in the detached
// copy with the descriptor on which to report; the starter exits here.
inline int detach() {
  int ready[2];
  if (pipe(ready) != 0) {
    std::perror("pipe");
    std::exit(1);
  }
  pid_t pid = fork();
  if (pid < 0) {
    std::perror("fork");
    std::exit(1);
  }
  if (pid > 0) {
    close(ready[1]);
    char byte = 0;
    ssize_t n;
    while ((n = read(ready[0], &byte, 1)) == -1 && errno == EINTR) {
    }
    std::exit(n == 1 ? 0 : 1);
  }
  close(ready[0]);
  setsid();
  int null = open("/dev/null", O_RDWR);
  if (null >= 0) {
    dup2(null, 0);
    dup2(null, 1);
    dup2(null, 2);
    if (null > 2) close(null);
  }
  return ready[1];
}

inline void report_ready(int fd) {
  char byte = 1;
  (void)!write(fd, &byte, 1);
  close(fd);
}

// Creates `path` exclusively and holds a lockf lock on it while `write`
// fills it, as the real programs do. False with a message on failure.
template <typename Writer>
bool write_lock_file(const std::string& path, mode_t mode, const char* program, Writer&& write) {
  int fd = open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, mode);
  if (fd < 0) {
    std::fprintf(stderr, "Unable to create lock file, %s\n", std::strerror(errno));
    return false;
  }
  fchmod(fd, mode);  // whatever the umask
  FILE* f = fdopen(fd, "w");
  if (f == nullptr) {
    std::fprintf(stderr, "Fatal: Unable to write to lockfile : %s , %s\n", path.c_str(), std::strerror(errno));
    close(fd);
    return false;
  }
  if (lockf(fd, F_TLOCK, 0) != 0) {
    std::fprintf(stderr, "Fatal: %s is already running\n", program);
    fclose(f);
    return false;
  }
  write(f);
  return fclose(f) == 0;
}

// ctime(3) text without its line feed.
inline std::string ctime_text(std::time_t when) {
  char buf[64] = {};
  if (ctime_r(&when, buf) == nullptr) return {};
  std::string text(buf);
  if (!text.empty() && text.back() == '\n') text.pop_back();
  return text;
}

// Waits up to `ms` for `path` to disappear; true when it did.
inline bool wait_gone(const std::string& path, long ms) {
  struct stat st;
  for (long waited = 0; waited < ms; waited += 20) {
    if (stat(path.c_str(), &st) != 0) return true;
    usleep(20000);
  }
  return stat(path.c_str(), &st) != 0;
}

// True when the process has ended, reaped or not: an orphan may wait for
// its reaper a while, and it runs no more.
inline bool has_ended(pid_t pid) {
  if (kill(pid, 0) != 0 && errno == ESRCH) return true;
  std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
  std::string record;
  std::getline(stat, record);
  auto close = record.rfind(')');
  return close != std::string::npos && close + 2 < record.size() && record[close + 2] == 'Z';
}

// Waits up to `ms` for process `pid` to end; true when it did.
inline bool wait_exit(pid_t pid, long ms) {
  for (long waited = 0; waited < ms; waited += 20) {
    if (has_ended(pid)) return true;
    usleep(20000);
  }
  return false;
}

}  // namespace standin
