// The configuration check (-check_config): the settings file and the
// command line read as a start reads them, then a second, stricter pass
// over the same file and the resulting install tree, reporting what a start
// would silently ignore, misread or fail on. Nothing is started or written.
#pragma once

#include <string>
#include <vector>

namespace kova {

enum class Severity { kNote, kWarning, kError };

struct ConfigFinding {
  Severity severity = Severity::kNote;
  std::string where;  // "FILE:LINE", "command line", or the path concerned
  std::string text;
};

// True when argv holds the whole word "-check_config": the check then runs
// instead of anything else the command line asks for.
[[nodiscard]] bool kova_config_check_requested(char** argv, int argc);

// Reads the settings and checks them. The start's own reading prints what
// it always prints (the banner, option errors).
std::vector<ConfigFinding> kova_check_config(char** argv, int argc);

// "WHERE: error|warning|note: TEXT", one line each.
std::string format_finding(const ConfigFinding& finding);

// Runs the check and prints its findings on standard output. Returns the
// exit status: 1 when any finding is an error, else 0.
[[nodiscard]] int kova_check_config_main(char** argv, int argc);

}  // namespace kova
