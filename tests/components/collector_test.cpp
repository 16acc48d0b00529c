#include "components/collector.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "component_fixture.h"
#include "components/findproc.h"
#include "support/temp_dir.h"

namespace kova {
namespace {

using test::file_exists;
using test::read_file;
using test::write_file;

class Collector : public test::ComponentTest {
 protected:
  void SetUp() override {
    ComponentTest::SetUp();
    collector_state() = CollectorState{};
    collector_state().dc_cmdline.hostname = settings_.hostname;
    dc_adjust_path_settings(collector_state().dc_cmdline, root_);
    ::unsetenv("VORN_DEMO_INTERVAL_MS");
  }

  std::string settings_file() const { return collector_state().dc_cmdline.settings_file; }

  // The running collector's pid from its lock file, 0 when there is none.
  int collector_pid() const {
    DcLockfile lock;
    return dc_read_lockfile(settings_.collector_lock_path, lock) == 1 ? lock.pid : 0;
  }

  // Grows `path` by `bytes` bytes.
  static void grow(const std::string& path, size_t bytes) { write_file(path, read_file(path) + std::string(bytes, 'x')); }

  // A lock file of a collector that is not running, naming `data_file`.
  void fake_lock(const std::string& data_file) {
    write_file(settings_.collector_lock_path, "PID~999999\nWRITE_RATE~120\nCURRENT_DATA_FILE~" + data_file + "\n");
  }
};

TEST_F(Collector, SettingsMergeTakesOnlyWhatItMay) {
  struct Case {
    const char* name;
    int stored_write, dump, peak, retain;
    int result, write, peak_after, retain_after;
    const char* logged;
  };
  const Case cases[] = {
      {"short dump ignored", 120, 30, 0, 30, 0, 120, 0, 30, nullptr},
      {"zero and negatives ignored", 120, 0, -1, -1, 0, 120, 0, 30, nullptr},
      {"dump taken", 120, 300, 0, 30, 1, 300, 0, 30, "dump interval from 120 to 300"},
      {"peak taken", 120, 120, 5000, 30, 1, 120, 5000, 30, "peak interval from 0 to 5000"},
      {"retain taken", 120, 30, 0, 7, 1, 120, 0, 7, "retain from 30 to 7"},
      {"short stored rate refuses all", 45, 300, 5000, 7, 0, 45, 0, 30,
       "data collector settings problem, interval < 60,  45"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    ::unlink(settings_file().c_str());
    ::unlink((root_ + "/logs/test.log").c_str());
    DcSettings& dc = collector_state().dc_cmdline;
    dc.write_rate = c.stored_write;
    dc.peak_rate = 0;
    dc.retain = 30;
    EXPECT_EQ(compare_dc_settings(dc, c.dump, c.peak, c.retain), c.result);
    EXPECT_EQ(dc.write_rate, c.write);
    EXPECT_EQ(dc.peak_rate, c.peak_after);
    EXPECT_EQ(dc.retain, c.retain_after);
    EXPECT_EQ(file_exists(settings_file()), c.result == 1);
    if (c.result == 1) {
      EXPECT_NE(read_file(settings_file()).find("WRITE_RATE~" + std::to_string(c.write) + "\n"), std::string::npos);
    }
    if (c.logged != nullptr) {
      EXPECT_NE(log_text().find(c.logged), std::string::npos) << log_text();
    }
  }
  EXPECT_NE(log_text().find("KOVAAGENT-I-SETERR,"), std::string::npos);
}

TEST_F(Collector, GrowthWatchStopsTrustingAFileThatStopsGrowing) {
  const std::string data = root_ + "/data/qdtsx_a.zud-1";
  write_file(data, "sample\n");
  fake_lock(data);
  settings_.growth_interval = 300;  // below the minimum: 900 is used
  const std::time_t t0 = test::fake_now;
  CollectorState& state = collector_state();

  EXPECT_EQ(check_dc_datafile_size(settings_), 1) << "the first check only records";
  EXPECT_EQ(state.last_dc_checktime, t0);
  const std::string state_file = settings_.tmp_dir + "/kova_" + settings_.hostname + "_lastsize.tmp";
  EXPECT_EQ(read_file(state_file), data + ":7:" + std::to_string(t0) + "\n");

  // Each request child starts from the listener's empty copy; the watch
  // comes back from the file.
  state = CollectorState{};
  test::fake_now = t0 + 900;
  EXPECT_EQ(check_dc_datafile_size(settings_), 1) << "not yet due";
  test::fake_now = t0 + 901;
  EXPECT_EQ(check_dc_datafile_size(settings_), -1);
  EXPECT_NE(log_text().find("file size NOT increasing... 0 < 0"), std::string::npos);
  EXPECT_EQ(read_file(state_file), data + ":7:" + std::to_string(t0) + "\n") << "state kept";

  grow(data, 5);
  EXPECT_EQ(check_dc_datafile_size(settings_), 1);
  EXPECT_EQ(state.l_last_datafile_size, 12);
  EXPECT_EQ(state.last_dc_checktime, t0 + 901);

  // A new day's file, smaller than the old one: all of it is growth.
  const std::string next = root_ + "/data/qdtsx_b.zud-1";
  write_file(next, "s\n");
  fake_lock(next);
  test::fake_now = t0 + 2000;
  EXPECT_EQ(check_dc_datafile_size(settings_), 1);
  EXPECT_NE(log_text().find("Size: (2  - 0),   growth: 2"), std::string::npos) << log_text();
  EXPECT_EQ(state.last_dc_filename, next);

  test::fake_now = t0 + 3000;
  settings_.check_growth = 0;
  EXPECT_EQ(check_dc_datafile_size(settings_), 1) << "watch off";
}

TEST_F(Collector, GrowthIntervalOutsideItsRangeBecomes900) {
  const std::string data = root_ + "/data/qdtsx_c.zud-1";
  write_file(data, "sample\n");
  fake_lock(data);
  struct Case {
    int configured;
    long elapsed;
    int result;
  };
  const Case cases[] = {{300, 901, -1}, {600, 601, -1}, {10800, 10000, 1}, {10800, 10801, -1}, {10801, 1000, -1}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.configured);
    kova_delete_existing_filesize_tempfile(settings_);
    collector_state() = CollectorState{};
    settings_.growth_interval = c.configured;
    const std::time_t t0 = test::fake_now;
    ASSERT_EQ(check_dc_datafile_size(settings_), 1);
    test::fake_now = t0 + c.elapsed;
    EXPECT_EQ(check_dc_datafile_size(settings_), c.result);
  }
}

TEST_F(Collector, GrowthCheckSkippedWithoutADataFile) {
  write_file(settings_.collector_lock_path, "PID~1\n");
  EXPECT_EQ(check_dc_datafile_size(settings_), 0);
  EXPECT_NE(log_text().find("Unable to get CURRENT_DATAFILE"), std::string::npos);
  fake_lock(root_ + "/data/none.zud-1");
  EXPECT_EQ(check_dc_datafile_size(settings_), 0);
  EXPECT_NE(log_text().find("W-STAT_FAIL"), std::string::npos);
}

TEST_F(Collector, GrowthStateFile) {
  std::string name;
  long size = -1;
  std::time_t when = -1;
  EXPECT_EQ(get_last_dc_filesize(settings_, name, size, when), 0);
  const std::string state_file = settings_.tmp_dir + "/kova_" + settings_.hostname + "_lastsize.tmp";
  for (const char* bad : {"", "/d/f:12\n", "nothing\n"}) {
    write_file(state_file, bad);
    EXPECT_EQ(get_last_dc_filesize(settings_, name, size, when), 0) << bad;
    EXPECT_EQ(size, -1);
  }
  ASSERT_EQ(save_last_dc_filesize(settings_, "/d/a:b.zud-1", 4096, 1700000123), 1);
  ASSERT_EQ(get_last_dc_filesize(settings_, name, size, when), 1);
  EXPECT_EQ(name, "/d/a:b.zud-1");
  EXPECT_EQ(size, 4096);
  EXPECT_EQ(when, 1700000123);
  // The size field is 32 bits wide.
  ASSERT_EQ(save_last_dc_filesize(settings_, "/d/big", 2147483648L + 5, 1), 1);
  EXPECT_EQ(read_file(state_file), "/d/big:-2147483643:1\n");
  EXPECT_EQ(kova_delete_existing_filesize_tempfile(settings_), 1);
  EXPECT_FALSE(file_exists(state_file));
}

TEST_F(Collector, StartCheckStopTheRealProgram) {
  settings_.verbose = 1;
  EXPECT_EQ(CheckDC_UNIX(settings_), kStatusNotRunning);

  ASSERT_EQ(StartDC_UNIX("10.0.0.1", 300, 0, 30, settings_), kStatusRunning) << log_text();
  const int pid = collector_pid();
  ASSERT_GT(pid, 0);
  EXPECT_EQ(findproc("vorn_monitor", pid, 0), 1);
  EXPECT_NE(read_file(settings_file()).find("WRITE_RATE~300\n"), std::string::npos);
  EXPECT_NE(log_text().find("Data collector settings saved, " + settings_file()), std::string::npos);
  EXPECT_NE(log_text().find("KOVAAGENT-I-COMMAND,"), std::string::npos);
  EXPECT_EQ(collector_state().dc_interval, 300) << "the collector took the merged rate";
  EXPECT_EQ(collector_state().dc_version.number, 5);
  EXPECT_EQ(collector_state().dc_version.text, "V10.0-001:Feb 23 2012");

  // A second start finds it running and leaves it so.
  EXPECT_EQ(StartDC_UNIX("10.0.0.1", 300, 0, 30, settings_), kStatusRunning);
  EXPECT_EQ(collector_pid(), pid);

  EXPECT_EQ(StopDC_UNIX(settings_), kStatusNotRunning);
  EXPECT_FALSE(file_exists(settings_.collector_lock_path));
  EXPECT_TRUE(test::wait_for_exit(pid));
  EXPECT_NE(log_text().find("Calling collector stop..."), std::string::npos);
  EXPECT_EQ(CheckDC_UNIX(settings_), kStatusNotRunning);
}

TEST_F(Collector, CollectorWhoseFileStopsGrowingIsStopped) {
  // One sample at start, the next in an hour.
  ::setenv("VORN_DEMO_INTERVAL_MS", "3600000", 1);
  ASSERT_EQ(StartDC_UNIX("10.0.0.1", 0, 0, 30, settings_), kStatusRunning) << log_text();
  const int pid = collector_pid();
  ASSERT_GT(pid, 0);
  test::fake_now += 60;
  EXPECT_EQ(CheckDC_UNIX(settings_), kStatusRunning);

  test::fake_now += 20 * 60;
  EXPECT_EQ(CheckDC_UNIX(settings_), kStatusNotRunning);
  EXPECT_NE(log_text().find("GrowthAction:  Stopping vORN Monitor..."), std::string::npos) << log_text();
  EXPECT_TRUE(test::wait_for_exit(pid));
  EXPECT_FALSE(file_exists(settings_.collector_lock_path));
  EXPECT_EQ(collector_state().last_dc_checktime, 0) << "the watch starts afresh";
}

TEST_F(Collector, CollectorThatKeepsWritingStaysUp) {
  ::setenv("VORN_DEMO_INTERVAL_MS", "20", 1);
  ASSERT_EQ(StartDC_UNIX("10.0.0.1", 0, 0, 30, settings_), kStatusRunning) << log_text();
  const int pid = collector_pid();
  EXPECT_EQ(CheckDC_UNIX(settings_), kStatusRunning);
  std::string data;
  ASSERT_EQ(dc_get_filename_from_lockfile(settings_.collector_lock_path, data), 1);
  const std::string before = read_file(data);
  for (int i = 0; i < 250 && read_file(data) == before; ++i) ::usleep(20000);
  test::fake_now += 20 * 60;
  EXPECT_EQ(CheckDC_UNIX(settings_), kStatusRunning) << log_text();
  EXPECT_EQ(StopDC_UNIX(settings_), kStatusNotRunning);
  EXPECT_TRUE(test::wait_for_exit(pid));
}

TEST_F(Collector, NodeHelpersWithAnExplicitLockFile) {
  const std::string lock = settings_.collector_lock_path;
  int write = -1, peak = -1;
  EXPECT_EQ(kova_dc_status(lock, "node1", "LOCAL", write, peak, 1), kStatusNotRunning);
  EXPECT_EQ(write, 0);
  EXPECT_EQ(kova_dc_stop(lock, "vorn_monitor", 1), 1);
  EXPECT_NE(log_text().find("vorn_monitor is not running"), std::string::npos);

  const std::string command = shell_quote(root_ + "/bin/vorn_monitor") + " -rootdir " + shell_quote(root_);
  EXPECT_EQ(kova_dc_start(command, 0), 1);
  const int pid = collector_pid();
  ASSERT_GT(pid, 0);
  EXPECT_EQ(kova_dc_status(lock, "node1", "LOCAL", write, peak, 1), kStatusRunning);
  EXPECT_EQ(write, 120);
  EXPECT_EQ(peak, 0);
  // The virtual-host collector's short name holds the local one's.
  EXPECT_EQ(kova_dc_status(lock, "esx1", "ESX", write, peak, 0), kStatusRunning);

  EXPECT_EQ(kova_dc_stop(lock, "vorn_monitor", 1), 1);
  EXPECT_TRUE(test::wait_for_exit(pid));
  EXPECT_NE(log_text().find("Stopping  vorn_monitor  (pid " + std::to_string(pid) + ")"), std::string::npos);
  EXPECT_EQ(kova_dc_status(lock, "node1", "LOCAL", write, peak, 0), kStatusNotRunning);
}

TEST_F(Collector, StaleLockFileIsNotSignalled) {
  // Our own pid under a name that is not the collector's.
  write_file(settings_.collector_lock_path, "PID~" + std::to_string(::getpid()) + "\n");
  EXPECT_EQ(dc_stop(settings_.collector_lock_path, 1), 1);
  EXPECT_EQ(CheckDC_UNIX(settings_), kStatusNotRunning);
}

TEST_F(Collector, MeasurewareModeDrivesItsOwnCommands) {
  settings_.measureware_source = 1;
  // No "scopeux" runs: the lookup's "none" is taken as up.
  EXPECT_EQ(CheckDC_UNIX(settings_), kStatusRunning);
  EXPECT_EQ(StartDC_UNIX("10.0.0.1", 300, 0, 30, settings_), kStatusRunning);
  EXPECT_EQ(StopDC_UNIX(settings_), kStatusNotRunning);
  EXPECT_NE(log_text().find("Stopping Measureware server"), std::string::npos);
  EXPECT_FALSE(file_exists(settings_file())) << "the collector's settings are not touched";
}

}  // namespace
}  // namespace kova
