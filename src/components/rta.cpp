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
#include "settings/keyfile.h"
#include "base/clock.h"
#include "base/log.h"
#include "platform/files.h"
#include "platform/unique.h"
#include "settings/command_line.h"
#include "settings/hardening.h"
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

using R = RtaSettings;

void take_processes(RtaSettings& record, std::string_view) { record.processes2 = record.processes; }

// Keys in the order they are tried.
constexpr KeyField<R> kSettingsKeys[] = {
    text_key("INSTALL_DIR~", &R::install_dir, &R::install_dir_given),
    text_key("LOG_DIR~", &R::log_dir, &R::log_dir_given),
    text_key("DATA_DIR~", &R::data_dir, &R::data_dir_given),
    int_key("VERBOSE~", &R::verbose),
    int_key("RTA_PORT~", &R::port),
    {"PROCESSES~", KeyValue::kInt, &R::processes, nullptr, nullptr, false, take_processes},
    int_key("ALERTS~", &R::alerts),
    int_key("SCAN_RATE~", &R::scan_rate),
    int_key("PRIORITY~", &R::priority, &R::priority_given),
    trimmed_key("USER~", &R::user),
};

using K = RtaLockfile;

// The summary "pid@processes@port@started" has no line feed of its own: the
// PID~ line follows it on the same line and is found all the same.
constexpr KeyField<K> kLockKeys[] = {
    int_key("PID~", &K::pid),
    text_key("STARTED~", &K::started),
    text_key("VERSION~", &K::version),
    text_key("INSTALL_DIR~", &K::install_dir),
    text_key("DATA_DIR~", &K::data_dir),
    text_key("LOG_DIR~", &K::log_dir),
    text_key("TEMP_DIR~", &K::temp_dir),
    int_key("VERBOSE~", &K::verbose),
    int_key("RTA_PORT~", &K::port),
    int_key("ALERTS~", &K::alerts),
    int_key("PROCESSES~", &K::processes),
    int_key("SCAN_RATE~", &K::scan_rate),
    text_key("USER~", &K::user),
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
  int error = 0;
  const int recognised = read_key_file<RtaSettings>(record.settings_file, kSettingsKeys, record, error);
  if (recognised <= 0) return 0;
  if (record.alerts != 0 && record.alerts != 1) {
    std::printf("ALERTS setting must be either 1 or 0 \n");
    record.alerts = 1;
  }
  return 1;
}

int rta_write_settings_file(const RtaSettings& record) {
  const std::string path = record.settings_dir + "/rta_" + record.hostname + ".config";
  std::printf("Writing config file %s \n", path.c_str());
  KeyFileText file;
  file.put("PRIORITY~", record.priority)
      .put("VERBOSE~", record.verbose)
      .put("USER~", record.user)
      .put("RTA_PORT~", record.port)
      .put("SCAN_RATE~", record.scan_rate)
      .put("ALERTS~", record.alerts)
      .put("PROCESSES~", record.processes);
  return replace_file(path, file.text()) == 0 ? 1 : 0;
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
  int error = 0;
  const int recognised = read_key_file<RtaLockfile>(path, kLockKeys, record, error);
  if (recognised < 0) return error == ENOENT ? -1 : 0;
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
  if (server_admitted(settings, requester, settings.settings_server)) {
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
