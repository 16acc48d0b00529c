// The floor the agent's version request is measured against: a bare
// fork-per-connection server. The listening process accepts and forks; the
// child closes the listener, reads the 40-byte request, answers the 8-byte
// version reply and leaves with _exit. Given a log file, the child first
// appends the line the agent writes for the request, the same bytes in one
// write on an O_APPEND descriptor opened and closed for the line.
//
// Like the agent it loads the time zone once in the listening process, so
// no child reads it, and it keeps the agent's listen backlog. It uses
// nothing of the C++ library, so it maps the C library and itself only.
//
//   bare_fork_server PORT [LOG_FILE]
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

namespace {

void append_log_line(const char* path) {
  std::time_t now = std::time(nullptr);
  char stamp[64] = {};
  ::ctime_r(&now, stamp);
  stamp[std::strcspn(stamp, "\n")] = '\0';
  char line[256];
  const int n =
      std::snprintf(line, sizeof line, "%s,  KOVAAGENT-I-VERS,        sending version to server 6.0 \n\n", stamp);
  const int fd = ::open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
  if (fd < 0) return;
  (void)::write(fd, line, static_cast<size_t>(n));
  ::close(fd);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: bare_fork_server PORT [LOG_FILE]\n");
    return 2;
  }
  const char* log_path = argc > 2 ? argv[2] : nullptr;
  ::tzset();

  const int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const int one = 1;
  (void)::setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<uint16_t>(std::atoi(argv[1])));
  if (::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 || ::listen(listener, 5) != 0) {
    std::perror("bare_fork_server");
    return 1;
  }

  struct sigaction ignore {};
  ignore.sa_handler = SIG_IGN;
  ignore.sa_flags = SA_NOCLDWAIT;
  ::sigaction(SIGCHLD, &ignore, nullptr);
  for (;;) {
    const int connection = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (connection < 0) continue;
    if (::fork() == 0) {
      ::close(listener);
      unsigned char request[40];
      const unsigned char reply[8] = {10, 0, 6, 0, 0, 0, 0, 0};
      if (::recv(connection, request, sizeof request, MSG_WAITALL) == 40) {
        if (log_path != nullptr) append_log_line(log_path);
        (void)::send(connection, reply, sizeof reply, MSG_NOSIGNAL);
      }
      ::_exit(0);
    }
    ::close(connection);
  }
}
