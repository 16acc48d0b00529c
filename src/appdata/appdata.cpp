#include "appdata/appdata.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>

#include "appdata/date_format.h"
#include "base/codes.h"
#include "base/log.h"
#include "housekeeping/purge.h"
#include "platform/unique.h"
#include "settings/command_line.h"

namespace kova {
namespace {

// The styles file is read in pieces of this size; each piece is a slot.
constexpr int kStyleLineRead = 512;
// Longest style kept: the table's text buffers hold 32 bytes.
constexpr size_t kStyleMax = 31;

std::string lower_case(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

// The entry of `registered_list` that `dir` names, as the site wrote it
// (trimmed, one trailing "/" dropped); nothing when none does.
std::optional<std::string> registered_entry(std::string_view registered_list, std::string_view dir) {
  std::string wanted(dir);
  LibTrim1(wanted);
  wanted = lower_case(std::move(wanted));
  if (wanted.empty()) return std::nullopt;
  for (size_t begin = 0; begin <= registered_list.size();) {
    size_t comma = registered_list.find(',', begin);
    if (comma == std::string_view::npos) comma = registered_list.size();
    std::string entry(registered_list.substr(begin, comma - begin));
    LibTrim1(entry);
    if (entry.ends_with('/')) entry.pop_back();
    LibTrim1(entry);
    if (!entry.empty() && lower_case(entry) == wanted) return entry;
    begin = comma + 1;
  }
  return std::nullopt;
}

// The names compare without regard to case, but the file system does not:
// a directory spelled otherwise than the registered one must be that same
// directory, or it is not registered at all.
bool same_directory(int dir_fd, const std::string& requested, const std::string& registered) {
  if (requested == registered) return true;
  struct stat opened, listed;
  return ::fstat(dir_fd, &opened) == 0 && ::stat(registered.c_str(), &listed) == 0 &&
         opened.st_dev == listed.st_dev && opened.st_ino == listed.st_ino;
}

// Step c of the selection: the day, when asked for, then the suffix.
bool dated_and_suffixed(std::string_view name, std::span<const DateStyle> styles,
                        std::optional<std::string_view> suffix, int use_dates) {
  const bool suffix_ok = !suffix || name.find(*suffix) != std::string_view::npos;
  if (use_dates == 0) return suffix_ok;
  for (const DateStyle& s : styles) {
    if (s.rendered.empty()) continue;
    // The first date the name holds decides, with or without the suffix.
    if (name.find(s.rendered) != std::string_view::npos) return suffix_ok;
  }
  return false;
}

}  // namespace

AppDataState& appdata_state() {
  static AppDataState state;
  return state;
}

int appdata_read_formats(const std::string& install_root) {
  std::vector<DateStyle>& styles = appdata_state().styles;
  styles.clear();
  UniqueFile file(std::fopen((install_root + "/settings/date_formats.txt").c_str(), "re"));
  if (!file) return 0;
  char line[kStyleLineRead];
  while (std::fgets(line, sizeof line, file.get()) != nullptr) {
    std::string style = line;
    if (style.ends_with('\n')) style.pop_back();
    if (style.size() > kStyleMax) style.resize(kStyleMax);
    styles.push_back(DateStyle{std::move(style), {}});
  }
  return 1;
}

int appdata_build_time_filters(std::string_view day) {
  // A day that cannot be taken apart renders no date at all, rather than
  // one made of an earlier request's fields.
  const bool parsed = date_GetDateTime_KOVA_FORMAT(day) == 1;
  for (DateStyle& s : appdata_state().styles) {
    s.rendered.clear();
    if (parsed && !s.style.empty()) (void)date_GetFormattedDate(s.style, s.rendered);
  }
  return 1;
}

int get_unix_path(std::string_view path, std::string& dir_out, std::string& name_out, int verbose) {
  dir_out.clear();
  name_out.clear();
  const size_t slash = path.rfind('/');
  if (slash == std::string_view::npos || slash == 0) {
    if (verbose)
      log_printf("E-KOVA_GET_PATH", "Validate AppData Path: unable to parse path: %s", log_escape(path).c_str());
    return 0;
  }
  name_out = path.substr(slash + 1);
  dir_out = path.substr(0, slash);
  if (dir_out.ends_with('/')) dir_out.pop_back();
  LibTrim1(dir_out);
  if (verbose) log_printf("I-KOVA_GET_PATH", "Get Path: %s", log_escape(dir_out).c_str());
  return 1;
}

int get_vms_path(std::string_view path, std::string& dir_out, std::string& name_out, int verbose) {
  dir_out.clear();
  name_out.clear();
  size_t sep = path.rfind(']');
  if (sep == std::string_view::npos) sep = path.rfind(':');
  if (sep == std::string_view::npos || sep == 0) {
    if (verbose)
      log_printf("E-KOVA_GET_PATH", "Validate AppData Path: unable to parse path: %s", log_escape(path).c_str());
    return 0;
  }
  name_out = path.substr(sep + 1);
  dir_out = path.substr(0, sep + 1);
  LibTrim1(dir_out);
  if (verbose) log_printf("I-KOVA_GET_PATH", "Get Path: %s", log_escape(dir_out).c_str());
  return 1;
}

int appdata_validate_path(std::string_view registered_list, std::string_view dir, [[maybe_unused]] int verbose) {
  return registered_entry(registered_list, dir) ? 1 : 0;
}

int appdata_find_files(std::vector<std::string>& found, const std::string& registered_list, std::string_view path,
                       std::span<const DateStyle> styles, std::optional<std::string_view> suffix, int use_dates,
                       int verbose, bool skip_links) {
  found.clear();
  std::string dir, pattern;
  // A path that cannot be split names no directory, so none that is registered.
  const bool split = get_unix_path(path, dir, pattern, verbose) == 1;
  pattern.resize(std::min(pattern.size(), pattern.find('*')));
  const std::optional<std::string> registered = split ? registered_entry(registered_list, dir) : std::nullopt;
  if (!registered) {
    write_to_log("E-APPDATA_INVALID_PATH", "Application data path not registered with the KOVAAgent");
    return kResultAppDataNotRegistered;
  }

  UniqueFd dir_fd(::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  UniqueDir listing = list_directory(dir_fd.get());
  if (!listing) {
    const int error = errno;
    log_printf("E-OPENDIR", "Not able to open %s, %s", log_escape(dir).c_str(), std::strerror(error));
    return kResultAppDataNotOpened;
  }
  if (!same_directory(dir_fd.get(), dir, *registered)) {
    write_to_log("E-APPDATA_INVALID_PATH", "Application data path not registered with the KOVAAgent");
    return kResultAppDataNotRegistered;
  }

  // One pass; only a name that passes the text tests costs a stat and an
  // allocation.
  while (const struct dirent* entry = ::readdir(listing.get())) {
    const std::string_view name = entry->d_name;
    if (name == "." || name == "..") continue;
    if (name.find(pattern) == std::string_view::npos) continue;
    if (!dated_and_suffixed(name, styles, suffix, use_dates)) continue;
    struct stat st;
    if (::fstatat(dir_fd.get(), entry->d_name, &st, skip_links ? AT_SYMLINK_NOFOLLOW : 0) != 0) {
      const int error = errno;
      if (verbose)
        log_printf("W-STATFAIL", "Not able to stat() file %s, %s", log_escape(entry->d_name).c_str(),
                   std::strerror(error));
      continue;
    }
    // Only files are sent: a directory cannot be, and a pipe would hold
    // the request forever.
    if (!S_ISREG(st.st_mode)) continue;
    found.push_back(dir + "/" + entry->d_name);
  }
  // The newest find first, as the server has always received them.
  std::reverse(found.begin(), found.end());
  return kResultOk;
}

int appdata_purge_files(std::string_view path, const std::string& extension, int days, int verbose,
                        bool files_only) {
  std::string dir, pattern;
  if (get_unix_path(path, dir, pattern, verbose) != 1) return 0;
  pattern.resize(std::min(pattern.size(), pattern.find('*')));
  return purge_appdata_file(dir, pattern, extension, days, verbose, files_only);
}

}  // namespace kova
