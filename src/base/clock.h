// The process's one source of time and of the protocol's fixed waits.
// Tests replace the hooks so that they neither depend on the wall clock nor
// sleep; the shipped agent keeps the real ones.
#pragma once

#include <ctime>

namespace kova {

struct Clock {
  std::time_t (*now)();                 // wall-clock time, as time(nullptr)
  void (*sleep)(unsigned seconds);      // a fixed wait of the protocol
};

// The process-wide clock; starts with the real time and the real sleep.
Clock& process_clock();

inline std::time_t clock_now() { return process_clock().now(); }
inline void clock_sleep(unsigned seconds) { process_clock().sleep(seconds); }

}  // namespace kova
