// What one version request costs the agent, next to the floor: a bare
// fork-per-connection server answering the same bytes, and the same server
// appending the agent's log line for the request (bare_fork_server). For
// concurrency 1 and 16 it prints requests per second, p50/p99 latency and
// the servers' CPU time per request, taken from a cgroup of each server's
// own, and the agent's ratios to both; then each idle listening process's
// mappings and memory; then the agent's listening process before and after
// a long run of sequential requests. Prints figures; asserts nothing.
//
//   request_bench [--seconds S] [--requests N] [--port BASE] [--agent PATH]
//     --seconds   seconds per server and concurrency, in 3 turns (default 5)
//     --requests  sequential requests of the long run (default 100000; 0 skips it)
//     --port      first of three loopback ports (agent, bare, bare+log);
//                 default: ports the kernel picks
//     --agent     the agent binary to measure (default: this build's)
//
// Run it as root inside a PID namespace of its own (scripts/bench.sh does),
// so that the agent's process searches see only what the benchmark started.
#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
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
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#ifndef KOVA_AGENT_BIN
#define KOVA_AGENT_BIN "kovaagent"
#endif
#ifndef KOVA_BARE_SERVER_BIN
#define KOVA_BARE_SERVER_BIN "bare_fork_server"
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

int free_port() {
  int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in a = loopback(0);
  socklen_t len = sizeof a;
  int port = 0;
  if (::bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0 &&
      ::getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len) == 0)
    port = ntohs(a.sin_port);
  ::close(fd);
  return port;
}

