#include "platform/proc_table.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cerrno>
#include <climits>

#include "platform/unique.h"

namespace kova {
namespace {

unsigned long long zone_of(const std::string& proc_dir) {
  struct stat st;
  if (::stat((proc_dir + "/ns/pid").c_str(), &st) != 0) return 0;
  return static_cast<unsigned long long>(st.st_ino);
}

}  // namespace

unsigned long long getzoneid() { return zone_of("/proc/self"); }

bool is_process_entry(const char* name) {
  if (*name == '\0') return false;
  for (; *name != '\0'; ++name)
    if (*name < '0' || *name > '9') return false;
  return true;
}

std::string proc_info_path(const std::string& proc_dir) { return proc_dir + "/stat"; }

int read_proc_info(int fd, const std::string& proc_dir, ProcInfo& info) {
  // The pid and the name open the record; the rest of it is not needed.
  char buf[512];
  ssize_t n = ::read(fd, buf, sizeof buf);
  if (n < 0) return -1;
  std::string_view record(buf, static_cast<std::size_t>(n));
  if (n == 0 || !parse_proc_info(record, info)) return 0;
  // A process that has ended but not been reaped still has its record; it
  // runs no more, so it is no match.
  std::size_t close = record.rfind(')');
  if (close + 2 < record.size() && (record[close + 2] == 'Z' || record[close + 2] == 'X')) return 0;
  info.zone = zone_of(proc_dir);
  return 1;
}

bool parse_proc_info(std::string_view record, ProcInfo& info) {
  std::size_t open = record.find('(');
  std::size_t close = record.rfind(')');
  if (open == std::string_view::npos || close == std::string_view::npos || close < open) return false;
  std::string_view digits = record.substr(0, open);
  while (!digits.empty() && digits.back() == ' ') digits.remove_suffix(1);
  int pid = 0;
  auto [end, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), pid);
  if (ec != std::errc() || end != digits.data() + digits.size() || digits.empty()) return false;
  info.pid = pid;
  info.fname.assign(record.substr(open + 1, std::min(close - open - 1, kShortNameMax)));
  return true;
}

bool in_zone(const ProcInfo& info, unsigned long long zone) {
  return info.zone == 0 || zone == 0 || info.zone == zone;
}

std::vector<std::string> read_proc_cmdline(const std::string& proc_dir) {
  std::string text;
  UniqueFd in(::open((proc_dir + "/cmdline").c_str(), O_RDONLY | O_CLOEXEC));
  char block[4096];
  for (ssize_t n; in && ((n = ::read(in.get(), block, sizeof block)) > 0 || (n < 0 && errno == EINTR));)
    if (n > 0) text.append(block, static_cast<size_t>(n));
  std::vector<std::string> args;
  for (size_t at = 0; at < text.size();) {
    const size_t end = std::min(text.find('\0', at), text.size());
    args.emplace_back(text, at, end - at);
    at = end + 1;
  }
  return args;
}

std::string read_proc_link(const std::string& proc_dir, const char* link) {
  char target[PATH_MAX];
  const ssize_t n = ::readlink((proc_dir + "/" + link).c_str(), target, sizeof target);
  return n > 0 && static_cast<size_t>(n) < sizeof target ? std::string(target, static_cast<size_t>(n)) : std::string();
}

}  // namespace kova
