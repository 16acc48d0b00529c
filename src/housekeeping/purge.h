// Deletion of the agent's old files: collector data files once fetched,
// logs, remote-operation files and application-data files.
#pragma once

#include <ctime>
#include <string>

namespace kova {

// Deletes the entries of `directory` whose name begins with `prefix`, whose
// extension (from the last ".", not a leading one) begins with `extension`,
// and whose modification time is at or before `cutoff`. Every deletion is
// logged; an entry that cannot be read or deleted is logged and skipped.
// With files_only, links and anything but regular files are left alone.
// Returns 1 when the directory was scanned, 0 when it could not be opened.
[[nodiscard]] int purge_file(const std::string& directory, const std::string& prefix,
                             const std::string& extension, std::time_t cutoff, int verbose,
                             bool files_only = false);

// The same wall-clock time `days` calendar days before now.
std::time_t purge_cutoff(int days);

// The wrappers: they build the prefix and the cut-off for each kind of
// file, and return 0 without scanning when `days` rules a purge out
// (0 or less; below 0 for application data, which keeps one day more).
[[nodiscard]] int purge_data_file(const std::string& directory, const std::string& hostname,
                                  const std::string& extension, int days, int verbose);
[[nodiscard]] int purge_data_file1(const std::string& directory, const std::string& hostname,
                                   const std::string& word, const std::string& extension, int days, int verbose);
[[nodiscard]] int purge_log_file(const std::string& log_dir, const std::string& hostname,
                                 const std::string& extension, int days, int verbose);
[[nodiscard]] int purge_appdata_file(const std::string& directory, const std::string& prefix,
                                     const std::string& extension, int days, int verbose,
                                     bool files_only = false);

}  // namespace kova
