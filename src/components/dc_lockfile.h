// The lock file that a running data collector keeps in its tmp dir,
// "<tmp dir>/<host>_monitor.lock": its pid, version, window, directories,
// run settings and current data file. The agent only reads it.
#pragma once

#include <string>

#include "components/dc_fields.h"
#include "settings/agent_settings.h"

namespace kova {

inline constexpr const char* kLegacyCollectorDir = "/usr/var/opt/QDT";
inline constexpr const char* kCollectorBinDir = "/usr/bin";

// What the collector's lock file says; the rates and groups come from
// DcCollectorFields.
struct DcLockfile : DcCollectorFields {
  std::string start_time;
  std::string end_time;
  std::string data_dir;
  std::string log_dir;
  std::string current_data_file;
  std::string temp_dir;
  std::string version;
  int pid = 0;
  int image_bits = 0;
};

// Which collector generation wrote the lock file: 3 the oldest ("QDT V5.4"),
// 4 the one with only the "@" summary line ("V4.0"), 5 the current one.
struct DcVersion {
  int number = 0;
  std::string text;
};

// Where the older generations live; tests point them elsewhere.
struct DcLegacyPaths {
  std::string legacy_dir = kLegacyCollectorDir;  // holds lockfile.zud
  std::string bin_dir = kCollectorBinDir;        // vorn_monitor, zudunix
};

// Reads the lock file into `record`. 1: at least one known key; 0: none
// (the file is then deleted) or an open error other than these; -1: no
// such file; -2: permission denied.
[[nodiscard]] int dc_read_lockfile(const std::string& path, DcLockfile& record);

// The value of the last CURRENT_DATA_FILE~ line less its last character:
// 1; 0 when there is none or the file cannot be opened.
[[nodiscard]] int dc_get_filename_from_lockfile(const std::string& path, std::string& out);

// dc_read_lockfile that also recognises the older generations and sets
// `version` to the one found. 1: `record` holds the running collector's
// data; 0: no usable lock file.
[[nodiscard]] int kova_read_dc_lockfile(const std::string& path, DcLockfile& record, DcVersion& version,
                                        const DcLegacyPaths& legacy = {});

// The installed collector's generation: from its lock file when that is
// usable (the reader's result, 1), else from the programs installed under
// legacy.bin_dir, or "Unknown" and 0 (result 0).
int kova_determine_dc_version(const AgentSettings& settings, DcVersion& version,
                              const DcLegacyPaths& legacy = {});

}  // namespace kova
