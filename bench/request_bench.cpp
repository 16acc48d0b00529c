// Requests per second and latency of the version request against the real
// daemon, next to a bare fork-per-connection server that answers the same
// bytes, and the same server appending the request's log line first, at
// concurrency 1 and 16. Prints figures; asserts nothing.
//
//   request_bench [seconds per run]   (default 5)
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#ifndef KOVA_AGENT_BIN
#define KOVA_AGENT_BIN "kovaagent"
#endif

namespace {

using Clock = std::chrono::steady_clock;

sockaddr_in loopback(int port) {
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  a.sin_port = htons(static_cast<uint16_t>(port));
  return a;
}

// One version request; false when the exchange failed.
bool version_request(int port) {
  int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in a = loopback(port);
  bool ok = false;
  unsigned char request[40] = {14, 0};
  unsigned char reply[8];
  if (::connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0 &&
      ::send(fd, request, sizeof request, MSG_NOSIGNAL) == 40)
    ok = ::recv(fd, reply, sizeof reply, MSG_WAITALL) == 8 && reply[0] == 10 && reply[2] == 6;
  ::close(fd);
  return ok;
}

struct Figures {
  double per_second = 0, p50_us = 0, p99_us = 0;
  long failures = 0;
};

Figures measure(int port, int concurrency, double seconds) {
  std::vector<std::vector<double>> latencies(static_cast<size_t>(concurrency));
  std::atomic<long> failures{0};
  auto until = Clock::now() + std::chrono::duration<double>(seconds);
  std::vector<std::thread> clients;
  for (int c = 0; c < concurrency; ++c)
    clients.emplace_back([&, c] {
      while (Clock::now() < until) {
        auto start = Clock::now();
        if (!version_request(port)) {
          ++failures;
          continue;
        }
        latencies[static_cast<size_t>(c)].push_back(
            std::chrono::duration<double, std::micro>(Clock::now() - start).count());
      }
    });
  for (auto& t : clients) t.join();
  std::vector<double> all;
  for (auto& l : latencies) all.insert(all.end(), l.begin(), l.end());
  std::sort(all.begin(), all.end());
  Figures f;
  f.failures = failures;
  if (all.empty()) return f;
  f.per_second = static_cast<double>(all.size()) / seconds;
  f.p50_us = all[all.size() / 2];
  f.p99_us = all[std::min(all.size() - 1, all.size() * 99 / 100)];
  return f;
}

int listen_on_free_port(int& port) {
  int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  int one = 1;
  ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  sockaddr_in a = loopback(0);
  socklen_t len = sizeof a;
  if (::bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 || ::listen(fd, 5) != 0) return -1;
  ::getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
  port = ntohs(a.sin_port);
  return fd;
}

// Appends one line as the agent's log does: a ctime stamp, the tag, the
// message; one write on an O_APPEND descriptor opened for the line.
void append_log_line(const char* path) {
  std::time_t now = std::time(nullptr);
  char stamp[64] = {};
  ::ctime_r(&now, stamp);
  stamp[std::strcspn(stamp, "\n")] = '\0';
  char line[256];
  int n = std::snprintf(line, sizeof line, "%s,  KOVAAGENT-I-VERS,        sending version to server 6.0 \n\n", stamp);
  int fd = ::open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
  if (fd < 0) return;
  (void)::write(fd, line, static_cast<size_t>(n));
  ::close(fd);
}

// The baselines: accept, fork, read 40 bytes, answer 8, exit. Same backlog.
// With log_path, the child first appends the line the agent writes for the
// request, so that the cost of the per-request log line is seen apart.
pid_t start_bare_server(int& port, const char* log_path) {
  int fd = listen_on_free_port(port);
  pid_t pid = ::fork();
  if (pid != 0) {
    ::close(fd);
    return pid;
  }
  struct sigaction ignore {};
  ignore.sa_handler = SIG_IGN;
  ignore.sa_flags = SA_NOCLDWAIT;
  ::sigaction(SIGCHLD, &ignore, nullptr);
  for (;;) {
    int c = ::accept(fd, nullptr, nullptr);
    if (c < 0) continue;
    if (::fork() == 0) {
      ::close(fd);
      unsigned char request[40];
      unsigned char reply[8] = {10, 0, 6, 0, 0, 0, 0, 0};
      if (::recv(c, request, sizeof request, MSG_WAITALL) == 40) {
        if (log_path != nullptr) append_log_line(log_path);
        (void)::send(c, reply, sizeof reply, MSG_NOSIGNAL);
      }
      ::_exit(0);
    }
    ::close(c);
  }
}

int free_port() {
  int port = 0;
  int fd = listen_on_free_port(port);
  ::close(fd);
  return port;
}

}  // namespace

