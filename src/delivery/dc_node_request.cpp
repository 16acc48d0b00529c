#include "delivery/dc_node_request.h"

#include <algorithm>
#include <array>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <span>

#include "base/codes.h"
#include "base/log.h"
#include "components/collector.h"
#include "components/command.h"
#include "components/dc_esx_settings.h"
#include "wire/socket_io.h"

namespace kova {
namespace {

constexpr int kMillisecondsPerSecond = 1000;

struct NodeField {
  std::string* out;
  const char* failure;  // logged "W-PACKET" when the field cannot be read
};

// A name that, put into "<root>/tmp/<host>_monitor.lock", stays a file
// name inside tmp.
bool usable_host_name(const std::string& host) {
  return host.find('/') == std::string::npos && host != "." && host != "..";
}

// Reads the payload's 64-byte fields in order into the outputs; the first
// is the host name. False, with the field's failure logged, when one lies
// beyond the payload, fills its 64 bytes without a terminating NUL, or is
// a host name that would leave the tmp directory.
bool read_node_fields(const unsigned char* payload, int length, std::initializer_list<NodeField> fields) {
  const size_t size = payload != nullptr && length > 0 ? static_cast<size_t>(length) : 0;
  const std::span<const unsigned char> bytes(payload, size);
  size_t offset = 0;
  for (const NodeField& field : fields) {
    std::array<char, kNodeFieldSize> text{};
    const bool inside = bytes.size() >= offset + kNodeFieldSize;
    if (inside) (void)Packet_CheckString(bytes.subspan(offset), text, kNodeFieldSize);
    if (!inside || std::memchr(text.data(), '\0', text.size()) == nullptr ||
        (offset == 0 && !usable_host_name(text.data()))) {
      write_to_log("W-PACKET", field.failure);
      return false;
    }
    *field.out = text.data();
    offset += kNodeFieldSize;
  }
  return true;
}

// atoi(3) of a decimal text, held to the range of an int.
long long decimal_value(const std::string& text) {
  const long long value = std::strtoll(text.c_str(), nullptr, 10);
  return std::clamp<long long>(value, INT_MIN, INT_MAX);
}

int held_to_int(long long value) { return static_cast<int>(std::clamp<long long>(value, INT_MIN, INT_MAX)); }

void send_node_status(int fd, int status, PacketBuffer& buffer) {
  buffer.fill(0);
  put_long(buffer, 0, status);
  (void)Socket_writen(fd, buffer.data(), kNodeStatusSize);
}

}  // namespace

std::string node_lock_path(const AgentSettings& settings, const std::string& host) {
  if (host == settings.hostname) return settings.collector_lock_path;
  return settings.install_root + "/tmp/" + host + "_monitor.lock";
}

int process_dcstatus_node_request(int fd, const AgentSettings& settings, const std::string& peer,
                                  const unsigned char* payload, int length, PacketBuffer& buffer) {
  std::string host, os, dns;
  if (!read_node_fields(payload, length,
                        {{&host, "Failed to read hostname from packet"},
                         {&os, "Failed to read os from packet"},
                         {&dns, "Failed to read dns from packet"}}))
    return kResultBadPacket;
  const std::string lock = node_lock_path(settings, host);
  const std::string shown_host = log_escape(host), shown_lock = log_escape(lock);
  log_printf("I-DC_STAT", "DC STATUS request from %s for system %s", peer.c_str(), shown_host.c_str());

  // This host's collector settings are not re-read: the record keeps what
  // the agent read at start and the lock file's rates below.
  std::string settings_path;
  if (host == settings.hostname) {
    log_printf("I-DCSTATUS", "DC Status for current host, %s", shown_host.c_str());
  } else {
    settings_path = esx_settings_path(settings.install_root);
    log_printf("I-DC_REMOTE_STAT", "DC REMOTE Status : for host %s from lockfile %s ", shown_host.c_str(),
               shown_lock.c_str());
  }
  DcSettings record = collector_state().dc_cmdline;
  const int status = kova_dc_status(lock, host, os, record.write_rate, record.peak_rate, settings.verbose);
  record.settings_file = settings_path;
  (void)dc_parse_startup_file(record);

  buffer.fill(0);
  const int n = Packet_CreateDCSTAT(status, record.write_rate, kStatusNotInstalled,
                                    record.peak_rate / kMillisecondsPerSecond, buffer);
  (void)Socket_writen(fd, buffer.data(), static_cast<size_t>(n));
  return 1;
}

int process_dcstop_node_request(int fd, const AgentSettings& settings, const std::string& peer,
                                const unsigned char* payload, int length, PacketBuffer& buffer) {
  std::string host, os;
  if (!read_node_fields(payload, length,
                        {{&host, "Failed to read hostname from packet"}, {&os, "Failed to read os from packet"}}))
    return kResultBadPacket;
  const std::string lock = node_lock_path(settings, host);
  const std::string shown_host = log_escape(host), shown_lock = log_escape(lock);
  log_printf("I-DC_STOP", "DC STOP request from %s for system %s", peer.c_str(), shown_host.c_str());

  if (host == settings.hostname) {
    (void)StopDC_UNIX(settings);
    log_printf("I-STOPDC", "STOP DC  : current host, %s", shown_host.c_str());
  } else {
    log_printf("I-STOPDC", "STOP DC_ESX  : for %s from lockfile %s ", shown_host.c_str(), shown_lock.c_str());
    (void)kova_dc_stop(lock, kEsxCollectorName, 0);
  }
  int write_rate = 0, peak_rate = 0;
  send_node_status(fd, kova_dc_status(lock, host, os, write_rate, peak_rate, settings.verbose), buffer);
  return 1;
}

int process_dcstart_node_request(int fd, const AgentSettings& settings, const std::string& peer,
                                 const unsigned char* payload, int length, PacketBuffer& buffer, int retain) {
  std::string host, os, host_ip, dump_text, peak_text;
  if (!read_node_fields(payload, length,
                        {{&host, "Failed to read hostname from packet"},
                         {&os, "Failed to read os from packet"},
                         {&host_ip, "Failed to read host_ip from packet"},
                         {&dump_text, "Failed to read dump from packet"},
                         {&peak_text, "Failed to read peak from packet"}}))
    return kResultBadPacket;
  const std::string shown_host = log_escape(host), shown_os = log_escape(os);
  log_printf("I-DC_START", "DC START request from %s for system %s  %s, %s,  Dump  %s   Peak   %s", peer.c_str(),
             shown_host.c_str(), log_escape(host_ip).c_str(), shown_os.c_str(), log_escape(dump_text).c_str(),
             log_escape(peak_text).c_str());
  const int dump = held_to_int(decimal_value(dump_text));
  const int peak = held_to_int(decimal_value(peak_text) * kMillisecondsPerSecond);

  const std::string lock = node_lock_path(settings, host);
  if (host == settings.hostname) {
    // The process-wide record, so that the start below merges the retain
    // taken here rather than the one the agent read at start.
    DcSettings& dc = collector_state().dc_cmdline;
    dc_adjust_path_settings(dc, settings.install_root);
    (void)dc_parse_startup_file(dc);
    if (compare_dc_settings(dc, dump, peak, retain) == 1) write_to_log("I-DC_SAVE", "Data collector settings saved.");
    (void)StartDC_UNIX(peer, dump, peak, dc.retain, settings);
    log_printf("I-STARTDC", "Start DC_ESX  : for %s on %s ", shown_host.c_str(), shown_os.c_str());
  } else {
    DcEsxSettings esx;
    esx.settings_file = esx_settings_path(settings.install_root);
    (void)dc_parse_startup_file_esx(esx);
    if (compare_dc_settings_esx(esx, dump, peak, retain) == 1)
      write_to_log("I-DC_SAVE", "Data collector settings saved.");
    log_printf("I-STARTDC", "Start DC_ESX  : for %s on %s ", shown_host.c_str(), shown_os.c_str());
    ComponentCommand command;
    command.value(settings.install_root).text(kEsxCollectorProgram);
    log_printf("I-STARTDC", "Start DC_ESX  : command %s", command.shown().c_str());
    (void)kova_dc_start(command, settings.verbose);
  }
  int write_rate = 0, peak_rate = 0;
  send_node_status(fd, kova_dc_status(lock, host, os, write_rate, peak_rate, settings.verbose), buffer);
  return 1;
}

}  // namespace kova
