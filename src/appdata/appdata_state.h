// The application-data subsystem's process-wide state: the date styles a
// site lists in settings/date_formats.txt (read once at start-up and
// inherited by every request child) and the day a request asked for, taken
// apart and rendered in each style.
#pragma once

#include <string>
#include <vector>

namespace kova {

// The day parsed from the agent's date form "DD-Mon-YYYY:HH:MM".
struct DateFields {
  std::string day;           // "DD", as given
  std::string short_day;     // "D": the day without a leading zero
  std::string month;         // "Mon", as given
  std::string year;          // "YYYY"
  std::string hour;          // "HH"
  std::string minute;        // "MM"
  std::string month_number;  // "01".."12", "13" for a month name not known
};

// One line of the styles file and the requested day rendered in it. An
// empty line leaves a slot with an empty style, which renders nothing.
struct DateStyle {
  std::string style;
  std::string rendered;
};

struct AppDataState {
  DateFields date;
  std::vector<DateStyle> styles;  // one slot per line of the styles file, in file order
};

AppDataState& appdata_state();

}  // namespace kova
