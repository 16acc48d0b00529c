#include "components/dc_lockfile.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <tuple>

#include "support/temp_dir.h"

namespace kova::test {
namespace {

// A lock file of the current layout, in part: the stand-in collector writes it whole for the status checks.
const char* const kCurrent =
    "4242@Mon Mar  4 10:00:00 2024@Not specified@/v/data@200000@12\n"
    "PID~4242\nVERSION~V10.0-001:Feb 23 2012\nWRITE_RATE~120\nUSER~PID~99\n";

TEST(DcLockfile, OddFilesAreToldApartAndTheCurrentDataFileIsTheLastNamed) {
  TempDir dir;
  write_file(dir / "lock", kCurrent);
  DcLockfile r;
  ASSERT_EQ(dc_read_lockfile(dir / "lock", r), 1);
  EXPECT_EQ(r.pid, 99) << "USER~ is not read; this one holds PID~, which the key order takes";
  EXPECT_EQ(dc_read_lockfile(dir / "missing", r), -1);
  write_file(dir / "summary", "77@a@b@/d@200000@12\n");
  EXPECT_EQ(dc_read_lockfile(dir / "summary", r), 0);
  EXPECT_FALSE(file_exists(dir / "summary")) << "a lock file without keys is removed";
  ::chmod((dir / "lock").c_str(), 0);
  const int closed = dc_read_lockfile(dir / "lock", r);
  EXPECT_TRUE(closed == -2 || ::geteuid() == 0) << closed << ": root may read whatever the mode";
  EXPECT_TRUE(file_exists(dir / "lock"));

  for (auto [text, want] : {std::pair{"CURRENT_DATA_FILE~/d/one\nPID~1\nCURRENT_DATA_FILE~/d/two\n", "/d/two"},
                            std::pair{"CURRENT_DATA_FILE~/d/three", "/d/thre"}}) {
    write_file(dir / "data", text);
    std::string out;
    EXPECT_EQ(dc_get_filename_from_lockfile(dir / "data", out), 1);
    EXPECT_EQ(out, want) << "the current data file is the last one named, less its last character";
  }
}

TEST(DcLockfile, GenerationsAreToldApartByTheirLockFilesOrPrograms) {
  TempDir dir;
  const DcLegacyPaths legacy{dir.path(), dir.path()};
  DcLockfile r;
  DcVersion v;
  write_file(dir / "lock", "77@Mon Mar  4 10:00:00 2024@Not specified@/old/data@200000@12\n");
  EXPECT_EQ(kova_read_dc_lockfile(dir / "lock", r, v, legacy), 1);
  EXPECT_EQ(std::tie(v.number, v.text), std::tuple(4, "V4.0"));
  EXPECT_EQ(std::tie(r.pid, r.start_time, r.end_time, r.data_dir, r.scan_rate, r.write_rate),
            std::tuple(77, "Mon Mar  4 10:00:00 2024", "Not specified", "/old/data", 200000, 12));
  EXPECT_FALSE(file_exists(dir / "lock")) << "a summary's fields count, although the current reader removes the file";

  write_file(dir / "lockfile.zud", "pid 12\n");
  EXPECT_EQ(kova_read_dc_lockfile(dir / "lock", r, v, legacy), 0)
      << "the oldest generation's file is opened, but its lines are looked for in the given path";
  EXPECT_EQ(std::tie(v.number, v.text), std::tuple(5, "Unknown"));
  write_file(dir / "lockfile.zud", "12@s@e@/q@1@2\n");
  EXPECT_EQ(kova_read_dc_lockfile(dir / "lock", r, v, legacy), 1);
  EXPECT_EQ(std::tie(v.number, r.pid), std::tuple(4, 12));

  // Without a usable lock file the installed programs tell the generation; with one, its version.
  ::unlink((dir / "lockfile.zud").c_str());
  AgentSettings settings;
  settings.collector_lock_path = dir / "lock";
  const std::tuple<const char*, int, int, const char*> steps[] = {
      {nullptr, 0, 0, "Unknown"}, {"zudunix", 0, 4, "vORN Monitor 4.0n"},
      {"vorn_monitor", 0, 5, "vORN Monitor 5.0"}, {"lock", 1, 5, "V10.0-001:Feb 23 2012"}};
  for (const auto& [file, result, number, text] : steps) {
    if (file != nullptr) write_file(dir / file, std::string(file) == "lock" ? kCurrent : "");
    EXPECT_EQ(kova_determine_dc_version(settings, v, legacy), result) << text;
    EXPECT_EQ(std::tie(v.number, v.text), std::tuple(number, text));
  }
}

}  // namespace
}  // namespace kova::test
