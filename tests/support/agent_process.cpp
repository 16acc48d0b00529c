#include "support/agent_process.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <ctime>

#ifndef KOVA_AGENT_BIN
#define KOVA_AGENT_BIN "kovaagent"
#endif

namespace kova::test {
namespace {

constexpr const char* kNoNamespace = "the agent runs only in the suite's PID namespace";

// The socket address of an IPv4 or IPv6 literal and a port; its length, or
// 0 when `text` is neither.
socklen_t socket_address(const std::string& text, int port, sockaddr_storage& addr) {
  auto* v4 = reinterpret_cast<sockaddr_in*>(&addr);
  auto* v6 = reinterpret_cast<sockaddr_in6*>(&addr);
  if (::inet_pton(AF_INET, text.c_str(), &v4->sin_addr) == 1) {
    v4->sin_family = AF_INET, v4->sin_port = htons(static_cast<uint16_t>(port));
    return sizeof *v4;
  }
  if (::inet_pton(AF_INET6, text.c_str(), &v6->sin6_addr) == 1) {
    v6->sin6_family = AF_INET6, v6->sin6_port = htons(static_cast<uint16_t>(port));
    return sizeof *v6;
  }
  return 0;
}

// Runs `argv` with its output in files and waits for it (at most `limit`, then kills it).
RunResult run(std::vector<std::string> argv, const std::vector<std::string>& env, std::chrono::milliseconds limit,
              int uid) {
  RunResult result;
  TempDir io;
  ::chmod(io.path().c_str(), 0777);  // for a run under another account
  const pid_t pid = spawn(Spawn{std::move(argv), env, io / "out", io / "err", uid});
  if (pid < 0) return result;
  result.status = wait_for(pid, limit);
  if (result.status == -1 && send_signal(pid, SIGKILL)) wait_for(pid, std::chrono::seconds(5));
  result.out = read_file(io / "out");
  result.err = read_file(io / "err");
  return result;
}

}  // namespace

InstallTree::InstallTree() {
  for (const char* d : {"bin", "data", "logs", "tmp", "tmp/update", "outgoing", "settings", "update", "mwa"})
    make_dirs(dir_ / d);
}

std::string InstallTree::hostname() const {
  char name[256] = {};
  ::gethostname(name, sizeof name - 1);
  std::string host = name;
  return host.substr(0, host.find('.'));
}

std::string InstallTree::log() const {
  const std::time_t now = std::time(nullptr);
  char date[32];
  std::strftime(date, sizeof date, "%Y%b%d", std::localtime(&now));
  return read_file(dir_ / ("logs/kova_" + hostname() + "_" + date + ".log"));
}

RunResult run_agent(const std::vector<std::string>& args, const std::vector<std::string>& env,
                    std::chrono::milliseconds limit, int uid) {
  if (!pid_namespace_problem().empty()) {
    ADD_FAILURE() << kNoNamespace;
    return {};
  }
  std::vector<std::string> argv{KOVA_AGENT_BIN};
  argv.insert(argv.end(), args.begin(), args.end());
  return run(std::move(argv), env, limit, uid);
}

RunResult run_program(const std::string& program, const std::vector<std::string>& args,
                      std::chrono::milliseconds limit) {
  std::vector<std::string> argv{program};
  argv.insert(argv.end(), args.begin(), args.end());
  return run(std::move(argv), {}, limit, -1);
}

int free_port() {
  sockaddr_storage addr{};
  socklen_t len = socket_address("127.0.0.1", 0, addr);
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  int port = -1;
  if (::bind(fd, reinterpret_cast<sockaddr*>(&addr), len) == 0 &&
      ::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) == 0)
    port = ntohs(reinterpret_cast<sockaddr_in*>(&addr)->sin_port);
  ::close(fd);
  return port;
}

int connect_loopback(int port) { return connect_to("127.0.0.1", port); }

