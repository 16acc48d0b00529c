#include "support/pid_namespace.h"

#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

extern char** environ;

namespace kova::test {
namespace {

PidNamespace* g_current = nullptr;

// What the namespace tells the test, one message each.
struct Report {
  char kind;          // 'R' ready (or not), 'S' spawned, 'X' exited
  int32_t pid;        // the namespace's pid
  int32_t value;      // R and S: errno of a failure, 0 when none; X: the exit status
  uint64_t inode;     // R: the namespace's inode
  char what[40];      // R: the step that failed
};

// The descriptor on which the launcher, init and the nursery keep their end
// of the channel.
constexpr int kChannelFd = 3;
// A descriptor every started program inherits, as from a careless parent:
// the agent must pass it on to nothing it starts.
constexpr int kStrayFd = 9;
constexpr size_t kMessageMax = 65536;
constexpr size_t kArgsMax = 256;
constexpr size_t kEnvMax = 2048;

// The launcher, init, the nursery and the programs it starts are forks of a
// test process that may have run threads: from here to exec they use no
// heap.

void report(char kind, int32_t pid, int32_t value, const char* what = "", uint64_t inode = 0) {
  Report r{};
  r.kind = kind;
  r.pid = pid;
  r.value = value;
  r.inode = inode;
  std::strncpy(r.what, what, sizeof r.what - 1);
  (void)::send(kChannelFd, &r, sizeof r, MSG_NOSIGNAL);
}

int exit_status(int status) { return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status); }

// ---- a program started by the nursery: its standard descriptors, one stray, the
// environment with the test's additions, the account, exec.
[[noreturn]] void start_program(char* message, size_t size) {
  char* cursor = message;
  char* const end = message + size;
  auto next = [&]() -> char* {
    if (cursor >= end) return nullptr;
    char* field = cursor;
    cursor += std::strlen(field) + 1;
    return field;
  };
  char* uid_text = next();
  char* out_path = next();
  char* err_path = next();
  char* argc_text = next();
  if (uid_text == nullptr || out_path == nullptr || err_path == nullptr || argc_text == nullptr) ::_exit(126);
  char* argv[kArgsMax + 1] = {};
  const long argc = std::strtol(argc_text, nullptr, 10);
  for (long i = 0; i < argc && i < static_cast<long>(kArgsMax); ++i) argv[i] = next();
  char* envp[kEnvMax + 1] = {};
  char* added[kArgsMax] = {};
  size_t n_added = 0;
  while (char* e = next())
    if (n_added < kArgsMax) added[n_added++] = e;
  size_t n_env = 0;
  for (char** e = environ; *e != nullptr && n_env < kEnvMax - kArgsMax; ++e) {
    const char* eq = std::strchr(*e, '=');
    const size_t key = eq != nullptr ? static_cast<size_t>(eq - *e) + 1 : std::strlen(*e);
    bool replaced = false;
    for (size_t i = 0; i < n_added; ++i) replaced |= std::strncmp(added[i], *e, key) == 0;
    if (!replaced) envp[n_env++] = *e;
  }
  for (size_t i = 0; i < n_added; ++i) envp[n_env++] = added[i];

  sigset_t none;
  sigemptyset(&none);
  ::sigprocmask(SIG_SETMASK, &none, nullptr);
  for (int sig = 1; sig < NSIG; ++sig) (void)::signal(sig, SIG_DFL);
  const int in = ::open("/dev/null", O_RDONLY);
  const int out = ::open(out_path, O_WRONLY | O_CREAT | O_TRUNC, 0644);
  const int err = ::open(err_path, O_WRONLY | O_CREAT | O_TRUNC, 0644);
  if (in < 0 || out < 0 || err < 0) ::_exit(126);
  ::dup2(in, 0), ::dup2(out, 1), ::dup2(err, 2);
  ::close_range(3, ~0U, 0);
  const int stray = ::open("/dev/null", O_RDONLY);
  if (stray >= 0 && stray != kStrayFd) {
    ::dup2(stray, kStrayFd);
    ::close(stray);
  }
  const long uid = std::strtol(uid_text, nullptr, 10);
  if (uid >= 0 && (::setgroups(0, nullptr) != 0 || ::setgid(static_cast<gid_t>(uid)) != 0 ||
                   ::setuid(static_cast<uid_t>(uid)) != 0))
    ::_exit(125);
  ::execve(argv[0], argv, envp);
  ::_exit(127);
}

// ---- init: a /proc of the namespace's own, then the nursery, whose end is
// the namespace's end.
[[noreturn]] void run_nursery();

[[noreturn]] void run_init() {
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  // Private first, so that the namespace's /proc never shows on the host.
  if (::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
    report('R', 0, errno, "making / private");
    ::_exit(1);
  }
  if (::mount("proc", "/proc", "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr) != 0) {
    report('R', 0, errno, "mounting /proc");
    ::_exit(1);
  }
  const pid_t nursery = ::fork();
  if (nursery < 0) {
    report('R', 0, errno, "fork");
    ::_exit(1);
  }
  if (nursery == 0) run_nursery();
  ::close(kChannelFd);
  int status = 0;
  while (::waitpid(nursery, &status, 0) < 0 && errno == EINTR) {
  }
  ::_exit(0);
}

// ---- the nursery starts programs on request, and as their reaper (a
// child subreaper) reaps every process of the namespace, daemons' orphans
// included, until the test closes the channel. The programs it starts are
// not init's children: a program that detaches itself must see a parent
// other than process 1, as it would on a host.
[[noreturn]] void run_nursery() {
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  ::prctl(PR_SET_CHILD_SUBREAPER, 1);
  sigset_t child;
  sigemptyset(&child);
  sigaddset(&child, SIGCHLD);
  ::sigprocmask(SIG_BLOCK, &child, nullptr);
  const int reaped = ::signalfd(-1, &child, SFD_CLOEXEC | SFD_NONBLOCK);
  struct stat ns {};
  if (reaped < 0 || ::stat("/proc/self/ns/pid", &ns) != 0) {
    report('R', 0, errno, "watching children");
    ::_exit(1);
  }
  report('R', ::getpid(), 0, "", ns.st_ino);

  static char message[kMessageMax + 1];
  for (;;) {
    pollfd fds[2] = {{kChannelFd, POLLIN, 0}, {reaped, POLLIN, 0}};
    if (::poll(fds, 2, -1) < 0) continue;
    if (fds[1].revents != 0) {
      signalfd_siginfo info;
      while (::read(reaped, &info, sizeof info) > 0) {
      }
      int status = 0;
      for (pid_t pid; (pid = ::waitpid(-1, &status, WNOHANG)) > 0;) report('X', pid, exit_status(status));
    }
    if (fds[0].revents == 0) continue;
    const ssize_t n = ::recv(kChannelFd, message, kMessageMax, 0);
    if (n <= 0) ::_exit(0);  // the test has ended: every process here ends with init
    message[n] = '\0';
    const pid_t pid = ::fork();
    if (pid == 0) start_program(message, static_cast<size_t>(n));
    report('S', pid, pid < 0 ? errno : 0);
  }
}

// ---- the launcher: the test's child that creates the namespace; init is
// its child, and it waits for init.
[[noreturn]] void run_launcher(int channel) {
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (::dup2(channel, kChannelFd) < 0) ::_exit(1);
  ::close_range(kChannelFd + 1, ~0U, 0);  // nothing of the test lives on in the namespace
  if (::unshare(CLONE_NEWPID | CLONE_NEWNS) != 0) {
    report('R', 0, errno, "unshare");
    ::_exit(1);
  }
  const pid_t init = ::fork();
  if (init < 0) {
    report('R', 0, errno, "fork");
    ::_exit(1);
  }
  if (init == 0) run_init();
  ::close(kChannelFd);
  int status = 0;
  while (::waitpid(init, &status, 0) < 0 && errno == EINTR) {
  }
  ::_exit(0);
}

unsigned long long namespace_of(pid_t host) {
  struct stat st {};
  return ::stat(("/proc/" + std::to_string(host) + "/ns/pid").c_str(), &st) == 0 ? st.st_ino : 0;
}

// The innermost pid of the "NSpid:" line of /proc/<host>/status, or -1.
pid_t innermost_pid(pid_t host) {
  std::ifstream in("/proc/" + std::to_string(host) + "/status");
  for (std::string line; std::getline(in, line);) {
    if (line.rfind("NSpid:", 0) != 0) continue;
    std::istringstream fields(line.substr(6));
    pid_t pid = -1;
    for (pid_t p; fields >> p;) pid = p;
    return pid;
  }
  return -1;
}

}  // namespace

PidNamespace* PidNamespace::current() { return g_current; }

PidNamespace::PidNamespace() {
  int ends[2];
  if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) {
    why_ = std::string("socketpair: ") + std::strerror(errno);
    return;
  }
  launcher_ = ::fork();
  if (launcher_ == 0) run_launcher(ends[1]);
  ::close(ends[1]);
  if (launcher_ < 0) {
    why_ = std::string("fork: ") + std::strerror(errno);
    ::close(ends[0]);
    return;
  }
  Report r{};
  pollfd p{ends[0], POLLIN, 0};
  if (::poll(&p, 1, 10000) != 1 || ::recv(ends[0], &r, sizeof r, 0) != static_cast<ssize_t>(sizeof r) ||
      r.kind != 'R') {
    why_ = "the namespace did not report";
  } else if (r.value != 0) {
    why_ = std::string(r.what) + ": " + std::strerror(r.value);
  } else {
    channel_ = ends[0];
    inode_ = r.inode;
    g_current = this;
    return;
  }
  why_ = "no private PID namespace for the agent (" + why_ + "); these tests run as root";
  ::close(ends[0]);
  ::waitpid(launcher_, nullptr, 0);
  launcher_ = -1;
}

