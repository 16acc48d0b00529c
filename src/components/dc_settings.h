// The data collector's settings record and its settings file
// "<settings dir>/vorn_<host>.config", which the collector reads at start.
#pragma once

#include <ctime>
#include <string>

#include "components/dc_fields.h"

namespace kova {

inline constexpr const char* kDefaultInstallRoot = "/opt/vantrel";
inline constexpr const char* kDefaultFilesysExclude = "tmpfs,devfs,mntfs,lofs,ctfs,fd,proc,objfs";

// The collector's settings; the rates and groups it shares with its lock
// file come from DcCollectorFields.
struct DcSettings : DcCollectorFields {
  DcSettings() {
    scan_rate = 2000;
    write_rate = 120;
    retain = 30;
    map_disknames = 1;
    filesys_exclude = kDefaultFilesysExclude;
  }
  int max_cpu = 101;      // written, never read back
  int collect_all = 1;    // all metric groups
  std::time_t start_time = 0;  // collection window, used by the lock file
  int start_time_given = 0;
  std::time_t end_time = 0;
  int end_time_given = 0;
  int install_dir_given = 0;  // set when the file names the directory
  int data_dir_given = 0;
  int log_dir_given = 0;
  std::string hostname;  // cut at its first "."
  std::string user = "root";
  std::string install_dir;
  std::string data_dir;
  std::string log_dir;
  std::string tmp_dir;        // holds the lock file
  std::string settings_dir;   // holds the settings file
  std::string lock_file;      // <tmp dir>/<host>_monitor.lock
  std::string current_data_file;
  std::string settings_file;  // <settings dir>/vorn_<host>.config
};

// The directory keys of the collector's settings files: the value less its
// line feed, and the directory's given-flag set.
namespace dc_key {
inline constexpr KeyField<DcSettings> kLogDir = text_key("LOG_DIR~", &DcSettings::log_dir, &DcSettings::log_dir_given);
inline constexpr KeyField<DcSettings> kInstallDir =
    text_key("INSTALL_DIR~", &DcSettings::install_dir, &DcSettings::install_dir_given);
inline constexpr KeyField<DcSettings> kDataDir =
    text_key("DATA_DIR~", &DcSettings::data_dir, &DcSettings::data_dir_given);
}  // namespace dc_key

// Resets `record` to the defaults with the host name and the install tree
// under get_vantrel_root(). A host without a name is waited for, twice
// 60000 s through clock_sleep, before gethostname is asked once more.
// Returns 1.
int dc_init_command_line(DcSettings& record);

// Moves the install tree to `root`: install, data, log, tmp and settings
// dirs, then the lock file and settings file paths. Returns 1.
int dc_adjust_path_settings(DcSettings& record, const std::string& root);

// For an install dir that has vanished: 0 and nothing changed when `root`
// does not exist either; else install dir = root and the data, log,
// settings and tmp dirs under it, each resolved when it is a symbolic link,
// and 1. The lock and settings file paths are left as they are.
int dc_update_paths(DcSettings& record, const std::string& root);

// 0: `path` is no symbolic link, out = path; 1: it is one, out = its target;
// -1: lstat failed (out untouched) or the target could not be resolved
// (out = path). With print, "path ->    out" goes to stdout.
int dc_resolve_softlink(const std::string& path, std::string& out, int print);

// "Collect all" as a read settings file gives it: 1 exactly when the net,
// cpu, processor, memory, file-system and disk groups are all 1.
int dc_collects_all(const DcSettings& record);

// Reads the settings file named in the record over the record. 1 when the
// file opened and held at least one known key; 0 otherwise, with the record
// untouched when the file could not be opened.
int dc_parse_startup_file(DcSettings& record);

// Writes "<settings dir>/vorn_<host>.config" from the record. 1 when written
// and closed; 0 when it cannot be opened (message on stderr) or the write
// failed.
[[nodiscard]] int dc_write_settings_file(DcSettings& record);

}  // namespace kova
