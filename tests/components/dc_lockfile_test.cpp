#include "components/dc_lockfile.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "support/temp_dir.h"

namespace kova {
namespace {

using test::file_exists;
using test::TempDir;
using test::write_file;

// A lock file as the current collector writes it.
const char* const kCurrent =
    "4242@Mon Mar  4 10:00:00 2024@Not specified@/v/data@200000@12\n"
    "PID~4242\nVERSION~V10.0-001:Feb 23 2012\nSTART~Mon Mar  4 10:00:00 2024\nEND~Not specified\n"
    "DATA_DIR~/v/data\nLOG_DIR~/v/logs\nSCAN_RATE~2000\nWRITE_RATE~120\nPEAK_RATE~500\nRETAIN~14\nVERBOSE~2\n"
    "COLLECT_CPU~1\nCOLLECT_DISK~0\nCOLLECT_PROCESS~1\nCOLLECT_MEMORY~0\nCOLLECT_NET~1\nCOLLECT_NIC~0\n"
    "COLLECT_HBA~1\nCOLLECT_LPAR~0\nCOLLECT_FILESYS~1\nCOLLECT_PROCESSOR~0\nMAP_DISKNAMES~1\n"
    "FILESYS_EXCLUDE~tmpfs,proc\nPRIORITY~3\nAPPEND_DATA_FILES~1\nUSER~PID~99\nIMAGE_BITS~64\n"
    "CURRENT_DATA_FILE~/v/data/qdtsx_web1_2024Mar04.zud-1\n";

TEST(DcLockfile, ReadsEveryFieldOfTheCurrentLayout) {
  TempDir dir;
  write_file(dir / "lock", kCurrent);
  DcLockfile r;
  ASSERT_EQ(dc_read_lockfile(dir / "lock", r), 1);
  // USER~ is not read; this one holds PID~, which the key order takes.
  EXPECT_EQ(r.pid, 99);
  EXPECT_EQ(r.version, "V10.0-001:Feb 23 2012");
  EXPECT_EQ(r.start_time, "Mon Mar  4 10:00:00 2024");
  EXPECT_EQ(r.end_time, "Not specified");
  EXPECT_EQ(r.data_dir, "/v/data");
  EXPECT_EQ(r.log_dir, "/v/logs");
  EXPECT_EQ(r.current_data_file, "/v/data/qdtsx_web1_2024Mar04.zud-1");
  EXPECT_EQ(r.filesys_exclude, "tmpfs,proc\n");
  EXPECT_EQ(r.scan_rate, 2000);
  EXPECT_EQ(r.write_rate, 120);
  EXPECT_EQ(r.peak_rate, 500);
  EXPECT_EQ(r.retain, 14);
  EXPECT_EQ(r.verbose, 2);
  EXPECT_EQ(r.collect_cpu + r.collect_process + r.collect_net + r.collect_hba + r.collect_filesys, 5);
  EXPECT_EQ(r.collect_disk + r.collect_memory + r.collect_nic + r.collect_lpar + r.collect_processor, 0);
  EXPECT_EQ(r.map_disknames, 1);
  EXPECT_EQ(r.priority, 3);
  EXPECT_EQ(r.append_data_files, 1);
  EXPECT_EQ(r.image_bits, 64);
  EXPECT_TRUE(file_exists(dir / "lock"));
}

TEST(DcLockfile, OpenFailuresAndFilesWithoutKeys) {
  TempDir dir;
  DcLockfile r;
  EXPECT_EQ(dc_read_lockfile(dir / "missing", r), -1);

  write_file(dir / "summary", "77@a@b@/d@200000@12\n");
  EXPECT_EQ(dc_read_lockfile(dir / "summary", r), 0);
  EXPECT_FALSE(file_exists(dir / "summary")) << "a lock file without keys is removed";
  EXPECT_EQ(dc_read_lockfile(dir / "summary", r), -1);

  if (::geteuid() != 0) {  // root reads whatever the mode
    write_file(dir / "closed", kCurrent);
    ::chmod((dir / "closed").c_str(), 0);
    EXPECT_EQ(dc_read_lockfile(dir / "closed", r), -2);
    EXPECT_TRUE(file_exists(dir / "closed"));
  }
}

TEST(DcLockfile, CurrentDataFileIsTheLastOne) {
  TempDir dir;
  std::string out = "untouched";
  EXPECT_EQ(dc_get_filename_from_lockfile(dir / "missing", out), 0);
  write_file(dir / "none", "PID~1\n");
  EXPECT_EQ(dc_get_filename_from_lockfile(dir / "none", out), 0);
  EXPECT_EQ(out, "untouched");

  write_file(dir / "two", "CURRENT_DATA_FILE~/d/one\nPID~1\nCURRENT_DATA_FILE~/d/two\n");
  EXPECT_EQ(dc_get_filename_from_lockfile(dir / "two", out), 1);
  EXPECT_EQ(out, "/d/two");

  write_file(dir / "cut", "CURRENT_DATA_FILE~/d/three");
  EXPECT_EQ(dc_get_filename_from_lockfile(dir / "cut", out), 1);
  EXPECT_EQ(out, "/d/thre");
}

TEST(DcLockfile, GenerationsAreToldApart) {
  TempDir dir;
  test::make_dirs(dir / "qdt");
  test::make_dirs(dir / "bin");
  const DcLegacyPaths legacy{dir / "qdt", dir / "bin"};
  DcLockfile r;
  DcVersion v;

  write_file(dir / "lock", kCurrent);
  EXPECT_EQ(kova_read_dc_lockfile(dir / "lock", r, v, legacy), 1);
  EXPECT_EQ(v.number, 5);
  EXPECT_EQ(v.text, "V10.0-001:Feb 23 2012");

  // Only the summary line: its fields count, scaling and all, although the
  // current reader removes the file on the way.
  write_file(dir / "lock", "77@Mon Mar  4 10:00:00 2024@Not specified@/old/data@200000@12\n");
  r = {};
  EXPECT_EQ(kova_read_dc_lockfile(dir / "lock", r, v, legacy), 1);
  EXPECT_EQ(v.number, 4);
  EXPECT_EQ(v.text, "V4.0");
  EXPECT_EQ(r.pid, 77);
  EXPECT_EQ(r.start_time, "Mon Mar  4 10:00:00 2024");
  EXPECT_EQ(r.end_time, "Not specified");
  EXPECT_EQ(r.data_dir, "/old/data");
  EXPECT_EQ(r.scan_rate, 200000);
  EXPECT_EQ(r.write_rate, 12);
  EXPECT_FALSE(file_exists(dir / "lock"));

  // The oldest generation's file is opened, but its lines are looked for in
  // the given path, which is not there.
  write_file(dir / "qdt/lockfile.zud", "pid 12\n");
  EXPECT_EQ(kova_read_dc_lockfile(dir / "lock", r, v, legacy), 0);
  EXPECT_EQ(v.number, 5);
  EXPECT_EQ(v.text, "Unknown");
  write_file(dir / "qdt/lockfile.zud", "12@s@e@/q@1@2\n");
  EXPECT_EQ(kova_read_dc_lockfile(dir / "lock", r, v, legacy), 1);
  EXPECT_EQ(v.number, 4);
  EXPECT_EQ(r.pid, 12);

  write_file(dir / "empty", "");
  EXPECT_EQ(kova_read_dc_lockfile(dir / "empty", r, v, legacy), 0);
}

TEST(DcLockfile, VersionFromInstalledProgramsWithoutALockFile) {
  TempDir dir;
  test::make_dirs(dir / "bin");
  const DcLegacyPaths legacy{dir / "qdt", dir / "bin"};
  AgentSettings settings;
  settings.collector_lock_path = dir / "lock";
  DcVersion v;

  EXPECT_EQ(kova_determine_dc_version(settings, v, legacy), 0);
  EXPECT_EQ(v.number, 0);
  EXPECT_EQ(v.text, "Unknown");
  write_file(dir / "bin/zudunix", "");
  EXPECT_EQ(kova_determine_dc_version(settings, v, legacy), 0);
  EXPECT_EQ(v.number, 4);
  EXPECT_EQ(v.text, "vORN Monitor 4.0n");
  write_file(dir / "bin/vorn_monitor", "");
  EXPECT_EQ(kova_determine_dc_version(settings, v, legacy), 0);
  EXPECT_EQ(v.number, 5);
  EXPECT_EQ(v.text, "vORN Monitor 5.0");

  write_file(dir / "lock", kCurrent);
  EXPECT_EQ(kova_determine_dc_version(settings, v, legacy), 1);
  EXPECT_EQ(v.text, "V10.0-001:Feb 23 2012");
}

}  // namespace
}  // namespace kova
