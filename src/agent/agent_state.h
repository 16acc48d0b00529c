// The agent's process-wide state: built in agent_main, passed by reference
// to the request loop and the dispatcher, inherited by request children.
#pragma once

#include <string>

#include "agent/hardened.h"
#include "settings/agent_settings.h"

namespace kova {

inline constexpr int kOsId = 4;  // the operating-system id sent for opcode 16

struct AgentState {
  AgentSettings settings;
  int listen_fd = -1;
  int detailed_logging = 0;  // from -verbose, or KOVA_DEBUG at a connection
  int message_repeat = 60;   // period of the collector state log lines
  int command_count = 59;    // registered requests seen, modulo the period
  int zud_age = 14;          // days of data files kept after a data request
  HardenedState hardened;    // used only in hardened mode
};

}  // namespace kova