PidNamespace::~PidNamespace() {
  if (g_current == this) g_current = nullptr;
  if (channel_ >= 0) ::close(channel_);
  if (launcher_ <= 0) return;
  for (int i = 0; i < 500; ++i) {
    if (::waitpid(launcher_, nullptr, WNOHANG) == launcher_) return;
    ::usleep(10000);
  }
  ::kill(launcher_, SIGKILL);  // init dies with it, and every process inside with init
  ::waitpid(launcher_, nullptr, 0);
}

void PidNamespace::take_reports(std::chrono::milliseconds limit) {
  if (channel_ < 0) return;
  pollfd p{channel_, POLLIN, 0};
  if (::poll(&p, 1, static_cast<int>(limit.count())) <= 0) return;
  Report r{};
  while (::recv(channel_, &r, sizeof r, MSG_DONTWAIT) == static_cast<ssize_t>(sizeof r)) {
    if (r.kind == 'X') exited_[r.pid] = r.value;
    if (r.kind == 'S') last_spawned_ = r.value == 0 ? r.pid : -1;
  }
}

pid_t PidNamespace::spawn(const Spawn& spec) {
  if (channel_ < 0 || spec.argv.empty()) return -1;
  std::string message;
  const auto field = [&](const std::string& text) { message.append(text).push_back('\0'); };
  field(std::to_string(spec.uid));
  field(spec.out_path);
  field(spec.err_path);
  field(std::to_string(spec.argv.size()));
  for (const auto& a : spec.argv) field(a);
  for (const auto& e : spec.env) field(e);
  if (message.size() > kMessageMax) return -1;
  last_spawned_ = 0;
  if (::send(channel_, message.data(), message.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(message.size()))
    return -1;
  for (int i = 0; i < 100 && last_spawned_ == 0; ++i) take_reports(std::chrono::milliseconds(100));
  return last_spawned_ > 0 ? last_spawned_ : -1;
}

int PidNamespace::wait(pid_t pid, std::chrono::milliseconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  for (;;) {
    if (auto it = exited_.find(pid); it != exited_.end()) return it->second;
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0 || channel_ < 0) return -1;
    take_reports(std::min(left, std::chrono::milliseconds(50)));
  }
}

