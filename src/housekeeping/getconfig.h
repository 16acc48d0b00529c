// The configuration report: a small tagged text file that tells the central
// server what this host is and how the agent, the collector and the
// real-time agent are set up. Written at every start and on request.
#pragma once

#include <string>

#include "components/collector.h"
#include "components/dc_settings.h"
#include "components/rta.h"
#include "settings/agent_settings.h"

namespace kova {

inline constexpr const char* kRealtimeProgram = "/usr/bin/kovarta";

// The host: every text as the report prints it.
struct SystemConfig {
  std::string name;           // uname's node name
  std::string serial_number;  // GetSN
  std::string model;          // platform_name()
  std::string vendor;
  std::string os;
  std::string os_version;     // uname's release
  int processor_count = 0;
  int disk_count = 0;
  double memory_total_mb = 0;
  double disk_total_capacity = 0;  // never filled: reported as 0
};

// The processor section is written only when `valid` is set; nothing sets
// it on this platform.
struct ProcessorConfig {
  std::string name;
  std::string description;
  std::string manufacturer;
  std::string max_clock;
  int data_width = 0;
  std::string architecture;
  int valid = 0;
};

// The agent and its companions. Empty texts are printed as empty values.
struct InstallConfig {
  std::string collector_name;
  std::string collector_version;
  std::string collector_verbose;
  std::string collector_retain;
  std::string collector_scan;
  std::string collector_write;
  std::string collector_buffers;
  std::string collector_data_path;
  std::string collector_data_disk_total;
  std::string collector_data_disk_free;
  std::string collector_data_ave_size;
  std::string agent_version;
  std::string agent_verbose;
  std::string agent_port;
  std::string agent_server;
  std::string realtime_installed;
  std::string realtime_version;
  std::string realtime_verbose;
  std::string realtime_processes;
  std::string realtime_alerts;
  std::string realtime_scan;
  std::string realtime_port;
};

// Programs whose presence or output the report looks at; tests point them
// elsewhere.
struct ConfigPrograms {
  std::string realtime = kRealtimeProgram;   // exists: the real-time agent is installed
  std::string measureware = kMeasurewareControl;
};

// "<tmp dir>/kova_sysconf_<host>.dat", where the report for `host` lives.
std::string config_report_path(const AgentSettings& settings, const std::string& host);

// Gathers the facts and writes the report to `path`, or to
// config_report_path(settings, host) when path is empty. `dc` and `rta` are
// the collector's and real-time agent's settings as their files say. Every
// fact that cannot be learnt stays empty or 0. Returns write_config's
// result: 1 written, 0 not.
[[nodiscard]] int kova_getconfig(const AgentSettings& settings, const std::string& host, const DcSettings& dc,
                                 const RtaSettings& rta, const std::string& path = {},
                                 const ConfigPrograms& programs = {});

// The gathering steps of kova_getconfig; each fills its record and
// returns 1.
int get_install_config(const AgentSettings& settings, const DcSettings& dc, const RtaSettings& rta,
                       InstallConfig& install, const ConfigPrograms& programs = {});
int get_system_config(SystemConfig& system);
int get_processor_config(ProcessorConfig& processor);

// Writes the report to `path` (config_report_path(settings,
// settings.hostname) when empty): aside first, then in the old one's
// place, so a reader never sees part of one. 1 when written; 0 when it
// could not be written whole (no message), `path` then as it was.
[[nodiscard]] int write_config(const AgentSettings& settings, const InstallConfig& install,
                               const SystemConfig& system, const ProcessorConfig& processor,
                               const std::string& path = {});

// The host id as hostid(1) prints it. Always 1; out is empty when the
// system cannot tell.
int GetSN(std::string& out);

// The MeasureWare version: out = "not found", then, when `program` exists,
// the text 8 characters after "scopeux" on the last line of "<program>
// version" that holds it. Returns 1.
int get_mwa_version(std::string& out, const std::string& program = kMeasurewareControl);

}  // namespace kova
