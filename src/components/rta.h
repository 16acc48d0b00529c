// The real-time agent kovarta: its settings record and files, and starting,
// stopping and checking it.
#pragma once

#include <string>

#include "settings/agent_settings.h"

namespace kova {

struct RtaSettings {
  int verbose = 0;
  int priority = 0;
  int priority_given = 0;
  int port = 2101;
  int port2 = 2102;        // kovarta's own use
  int scan_rate = 2;
  int alerts = 1;          // 0 or 1
  int processes = 0;
  int processes2 = 0;      // copy of processes as read from the file
  int install_dir_given = 0;
  int data_dir_given = 0;
  int log_dir_given = 0;
  std::string hostname;    // cut at its first "."
  std::string listen_address = "0.0.0.0";
  std::string user = "root";
  std::string install_dir;
  std::string data_dir;
  std::string bin_dir;
  std::string log_dir;
  std::string tmp_dir;
  std::string settings_dir;
  std::string log_file;       // <logs>/rta_<host>_<YYYYMonDD>.log
  std::string log_file2;      // <logs>/rta_java_<host>_<YYYYMonDD>.log
  std::string settings_file;  // <settings>/rta_<host>.config
  std::string lock_file;      // <tmp>/<host>_rtdc.lock
};

// What kovarta's lock file says about the running copy.
struct RtaLockfile {
  int pid = 0;
  std::string started;
  std::string version;
  std::string install_dir;
  std::string data_dir;
  std::string log_dir;
  std::string temp_dir;
  int verbose = 0;
  int port = 0;
  int alerts = 0;
  int processes = 0;
  int scan_rate = 0;
  std::string user;
};

// The agent's one real-time agent settings record.
RtaSettings& rta_cmdline();

// Resets `record` to the defaults, the host name and the install tree under
// get_vantrel_root(). Returns 1.
int rta_init_command_line(RtaSettings& record);

// Moves the install tree to `root` and re-derives every path from it,
// today's log file names included. Returns 1.
int rta_adjust_path_settings(RtaSettings& record, const std::string& root);

// Reads the record's settings file over it. 1 when a known key was seen;
// 0 when none or no file. An alerts value other than 0 or 1 becomes 1.
int rta_parse_startup_file(RtaSettings& record);

// Writes "<settings dir>/rta_<host>.config": 1; 0 when it cannot be written.
[[nodiscard]] int rta_write_settings_file(const RtaSettings& record);

// Takes a positive port and scan rate that differ and the processes flag
// (as 0 or 1). 1 when something changed and the file was written; else 0.
[[nodiscard]] int compare_rta_settings(RtaSettings& record, int port, int processes, int scan_rate);

// 1: a known key was read; 0: none (the file is then deleted) or an open
// error; -1: no such file.
[[nodiscard]] int rta_read_lockfile(const std::string& path, RtaLockfile& record);

// Merges the requested settings when the requester is the controlling
// server, starts kovarta through the shell and returns CheckRTA_UNIX().
[[nodiscard]] int StartRTA_UNIX(const std::string& requester, int processes, int port, int scan_rate,
                                const AgentSettings& settings);

// Runs "kovarta -stop" and returns CheckRTA_UNIX().
[[nodiscard]] int StopRTA_UNIX(const AgentSettings& settings);

// 3 running, 4 not running, 5 not installed under the install root.
[[nodiscard]] int CheckRTA_UNIX(const AgentSettings& settings);

}  // namespace kova
