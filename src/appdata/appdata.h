// Application data: files other applications write on this host, handed
// out only from directories the site registered with the agent
// (app_data_dir, "," between entries). A request names a path whose last
// component is a name pattern; the files of that directory whose names
// contain the pattern, and optionally a day in one of the site's date
// styles and a suffix, are selected, and old ones of the pattern purged.
#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "appdata/appdata_state.h"

namespace kova {

// Reads "<install_root>/settings/date_formats.txt" into appdata_state()
// once: one slot per line (lines read as 512-byte pieces), each holding the
// line less its line feed, at most 31 characters; an empty line leaves its
// slot empty. Returns 1; 0 with no styles when the file is missing (not
// reported: the site simply uses no dates).
int appdata_read_formats(const std::string& install_root);

// Parses `day` (the agent's date form) and renders it in every style of
// the table; a slot whose style is empty or matches no known key renders
// as nothing. Returns 1.
int appdata_build_time_filters(std::string_view day);

// Splits `path` at its last "/" (not the first character): name_out is
// what follows, dir_out what precedes, less one trailing "/", blanks
// trimmed. Returns 1, or 0 when there is no "/" after the first character.
// verbose logs the directory, or the failure.
[[nodiscard]] int get_unix_path(std::string_view path, std::string& dir_out, std::string& name_out, int verbose);

// The same for "device:[directory]name": split after the last "]", else
// after the last ":"; the separator stays with the directory.
[[nodiscard]] int get_vms_path(std::string_view path, std::string& dir_out, std::string& name_out, int verbose);

// 1 when `dir` equals an entry of `registered_list`: both trimmed and
// compared without regard to case, the entries split at "," with one
// trailing "/" dropped. Else 0.
[[nodiscard]] int appdata_validate_path(std::string_view registered_list, std::string_view dir, int verbose);

// Collects into `found` ("<dir>/<name>", newest find first) the regular
// files of the directory of `path` whose names contain its name pattern
// (cut at the first "*"), then, with use_dates, the first non-empty
// rendered date of `styles` that they contain, and `suffix` when given.
// Names come only from reading that directory, which must be registered.
// With skip_links (hardened mode) a link is skipped even when it points at
// a regular file.
// Returns 0; 17 when the directory is not registered, 18 when it cannot be
// opened (each logged).
[[nodiscard]] int appdata_find_files(std::vector<std::string>& found, const std::string& registered_list,
                                     std::string_view path, std::span<const DateStyle> styles,
                                     std::optional<std::string_view> suffix, int use_dates, int verbose,
                                     bool skip_links = false);

// Deletes the files of the directory of `path` whose names begin with its
// name pattern (cut at the first "*"), whose extension begins with
// `extension`, and that are more than `days` + 1 days old. Returns the
// purge's result, or 0 when `path` cannot be split. The caller has
// checked the directory against the registered list. With files_only
// (hardened mode) links and anything but regular files are left alone.
[[nodiscard]] int appdata_purge_files(std::string_view path, const std::string& extension, int days, int verbose,
                                      bool files_only = false);

}  // namespace kova
