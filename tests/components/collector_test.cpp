#include "components/collector.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <tuple>

#include "component_fixture.h"

namespace kova::test {
namespace {

class Collector : public ComponentTest {
 protected:
  void SetUp() override {
    ComponentTest::SetUp();
    collector_state() = CollectorState{};
    collector_state().dc_cmdline.hostname = settings_.hostname;
    dc_adjust_path_settings(collector_state().dc_cmdline, root_);
  }

  std::string settings_file() const { return collector_state().dc_cmdline.settings_file; }
  std::string state_file() const { return settings_.tmp_dir + "/kova_" + settings_.hostname + "_lastsize.tmp"; }
  // A data file holding `text`, named by the lock file of a collector that is not running.
  std::string fake_data(const std::string& name, const std::string& text) {
    write_file(root_ + "/data/" + name, text);
    write_file(settings_.collector_lock_path, "PID~999999\nCURRENT_DATA_FILE~" + root_ + "/data/" + name + "\n");
    return root_ + "/data/" + name;
  }
};

// A stored rate below a minute, and a dump interval below it, are checked against the real binary.
TEST_F(Collector, SettingsMergeTakesOnlyWhatItMay) {
  const struct {
    int dump, peak, retain, result, write, peak_after, retain_after;
    const char* logged;
  } cases[] = {
      {0, -1, -1, 0, 120, 0, 30, ""},  // zero and negatives ignored
      {300, 0, 30, 1, 300, 0, 30, "dump interval from 120 to 300"},
      {120, 5000, 30, 1, 120, 5000, 30, "peak interval from 0 to 5000"},
      {30, 0, 7, 1, 120, 0, 7, "retain from 30 to 7"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.logged);
    ::unlink(settings_file().c_str());
    DcSettings& dc = collector_state().dc_cmdline;
    dc.write_rate = 120, dc.peak_rate = 0, dc.retain = 30;
    EXPECT_EQ(compare_dc_settings(dc, c.dump, c.peak, c.retain), c.result);
    EXPECT_EQ(std::tuple(dc.write_rate, dc.peak_rate, dc.retain), std::tuple(c.write, c.peak_after, c.retain_after));
    // Written only on a change, and then with the merged rate.
    EXPECT_EQ(read_file(settings_file()).find("WRITE_RATE~" + std::to_string(c.write) + "\n") != std::string::npos,
              c.result == 1);
    EXPECT_NE(log_text().find(c.logged), std::string::npos) << log_text();
  }
}

TEST_F(Collector, GrowthWatchStopsTrustingAFileThatStopsGrowing) {
  write_file(settings_.collector_lock_path, "PID~1\n");
  EXPECT_EQ(check_dc_datafile_size(settings_), 0);
  EXPECT_NE(log_text().find("Unable to get CURRENT_DATAFILE"), std::string::npos);
  write_file(settings_.collector_lock_path, "CURRENT_DATA_FILE~" + root_ + "/data/none.zud-1\n");
  EXPECT_EQ(check_dc_datafile_size(settings_), 0);
  EXPECT_NE(log_text().find("W-STAT_FAIL"), std::string::npos);

  const std::string data = fake_data("qdtsx_a:1.zud-1", "sample\n");  // its state line is split from the right
  settings_.growth_interval = 300;  // below the minimum: 900 is used
  const std::time_t t0 = fake_now;
  CollectorState& state = collector_state();
  EXPECT_EQ(check_dc_datafile_size(settings_), 1) << "the first check only records";
  EXPECT_EQ(read_file(state_file()), data + ":7:" + std::to_string(t0) + "\n");

  // Each request child starts from an empty copy; the watch comes back from the file.
  state = CollectorState{};
  fake_now = t0 + 900;
  EXPECT_EQ(check_dc_datafile_size(settings_), 1) << "not yet due";
  fake_now = t0 + 901;
  EXPECT_EQ(check_dc_datafile_size(settings_), -1);
  EXPECT_NE(log_text().find("file size NOT increasing... 0 < 0"), std::string::npos);
  EXPECT_EQ(read_file(state_file()), data + ":7:" + std::to_string(t0) + "\n") << "state kept";

  write_file(data, "sample\nmore\n");
  EXPECT_EQ(check_dc_datafile_size(settings_), 1);
  EXPECT_EQ(std::tuple(state.l_last_datafile_size, state.last_dc_checktime), std::tuple(12, t0 + 901));

  // A new day's file, smaller than the old one: all of it is growth.
  const std::string next = fake_data("qdtsx_b.zud-1", "s\n");
  fake_now = t0 + 2000;
  EXPECT_EQ(check_dc_datafile_size(settings_), 1);
  EXPECT_NE(log_text().find("Size: (2  - 0),   growth: 2"), std::string::npos) << log_text();
  EXPECT_EQ(state.last_dc_filename, next);

  fake_now = t0 + 3000;
  settings_.check_growth = 0;
  EXPECT_EQ(check_dc_datafile_size(settings_), 1) << "watch off";
}

TEST_F(Collector, GrowthIntervalOutsideItsRangeBecomes900AndTheStateFileKeeps32BitSizes) {
  fake_data("qdtsx_c.zud-1", "sample\n");
  const long cases[][3] = {{600, 601, -1}, {10800, 10000, 1}, {10801, 1000, -1}};
  for (const auto& [configured, elapsed, result] : cases) {
    SCOPED_TRACE(configured);
    kova_delete_existing_filesize_tempfile(settings_);
    collector_state() = CollectorState{};
    settings_.growth_interval = static_cast<int>(configured);
    ASSERT_EQ(check_dc_datafile_size(settings_), 1);
    fake_now += elapsed;
    EXPECT_EQ(check_dc_datafile_size(settings_), result);
  }

  std::string name;
  long size = -1;
  std::time_t when = -1;
  for (const char* bad : {"", "/d/f:12\n", "nothing\n"}) {
    write_file(state_file(), bad);
    EXPECT_EQ(get_last_dc_filesize(settings_, name, size, when), 0) << bad;
    EXPECT_EQ(size, -1);
  }
  ASSERT_EQ(save_last_dc_filesize(settings_, "/d/big", 2147483648L + 5, 1), 1);
  EXPECT_EQ(read_file(state_file()), "/d/big:-2147483643:1\n");
}

// Starting and stopping on request are checked against the real binary.
TEST_F(Collector, ARunningCollectorIsStoppedOnlyWhenItsFileStopsGrowingAndAStaleLockIsNotSignalled) {
  // Our own pid under a name that is not the collector's.
  write_file(settings_.collector_lock_path, "PID~" + std::to_string(::getpid()) + "\n");
  EXPECT_EQ(dc_stop(settings_.collector_lock_path, settings_.install_root, 1), 1);
  EXPECT_EQ(CheckDC_UNIX(settings_), kStatusNotRunning);

  ::setenv("VORN_DEMO_INTERVAL_MS", "3600000", 1);  // one sample at start, the next in an hour
  ASSERT_EQ(StartDC_UNIX("10.0.0.1", 0, 0, 30, settings_), kStatusRunning) << log_text();
  ::unsetenv("VORN_DEMO_INTERVAL_MS");
  const int pid = collector_pid();
  ASSERT_GT(pid, 0);
  EXPECT_EQ(StartDC_UNIX("10.0.0.1", 0, 0, 30, settings_), kStatusRunning) << "a second start leaves it be";
  EXPECT_EQ(collector_pid(), pid);
  fake_now += 60;
  EXPECT_EQ(CheckDC_UNIX(settings_), kStatusRunning);

  std::string data;
  ASSERT_EQ(dc_get_filename_from_lockfile(settings_.collector_lock_path, data), 1);
  write_file(data, read_file(data) + "a sample more\n");
  fake_now += 20 * 60;
  EXPECT_EQ(CheckDC_UNIX(settings_), kStatusRunning) << log_text();

  fake_now += 20 * 60;
  EXPECT_EQ(CheckDC_UNIX(settings_), kStatusNotRunning);
  EXPECT_NE(log_text().find("GrowthAction:  Stopping vORN Monitor..."), std::string::npos) << log_text();
  EXPECT_TRUE(wait_for_exit(pid));
  EXPECT_FALSE(file_exists(settings_.collector_lock_path));
  EXPECT_EQ(collector_state().last_dc_checktime, 0) << "the watch starts afresh";
  EXPECT_FALSE(file_exists(state_file())) << "also for the request children to come";
}

TEST_F(Collector, MeasurewareModeDrivesItsOwnCommands) {
  settings_.measureware_source = 1;
  EXPECT_EQ(CheckDC_UNIX(settings_), kStatusRunning) << "no \"scopeux\" runs: the lookup's \"none\" is up";
  EXPECT_EQ(StartDC_UNIX("10.0.0.1", 300, 0, 30, settings_), kStatusRunning);
  EXPECT_EQ(StopDC_UNIX(settings_), kStatusNotRunning);
  EXPECT_NE(log_text().find("Stopping Measureware server"), std::string::npos);
  EXPECT_FALSE(file_exists(settings_file())) << "the collector's settings are not touched";
}

}  // namespace
}  // namespace kova::test
