// Pins the process clock to a settable time and makes fixed waits instant,
// recording them; restores the real clock when it goes out of scope.
#pragma once

#include <ctime>
#include <vector>

#include "base/clock.h"

namespace kova::test {

class FixedClock {
 public:
  explicit FixedClock(std::time_t now) : saved_(process_clock()) {
    now_ = now;
    sleeps_.clear();
    process_clock() = Clock{[] { return now_; }, [](unsigned seconds) { sleeps_.push_back(seconds); now_ += seconds; }};
  }
  ~FixedClock() { process_clock() = saved_; }
  FixedClock(const FixedClock&) = delete;
  FixedClock& operator=(const FixedClock&) = delete;

  void set(std::time_t now) { now_ = now; }
  void advance(std::time_t seconds) { now_ += seconds; }
  // Every fixed wait asked for since construction, in seconds.
  const std::vector<unsigned>& sleeps() const { return sleeps_; }

 private:
  // The clock's hooks are plain functions: the time they report lives here.
  static inline std::time_t now_ = 0;
  static inline std::vector<unsigned> sleeps_;
  Clock saved_;
};

// A local time as seconds since the epoch.
inline std::time_t local_time(int year, int month, int day, int hour = 12, int minute = 0, int second = 0) {
  std::tm t{.tm_sec = second, .tm_min = minute, .tm_hour = hour, .tm_mday = day, .tm_mon = month - 1,
            .tm_year = year - 1900, .tm_isdst = -1};
  return std::mktime(&t);
}

}  // namespace kova::test