bool PidNamespace::running(pid_t pid) {
  take_reports(std::chrono::milliseconds(0));
  if (exited_.count(pid) != 0) return false;
  const pid_t host = host_pid(pid);
  if (host < 0) return false;
  std::ifstream in("/proc/" + std::to_string(host) + "/stat");
  std::string record;
  std::getline(in, record);
  const size_t close = record.rfind(')');
  return close != std::string::npos && close + 2 < record.size() && record[close + 2] != 'Z' &&
         record[close + 2] != 'X';
}

bool PidNamespace::kill(pid_t pid, int signal) {
  const pid_t host = host_pid(pid);
  if (host < 0) return false;
  // Held before the check: a pid the host reuses meanwhile is not the
  // process the handle names, and the signal then goes nowhere.
  const int handle = static_cast<int>(::syscall(SYS_pidfd_open, host, 0));
  if (handle < 0) return false;
  const bool ours = host_pid(pid) == host;
  const bool sent = ours && ::syscall(SYS_pidfd_send_signal, handle, signal, nullptr, 0) == 0;
  ::close(handle);
  return sent;
}

pid_t PidNamespace::host_pid(pid_t pid) const {
  if (channel_ < 0 || pid <= 0) return -1;
  DIR* proc = ::opendir("/proc");
  if (proc == nullptr) return -1;
  pid_t found = -1;
  while (const dirent* entry = ::readdir(proc)) {
    char* end = nullptr;
    const long host = std::strtol(entry->d_name, &end, 10);
    if (host <= 0 || *end != '\0') continue;
    if (namespace_of(static_cast<pid_t>(host)) != inode_) continue;
    if (innermost_pid(static_cast<pid_t>(host)) != pid) continue;
    found = static_cast<pid_t>(host);
    break;
  }
  ::closedir(proc);
  return found;
}

}  // namespace kova::test
