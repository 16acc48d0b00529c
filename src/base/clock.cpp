#include "base/clock.h"

#include <cerrno>
#include <ctime>

namespace kova {
namespace {

[[gnu::hot]] std::time_t real_now() { return std::time(nullptr); }

void real_sleep(unsigned seconds) {
  timespec left{static_cast<time_t>(seconds), 0};
  while (nanosleep(&left, &left) == -1 && errno == EINTR) {
  }
}

}  // namespace

[[gnu::hot]] Clock& process_clock() {
  static Clock clock{real_now, real_sleep};
  return clock;
}

}  // namespace kova