int main(int argc, char** argv) {
  double seconds = argc > 1 ? std::atof(argv[1]) : 5.0;
  ::prctl(PR_SET_CHILD_SUBREAPER, 1);

  std::string tree = std::filesystem::temp_directory_path() / ("kovabench." + std::to_string(::getpid()));
  for (const char* d : {"data", "logs", "tmp", "settings"}) std::filesystem::create_directories(tree + "/" + d);
  int agent_port = free_port();
  std::string command = std::string(KOVA_AGENT_BIN) + " -rootdir " + tree + " -port " + std::to_string(agent_port) +
                        " >/dev/null 2>&1";
  if (std::system(command.c_str()) != 0) {
    std::fprintf(stderr, "request_bench: the agent did not start\n");
    return 1;
  }
  for (int i = 0; i < 250 && !version_request(agent_port); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(20));

  int bare_port = 0, logging_port = 0;
  pid_t bare = start_bare_server(bare_port, nullptr);
  const std::string bare_log = tree + "/logs/bare.log";
  pid_t logging = start_bare_server(logging_port, bare_log.c_str());

  struct Server {
    const char* name;
    int port;
  };
  const Server servers[] = {{"bare", bare_port}, {"bare+log", logging_port}, {"kovaagent", agent_port}};
  std::printf("version request, %.0f s per server and concurrency (median of 3 alternating runs), loopback\n", seconds);
  std::printf("%-12s %5s %12s %10s %10s %9s\n", "server", "conc", "requests/s", "p50 us", "p99 us", "failures");
  // The servers take turns, three runs each, so that none gains from the
  // order (loopback connections left in TIME_WAIT, caches, frequency).
  for (int concurrency : {1, 16}) {
    std::vector<Figures> runs[std::size(servers)];
    for (int round = 0; round < 3; ++round)
      for (size_t i = 0; i < std::size(servers); ++i)
        runs[i].push_back(measure(servers[i].port, concurrency, seconds / 3));
    Figures medians[std::size(servers)];
    for (size_t i = 0; i < std::size(servers); ++i) {
      std::sort(runs[i].begin(), runs[i].end(),
                [](const Figures& a, const Figures& b) { return a.per_second < b.per_second; });
      const Figures& f = medians[i] = runs[i][runs[i].size() / 2];
      std::printf("%-12s %5d %12.0f %10.0f %10.0f %9ld\n", servers[i].name, concurrency, f.per_second, f.p50_us,
                  f.p99_us, f.failures);
    }
    const double agent = medians[2].per_second;
    if (medians[0].per_second > 0 && medians[1].per_second > 0)
      std::printf("%-12s %5d %11.1f%% of bare, %.1f%% of bare+log\n", "kovaagent", concurrency,
                  100.0 * agent / medians[0].per_second, 100.0 * agent / medians[1].per_second);
  }

  for (pid_t server : {bare, logging}) {
    ::kill(server, SIGKILL);
    ::waitpid(server, nullptr, 0);
  }
  // The agent named itself in its lock file; end exactly that process.
  char host[256] = {};
  ::gethostname(host, sizeof host - 1);
  std::string name = host;
  FILE* lock = std::fopen((tree + "/tmp/" + name.substr(0, name.find('.')) + "_kova.lock").c_str(), "r");
  int pid = 0;
  if (lock != nullptr) {
    if (std::fscanf(lock, "PID~%d", &pid) != 1) pid = 0;
    std::fclose(lock);
  }
  if (pid > 0) {
    ::kill(pid, SIGTERM);
    ::waitpid(pid, nullptr, 0);  // reparented here: this process is a subreaper
  }
  while (::waitpid(-1, nullptr, WNOHANG) > 0) {
  }
  std::filesystem::remove_all(tree);
  return 0;
}
