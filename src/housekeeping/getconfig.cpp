#include "housekeeping/getconfig.h"

#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/utsname.h>

#include <cstdio>
#include <memory>

#include "components/dc_lockfile.h"
#include "base/log.h"
#include "base/version.h"
#include "platform/files.h"
#include "platform/process.h"
#include "platform/system_facts.h"
#include "platform/unique.h"
#include "settings/hardening.h"

namespace kova {
namespace {

// The report presents this agent as its Solaris build, whatever the host.
constexpr const char* kReportVendor = "Sun";
constexpr const char* kReportOs = "SUN";
constexpr const char* kMeasurewareCollector = "scopeux";

// Size and free space in MB of the file system holding `path`; both 0 when
// it cannot be queried. Free is what an unprivileged user may still write,
// as every other free-space figure of the agent.
void data_disk_space(const std::string& path, double& total_mb, double& free_mb) {
  total_mb = 0;
  free_mb = 0;
  struct statvfs fs {};
  if (::statvfs(path.c_str(), &fs) != 0) return;
  const double fragment = static_cast<double>(fs.f_frsize);
  total_mb = static_cast<double>(fs.f_blocks) * fragment / 1024.0 / 1024.0;
  free_mb = static_cast<double>(fs.f_bavail) * fragment / 1024.0 / 1024.0;
}

void value_line(std::string& out, const char* name, const std::string& value) {
  out.append(name).append(":").append(value).append("\n");
}

}  // namespace

std::string config_report_path(const AgentSettings& settings, const std::string& host) {
  return settings.tmp_dir + "/kova_sysconf_" + host + ".dat";
}

int GetSN(std::string& out) {
  out = host_serial();
  return 1;
}

int get_mwa_version(std::string& out, const std::string& program) {
  out = "not found";
  if (!file_exists(program)) return 1;
  std::string output;
  // A query killed at the program deadline answered nothing either.
  if (run_program({program, "version"}, output) != ProgramRun::kFinished) return 1;
  size_t start = 0;
  while (start < output.size()) {
    size_t end = output.find('\n', start);
    if (end == std::string::npos) end = output.size();
    const std::string text = output.substr(start, end - start);
    start = end + 1;
    const size_t at = text.find(kMeasurewareCollector);
    // The version follows the word and the one separator after it.
    if (at != std::string::npos) out = text.size() > at + 8 ? text.substr(at + 8) : std::string();
  }
  return 1;
}

int get_install_config(const AgentSettings& settings, const DcSettings& dc, const RtaSettings& rta,
                       InstallConfig& install, const ConfigPrograms& programs) {
  const bool measureware = settings.measureware_source == 1;
  install.collector_name = measureware ? kDataSourceMeasureware : kDataSourceCollector;
  if (measureware) {
    if (program_allowed(settings, programs.measureware))
      get_mwa_version(install.collector_version, programs.measureware);
  } else {
    DcLockfile lock;
    if (dc_read_lockfile(settings.collector_lock_path, lock) == 1) install.collector_version = lock.version;
    install.collector_verbose = std::to_string(dc.verbose);
    install.collector_retain = std::to_string(dc.retain);
  }
  install.collector_scan = std::to_string(dc.scan_rate);
  install.collector_write = std::to_string(dc.write_rate);
  // One-character values are built, not assigned from literals: GCC 12's
  // optimiser warns falsely (-Wrestrict) on the assignment here.
  install.collector_buffers = std::string(1, '0');

  // The agent's data directory is where it fetches the collector's files
  // from, so that is the one the server wants sized.
  install.collector_data_path = settings.data_dir;
  double total_mb = 0;
  double free_mb = 0;
  data_disk_space(settings.data_dir, total_mb, free_mb);
  install.collector_data_disk_total = string_printf("%.0f %s", total_mb, "MB");
  install.collector_data_disk_free = string_printf("%.0f %s", free_mb, "MB");
  int ave_mb = 0;
  (void)get_ave_data_file_size(settings.data_dir, ave_mb);
  install.collector_data_ave_size = string_printf("%d~%s", ave_mb, "MB");

  install.agent_version = string_printf("%s:%s", kBuildVersion, kBuildDate);
  install.agent_verbose = std::to_string(settings.verbose);
  install.agent_port = std::to_string(settings.port);
  install.agent_server = settings.server;

  const bool realtime = file_exists(programs.realtime);
  install.realtime_installed = std::string(1, realtime ? '1' : '0');
  install.realtime_version = install.agent_version;
  if (realtime) {
    install.realtime_verbose = std::to_string(rta.verbose);
    install.realtime_processes = std::to_string(rta.processes);
    install.realtime_alerts = std::to_string(rta.alerts);
    install.realtime_scan = std::to_string(rta.scan_rate);
    install.realtime_port = std::to_string(rta.port);
  }
  return 1;
}

int get_system_config(SystemConfig& system) {
  utsname uts{};
  if (::uname(&uts) == 0) {
    system.name = uts.nodename;
    system.os_version = uts.release;
  }
  GetSN(system.serial_number);
  system.model = platform_name();
  system.vendor = kReportVendor;
  system.os = kReportOs;
  system.processor_count = processor_count();
  system.disk_count = disk_count();
  const double mb = static_cast<double>(physical_memory_bytes()) / 1024.0 / 1024.0;
  system.memory_total_mb = mb < 0 ? 0 : mb;
  system.disk_total_capacity = 0;
  return 1;
}

int get_processor_config(ProcessorConfig& processor) {
  // No processor model source on this platform: the section stays out.
  processor.valid = 0;
  return 1;
}

namespace {

// The report's text.
std::string report_text(const InstallConfig& install, const SystemConfig& system, const ProcessorConfig& processor) {
  std::string out;
  out += "<CONFIG>\n";
  out += "ConfigVersion:1\n";
  out += "<SYSTEM>\n";
  value_line(out, "SystemName", system.name);
  value_line(out, "SystemSerialNumber", system.serial_number);
  value_line(out, "SystemModel", system.model);
  value_line(out, "SystemVendor", system.vendor);
  out += string_printf("%s:%d\n", "SystemProcessorCount", system.processor_count);
  out += string_printf("%s:%d\n", "SystemDiskCount", system.disk_count);
  out += string_printf("%s:%.0f:MB\n", "SystemMemoryTotalCapacity", system.memory_total_mb);
  out += string_printf("%s:%.0f\n", "SystemDiskTotalCapacity", system.disk_total_capacity);
  value_line(out, "SystemOS", system.os);
  value_line(out, "SystemOSversion", system.os_version);
  out += "<ENDSYSTEM>\n";

  if (processor.valid) {
    out += "<PROCESSOR>\n";
    value_line(out, "ProcessorName", processor.name);
    value_line(out, "ProcessorDesc", processor.description);
    value_line(out, "ProcessorManufacturer", processor.manufacturer);
    value_line(out, "ProcessorMaxClock", processor.max_clock);
    value_line(out, "ProcessorExtClock", "");
    out += string_printf("%s:%d\n", "ProcessorDataWidth", processor.data_width);
    value_line(out, "ProcessorArchitecture", processor.architecture);
    value_line(out, "ProcessorVersion", "");
    value_line(out, "ProcessorFamily", processor.name);
    out += "<ENDPROCESSOR>\n";
  }

  out += "<VANTREL>\n";
  value_line(out, "CollectorName", install.collector_name);
  value_line(out, "CollectorVersion", install.collector_version);
  value_line(out, "CollectorVerbose", install.collector_verbose);
  value_line(out, "CollectorRetain", install.collector_retain);
  value_line(out, "CollectorScan", install.collector_scan);
  value_line(out, "CollectorWrite", install.collector_write);
  value_line(out, "CollectorBuffers", install.collector_buffers);
  value_line(out, "CollectorDataPath", install.collector_data_path);
  value_line(out, "CollectorDataDiskSpaceTotal", install.collector_data_disk_total);
  value_line(out, "CollectorDataDiskSpaceFree", install.collector_data_disk_free);
  value_line(out, "CollectorDataAveSize", install.collector_data_ave_size);
  value_line(out, "AgentVersion", install.agent_version);
  value_line(out, "AgentVerbose", install.agent_verbose);
  value_line(out, "AgentPort", install.agent_port);
  value_line(out, "AgentKovaServer", install.agent_server);
  value_line(out, "RealtimeInstalled", install.realtime_installed);
  value_line(out, "RealtimeVersion", install.realtime_version);
  value_line(out, "RealtimeVerbose", install.realtime_verbose);
  value_line(out, "RealtimeProcesses", install.realtime_processes);
  value_line(out, "RealtimeAlerts", install.realtime_alerts);
  value_line(out, "RealtimeScan", install.realtime_scan);
  value_line(out, "RealtimePort", install.realtime_port);
  out += "<ENDVANTREL>\n";
  out += "<ENDCONFIG>\n";

  return out;
}

}  // namespace

int write_config(const AgentSettings& settings, const InstallConfig& install, const SystemConfig& system,
                 const ProcessorConfig& processor, const std::string& path) {
  const std::string file = path.empty() ? config_report_path(settings, settings.hostname) : path;
  // The server may fetch the report while it is rewritten: it is written
  // aside and takes the old one's place whole. One cut short by a full
  // disk would mislead the server more than the old one.
  return replace_file(file, report_text(install, system, processor)) == 0 ? 1 : 0;
}

int kova_getconfig(const AgentSettings& settings, const std::string& host, const DcSettings& dc,
                   const RtaSettings& rta, const std::string& path, const ConfigPrograms& programs) {
  InstallConfig install;
  SystemConfig system;
  ProcessorConfig processor;
  get_install_config(settings, dc, rta, install, programs);
  get_system_config(system);
  get_processor_config(processor);
  return write_config(settings, install, system, processor, path.empty() ? config_report_path(settings, host) : path);
}

}  // namespace kova
