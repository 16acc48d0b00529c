#include "components/collector.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "components/command.h"
#include "platform/files.h"
#include "platform/findproc.h"
#include "base/clock.h"
#include "base/log.h"
#include "platform/process.h"
#include "platform/unique.h"
#include "base/codes.h"
#include "settings/hardening.h"

namespace kova {
namespace {

constexpr const char* kCollector = "vorn_monitor";
constexpr const char* kCollectorEsx = "vorn_monitor_es";
constexpr const char* kOlderCollector = "zudunix";
constexpr const char* kMeasurewareCollector = "scopeux";
constexpr const char* kOlderCollectorProgram = "/usr/bin/vorn_monitor";
constexpr const char* kOlderCollectorStop = "/usr/bin/vorn_monitor -silent -stop";

// A stop is re-checked, and a collector that is still there and still not
// growing is signalled again. This bounds how often one request insists.
constexpr int kMaxGrowthStops = 30;

constexpr int kMinWriteRate = 60;
constexpr int kMaxPeakInterval = 60000;
constexpr int kDefaultGrowthInterval = 900;
constexpr int kMinGrowthInterval = 600;
constexpr int kMaxGrowthInterval = 10800;

bool is_debug(const AgentSettings& settings) { return settings.verbose == 1; }

std::string growth_state_path(const AgentSettings& settings) {
  return settings.tmp_dir + "/kova_" + settings.hostname + "_lastsize.tmp";
}

// A collector found down starts its next run with a fresh watch. The state
// file goes too: every later request child reloads the watch from it, and a
// stale record would judge a restarted collector, which has not yet written
// its first sample, against the size its predecessor left hours ago.
void reset_growth_watch(const AgentSettings& settings, CollectorState& state) {
  state.last_dc_checktime = 0;
  state.l_last_datafile_size = 0;
  state.last_dc_filename.clear();
  (void)kova_delete_existing_filesize_tempfile(settings);
}

int check_dc(const AgentSettings& settings, int stops_left);
int check_measureware(const AgentSettings& settings);

int stop_dc(const AgentSettings& settings, int stops_left) {
  if (settings.measureware_source == 1) {
    if (!program_allowed(settings, kMeasurewareControl)) return check_measureware(settings);
    (void)run_shell_command(std::string(kMeasurewareControl) + " stop");
    write_to_log("I-STOPPING", "Stopping Measureware server");
    return kStatusNotRunning;
  }
  CollectorState& state = collector_state();
  if (state.dc_version.number != 4) {
    write_to_log("I-DC_STOP", "Calling collector stop...");
    (void)dc_stop(settings.collector_lock_path, settings.install_root, 1);
    clock_sleep(1);
  } else {
    // The "@"-summary generation is stopped by its own program.
    if (program_allowed(settings, kOlderCollectorProgram)) {
      write_to_log("I-COMMAND", kOlderCollectorStop);
      (void)run_shell_command(kOlderCollectorStop);
    }
  }
  return check_dc(settings, stops_left);
}

int check_measureware(const AgentSettings& settings) {
  // Only a result of 0 counts as down, and the name search never gives
  // it: its "none found" is -1, so this mode reports the agent up. The
  // MeasureWare collector belongs to the host, not to an install tree.
  if (findproc_nopid(kMeasurewareCollector, "", settings.verbose) == 0) {
    if (is_debug(settings)) write_to_log("I-DC_STAT", "Measureware Data Collector DOWN");
    return kStatusNotRunning;
  }
  if (is_debug(settings)) write_to_log("I-DC_STAT", "Measureware Data Collector UP");
  return kStatusRunning;
}

int check_dc(const AgentSettings& settings, int stops_left) {
  if (settings.measureware_source == 1) return check_measureware(settings);
  CollectorState& state = collector_state();
  DcLockfile lock;
  if (kova_read_dc_lockfile(settings.collector_lock_path, lock, state.dc_version) != 1) {
    if (is_debug(settings)) write_to_log("I-DC_STAT", "Data Collector DOWN");
    reset_growth_watch(settings, state);
    return kStatusNotRunning;
  }
  // The status reply carries the interval in 16 bits.
  state.dc_interval = static_cast<std::int16_t>(lock.write_rate);
  state.dc_peak_interval = lock.peak_rate < 0 || lock.peak_rate > kMaxPeakInterval ? 0 : lock.peak_rate;

  // A lookup that cannot tell (-1) counts as running: stopping or
  // restarting a collector that is there would lose data.
  if (findproc(kCollector, lock.pid, settings.verbose) != 0) {
    if (is_debug(settings)) write_to_log("I-DC_STAT", "Data Collector UP");
    if (check_dc_datafile_size(settings) >= 0) return kStatusRunning;
    write_to_log("E-DC_NOGROW", "GrowthAction:  Stopping vORN Monitor...");
    if (stops_left > 0) (void)stop_dc(settings, stops_left - 1);
    return kStatusNotRunning;
  }
  if (findproc(kOlderCollector, lock.pid, settings.verbose) != 0) {
    if (is_debug(settings)) write_to_log("I-DC_STAT", "Data Collector UP");
    return kStatusRunning;
  }
  reset_growth_watch(settings, state);
  return kStatusNotRunning;
}

// The merge both collectors' settings files take: true when the record
// changed and is to be written.
bool merge_dc_rates(DcSettings& record, int dump_interval, int peak_interval, int retain) {
  if (record.write_rate < kMinWriteRate) {
    // A rate below the minimum was put there by hand; leave the whole file
    // to whoever did that rather than half-correct it.
    log_printf("I-SETERR", "data collector settings problem, interval < 60,  %d\n", record.write_rate);
    return false;
  }
  bool changed = false;
  if (dump_interval > 0 && dump_interval != record.write_rate && dump_interval >= kMinWriteRate) {
    log_printf("I-COMPARE", "data collector settings modified: dump interval from %d to %d", record.write_rate,
               dump_interval);
    record.write_rate = dump_interval;
    changed = true;
  }
  if (peak_interval >= 0 && peak_interval != record.peak_rate) {
    log_printf("I-COMPARE", "data collector settings modified: peak interval from %d to %d", record.peak_rate,
               peak_interval);
    record.peak_rate = peak_interval;
    changed = true;
  }
  if (retain >= 0 && retain != record.retain) {
    log_printf("I-COMPARE", "data collector settings modified: retain from %d to %d", record.retain, retain);
    record.retain = retain;
    changed = true;
  }
  if (!changed) return false;
  log_printf("I-SETTINGS", "data collector settings scan rate = %d  dump_rate = %d  peak_rate = %d",
             record.scan_rate, record.write_rate, record.peak_rate);
  return true;
}

// Reads the lock file at `path` for `name`'s pid; 1 when it names a
// running process of that name.
bool running_from_lockfile(const std::string& path, const char* name, DcLockfile& lock) {
  return dc_read_lockfile(path, lock) == 1 && findproc(name, lock.pid, 0) == 1;
}

}  // namespace

CollectorState& collector_state() {
  static CollectorState state;
  return state;
}

int StartDC_UNIX(const std::string& /*requester*/, int dump_interval, int peak_interval, int retain,
                 const AgentSettings& settings) {
  if (settings.measureware_source == 1) {
    if (!program_allowed(settings, kMeasurewareControl)) return check_measureware(settings);
    std::string command = std::string(kMeasurewareControl) + " start" + kQuiet;
    (void)run_shell_command(command);
    if (settings.verbose != 0) {
      log_printf("I-COMMAND", "run: %s \n", command.c_str());
      write_to_log("I-DC-STAT", "Measureware Data Collector UP");
    }
    return kStatusRunning;
  }
  DcSettings& dc = collector_state().dc_cmdline;
  dc_adjust_path_settings(dc, settings.install_root);
  (void)dc_parse_startup_file(dc);
  if (compare_dc_settings(dc, dump_interval, peak_interval, retain) == 1)
    log_printf("I-DC_SAVE", "Data collector settings saved, %s", dc.settings_file.c_str());

  const std::string program = dc.install_dir + "/bin/" + kCollector;
  if (!program_allowed(settings, program)) return CheckDC_UNIX(settings);
  const ComponentCommand command = component_command(program, "", settings);
  if (is_debug(settings)) write_to_log("I-COMMAND", command.shown());
  // The collector detaches by itself once its lock file is written.
  run_component_command(command);
  return CheckDC_UNIX(settings);
}

int StopDC_UNIX(const AgentSettings& settings) { return stop_dc(settings, kMaxGrowthStops); }

int CheckDC_UNIX(const AgentSettings& settings) { return check_dc(settings, kMaxGrowthStops); }

int compare_dc_settings(DcSettings& record, int dump_interval, int peak_interval, int retain) {
  return merge_dc_rates(record, dump_interval, peak_interval, retain) ? dc_write_settings_file(record) : 0;
}

int compare_dc_settings_esx(DcEsxSettings& record, int dump_interval, int peak_interval, int retain) {
  return merge_dc_rates(record, dump_interval, peak_interval, retain) ? dc_write_settings_file_esx(record) : 0;
}

int dc_stop(const std::string& path, const std::string& install_root, int verbose) {
  DcLockfile lock;
  int read = dc_read_lockfile(path, lock);
  if (read == 0) std::fprintf(stderr, "%s , unable to read lockfile, %s \n", kCollector, path.c_str());
  int pid;
  bool running;
  if (read != 1) {
    pid = find_process_by_name(kCollector, install_root, ::getpid(), 0);
    running = pid >= 1;
  } else {
    pid = lock.pid;
    running = findproc(kCollector, pid, 0) == 1;
  }
  if (!running) {
    std::printf("\n%s is not running\n", kCollector);
    return 1;
  }
  if (verbose == 1) std::printf("\nStopping %s (pid %d)\n", kCollector, pid);
  if (::kill(pid, SIGINT) != 0) {
    std::fprintf(stderr, "Fatal: Unable to kill pid %d \n", pid);
    return 0;
  }
  return 1;
}

int check_dc_datafile_size(const AgentSettings& settings) {
  constexpr long threshold = 0;
  CollectorState& state = collector_state();
  const bool debug = settings.verbose != 0;

  std::string current;
  if (dc_get_filename_from_lockfile(settings.collector_lock_path, current) != 1) {
    write_to_log("W-DC_STAT", "Unable to get CURRENT_DATAFILE");
    return 0;
  }
  // Each request child starts from the listener's copy; the file carries
  // the watch from one request to the next.
  (void)get_last_dc_filesize(settings, state.last_dc_filename, state.l_last_datafile_size,
                             state.last_dc_checktime);
  struct stat st;
  if (::stat(current.c_str(), &st) != 0) {
    log_printf("W-STAT_FAIL", "Unable to get size of file, %s, err %s\n", state.last_dc_filename.c_str(),
               std::strerror(errno));
    return 0;
  }
  if (settings.check_growth == 0) return 1;

  const long size = static_cast<long>(st.st_size);
  const std::time_t now = clock_now();
  auto record_now = [&] {
    state.last_dc_checktime = now;
    state.l_last_datafile_size = size;
    state.last_dc_filename = current;
    (void)save_last_dc_filesize(settings, current, size, now);
  };
  if (state.last_dc_checktime < 1) {
    if (debug) log_printf("I-GROWTH", "datafile: %s,  Size: %ld , Threshold: %ld", current.c_str(), size, threshold);
    record_now();
    return 1;
  }

  long interval = settings.growth_interval;
  if (interval < kMinGrowthInterval || interval > kMaxGrowthInterval) interval = kDefaultGrowthInterval;
  const long diff = static_cast<long>(now - state.last_dc_checktime);
  if (debug)
    log_printf("I-GROWTH", "GrowthTime  Last: %ld  Cur: %ld   Diff: %ld   Interval: %ld",
               static_cast<long>(state.last_dc_checktime), static_cast<long>(now), diff, interval);
  if (diff <= interval) return 1;

  if (debug)
    log_printf("I-GROWTH", "LastFile: %s,  CurrentFile: %s", state.last_dc_filename.c_str(), current.c_str());
  // A collector that moved on to a new file (a new day) wrote all of it
  // since the last check.
  if (current != state.last_dc_filename) state.l_last_datafile_size = 0;
  const long growth = size - state.l_last_datafile_size;
  log_printf("I-GROWTH", "Size: (%ld  - %ld),   growth: %ld", size, state.l_last_datafile_size, growth);
  if (growth <= threshold) {
    log_printf("E-DC_NOGROW", "GrowthAction,  %s file size NOT increasing... %d < %d ", current.c_str(),
               static_cast<int>(growth), static_cast<int>(threshold));
    return -1;
  }
  record_now();
  return 1;
}

int get_last_dc_filesize(const AgentSettings& settings, std::string& name, long& size, std::time_t& when) {
  UniqueFile file(std::fopen(growth_state_path(settings).c_str(), "r"));
  if (!file) return 0;
  char line[1024];
  if (std::fgets(line, sizeof line, file.get()) == nullptr) return 0;
  // The file name is split off from the right, so a path that holds a ":"
  // still reads back whole.
  std::string text(line);
  size_t second = text.rfind(':');
  if (second == std::string::npos || second == 0) return 0;
  size_t first = text.rfind(':', second - 1);
  if (first == std::string::npos) return 0;
  name = text.substr(0, first);
  size = std::atol(text.c_str() + first + 1);
  when = static_cast<std::time_t>(std::atol(text.c_str() + second + 1));
  return 1;
}

int save_last_dc_filesize(const AgentSettings& settings, const std::string& name, long size, std::time_t when) {
  // The size field has always been 32 bits wide in this file.
  const std::string line = string_printf("%s:%d:%ld\n", name.c_str(), static_cast<std::int32_t>(size),
                                         static_cast<long>(when));
  return replace_file(growth_state_path(settings), line) == 0 ? 1 : 0;
}

int kova_delete_existing_filesize_tempfile(const AgentSettings& settings) {
  (void)::unlink(growth_state_path(settings).c_str());
  return 1;
}

int kova_dc_status(const std::string& path, const std::string& node, const std::string& type, int& write_rate,
                   int& peak_rate, int verbose) {
  const char* name = type.find("ESX") != std::string::npos ? kCollectorEsx : kCollector;
  DcLockfile lock;
  int read = dc_read_lockfile(path, lock);
  int result = read == 1 ? findproc(name, lock.pid, 0) : read;
  if (verbose != 0)
    log_printf("I-DCSTAT_READLOCK", "dc_read_lockfile returned %d, lockfile = %s\n", read, log_escape(path).c_str());
  if (result != 1) {
    if (verbose == 1) log_printf("I-DC_STAT", "Data Collector DOWN, %s, %s\n", log_escape(node).c_str(), name);
    write_rate = 0;
    peak_rate = 0;
    return kStatusNotRunning;
  }
  write_rate = lock.write_rate;
  peak_rate = lock.peak_rate;
  if (verbose == 1 && findproc(name, lock.pid, verbose) == 1)
    log_printf("I-DC_STAT", "Data Collector UP, %s, %s, %d\n", log_escape(node).c_str(), name, lock.pid);
  return kStatusRunning;
}

int kova_dc_start(ComponentCommand command, int verbose) {
  if (verbose != 1) command.text(kQuiet);
  run_component_command(command);
  if (verbose != 0) log_printf("I-COMMAND", "run:  %s \n", command.shown().c_str());
  return 1;
}

int kova_dc_stop(const std::string& path, const std::string& name, int verbose) {
  DcLockfile lock;
  if (!running_from_lockfile(path, name.c_str(), lock)) {
    log_printf("E-NOT-RUN", "%s is not running", name.c_str());
    return 1;
  }
  if (verbose != 0) log_printf("I-STOPPING", "Stopping  %s  (pid %d)", name.c_str(), lock.pid);
  if (::kill(lock.pid, SIGINT) != 0) {
    log_printf("E-STOP", "Unable to kill pid %d ", lock.pid);
    return 0;
  }
  return 1;
}

}  // namespace kova
