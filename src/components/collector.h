// Starting, stopping and checking the data collector vorn_monitor, and the
// growth watch that stops a collector whose data file no longer grows.
#pragma once

#include <cstdint>
#include <ctime>
#include <string>

#include "components/command.h"
#include "components/dc_esx_settings.h"
#include "components/dc_lockfile.h"
#include "components/dc_settings.h"
#include "settings/agent_settings.h"

namespace kova {

// The collector's process-wide state. A request child inherits the
// listener's copy at fork; changes reach later children only through the
// settings and growth-state files.
struct CollectorState {
  DcSettings dc_cmdline;          // the collector's settings record
  DcVersion dc_version;           // generation found by the last lock-file read
  std::int16_t dc_interval = 0;   // dump interval, s, as the status reply carries it
  int dc_peak_interval = 0;       // peak interval, ms; 0 outside 0..60000
  std::time_t last_dc_checktime = 0;  // when the data file size was recorded; 0: never
  long l_last_datafile_size = 0;      // bytes recorded then
  std::string last_dc_filename;       // data file recorded then
};

CollectorState& collector_state();

// Where the MeasureWare agent's control command lives.
inline constexpr const char* kMeasurewareControl = "/opt/perf/bin/mwa";

// Merges the requested rates into the settings file, starts the collector
// through the shell and returns CheckDC_UNIX(). `requester` is not used.
// MeasureWare mode: starts that agent and returns 3 unchecked.
[[nodiscard]] int StartDC_UNIX(const std::string& requester, int dump_interval, int peak_interval, int retain,
                               const AgentSettings& settings);

// Signals the collector to stop and returns CheckDC_UNIX(): 4 when it has
// gone, 3 when it still runs. MeasureWare mode: 4 unchecked.
[[nodiscard]] int StopDC_UNIX(const AgentSettings& settings);

// 3: the collector runs (and its data file grows); 4: it does not, or it
// was stopped for not growing; a collector found down also clears the
// growth watch and its state file. MeasureWare mode: 3 whenever the name
// search for "scopeux" gives no pid of 0, which is always, since it
// reports "none" as -1: the server is told that agent is up.
[[nodiscard]] int CheckDC_UNIX(const AgentSettings& settings);

// Takes a dump interval of 60 s or more, a peak interval >= 0 and a retain
// >= 0 that differ from the record, and rewrites the settings file. 1 when
// something changed and the file was written; 0 when nothing changed, the
// write failed, or the stored write rate is below 60 (then nothing is
// taken).
[[nodiscard]] int compare_dc_settings(DcSettings& record, int dump_interval, int peak_interval, int retain);
// The same merge, rules and log lines for a virtual host's collector,
// ending in dc_write_settings_file_esx.
[[nodiscard]] int compare_dc_settings_esx(DcEsxSettings& record, int dump_interval, int peak_interval, int retain);

// Sends SIGINT to the collector named by the lock file at `path`, or, with
// no usable lock file, to another process named vorn_monitor of the tree at
// install_root. 1 when it was signalled or is not running; 0 when the
// signal failed.
[[nodiscard]] int dc_stop(const std::string& path, const std::string& install_root, int verbose);

// The growth watch. 1: the data file grows, or the watch is off or not yet
// due; 0: the size could not be learnt (counted as healthy); -1: the file
// did not grow within the growth interval.
[[nodiscard]] int check_dc_datafile_size(const AgentSettings& settings);

// The growth-state file "<tmp dir>/kova_<host>_lastsize.tmp": one line
// "file:size:time". get: 1 when read whole, else 0 and the outputs
// untouched. save: 1 when written. The size is stored as a 32-bit number.
[[nodiscard]] int get_last_dc_filesize(const AgentSettings& settings, std::string& name, long& size,
                                       std::time_t& when);
[[nodiscard]] int save_last_dc_filesize(const AgentSettings& settings, const std::string& name, long size,
                                        std::time_t when);

// Removes the growth-state file so the watch starts afresh. Returns 1.
int kova_delete_existing_filesize_tempfile(const AgentSettings& settings);

// Node requests, with an explicit lock file. Status: 3 with the lock file's
// write and peak rates, or 4 with both 0. The program is vorn_monitor_es
// when `type` contains "ESX".
[[nodiscard]] int kova_dc_status(const std::string& path, const std::string& node, const std::string& type,
                                 int& write_rate, int& peak_rate, int verbose);
// Runs `command`, quietened unless verbose is 1; with verbose it is logged
// as it reads. Returns 1.
int kova_dc_start(ComponentCommand command, int verbose);
// As dc_stop for program `name`, logging instead of printing.
[[nodiscard]] int kova_dc_stop(const std::string& path, const std::string& name, int verbose);

}  // namespace kova
