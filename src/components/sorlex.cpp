#include "components/sorlex.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

#include "components/command.h"
#include "platform/findproc.h"
#include "base/clock.h"
#include "base/log.h"
#include "platform/files.h"
#include "base/codes.h"

namespace kova {
namespace {

constexpr const char* kProgram = "sorlexagent";

std::string program_path(const std::string& root) { return sorlex_program_path(root); }

}  // namespace

std::string sorlex_program_path(const std::string& root) { return root + "/bin/" + kProgram; }

int StartSORLEX_UNIX(const std::string& root, int debug) {
  const std::string startup = root + "/sorlexagent.txt";
  const std::string spare = root + "/tmp/sorlexagent.txt";
  if (!file_exists(startup) && file_exists(spare)) {
    // The program looks for its start-up file only beside its bin dir.
    if (const int error = copy_file_exclusive(spare, startup); error != 0)
      log_printf("W-SORLEX_COPY", "Unable to copy %s to %s, %s", spare.c_str(), startup.c_str(),
                 std::strerror(error));
  }
  ComponentCommand command;
  command.value(program_path(root));
  if (debug != 0) write_to_log("I-COMMAND", command.shown());
  run_component_command(command);
  clock_sleep(1);
  return CheckSORLEX_UNIX(root, debug);
}

int StopSORLEX_UNIX(const std::string& root, int debug) {
  ComponentCommand command;
  command.value(program_path(root)).text(" -stop");
  write_to_log("I-COMMAND", command.shown());
  run_component_command(command);
  return CheckSORLEX_UNIX(root, debug);
}

int CheckSORLEX_UNIX(const std::string& root, int debug) {
  if (!file_exists(program_path(root))) return kStatusNotInstalled;
  // Only the search agent of this root: another root's runs on its own.
  const bool up = find_process_by_name(kProgram, root, ::getpid(), debug) >= 1;
  if (debug == 1) write_to_log("I-SORLEX_STAT", up ? "Sorlex Agent UP" : "Sorlex Agent DOWN");
  return up ? kStatusRunning : kStatusNotRunning;
}

}  // namespace kova
