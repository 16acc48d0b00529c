// Pins the process clock to a settable time and makes fixed waits instant,
// recording them; restores the real clock when it goes out of scope.
#pragma once

#include <ctime>
#include <vector>

#include "core/clock.h"

namespace kova::test {

class FixedClock {
 public:
  explicit FixedClock(std::time_t now);
  ~FixedClock();
  FixedClock(const FixedClock&) = delete;
  FixedClock& operator=(const FixedClock&) = delete;

  void set(std::time_t now);
  void advance(std::time_t seconds);
  // Every fixed wait asked for since construction, in seconds.
  const std::vector<unsigned>& sleeps() const;

 private:
  Clock saved_;
};

// A local time as seconds since the epoch.
std::time_t local_time(int year, int month, int day, int hour = 12, int minute = 0, int second = 0);

}  // namespace kova::test
