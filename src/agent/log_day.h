// The agent log's daily file and its header block.
#pragma once

#include "settings/agent_settings.h"

namespace kova {

// Forms "<log dir>/kova_<host>_<YYYYMonDD>.log" when the day of the year
// has changed since the last call, and then purges this host's logs older
// than five days. Returns 1 for a new day (write the header next), else 0.
int get_log_file_name_unix(const AgentSettings& settings);

// Writes the header block: product, build, log name, install root, data
// directory, logging level and the server or remote-operation settings.
int write_log_header(const AgentSettings& settings);

}  // namespace kova
