// The shell command lines that start and stop the components, kept in two
// forms: as the log shows them (the plain text admins know and grep for)
// and as the shell runs them (every value from settings quoted).
#pragma once

#include <string>
#include <string_view>

#include "settings/agent_settings.h"

namespace kova {

inline constexpr const char* kQuiet = " > /dev/null 2>&1";

class ComponentCommand {
 public:
  // Fixed text of the command line, the same in both forms.
  ComponentCommand& text(std::string_view literal);
  // A path or name from the settings: as it is in the log, one quoted word
  // for the shell.
  ComponentCommand& value(std::string_view value);

  const std::string& shown() const { return shown_; }
  const std::string& quoted() const { return quoted_; }

 private:
  std::string shown_;
  std::string quoted_;
};

// "<program><tail>", then " -user <user>" and " -rootdir <install root>"
// when the agent itself was given them, then kQuiet: how the collector and
// the real-time agent are started and stopped.
ComponentCommand component_command(const std::string& program, std::string_view tail,
                                   const AgentSettings& settings);

// Runs the quoted form with "/bin/sh -c"; the result is not examined, a
// status check afterwards decides.
void run_component_command(const ComponentCommand& command);

}  // namespace kova