std::string read_text(const std::string& path) {
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

bool write_text(const std::string& path, const std::string& text) {
  int fd = ::open(path.c_str(), O_WRONLY | O_CLOEXEC);
  if (fd < 0) return false;
  bool ok = ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  ::close(fd);
  return ok;
}

// The value after `key` (a line's first word) in a "key value" file.
long long field(const std::string& text, const std::string& key) {
  std::istringstream in(text);
  std::string line;
  while (std::getline(in, line)) {
    std::istringstream words(line);
    std::string word;
    long long value = 0;
    if (words >> word && word == key && words >> value) return value;
  }
  return -1;
}

// ---- CPU time of one server and everything it forks

// Where each server's CPU time comes from: a cgroup v2 group of its own
// (cpu.stat usage_usec), else a cgroup v1 cpuacct group (cpuacct.usage),
// else the machine's busy time less this program's own, which counts any
// other load on the machine as well. A server's children cannot be counted
// through rusage: it ignores SIGCHLD with SA_NOCLDWAIT, and children the
// kernel reaps are never charged to anyone's RUSAGE_CHILDREN.
enum class CpuSource { kCgroup2, kCgroup1, kMachine };

struct CpuMeter {
  CpuSource source = CpuSource::kMachine;
  std::string root;  // the hierarchy's mount point

  static CpuMeter find() {
    CpuMeter meter;
    std::istringstream mounts(read_text("/proc/self/mountinfo"));
    std::string line, v1;
    while (std::getline(mounts, line)) {
      std::istringstream words(line);
      std::vector<std::string> w;
      for (std::string word; words >> word;) w.push_back(word);
      auto dash = std::find(w.begin(), w.end(), "-");
      if (w.size() < 5 || dash == w.end() || dash + 3 > w.end()) continue;
      const std::string& type = *(dash + 1);
      if (type == "cgroup2" && ::access(w[4].c_str(), W_OK) == 0) {
        meter.source = CpuSource::kCgroup2;
        meter.root = w[4];
        return meter;
      }
      if (type == "cgroup" && (dash + 3)->find("cpuacct") != std::string::npos && ::access(w[4].c_str(), W_OK) == 0)
        v1 = w[4];
    }
    if (!v1.empty()) {
      meter.source = CpuSource::kCgroup1;
      meter.root = v1;
    }
    return meter;
  }

  std::string describe() const {
    switch (source) {
      case CpuSource::kCgroup2: return "each server's own cgroup, cpu.stat usage_usec under " + root;
      case CpuSource::kCgroup1: return "each server's own cgroup, cpuacct.usage under " + root;
      case CpuSource::kMachine:
        return "NO writable cgroup: the whole machine's busy time less this program's own "
               "(includes any other load; compare with care)";
    }
    return {};
  }

  // Makes a group for one server; "" when there is none to make.
  std::string make_group(const std::string& name) const {
    if (source == CpuSource::kMachine) return {};
    std::string group = root + "/kovabench." + std::to_string(::getpid()) + "." + name;
    if (::mkdir(group.c_str(), 0755) != 0 && errno != EEXIST) return {};
    return group;
  }

  // Moves the calling process into `group`.
  static void join(const std::string& group) {
    if (!group.empty()) (void)write_text(group + "/cgroup.procs", "0\n");
  }

  // CPU microseconds used so far by the group.
  long long usage_us(const std::string& group) const {
    switch (source) {
      case CpuSource::kCgroup2: return field(read_text(group + "/cpu.stat"), "usage_usec");
      case CpuSource::kCgroup1: return std::atoll(read_text(group + "/cpuacct.usage").c_str()) / 1000;
      case CpuSource::kMachine: {
        std::istringstream cpu(read_text("/proc/stat"));
        std::string label;
        long long user = 0, nice = 0, system = 0, idle = 0, iowait = 0, irq = 0, softirq = 0;
        cpu >> label >> user >> nice >> system >> idle >> iowait >> irq >> softirq;
        const long long ticks = user + nice + system + irq + softirq;
        rusage self{};
        ::getrusage(RUSAGE_SELF, &self);
        const long long own = self.ru_utime.tv_sec * 1000000LL + self.ru_utime.tv_usec +
                              self.ru_stime.tv_sec * 1000000LL + self.ru_stime.tv_usec;
        return ticks * 1000000LL / ::sysconf(_SC_CLK_TCK) - own;
      }
    }
    return -1;
  }
};

// ---- the servers

struct Server {
  const char* name;
  int port = 0;
  pid_t listener = -1;  // the listening process
  std::string group;    // its cgroup, or ""
};

// Starts `argv` in `group`; its standard output and error go to /dev/null.
pid_t spawn(const std::vector<std::string>& args, const std::string& group) {
  std::vector<char*> argv;
  for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  pid_t pid = ::fork();
  if (pid != 0) return pid;
  CpuMeter::join(group);
  int null_fd = ::open("/dev/null", O_RDWR);
  ::dup2(null_fd, STDOUT_FILENO);
  ::dup2(null_fd, STDERR_FILENO);
  ::close_range(3, ~0U, 0);  // nothing of this program's own
  ::execv(argv[0], argv.data());
  ::_exit(127);
}

bool wait_until_serving(int port) {
  for (int i = 0; i < 250; ++i) {
    if (version_request(port)) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return false;
}

// The agent's listening process, as its lock file names it.
pid_t agent_listener(const std::string& tree) {
  char host[256] = {};
  ::gethostname(host, sizeof host - 1);
  std::string name = host;
  std::string text = read_text(tree + "/tmp/" + name.substr(0, name.find('.')) + "_kova.lock");
  int pid = 0;
  return std::sscanf(text.c_str(), "PID~%d", &pid) == 1 ? pid : -1;
}

// ---- a process's footprint

struct Footprint {
  long maps = 0, pss_kb = 0, rss_kb = 0, fds = 0, processes = 0;
};

Footprint footprint(pid_t pid) {
  const std::string proc = "/proc/" + std::to_string(pid);
  Footprint f;
  const std::string maps = read_text(proc + "/maps");
  f.maps = std::count(maps.begin(), maps.end(), '\n');
  const std::string rollup = read_text(proc + "/smaps_rollup");
  f.pss_kb = field(rollup, "Pss:");
  f.rss_kb = field(rollup, "Rss:");
  if (DIR* d = ::opendir((proc + "/fd").c_str())) {
    while (const dirent* e = ::readdir(d))
      if (e->d_name[0] != '.') ++f.fds;
    ::closedir(d);
  }
  // The process and every process it forked that still exists.
  f.processes = 1;
  if (DIR* d = ::opendir("/proc")) {
    while (const dirent* e = ::readdir(d)) {
      if (e->d_name[0] < '1' || e->d_name[0] > '9') continue;
      const std::string stat = read_text(std::string("/proc/") + e->d_name + "/stat");
      const size_t close = stat.rfind(')');
      int ppid = 0;
      char state = 0;
      if (close != std::string::npos && std::sscanf(stat.c_str() + close + 1, " %c %d", &state, &ppid) == 2 &&
          ppid == pid)
        ++f.processes;
    }
    ::closedir(d);
  }
  return f;
}

// ---- measuring

struct Figures {
  double per_second = 0, p50_us = 0, p99_us = 0, cpu_us = 0;
  long failures = 0;
};

Figures measure(const CpuMeter& meter, const Server& server, int concurrency, double seconds) {
  std::vector<std::vector<double>> latencies(static_cast<size_t>(concurrency));
  std::atomic<long> failures{0};
  const long long cpu_before = meter.usage_us(server.group);
  const auto start = Clock::now();
  const auto until = start + std::chrono::duration<double>(seconds);
  std::vector<std::thread> clients;
  for (int c = 0; c < concurrency; ++c)
    clients.emplace_back([&, c] {
      while (Clock::now() < until) {
        auto begin = Clock::now();
        if (!version_request(server.port)) {
          ++failures;
          continue;
        }
        latencies[static_cast<size_t>(c)].push_back(
            std::chrono::duration<double, std::micro>(Clock::now() - begin).count());
      }
    });
  for (auto& t : clients) t.join();
  const double elapsed = std::chrono::duration<double>(Clock::now() - start).count();
  // Children still finishing their exit are charged after the last reply.
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  const long long cpu_after = meter.usage_us(server.group);

  std::vector<double> all;
  for (auto& l : latencies) all.insert(all.end(), l.begin(), l.end());
  std::sort(all.begin(), all.end());
  Figures f;
  f.failures = failures;
  if (all.empty()) return f;
  f.per_second = static_cast<double>(all.size()) / elapsed;
  f.p50_us = all[all.size() / 2];
  f.p99_us = all[std::min(all.size() - 1, all.size() * 99 / 100)];
  f.cpu_us = static_cast<double>(cpu_after - cpu_before) / static_cast<double>(all.size());
  return f;
}

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values.empty() ? 0 : values[values.size() / 2];
}

double ratio(double a, double b) { return b > 0 ? a / b : 0; }

struct Options {
  double seconds = 5;
  long requests = 100000;
  int port = 0;
  std::string agent = KOVA_AGENT_BIN;
};

bool parse(int argc, char** argv, Options& o) {
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    if (i + 1 >= argc) return false;
    if (a == "--seconds")
      o.seconds = std::atof(argv[++i]);
    else if (a == "--requests")
      o.requests = std::atol(argv[++i]);
    else if (a == "--port")
      o.port = std::atoi(argv[++i]);
    else if (a == "--agent")
      o.agent = argv[++i];
    else
      return false;
  }
  return o.seconds > 0 && o.requests >= 0;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  if (!parse(argc, argv, options)) {
    std::fprintf(stderr, "usage: request_bench [--seconds S] [--requests N] [--port BASE] [--agent PATH]\n");
    return 2;
  }
  ::prctl(PR_SET_CHILD_SUBREAPER, 1);
  const CpuMeter meter = CpuMeter::find();

  const std::string tree =
      std::filesystem::temp_directory_path() / ("kovabench." + std::to_string(::getpid()));
  for (const char* d : {"data", "logs", "tmp", "settings"}) std::filesystem::create_directories(tree + "/" + d);

  Server servers[] = {{"bare"}, {"bare+log"}, {"kovaagent"}};
  Server& agent = servers[2];
  const char* group_names[] = {"bare", "barelog", "agent"};
  const int port_offsets[] = {1, 2, 0};  // the agent takes the first port
  for (size_t i = 0; i < std::size(servers); ++i) {
    servers[i].port = options.port > 0 ? options.port + port_offsets[i] : free_port();
    servers[i].group = meter.make_group(group_names[i]);
  }

  std::vector<pid_t> launchers;
  launchers.push_back(spawn({options.agent, "-rootdir", tree, "-port", std::to_string(agent.port)}, agent.group));
  servers[0].listener = spawn({KOVA_BARE_SERVER_BIN, std::to_string(servers[0].port)}, servers[0].group);
  servers[1].listener =
      spawn({KOVA_BARE_SERVER_BIN, std::to_string(servers[1].port), tree + "/logs/bare.log"}, servers[1].group);
  bool serving = true;
  for (const Server& s : servers) serving = wait_until_serving(s.port) && serving;
  agent.listener = agent_listener(tree);
  if (!serving || agent.listener <= 0) {
    std::fprintf(stderr, "request_bench: a server did not start\n");
  } else {
    std::printf("version request, %.0f s per server and concurrency (3 turns, medians), loopback\n",
                options.seconds);
    std::printf("server CPU: %s\n\n", meter.describe().c_str());
    std::printf("%-20s %5s %11s %9s %9s %12s %9s\n", "server", "conc", "requests/s", "p50 us", "p99 us",
                "CPU us/req", "failures");
    // The servers take turns, three runs each, so that none gains from the
    // order (loopback connections left in TIME_WAIT, caches, frequency).
    for (int concurrency : {1, 16}) {
      std::vector<Figures> runs[std::size(servers)];
      for (int round = 0; round < 3; ++round)
        for (size_t i = 0; i < std::size(servers); ++i)
          runs[i].push_back(measure(meter, servers[i], concurrency, options.seconds / 3));
      Figures m[std::size(servers)];
      for (size_t i = 0; i < std::size(servers); ++i) {
        std::vector<double> rate, p50, p99, cpu;
        for (const Figures& f : runs[i]) {
          rate.push_back(f.per_second);
          p50.push_back(f.p50_us);
          p99.push_back(f.p99_us);
          cpu.push_back(f.cpu_us);
          m[i].failures += f.failures;
        }
        m[i].per_second = median(rate);
        m[i].p50_us = median(p50);
        m[i].p99_us = median(p99);
        m[i].cpu_us = median(cpu);
        std::printf("%-20s %5d %11.0f %9.0f %9.0f %12.1f %9ld\n", servers[i].name, concurrency, m[i].per_second,
                    m[i].p50_us, m[i].p99_us, m[i].cpu_us, m[i].failures);
      }
      for (size_t i = 0; i < 2; ++i)
        std::printf("%-20s %5d %11.2f %9.2f %9.2f %12.2f\n", (std::string("kovaagent/") + servers[i].name).c_str(),
                    concurrency, ratio(m[2].per_second, m[i].per_second), ratio(m[2].p50_us, m[i].p50_us),
                    ratio(m[2].p99_us, m[i].p99_us), ratio(m[2].cpu_us, m[i].cpu_us));
    }

    std::printf("\nidle listening process\n%-20s %7s %9s %9s %12s\n", "server", "maps", "PSS KiB", "RSS KiB",
                "descriptors");
    Footprint idle[std::size(servers)];
    for (size_t i = 0; i < std::size(servers); ++i) {
      idle[i] = footprint(servers[i].listener);
      std::printf("%-20s %7ld %9ld %9ld %12ld\n", servers[i].name, idle[i].maps, idle[i].pss_kb, idle[i].rss_kb,
                  idle[i].fds);
    }
    for (size_t i = 0; i < 2; ++i)
      std::printf("%-20s %7.2f %9.2f %9.2f\n", (std::string("kovaagent/") + servers[i].name).c_str(),
                  ratio(idle[2].maps, idle[i].maps), ratio(idle[2].pss_kb, idle[i].pss_kb),
                  ratio(idle[2].rss_kb, idle[i].rss_kb));

    if (options.requests > 0) {
      const Footprint before = footprint(agent.listener);
      long failures = 0;
      for (long n = 0; n < options.requests; ++n)
        if (!version_request(agent.port)) ++failures;
      std::this_thread::sleep_for(std::chrono::milliseconds(200));  // the last children exit
      const Footprint after = footprint(agent.listener);
      std::printf("\nkovaagent listening process around %ld sequential version requests (%ld failed)\n",
                  options.requests, failures);
      std::printf("%-20s %9s %12s %10s\n", "", "RSS KiB", "descriptors", "processes");
      std::printf("%-20s %9ld %12ld %10ld\n", "before", before.rss_kb, before.fds, before.processes);
      std::printf("%-20s %9ld %12ld %10ld\n", "after", after.rss_kb, after.fds, after.processes);
    }
  }

  // End exactly what was started: the agent through its own SIGTERM
  // handling, the bare servers outright; then whatever their children left.
  if (agent.listener > 0) ::kill(agent.listener, SIGTERM);
  for (size_t i = 0; i < 2; ++i)
    if (servers[i].listener > 0) ::kill(servers[i].listener, SIGKILL);
  for (const Server& s : servers)
    if (s.listener > 0) ::waitpid(s.listener, nullptr, 0);  // reparented here: this process is a subreaper
  for (pid_t launcher : launchers) ::waitpid(launcher, nullptr, WNOHANG);
  for (int i = 0; i < 100 && ::waitpid(-1, nullptr, WNOHANG) >= 0; ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  for (const Server& s : servers)
    if (!s.group.empty()) (void)::rmdir(s.group.c_str());
  std::filesystem::remove_all(tree);
  return serving ? 0 : 1;
}
