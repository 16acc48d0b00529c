#include "delivery/config_request.h"

#include <cstdlib>

#include "components/dc_settings.h"
#include "components/rta.h"
#include "base/log.h"
#include "delivery/file_transfer.h"
#include "housekeeping/getconfig.h"
#include "platform/files.h"
#include "wire/socket_io.h"

namespace kova {
namespace {

// Writes the report for this host from the settings files as they are now:
// another request child may have saved new rates since this process read
// them at start-up.
int regenerate_report(const AgentSettings& settings, const std::string& host, const std::string& path) {
  DcSettings dc;
  dc_init_command_line(dc);
  if (settings.rootdir_given) dc_adjust_path_settings(dc, settings.install_root);
  dc_parse_startup_file(dc);
  RtaSettings rta;
  rta_init_command_line(rta);
  if (settings.rootdir_given) rta_adjust_path_settings(rta, settings.install_root);
  rta_parse_startup_file(rta);
  return kova_getconfig(settings, host, dc, rta, path);
}

}  // namespace

int process_config_request(int fd, const AgentSettings& settings, const std::string&, const PacketBuffer&,
                           PacketBuffer& buffer) {
  const std::string path = config_report_path(settings, settings.hostname);
  // Requests for the report take turns: none may send or remove another's.
  const WorkFileLock turn(path);
  // A report that could not be written is not an error of its own: the
  // transfer announces the missing file with an empty header.
  (void)regenerate_report(settings, settings.hostname, path);
  int result = send_ascii_file(fd, settings, path, buffer, kTransferBlockSize);
  if (std::getenv(kKeepConfigEnv) == nullptr) delete_file(path);
  return result;
}

int process_config_node_request(int fd, const AgentSettings& settings, const std::string& peer,
                                const unsigned char* payload, int length, PacketBuffer& buffer) {
  std::string host(reinterpret_cast<const char*>(payload), payload != nullptr && length > 0 ? length : 0);
  host = host.c_str();  // the name ends at its first NUL
  const std::string shown = log_escape(host);
  log_printf("I-REQ_SYSSTAT_NODE", "SYSTAT NODE request from %s for system %s ", peer.c_str(), shown.c_str());
  if (settings.verbose) log_printf("I-PERF_VAL", "Get config file for : %s", shown.c_str());

  // The name becomes part of a path: one holding "/" could reach outside
  // the tmp directory, so it names no report at all.
  if (host.find('/') != std::string::npos) {
    log_printf("W-GET_CONFIG", "No config file for %s...", shown.c_str());
    buffer.fill(0);
    Packet_CreateINF(0, 0, buffer);
    (void)Socket_writen(fd, buffer.data(), kInfSize);
    return kTransferReadFailed;
  }

  const std::string path = config_report_path(settings, host);
  WorkFileLock turn;
  if (host == settings.hostname) {
    turn = WorkFileLock(path);  // the report of this host is also opcode 15's
    if (regenerate_report(settings, host, path) < 1)
      log_printf("W-GET_CONFIG", "Unable to generate config file for %s...", shown.c_str());
  } else {
    log_printf("I-GET_CONFIG", "Use existing config file for %s...", shown.c_str());
  }
  return send_ascii_file(fd, settings, path, buffer, kTransferBlockSize);
}

}  // namespace kova
