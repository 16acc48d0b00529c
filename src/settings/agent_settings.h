// The agent's one settings record, filled at start-up from defaults, the
// settings file and the command line, and passed by reference to every
// request handler.
#pragma once

#include <string>
#include <string_view>

namespace kova {

inline constexpr int kDefaultPort = 1661;
inline constexpr const char* kAnyServer = "0.0.0.0";
inline constexpr const char* kDataSourceCollector = "vORN Monitor";
inline constexpr const char* kDataSourceMeasureware = "Measureware";

// Hardened mode's defaults: the most request children at once and its
// bounds, and the address the agent listens on in any mode.
inline constexpr int kDefaultMaxRequests = 32;
inline constexpr int kMaxRequestsLimit = 1024;
inline constexpr const char* kDefaultListenAddress = "0.0.0.0";

struct AgentSettings {
  int purge_days = 0;           // age for the one-shot purge ("-purge N")
  int verbose = 0;              // detailed logging
  int use_lock = 1;             // write and check the lock file
  int port = kDefaultPort;      // TCP port the agent listens on
  int fork = 1;                 // become a daemon, fork a child per request
  int show_usage = 0;           // an unknown option or a bad value was seen
  int start = 0;
  int stop = 0;
  int status = 0;
  int version = 0;
  int write_config = 0;
  int purge = 0;
  int logdir_given = 0;
  int datadir_given = 0;
  int rootdir_given = 0;
  int compression_given = 0;
  int appdir_given = 0;
  int remote = 0;               // remote operation
  int retain_days = 30;         // days of files kept in remote operation
  int schedule_given = 0;
  int schedule_hour = 1;
  int schedule_minute = 15;
  int keep_perf = 0;            // do not delete .perf work files
  int priority = 0;             // nice value applied when detaching
  int measureware_source = 0;   // data source is Measureware, not the collector
  int growth_interval = 900;    // seconds between collector growth checks
  int check_growth = 1;         // collector growth check on
  int user_given = 0;

  std::string server = kAnyServer;           // registered central server(s)
  std::string settings_server = kAnyServer;  // server that last sent settings
  std::string hostname;                      // cut at its first "."
  std::string user = "root";                 // service account
  std::string collector_lock_path;
  std::string agent_lock_path;
  std::string rta_lock_path;
  std::string memory_file_path;
  std::string settings_file_path;
  std::string install_root;
  std::string search_agent_root;
  std::string update_dir;
  std::string data_dir;
  std::string app_data_dir;
  std::string bin_dir;
  std::string log_dir;
  std::string tmp_dir;
  std::string outgoing_dir;
  std::string settings_dir;
  std::string mwa_dir;
  std::string compression_command;
  std::string update_tmp_dir;
  std::string work_tmp_dir;

  // Hardened mode, off unless asked for ("-harden", "HARDEN~1"): exact and
  // CIDR server lists, unregistered peers refused without a read, a bound on
  // request children, updates only when allowed. See settings/hardening.h.
  int harden = 0;
  int allow_update = 0;                        // accept pushed updates when hardened
  int max_requests = kDefaultMaxRequests;      // request children at once when hardened
  std::string listen_address = kDefaultListenAddress;  // IPv4 or IPv6 literal, any mode
  int search_agent_root_given = 0;             // $SORLEX_LIBRARY named the search agent's root
};

// 1 when `registered` is "0.0.0.0" (every server) or `address` occurs
// anywhere in it: the field may list several addresses.
// Compared as views, the test compiles into the caller: the listening
// process checks every peer, and runs no code and reads no data for it
// beyond its own loop's.
inline int validateConsole(const std::string& address, const std::string& registered) {
  const std::string_view field = registered;
  if (field == std::string_view(kAnyServer)) return 1;
  return field.find(address) != std::string_view::npos ? 1 : 0;
}

}  // namespace kova