int connect_to(const std::string& host, int port, const std::string& source) {
  sockaddr_storage to{}, from{};
  const socklen_t to_len = socket_address(host, port, to);
  if (to_len == 0) return -1;
  int fd = ::socket(to.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const socklen_t from_len = source.empty() ? 0 : socket_address(source, 0, from);
  if ((from_len == 0 || ::bind(fd, reinterpret_cast<sockaddr*>(&from), from_len) == 0) &&
      ::connect(fd, reinterpret_cast<sockaddr*>(&to), to_len) == 0)
    return fd;
  ::close(fd);
  return -1;
}

RunningAgent::RunningAgent(const InstallTree& tree, int port, std::vector<std::string> extra,
                           std::vector<std::string> env, const std::string& program)
    : port_(port) {
  if (!pid_namespace_problem().empty()) {
    ADD_FAILURE() << kNoNamespace;
    return;
  }
  std::vector<std::string> args{program.empty() ? std::string(KOVA_AGENT_BIN) : program, "-rootdir", tree.root(),
                                "-port", std::to_string(port)};
  args.insert(args.end(), extra.begin(), extra.end());
  bool foreground = false;
  std::string probe = "127.0.0.1";  // where the agent listens
  for (size_t i = 1; i < args.size(); ++i) {
    foreground |= args[i] == "-nofork";
    if (args[i - 1] == "-listen" && args[i] != "::" && args[i] != "0.0.0.0") probe = args[i];
  }
  // Files, not pipes: a daemon keeps its standard descriptors open.
  const pid_t launcher = spawn(Spawn{std::move(args), std::move(env), io_ / "out", io_ / "err"});
  if (launcher < 0) return;
  if (foreground) {
    pid_ = launcher;
  } else {
    // The launcher exits once detached; the daemon names itself in its lock file.
    launch_.status = wait_for(launcher, std::chrono::seconds(20));
    const std::string lock = tree.lock_path();
    eventually([&] { return read_file(lock).find("USER~") != std::string::npos; }, std::chrono::seconds(10));
    const std::string content = read_file(lock);
    if (auto at = content.find("PID~"); at != std::string::npos) pid_ = std::atoi(content.c_str() + at + 4);
  }
  const auto accepting = [&] {
    const int fd = connect_to(probe, port_);
    return (fd >= 0 && ::close(fd) == 0) || !alive();
  };
  if (pid_ > 0 && !eventually(accepting, std::chrono::seconds(10))) pid_ = -1;
  launch_.out = read_file(io_ / "out");
  launch_.err = read_file(io_ / "err");
}

RunningAgent::~RunningAgent() {
  if (alive() && stop(SIGTERM) == -1 && signal(SIGKILL)) wait_for(pid_, std::chrono::seconds(5));
}

bool RunningAgent::alive() {
  if (pid_ <= 0 || ended_) return false;
  ended_ = !running(pid_);
  return !ended_;
}

bool RunningAgent::signal(int signal) { return pid_ > 0 && !ended_ && send_signal(pid_, signal); }

int RunningAgent::stop(int signal) {
  if (pid_ <= 0) return -1;
  if (signal != 0) send_signal(pid_, signal);
  const int status = wait_for(pid_, std::chrono::seconds(10));
  ended_ |= status != -1;
  return status;
}

std::string round_trip(int port, const std::string& request, std::chrono::milliseconds limit) {
  return round_trip_on(connect_loopback(port), request, limit);
}

std::string round_trip_on(int fd, const std::string& request, std::chrono::milliseconds limit) {
  std::string reply;
  if (fd < 0) return reply;
  if (::send(fd, request.data(), request.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(request.size())) {
    ::shutdown(fd, SHUT_WR);  // the server sends its whole request up front
    char buf[65536];
    for (auto deadline = std::chrono::steady_clock::now() + limit;;) {
      auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
      pollfd p{fd, POLLIN, 0};
      if (left.count() <= 0 || ::poll(&p, 1, static_cast<int>(left.count())) <= 0) break;
      ssize_t n = ::recv(fd, buf, sizeof buf, 0);
      if (n <= 0) break;
      reply.append(buf, static_cast<size_t>(n));
    }
  }
  ::close(fd);
  return reply;
}

std::string request_packet(int opcode, const std::string& args) {
  std::string packet = le16(opcode) + args.substr(0, 38);
  return packet + std::string(40 - packet.size(), '\0');
}

std::string extended_packet(const std::string& tag, const std::string& payload) {
  return request_packet(254, tag.substr(0, 37)) + le16(static_cast<int>(payload.size())) + payload;
}

size_t occurrences(const std::string& text, const std::string& needle) {
  size_t n = 0;
  for (size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1)) ++n;
  return n;
}

}  // namespace kova::test
