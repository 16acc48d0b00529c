#include "base/log.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "base/clock.h"

namespace kova {
namespace {

constexpr const char* kFacility = "KOVAAGENT";

}  // namespace

std::string string_vprintf(const char* format, va_list args) {
  va_list copy;
  va_copy(copy, args);
  char small[512];
  int n = std::vsnprintf(small, sizeof small, format, copy);
  va_end(copy);
  if (n < 0) return {};
  if (static_cast<size_t>(n) < sizeof small) return std::string(small, static_cast<size_t>(n));
  std::string out(static_cast<size_t>(n), '\0');
  std::vsnprintf(out.data(), out.size() + 1, format, args);
  return out;
}

LogState& log_state() {
  static LogState state;
  return state;
}

std::string string_printf(const char* format, ...) {
  va_list args;
  va_start(args, format);
  std::string out = string_vprintf(format, args);
  va_end(args);
  return out;
}

std::string log_escape(std::string_view text) {
  static constexpr char kHex[] = "0123456789abcdef";
  std::string out;
  out.reserve(text.size());
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte >= 0x20 && byte < 0x7f) {
      out += c;
    } else if (c == '\n') {
      out += "\\n";
    } else if (c == '\r') {
      out += "\\r";
    } else if (c == '\t') {
      out += "\\t";
    } else {
      out += "\\x";
      out += kHex[byte >> 4];
      out += kHex[byte & 15];
    }
  }
  return out;
}

std::string gettimestamp() {
  std::time_t now = clock_now();
  char buf[64];
  if (ctime_r(&now, buf) == nullptr) return {};
  std::string stamp(buf);
  if (stamp.size() > 1 && stamp.back() == '\n') stamp.pop_back();
  return stamp;
}

std::string format_log_line(std::string_view stamp, std::string_view tag, std::string_view message) {
  std::string tag_comma(tag);
  tag_comma += ',';
  std::string line;
  line.reserve(stamp.size() + tag_comma.size() + message.size() + 32);
  line.append(stamp).append(",  ").append(kFacility).append("-").append(tag_comma);
  if (tag_comma.size() < 13) line.append(13 - tag_comma.size(), ' ');
  line.append("  ").append(message).append("\n");
  return line;
}

int write_to_log(std::string_view tag, std::string_view message, bool stamped) {
  LogState& log = log_state();
  if (log.logfile.empty()) return 0;
  int fd = ::open(log.logfile.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
  if (fd < 0) {
    if (log.verbose)
      std::printf("KOVAAGENT-E-OPEN: Unable to open log %s, %s\n", log.logfile.c_str(), std::strerror(errno));
    return 0;
  }
  std::string line = stamped ? format_log_line(gettimestamp(), tag, message) : std::string(message) + "\n";
  ssize_t n = ::write(fd, line.data(), line.size());
  ::close(fd);
  return n < 0 ? 0 : static_cast<int>(n);
}

int log_printf(const char* tag, const char* format, ...) {
  va_list args;
  va_start(args, format);
  std::string message = string_vprintf(format, args);
  va_end(args);
  return write_to_log(tag, message, true);
}

}  // namespace kova
