// The search agent sorlexagent, installed under a root of its own. It keeps
// no lock file: whether it runs is a name search of the process table.
#pragma once

#include <string>

namespace kova {

// "<root>/bin/sorlexagent": the program the functions below run.
std::string sorlex_program_path(const std::string& root);

// Puts the spare start-up file "<root>/tmp/sorlexagent.txt" in place when
// "<root>/sorlexagent.txt" is missing, starts "<root>/bin/sorlexagent"
// through the shell and returns CheckSORLEX_UNIX(root, debug).
[[nodiscard]] int StartSORLEX_UNIX(const std::string& root, int debug);

// Runs "<root>/bin/sorlexagent -stop" and returns CheckSORLEX_UNIX.
[[nodiscard]] int StopSORLEX_UNIX(const std::string& root, int debug);

// 3 running, 4 not running, 5 not installed under `root`. Logs the state
// when debug is 1.
[[nodiscard]] int CheckSORLEX_UNIX(const std::string& root, int debug);

}  // namespace kova
