#include "appdata/date_format.h"

#include <algorithm>
#include <array>
#include <cctype>

#include "appdata/appdata_state.h"

namespace kova {
namespace {

enum class Part : unsigned char { kYear, kMonthNumber, kMonthAsGiven, kMonthLower, kMonthUpper, kDay, kShortDay };

struct StyleKey {
  std::string_view key;
  char separator;  // '\0': the parts are written together
  std::array<Part, 3> parts;
};

using enum Part;

// Order matters: a key is matched over its own length, so each longer key
// comes before the shorter keys it begins with.
constexpr StyleKey kStyleKeys[] = {
    {"YYYYMmmDD", '\0', {kYear, kMonthAsGiven, kDay}},
    {"YYYYMmmD", '\0', {kYear, kMonthAsGiven, kShortDay}},
    {"YYYYmmmDD", '\0', {kYear, kMonthLower, kDay}},
    {"YYYYmmmD", '\0', {kYear, kMonthLower, kShortDay}},
    {"YYYYMMMDD", '\0', {kYear, kMonthUpper, kDay}},
    {"YYYYMMMD", '\0', {kYear, kMonthUpper, kShortDay}},
    {"YYYYMMDD", '\0', {kYear, kMonthNumber, kDay}},
    {"YYYYMMD", '\0', {kYear, kMonthNumber, kShortDay}},
    {"DDMmmYYYY", '\0', {kDay, kMonthAsGiven, kYear}},
    {"DMmmYYYY", '\0', {kShortDay, kMonthAsGiven, kYear}},
    {"DDmmmYYYY", '\0', {kDay, kMonthLower, kYear}},
    {"DmmmYYYY", '\0', {kShortDay, kMonthLower, kYear}},
    {"DDMMMYYYY", '\0', {kDay, kMonthUpper, kYear}},
    {"DMMMYYYY", '\0', {kShortDay, kMonthUpper, kYear}},
    {"DDMMYYYY", '\0', {kDay, kMonthNumber, kYear}},
    {"DMMYYYY", '\0', {kShortDay, kMonthNumber, kYear}},
    {"YYYY-mmm-DD", '-', {kYear, kMonthLower, kDay}},
    {"YYYY-mmm-D", '-', {kYear, kMonthLower, kShortDay}},
    {"YYYY-MMM-DD", '-', {kYear, kMonthUpper, kDay}},
    {"YYYY-MMM-D", '-', {kYear, kMonthUpper, kShortDay}},
    {"YYYY-Mmm-DD", '-', {kYear, kMonthAsGiven, kDay}},
    {"YYYY-Mmm-D", '-', {kYear, kMonthAsGiven, kShortDay}},
    {"YYYY-MM-DD", '-', {kYear, kMonthNumber, kDay}},
    {"YYYY-MM-D", '-', {kYear, kMonthNumber, kShortDay}},
    {"DD-mmm-YYYY", '-', {kDay, kMonthLower, kYear}},
    {"D-mmm-YYYY", '-', {kShortDay, kMonthLower, kYear}},
    {"DD-Mmm-YYYY", '-', {kDay, kMonthAsGiven, kYear}},
    {"D-Mmm-YYYY", '-', {kShortDay, kMonthAsGiven, kYear}},
    {"DD-MMM-YYYY", '-', {kDay, kMonthUpper, kYear}},
    {"D-MMM-YYYY", '-', {kShortDay, kMonthUpper, kYear}},
    {"DD-MM-YYYY", '-', {kDay, kMonthNumber, kYear}},
    {"D-MM-YYYY", '-', {kShortDay, kMonthNumber, kYear}},
    {"DD_mmm_YYYY", '_', {kDay, kMonthLower, kYear}},
    {"D_mmm_YYYY", '_', {kShortDay, kMonthLower, kYear}},
    {"DD_Mmm_YYYY", '_', {kDay, kMonthAsGiven, kYear}},
    {"D_Mmm_YYYY", '_', {kShortDay, kMonthAsGiven, kYear}},
    {"DD_MMM_YYYY", '_', {kDay, kMonthUpper, kYear}},
    {"D_MMM_YYYY", '_', {kShortDay, kMonthUpper, kYear}},
    {"DD_MM_YYYY", '_', {kDay, kMonthNumber, kYear}},
    {"D_MM_YYYY", '_', {kShortDay, kMonthNumber, kYear}},
    {"YYYY_MM_DD", '_', {kYear, kMonthNumber, kDay}},
    {"YYYY_MM_D", '_', {kYear, kMonthNumber, kShortDay}},
    {"YYYY_mmm_DD", '_', {kYear, kMonthLower, kDay}},
    {"YYYY_mmm_D", '_', {kYear, kMonthLower, kShortDay}},
    {"YYYY_MMM_DD", '_', {kYear, kMonthUpper, kDay}},
    {"YYYY_MMM_D", '_', {kYear, kMonthUpper, kShortDay}},
    {"YYYY_Mmm_DD", '_', {kYear, kMonthAsGiven, kDay}},
    {"YYYY_Mmm_D", '_', {kYear, kMonthAsGiven, kShortDay}},
};

constexpr std::string_view kMonths[] = {"jan", "feb", "mar", "apr", "may", "jun",
                                        "jul", "aug", "sep", "oct", "nov", "dec"};

std::string with_case(std::string text, int (*change)(int)) {
  for (char& c : text) c = static_cast<char>(change(static_cast<unsigned char>(c)));
  return text;
}

std::string part_text(const DateFields& d, Part part) {
  switch (part) {
    case kYear: return d.year;
    case kMonthNumber: return d.month_number;
    case kMonthAsGiven: return d.month;
    case kMonthLower: return with_case(d.month, ::tolower);
    case kMonthUpper: return with_case(d.month, ::toupper);
    case kDay: return d.day;
    case kShortDay: return d.short_day;
  }
  return {};
}

// Up to `n` characters of `text` from `at`; fewer, or none, where it ends.
std::string_view cut(std::string_view text, size_t at, size_t n) {
  return at < text.size() ? text.substr(at, n) : std::string_view();
}

}  // namespace

int date_GetDateTime_KOVA_FORMAT(std::string_view text) {
  if (text.size() < 10) return 0;
  DateFields& d = appdata_state().date;
  d.day = cut(text, 0, 2);
  d.short_day = d.day.starts_with('0') ? d.day.substr(1) : d.day;
  d.month = cut(text, 3, 3);
  d.year = cut(text, 7, 4);
  if (text.size() >= 17) {
    d.hour = cut(text, 12, 2);
    d.minute = cut(text, 15, 2);
    const std::string lower = with_case(d.month, ::tolower);
    const auto* found = std::find(std::begin(kMonths), std::end(kMonths), lower);
    // A month name not in the table is numbered 13, not refused: the other
    // styles of the day still render.
    const int number = static_cast<int>(found - std::begin(kMonths)) + 1;
    d.month_number = {static_cast<char>('0' + number / 10), static_cast<char>('0' + number % 10)};
  }
  return 1;
}

int date_GetFormattedDate(std::string_view style, std::string& out) {
  const auto* key = std::find_if(std::begin(kStyleKeys), std::end(kStyleKeys),
                                 [&](const StyleKey& k) { return style.starts_with(k.key); });
  if (key == std::end(kStyleKeys)) return 1;
  const DateFields& d = appdata_state().date;
  out.clear();
  for (size_t i = 0; i < key->parts.size(); ++i) {
    if (i > 0 && key->separator != '\0') out += key->separator;
    out += part_text(d, key->parts[i]);
  }
  return 1;
}

int date_GetDateTime_KOVA_FORMAT_TT(std::time_t t, std::string& out) {
  std::tm local{};
  localtime_r(&t, &local);
  char text[24] = {};
  std::strftime(text, sizeof text, kAgentDateFormat, &local);
  out = text;
  return 1;
}

}  // namespace kova
