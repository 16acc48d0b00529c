#include "components/dc_settings.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "support/temp_dir.h"

namespace kova {
namespace {

using test::read_file;
using test::TempDir;
using test::write_file;

DcSettings record_in(const TempDir& dir) {
  DcSettings r;
  r.hostname = "web1";
  test::make_dirs(dir / "settings");
  dc_adjust_path_settings(r, dir.path());
  return r;
}

TEST(DcSettings, DefaultsWriteInTheirFixedOrderAndReadBack) {
  TempDir dir;
  DcSettings r = record_in(dir);
  EXPECT_EQ(r.settings_file, dir / "settings/vorn_web1.config");
  EXPECT_EQ(r.lock_file, dir / "tmp/web1_monitor.lock");
  ASSERT_EQ(dc_write_settings_file(r), 1);
  EXPECT_EQ(read_file(r.settings_file),
            "WRITE_RATE~120\nPEAK_RATE~0\nSCAN_RATE~2000\nRETAIN~30\nPRIORITY~0\nVERBOSE~0\nUSER~root\n"
            "COLLECT_CPU~1\nCOLLECT_DISK~1\nCOLLECT_PROCESS~1\nCOLLECT_MEMORY~1\nCOLLECT_NET~1\nCOLLECT_NIC~1\n"
            "COLLECT_HBA~1\nCOLLECT_LPAR~0\nCOLLECT_FILESYS~1\nCOLLECT_PROCESSOR~1\n"
            "MAX_CPU~101\nMAP_DISKNAMES~1\nFILESYS_EXCLUDE~tmpfs,devfs,mntfs,lofs,ctfs,fd,proc,objfs\n"
            "AUGMENT_NETWORK~0\nAUGMENT_PROCESS~0\n");

  DcSettings back = record_in(dir);
  back.max_cpu = 7;
  ASSERT_EQ(dc_parse_startup_file(back), 1);
  EXPECT_EQ(back.collect_all, 1);
  EXPECT_EQ(back.collect_lpar, 0);
  EXPECT_EQ(back.collect_process, 1);
  EXPECT_EQ(back.max_cpu, 7) << "MAX_CPU~ is written, never read";
  EXPECT_EQ(back.user, "root");
  EXPECT_EQ(back.filesys_exclude, std::string(kDefaultFilesysExclude) + "\n");
}

TEST(DcSettings, GroupsWithoutAllOfTheSixAreWrittenAsTheyStand) {
  TempDir dir;
  DcSettings r = record_in(dir);
  write_file(r.settings_file, "COLLECT_CPU~1\nCOLLECT_NET~1\nCOLLECT_HBA~1\n");
  ASSERT_EQ(dc_parse_startup_file(r), 1);
  EXPECT_EQ(r.collect_all, 0);
  ASSERT_EQ(dc_write_settings_file(r), 1);
  std::string text = read_file(r.settings_file);
  EXPECT_NE(text.find("COLLECT_CPU~1\nCOLLECT_DISK~0\nCOLLECT_PROCESS~0\nCOLLECT_MEMORY~0\nCOLLECT_NET~1\n"
                      "COLLECT_NIC~0\nCOLLECT_HBA~1\nCOLLECT_LPAR~0\nCOLLECT_FILESYS~0\nCOLLECT_PROCESSOR~0\n"),
            std::string::npos)
      << text;
}

TEST(DcSettings, ExclusionListCarriesItsLineFeedIntoTheNextWrite) {
  TempDir dir;
  DcSettings r = record_in(dir);
  write_file(r.settings_file, "FILESYS_EXCLUDE~nfs,tmpfs\n");
  ASSERT_EQ(dc_parse_startup_file(r), 1);
  EXPECT_EQ(r.filesys_exclude, "nfs,tmpfs\n");
  ASSERT_EQ(dc_write_settings_file(r), 1);
  const std::string first = read_file(r.settings_file);
  EXPECT_NE(first.find("FILESYS_EXCLUDE~nfs,tmpfs\n\nAUGMENT_NETWORK~"), std::string::npos) << first;

  // One empty line, not one more per round.
  DcSettings again = record_in(dir);
  ASSERT_EQ(dc_parse_startup_file(again), 1);
  ASSERT_EQ(dc_write_settings_file(again), 1);
  EXPECT_EQ(read_file(again.settings_file), first);
}

TEST(DcSettings, EachLineIsTakenAsTheFirstKeyInTestOrder) {
  struct Case {
    const char* line;
    int recognised;
    void (*check)(const DcSettings&);
  };
  const Case cases[] = {
      {"COLLECT_PROCESSOR~1\n", 1, [](const DcSettings& r) {
         EXPECT_EQ(r.collect_processor, 1);
         EXPECT_EQ(r.collect_process, 0);
       }},
      {"USER~LOG_DIR~x\n", 1, [](const DcSettings& r) {
         EXPECT_EQ(r.log_dir, "x");
         EXPECT_EQ(r.log_dir_given, 1);
         EXPECT_EQ(r.user, "root");
       }},
      {"USER~ \tbob \t\r\n", 1, [](const DcSettings& r) { EXPECT_EQ(r.user, "bob"); }},
      {"INSTALL_DIR~/srv/v", 1, [](const DcSettings& r) {
         EXPECT_EQ(r.install_dir, "/srv/") << "the last character goes, line feed or not";
         EXPECT_EQ(r.install_dir_given, 1);
       }},
      {"DATA_DIR~/big/data\n", 1, [](const DcSettings& r) {
         EXPECT_EQ(r.data_dir, "/big/data");
         EXPECT_EQ(r.data_dir_given, 1);
       }},
      {"APPEND_DATA_FILES~1\n", 1, [](const DcSettings& r) { EXPECT_EQ(r.append_data_files, 1); }},
      {"WRITE_RATE~300abc\n", 1, [](const DcSettings& r) { EXPECT_EQ(r.write_rate, 300); }},
      {"WRITE_RATE~abc\n", 1, [](const DcSettings& r) { EXPECT_EQ(r.write_rate, 0); }},
      {"# WRITE_RATE~90\n", 1, [](const DcSettings& r) { EXPECT_EQ(r.write_rate, 90); }},
      {"MAX_CPU~5\nwrite_rate~90\n", 0, [](const DcSettings& r) {
         EXPECT_EQ(r.max_cpu, 101);
         EXPECT_EQ(r.write_rate, 120);
       }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.line);
    TempDir dir;
    DcSettings r = record_in(dir);
    write_file(r.settings_file, c.line);
    EXPECT_EQ(dc_parse_startup_file(r), c.recognised);
    c.check(r);
  }
}

TEST(DcSettings, MissingOrUnwritableFilesLeaveTheRecord) {
  TempDir dir;
  DcSettings r = record_in(dir);
  r.write_rate = 77;
  EXPECT_EQ(dc_parse_startup_file(r), 0);
  EXPECT_EQ(r.write_rate, 77);
  EXPECT_EQ(r.collect_all, 1);

  std::filesystem::remove_all(dir / "settings");
  EXPECT_EQ(dc_write_settings_file(r), 0);
}

TEST(DcSettings, UpdatePathsResolvesLinksAndKeepsTheFilePaths) {
  TempDir dir;
  DcSettings r = record_in(dir);
  const std::string old_lock = r.lock_file;
  EXPECT_EQ(dc_update_paths(r, dir / "nowhere"), 0);
  EXPECT_EQ(r.install_dir, dir.path());

  test::make_dirs(dir / "big/data");
  test::make_dirs(dir / "new/logs");
  std::filesystem::create_directory_symlink(dir / "big/data", dir / "new/data");
  ASSERT_EQ(dc_update_paths(r, dir / "new"), 1);
  EXPECT_EQ(r.install_dir, dir / "new");
  EXPECT_EQ(r.data_dir, std::filesystem::canonical(dir / "big/data").string());
  EXPECT_EQ(r.log_dir, dir / "new/logs");
  EXPECT_EQ(r.tmp_dir, dir / "new/tmp") << "a missing directory keeps its formed path";
  EXPECT_EQ(r.lock_file, old_lock);
}

TEST(DcSettings, ResolveSoftlink) {
  TempDir dir;
  test::make_dirs(dir / "real");
  std::filesystem::create_directory_symlink(dir / "real", dir / "link");
  std::filesystem::create_symlink(dir / "gone", dir / "dangling");
  const std::string real = std::filesystem::canonical(dir / "real").string();
  struct Case {
    std::string path;
    int result;
    std::string out;
  };
  const Case cases[] = {
      {dir / "real", 0, dir / "real"},
      {dir / "link", 1, real},
      {dir / "dangling", -1, dir / "dangling"},
      {dir / "missing", -1, "untouched"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.path);
    std::string out = "untouched";
    EXPECT_EQ(dc_resolve_softlink(c.path, out, 0), c.result);
    EXPECT_EQ(out, c.out);
  }
}

TEST(DcSettings, Trim) {
  const std::pair<std::string, std::string> cases[] = {
      {"", ""}, {" \t ", ""}, {"\t root \r\n", "root"}, {"a b", "a b"}, {"x\n\n", "x"}, {"\nx", "\nx"},
  };
  for (auto [in, want] : cases) {
    std::string text = in;
    EXPECT_EQ(zudLibTrim(text), static_cast<int>(want.size()));
    EXPECT_EQ(text, want);
  }
}

TEST(DcSettings, InitTakesTheRootFromTheEnvironment) {
  const std::pair<const char*, const char*> cases[] = {
      {"/opt/x/", "/opt/x"}, {"/", "/opt/vantrel"}, {"/srv/v", "/srv/v"}};
  for (auto [env, root] : cases) {
    ::setenv("VANTREL_LIBRARY", env, 1);
    DcSettings r;
    r.write_rate = 5;
    EXPECT_EQ(dc_init_command_line(r), 1);
    EXPECT_EQ(r.install_dir, root);
    EXPECT_EQ(r.data_dir, std::string(root) + "/data");
    EXPECT_EQ(r.write_rate, 120);
    EXPECT_EQ(r.hostname.find('.'), std::string::npos);
    EXPECT_EQ(r.settings_file, std::string(root) + "/settings/vorn_" + r.hostname + ".config");
  }
  ::unsetenv("VANTREL_LIBRARY");
}

}  // namespace
}  // namespace kova
