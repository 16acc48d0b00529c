// Date styles: the day the server names in the agent's date form
// ("05-Feb-2012:10:30") turned into the styles applications write into
// their file names ("20120205", "5-feb-2012", "2012_FEB_05", ...). The
// parsed day lives in appdata_state().date.
#pragma once

#include <ctime>
#include <string>
#include <string_view>

namespace kova {

// The time format the agent exchanges with the server.
inline constexpr const char* kAgentDateFormat = "%d-%b-%Y:%H:%M";

// Takes `text` apart into appdata_state().date: day (characters 0-1),
// month (3-5), year (7-10); with at least 17 characters also hour (12-13),
// minute (15-16) and the month number ("13" for a month name not known).
// A shorter text keeps the month number it had. Returns 1, or 0 with the
// fields untouched when `text` has fewer than 10 characters.
int date_GetDateTime_KOVA_FORMAT(std::string_view text);

// Writes the parsed day in `style` to `out`. The style is compared with the
// known keys in a fixed order, each over the key's own length, so that
// "YYYYMMDD.log" is taken as "YYYYMMDD"; the first match decides. A style
// that matches no key leaves `out` as it was. Returns 1.
int date_GetFormattedDate(std::string_view style, std::string& out);

// `t` as local time in the agent's date form. Returns 1.
int date_GetDateTime_KOVA_FORMAT_TT(std::time_t t, std::string& out);

}  // namespace kova
