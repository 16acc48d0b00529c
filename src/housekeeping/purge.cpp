#include "housekeeping/purge.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string_view>

#include "base/clock.h"
#include "base/log.h"
#include "platform/unique.h"

namespace kova {

std::time_t purge_cutoff(int days) {
  std::time_t now = clock_now();
  std::tm local{};
  localtime_r(&now, &local);
  local.tm_mday -= days;
  local.tm_isdst = -1;  // the same wall-clock time, across daylight-saving changes
  return std::mktime(&local);
}

int purge_file(const std::string& directory, const std::string& prefix, const std::string& extension,
               std::time_t cutoff, int verbose, bool files_only) {
  // The directory and names may come from a request: shown escaped.
  const std::string shown = log_escape(directory);
  if (verbose) log_printf("I-PURGE", "Checking data files for purge in %s", shown.c_str());

  // Works relative to a descriptor of the directory rather than changing
  // the process's working directory.
  UniqueFd dir_fd(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!dir_fd) {
    log_printf("E-PURGE", "Unable to change directory to %s, %s", shown.c_str(), std::strerror(errno));
    return 0;
  }
  UniqueDir dir = list_directory(dir_fd.get());
  if (!dir) {
    log_printf("E-PURGE", "Unable to open directory %s, %s", shown.c_str(), std::strerror(errno));
    return 0;
  }

  while (struct dirent* entry = ::readdir(dir.get())) {
    std::string_view name = entry->d_name;
    if (name == "." || name == "..") continue;

    struct stat st;
    if (::fstatat(dir_fd.get(), entry->d_name, &st, files_only ? AT_SYMLINK_NOFOLLOW : 0) != 0) {
      log_printf("E-STAT_FAIL", "Unable to stat() folder %s \n", log_escape(entry->d_name).c_str());
      continue;
    }
    if (files_only && !S_ISREG(st.st_mode)) continue;
    if (st.st_mtime > cutoff) continue;

    size_t dot = name.rfind('.');
    if (dot == std::string_view::npos || dot == 0) continue;
    if (!name.substr(dot).starts_with(extension)) continue;

    if (verbose) log_printf("I-PURGE_CHECK_FILE", "Checking data file %s  against  %s  ",
                            log_escape(entry->d_name).c_str(), log_escape(prefix).c_str());
    if (!name.starts_with(prefix)) continue;

    const std::string shown_name = log_escape(entry->d_name);
    log_printf("I-DEL_DATA", "Deleting data file %s", shown_name.c_str());
    if (::unlinkat(dir_fd.get(), entry->d_name, 0) != 0)
      log_printf("E-DEL_DATA", "error deleting  %s,  %s", std::strerror(errno), shown_name.c_str());
  }
  return 1;
}

int purge_data_file(const std::string& directory, const std::string& hostname, const std::string& extension,
                    int days, int verbose) {
  if (days <= 0) return 0;
  return purge_file(directory, "qdtsx_" + hostname + "_", extension, purge_cutoff(days), verbose);
}

int purge_data_file1(const std::string& directory, const std::string& hostname, const std::string& word,
                     const std::string& extension, int days, int verbose) {
  if (days <= 0) return 0;
  return purge_file(directory, word + "_" + hostname + "_", extension, purge_cutoff(days), verbose);
}

int purge_log_file(const std::string& log_dir, const std::string& hostname, const std::string& extension,
                   int days, int verbose) {
  if (days <= 0) return 0;
  std::time_t cutoff = purge_cutoff(days);
  if (verbose) write_to_log("I-PURGE", "purge dc log files...");
  int scanned = purge_file(log_dir, "qdtsx_" + hostname + "_", extension, cutoff, verbose);
  if (verbose) write_to_log("I-PURGE", "purge kovaagent log files...");
  scanned &= purge_file(log_dir, "kova_" + hostname, extension, cutoff, verbose);
  if (verbose) write_to_log("I-PURGE", "purge realtime log files...");
  scanned &= purge_file(log_dir, "rta_" + hostname, extension, cutoff, verbose);
  return scanned;
}

int purge_appdata_file(const std::string& directory, const std::string& prefix, const std::string& extension,
                       int days, int verbose, bool files_only) {
  if (days < 0) return 0;
  return purge_file(directory, prefix, extension, purge_cutoff(days + 1), verbose, files_only);
}

}  // namespace kova
