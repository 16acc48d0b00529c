#include "support/pid_namespace.h"

#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <mutex>
#include <thread>

extern char** environ;

namespace kova::test {
namespace {

// The descriptor every started program inherits: the agent must pass it on
// to nothing it starts.
constexpr int kStrayFd = 9;

int exit_status(int status) { return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status); }

// Runs once, before main and before any thread; see the header.
std::string enter_namespace() {
  // The mounts private first, so that the namespace's /proc never shows on the host.
  if (::unshare(CLONE_NEWNS) != 0 || ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
      ::unshare(CLONE_NEWPID) != 0)
    return std::string("no private PID namespace for the agent (") + std::strerror(errno) + "); these tests run as root";
  const pid_t init = ::fork();
  if (init < 0) return std::string("no init for the PID namespace: ") + std::strerror(errno);
  int status = 0;
  if (init > 0) {  // ---- the process that was started
    while (::waitpid(init, &status, 0) < 0 && errno == EINTR) {
    }
    ::_exit(exit_status(status));
  }
  // ---- init: ends with the tests, and every process of the namespace with it.
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (::mount("proc", "/proc", "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr) != 0) {
    std::fprintf(stderr, "no /proc for the PID namespace: %s\n", std::strerror(errno));
    ::_exit(1);
  }
  const pid_t tests = ::fork();
  if (tests < 0) ::_exit(1);
  for (pid_t pid; tests > 0;)
    if ((pid = ::waitpid(-1, &status, 0)) == tests || (pid < 0 && errno != EINTR)) ::_exit(exit_status(status));
  // ---- the tests: a program that detaches itself sees a parent other than
  // process 1, as on a host, and becomes a child of this process.
  ::prctl(PR_SET_CHILD_SUBREAPER, 1);
  return "";
}

const std::string g_problem = enter_namespace();

std::mutex g_mutex;
std::map<pid_t, int> g_exited;  // exit statuses reaped here

// True with its exit status once `pid` has ended and this process has reaped it.
bool reaped(pid_t pid, int& status) {
  std::lock_guard lock(g_mutex);
  auto it = g_exited.find(pid);
  if (it == g_exited.end()) {
    int raw = 0;
    if (pid <= 0 || ::waitpid(pid, &raw, WNOHANG) != pid) return false;
    it = g_exited.emplace(pid, exit_status(raw)).first;
  }
  status = it->second;
  return true;
}

// The state letter of /proc/<pid>/stat, or 0 when there is no such process.
char state_of(pid_t pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
  std::string record;
  std::getline(in, record);
  const size_t close = record.rfind(')');
  return close != std::string::npos && close + 2 < record.size() ? record[close + 2] : '\0';
}

std::vector<char*> pointers(std::vector<std::string>& words) {
  std::vector<char*> out;
  for (std::string& w : words) out.push_back(w.data());
  out.push_back(nullptr);
  return out;
}

}  // namespace

const std::string& pid_namespace_problem() { return g_problem; }

pid_t spawn(const Spawn& spec) {
  if (spec.argv.empty()) return -1;
  // Built before the fork: the child makes system calls only.
  std::vector<std::string> args = spec.argv, env;
  for (char** e = environ; *e != nullptr; ++e) {
    const std::string entry = *e;
    bool replaced = false;
    for (const std::string& added : spec.env) replaced |= added.rfind(entry.substr(0, entry.find('=') + 1), 0) == 0;
    if (!replaced) env.push_back(entry);
  }
  env.insert(env.end(), spec.env.begin(), spec.env.end());
  std::vector<char*> argv = pointers(args), envp = pointers(env);

  const pid_t pid = ::fork();
  if (pid > 0) {
    std::lock_guard lock(g_mutex);
    g_exited.erase(pid);  // a status of an earlier process with this pid
  }
  if (pid != 0) return pid;
  // ---- the child
  sigset_t none;
  sigemptyset(&none);
  ::sigprocmask(SIG_SETMASK, &none, nullptr);
  for (int sig = 1; sig < NSIG; ++sig) (void)::signal(sig, SIG_DFL);
  const int in = ::open("/dev/null", O_RDONLY);
  const int out = ::open(spec.out_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  const int err = ::open(spec.err_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  if (in < 0 || out < 0 || err < 0 || ::dup2(in, 0) < 0 || ::dup2(out, 1) < 0 || ::dup2(err, 2) < 0) ::_exit(126);
  ::close_range(3, ~0U, 0);
  if (const int stray = ::open("/dev/null", O_RDONLY); stray >= 0 && stray != kStrayFd) {
    ::dup2(stray, kStrayFd);
    ::close(stray);
  }
  if (spec.uid >= 0 && (::setgroups(0, nullptr) != 0 || ::setgid(static_cast<gid_t>(spec.uid)) != 0 ||
                        ::setuid(static_cast<uid_t>(spec.uid)) != 0))
    ::_exit(125);
  ::execve(argv[0], argv.data(), envp.data());
  ::_exit(127);
}

int wait_for(pid_t pid, std::chrono::milliseconds limit) {
  for (auto deadline = std::chrono::steady_clock::now() + limit;;) {
    int status = -1;
    if (reaped(pid, status)) return status;
    // Gone without a status here, or still running at the deadline.
    if (state_of(pid) == '\0' || std::chrono::steady_clock::now() >= deadline) return -1;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

bool running(pid_t pid) {
  int status = 0;
  const char state = reaped(pid, status) ? '\0' : state_of(pid);
  return state != '\0' && state != 'Z' && state != 'X';
}

bool send_signal(pid_t pid, int signal) {
  return pid > 1 && pid != ::getpid() && running(pid) && ::kill(pid, signal) == 0;
}

void end_leftovers() {
  // Only the tests' own process, pid 2 of the namespace, may sweep it.
  if (!g_problem.empty() || ::getpid() != 2) return;
  for (int round = 0; round < 250; ++round) {
    bool left = false;
    if (DIR* proc = ::opendir("/proc")) {
      while (const dirent* entry = ::readdir(proc)) {
        const pid_t pid = static_cast<pid_t>(std::atoi(entry->d_name));
        if (pid > 2) left |= ::kill(pid, SIGKILL) == 0;
      }
      ::closedir(proc);
    }
    while (::waitpid(-1, nullptr, WNOHANG) > 0) {
    }
    if (!left) return;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
}

}  // namespace kova::test
