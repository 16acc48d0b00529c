// The agent's settings file: "<settings dir>/kova_<host>.config", one
// "KEY~value" line per setting.
#pragma once

#include <string_view>

#include "settings/agent_settings.h"

namespace kova {

// Reads the settings file over the defaults. 1 when at least one line held a
// known key; 0 when the file is missing, unreadable or holds none.
int kova_parse_startup_file(AgentSettings& settings);

// The key ("VERBOSE~", ...) a start takes `line` of the settings file for,
// by the reader's own table and rule; "" when it skips the line.
std::string_view settings_key_read_as(std::string_view line);

// Writes the twelve persistent settings, and the hardened-mode and listen
// settings that differ from their defaults (announced on stdout). 1, or 0 when
// the file cannot be opened for writing.
[[nodiscard]] int kova_write_settings_file(const AgentSettings& settings);

}  // namespace kova
