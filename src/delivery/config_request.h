// The configuration report on request: opcode 15 for this host, and the
// extended request "SYSCONFIG_NODE" for this host or a virtual host.
#pragma once

#include <string>

#include "settings/agent_settings.h"
#include "wire/packet.h"

namespace kova {

// Environment variable that keeps the report file after an opcode-15 request.
inline constexpr const char* kKeepConfigEnv = "KOVA_KEEP_CONFIG";

// Re-reads the collector's and real-time agent's settings files into fresh
// records, writes the report to "<tmp dir>/kova_sysconf_<host>.dat" and
// streams it (send_ascii_file). The file is deleted afterwards unless
// KOVA_KEEP_CONFIG is set. `peer` and `request` are not used. Returns the
// transfer's TransferResult; a report that could not be written still
// sends whatever file is there, or the empty header.
[[nodiscard]] int process_config_request(int fd, const AgentSettings& settings, const std::string& peer,
                                         const PacketBuffer& request, PacketBuffer& buffer);

// The payload (up to `length` bytes, cut at a NUL) names the host. For this
// host the report is regenerated first; for any other the file that the
// virtual-host collector left is sent as it is. The file is never deleted.
// A name holding "/" names no report: the empty header goes out. Returns
// the transfer's TransferResult.
[[nodiscard]] int process_config_node_request(int fd, const AgentSettings& settings, const std::string& peer,
                                              const unsigned char* payload, int length, PacketBuffer& buffer);

}  // namespace kova
