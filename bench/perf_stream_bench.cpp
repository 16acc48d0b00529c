// Throughput of streaming a large ".perf" work file to the server: the
// agent's send_ascii_file against a bare server that writes the same 8-byte
// header and then hands the file to sendfile(2), both over loopback TCP in
// the same run. Each transfer is timed at the receiver, from the header's
// first byte to the file's last byte; the request's fixed pause is not part
// of it. Prints the median of the runs of each and their ratio.
//
//   perf_stream_bench [MiB [runs]]   (default 1024 MiB, 3 runs each)
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/sendfile.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "delivery/file_transfer.h"
#include "platform/unique.h"
#include "wire/packet.h"

namespace {

using Clock = std::chrono::steady_clock;
using kova::UniqueFd;

// The work file lives in its own temporary directory, removed on every
// way out.
struct TempFile {
  std::string dir, path;
  TempFile() {
    const char* base = std::getenv("TMPDIR");
    std::string pattern = std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/perf_bench.XXXXXX";
    if (::mkdtemp(pattern.data()) == nullptr) return;
    dir = pattern;
    path = dir + "/bench_2024Mar05_1200_127.0.0.1.perf";
  }
  ~TempFile() {
    if (dir.empty()) return;
    std::error_code ec;
    std::filesystem::remove_all(dir, ec);
  }
};

bool fill(const std::string& path, int64_t size) {
  UniqueFd fd(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
  if (!fd) return false;
  std::vector<unsigned char> chunk(1 << 20);
  uint32_t x = 2463534242u;  // xorshift: bytes that no layer can shortcut
  for (auto& b : chunk) {
    x ^= x << 13;
    x ^= x >> 17;
    x ^= x << 5;
    b = static_cast<unsigned char>(x);
  }
  for (int64_t done = 0; done < size;) {
    const size_t n = static_cast<size_t>(std::min<int64_t>(static_cast<int64_t>(chunk.size()), size - done));
    if (::write(fd.get(), chunk.data(), n) != static_cast<ssize_t>(n)) return false;
    done += static_cast<int64_t>(n);
  }
  return fd.close() == 0;
}

UniqueFd listen_loopback(int& port) {
  UniqueFd fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof addr;
  if (!fd || ::bind(fd.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 || ::listen(fd.get(), 4) != 0 ||
      ::getsockname(fd.get(), reinterpret_cast<sockaddr*>(&addr), &len) != 0)
    return UniqueFd();
  port = ntohs(addr.sin_port);
  return fd;
}

struct Received {
  int64_t bytes = 0;
  Clock::time_point first, last;
};

// The server's side: connects, reads to the end, notes when the first and
// the last byte arrived.
void receive(int port, Received& out) {
  UniqueFd fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  addr.sin_port = htons(static_cast<uint16_t>(port));
  if (::connect(fd.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) return;
  std::vector<char> buf(1 << 20);
  for (;;) {
    const ssize_t n = ::recv(fd.get(), buf.data(), buf.size(), 0);
    if (n <= 0) break;
    const auto now = Clock::now();
    if (out.bytes == 0) out.first = now;
    out.last = now;
    out.bytes += n;
  }
}

// The bare sender: the same header, then the kernel copies the file.
bool send_bare(int socket, const std::string& path, int64_t size) {
  UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!file) return false;
  kova::PacketBuffer header{};
  kova::Packet_CreateINF(size / kova::kTransferBlockSize, size % kova::kTransferBlockSize, header);
  if (::write(socket, header.data(), kova::kInfSize) != static_cast<ssize_t>(kova::kInfSize)) return false;
  off_t offset = 0;
  while (offset < size) {
    const ssize_t n = ::sendfile(socket, file.get(), &offset, static_cast<size_t>(size - offset));
    if (n <= 0) return false;
  }
  return true;
}

// One transfer over a fresh connection; MiB/s at the receiver, or -1.
template <typename Send>
double run_once(int listener, int port, int64_t size, Send send) {
  Received got;
  std::thread reader(receive, port, std::ref(got));
  UniqueFd conn(::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC));
  const bool ok = conn && send(conn.get());
  conn.reset();
  reader.join();
  if (!ok || got.bytes != size + static_cast<int64_t>(kova::kInfSize)) {
    std::fprintf(stderr, "transfer failed: %lld of %lld bytes\n", static_cast<long long>(got.bytes),
                 static_cast<long long>(size + static_cast<int64_t>(kova::kInfSize)));
    return -1;
  }
  const double seconds = std::chrono::duration<double>(got.last - got.first).count();
  return static_cast<double>(size) / (1024.0 * 1024.0) / seconds;
}

double median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v[v.size() / 2];
}

}  // namespace

int main(int argc, char** argv) {
  const int64_t mib = argc > 1 ? std::atoll(argv[1]) : 1024;
  const int runs = argc > 2 ? std::atoi(argv[2]) : 3;
  if (mib <= 0 || runs <= 0) {
    std::fprintf(stderr, "usage: perf_stream_bench [MiB [runs]]\n");
    return 2;
  }
  std::signal(SIGPIPE, SIG_IGN);
  const int64_t size = mib * 1024 * 1024;
  TempFile work;
  if (work.dir.empty() || !fill(work.path, size)) {
    std::fprintf(stderr, "cannot write a %lld MiB work file\n", static_cast<long long>(mib));
    return 1;
  }
  int port = 0;
  UniqueFd listener = listen_loopback(port);
  if (!listener) {
    std::perror("listen on 127.0.0.1");
    return 1;
  }

  kova::AgentSettings settings;  // no log file: the transfer's log lines go nowhere
  kova::PacketBuffer buffer{};
  std::vector<double> agent, bare;
  // Alternating, so that neither side alone meets a warmer or busier machine.
  for (int i = 0; i < runs; ++i) {
    const double a = run_once(listener.get(), port, size, [&](int fd) {
      return kova::send_ascii_file(fd, settings, work.path, buffer, kova::kTransferBlockSize) == kova::kTransferOk;
    });
    const double b = run_once(listener.get(), port, size, [&](int fd) { return send_bare(fd, work.path, size); });
    if (a < 0 || b < 0) return 1;
    agent.push_back(a);
    bare.push_back(b);
  }
  const double a = median(agent), b = median(bare);
  std::printf("file: %lld MiB, loopback TCP, median of %d runs each\n", static_cast<long long>(mib), runs);
  std::printf("send_ascii_file:  %8.0f MiB/s\n", a);
  std::printf("sendfile (bare):  %8.0f MiB/s\n", b);
  std::printf("ratio agent/bare: %8.2f\n", a / b);
  return 0;
}
