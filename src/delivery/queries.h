// Small answers about the agent and its host, sent as one 32-byte text
// field after the extended request's acknowledgement.
#pragma once

#include <cstdint>
#include <string>

#include "settings/agent_settings.h"

namespace kova {

inline constexpr size_t kAnswerField = 32;

// "Sun Solaris X86", "910" and "V10.0-001": the identity the server knows
// this agent by. Each returns 1.
int process_getos_request(int fd, const AgentSettings& settings);
int process_getrelease_request(int fd, const AgentSettings& settings);
int process_getversion_request(int fd, const AgentSettings& settings);

// Free megabytes (kilobytes / 1000) of the file system holding the path in
// the payload, or "Unknown" when there is no path or it cannot be queried.
// In hardened mode a missing path is never created. Returns 1.
int process_getdiskspace_request(int fd, const AgentSettings& settings, const std::string& peer,
                                 const unsigned char* payload, int length);

// Free kilobytes for an unprivileged user. A path that cannot be queried
// is created (with its parents, mode 0744) and queried once more, unless
// create_missing is false. 1, or 0 with 0 KB.
[[nodiscard]] int get_diskspace_free_kb(const std::string& path, int64_t& out_kb, bool create_missing = true);

}  // namespace kova
