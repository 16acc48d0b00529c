// The server's collector requests for a node: the agent's own host, or a
// virtual host whose collector (vorn_monitor_esx) runs on this machine.
// Each payload is a row of 64-byte text fields; each handler runs after the
// dispatcher's acknowledgement and answers with one reply of its own.
#pragma once

#include <cstddef>
#include <string>

#include "settings/agent_settings.h"
#include "wire/packet.h"

namespace kova {

// Width of each text field of a node payload.
inline constexpr size_t kNodeFieldSize = 64;

// The virtual host's collector lock file, "<root>/tmp/<host>_monitor.lock";
// for the agent's own host name, the collector's usual lock file.
std::string node_lock_path(const AgentSettings& settings, const std::string& host);

// Every handler first reads its fields: a field that does not lie wholly
// inside the payload, holds no NUL within its 64 bytes, or a host name
// holding "/" or being "." or "..", is logged "W-PACKET" and ends the
// request with 9 (kResultBadPacket), nothing sent and nothing touched.

// "DCSTAT_NODE": host, OS, DNS name. Replies with a DCSTAT packet: the
// collector's status (3 or 4, the process looked for by the OS text: one
// containing "ESX" asks for vorn_monitor_es), its dump interval and peak
// interval in seconds, and 5 for the real-time agent, which a node does not
// have. The intervals are the lock file's while the collector runs, else 0;
// for a virtual host its settings file's rates, when it has one, stand
// over them. Returns 1.
[[nodiscard]] int process_dcstatus_node_request(int fd, const AgentSettings& settings, const std::string& peer,
                                                const unsigned char* payload, int length, PacketBuffer& buffer);

// "DCSTOP_NODE": host, OS. Stops this host's collector as opcode 4 does,
// or signals the virtual host's collector named by its lock file, and
// replies with the status found right afterwards (kNodeStatusSize bytes;
// a collector that is still on its way out reads as 3). Returns 1.
[[nodiscard]] int process_dcstop_node_request(int fd, const AgentSettings& settings, const std::string& peer,
                                              const unsigned char* payload, int length, PacketBuffer& buffer);

// "DCSTART_NODE": host, OS, host address, dump interval (s) and peak
// interval (s) as decimal texts. Merges the dump interval, the peak
// interval and `retain` (the agent's data retention age) into the
// collector's settings file — for a virtual host into vorn_esx.config —
// and starts the collector as opcode 3 does, or the virtual host's
// collector program. Replies with the status afterwards (kNodeStatusSize
// bytes). Returns 1.
[[nodiscard]] int process_dcstart_node_request(int fd, const AgentSettings& settings, const std::string& peer,
                                               const unsigned char* payload, int length, PacketBuffer& buffer,
                                               int retain);

}  // namespace kova
