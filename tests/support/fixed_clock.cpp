#include "support/fixed_clock.h"

namespace kova::test {
namespace {

std::time_t g_now = 0;
std::vector<unsigned> g_sleeps;

std::time_t fixed_now() { return g_now; }
void recorded_sleep(unsigned seconds) {
  g_sleeps.push_back(seconds);
  g_now += seconds;
}

}  // namespace

FixedClock::FixedClock(std::time_t now) : saved_(process_clock()) {
  g_now = now;
  g_sleeps.clear();
  process_clock() = Clock{fixed_now, recorded_sleep};
}

FixedClock::~FixedClock() { process_clock() = saved_; }

void FixedClock::set(std::time_t now) { g_now = now; }
void FixedClock::advance(std::time_t seconds) { g_now += seconds; }
const std::vector<unsigned>& FixedClock::sleeps() const { return g_sleeps; }

std::time_t local_time(int year, int month, int day, int hour, int minute, int second) {
  std::tm t{};
  t.tm_year = year - 1900;
  t.tm_mon = month - 1;
  t.tm_mday = day;
  t.tm_hour = hour;
  t.tm_min = minute;
  t.tm_sec = second;
  t.tm_isdst = -1;
  return std::mktime(&t);
}

}  // namespace kova::test
