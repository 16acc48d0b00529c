// The agent's command line, its install-tree layout and the account helpers.
#pragma once

#include <string>
#include <string_view>

#include "settings/agent_settings.h"

namespace kova {

// Results of kova_parse_command_line besides 1 (go on) and 0 (an option
// error was printed; exit 0).
inline constexpr int kParseMeasureware = 2;  // "-mwa": message printed, exit 1

// The install root from $VANTREL_LIBRARY (one trailing "/" removed): 1; or
// the default "/opt/vantrel": 2. get_sorlex_root does the same with
// $SORLEX_LIBRARY for the search agent.
int get_vantrel_root(std::string& out);
int get_sorlex_root(std::string& out);

// Sets every default, the host name (cut at its first ".") and the install
// layout. Returns 1.
int kova_init_command_line(AgentSettings& settings);

// Moves the install tree to `root`: every derived path except data_dir.
int kova_adjust_path_settings(AgentSettings& settings, const std::string& root);

// The early scan for "-rootdir DIR", so that the settings file is looked for
// under DIR. 1 when found and applied; 0 when absent or without a value
// (then "-rootdir option requires an argument" has been printed).
int kova_parse_cmdline_for_rootdir(char** argv, int argc, AgentSettings& settings);

// Prints the banner, then applies every option over the settings. Returns 1
// to go on, 0 after an option error (printed on stderr), kParseMeasureware.
[[nodiscard]] int kova_parse_command_line(char** argv, int argc, AgentSettings& settings);

// True when `arg` is a prefix of `option` longer than n characters.
bool unix_option_compare(std::string_view arg, std::string_view option, int n);

// dst = arg, or $PWD/arg when arg is relative and contains "..". 0 when the
// current directory cannot be read (message printed), else 1.
int set_path_variable(std::string& dst, const std::string& arg);

// "HH:MM" into schedule_hour and schedule_minute: 1; 0 leaves them.
[[nodiscard]] int parse_hour_min(std::string_view text, AgentSettings& settings);

void kova_print_banner();
void kova_print_usage();

// 1 when the install root and the data, log and tmp directories exist;
// otherwise 0, each failure explained on stderr.
[[nodiscard]] int kova_check_paths(const AgentSettings& settings);

// -1: path missing; 0: not a link, out = path; 1: a link, out = its target
// (or path when the target cannot be resolved).
[[nodiscard]] int kova_resolve_softlink(const std::string& path, std::string& out, int verbose);

// Trims leading blanks and tabs, trailing blanks, tabs, CR and LF in place;
// returns the new length.
int LibTrim1(std::string& s);

// 1 when the real user is `account`; 0 otherwise or when it does not exist.
[[nodiscard]] int kova_am_i_vantrel(const std::string& account);

// Switches the process to `account` (groups, group id, user id): 1; 0 when
// the account does not exist and -1 when the switch failed (both printed).
[[nodiscard]] int kova_relinquish_root(const std::string& account);

}  // namespace kova
