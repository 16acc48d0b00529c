#include "base/log.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "base/clock.h"

namespace kova {
namespace {

constexpr std::string_view kFacility = "KOVAAGENT";
constexpr size_t kTagColumns = 13;  // the tag and its comma, left-justified

// printf output, on the stack when it is short. Request children log a
// line or two each; kept off the heap, a line costs a child no copy of the
// heap pages it shares with the listening process.
class Formatted {
 public:
  Formatted(const char* format, va_list args) {
    va_list copy;
    va_copy(copy, args);
    const int n = std::vsnprintf(small_, sizeof small_, format, copy);
    va_end(copy);
    if (n < 0) return;
    size_ = static_cast<size_t>(n);
    if (size_ < sizeof small_) return;
    large_.resize(size_);
    std::vsnprintf(large_.data(), size_ + 1, format, args);
  }
  Formatted(const Formatted&) = delete;
  Formatted& operator=(const Formatted&) = delete;

  std::string_view view() const { return {size_ < sizeof small_ ? small_ : large_.data(), size_}; }

 private:
  char small_[256];
  size_t size_ = 0;
  std::string large_;
};

[[gnu::hot]] size_t stamped_line_size(std::string_view stamp, std::string_view tag, std::string_view message) {
  return stamp.size() + 3 + kFacility.size() + 1 + std::max(tag.size() + 1, kTagColumns) + 2 + message.size() + 1;
}

// Writes the stamped line into `out`, which has room for stamped_line_size.
[[gnu::hot]] void compose_stamped_line(char* out, std::string_view stamp, std::string_view tag,
                                      std::string_view message) {
  const auto put = [&out](std::string_view text) { out = std::copy(text.begin(), text.end(), out); };
  put(stamp);
  put(",  ");
  put(kFacility);
  put("-");
  put(tag);
  put(",");
  if (tag.size() + 1 < kTagColumns) out = std::fill_n(out, kTagColumns - tag.size() - 1, ' ');
  put("  ");
  put(message);
  put("\n");
}

}  // namespace

[[gnu::hot]] LogState& log_state() {
  static LogState state;
  return state;
}

std::string string_vprintf(const char* format, va_list args) {
  const Formatted text(format, args);
  return std::string(text.view());
}

std::string string_printf(const char* format, ...) {
  va_list args;
  va_start(args, format);
  const Formatted text(format, args);
  va_end(args);
  return std::string(text.view());
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

[[gnu::hot]] std::string_view gettimestamp(StampBuffer& buffer) {
  const std::time_t now = clock_now();
  if (ctime_r(&now, buffer.data()) == nullptr) return {};
  std::string_view stamp(buffer.data());
  if (stamp.size() > 1 && stamp.back() == '\n') stamp.remove_suffix(1);
  return stamp;
}

std::string gettimestamp() {
  StampBuffer buffer;
  return std::string(gettimestamp(buffer));
}

std::string format_log_line(std::string_view stamp, std::string_view tag, std::string_view message) {
  std::string line(stamped_line_size(stamp, tag, message), '\0');
  compose_stamped_line(line.data(), stamp, tag, message);
  return line;
}

[[gnu::hot]] int write_to_log(std::string_view tag, std::string_view message, bool stamped) {
  LogState& log = log_state();
  if (log.logfile.empty()) return 0;
  int fd = ::open(log.logfile.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
  if (fd < 0) {
    if (log.verbose)
      std::printf("KOVAAGENT-E-OPEN: Unable to open log %s, %s\n", log.logfile.c_str(), std::strerror(errno));
    return 0;
  }
  StampBuffer stamp_buffer;
  const std::string_view stamp = stamped ? gettimestamp(stamp_buffer) : std::string_view();
  const size_t size = stamped ? stamped_line_size(stamp, tag, message) : message.size() + 1;
  char small[256];  // most lines; see Formatted
  std::string large;
  char* line = small;
  if (size > sizeof small) {
    large.resize(size);
    line = large.data();
  }
  if (stamped) {
    compose_stamped_line(line, stamp, tag, message);
  } else {
    std::copy(message.begin(), message.end(), line);
    line[size - 1] = '\n';
  }
  ssize_t n = ::write(fd, line, size);
  ::close(fd);
  return n < 0 ? 0 : static_cast<int>(n);
}

int log_printf(const char* tag, const char* format, ...) {
  va_list args;
  va_start(args, format);
  const Formatted message(format, args);
  va_end(args);
  return write_to_log(tag, message.view(), true);
}

}  // namespace kova
