// The agent as built for shipping, but with the send bound cut from two
// minutes to one second through the wire layer's hook, so that a test of a
// reader that stopped need not wait the real bound. Nothing else differs,
// and nothing of this reaches the shipped binary.
#include <poll.h>

#include <algorithm>

#include "agent/agent_main.h"
#include "wire/socket_io.h"

namespace {

int wait_writable_one_second(int fd, int timeout_ms) {
  pollfd p{fd, POLLOUT, 0};
  return ::poll(&p, 1, std::min(timeout_ms, 1000));
}

}  // namespace

int main(int argc, char** argv) {
  kova::wire_hooks().wait_writable = wait_writable_one_second;
  return kova::agent_main(argc, argv);
}
