// The agent log: one plain-text file per host and day, appended one line at
// a time by the listening process and every request child alike.
#pragma once

#include <array>
#include <cstdarg>
#include <ctime>
#include <string>
#include <string_view>

namespace kova {

// The process-wide log state. Request children inherit it at fork; only the
// listening process moves it to a new day (see log_day.h).
struct LogState {
  std::string logfile;    // full path of the current day's log; empty: no log yet
  int logfile_yday = -1;  // day of the year logfile was formed for
  // A span of time known to fall on logfile_yday: from the last look at the
  // calendar to the next local midnight. The listening process checks the
  // day before every fork; within the span it needs no calendar look-up.
  std::time_t same_day_from = 0, same_day_until = 0;
  bool verbose = false;   // report a log that cannot be opened on stdout
};

LogState& log_state();

// Appends one line to the current log: "<ctime>,  KOVAAGENT-<tag>,  <message>"
// with the tag and its comma left-justified in 13 columns, or the message
// alone when `stamped` is false. Each line is a single write(2) on an
// O_APPEND descriptor, so concurrent processes never interleave within a
// line. Returns the number of bytes written, 0 when the log cannot be opened.
int write_to_log(std::string_view tag, std::string_view message, bool stamped = true);

// write_to_log with a printf-style message; the format stays a literal at
// the call site so a log line can be traced to its source with grep.
int log_printf(const char* tag, const char* format, ...) __attribute__((format(printf, 2, 3)));

// `text` as it may stand in a log line when it came from outside (a tag,
// host name, path or file name of a request): printable ASCII unchanged, a
// line feed, carriage return and tab as "\n", "\r" and "\t", any other
// control character or byte outside printable ASCII as "\xNN" ("\xff"). So
// no request can end a log line early or write one of its own.
std::string log_escape(std::string_view text);

// Formats a stamped line exactly as write_to_log writes it.
std::string format_log_line(std::string_view stamp, std::string_view tag, std::string_view message);

// Room for a time stamp.
using StampBuffer = std::array<char, 64>;

// The current time as ctime(3) prints it, without its line feed, written
// into `buffer`; the returned text lives there. The second form returns a
// copy.
std::string_view gettimestamp(StampBuffer& buffer);
std::string gettimestamp();

// printf into a std::string.
std::string string_printf(const char* format, ...) __attribute__((format(printf, 1, 2)));
std::string string_vprintf(const char* format, va_list args) __attribute__((format(printf, 1, 0)));

}  // namespace kova
