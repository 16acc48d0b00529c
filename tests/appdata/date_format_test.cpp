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

// The fifth of February tells every part apart: DD 05, D 5, Mmm Feb, mmm
// feb, MMM FEB, MM 02.
TEST(DateFormat, EveryStyleRendersTheDayInItsOwnOrderAndSeparator) {
  appdata_state().date = {};
  ASSERT_EQ(date_GetDateTime_KOVA_FORMAT("05-Feb-2012:10:30"), 1);
  const std::pair<const char*, const char*> styles[] = {
      {"YYYYMmmDD", "2012Feb05"},     {"YYYYMmmD", "2012Feb5"},       {"YYYYmmmDD", "2012feb05"},
      {"YYYYmmmD", "2012feb5"},       {"YYYYMMMDD", "2012FEB05"},     {"YYYYMMMD", "2012FEB5"},
      {"YYYYMMDD", "20120205"},       {"YYYYMMD", "2012025"},         {"DDMmmYYYY", "05Feb2012"},
      {"DMmmYYYY", "5Feb2012"},       {"DDmmmYYYY", "05feb2012"},     {"DmmmYYYY", "5feb2012"},
      {"DDMMMYYYY", "05FEB2012"},     {"DMMMYYYY", "5FEB2012"},       {"DDMMYYYY", "05022012"},
      {"DMMYYYY", "5022012"},         {"YYYY-mmm-DD", "2012-feb-05"}, {"YYYY-mmm-D", "2012-feb-5"},
      {"YYYY-MMM-DD", "2012-FEB-05"}, {"YYYY-MMM-D", "2012-FEB-5"},   {"YYYY-Mmm-DD", "2012-Feb-05"},
      {"YYYY-Mmm-D", "2012-Feb-5"},   {"YYYY-MM-DD", "2012-02-05"},   {"YYYY-MM-D", "2012-02-5"},
      {"DD-mmm-YYYY", "05-feb-2012"}, {"D-mmm-YYYY", "5-feb-2012"},   {"DD-Mmm-YYYY", "05-Feb-2012"},
      {"D-Mmm-YYYY", "5-Feb-2012"},   {"DD-MMM-YYYY", "05-FEB-2012"}, {"D-MMM-YYYY", "5-FEB-2012"},
      {"DD-MM-YYYY", "05-02-2012"},   {"D-MM-YYYY", "5-02-2012"},     {"DD_mmm_YYYY", "05_feb_2012"},
      {"D_mmm_YYYY", "5_feb_2012"},   {"DD_Mmm_YYYY", "05_Feb_2012"}, {"D_Mmm_YYYY", "5_Feb_2012"},
      {"DD_MMM_YYYY", "05_FEB_2012"}, {"D_MMM_YYYY", "5_FEB_2012"},   {"DD_MM_YYYY", "05_02_2012"},
      {"D_MM_YYYY", "5_02_2012"},     {"YYYY_MM_DD", "2012_02_05"},   {"YYYY_MM_D", "2012_02_5"},
      {"YYYY_mmm_DD", "2012_feb_05"}, {"YYYY_mmm_D", "2012_feb_5"},   {"YYYY_MMM_DD", "2012_FEB_05"},
      {"YYYY_MMM_D", "2012_FEB_5"},   {"YYYY_Mmm_DD", "2012_Feb_05"}, {"YYYY_Mmm_D", "2012_Feb_5"},
      // Matched over the key's length only; anything else leaves the output alone.
      {"YYYYMMDD.log", "20120205"},   {"YYYY-MM-DD_%H", "2012-02-05"}, {"MMDDYYYY", "unchanged"},
      {"", "unchanged"},              {"YYYY", "unchanged"},
  };
  for (const auto& [style, expected] : styles) EXPECT_EQ(render(style), expected) << style;
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
}

TEST(DateFormat, TimeInTheAgentsForm) {
  std::string out;
  ASSERT_EQ(date_GetDateTime_KOVA_FORMAT_TT(local_time(2012, 2, 5, 10, 30), out), 1);
  EXPECT_EQ(out, "05-Feb-2012:10:30");
}

}  // namespace
}  // namespace kova::test
