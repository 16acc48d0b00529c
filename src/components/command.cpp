#include "components/command.h"

#include "base/shell.h"
#include "platform/process.h"

namespace kova {

ComponentCommand& ComponentCommand::text(std::string_view literal) {
  shown_ += literal;
  quoted_ += literal;
  return *this;
}

ComponentCommand& ComponentCommand::value(std::string_view value) {
  shown_ += value;
  quoted_ += shell_quote(value);
  return *this;
}

ComponentCommand component_command(const std::string& program, std::string_view tail,
                                   const AgentSettings& settings) {
  ComponentCommand command;
  command.value(program).text(tail);
  if (settings.user_given == 1) command.text(" -user ").value(settings.user);
  if (settings.rootdir_given == 1) command.text(" -rootdir ").value(settings.install_root);
  command.text(kQuiet);
  return command;
}

void run_component_command(const ComponentCommand& command) { (void)run_shell_command(command.quoted()); }

}  // namespace kova
