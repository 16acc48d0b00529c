#include "appdata/date_format.h"

#include <gtest/gtest.h>

#include <string>

#include "appdata/appdata_state.h"
#include "support/fixed_clock.h"

namespace kova::test {
namespace {

std::string render(const std::string& style) {
  std::string out = "unchanged";
  EXPECT_EQ(date_GetFormattedDate(style, out), 1);
  return out;
}

// Every style a site may list: year first or last, the parts together or
// between "-" or "_". The fifth of February tells every part apart.
TEST(DateFormat, EveryStyleRendersTheDayInItsOwnOrderAndSeparator) {
  appdata_state().date = {};
  ASSERT_EQ(date_GetDateTime_KOVA_FORMAT("05-Feb-2012:10:30"), 1);
  const std::pair<std::string, std::string> months[] = {{"Mmm", "Feb"}, {"mmm", "feb"}, {"MMM", "FEB"}, {"MM", "02"}};
  const std::pair<std::string, std::string> days[] = {{"DD", "05"}, {"D", "5"}};
  for (const std::string sep : {"", "-", "_"})
    for (const auto& [month, month_shown] : months)
      for (const auto& [day, day_shown] : days) {
        EXPECT_EQ(render("YYYY" + sep + month + sep + day), "2012" + sep + month_shown + sep + day_shown);
        EXPECT_EQ(render(day + sep + month + sep + "YYYY"), day_shown + sep + month_shown + sep + "2012");
      }
  // Matched over the key's length only; anything else leaves the output alone.
  const std::pair<const char*, const char*> others[] = {{"YYYYMMDD.log", "20120205"}, {"YYYY-MM-DD_%H", "2012-02-05"},
                                                        {"MMDDYYYY", "unchanged"},   {"", "unchanged"},
                                                        {"YYYY", "unchanged"}};
  for (const auto& [style, expected] : others) EXPECT_EQ(render(style), expected) << style;
}

TEST(DateFormat, ParsingRulesForShortTextsUnknownMonthsAndDaysWithoutLeadingZero) {
  appdata_state().date = {};
  ASSERT_EQ(date_GetDateTime_KOVA_FORMAT("05-Xyz-2012:10:30"), 1);
  EXPECT_EQ(render("YYYY-MM-DD"), "2012-13-05");  // an unknown month is 13, not an error
  EXPECT_EQ(appdata_state().date.hour + appdata_state().date.minute, "1030");

  // 10 to 16 characters: the month number stays what it was.
  ASSERT_EQ(date_GetDateTime_KOVA_FORMAT("17-dec-2013"), 1);
  EXPECT_EQ(render("D-MM-YYYY"), "17-13-2013");
  EXPECT_EQ(render("YYYYMMMD"), "2013DEC17");
  ASSERT_EQ(date_GetDateTime_KOVA_FORMAT("17-dec-2013:00:00"), 1);
  EXPECT_EQ(render("D-MM-YYYY"), "17-12-2013");

  EXPECT_EQ(date_GetDateTime_KOVA_FORMAT("01-Jan-20"), 0);  // too short: nothing changes
  EXPECT_EQ(render("YYYYMMDD"), "20131217");

  std::string out;  // and back to the agent's form
  ASSERT_EQ(date_GetDateTime_KOVA_FORMAT_TT(local_time(2012, 2, 5, 10, 30), out), 1);
  EXPECT_EQ(out, "05-Feb-2012:10:30");
}

}  // namespace
}  // namespace kova::test
