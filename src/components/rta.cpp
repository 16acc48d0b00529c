#include "components/rta.h"

#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <string_view>
#include <vector>

#include "components/command.h"
#include "components/dc_settings.h"
#include "platform/findproc.h"
#include "components/keyfile.h"
#include "base/clock.h"
#include "base/log.h"
#include "platform/files.h"
#include "platform/unique.h"
#include "settings/command_line.h"
#include "base/codes.h"

namespace kova {
namespace {

constexpr const char* kProgram = "kovarta";

std::string host_name() {
  char name[256] = {};
  (void)::gethostname(name, sizeof name - 1);
  std::string host(name);
  if (auto dot = host.find('.'); dot != std::string::npos) host.resize(dot);
  return host;
}

std::string today() {
  std::time_t now = clock_now();
  struct tm tm;
  char day[32] = {};
  if (localtime_r(&now, &tm) != nullptr) std::strftime(day, sizeof day, "%Y%b%d", &tm);
  return day;
}

ComponentCommand command_line(const AgentSettings& settings, std::string_view tail) {
  return component_command(settings.install_root + "/bin/" + kProgram, tail, settings);
}

enum SettingsKey { kInstallDir, kLogDir, kDataDir, kVerbose, kPort, kProcesses, kAlerts, kScanRate, kPriority, kUser };
constexpr std::array<std::string_view, 10> kSettingsKeys = {
    "INSTALL_DIR~", "LOG_DIR~",  "DATA_DIR~",  "VERBOSE~",   "RTA_PORT~",
    "PROCESSES~",   "ALERTS~",   "SCAN_RATE~", "PRIORITY~",  "USER~",
};

enum LockKey {
  kLockPid, kLockStarted, kLockVersion, kLockInstallDir, kLockDataDir, kLockLogDir, kLockTempDir,
  kLockVerbose, kLockPort, kLockAlerts, kLockProcesses, kLockScanRate, kLockUser,
};
constexpr std::array<std::string_view, 13> kLockKeys = {
    "PID~",     "STARTED~",  "VERSION~", "INSTALL_DIR~", "DATA_DIR~",  "LOG_DIR~", "TEMP_DIR~",
    "VERBOSE~", "RTA_PORT~", "ALERTS~",  "PROCESSES~",   "SCAN_RATE~", "USER~",
};

}  // namespace

RtaSettings& rta_cmdline() {
  static RtaSettings record;
  return record;
}

int rta_init_command_line(RtaSettings& record) {
  record = RtaSettings{};
  record.hostname = host_name();
  std::string root;
  get_vantrel_root(root);
  return rta_adjust_path_settings(record, root);
}

int rta_adjust_path_settings(RtaSettings& record, const std::string& root) {
  record.install_dir = root;
  record.data_dir = root + "/data";
  record.bin_dir = root + "/bin";
  record.log_dir = root + "/logs";
  record.tmp_dir = root + "/tmp";
  record.settings_dir = root + "/settings";
  const std::string day = today();
  record.log_file = record.log_dir + "/rta_" + record.hostname + "_" + day + ".log";
  record.log_file2 = record.log_dir + "/rta_java_" + record.hostname + "_" + day + ".log";
  record.settings_file = record.settings_dir + "/rta_" + record.hostname + ".config";
  record.lock_file = record.tmp_dir + "/" + record.hostname + "_rtdc.lock";
  return 1;
}

int rta_parse_startup_file(RtaSettings& record) {
  std::vector<std::string> lines;
  if (read_key_lines(record.settings_file, lines) != 0) return 0;
  int recognised = 0;
  for (const std::string& line : lines) {
    KeyMatch m = match_key(line, kSettingsKeys);
    if (m.index < 0) continue;
    ++recognised;
    switch (m.index) {
      case kInstallDir:
        record.install_dir = value_less_last(m.value);
        record.install_dir_given = 1;
        break;
      case kLogDir:
        record.log_dir = value_less_last(m.value);
        record.log_dir_given = 1;
        break;
      case kDataDir:
        record.data_dir = value_less_last(m.value);
        record.data_dir_given = 1;
        break;
      case kVerbose: record.verbose = value_to_int(m.value); break;
      case kPort: record.port = value_to_int(m.value); break;
      case kProcesses:
        record.processes = value_to_int(m.value);
        record.processes2 = record.processes;
        break;
      case kAlerts: record.alerts = value_to_int(m.value); break;
      case kScanRate: record.scan_rate = value_to_int(m.value); break;
      case kPriority:
        record.priority = value_to_int(m.value);
        record.priority_given = 1;
        break;
      case kUser:
        record.user = std::string(m.value);
        zudLibTrim(record.user);
        break;
    }
  }
  if (recognised == 0) return 0;
  if (record.alerts != 0 && record.alerts != 1) {
    std::printf("ALERTS setting must be either 1 or 0 \n");
    record.alerts = 1;
  }
  return 1;
}

int rta_write_settings_file(const RtaSettings& record) {
  std::string path = record.settings_dir + "/rta_" + record.hostname + ".config";
  std::printf("Writing config file %s \n", path.c_str());
  UniqueFile file(std::fopen(path.c_str(), "w"));
  if (!file) return 0;
  std::FILE* f = file.get();
  std::fprintf(f, "PRIORITY~%d\n", record.priority);
  std::fprintf(f, "VERBOSE~%d\n", record.verbose);
  std::fprintf(f, "USER~%s\n", record.user.c_str());
  std::fprintf(f, "RTA_PORT~%d\n", record.port);
  std::fprintf(f, "SCAN_RATE~%d\n", record.scan_rate);
  std::fprintf(f, "ALERTS~%d\n", record.alerts);
  std::fprintf(f, "PROCESSES~%d\n", record.processes);
  bool failed = std::ferror(f) != 0;
  return file.close() == 0 && !failed ? 1 : 0;
}

int compare_rta_settings(RtaSettings& record, int port, int processes, int scan_rate) {
  bool changed = false;
  if (port > 0 && port != record.port) {
    record.port = port;
    changed = true;
  }
  const int wanted = processes != 0 ? 1 : 0;
  if (wanted != record.processes) {
    record.processes = wanted;
    changed = true;
  }
  if (scan_rate > 0 && scan_rate != record.scan_rate) {
    record.scan_rate = scan_rate;
    changed = true;
  }
  return changed ? rta_write_settings_file(record) : 0;
}

int rta_read_lockfile(const std::string& path, RtaLockfile& record) {
  std::vector<std::string> lines;
  if (int err = read_key_lines(path, lines); err != 0) return err == ENOENT ? -1 : 0;
  int recognised = 0;
  // The summary "pid@processes@port@started" has no line feed of its own:
  // the PID~ line follows it on the same line and is found all the same.
  for (const std::string& line : lines) {
    KeyMatch m = match_key(line, kLockKeys);
    if (m.index < 0) continue;
    ++recognised;
    switch (m.index) {
      case kLockPid: record.pid = value_to_int(m.value); break;
      case kLockStarted: record.started = value_less_last(m.value); break;
      case kLockVersion: record.version = value_less_last(m.value); break;
      case kLockInstallDir: record.install_dir = value_less_last(m.value); break;
      case kLockDataDir: record.data_dir = value_less_last(m.value); break;
      case kLockLogDir: record.log_dir = value_less_last(m.value); break;
      case kLockTempDir: record.temp_dir = value_less_last(m.value); break;
      case kLockVerbose: record.verbose = value_to_int(m.value); break;
      case kLockPort: record.port = value_to_int(m.value); break;
      case kLockAlerts: record.alerts = value_to_int(m.value); break;
      case kLockProcesses: record.processes = value_to_int(m.value); break;
      case kLockScanRate: record.scan_rate = value_to_int(m.value); break;
      case kLockUser: record.user = value_less_last(m.value); break;
    }
  }
  if (recognised == 0) {
    (void)::unlink(path.c_str());
    return 0;
  }
  return 1;
}

int StartRTA_UNIX(const std::string& requester, int processes, int port, int scan_rate,
                  const AgentSettings& settings) {
  const bool debug = settings.verbose == 1;
  if (debug) log_printf("I-VAL", "Validate %s: to %s", requester.c_str(), settings.settings_server.c_str());
  RtaSettings& rta = rta_cmdline();
  if (validateConsole(requester, settings.settings_server) == 1) {
    // The settings file lies in the agent's own tree, wherever the record
    // was first pointed at start-up.
    rta_adjust_path_settings(rta, settings.install_root);
    (void)rta_parse_startup_file(rta);
    if (compare_rta_settings(rta, port, processes, scan_rate) == 1 && debug)
      write_to_log("I-RTA_SAVE", "KOVA Realtime settings saved");
  } else {
    write_to_log("I-RTA_UNAUTH", "KOVA Realtime settings not saved, Unauthorized Request");
  }
  const ComponentCommand command = command_line(settings, "");
  if (settings.verbose != 0) write_to_log("I-COMMAND", command.shown());
  run_component_command(command);
  clock_sleep(1);
  return CheckRTA_UNIX(settings);
}

int StopRTA_UNIX(const AgentSettings& settings) {
  const ComponentCommand command = command_line(settings, " -stop");
  write_to_log("I-COMMAND", command.shown());
  run_component_command(command);
  return CheckRTA_UNIX(settings);
}

int CheckRTA_UNIX(const AgentSettings& settings) {
  if (!file_exists(settings.install_root + "/bin/" + kProgram)) return kStatusNotInstalled;
  RtaLockfile lock;
  if (rta_read_lockfile(settings.rta_lock_path, lock) != 1) return kStatusNotRunning;
  const bool up = findproc(kProgram, lock.pid, settings.verbose) != 0;
  if (settings.verbose == 1)
    write_to_log("I-RTA_STAT", up ? "Real Time Collector UP" : "Real Time Collector DOWN");
  return up ? kStatusRunning : kStatusNotRunning;
}

}  // namespace kova
