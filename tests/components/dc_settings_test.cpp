#include "components/dc_settings.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <tuple>

#include "support/temp_dir.h"

namespace kova::test {
namespace {

DcSettings record_in(const TempDir& dir) {
  DcSettings r;
  r.hostname = "web1";
  make_dirs(dir / "settings");
  dc_adjust_path_settings(r, dir.path());
  return r;
}

TEST(DcSettings, WrittenInAFixedOrderWithTheGroupsAndTheExclusionListsLineFeedAsTheyStand) {
  TempDir dir;
  DcSettings r = record_in(dir);
  EXPECT_EQ(dc_parse_startup_file(r), 0) << "no file yet: the record stands";
  ASSERT_EQ(dc_write_settings_file(r), 1);
  EXPECT_EQ(read_file(dir / "settings/vorn_web1.config"),
            "WRITE_RATE~120\nPEAK_RATE~0\nSCAN_RATE~2000\nRETAIN~30\nPRIORITY~0\nVERBOSE~0\nUSER~root\n"
            "COLLECT_CPU~1\nCOLLECT_DISK~1\nCOLLECT_PROCESS~1\nCOLLECT_MEMORY~1\nCOLLECT_NET~1\nCOLLECT_NIC~1\n"
            "COLLECT_HBA~1\nCOLLECT_LPAR~0\nCOLLECT_FILESYS~1\nCOLLECT_PROCESSOR~1\n"
            "MAX_CPU~101\nMAP_DISKNAMES~1\nFILESYS_EXCLUDE~tmpfs,devfs,mntfs,lofs,ctfs,fd,proc,objfs\n"
            "AUGMENT_NETWORK~0\nAUGMENT_PROCESS~0\n");
  DcSettings back = record_in(dir);
  back.max_cpu = 7;
  ASSERT_EQ(dc_parse_startup_file(back), 1);
  EXPECT_EQ(std::tuple(back.collect_all, back.collect_lpar, back.user, back.filesys_exclude),
            std::tuple(1, 0, "root", std::string(kDefaultFilesysExclude) + "\n"));
  EXPECT_EQ(back.max_cpu, 7) << "MAX_CPU~ is written, never read";

  write_file(r.settings_file, "COLLECT_CPU~1\nCOLLECT_NET~1\nCOLLECT_HBA~1\nFILESYS_EXCLUDE~nfs,tmpfs\n");
  DcSettings some = record_in(dir);
  ASSERT_EQ(dc_parse_startup_file(some), 1);
  EXPECT_EQ(some.collect_all, 0);
  ASSERT_EQ(dc_write_settings_file(some), 1);
  const std::string first = read_file(r.settings_file);
  EXPECT_NE(first.find("COLLECT_CPU~1\nCOLLECT_DISK~0\nCOLLECT_PROCESS~0\nCOLLECT_MEMORY~0\nCOLLECT_NET~1\n"
                       "COLLECT_NIC~0\nCOLLECT_HBA~1\nCOLLECT_LPAR~0\nCOLLECT_FILESYS~0\nCOLLECT_PROCESSOR~0\n"),
            std::string::npos)
      << first;
  EXPECT_NE(first.find("FILESYS_EXCLUDE~nfs,tmpfs\n\nAUGMENT_NETWORK~"), std::string::npos) << first;
  DcSettings again = record_in(dir);
  ASSERT_EQ(dc_parse_startup_file(again), 1);
  ASSERT_EQ(dc_write_settings_file(again), 1);
  EXPECT_EQ(read_file(again.settings_file), first) << "one empty line, not one more per round";
}

// How a line is split into key and value is the key file reader's; here, this file's keys and their order.
TEST(DcSettings, KeysAreTriedInTheTablesOrder) {
  TempDir dir;
  DcSettings r = record_in(dir);
  write_file(r.settings_file, "USER~ \tbob \t\r\nUSER~LOG_DIR~x\nCOLLECT_PROCESSOR~1\n");
  ASSERT_EQ(dc_parse_startup_file(r), 1);
  EXPECT_EQ(std::tuple(r.user, r.log_dir, r.log_dir_given, r.collect_processor, r.collect_process),
            std::tuple("bob", "x", 1, 1, 0));
  write_file(r.settings_file, "write_rate~90\n");
  EXPECT_EQ(dc_parse_startup_file(r), 0) << "keys are upper case";
}

// The install root comes from VANTREL_LIBRARY, less a trailing "/"; one character is no root.
TEST(DcSettings, InitTakesTheRootFromTheEnvironment) {
  for (auto [value, root] : {std::pair{"/opt/x/", "/opt/x"}, {"/", "/opt/vantrel"}, {nullptr, "/opt/vantrel"}}) {
    if (value != nullptr) ::setenv("VANTREL_LIBRARY", value, 1);
    DcSettings r;
    EXPECT_EQ(dc_init_command_line(r), 1);
    ::unsetenv("VANTREL_LIBRARY");
    EXPECT_EQ(r.settings_file, std::string(root) + "/settings/vorn_" + r.hostname + ".config");
  }
}

}  // namespace
}  // namespace kova::test
